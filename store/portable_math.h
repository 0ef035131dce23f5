// Math functions that give the same bits on every build.
//
// The C libraries of Linux and Windows round sin, cos, log2 and atan2
// differently in the last place, and the engine's output must not depend on
// the platform. These are written in plain double arithmetic (no fused
// multiply-add, no extended precision), so that any IEEE double machine
// computes the same results; they are within about one unit in the last
// place of the true value.
//
// The float-to-integer conversion lives here too: C++ leaves out-of-range
// conversions undefined, and the engine wants the one answer x86 gives.
#pragma once

#include <stdint.h>
#include <string.h>

// Sine and cosine of x in radians. Arguments beyond 2^20 * pi/2 in magnitude
// are reduced with less care (still the same bits everywhere); NaN and
// infinities give NaN.
double portableSin(double x);
double portableCos(double x);

// Base-2 logarithm: -inf for +-0, NaN for negative numbers and NaN, +inf for +inf.
double portableLog2(double x);

// The angle of the point (x, y) in -pi..pi, with the signs of zeros and
// infinities handled as the C library's atan2 handles them.
double portableAtan2(double y, double x);

// Float to int32 with truncation toward zero. NaN and values outside the
// int32 range give INT32_MIN, which is what the x86 conversion instruction
// gives, so that no build depends on undefined behaviour. The range test is
// explicit rather than left to the instruction: compilers fold conversions of
// constants by other rules.
inline int32_t truncToInt32(double value) {
  if (!(value > -2147483649.0 && value < 2147483648.0)) return INT32_MIN;
  return static_cast<int32_t>(value);
}

inline int32_t truncToInt32(float value) {
  if (!(value >= -2147483648.0f && value < 2147483648.0f)) return INT32_MIN;
  return static_cast<int32_t>(value);
}

// The bits of a float and back, without breaking the aliasing rules.
inline uint32_t floatBits(float value) {
  uint32_t bits;
  memcpy(&bits, &value, sizeof bits);
  return bits;
}

inline float bitsToFloat(uint32_t bits) {
  float value;
  memcpy(&value, &bits, sizeof value);
  return value;
}

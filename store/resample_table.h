// The five-tap resampling weights for 128 sub-pixel phases, in the three number
// forms the kernels multiply with. Every PixelStore carries one copy.
#pragma once

#include <stdint.h>

constexpr int kKernelPhases = 128;
constexpr int kKernelTaps = 5;

// Tap 0 belongs to the pixel at +2 from the base pixel, tap 1 to +1, tap 2 to the
// base pixel, tap 3 to -1, tap 4 to -2. Each row holds one tap for all phases.
struct ResampleKernelTable {
  float weights[kKernelTaps][kKernelPhases];          // filled, not read by the kernels
  int32_t weights2048[kKernelTaps][kKernelPhases];    // 8-bit kernels; a phase's taps sum to 2048
  int32_t weights32768[kKernelTaps][kKernelPhases];   // 16-bit kernels; a phase's taps sum to 32768
  float weightsFloat[kKernelTaps][kKernelPhases];     // float kernels: the same values as `weights`
};
static_assert(sizeof(ResampleKernelTable) == 20 * 128 * 4, "ResampleKernelTable is 20 rows of 128 words");

// The filter: a Lanczos window of radius 2, L(x) = sinc(x) * sinc(x / 2) on
// (-2, 2), with pi taken as 3.141592653 (that truncated value is part of the
// weights). Double arithmetic; sin is the build-independent one.
double lanczos2(double x);

// Fills all four forms. Phase i covers offsets t = i / 128 - 2; the weight of
// each tap is L integrated over a box of 20 steps of 1/21 pixel, normalised so
// that the float taps of a phase sum to 1 and the integer taps to their scale
// exactly. 12,800 evaluations of L, done at every store initialisation.
void fillResampleKernelTable(ResampleKernelTable* table);

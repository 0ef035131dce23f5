// Pieces shared by the roads of the fill (fill_schedule.cpp, and the row
// roads in fill_schedule_rows.cpp and fill_schedule_sse2.cpp): the sums of
// one pixel, the stored forms of the four-channel kinds read and written at
// a pixel's address, and the positions the way down reads. Each is the same
// single-precision arithmetic on every road, so that the roads agree.
#pragma once

#include <stdint.h>
#include <string.h>

#include "fill/fill_schedule.h"
#include "store/pixel_store.h"
#include "store/portable_math.h"
#include "store/resample.h"

// Adds one neighbour's colour, weighted by its alpha, to the sums.
inline void addWeighted(const float q[4], float* r, float* g, float* b, float* a) {
  *r += q[0] * q[3];
  *g += q[1] * q[3];
  *b += q[2] * q[3];
  *a += q[3];
}

// The sums of addWeighted as a pixel: the alpha-weighted mean, opaque; or,
// when no term was added, black with alpha 0.
inline void weightedMean(float r, float g, float b, float a, float pixel[4]) {
  if (a > 0.0f) {
    pixel[0] = r / a;
    pixel[1] = g / a;
    pixel[2] = b / a;
    pixel[3] = 1.0f;
  } else {
    pixel[0] = r;
    pixel[1] = g;
    pixel[2] = b;
    pixel[3] = 0.0f;
  }
}

// Clamps a colour brought down from the level above: the kernel's negative
// lobes and overshoot end here.
inline float clampColour(float c, float limit) {
  if (0.0f > c) return 0.0f;
  if (c > limit) return limit;
  return c;
}

inline uint32_t load16(const uint8_t* p) {
  uint16_t v;
  memcpy(&v, p, sizeof v);
  return v;
}

inline void store16(uint8_t* p, uint32_t v) {
  const uint16_t h = uint16_t(v);
  memcpy(p, &h, sizeof h);
}


// The alpha's bits, zero exactly when the unit alpha is 0.0 (integer kinds: a
// stored 0; floats: either zero).
template <int32_t kKind>
inline uint32_t alphaBits(const uint8_t* p) {
  if (kKind == kKindRgba8) return loadWord(p) & 0xffu;
  if (kKind == kKindRgba16) return load16(p + 6);
  return loadWord(p + 12) & 0x7fffffffu;
}

// The stored alpha of an integer kind.
template <int32_t kKind>
inline uint32_t storedAlpha(const uint8_t* p) {
  return kKind == kKindRgba8 ? (loadWord(p) & 0xffu) : load16(p + 6);
}

template <int32_t kKind>
inline void setStoredAlpha(uint8_t* p, uint32_t alpha) {
  if (kKind == kKindRgba8) {
    storeWord(p, (loadWord(p) & 0xffffff00u) | (alpha & 0xffu));
  } else {
    store16(p + 6, alpha);
  }
}

// readUnitPixel of the kind, from the pixel's address.
template <int32_t kKind>
inline void unitPixel(const uint8_t* p, float scale, float out[4]) {
  if (kKind == kKindRgba8) {
    const uint32_t w = loadWord(p);
    out[0] = float(int32_t(w >> 24)) * scale;
    out[1] = float(int32_t((w >> 16) & 0xffu)) * scale;
    out[2] = float(int32_t((w >> 8) & 0xffu)) * scale;
    out[3] = float(int32_t(w & 0xffu)) * scale;
  } else if (kKind == kKindRgba16) {
    out[0] = float(int32_t(load16(p))) * scale;
    out[1] = float(int32_t(load16(p + 2))) * scale;
    out[2] = float(int32_t(load16(p + 4))) * scale;
    out[3] = float(int32_t(load16(p + 6))) * scale;
  } else {
    memcpy(out, p, 16);
  }
}

// writeUnitPixel of the kind, to the pixel's address.
template <int32_t kKind>
inline void storeUnitPixel(uint8_t* p, const float rgba[4], float scale) {
  if (kKind == kKindRgba8) {
    const int32_t c[4] = {truncToInt32(rgba[0] * scale), truncToInt32(rgba[1] * scale),
                          truncToInt32(rgba[2] * scale), truncToInt32(rgba[3] * scale)};
    storeWord(p, packU8x4(c));
  } else if (kKind == kKindRgba16) {
    store16(p, uint32_t(truncToInt32(rgba[0] * scale)));
    store16(p + 2, uint32_t(truncToInt32(rgba[1] * scale)));
    store16(p + 4, uint32_t(truncToInt32(rgba[2] * scale)));
    store16(p + 6, uint32_t(truncToInt32(rgba[3] * scale)));
  } else {
    memcpy(p, rgba, 16);
  }
}

// The row road rewrites only the channels that change, which is right only
// when every stored value comes back from unit range as it was: (v * scale)
// * inverse, truncated, gives v. It does for the kinds' own scales (1/255 and
// 255 for all 256 bytes; powers of two for 16 bits); a store with other
// scales takes the pixel road.
bool unitTripKeepsValues(const PixelStore* store);

// The thresholds on stored integer alphas. The unit alpha grows with the
// stored value, so each test splits the values at one point: the first value
// whose unit alpha is not below `limit`, and the first whose unit alpha is
// above it.
int32_t firstValueNotBelow(double limit, float scale, int32_t maxValue);
int32_t firstValueAbove(double limit, float scale, int32_t maxValue);

template <int32_t kKind>
constexpr int32_t maxStoredValue() {
  return kKind == kKindRgba8 ? 255 : 65535;
}

// The stored alpha that 1.0 becomes.
inline uint32_t fullStoredAlpha(const PixelStore* store) { return uint32_t(truncToInt32(1.0f * store->unitToValue)); }

// One hole of a half-pass with its four neighbours; the sums as the pixel
// road forms them.
template <int32_t kKind>
inline void fillHole(uint8_t* p, const uint8_t* up, const uint8_t* left, const uint8_t* right, const uint8_t* down,
                     float toUnit, float toValue) {
  float qu[4];
  float ql[4];
  float qr[4];
  float qd[4];
  unitPixel<kKind>(up, toUnit, qu);
  unitPixel<kKind>(left, toUnit, ql);
  unitPixel<kKind>(right, toUnit, qr);
  unitPixel<kKind>(down, toUnit, qd);
  const float a = ((qu[3] + ql[3]) + qr[3]) + qd[3];
  if (!(double(a) > kNeighbourFloor)) return;
  float r = 0.0f;
  float g = 0.0f;
  float b = 0.0f;
  float weight = 0.0f;
  addWeighted(qu, &r, &g, &b, &weight);
  addWeighted(ql, &r, &g, &b, &weight);
  addWeighted(qr, &r, &g, &b, &weight);
  addWeighted(qd, &r, &g, &b, &weight);
  const float filled[4] = {r / a, g / a, b / a, 1.0f};
  storeUnitPixel<kKind>(p, filled, toValue);
}

// A hole whose four neighbours all have alpha 0 has nothing to take (their
// sum is 0, not above the floor); a covered pixel is no hole.
template <int32_t kKind>
inline void visitPixel(uint8_t* p, const uint8_t* up, const uint8_t* left, const uint8_t* right,
                       const uint8_t* down, float toUnit, float toValue) {
  if (alphaBits<kKind>(p) != 0) return;
  if ((alphaBits<kKind>(up) | alphaBits<kKind>(left) | alphaBits<kKind>(right) | alphaBits<kKind>(down)) == 0) {
    return;
  }
  fillHole<kKind>(p, up, left, right, down, toUnit, toValue);
}

// Base pixel and phase of one axis of the five-tap kernel, as the kernel
// finds them: p = coord + 0.5 in double, rounded to float; the base pixel is
// trunc(p) and the phase the first 7 bits of the fraction.
inline int32_t kernelBase(float coord, int32_t* phase) {
  const float p = float(double(coord) + 0.5);
  const int32_t i = truncToInt32(p);
  *phase = truncToInt32(double(p - float(i)) * 128.0);
  return i;
}

// Where pixel x of a level reads the level above, in pixels of that level:
// x / 2 to unit coordinates through the inverse size of level + 1, and on
// through the scale of the level read, exactly as filterUnitPixelAt goes.
inline float positionAbove(int32_t x, float inverseSize, float scale) {
  const float f = float(x) * 0.5f;
  const float u = (f + 0.5f) * inverseSize;
  return scale * u - 0.5f;
}

template <int32_t kKind>
inline bool isHole(const uint8_t* p, uint32_t holeValue) {
  if (kKind == kKindRgbaFloat) return !(double(loadFloat(p + 12)) > kHoleAlpha);
  return storedAlpha<kKind>(p) < holeValue;
}

// A pixel that is no hole keeps its colour and takes full alpha.
template <int32_t kKind>
inline void setFullAlpha(uint8_t* p, uint32_t full) {
  if (kKind == kKindRgbaFloat) {
    storeFloat(p + 12, 1.0f);
  } else {
    setStoredAlpha<kKind>(p, full);
  }
}

// A hole's colour from the kernel's output in stored units: to unit range,
// clamped, alpha 1.0, stored.
template <int32_t kKind>
inline void storeBroughtDown(uint8_t* p, float red, float green, float blue, float toUnit, float toValue,
                             float limit) {
  float c[4];
  c[0] = clampColour(red * toUnit, limit);
  c[1] = clampColour(green * toUnit, limit);
  c[2] = clampColour(blue * toUnit, limit);
  c[3] = 1.0f;
  storeUnitPixel<kKind>(p, c, toValue);
}

// The 8-bit kernel's total scale, weights times 2048 twice.
const float kScale8 = 0x1p-22f;

// Column sums can need a few columns either side of the half-width a tile
// column of the level reads; a run whose reach is wider takes the kernel call.
constexpr int32_t kColumnSumSpan = kTileWidth / 2 + 16;

// The weights of one axis in pixel order: pixel i - 2 takes tap 4, pixel
// i + 2 tap 0.
inline void pixelOrderWeights(const int32_t (*taps)[kKernelPhases], int32_t phase, int32_t w[5]) {
  w[0] = taps[4][phase];
  w[1] = taps[3][phase];
  w[2] = taps[2][phase];
  w[3] = taps[1][phase];
  w[4] = taps[0][phase];
}


// The 2 x 2 block of `level` under pixel ox of level + 1, from its two rows:
// past the end of an odd level the clamped read repeats the edge pixel, which
// then weighs twice.
template <int32_t kBytes>
inline void blockUnder(const RowRef& row0, const RowRef& row1, int32_t ox, int32_t maxX, const uint8_t* quad[4]) {
  const int32_t sx = 2 * ox;
  const int32_t x0 = sx < maxX ? sx : maxX;
  const int32_t x1 = sx + 1 < maxX ? sx + 1 : maxX;
  quad[0] = pixelIn<kBytes>(row0, x0);
  quad[1] = pixelIn<kBytes>(row0, x1);
  quad[2] = pixelIn<kBytes>(row1, x0);
  quad[3] = pixelIn<kBytes>(row1, x1);
}

// Whether no pixel of the block weighs anything: every sum then stays 0,
// which is stored as 0.
template <int32_t kKind>
inline bool blockWithoutWeight(const uint8_t* const quad[4], uint32_t floorValue) {
  return storedAlpha<kKind>(quad[0]) < floorValue && storedAlpha<kKind>(quad[1]) < floorValue &&
         storedAlpha<kKind>(quad[2]) < floorValue && storedAlpha<kKind>(quad[3]) < floorValue;
}

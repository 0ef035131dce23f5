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
#include "store/resample_blocks.h"

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

// The colour a hole takes from its four neighbours: their alpha-weighted mean,
// opaque, summed up, left, right, down. False, and `filled` untouched, where
// their alphas add up to no more than the floor (most holes; their colour sums
// need not be formed).
inline bool neighbourMean(const float up[4], const float left[4], const float right[4], const float down[4],
                          float filled[4]) {
  const float a = ((up[3] + left[3]) + right[3]) + down[3];
  if (!(double(a) > kNeighbourFloor)) return false;
  float r = 0.0f;
  float g = 0.0f;
  float b = 0.0f;
  float weight = 0.0f;
  addWeighted(up, &r, &g, &b, &weight);
  addWeighted(left, &r, &g, &b, &weight);
  addWeighted(right, &r, &g, &b, &weight);
  addWeighted(down, &r, &g, &b, &weight);
  filled[0] = r / a;
  filled[1] = g / a;
  filled[2] = b / a;
  filled[3] = 1.0f;
  return true;
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
  float filled[4];
  if (!neighbourMean(qu, ql, qr, qd, filled)) return;
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

// Column sums can need a few columns either side of the half-width a tile
// column of the level reads; a run whose reach is wider takes the kernel call.
constexpr int32_t kColumnSumSpan = kTileWidth / 2 + 16;


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

// What every road of the way down takes from the store for one level, and
// the stored alpha values that split holes from the rest and mean full.
struct ExpandFrame {
  int32_t width;
  int32_t height;
  int32_t maxX;
  int32_t maxY;
  float toUnit;
  float toValue;
  float inverseX;
  float inverseY;
  float scaleX;
  float scaleY;
  uint32_t holeValue;
  uint32_t full;
};

template <int32_t kKind>
ExpandFrame expandFrame(const PixelStore* store, int32_t level, int32_t readLevel) {
  const float toUnit = store->valueToUnit;
  return ExpandFrame{
      store->levelWidth[level],
      store->levelHeight[level],
      store->levelMaxX[readLevel],
      store->levelMaxY[readLevel],
      toUnit,
      store->unitToValue,
      store->invInnerWidth[level + 1],
      store->invInnerHeight[level + 1],
      store->levelScaleX[readLevel],
      store->levelScaleY[readLevel],
      kKind == kKindRgbaFloat ? 0u : uint32_t(firstValueAbove(kHoleAlpha, toUnit, maxStoredValue<kKind>())),
      kKind == kKindRgbaFloat ? 0u : fullStoredAlpha(store),
  };
}


// Kinds 4 and 9 on a level read of 5 by 5 pixels or more with clamped
// edges. Their kernels sum each of the five rows first (the 16-bit one
// divides each row's sum by 32768, the float one rounds as it adds), so the
// order of the double sum stays as it is; but a row's sum at a column owes
// nothing to the row of the hole. So the row sums of the level above are kept
// for the last rows read, and each row of the level above is summed once for
// all the rows of holes that read it.

// Rows of sums kept: the five a row of holes reads and one more.
constexpr int32_t kRowSumSlots = 6;
constexpr int32_t kRowSumRun = kTileWidth / 2;

// One row's sums for a run of columns: five pixels weighed for each, as
// the kernel of the kind weighs them; four channels each. A kernel's
// bringDown totals a hole's five rows and stores the colour.
template <int32_t kKind>
struct RowSumOf;

// bringDown through the kernel's total and storeBroughtDown.
template <int32_t kKind, class Kernel>
inline void bringDownTotal(uint8_t* p, const typename Kernel::Type* const rows[5], const typename Kernel::Type w[5],
                           float toUnit, float toValue, float limit) {
  float value[4];
  Kernel::total(rows, w, value);
  storeBroughtDown<kKind>(p, value[0], value[1], value[2], toUnit, toValue, limit);
}
template <>
struct RowSumOf<kKindRgba16> {
  typedef uint32_t Type;
  static void weigh(const uint8_t* const pixels[5], const uint32_t w[5], uint32_t out[4]) {
    for (int32_t c = 0; c < 4; ++c) {
      const uint32_t sum = load16(pixels[0] + 2 * c) * w[0] + load16(pixels[1] + 2 * c) * w[1] +
                           load16(pixels[2] + 2 * c) * w[2] + load16(pixels[3] + 2 * c) * w[3] +
                           load16(pixels[4] + 2 * c) * w[4];
      // Divided by 32768 with truncation toward zero, as the 16-bit kernel
      // keeps its double sum inside 32 bits.
      out[c] = uint32_t(int32_t(sum) / 32768);
    }
  }
  static void total(const uint32_t* const rows[5], const uint32_t w[5], float out[4]) {
    for (int32_t c = 0; c < 4; ++c) {
      const uint32_t t = rows[0][c] * w[0] + rows[1][c] * w[1] + rows[2][c] * w[2] + rows[3][c] * w[3] +
                         rows[4][c] * w[4];
      out[c] = float(int32_t(t)) * kScale16;
    }
  }  static void bringDown(uint8_t* p, const uint32_t* const rows[5], const uint32_t w[5], float toUnit, float toValue,
                        float limit) {
    bringDownTotal<kKindRgba16, RowSumOf>(p, rows, w, toUnit, toValue, limit);
  }
};
template <>
struct RowSumOf<kKindRgbaFloat> {
  typedef float Type;
  // Added from the left (top), each step in single precision; a lane a channel.
  static void weigh(const uint8_t* const pixels[5], const float w[5], float out[4]) {
    for (int32_t c = 0; c < 4; ++c) {
      float s = loadFloat(pixels[0] + 4 * c) * w[0];
      for (int32_t m = 1; m < 5; ++m) s = s + loadFloat(pixels[m] + 4 * c) * w[m];
      out[c] = s;
    }
  }
  static void total(const float* const rows[5], const float w[5], float out[4]) {
    for (int32_t c = 0; c < 4; ++c) {
      float s = rows[0][c] * w[0];
      for (int32_t m = 1; m < 5; ++m) s = s + rows[m][c] * w[m];
      out[c] = s;
    }
  }  static void bringDown(uint8_t* p, const float* const rows[5], const float w[5], float toUnit, float toValue,
                        float limit) {
    bringDownTotal<kKindRgbaFloat, RowSumOf>(p, rows, w, toUnit, toValue, limit);
  }
};

// The weights of one axis in pixel order for the kind's kernel.
inline void kindWeights(const PixelStore* store, int32_t phase, uint32_t w[5]) {
  const int32_t(*taps)[kKernelPhases] = store->kernelTable.weights32768;
  for (int32_t m = 0; m < 5; ++m) w[m] = uint32_t(taps[4 - m][phase]);
}

inline void kindWeights(const PixelStore* store, int32_t phase, float w[5]) {
  const float(*taps)[kKernelPhases] = store->kernelTable.weightsFloat;
  for (int32_t m = 0; m < 5; ++m) w[m] = taps[4 - m][phase];
}

template <int32_t kKind, class Kernel = RowSumOf<kKind>>
void expandIntoByRowSums(PixelStore* store, int32_t level, int32_t readLevel, float limit, int32_t firstRun,
                         int32_t endRun) {
  typedef typename Kernel::Type Sum;
  constexpr int32_t kBytes = KindBytes<kKind>::kValue;
  const auto [width, height, maxX, maxY, toUnit, toValue, inverseX, inverseY, scaleX, scaleY, holeValue, full] =
      expandFrame<kKind>(store, level, readLevel);

  // Half a tile's columns at a time, which keeps the kept sums to 24 KB.
  int32_t columns[kRowSumRun][5];
  Sum weightsX[kRowSumRun][5];
  Sum sums[kRowSumSlots][kRowSumRun][4];
  int32_t slotRow[kRowSumSlots];
  for (int32_t x0 = firstRun * kRowSumRun; x0 < width && x0 < endRun * kRowSumRun; x0 += kRowSumRun) {
    const int32_t count = width - x0 < kRowSumRun ? width - x0 : kRowSumRun;
    for (int32_t k = 0; k < count; ++k) {
      int32_t phase;
      const int32_t i = kernelBase(positionAbove(x0 + k, inverseX, scaleX), &phase);
      kindWeights(store, phase, weightsX[k]);
      for (int32_t m = 0; m < 5; ++m) columns[k][m] = clampToLevel(int32_t(uint32_t(i) - 2u + uint32_t(m)), maxX);
    }
    for (int32_t slot = 0; slot < kRowSumSlots; ++slot) slotRow[slot] = -1;

    for (int32_t y = 0; y < height; ++y) {
      // A run never crosses a tile: tiles are a whole number of runs wide.
      uint8_t* run = pixelIn<kBytes>(rowRef(store, level, y, kBytes), x0);
      bool rowReady = false;
      int32_t slots[5] = {0, 0, 0, 0, 0};
      Sum weightsY[5];
      for (int32_t k = 0; k < count; ++k) {
        uint8_t* p = run + k * kBytes;
        if (!isHole<kKind>(p, holeValue)) {
          setFullAlpha<kKind>(p, full);
          continue;
        }
        if (!rowReady) {
          // The first hole of the row: the five rows above it, summed where
          // they are not kept yet.
          rowReady = true;
          int32_t phaseY;
          const int32_t j = kernelBase(positionAbove(y, inverseY, scaleY), &phaseY);
          kindWeights(store, phaseY, weightsY);
          int32_t wanted[5];
          for (int32_t r = 0; r < 5; ++r) wanted[r] = clampToLevel(int32_t(uint32_t(j) - 2u + uint32_t(r)), maxY);
          for (int32_t r = 0; r < 5; ++r) {
            int32_t found = -1;
            for (int32_t slot = 0; slot < kRowSumSlots; ++slot) {
              if (slotRow[slot] == wanted[r]) found = slot;
            }
            if (found < 0) {
              // The slot of a row that none of the five needs, the farthest back.
              for (int32_t slot = 0; slot < kRowSumSlots; ++slot) {
                bool needed = false;
                for (int32_t q = 0; q < 5; ++q) needed = needed || slotRow[slot] == wanted[q];
                if (needed) continue;
                if (found < 0 || slotRow[slot] < slotRow[found]) found = slot;
              }
              slotRow[found] = wanted[r];
              const RowRef source = rowRef(store, readLevel, wanted[r], kBytes);
              for (int32_t c = 0; c < count; ++c) {
                const uint8_t* pixels[5];
                for (int32_t m = 0; m < 5; ++m) pixels[m] = pixelIn<kBytes>(source, columns[c][m]);
                Kernel::weigh(pixels, weightsX[c], sums[found][c]);
              }
            }
            slots[r] = found;
          }
        }
        const Sum* rows[5];
        for (int32_t r = 0; r < 5; ++r) rows[r] = sums[slots[r]][k];
        Kernel::bringDown(p, rows, weightsY, toUnit, toValue, limit);
      }
    }
  }
}


#include "fill/coverage.h"

#include <math.h>
#include <stddef.h>
#include <string.h>

#include <vector>

#include "host/blocks.h"
#include "host/plugin_main.h"
#include "run/job_pool.h"
#include "store/pixel_store.h"

#if (defined(__SSE2__) || defined(_M_X64) || (defined(_M_IX86_FP) && _M_IX86_FP >= 2)) && \
    !defined(MENDARIS_SCALAR_KERNELS)
#include <emmintrin.h>
#define MENDARIS_SSE2_SWEEP 1
#else
#define MENDARIS_SSE2_SWEEP 0
#endif

namespace {

// The upwind update of one cell from its value and its four neighbours. a is
// the nearer of the two horizontal neighbours, b of the two vertical ones.
// Where they differ by a whole pixel or more the wave comes from one axis
// alone; otherwise the two fronts meet and the quadratic's root is taken.
inline float relaxedValue(float v, float left, float right, float up, float down) {
  const float a = left > right ? right : left;
  const float b = up > down ? down : up;
  const float d = a - b;
  float n;
  if (fabsf(d) >= 1.0f) {
    n = float(double(a > b ? b : a) + 1.0);
  } else {
    n = float((sqrt(2.0 - double(d * d)) + double(b + a)) * 0.5);
  }
  return v > n ? n : v;
}

// One open cell of a sweep, in place. Storing v again would leave the same
// bits, so only a lower value is written.
inline void relaxCell(float* cell, float left, float right, float up, float down) {
  const float v = *cell;
  if (1.0f > v) return;  // final: seeds, negatives and values below one pixel
  const float n = relaxedValue(v, left, right, up, down);
  if (n != v) *cell = n;
}

// One row of a sweep, the columns in the order of xRising. Inside the row the
// cells are addressed directly in the tile; a neighbour past the edge of the
// field is the cell itself, as the clamping accessors give it.
void sweepOneRow(PixelStore* field, int32_t y, bool xRising) {
  const int32_t width = field->levelWidth[0];
  const int32_t height = field->levelHeight[0];
  const int32_t tilesAcross = field->tilesAcross[0];
  const int32_t yUp = y > 0 ? y - 1 : 0;
  const int32_t yDown = y < height - 1 ? y + 1 : height - 1;
  for (int32_t tileStep = 0; tileStep < tilesAcross; ++tileStep) {
    const int32_t tile = xRising ? tileStep : tilesAcross - 1 - tileStep;
    const int32_t x0 = tile * kTileWidth;
    const int32_t count = width - x0 < kTileWidth ? width - x0 : kTileWidth;
    float* row = storePixel<float>(field, 0, x0, y);
    const float* rowUp = storePixel<const float>(field, 0, x0, yUp);
    const float* rowDown = storePixel<const float>(field, 0, x0, yDown);
    // The cells just outside this tile's part of the row, where the row goes on.
    const float* beforeTile = x0 > 0 ? storePixel<const float>(field, 0, x0 - 1, y) : nullptr;
    const float* afterTile = x0 + count < width ? storePixel<const float>(field, 0, x0 + count, y) : nullptr;
    for (int32_t i = 0; i < count; ++i) {
      const int32_t k = xRising ? i : count - 1 - i;
      const float v = row[k];
      float left;
      if (k > 0) {
        left = row[k - 1];
      } else {
        left = beforeTile != nullptr ? *beforeTile : v;
      }
      float right;
      if (k + 1 < count) {
        right = row[k + 1];
      } else {
        right = afterTile != nullptr ? *afterTile : v;
      }
      relaxCell(row + k, left, right, rowUp[k], rowDown[k]);
    }
  }
}

#if MENDARIS_SSE2_SWEEP
// ---- sweeps as a wavefront ---------------------------------------------------------------------
//
// Row after row, each cell's update is a chain: the cell waits for the one
// before it in its row, through a square root. But a cell needs nothing of
// the row after it but old values, and nothing of the row before it but the
// cell above (or below) it. So a band of rows can go together on a slant:
// at each step row r of the band takes the cell one behind the cell of row
// r - 1. Each cell then finds its neighbours exactly as row after row would
// leave them (the ones before it in both directions updated, the others not
// yet), and the cells of one step are independent, so four go in each
// vector. The arithmetic is the cell's own, lane by lane: single precision
// where the cell has it, double for the root and the +1 step.

// Lanes per vector, vectors per band.
constexpr int32_t kBandVectors = 2;
constexpr int32_t kBandRows = 4 * kBandVectors;

// relaxCell for four cells at once, from the nearer neighbours' inputs as the
// scalar form takes them. The root is taken in every lane and used where the
// two fronts meet; elsewhere its value (NaN for a negative argument) is not
// chosen.
inline __m128 relaxLanes(__m128 v, __m128 left, __m128 right, __m128 up, __m128 down) {
  // left > right ? right : left, and so on: minps returns its second operand
  // unless the first is smaller.
  const __m128 a = _mm_min_ps(right, left);
  const __m128 b = _mm_min_ps(down, up);
  const __m128 d = _mm_sub_ps(a, b);
  const __m128 oneAxis = _mm_cmpge_ps(_mm_andnot_ps(_mm_set1_ps(-0.0f), d), _mm_set1_ps(1.0f));
  // min(a, b) + 1. The scalar form adds in double and rounds to float; a
  // sum of two floats rounded to double is rounded again to float without
  // harm (53 bits are more than twice 24 plus one), so the float sum gives
  // the same bits, for every float (checked over all of them).
  const __m128 step = _mm_add_ps(_mm_min_ps(b, a), _mm_set1_ps(1.0f));
  const __m128 frozen = _mm_cmplt_ps(v, _mm_set1_ps(1.0f));
  __m128 n = step;
  // Where the fronts meet in an open cell: (sqrt(2 - d * d) + (b + a)) * 0.5,
  // the products and sums of floats in single. A step whose open cells all
  // take the nearer front alone needs no root.
  if (_mm_movemask_ps(_mm_or_ps(oneAxis, frozen)) != 0xf) {
    const __m128 squared = _mm_mul_ps(d, d);
    const __m128 sum = _mm_add_ps(b, a);
    const __m128d two = _mm_set1_pd(2.0);
    const __m128d half = _mm_set1_pd(0.5);
    const __m128d rootLow = _mm_sqrt_pd(_mm_sub_pd(two, _mm_cvtps_pd(squared)));
    const __m128d rootHigh = _mm_sqrt_pd(_mm_sub_pd(two, _mm_cvtps_pd(_mm_movehl_ps(squared, squared))));
    const __m128 meet = _mm_movelh_ps(
        _mm_cvtpd_ps(_mm_mul_pd(_mm_add_pd(rootLow, _mm_cvtps_pd(sum)), half)),
        _mm_cvtpd_ps(_mm_mul_pd(_mm_add_pd(rootHigh, _mm_cvtps_pd(_mm_movehl_ps(sum, sum))), half)));
    n = _mm_or_ps(_mm_and_ps(oneAxis, step), _mm_andnot_ps(oneAxis, meet));
  }
  // v > n ? n : v; cells below 1 keep v.
  const __m128 lowered = _mm_min_ps(n, v);
  return _mm_or_ps(_mm_and_ps(frozen, v), _mm_andnot_ps(frozen, lowered));
}

// The update of cell (x, y) as relaxDistanceCell makes it, with the
// neighbours read as they stand; for the steps of a band near the ends of
// its rows and the tiles' edges.
inline void relaxAt(PixelStore* field, int32_t x, int32_t y) {
  const int32_t width = field->levelWidth[0];
  const int32_t height = field->levelHeight[0];
  float* cell = storePixel<float>(field, 0, x, y);
  const float v = *cell;
  const float left = x > 0 ? *storePixel<const float>(field, 0, x - 1, y) : v;
  const float right = x < width - 1 ? *storePixel<const float>(field, 0, x + 1, y) : v;
  const float up = y > 0 ? *storePixel<const float>(field, 0, x, y - 1) : v;
  const float down = y < height - 1 ? *storePixel<const float>(field, 0, x, y + 1) : v;
  relaxCell(cell, left, right, up, down);
}

// Four floats from four addresses, lane q from p[q].
inline __m128 gatherLanes(const float* p0, const float* p1, const float* p2, const float* p3) {
  return _mm_movelh_ps(_mm_unpacklo_ps(_mm_load_ss(p0), _mm_load_ss(p1)),
                       _mm_unpacklo_ps(_mm_load_ss(p2), _mm_load_ss(p3)));
}

inline void scatterLanes(__m128 v, float* p0, float* p1, float* p2, float* p3) {
  _mm_store_ss(p0, v);
  _mm_store_ss(p1, _mm_shuffle_ps(v, v, _MM_SHUFFLE(1, 1, 1, 1)));
  _mm_store_ss(p2, _mm_shuffle_ps(v, v, _MM_SHUFFLE(2, 2, 2, 2)));
  _mm_store_ss(p3, _mm_shuffle_ps(v, v, _MM_SHUFFLE(3, 3, 3, 3)));
}

// One band of kBandRows rows of a sweep: the rows at sweep steps first ..
// first + kBandRows - 1. Row r of the band (lane r) takes, at step t, the
// cell at position t - r of its row, counted in the sweep's x order.
template <bool kXRising>
void sweepBand(PixelStore* field, bool yRising, int32_t first) {
  constexpr int32_t dx = kXRising ? 1 : -1;
  const int32_t width = field->levelWidth[0];
  const int32_t height = field->levelHeight[0];
  const auto rowAt = [&](int32_t step) { return yRising ? step : height - 1 - step; };
  // Rows 1..kBandRows are the band's; row 0 the one the sweep did before it
  // and row kBandRows + 1 the one after it, each the band's end row itself
  // at the edge of the field, as the clamped reads have it.
  int32_t rows[kBandRows + 2];
  for (int32_t r = 0; r < kBandRows; ++r) rows[1 + r] = rowAt(first + r);
  rows[0] = first > 0 ? rowAt(first - 1) : rows[1];
  rows[kBandRows + 1] = first + kBandRows < height ? rowAt(first + kBandRows) : rows[kBandRows];
  const StoreTile* rowTiles[kBandRows + 2];
  size_t rowOffsets[kBandRows + 2];
  for (int32_t i = 0; i < kBandRows + 2; ++i) {
    rowTiles[i] = field->tiles + field->firstTile[0] + (rows[i] >> kTileShift) * field->tilesAcross[0];
    rowOffsets[i] = size_t(rows[i] & kTileMask) * kTileWidth;
  }

  const int32_t steps = width + kBandRows - 1;
  int32_t t = 0;
  while (t < steps) {
    // Lane 0's cell, and whether all lanes and their row neighbours lie
    // inside one tile and inside the field from here on.
    const int32_t x = kXRising ? t : width - 1 - t;
    int32_t run = 0;
    int32_t k = 0;
    int32_t tile = 0;
    if (x >= 0 && x < width) {
      tile = x >> kTileShift;
      k = x & kTileMask;
      const int32_t limit = width - tile * kTileWidth < kTileWidth ? width - tile * kTileWidth : kTileWidth;
      if (kXRising) {
        // Offsets k - kBandRows .. k + 1 in the tile.
        if (k >= kBandRows && k <= limit - 2) run = limit - 2 - k + 1;
      } else {
        // Offsets k - 1 .. k + kBandRows.
        if (k >= 1 && k + kBandRows <= limit - 1) run = k;
      }
    }
    if (run == 0) {
      // One step the slow way: each lane whose cell lies in its row.
      for (int32_t r = 0; r < kBandRows; ++r) {
        const int32_t position = t - r;
        if (position < 0 || position >= width) continue;
        relaxAt(field, kXRising ? position : width - 1 - position, rows[1 + r]);
      }
      ++t;
      continue;
    }

    float* base[kBandRows + 2];
    for (int32_t i = 0; i < kBandRows + 2; ++i) {
      base[i] = reinterpret_cast<float*>(rowTiles[i][tile].pixels) + rowOffsets[i];
    }
    // The lane r's cell is at offset k - r * dx of row r; the cell it met
    // last step, now final, at k - (r + 1) * dx.
    const auto cellOf = [&](int32_t r, int32_t offset) { return base[1 + r] + (offset - r * dx); };
    __m128 value[kBandVectors];
    __m128 done[kBandVectors];
    for (int32_t j = 0; j < kBandVectors; ++j) {
      const int32_t r = 4 * j;
      value[j] = gatherLanes(cellOf(r, k), cellOf(r + 1, k), cellOf(r + 2, k), cellOf(r + 3, k));
      done[j] = gatherLanes(cellOf(r, k - dx), cellOf(r + 1, k - dx), cellOf(r + 2, k - dx), cellOf(r + 3, k - dx));
    }
    for (int32_t i = 0; i < run; ++i, k += dx) {
      __m128 ahead[kBandVectors];
      for (int32_t j = 0; j < kBandVectors; ++j) {
        const int32_t r = 4 * j;
        ahead[j] = gatherLanes(cellOf(r, k + dx), cellOf(r + 1, k + dx), cellOf(r + 2, k + dx), cellOf(r + 3, k + dx));
      }
      // A step whose cells are all below 1 changes nothing: wide bare (or,
      // in the second round, covered) stretches pass at the cost of a test.
      int32_t open = 0;
      for (int32_t j = 0; j < kBandVectors; ++j) {
        open |= _mm_movemask_ps(_mm_cmpge_ps(value[j], _mm_set1_ps(1.0f))) |
                _mm_movemask_ps(_mm_cmpunord_ps(value[j], value[j]));
      }
      if (open == 0) {
        for (int32_t j = 0; j < kBandVectors; ++j) {
          done[j] = value[j];
          value[j] = ahead[j];
        }
        continue;
      }
      __m128 result[kBandVectors];
      for (int32_t j = 0; j < kBandVectors; ++j) {
        // The row before each lane's, at the lane's cell: updated last step by
        // the lane before it (row 0's by the sweep before the band).
        const __m128 incomingBefore =
            j == 0 ? _mm_load_ss(base[0] + k) : _mm_shuffle_ps(done[j - 1], done[j - 1], _MM_SHUFFLE(3, 3, 3, 3));
        const __m128 before = _mm_move_ss(
            _mm_castsi128_ps(_mm_slli_si128(_mm_castps_si128(done[j]), 4)), incomingBefore);
        // The row after each lane's, at the lane's cell, not yet updated: the
        // cell the next lane reads ahead of itself (the last lane's from the
        // row after the band).
        const __m128 incomingAfter =
            j == kBandVectors - 1 ? _mm_load_ss(base[kBandRows + 1] + (k - (kBandRows - 1) * dx)) : ahead[j + 1];
        const __m128 rotated = _mm_move_ss(ahead[j], incomingAfter);
        const __m128 after = _mm_shuffle_ps(rotated, rotated, _MM_SHUFFLE(0, 3, 2, 1));
        const __m128 left = kXRising ? done[j] : ahead[j];
        const __m128 right = kXRising ? ahead[j] : done[j];
        const __m128 up = yRising ? before : after;
        const __m128 down = yRising ? after : before;
        result[j] = relaxLanes(value[j], left, right, up, down);
      }
      for (int32_t j = 0; j < kBandVectors; ++j) {
        const int32_t r = 4 * j;
        scatterLanes(result[j], cellOf(r, k), cellOf(r + 1, k), cellOf(r + 2, k), cellOf(r + 3, k));
        done[j] = result[j];
        value[j] = ahead[j];
      }
    }
    t += run;
  }
}
#endif

// One sweep over level 0, the rows in the order of yRising and, within each
// row, the columns in the order of kXRising.
//
// The update of a cell reads its four neighbours, each either before or after
// its own update in this sweep: before, the neighbour on the side the x loop
// comes from and the one on the side the y loop comes from; after, the other
// two. A sweep with the columns outermost and one with the rows outermost
// agree on this, so both give the same field, bit for bit; the rows go
// outermost here because a row is contiguous in its tile.
template <bool kXRising>
void sweepRows(PixelStore* field, bool yRising) {
  const int32_t height = field->levelHeight[0];
  int32_t step = 0;
#if MENDARIS_SSE2_SWEEP
  if (field->levelWidth[0] >= 4 * kBandRows) {
    for (; step + kBandRows <= height; step += kBandRows) sweepBand<kXRising>(field, yRising, step);
  }
#endif
  for (; step < height; ++step) sweepOneRow(field, yRising ? step : height - 1 - step, kXRising);
}

// Truncation toward zero after 1 is taken from a negative value: floor for
// all but the negative integers, which land one below.
int32_t floorLike(double value) {
  if (value < 0.0) value -= 1.0;
  return truncToInt32(value);
}

// The alpha of a source pixel as readUnitPixel gives it: the stored value
// times valueToUnit in single precision, or the float as it stands. Read with
// the accessor of the store's own kind, so that each kind runs flat.
template <int32_t kKind>
inline float unitAlpha(int32_t x, int32_t y, const PixelStore* source, int32_t level) {
  if (kKind == kKindRgba8 || kKind == kKindRgba16) {
    int32_t c[4];
    if (kKind == kKindRgba8) {
      readU8x4(x, y, source, level, c);
    } else {
      readU16x4(x, y, source, level, c);
    }
    return float(c[3]) * source->valueToUnit;
  }
  if (kKind == kKindRgbaFloat) {
    uint32_t w[4];
    readWord4(x, y, source, level, w);
    return bitsToFloat(w[3]);
  }
  float p[4];
  readUnitPixel(x, y, source, level, p);
  return p[3];
}

template <int32_t kKind>
void markSolidPixels(const PixelStore* source, PixelStore* store) {
  const int32_t width = source->levelWidth[0];
  const int32_t height = source->levelHeight[0];
  for (int32_t y = 0; y < height; ++y) {
    for (int32_t x = 0; x < width; ++x) {
      const float alpha = unitAlpha<kKind>(x, y, source, 0);
      writeUnitScalar(x, y, store, 0, double(alpha) >= kSolidAlpha ? 1.0f : 0.0f);
    }
  }
}

template <int32_t kKind>
void seedFrom(const PixelStore* source, PixelStore* field, int32_t level) {
  const int32_t lastX = source->levelWidth[level] - 1;
  const int32_t lastY = source->levelHeight[level] - 1;
  const int32_t width = field->levelWidth[level];
  const int32_t height = field->levelHeight[level];
  for (int32_t y = 0; y < height; ++y) {
    int32_t sy = y - kDistanceMargin;
    sy = sy < 0 ? 0 : (sy > lastY ? lastY : sy);
    for (int32_t x = 0; x < width; ++x) {
      int32_t sx = x - kDistanceMargin;
      sx = sx < 0 ? 0 : (sx > lastX ? lastX : sx);
      const float alpha = unitAlpha<kKind>(sx, sy, source, level);
      // The alpha itself seeds a pixel that is not solid, so that a soft edge
      // puts the zero crossing between pixels.
      writeFloat(x, y, field, level, kSolidAlpha > double(alpha) ? alpha : kFarDistance);
    }
  }
}

// ---- the row road ------------------------------------------------------------------------------
// For the three four-channel kinds the map and the seed read the alphas from
// the tiles' rows and write whole rows, with the same conversions and tests
// as the accessors; other kinds go pixel by pixel.



// The stored alpha of kind 3 or 4.
template <int32_t kKind>
inline uint32_t storedAlpha(const uint8_t* p) {
  if (kKind == kKindRgba8) return loadWord(p) & 0xffu;
  uint16_t v;
  memcpy(&v, p + 6, sizeof v);
  return v;
}

// The first stored value whose unit alpha (value times scale, single
// precision) is not below `limit`; the unit alpha grows with the value.
uint32_t firstValueNotBelow(double limit, float scale, uint32_t maxValue) {
  uint32_t v = 0;
  while (v <= maxValue && limit > double(float(int32_t(v)) * scale)) ++v;
  return v;
}

template <int32_t kKind>
void markSolidRows(const PixelStore* source, PixelStore* store) {
  constexpr int32_t kBytes = KindBytes<kKind>::kValue;
  const int32_t width = source->levelWidth[0];
  const int32_t height = source->levelHeight[0];
  const int32_t across = source->tilesAcross[0];
  const uint32_t maxValue = kKind == kKindRgba8 ? 255u : 65535u;
  const uint32_t solidValue =
      kKind == kKindRgbaFloat ? 0u : firstValueNotBelow(kSolidAlpha, source->valueToUnit, maxValue);
  for (int32_t y = 0; y < height; ++y) {
    const RowRef from = rowRef(source, 0, y, kBytes);
    const RowRef to = rowRef(store, 0, y, 1);
    for (int32_t t = 0; t < across; ++t) {
      const int32_t x0 = t * kTileWidth;
      const int32_t count = width - x0 < kTileWidth ? width - x0 : kTileWidth;
      if (count <= 0) break;
      const uint8_t* in = from.tiles[t].pixels + from.offset;
      uint8_t* out = to.tiles[t].pixels + to.offset;
      for (int32_t k = 0; k < count; ++k) {
        bool solid;
        if (kKind == kKindRgbaFloat) {
          solid = double(loadFloat(in + k * kBytes + 12)) >= kSolidAlpha;
        } else {
          solid = storedAlpha<kKind>(in + k * kBytes) >= solidValue;
        }
        out[k] = solid ? 255 : 0;
      }
    }
  }
}

// The first float whose double is not below `limit`: a float alpha a is
// below the limit in double exactly when a is below this (NaN neither).
float firstFloatNotBelow(double limit) {
  float f = float(limit);
  while (double(f) < limit) f = nextafterf(f, 2.0f * f + 1.0f);
  while (double(nextafterf(f, -1.0f)) >= limit) f = nextafterf(f, -1.0f);
  return f;
}

template <int32_t kKind>
void seedRows(const PixelStore* source, PixelStore* field, int32_t level) {
  constexpr int32_t kBytes = KindBytes<kKind>::kValue;
  const int32_t lastX = source->levelWidth[level] - 1;
  const int32_t lastY = source->levelHeight[level] - 1;
  const int32_t width = field->levelWidth[level];
  const int32_t height = field->levelHeight[level];
  const int32_t across = field->tilesAcross[level];
  const int32_t sourceAcross = source->tilesAcross[level];
  const float scale = source->valueToUnit;
  // A pixel below the solid line seeds its own alpha, so that a soft edge
  // puts the zero crossing between pixels; a solid one seeds far. The test
  // kSolidAlpha > double(alpha) is taken on the stored value (the first
  // solid one) or on the float (the first solid float), with the same answer.
  const uint32_t solidValue = kKind == kKindRgbaFloat
                                  ? 0u
                                  : firstValueNotBelow(kSolidAlpha, scale, kKind == kKindRgba8 ? 255u : 65535u);
  const float solidFloat = firstFloatNotBelow(kSolidAlpha);
  // The seeds of one source row, then placed in the field's row with the
  // margin, whose cells repeat the row's end pixels.
  std::vector<float> seeds(size_t(lastX) + 1);
  int32_t seededRow = -1;
  for (int32_t y = 0; y < height; ++y) {
    int32_t sy = y - kDistanceMargin;
    sy = sy < 0 ? 0 : (sy > lastY ? lastY : sy);
    if (sy != seededRow) {
      const RowRef from = rowRef(source, level, sy, kBytes);
      for (int32_t t = 0; t < sourceAcross; ++t) {
        const int32_t x0 = t * kTileWidth;
        const int32_t count = lastX + 1 - x0 < kTileWidth ? lastX + 1 - x0 : kTileWidth;
        if (count <= 0) break;
        const uint8_t* in = from.tiles[t].pixels + from.offset;
        float* out = seeds.data() + x0;
        for (int32_t k = 0; k < count; ++k) {
          const uint8_t* p = in + k * kBytes;
          if (kKind == kKindRgbaFloat) {
            const float alpha = loadFloat(p + 12);
            out[k] = alpha < solidFloat ? alpha : kFarDistance;
          } else {
            const uint32_t v = storedAlpha<kKind>(p);
            out[k] = v < solidValue ? float(int32_t(v)) * scale : kFarDistance;
          }
        }
      }
      seededRow = sy;
    }
    const RowRef to = rowRef(field, level, y, 4);
    for (int32_t t = 0; t < across; ++t) {
      const int32_t x0 = t * kTileWidth;
      const int32_t count = width - x0 < kTileWidth ? width - x0 : kTileWidth;
      if (count <= 0) break;
      float* out = reinterpret_cast<float*>(to.tiles[t].pixels + to.offset);
      // Cells x0 + k read source pixel x0 + k - kDistanceMargin, clamped:
      // those between the margins in one copy.
      int32_t k = 0;
      for (; k < count && x0 + k < kDistanceMargin; ++k) out[k] = seeds[0];
      const int32_t inside = lastX + kDistanceMargin + 1 - x0 < count ? lastX + kDistanceMargin + 1 - x0 : count;
      if (inside > k) {
        memcpy(out + k, seeds.data() + (x0 + k - kDistanceMargin), size_t(inside - k) * sizeof(float));
        k = inside;
      }
      for (; k < count; ++k) out[k] = seeds[size_t(lastX)];
    }
  }
}

void runBoxPass(PixelStore* store, int32_t level, VRect rect, JobKind kind, int32_t back, int32_t forward) {
  JobRequest request = makeJobRequest(0);
  request.passStore = store;
  request.passLevel = level;
  request.rect = rect;
  request.radiusA = back;
  request.radiusB = forward;
  runJob(kind, kind == kJobBoxRows ? kTilingRowBands : kTilingColumnBands, request);
}

}  // namespace

PixelStore* makeOpaqueStore(const PixelStore* source) {
  // Only level 0 of the map is ever read: the levels above get no memory.
  return pixelStoreCreate(source->levelWidth[0], source->levelHeight[0], kKindGray8, 0, false, 1);
}

void markOpaqueStore(const PixelStore* source, PixelStore* store) {
  switch (source->kind) {
    case kKindRgba8: markSolidRows<kKindRgba8>(source, store); break;
    case kKindRgba16: markSolidRows<kKindRgba16>(source, store); break;
    case kKindRgbaFloat: markSolidRows<kKindRgbaFloat>(source, store); break;
    default: markSolidPixels<-1>(source, store); break;
  }
}

PixelStore* buildOpaqueStore(const PixelStore* source) {
  PixelStore* store = makeOpaqueStore(source);
  if (store != nullptr) markOpaqueStore(source, store);
  return store;
}

void seedDistanceStore(const PixelStore* source, PixelStore* field, int32_t level) {
  // Without tiles the field takes no writes.
  if (field->tiles == nullptr) return;
  switch (source->kind) {
    case kKindRgba8: seedRows<kKindRgba8>(source, field, level); return;
    case kKindRgba16: seedRows<kKindRgba16>(source, field, level); return;
    case kKindRgbaFloat: seedRows<kKindRgbaFloat>(source, field, level); return;
    default: seedFrom<-1>(source, field, level); return;
  }
}

void relaxDistanceCell(int32_t x, int32_t y, PixelStore* field) {
  const float v = readFloat(x, y, field, 0);
  if (1.0f > v) return;
  const float left = readFloat(x - 1, y, field, 0);
  const float right = readFloat(x + 1, y, field, 0);
  const float up = readFloat(x, y - 1, field, 0);
  const float down = readFloat(x, y + 1, field, 0);
  writeFloatNoCheck(x, y, field, 0, relaxedValue(v, left, right, up, down));
}

void sweepDistance(PixelStore* field) {
  // x rising, y rising; x falling, y rising; both falling; x rising, y falling.
  sweepRows<true>(field, true);
  sweepRows<false>(field, true);
  sweepRows<false>(field, false);
  sweepRows<true>(field, false);
}

void invertDistanceStore(PixelStore* field) {
  const int32_t width = field->levelWidth[0];
  const int32_t height = field->levelHeight[0];
  const int32_t across = field->tilesAcross[0];
  for (int32_t y = 0; y < height; ++y) {
    const RowRef row = rowRef(field, 0, y, 4);
    for (int32_t t = 0; t < across; ++t) {
      const int32_t x0 = t * kTileWidth;
      const int32_t count = width - x0 < kTileWidth ? width - x0 : kTileWidth;
      if (count <= 0) break;
      float* cells = reinterpret_cast<float*>(row.tiles[t].pixels + row.offset);
      int32_t k = 0;
#if MENDARIS_SSE2_SWEEP
      // Four at a time: either zero becomes far, anything else flips its sign bit.
      const __m128 far = _mm_set1_ps(kFarDistance);
      const __m128 sign = _mm_set1_ps(-0.0f);
      for (; k + 4 <= count; k += 4) {
        const __m128 v = _mm_loadu_ps(cells + k);
        const __m128 zero = _mm_cmpeq_ps(v, _mm_setzero_ps());
        _mm_storeu_ps(cells + k, _mm_or_ps(_mm_and_ps(zero, far), _mm_andnot_ps(zero, _mm_xor_ps(v, sign))));
      }
#endif
      for (; k < count; ++k) {
        const float v = cells[k];
        cells[k] = v == 0.0f ? kFarDistance : -v;
      }
    }
  }
}

SmoothReach smoothReach(float radius) {
  const double r = double(radius) * 13.0 / 30.0;
  SmoothReach reach;
  reach.hi = floorLike(r + 0.5);
  reach.lo = floorLike((r - 0.5) + 0.5);
  return reach;
}

void smoothStore(PixelStore* store, int32_t level, VRect rect, float radius) {
  const SmoothReach reach = smoothReach(radius);
  const int32_t hi = reach.hi;
  const int32_t lo = reach.lo;
  // Three boxes make a bell; their placements alternate so that the bell's
  // centre stays within half a cell of the cell it is written to.
  runBoxPass(store, level, rect, kJobBoxRows, lo, hi);
  runBoxPass(store, level, rect, kJobBoxColumns, lo, hi);
  runBoxPass(store, level, rect, kJobBoxRows, hi, lo);
  runBoxPass(store, level, rect, kJobBoxColumns, hi, lo);
  if (hi - 1 >= 0) {
    runBoxPass(store, level, rect, kJobBoxRows, hi - 1, hi);
    runBoxPass(store, level, rect, kJobBoxColumns, hi - 1, hi);
  }
}

PixelStore* makeFillFields(const PixelStore* source) {
  ParamBlock* params = hostContext.paramBlock;
  if (params == nullptr) return nullptr;
  params->distanceStore = nullptr;
  params->spareStore = nullptr;
  // A source that could not be loaded has no pixels to derive anything from;
  // its failure was reported when it was made.
  if (source == nullptr || source->tiles == nullptr) {
    params->opaqueStore = nullptr;
    return nullptr;
  }
  const VRect r = levelRect(source, 0);
  const int32_t width = r.right - r.left;
  const int32_t height = r.bottom - r.top;

  // Only level 0 of the field is ever read: the levels above get no memory.
  params->distanceStore =
      pixelStoreCreate(width + kDistanceGrowth, height + kDistanceGrowth, kKindFloat, 0, true, 1);
  params->opaqueStore = makeOpaqueStore(source);
  if (params->distanceStore == nullptr || params->opaqueStore == nullptr) {
    // Out of memory for a store of the run: reported as for the source store.
    reportShortfall(kErrSourceStore, kResultSourceFailed);
  }
  return params->distanceStore;
}

void seedFillFields(const PixelStore* source, PixelStore* opaque, PixelStore* field) {
  if (opaque != nullptr) markOpaqueStore(source, opaque);
  if (field != nullptr) seedDistanceStore(source, field, 0);
}

void sweepFillField(PixelStore* field) {
  // The depth of solid pixels, measured from the pixels that are not solid.
  sweepDistance(field);
  invertDistanceStore(field);
  // The distance of bare pixels, measured from the covered ones.
  sweepDistance(field);
}

void smoothFillField(PixelStore* field) { smoothStore(field, 0, levelRect(field, 0), kFieldSmoothRadius); }

void buildFillFields(PixelStore* source) {
  PixelStore* field = makeFillFields(source);
  if (source == nullptr || source->tiles == nullptr) return;
  seedFillFields(source, hostContext.paramBlock->opaqueStore, field);
  if (field == nullptr) return;
  sweepFillField(field);
  smoothFillField(field);
}

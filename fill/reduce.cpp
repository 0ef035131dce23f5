#include "fill/reduce.h"

#include <string.h>

#include "run/job_pool.h"
#include "store/pixel_store.h"

namespace {

// A unit is worked in chunks of destination columns, so that the source rows
// it reads fit in fixed buffers on the worker's stack (the workers' stacks are
// 200000 bytes; one chunk takes about 35 KB).
constexpr int32_t kChunkColumns = 128;
// Source columns that a chunk reads: 2x - 2 of its first pixel to 2x + 3 of its last.
constexpr int32_t kChunkSpan = 2 * kChunkColumns + 4;
constexpr int32_t kMaxChannels = 4;
constexpr int32_t kKernelRows = 6;

// ---- source rows --------------------------------------------------------------------------------
// A row loader copies source row `sy` (already inside the level) from column
// `first` on, `span` pixels, into a buffer of channels; each column is clamped
// to the level as the clamped accessors would, so the edges repeat.

struct RowCursor {
  const StoreTile* rowTiles;  // the level's tiles of the tile row that holds sy
  int32_t rowOffset;          // (sy & 511) * 512: the row's first pixel in its tile
  int32_t maxX;
};

inline RowCursor rowCursor(const PixelStore* store, int32_t level, int32_t sy) {
  RowCursor c;
  c.rowTiles = store->tiles + (sy >> kTileShift) * store->tilesAcross[level] + store->firstTile[level];
  c.rowOffset = (sy & kTileMask) * kTileWidth;
  c.maxX = store->levelMaxX[level];
  return c;
}

// Address of column x (clamped) of the cursor's row, pixels of `bytes` bytes.
inline const uint8_t* rowPixel(const RowCursor& c, int32_t x, int32_t bytes) {
  x = clampToLevel(x, c.maxX);
  return c.rowTiles[x >> kTileShift].pixels + size_t(c.rowOffset + (x & kTileMask)) * size_t(bytes);
}

void loadRowU8x4(const PixelStore* store, int32_t level, int32_t sy, int32_t first, int32_t span, int32_t* out) {
  const RowCursor c = rowCursor(store, level, sy);
  for (int32_t i = 0; i < span; ++i) {
    const uint32_t w = loadWord(rowPixel(c, first + i, 4));
    out[4 * i + 0] = int32_t(w >> 24);
    out[4 * i + 1] = int32_t((w >> 16) & 0xffu);
    out[4 * i + 2] = int32_t((w >> 8) & 0xffu);
    out[4 * i + 3] = int32_t(w & 0xffu);
  }
}

void loadRowU16x4(const PixelStore* store, int32_t level, int32_t sy, int32_t first, int32_t span, int32_t* out) {
  const RowCursor c = rowCursor(store, level, sy);
  for (int32_t i = 0; i < span; ++i) {
    uint16_t v[4];
    memcpy(v, rowPixel(c, first + i, 8), sizeof v);
    out[4 * i + 0] = v[0];
    out[4 * i + 1] = v[1];
    out[4 * i + 2] = v[2];
    out[4 * i + 3] = v[3];
  }
}

void loadRowU8(const PixelStore* store, int32_t level, int32_t sy, int32_t first, int32_t span, int32_t* out) {
  const RowCursor c = rowCursor(store, level, sy);
  for (int32_t i = 0; i < span; ++i) out[i] = *rowPixel(c, first + i, 1);
}

void loadRowU16(const PixelStore* store, int32_t level, int32_t sy, int32_t first, int32_t span, int32_t* out) {
  const RowCursor c = rowCursor(store, level, sy);
  for (int32_t i = 0; i < span; ++i) {
    uint16_t v;
    memcpy(&v, rowPixel(c, first + i, 2), sizeof v);
    out[i] = v;
  }
}

// Kind 9 (channels 4) and kind 5 (channels 1): the stored words as floats.
void loadRowFloats(const PixelStore* store, int32_t level, int32_t sy, int32_t first, int32_t span,
                   int32_t channels, float* out) {
  const RowCursor c = rowCursor(store, level, sy);
  const int32_t bytes = channels * 4;
  for (int32_t i = 0; i < span; ++i) memcpy(out + channels * i, rowPixel(c, first + i, bytes), size_t(bytes));
}

// ---- the kernel ---------------------------------------------------------------------------------
// rows[r] holds source row 2y - 2 + r, from source column 2 * x0 - 2 on, so
// destination pixel i of the chunk reads columns 2i .. 2i + 5 of each row.

// Integer sums are exact in any order, so the kernel is taken apart: rows -2
// and +3 carry the weights 1 4 4 1 (the corners are left out), rows -1, 0, +1
// and +2 carry 1 16 64 64 16 1 times 1, 4, 4, 1. The column sums of the two
// groups are made once and shared by the two destination pixels that read them.
template <int32_t C>
void integerSums(const int32_t* const rows[kKernelRows], int32_t count, int32_t* sums) {
  int32_t outer[kChunkSpan * kMaxChannels];
  int32_t inner[kChunkSpan * kMaxChannels];
  const int32_t values = (2 * count + 4) * C;
  const int32_t* r0 = rows[0];
  const int32_t* r1 = rows[1];
  const int32_t* r2 = rows[2];
  const int32_t* r3 = rows[3];
  const int32_t* r4 = rows[4];
  const int32_t* r5 = rows[5];
  for (int32_t k = 0; k < values; ++k) {
    outer[k] = r0[k] + r5[k];
    inner[k] = r1[k] + 4 * (r2[k] + r3[k]) + r4[k];
  }
  for (int32_t i = 0; i < count; ++i) {
    const int32_t* o = outer + 2 * i * C;
    const int32_t* n = inner + 2 * i * C;
    for (int32_t ch = 0; ch < C; ++ch) {
      sums[i * C + ch] = o[C + ch] + 4 * (o[2 * C + ch] + o[3 * C + ch]) + o[4 * C + ch] + n[ch] +
                         16 * (n[C + ch] + n[4 * C + ch]) + 64 * (n[2 * C + ch] + n[3 * C + ch]) + n[5 * C + ch];
    }
  }
}

// Float sums keep the table's order, row by row and left to right within a
// row, each addition in single precision, starting from 0.0. The products with
// the weights (powers of two) are exact.
template <int32_t C>
void floatSums(const float* const rows[kKernelRows], int32_t count, float* sums) {
  for (int32_t i = 0; i < count; ++i) {
    const int32_t b = 2 * i * C;
    const float* p0 = rows[0] + b;
    const float* p1 = rows[1] + b;
    const float* p2 = rows[2] + b;
    const float* p3 = rows[3] + b;
    const float* p4 = rows[4] + b;
    const float* p5 = rows[5] + b;
    for (int32_t ch = 0; ch < C; ++ch) {
      float s = 0.0f;
      s += p0[1 * C + ch];
      s += 4.0f * p0[2 * C + ch];
      s += 4.0f * p0[3 * C + ch];
      s += p0[4 * C + ch];

      s += p1[ch];
      s += 16.0f * p1[1 * C + ch];
      s += 64.0f * p1[2 * C + ch];
      s += 64.0f * p1[3 * C + ch];
      s += 16.0f * p1[4 * C + ch];
      s += p1[5 * C + ch];

      s += 4.0f * p2[ch];
      s += 64.0f * p2[1 * C + ch];
      s += 256.0f * p2[2 * C + ch];
      s += 256.0f * p2[3 * C + ch];
      s += 64.0f * p2[4 * C + ch];
      s += 4.0f * p2[5 * C + ch];

      s += 4.0f * p3[ch];
      s += 64.0f * p3[1 * C + ch];
      s += 256.0f * p3[2 * C + ch];
      s += 256.0f * p3[3 * C + ch];
      s += 64.0f * p3[4 * C + ch];
      s += 4.0f * p3[5 * C + ch];

      s += p4[ch];
      s += 16.0f * p4[1 * C + ch];
      s += 64.0f * p4[2 * C + ch];
      s += 64.0f * p4[3 * C + ch];
      s += 16.0f * p4[4 * C + ch];
      s += p4[5 * C + ch];

      s += p5[1 * C + ch];
      s += 4.0f * p5[2 * C + ch];
      s += 4.0f * p5[3 * C + ch];
      s += p5[4 * C + ch];
      sums[i * C + ch] = s;
    }
  }
}

// Scale and clamp of the integer kinds 3 and 0: the top of the range caps the
// 1/1630 scale's overshoot; the comparison is written so that it catches
// everything that is not below 255.
inline int32_t scaleU8(int32_t sum) {
  float v = float(sum) * kReduceIntegerScale;
  if (!(255.0f > v)) v = 255.0f;
  return truncToInt32(v);
}

// Kind 4. Sums reach 53 million, past 2^24: the conversion to float rounds.
inline int32_t scaleU16x4(int32_t sum) {
  float v = float(sum) * kReduceIntegerScale;
  if (!(32768.0f > v)) v = 32768.0f;
  return truncToInt32(v);
}

// Kind 1 truncates first and limits the integer afterwards.
inline int32_t scaleU16(int32_t sum) {
  int32_t v = truncToInt32(float(sum) * kReduceIntegerScale);
  if (v < 0) v = 0;
  if (v > 32768) v = 32768;
  return v;
}

// Float kinds 9 and 5: negatives to 0.0, values above 65535.0 to 65535.0; a NaN passes.
inline float scaleFloat(float sum) {
  float v = sum * kReduceFloatScale;
  if (0.0f > v) {
    v = 0.0f;
  } else if (v > 65535.0f) {
    v = 65535.0f;
  }
  return v;
}

// ---- the kinds ----------------------------------------------------------------------------------
// Each walks its rect a chunk of columns at a time, top to bottom, with the
// six source rows in a ring: the next destination row shares four of them and
// loads two.

typedef void (*IntegerRowLoader)(const PixelStore*, int32_t, int32_t, int32_t, int32_t, int32_t*);

template <int32_t C>
void reduceIntegerKind(PixelStore* store, int32_t level, VRect r, IntegerRowLoader load) {
  int32_t buffers[kKernelRows][kChunkSpan * kMaxChannels];
  int32_t sums[kChunkColumns * kMaxChannels];
  const int32_t maxY = store->levelMaxY[level];
  const int32_t target = level + 1;
  const int32_t kind = store->kind;
  for (int32_t x0 = r.left; x0 < r.right; x0 += kChunkColumns) {
    const int32_t count = r.right - x0 < kChunkColumns ? r.right - x0 : kChunkColumns;
    const int32_t first = 2 * x0 - 2;
    const int32_t span = 2 * count + 4;
    int32_t* rows[kKernelRows];
    for (int32_t k = 0; k < kKernelRows; ++k) {
      rows[k] = buffers[k];
      load(store, level, clampToLevel(2 * r.top - 2 + k, maxY), first, span, rows[k]);
    }
    for (int32_t y = r.top; y < r.bottom; ++y) {
      if (y > r.top) {
        int32_t* a = rows[0];
        int32_t* b = rows[1];
        for (int32_t k = 0; k + 2 < kKernelRows; ++k) rows[k] = rows[k + 2];
        rows[4] = a;
        rows[5] = b;
        load(store, level, clampToLevel(2 * y + 2, maxY), first, span, rows[4]);
        load(store, level, clampToLevel(2 * y + 3, maxY), first, span, rows[5]);
      }
      integerSums<C>(rows, count, sums);
      const int32_t* s = sums;
      if (kind == kKindRgba8) {
        for (int32_t i = 0; i < count; ++i, s += 4) {
          const int32_t v[4] = {scaleU8(s[0]), scaleU8(s[1]), scaleU8(s[2]), scaleU8(s[3])};
          writeU8x4Unchecked(x0 + i, y, store, target, v);
        }
      } else if (kind == kKindRgba16) {
        for (int32_t i = 0; i < count; ++i, s += 4) {
          const int32_t v[4] = {scaleU16x4(s[0]), scaleU16x4(s[1]), scaleU16x4(s[2]), scaleU16x4(s[3])};
          writeU16x4Unchecked(x0 + i, y, store, target, v);
        }
      } else if (kind == kKindGray8) {
        for (int32_t i = 0; i < count; ++i) writeU8(x0 + i, y, store, target, scaleU8(s[i]));
      } else {
        for (int32_t i = 0; i < count; ++i) writeU16Again(x0 + i, y, store, target, scaleU16(s[i]));
      }
    }
  }
}

template <int32_t C>
void reduceFloatKind(PixelStore* store, int32_t level, VRect r) {
  float buffers[kKernelRows][kChunkSpan * kMaxChannels];
  float sums[kChunkColumns * kMaxChannels];
  const int32_t maxY = store->levelMaxY[level];
  const int32_t target = level + 1;
  for (int32_t x0 = r.left; x0 < r.right; x0 += kChunkColumns) {
    const int32_t count = r.right - x0 < kChunkColumns ? r.right - x0 : kChunkColumns;
    const int32_t first = 2 * x0 - 2;
    const int32_t span = 2 * count + 4;
    float* rows[kKernelRows];
    for (int32_t k = 0; k < kKernelRows; ++k) {
      rows[k] = buffers[k];
      loadRowFloats(store, level, clampToLevel(2 * r.top - 2 + k, maxY), first, span, C, rows[k]);
    }
    for (int32_t y = r.top; y < r.bottom; ++y) {
      if (y > r.top) {
        float* a = rows[0];
        float* b = rows[1];
        for (int32_t k = 0; k + 2 < kKernelRows; ++k) rows[k] = rows[k + 2];
        rows[4] = a;
        rows[5] = b;
        loadRowFloats(store, level, clampToLevel(2 * y + 2, maxY), first, span, C, rows[4]);
        loadRowFloats(store, level, clampToLevel(2 * y + 3, maxY), first, span, C, rows[5]);
      }
      floatSums<C>(rows, count, sums);
      if (C == 4) {
        for (int32_t i = 0; i < count; ++i) {
          const float v[4] = {scaleFloat(sums[4 * i]), scaleFloat(sums[4 * i + 1]), scaleFloat(sums[4 * i + 2]),
                              scaleFloat(sums[4 * i + 3])};
          uint32_t words[4];
          memcpy(words, v, sizeof words);
          writeWord4(x0 + i, y, store, target, words);
        }
      } else {
        for (int32_t i = 0; i < count; ++i) writeFloat(x0 + i, y, store, target, scaleFloat(sums[i]));
      }
    }
  }
}

// Kind 7 takes the mean of the 2 by 2 block in place of the kernel: two
// channels halved and the third quartered, as befits values measured in the
// pixels of the level (the block mean of s / 4, then / 2 or / 4, truncating,
// is s / 8 and s / 16).
inline int32_t limitSigned16(int32_t v) { return v < -32767 ? -32767 : (v > 32767 ? 32767 : v); }

void reduceSigned16x3(PixelStore* store, int32_t level, VRect r) {
  for (int32_t y = r.top; y < r.bottom; ++y) {
    for (int32_t x = r.left; x < r.right; ++x) {
      int32_t sum[3] = {0, 0, 0};
      for (int32_t dy = 0; dy < 2; ++dy) {
        for (int32_t dx = 0; dx < 2; ++dx) {
          int32_t v[3];
          readI16x3(2 * x + dx, 2 * y + dy, store, level, v);
          sum[0] += v[0];
          sum[1] += v[1];
          sum[2] += v[2];
        }
      }
      const int32_t out[3] = {limitSigned16(sum[0] / 4 / 2), limitSigned16(sum[1] / 4 / 2),
                              limitSigned16(sum[2] / 4 / 4)};
      writeI16x3(x, y, store, level + 1, out);
    }
  }
}

}  // namespace

void reduceLevelUnit(PixelStore* store, int32_t level, VRect rect) {
  if (store == nullptr || store->tiles == nullptr || level < 0 || level + 1 > store->topLevel) return;
  const int32_t width = store->levelWidth[level + 1];
  const int32_t height = store->levelHeight[level + 1];
  if (rect.left < 0) rect.left = 0;
  if (rect.top < 0) rect.top = 0;
  if (rect.right > width) rect.right = width;
  if (rect.bottom > height) rect.bottom = height;
  if (rect.left >= rect.right || rect.top >= rect.bottom) return;

  switch (store->kind) {
    case kKindRgba8: reduceIntegerKind<4>(store, level, rect, loadRowU8x4); return;
    case kKindRgba16: reduceIntegerKind<4>(store, level, rect, loadRowU16x4); return;
    case kKindRgbaFloat: reduceFloatKind<4>(store, level, rect); return;
    case kKindGray8: reduceIntegerKind<1>(store, level, rect, loadRowU8); return;
    case kKindGray16: reduceIntegerKind<1>(store, level, rect, loadRowU16); return;
    case kKindFloat: reduceFloatKind<1>(store, level, rect); return;
    case kKindSigned16x3: reduceSigned16x3(store, level, rect); return;
    default: return;
  }
}

void reduceLevelWeightedUnit(PixelStore* store, int32_t level, VRect rect) {
  reduceLevelUnit(store, level, rect);
}

void buildLevels(PixelStore* store, int32_t firstLevel) {
  if (store == nullptr) return;
  for (int32_t level = firstLevel; level < store->topLevel; ++level) {
    JobRequest request = makeJobRequest(0);
    request.store = store;
    request.level = level;
    request.rect = levelRect(store, level + 1);
    runJob(store->loadGeneration > 0 ? kJobReduceWeighted : kJobReduceLevel, kTilingSquares, request);
  }
  store->loadState = 2;
}

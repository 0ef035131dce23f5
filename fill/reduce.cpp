#include "fill/reduce.h"

#include <string.h>

#include "run/job_pool.h"
#include "store/pixel_store.h"

// The live kinds 3, 4 and 9 have their four channels worked side by side in
// SSE2 registers: every lane does the same integer or single-precision
// operations, in the same order, as the plain code below it, so both give the
// same bits. MENDARIS_PLAIN_REDUCE selects the plain code on an SSE2 machine,
// so that both can be checked against the kernel table.
#if (defined(__SSE2__) || defined(_M_X64) || (defined(_M_IX86_FP) && _M_IX86_FP >= 2)) && \
    !defined(MENDARIS_PLAIN_REDUCE)
#define MENDARIS_REDUCE_SSE2 1
#include <emmintrin.h>
#endif

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
// `first` on, `span` pixels, into a buffer of channels. Columns outside the
// level take its edge pixel, as the clamped accessors give it; inside, the
// row is walked a tile's run at a time.

template <int32_t Bytes, class Unpack>
inline void forRowPixels(const PixelStore* store, int32_t level, int32_t sy, int32_t first, int32_t span,
                         Unpack unpack) {
  const StoreTile* rowTiles = store->tiles + (sy >> kTileShift) * store->tilesAcross[level] + store->firstTile[level];
  const size_t rowOffset = size_t(sy & kTileMask) * kTileWidth;
  const int32_t maxX = store->levelMaxX[level];
  const auto pixelAt = [&](int32_t x) {
    return rowTiles[x >> kTileShift].pixels + (rowOffset + size_t(x & kTileMask)) * Bytes;
  };
  int32_t i = 0;
  if (first < 0) {
    const uint8_t* edge = pixelAt(0);
    for (; i < span && first + i < 0; ++i) unpack(i, edge);
  }
  const int32_t inside = maxX + 1 - first < span ? maxX + 1 - first : span;
  while (i < inside) {
    const int32_t x = first + i;
    const int32_t tileLeft = kTileWidth - (x & kTileMask);
    const int32_t run = inside - i < tileLeft ? inside - i : tileLeft;
    const uint8_t* p = pixelAt(x);
    for (int32_t k = 0; k < run; ++k) unpack(i + k, p + k * Bytes);
    i += run;
  }
  if (i < span) {
    const uint8_t* edge = pixelAt(maxX);
    for (; i < span; ++i) unpack(i, edge);
  }
}

#ifndef MENDARIS_REDUCE_SSE2
void loadRowU8x4(const PixelStore* store, int32_t level, int32_t sy, int32_t first, int32_t span, int32_t* out) {
  forRowPixels<4>(store, level, sy, first, span, [out](int32_t i, const uint8_t* p) {
    const uint32_t w = loadWord(p);
    out[4 * i + 0] = int32_t(w >> 24);
    out[4 * i + 1] = int32_t((w >> 16) & 0xffu);
    out[4 * i + 2] = int32_t((w >> 8) & 0xffu);
    out[4 * i + 3] = int32_t(w & 0xffu);
  });
}

void loadRowU16x4(const PixelStore* store, int32_t level, int32_t sy, int32_t first, int32_t span, int32_t* out) {
  forRowPixels<8>(store, level, sy, first, span, [out](int32_t i, const uint8_t* p) {
    uint16_t v[4];
    memcpy(v, p, sizeof v);
    out[4 * i + 0] = v[0];
    out[4 * i + 1] = v[1];
    out[4 * i + 2] = v[2];
    out[4 * i + 3] = v[3];
  });
}
#endif

void loadRowU8(const PixelStore* store, int32_t level, int32_t sy, int32_t first, int32_t span, int32_t* out) {
  forRowPixels<1>(store, level, sy, first, span, [out](int32_t i, const uint8_t* p) { out[i] = *p; });
}

void loadRowU16(const PixelStore* store, int32_t level, int32_t sy, int32_t first, int32_t span, int32_t* out) {
  forRowPixels<2>(store, level, sy, first, span, [out](int32_t i, const uint8_t* p) {
    uint16_t v;
    memcpy(&v, p, sizeof v);
    out[i] = v;
  });
}

// Kind 9 (C = 4) and kind 5 (C = 1): the stored words as floats.
template <int32_t C>
void loadRowFloats(const PixelStore* store, int32_t level, int32_t sy, int32_t first, int32_t span, float* out) {
  forRowPixels<4 * C>(store, level, sy, first, span,
                      [out](int32_t i, const uint8_t* p) { memcpy(out + C * i, p, 4 * C); });
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
      loadRowFloats<C>(store, level, clampToLevel(2 * r.top - 2 + k, maxY), first, span, rows[k]);
    }
    for (int32_t y = r.top; y < r.bottom; ++y) {
      if (y > r.top) {
        float* a = rows[0];
        float* b = rows[1];
        for (int32_t k = 0; k + 2 < kKernelRows; ++k) rows[k] = rows[k + 2];
        rows[4] = a;
        rows[5] = b;
        loadRowFloats<C>(store, level, clampToLevel(2 * y + 2, maxY), first, span, rows[4]);
        loadRowFloats<C>(store, level, clampToLevel(2 * y + 3, maxY), first, span, rows[5]);
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

#ifdef MENDARIS_REDUCE_SSE2
// ---- four channels in a register -----------------------------------------------------------------------
// One __m128i or __m128 per pixel, the channels in the order the pixel has
// them in memory: for kind 3 that is channel 3 first (the word's low byte),
// which the sums do not mind and the packing puts back in place.

void loadRowLanesU8x4(const PixelStore* store, int32_t level, int32_t sy, int32_t first, int32_t span,
                      __m128i* out) {
  const __m128i zero = _mm_setzero_si128();
  forRowPixels<4>(store, level, sy, first, span, [out, zero](int32_t i, const uint8_t* p) {
    const __m128i bytes = _mm_cvtsi32_si128(int32_t(loadWord(p)));
    _mm_store_si128(out + i, _mm_unpacklo_epi16(_mm_unpacklo_epi8(bytes, zero), zero));
  });
}

void loadRowLanesU16x4(const PixelStore* store, int32_t level, int32_t sy, int32_t first, int32_t span,
                       __m128i* out) {
  const __m128i zero = _mm_setzero_si128();
  forRowPixels<8>(store, level, sy, first, span, [out, zero](int32_t i, const uint8_t* p) {
    const __m128i values = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p));
    _mm_store_si128(out + i, _mm_unpacklo_epi16(values, zero));
  });
}

void loadRowLanesFloat(const PixelStore* store, int32_t level, int32_t sy, int32_t first, int32_t span,
                       __m128* out) {
  forRowPixels<16>(store, level, sy, first, span, [out](int32_t i, const uint8_t* p) {
    _mm_store_ps(reinterpret_cast<float*>(out + i), _mm_loadu_ps(reinterpret_cast<const float*>(p)));
  });
}

// The integer sums as in integerSums: the column sums of the two row groups,
// then the horizontal weights, all by shifts (1, 4, 16, 64).
inline void integerSumsLanes(const __m128i* const rows[kKernelRows], int32_t count, __m128i* outer,
                             __m128i* inner, __m128i* sums) {
  const int32_t span = 2 * count + 4;
  for (int32_t k = 0; k < span; ++k) {
    outer[k] = _mm_add_epi32(rows[0][k], rows[5][k]);
    const __m128i middle = _mm_slli_epi32(_mm_add_epi32(rows[2][k], rows[3][k]), 2);
    inner[k] = _mm_add_epi32(_mm_add_epi32(rows[1][k], middle), rows[4][k]);
  }
  for (int32_t i = 0; i < count; ++i) {
    const __m128i* o = outer + 2 * i;
    const __m128i* n = inner + 2 * i;
    __m128i s = _mm_add_epi32(o[1], o[4]);
    s = _mm_add_epi32(s, _mm_slli_epi32(_mm_add_epi32(o[2], o[3]), 2));
    s = _mm_add_epi32(s, _mm_add_epi32(n[0], n[5]));
    s = _mm_add_epi32(s, _mm_slli_epi32(_mm_add_epi32(n[1], n[4]), 4));
    s = _mm_add_epi32(s, _mm_slli_epi32(_mm_add_epi32(n[2], n[3]), 6));
    sums[i] = s;
  }
}

// Integer sums to values: to float (rounding), times 1/1630, capped at `top`
// (min gives the cap for every value that is not below it; the sums are
// never NaN), truncated.
inline __m128i scaleLanes(__m128i sum, __m128 top) {
  const __m128 v = _mm_mul_ps(_mm_cvtepi32_ps(sum), _mm_set1_ps(kReduceIntegerScale));
  return _mm_cvttps_epi32(_mm_min_ps(v, top));
}

void reduceIntegerLanes(PixelStore* store, int32_t level, VRect r) {
  alignas(16) __m128i buffers[kKernelRows][kChunkSpan];
  alignas(16) __m128i outer[kChunkSpan];
  alignas(16) __m128i inner[kChunkSpan];
  alignas(16) __m128i sums[kChunkColumns];
  const bool eightBit = store->kind == kKindRgba8;
  const __m128 top = _mm_set1_ps(eightBit ? 255.0f : 32768.0f);
  const __m128i bias = _mm_set1_epi32(32768);
  const __m128i flip = _mm_set1_epi16(int16_t(0x8000));
  const int32_t maxY = store->levelMaxY[level];
  const int32_t target = level + 1;
  const auto load = [&](int32_t sy, int32_t first, int32_t span, __m128i* out) {
    if (eightBit) {
      loadRowLanesU8x4(store, level, clampToLevel(sy, maxY), first, span, out);
    } else {
      loadRowLanesU16x4(store, level, clampToLevel(sy, maxY), first, span, out);
    }
  };
  for (int32_t x0 = r.left; x0 < r.right; x0 += kChunkColumns) {
    const int32_t count = r.right - x0 < kChunkColumns ? r.right - x0 : kChunkColumns;
    const int32_t first = 2 * x0 - 2;
    const int32_t span = 2 * count + 4;
    const __m128i* rows[kKernelRows];
    __m128i* ring[kKernelRows];
    for (int32_t k = 0; k < kKernelRows; ++k) {
      ring[k] = buffers[k];
      load(2 * r.top - 2 + k, first, span, ring[k]);
    }
    for (int32_t y = r.top; y < r.bottom; ++y) {
      if (y > r.top) {
        __m128i* a = ring[0];
        __m128i* b = ring[1];
        for (int32_t k = 0; k + 2 < kKernelRows; ++k) ring[k] = ring[k + 2];
        ring[4] = a;
        ring[5] = b;
        load(2 * y + 2, first, span, ring[4]);
        load(2 * y + 3, first, span, ring[5]);
      }
      for (int32_t k = 0; k < kKernelRows; ++k) rows[k] = ring[k];
      integerSumsLanes(rows, count, outer, inner, sums);
      if (eightBit) {
        // 0..255 in each lane: two saturating packs leave the four bytes in
        // the order they came from memory.
        for (int32_t i = 0; i < count; ++i) {
          const __m128i v = scaleLanes(sums[i], top);
          const __m128i bytes = _mm_packus_epi16(_mm_packs_epi32(v, v), v);
          storeWord(storePixel<uint32_t>(store, target, x0 + i, y), uint32_t(_mm_cvtsi128_si32(bytes)));
        }
      } else {
        // 0..32768 does not fit a signed pack: shift it down by 32768 and flip
        // the top bit of each 16-bit result back.
        for (int32_t i = 0; i < count; ++i) {
          const __m128i v = _mm_sub_epi32(scaleLanes(sums[i], top), bias);
          const __m128i halves = _mm_xor_si128(_mm_packs_epi32(v, v), flip);
          _mm_storel_epi64(reinterpret_cast<__m128i*>(storePixel<uint16_t>(store, target, x0 + i, y, 4)), halves);
        }
      }
    }
  }
}

// The kernel's taps in the order of the sums: row by row, left to right,
// the corners left out. Columns count from 2x - 2.
struct FloatTap {
  int32_t row;
  int32_t column;
  float weight;
};
const FloatTap kFloatTaps[32] = {
    {0, 1, 1.0f},   {0, 2, 4.0f},    {0, 3, 4.0f},    {0, 4, 1.0f},                                    //
    {1, 0, 1.0f},   {1, 1, 16.0f},   {1, 2, 64.0f},   {1, 3, 64.0f},   {1, 4, 16.0f}, {1, 5, 1.0f},    //
    {2, 0, 4.0f},   {2, 1, 64.0f},   {2, 2, 256.0f},  {2, 3, 256.0f},  {2, 4, 64.0f}, {2, 5, 4.0f},    //
    {3, 0, 4.0f},   {3, 1, 64.0f},   {3, 2, 256.0f},  {3, 3, 256.0f},  {3, 4, 64.0f}, {3, 5, 4.0f},    //
    {4, 0, 1.0f},   {4, 1, 16.0f},   {4, 2, 64.0f},   {4, 3, 64.0f},   {4, 4, 16.0f}, {4, 5, 1.0f},    //
    {5, 1, 1.0f},   {5, 2, 4.0f},    {5, 3, 4.0f},    {5, 4, 1.0f},                                    //
};

// Scale and clamp of four channels: below 0.0 to 0.0, above 65535.0 to
// 65535.0; a NaN fails both tests and passes.
inline __m128 scaleFloatLanes(__m128 sum) {
  const __m128 ceiling = _mm_set1_ps(65535.0f);
  __m128 v = _mm_mul_ps(sum, _mm_set1_ps(kReduceFloatScale));
  v = _mm_andnot_ps(_mm_cmplt_ps(v, _mm_setzero_ps()), v);
  const __m128 over = _mm_cmpgt_ps(v, ceiling);
  return _mm_or_ps(_mm_andnot_ps(over, v), _mm_and_ps(over, ceiling));
}

inline void storeFloatLanes(PixelStore* store, int32_t level, int32_t x, int32_t y, __m128 v) {
  _mm_storeu_ps(reinterpret_cast<float*>(storePixel<uint32_t>(store, level, x, y, 4)), v);
}

// Four neighbouring destination pixels from pixel i of the chunk on: four
// chains of additions side by side, each in the table's order, one addition
// at a time from 0.0, so that the processor can overlap them. A weight of 1
// is a plain addition.
inline void floatFourPixelsLanes(__m128* const ring[kKernelRows], int32_t i, PixelStore* store, int32_t target,
                                 int32_t x, int32_t y) {
  __m128 s0 = _mm_setzero_ps();
  __m128 s1 = s0;
  __m128 s2 = s0;
  __m128 s3 = s0;
  // Unrolled, the table's weights and places are constants: no test of a
  // weight and no address arithmetic is left in the loop.
#pragma GCC unroll 32
  for (const FloatTap& tap : kFloatTaps) {
    const __m128* q = ring[tap.row] + 2 * i + tap.column;
    if (tap.weight == 1.0f) {
      s0 = _mm_add_ps(s0, q[0]);
      s1 = _mm_add_ps(s1, q[2]);
      s2 = _mm_add_ps(s2, q[4]);
      s3 = _mm_add_ps(s3, q[6]);
    } else {
      const __m128 w = _mm_set1_ps(tap.weight);
      s0 = _mm_add_ps(s0, _mm_mul_ps(w, q[0]));
      s1 = _mm_add_ps(s1, _mm_mul_ps(w, q[2]));
      s2 = _mm_add_ps(s2, _mm_mul_ps(w, q[4]));
      s3 = _mm_add_ps(s3, _mm_mul_ps(w, q[6]));
    }
  }
  storeFloatLanes(store, target, x, y, scaleFloatLanes(s0));
  storeFloatLanes(store, target, x + 1, y, scaleFloatLanes(s1));
  storeFloatLanes(store, target, x + 2, y, scaleFloatLanes(s2));
  storeFloatLanes(store, target, x + 3, y, scaleFloatLanes(s3));
}

inline void floatOnePixelLanes(__m128* const ring[kKernelRows], int32_t i, PixelStore* store, int32_t target,
                               int32_t x, int32_t y) {
  __m128 s = _mm_setzero_ps();
  for (const FloatTap& tap : kFloatTaps) {
    const __m128* q = ring[tap.row] + 2 * i + tap.column;
    s = tap.weight == 1.0f ? _mm_add_ps(s, q[0]) : _mm_add_ps(s, _mm_mul_ps(_mm_set1_ps(tap.weight), q[0]));
  }
  storeFloatLanes(store, target, x, y, scaleFloatLanes(s));
}

void reduceFloatLanes(PixelStore* store, int32_t level, VRect r) {
  alignas(16) __m128 buffers[kKernelRows][kChunkSpan];
  const int32_t maxY = store->levelMaxY[level];
  const int32_t target = level + 1;
  for (int32_t x0 = r.left; x0 < r.right; x0 += kChunkColumns) {
    const int32_t count = r.right - x0 < kChunkColumns ? r.right - x0 : kChunkColumns;
    const int32_t first = 2 * x0 - 2;
    const int32_t span = 2 * count + 4;
    __m128* ring[kKernelRows];
    for (int32_t k = 0; k < kKernelRows; ++k) {
      ring[k] = buffers[k];
      loadRowLanesFloat(store, level, clampToLevel(2 * r.top - 2 + k, maxY), first, span, ring[k]);
    }
    for (int32_t y = r.top; y < r.bottom; ++y) {
      if (y > r.top) {
        __m128* a = ring[0];
        __m128* b = ring[1];
        for (int32_t k = 0; k + 2 < kKernelRows; ++k) ring[k] = ring[k + 2];
        ring[4] = a;
        ring[5] = b;
        loadRowLanesFloat(store, level, clampToLevel(2 * y + 2, maxY), first, span, ring[4]);
        loadRowLanesFloat(store, level, clampToLevel(2 * y + 3, maxY), first, span, ring[5]);
      }
      int32_t i = 0;
      for (; i + 4 <= count; i += 4) floatFourPixelsLanes(ring, i, store, target, x0 + i, y);
      for (; i < count; ++i) floatOnePixelLanes(ring, i, store, target, x0 + i, y);
    }
  }
}
#endif

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
#ifdef MENDARIS_REDUCE_SSE2
    case kKindRgba8:
    case kKindRgba16: reduceIntegerLanes(store, level, rect); return;
    case kKindRgbaFloat: reduceFloatLanes(store, level, rect); return;
#else
    case kKindRgba8: reduceIntegerKind<4>(store, level, rect, loadRowU8x4); return;
    case kKindRgba16: reduceIntegerKind<4>(store, level, rect, loadRowU16x4); return;
    case kKindRgbaFloat: reduceFloatKind<4>(store, level, rect); return;
#endif
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

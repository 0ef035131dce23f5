// What the kernel roads share: where a 5 x 5 block lies and how it is read,
// the weights of a phase, and the blend of two levels. Every kernel takes the
// same two roads. When the whole block lies in the level and in one tile, the
// tile's address is taken once and the block is read as five rows at the
// tile's stride. Otherwise the 25 pixels are gathered through clamped (or,
// under the latent wrap modes, wrapped) coordinates into a small local block,
// and the same arithmetic runs over that.
//
// Each road's file is built for its own instruction set, so everything here
// has internal linkage: every file compiles its own copy, and no copy built
// for a wider set can stand in for another file's at link time.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "store/pixel_store.h"
#include "store/portable_math.h"
#include "store/resample.h"
#include "store/resample_table.h"

#if (defined(__SSE2__) || defined(_M_X64) || (defined(_M_IX86_FP) && _M_IX86_FP >= 2)) && \
    !defined(MENDARIS_SCALAR_KERNELS)
#include <emmintrin.h>
#define MENDARIS_SSE2_KERNELS 1
#else
#define MENDARIS_SSE2_KERNELS 0
#endif

namespace {
// Scales of the integer totals: weights times 2048 twice (8-bit), times 32768
// once after the per-row division (16-bit), times 32768 twice (16-bit scalar).
const float kScale8 = 0x1p-22f;
const float kScale16 = 0x1p-15f;
const float kScale16Wide = 0x1p-30f;

// Base pixel and phase of one axis: p = coord + 0.5 rounded to float; the
// base pixel is trunc(p) and the phase the first 7 bits of the fraction. The
// half pixel matches the box offset built into the table. The sum may be
// taken in double and rounded to float, or in float at once: a double holds
// more than twice a float's digits plus two, so both round alike. The
// fraction and its scaling by 128 are exact in either.
inline int32_t kernelBase(float coord, int32_t* phase) {
  const float p = coord + 0.5f;
  const int32_t i = truncFloat(p);
  *phase = truncFloat((p - float(i)) * 128.0f);
  return i;
}

// Whether the block with top-left pixel (x0, y0) can be read straight from one
// tile. The level test is unsigned on purpose: a negative corner fails it, and
// on a level of 4 pixels or less the bound wraps so that any corner >= 0
// passes; the block then reads the tile's columns past the level and its
// spare rows, which are allocated and zero.
inline bool kernelInOneTile(const PixelStore* store, int32_t level, int32_t x0, int32_t y0) {
  return uint32_t(x0) <= uint32_t(store->levelMaxX[level]) - 4u &&
         uint32_t(y0) <= uint32_t(store->levelMaxY[level]) - 4u && (x0 & kTileMask) < kTileWidth - 4 &&
         (y0 & kTileMask) < kTileWidth - 4;
}

// One axis of the general road: the five coordinates around base pixel i,
// wrapped modulo `length` when asked, then clamped to 0..max as the accessors
// clamp, so that the edge pixels repeat past the border.
inline void kernelAxis(int32_t i, int32_t max, bool wrap, int32_t out[5]) {
  if (wrap) {
    const int32_t length = max + 1;
    const int32_t centre = i % length;
    for (int32_t k = 0; k < 5; ++k) {
      int32_t c = centre - 2 + k;
      if (c < 0) c += length;
      else if (c > max) c -= length;
      out[k] = clampToLevel(c, max);
    }
  } else {
    for (int32_t k = 0; k < 5; ++k) out[k] = clampToLevel(int32_t(uint32_t(i) - 2u + uint32_t(k)), max);
  }
}

// The 25 pixels of the general road into `block`, rows 5 * kBytes apart. The
// tile column and offset of each column and the tile row and offset of each
// row are found once; a pixel is then one table load and one copy.
// Kept out of line: the kernels' usual road is the one-tile read, and the
// gather would only crowd it.
#if defined(__GNUC__)
#define MENDARIS_OUT_OF_LINE __attribute__((noinline))
#else
#define MENDARIS_OUT_OF_LINE
#endif

template <int kBytes>
MENDARIS_OUT_OF_LINE void gatherBlock(const PixelStore* store, int32_t level, int32_t i, int32_t j, uint8_t* block) {
  const int32_t mode = store->edgeMode;
  int32_t cols[5];
  int32_t rows[5];
  kernelAxis(i, store->levelMaxX[level], mode == 1 || mode == 2, cols);
  kernelAxis(j, store->levelMaxY[level], mode == 1, rows);
  int32_t colTile[5];
  int32_t colOffset[5];
  for (int c = 0; c < 5; ++c) {
    colTile[c] = cols[c] >> kTileShift;
    colOffset[c] = (cols[c] & kTileMask) * kBytes;
  }
  const StoreTile* levelTiles = store->tiles + store->firstTile[level];
  const int32_t across = store->tilesAcross[level];
  for (int r = 0; r < 5; ++r) {
    const StoreTile* tileRow = levelTiles + (rows[r] >> kTileShift) * across;
    const int32_t rowOffset = (rows[r] & kTileMask) * kTileWidth * kBytes;
    uint8_t* dst = block + r * 5 * kBytes;
    for (int c = 0; c < 5; ++c) {
      memcpy(dst + c * kBytes, tileRow[colTile[c]].pixels + rowOffset + colOffset[c], kBytes);
    }
  }
}

// The weights of one axis in column (or row) order: pixel i - 2 takes tap 4,
// pixel i + 2 tap 0.
template <class T>
inline void pixelOrderWeights(const T (*taps)[kKernelPhases], int32_t phase, T w[5]) {
  w[0] = taps[4][phase];
  w[1] = taps[3][phase];
  w[2] = taps[2][phase];
  w[3] = taps[1][phase];
  w[4] = taps[0][phase];
}

// Where the block of (i, j) starts: in its tile, or gathered into `local`.
// Returns the block's row stride in bytes.
template <int kBytes>
inline ptrdiff_t locateBlock(const PixelStore* store, int32_t level, int32_t i, int32_t j, uint8_t* local,
                             const uint8_t** block) {
  const int32_t x0 = int32_t(uint32_t(i) - 2u);
  const int32_t y0 = int32_t(uint32_t(j) - 2u);
  if (kernelInOneTile(store, level, x0, y0)) {
    *block = storePixel<const uint8_t>(store, level, x0, y0, kBytes);
    return ptrdiff_t(kTileWidth) * kBytes;
  }
  gatherBlock<kBytes>(store, level, i, j, local);
  *block = local;
  return 5 * kBytes;
}
// The integer weight rows as unsigned words: the products wrap like the signed ones would.
inline void unsignedWeights(const int32_t (*taps)[kKernelPhases], int32_t phase, uint32_t w[5]) {
  int32_t s[5];
  pixelOrderWeights(taps, phase, s);
  for (int k = 0; k < 5; ++k) w[k] = uint32_t(s[k]);
}

inline int32_t limitBlendLevel(const PixelStore* store, int32_t level) {
  int32_t l = level < 0 ? 0 : level;
  if (l > store->topLevel - 1) l = store->topLevel - 1;
  return l;
}

#if MENDARIS_SSE2_KERNELS

// Low 32 bits of lane * w for the four lanes: wrapping multiplication, as the plain form's.
inline __m128i mulLow32(__m128i v, uint32_t w) {
  const __m128i wv = _mm_set1_epi32(int(w));
  const __m128i even = _mm_mul_epu32(v, wv);
  const __m128i odd = _mm_mul_epu32(_mm_srli_epi64(v, 32), wv);
  return _mm_unpacklo_epi32(_mm_shuffle_epi32(even, _MM_SHUFFLE(0, 0, 2, 0)),
                            _mm_shuffle_epi32(odd, _MM_SHUFFLE(0, 0, 2, 0)));
}

inline __m128i columnSumLanes(__m128i r0, __m128i r1, __m128i r2, __m128i r3, __m128i r4, const uint32_t w[5]) {
  __m128i s = mulLow32(r0, w[0]);
  s = _mm_add_epi32(s, mulLow32(r1, w[1]));
  s = _mm_add_epi32(s, mulLow32(r2, w[2]));
  s = _mm_add_epi32(s, mulLow32(r3, w[3]));
  return _mm_add_epi32(s, mulLow32(r4, w[4]));
}

// Two 16-bit weights (a, b) in every 32-bit lane, for pmaddwd against pixel
// pairs. Every integer weight fits 16 bits signed: the taps are below 1 in
// magnitude, so below 32768 even at the 16-bit scale.
inline __m128i weightPair(uint32_t a, uint32_t b) { return _mm_set1_epi32(int((b << 16) | (a & 0xffffu))); }

// Kind 4. pmaddwd multiplies signed 16-bit lanes, and the values run to 65535:
// each value goes in as v - 32768 (its top bit flipped), and the row gets back
// 32768 times the sum of its weights, which is 32768 for every phase. Modulo
// 2^32 the row sum is then exactly the plain one.
// A row's flipped sum back to the plain sum (the weights' 32768 times 32768
// added), divided by 32768 with truncation toward zero.
inline __m128i rowQuotientU16(__m128i s) {
  s = _mm_add_epi32(s, _mm_set1_epi32(1 << 30));
  const __m128i bias = _mm_and_si128(_mm_srai_epi32(s, 31), _mm_set1_epi32(32767));
  return _mm_srai_epi32(_mm_add_epi32(s, bias), 15);
}

inline __m128i pairU16(const uint8_t* a, const uint8_t* b, __m128i flip) {
  const __m128i pa = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(a));
  const __m128i pb = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(b));
  return _mm_xor_si128(_mm_unpacklo_epi16(pa, pb), flip);
}

// The row of five pixels p[0..4] weighed with (w0, w1), (w2, w3) and (w4, 0)
// pairs and divided: four channels of one row sum.
inline __m128i fivePixelsU16x4(const uint8_t* const p[5], __m128i w01, __m128i w23, __m128i w4, __m128i flip) {
  __m128i s = _mm_madd_epi16(pairU16(p[0], p[1], flip), w01);
  s = _mm_add_epi32(s, _mm_madd_epi16(pairU16(p[2], p[3], flip), w23));
  const __m128i last = _mm_xor_si128(
      _mm_unpacklo_epi16(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p[4])), _mm_setzero_si128()), flip);
  s = _mm_add_epi32(s, _mm_madd_epi16(last, w4));
  return rowQuotientU16(s);
}

inline __m128i rowU16x4(const uint8_t* row, __m128i w01, __m128i w23, __m128i w4, __m128i flip) {
  const uint8_t* const pixels[5] = {row, row + 8, row + 16, row + 24, row + 32};
  return fivePixelsU16x4(pixels, w01, w23, w4, flip);
}

#endif

// filterPixelBlend with its results in out[0..3], through the kernel of the
// road that includes this: kernel(store, level, x, y, out).
template <class Kernel>
inline void blendLevels(const PixelStore* store, int32_t level, float frac, float u, float v, float out[4],
                        Kernel kernel) {
  const int32_t l = limitBlendLevel(store, level);
  const float x = store->levelScaleX[l] * u - 0.5f;
  const float y = store->levelScaleY[l] * v - 0.5f;
  kernel(store, l, x, y, out);
  if (frac == 0.0f) return;
  float b[4];
  const float x1 = store->levelScaleX[l + 1] * u - 0.5f;
  const float y1 = store->levelScaleY[l + 1] * v - 0.5f;
  kernel(store, l + 1, x1, y1, b);
  out[0] = out[0] + (b[0] - out[0]) * frac;
  out[1] = out[1] + (b[1] - out[1]) * frac;
  out[2] = out[2] + (b[2] - out[2]) * frac;
  out[3] = out[3] + (b[3] - out[3]) * frac;
}

// kernelsAtLevelZero's loop for the road that includes this: as the blend
// takes level 0 with frac 0, the level limited, one kernel read a point.
template <class Kernel>
inline void levelZeroReads(const PixelStore* store, int32_t count, const float* us, const float* vs,
                           float (*out)[4], Kernel kernel) {
  const int32_t l = limitBlendLevel(store, 0);
  const float scaleX = store->levelScaleX[l];
  const float scaleY = store->levelScaleY[l];
  const float unit = store->valueToUnit;
  for (int32_t k = 0; k < count; ++k) {
    float* o = out[k];
    kernel(store, l, scaleX * us[k] - 0.5f, scaleY * vs[k] - 0.5f, o);
    o[0] *= unit;
    o[1] *= unit;
    o[2] *= unit;
    o[3] *= unit;
  }
}

}  // namespace

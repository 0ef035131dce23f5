#include "store/resample.h"

#include <stddef.h>
#include <string.h>

#include "store/portable_math.h"

#if (defined(__SSE2__) || defined(_M_X64) || (defined(_M_IX86_FP) && _M_IX86_FP >= 2)) && \
    !defined(MENDARIS_SCALAR_KERNELS)
#include <emmintrin.h>
#define MENDARIS_SSE2_KERNELS 1
#else
#define MENDARIS_SSE2_KERNELS 0
#endif

// Every kernel takes the same two roads. When the whole 5 x 5 block lies in
// the level and in one tile, the tile's address is taken once and the block is
// read as five rows at the tile's stride. Otherwise the 25 pixels are gathered
// through clamped (or, under the latent wrap modes, wrapped) coordinates into a
// small local block, and the same arithmetic runs over that. The arithmetic of
// each kind is written out flat: five row sums of five products, then one
// column sum of the five rows.

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

// ---- block arithmetic of the four-channel kinds ----------------------------------------------
//
// Each takes the 5 x 5 block (rows `stride` bytes apart), the weights in
// column and row order, and gives r, g, b, a. The SSE2 forms compute exactly
// what the plain forms compute: the integer kinds wrap in 32 bits the same way,
// and the float kind does the same single-precision operations in the same
// order, one channel per lane. The plain forms serve other processors and the
// MENDARIS_SCALAR_KERNELS build, which the tests compare.

inline uint32_t columnSum(uint32_t r0, uint32_t r1, uint32_t r2, uint32_t r3, uint32_t r4, const uint32_t w[5]) {
  return r0 * w[0] + r1 * w[1] + r2 * w[2] + r3 * w[3] + r4 * w[4];
}

// Σ row * weight in single precision, added from the top.
inline float columnSumFloat(float r0, float r1, float r2, float r3, float r4, const float w[5]) {
  float s = r0 * w[0];
  s = s + r1 * w[1];
  s = s + r2 * w[2];
  s = s + r3 * w[3];
  s = s + r4 * w[4];
  return s;
}

inline uint32_t load16(const uint8_t* p) {
  uint16_t v;
  memcpy(&v, p, sizeof v);
  return v;
}

#if MENDARIS_SSE2_KERNELS

// Two 16-bit weights (a, b) in every 32-bit lane, for pmaddwd against pixel
// pairs. Every integer weight fits 16 bits signed: the taps are below 1 in
// magnitude, so below 32768 even at the 16-bit scale.
inline __m128i weightPair(uint32_t a, uint32_t b) { return _mm_set1_epi32(int((b << 16) | (a & 0xffffu))); }

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

// Kind 3. The bytes of two words interleaved and widened give, per channel,
// the pair (value of a, value of b) as 16-bit lanes; lane 0 holds channel 3,
// the word's low byte.
inline __m128i pairU8(const uint8_t* a, const uint8_t* b, __m128i zero) {
  const __m128i bytes = _mm_unpacklo_epi8(_mm_cvtsi32_si128(int(loadWord(a))), _mm_cvtsi32_si128(int(loadWord(b))));
  return _mm_unpacklo_epi8(bytes, zero);
}

inline __m128i rowU8x4(const uint8_t* row, __m128i w01, __m128i w23, __m128i w4, __m128i zero) {
  __m128i s = _mm_madd_epi16(pairU8(row, row + 4, zero), w01);
  s = _mm_add_epi32(s, _mm_madd_epi16(pairU8(row + 8, row + 12, zero), w23));
  const __m128i last = _mm_unpacklo_epi8(_mm_unpacklo_epi8(_mm_cvtsi32_si128(int(loadWord(row + 16))), zero), zero);
  return _mm_add_epi32(s, _mm_madd_epi16(last, w4));
}

inline void filterBlockU8x4(const uint8_t* block, ptrdiff_t stride, const uint32_t wx[5], const uint32_t wy[5],
                            float out[4]) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i w01 = weightPair(wx[0], wx[1]);
  const __m128i w23 = weightPair(wx[2], wx[3]);
  const __m128i w4 = weightPair(wx[4], 0);
  const __m128i total = columnSumLanes(
      rowU8x4(block, w01, w23, w4, zero), rowU8x4(block + stride, w01, w23, w4, zero),
      rowU8x4(block + 2 * stride, w01, w23, w4, zero), rowU8x4(block + 3 * stride, w01, w23, w4, zero),
      rowU8x4(block + 4 * stride, w01, w23, w4, zero), wy);
  const __m128 scaled = _mm_mul_ps(_mm_cvtepi32_ps(total), _mm_set1_ps(kScale8));
  _mm_storeu_ps(out, _mm_shuffle_ps(scaled, scaled, _MM_SHUFFLE(0, 1, 2, 3)));
}

// Kind 4. pmaddwd multiplies signed 16-bit lanes, and the values run to 65535:
// each value goes in as v - 32768 (its top bit flipped), and the row gets back
// 32768 times the sum of its weights, which is 32768 for every phase. Modulo
// 2^32 the row sum is then exactly the plain one.
inline __m128i pairU16(const uint8_t* a, const uint8_t* b, __m128i flip) {
  const __m128i pa = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(a));
  const __m128i pb = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(b));
  return _mm_xor_si128(_mm_unpacklo_epi16(pa, pb), flip);
}

inline __m128i rowU16x4(const uint8_t* row, __m128i w01, __m128i w23, __m128i w4, __m128i flip) {
  __m128i s = _mm_madd_epi16(pairU16(row, row + 8, flip), w01);
  s = _mm_add_epi32(s, _mm_madd_epi16(pairU16(row + 16, row + 24, flip), w23));
  const __m128i last = _mm_xor_si128(
      _mm_unpacklo_epi16(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(row + 32)), _mm_setzero_si128()), flip);
  s = _mm_add_epi32(s, _mm_madd_epi16(last, w4));
  s = _mm_add_epi32(s, _mm_set1_epi32(1 << 30));
  // Signed division by 32768 with truncation toward zero.
  const __m128i bias = _mm_and_si128(_mm_srai_epi32(s, 31), _mm_set1_epi32(32767));
  return _mm_srai_epi32(_mm_add_epi32(s, bias), 15);
}

inline void filterBlockU16x4(const uint8_t* block, ptrdiff_t stride, const uint32_t wx[5], const uint32_t wy[5],
                             float out[4]) {
  const __m128i flip = _mm_set1_epi16(short(0x8000));
  const __m128i w01 = weightPair(wx[0], wx[1]);
  const __m128i w23 = weightPair(wx[2], wx[3]);
  const __m128i w4 = weightPair(wx[4], 0);
  const __m128i total = columnSumLanes(
      rowU16x4(block, w01, w23, w4, flip), rowU16x4(block + stride, w01, w23, w4, flip),
      rowU16x4(block + 2 * stride, w01, w23, w4, flip), rowU16x4(block + 3 * stride, w01, w23, w4, flip),
      rowU16x4(block + 4 * stride, w01, w23, w4, flip), wy);
  _mm_storeu_ps(out, _mm_mul_ps(_mm_cvtepi32_ps(total), _mm_set1_ps(kScale16)));
}

// Kind 9: one pixel is one vector of four channels.
inline __m128 rowFloatx4(const uint8_t* row, const float w[5]) {
  __m128 s = _mm_mul_ps(_mm_loadu_ps(reinterpret_cast<const float*>(row + 0)), _mm_set1_ps(w[0]));
  s = _mm_add_ps(s, _mm_mul_ps(_mm_loadu_ps(reinterpret_cast<const float*>(row + 16)), _mm_set1_ps(w[1])));
  s = _mm_add_ps(s, _mm_mul_ps(_mm_loadu_ps(reinterpret_cast<const float*>(row + 32)), _mm_set1_ps(w[2])));
  s = _mm_add_ps(s, _mm_mul_ps(_mm_loadu_ps(reinterpret_cast<const float*>(row + 48)), _mm_set1_ps(w[3])));
  return _mm_add_ps(s, _mm_mul_ps(_mm_loadu_ps(reinterpret_cast<const float*>(row + 64)), _mm_set1_ps(w[4])));
}

inline void filterBlockFloatx4(const uint8_t* block, ptrdiff_t stride, const float wx[5], const float wy[5],
                               float out[4]) {
  __m128 s = _mm_mul_ps(rowFloatx4(block, wx), _mm_set1_ps(wy[0]));
  s = _mm_add_ps(s, _mm_mul_ps(rowFloatx4(block + stride, wx), _mm_set1_ps(wy[1])));
  s = _mm_add_ps(s, _mm_mul_ps(rowFloatx4(block + 2 * stride, wx), _mm_set1_ps(wy[2])));
  s = _mm_add_ps(s, _mm_mul_ps(rowFloatx4(block + 3 * stride, wx), _mm_set1_ps(wy[3])));
  s = _mm_add_ps(s, _mm_mul_ps(rowFloatx4(block + 4 * stride, wx), _mm_set1_ps(wy[4])));
  _mm_storeu_ps(out, s);
}

#else  // plain forms

struct Sums4 {
  uint32_t c[4];
};

// Kind 3: Σ channel * weight over one row. Unsigned arithmetic: the sums may
// wrap and are taken as signed only at the end.
inline Sums4 rowU8x4(const uint8_t* row, const uint32_t w[5]) {
  const uint32_t p0 = loadWord(row + 0);
  const uint32_t p1 = loadWord(row + 4);
  const uint32_t p2 = loadWord(row + 8);
  const uint32_t p3 = loadWord(row + 12);
  const uint32_t p4 = loadWord(row + 16);
  Sums4 s;
  s.c[0] = (p0 >> 24) * w[0] + (p1 >> 24) * w[1] + (p2 >> 24) * w[2] + (p3 >> 24) * w[3] + (p4 >> 24) * w[4];
  s.c[1] = ((p0 >> 16) & 0xff) * w[0] + ((p1 >> 16) & 0xff) * w[1] + ((p2 >> 16) & 0xff) * w[2] +
           ((p3 >> 16) & 0xff) * w[3] + ((p4 >> 16) & 0xff) * w[4];
  s.c[2] = ((p0 >> 8) & 0xff) * w[0] + ((p1 >> 8) & 0xff) * w[1] + ((p2 >> 8) & 0xff) * w[2] +
           ((p3 >> 8) & 0xff) * w[3] + ((p4 >> 8) & 0xff) * w[4];
  s.c[3] = (p0 & 0xff) * w[0] + (p1 & 0xff) * w[1] + (p2 & 0xff) * w[2] + (p3 & 0xff) * w[3] + (p4 & 0xff) * w[4];
  return s;
}

// Kind 4: Σ value * weight over one row, then divided by 32768 with truncation
// toward zero: the division keeps the 16-bit kernel inside 32 bits, where the
// product of two weights would not fit.
inline uint32_t rowChannel16(const uint8_t* row, const uint32_t w[5]) {
  const uint32_t sum = load16(row + 0) * w[0] + load16(row + 8) * w[1] + load16(row + 16) * w[2] +
                       load16(row + 24) * w[3] + load16(row + 32) * w[4];
  return uint32_t(int32_t(sum) / 32768);
}

inline Sums4 rowU16x4(const uint8_t* row, const uint32_t w[5]) {
  Sums4 s;
  s.c[0] = rowChannel16(row + 0, w);
  s.c[1] = rowChannel16(row + 2, w);
  s.c[2] = rowChannel16(row + 4, w);
  s.c[3] = rowChannel16(row + 6, w);
  return s;
}

// Kind 9: Σ value * weight over one row in single precision, added from the left.
inline float rowChannelFloat(const uint8_t* row, const float w[5]) {
  float s = loadFloat(row + 0) * w[0];
  s = s + loadFloat(row + 16) * w[1];
  s = s + loadFloat(row + 32) * w[2];
  s = s + loadFloat(row + 48) * w[3];
  s = s + loadFloat(row + 64) * w[4];
  return s;
}

inline void filterBlockU8x4(const uint8_t* block, ptrdiff_t stride, const uint32_t wx[5], const uint32_t wy[5],
                            float out[4]) {
  const Sums4 r0 = rowU8x4(block, wx);
  const Sums4 r1 = rowU8x4(block + stride, wx);
  const Sums4 r2 = rowU8x4(block + 2 * stride, wx);
  const Sums4 r3 = rowU8x4(block + 3 * stride, wx);
  const Sums4 r4 = rowU8x4(block + 4 * stride, wx);
  for (int c = 0; c < 4; ++c) {
    out[c] = float(int32_t(columnSum(r0.c[c], r1.c[c], r2.c[c], r3.c[c], r4.c[c], wy))) * kScale8;
  }
}

inline void filterBlockU16x4(const uint8_t* block, ptrdiff_t stride, const uint32_t wx[5], const uint32_t wy[5],
                             float out[4]) {
  const Sums4 r0 = rowU16x4(block, wx);
  const Sums4 r1 = rowU16x4(block + stride, wx);
  const Sums4 r2 = rowU16x4(block + 2 * stride, wx);
  const Sums4 r3 = rowU16x4(block + 3 * stride, wx);
  const Sums4 r4 = rowU16x4(block + 4 * stride, wx);
  for (int c = 0; c < 4; ++c) {
    out[c] = float(int32_t(columnSum(r0.c[c], r1.c[c], r2.c[c], r3.c[c], r4.c[c], wy))) * kScale16;
  }
}

inline void filterBlockFloatx4(const uint8_t* block, ptrdiff_t stride, const float wx[5], const float wy[5],
                               float out[4]) {
  for (int c = 0; c < 4; ++c) {
    const uint8_t* channel = block + 4 * c;
    out[c] = columnSumFloat(rowChannelFloat(channel, wx), rowChannelFloat(channel + stride, wx),
                            rowChannelFloat(channel + 2 * stride, wx), rowChannelFloat(channel + 3 * stride, wx),
                            rowChannelFloat(channel + 4 * stride, wx), wy);
  }
}

#endif

// The integer weight rows as unsigned words: the products wrap like the signed ones would.
inline void unsignedWeights(const int32_t (*taps)[kKernelPhases], int32_t phase, uint32_t w[5]) {
  int32_t s[5];
  pixelOrderWeights(taps, phase, s);
  for (int k = 0; k < 5; ++k) w[k] = uint32_t(s[k]);
}

// ---- one-value kinds --------------------------------------------------------------------------------

inline uint32_t rowScalar8(const uint8_t* row, const uint32_t w[5]) {
  return uint32_t(row[0]) * w[0] + uint32_t(row[1]) * w[1] + uint32_t(row[2]) * w[2] + uint32_t(row[3]) * w[3] +
         uint32_t(row[4]) * w[4];
}

inline uint32_t rowScalar16(const uint8_t* row, const uint32_t w[5]) {
  return load16(row + 0) * w[0] + load16(row + 2) * w[1] + load16(row + 4) * w[2] + load16(row + 6) * w[3] +
         load16(row + 8) * w[4];
}

inline float rowScalarFloat(const uint8_t* row, const float w[5]) {
  float s = loadFloat(row + 0) * w[0];
  s = s + loadFloat(row + 4) * w[1];
  s = s + loadFloat(row + 8) * w[2];
  s = s + loadFloat(row + 12) * w[3];
  s = s + loadFloat(row + 16) * w[4];
  return s;
}

inline int32_t limitBlendLevel(const PixelStore* store, int32_t level) {
  int32_t l = level < 0 ? 0 : level;
  if (l > store->topLevel - 1) l = store->topLevel - 1;
  return l;
}

}  // namespace

// ---- four-channel kernels -----------------------------------------------------------------------------

namespace {

// The kernels of the four-channel kinds with their results in out[0..3]
// (r, g, b, a). Inline, so that the level blend and the unit entry run them
// without a call and without writing through four pointers.
template <int32_t kKind>
inline void kernelAt(const PixelStore* store, int32_t level, float x, float y, float out[4]);

template <>
inline void kernelAt<kKindRgba8>(const PixelStore* store, int32_t level, float x, float y, float out[4]) {
  int32_t phaseX;
  int32_t phaseY;
  const int32_t i = kernelBase(x, &phaseX);
  const int32_t j = kernelBase(y, &phaseY);
  uint32_t wx[5];
  uint32_t wy[5];
  unsignedWeights(store->kernelTable.weights2048, phaseX, wx);
  unsignedWeights(store->kernelTable.weights2048, phaseY, wy);

  alignas(16) uint8_t local[25 * 4];
  const uint8_t* block;
  const ptrdiff_t stride = locateBlock<4>(store, level, i, j, local, &block);
  filterBlockU8x4(block, stride, wx, wy, out);
}

template <>
inline void kernelAt<kKindRgba16>(const PixelStore* store, int32_t level, float x, float y, float out[4]) {
  int32_t phaseX;
  int32_t phaseY;
  const int32_t i = kernelBase(x, &phaseX);
  const int32_t j = kernelBase(y, &phaseY);
  uint32_t wx[5];
  uint32_t wy[5];
  unsignedWeights(store->kernelTable.weights32768, phaseX, wx);
  unsignedWeights(store->kernelTable.weights32768, phaseY, wy);

  alignas(16) uint8_t local[25 * 8];
  const uint8_t* block;
  const ptrdiff_t stride = locateBlock<8>(store, level, i, j, local, &block);
  filterBlockU16x4(block, stride, wx, wy, out);
}

template <>
inline void kernelAt<kKindRgbaFloat>(const PixelStore* store, int32_t level, float x, float y, float out[4]) {
  int32_t phaseX;
  int32_t phaseY;
  const int32_t i = kernelBase(x, &phaseX);
  const int32_t j = kernelBase(y, &phaseY);
  float wx[5];
  float wy[5];
  pixelOrderWeights(store->kernelTable.weightsFloat, phaseX, wx);
  pixelOrderWeights(store->kernelTable.weightsFloat, phaseY, wy);

  alignas(16) uint8_t local[25 * 16];
  const uint8_t* block;
  const ptrdiff_t stride = locateBlock<16>(store, level, i, j, local, &block);
  filterBlockFloatx4(block, stride, wx, wy, out);
}

// filterPixelBlend with its results in out[0..3].
template <int32_t kKind>
inline void blendAt(const PixelStore* store, int32_t level, float frac, float u, float v, float out[4]) {
  const int32_t l = limitBlendLevel(store, level);
  const float x = store->levelScaleX[l] * u - 0.5f;
  const float y = store->levelScaleY[l] * v - 0.5f;
  kernelAt<kKind>(store, l, x, y, out);
  if (frac == 0.0f) return;
  float b[4];
  const float x1 = store->levelScaleX[l + 1] * u - 0.5f;
  const float y1 = store->levelScaleY[l + 1] * v - 0.5f;
  kernelAt<kKind>(store, l + 1, x1, y1, b);
  out[0] = out[0] + (b[0] - out[0]) * frac;
  out[1] = out[1] + (b[1] - out[1]) * frac;
  out[2] = out[2] + (b[2] - out[2]) * frac;
  out[3] = out[3] + (b[3] - out[3]) * frac;
}

}  // namespace

template <>
void filterPixel<kKindRgba8>(const PixelStore* store, int32_t level, float x, float y, float* outR, float* outG,
                             float* outB, float* outA) {
  float out[4];
  kernelAt<kKindRgba8>(store, level, x, y, out);
  *outR = out[0];
  *outG = out[1];
  *outB = out[2];
  *outA = out[3];
}

template <>
void filterPixel<kKindRgba16>(const PixelStore* store, int32_t level, float x, float y, float* outR, float* outG,
                              float* outB, float* outA) {
  float out[4];
  kernelAt<kKindRgba16>(store, level, x, y, out);
  *outR = out[0];
  *outG = out[1];
  *outB = out[2];
  *outA = out[3];
}

template <>
void filterPixel<kKindRgbaFloat>(const PixelStore* store, int32_t level, float x, float y, float* outR,
                                 float* outG, float* outB, float* outA) {
  float out[4];
  kernelAt<kKindRgbaFloat>(store, level, x, y, out);
  *outR = out[0];
  *outG = out[1];
  *outB = out[2];
  *outA = out[3];
}

// ---- one-value kernels -----------------------------------------------------------------------------------

template <>
float filterScalar<kKindGray8>(const PixelStore* store, int32_t level, float x, float y) {
  int32_t phaseX;
  int32_t phaseY;
  const int32_t i = kernelBase(x, &phaseX);
  const int32_t j = kernelBase(y, &phaseY);
  uint32_t wx[5];
  uint32_t wy[5];
  unsignedWeights(store->kernelTable.weights2048, phaseX, wx);
  unsignedWeights(store->kernelTable.weights2048, phaseY, wy);

  alignas(16) uint8_t local[25];
  const uint8_t* block;
  const ptrdiff_t stride = locateBlock<1>(store, level, i, j, local, &block);
  const uint32_t total = columnSum(rowScalar8(block, wx), rowScalar8(block + stride, wx),
                                   rowScalar8(block + 2 * stride, wx), rowScalar8(block + 3 * stride, wx),
                                   rowScalar8(block + 4 * stride, wx), wy);
  return float(int32_t(total)) * kScale8;
}

// The 16-bit scalar keeps its row sums whole and scales the total by 2^-30;
// the sums can wrap in 32 bits, and that is how this kernel has it.
template <>
float filterScalar<kKindGray16>(const PixelStore* store, int32_t level, float x, float y) {
  int32_t phaseX;
  int32_t phaseY;
  const int32_t i = kernelBase(x, &phaseX);
  const int32_t j = kernelBase(y, &phaseY);
  uint32_t wx[5];
  uint32_t wy[5];
  unsignedWeights(store->kernelTable.weights32768, phaseX, wx);
  unsignedWeights(store->kernelTable.weights32768, phaseY, wy);

  alignas(16) uint8_t local[25 * 2];
  const uint8_t* block;
  const ptrdiff_t stride = locateBlock<2>(store, level, i, j, local, &block);
  const uint32_t total = columnSum(rowScalar16(block, wx), rowScalar16(block + stride, wx),
                                   rowScalar16(block + 2 * stride, wx), rowScalar16(block + 3 * stride, wx),
                                   rowScalar16(block + 4 * stride, wx), wy);
  return float(int32_t(total)) * kScale16Wide;
}

template <>
float filterScalar<kKindFloat>(const PixelStore* store, int32_t level, float x, float y) {
  int32_t phaseX;
  int32_t phaseY;
  const int32_t i = kernelBase(x, &phaseX);
  const int32_t j = kernelBase(y, &phaseY);
  float wx[5];
  float wy[5];
  pixelOrderWeights(store->kernelTable.weightsFloat, phaseX, wx);
  pixelOrderWeights(store->kernelTable.weightsFloat, phaseY, wy);

  alignas(16) uint8_t local[25 * 4];
  const uint8_t* block;
  const ptrdiff_t stride = locateBlock<4>(store, level, i, j, local, &block);
  return columnSumFloat(rowScalarFloat(block, wx), rowScalarFloat(block + stride, wx),
                        rowScalarFloat(block + 2 * stride, wx), rowScalarFloat(block + 3 * stride, wx),
                        rowScalarFloat(block + 4 * stride, wx), wy);
}

// ---- level blends ----------------------------------------------------------------------------------------

template <int32_t kKind>
void filterPixelBlend(const PixelStore* store, int32_t level, float frac, float u, float v, float* outR,
                      float* outG, float* outB, float* outA) {
  float out[4];
  blendAt<kKind>(store, level, frac, u, v, out);
  *outR = out[0];
  *outG = out[1];
  *outB = out[2];
  *outA = out[3];
}

template void filterPixelBlend<kKindRgba8>(const PixelStore*, int32_t, float, float, float, float*, float*, float*,
                                           float*);
template void filterPixelBlend<kKindRgba16>(const PixelStore*, int32_t, float, float, float, float*, float*,
                                            float*, float*);
template void filterPixelBlend<kKindRgbaFloat>(const PixelStore*, int32_t, float, float, float, float*, float*,
                                               float*, float*);

template <int32_t kKind>
float filterBlendScalar(const PixelStore* store, int32_t level, float frac, float u, float v) {
  const int32_t l = limitBlendLevel(store, level);
  if (kKind == kKindFloat) {
    // The distance kind does not mix: one level or the other.
    const int32_t m = frac == 0.0f ? l : l + 1;
    return filterScalar<kKind>(store, m, store->levelScaleX[m] * u - 0.5f, store->levelScaleY[m] * v - 0.5f);
  }
  const float a = filterScalar<kKind>(store, l, store->levelScaleX[l] * u - 0.5f, store->levelScaleY[l] * v - 0.5f);
  if (frac == 0.0f) return a;
  const float b = filterScalar<kKind>(store, l + 1, store->levelScaleX[l + 1] * u - 0.5f,
                                      store->levelScaleY[l + 1] * v - 0.5f);
  return a + (b - a) * frac;
}

template float filterBlendScalar<kKindGray8>(const PixelStore*, int32_t, float, float, float);
template float filterBlendScalar<kKindGray16>(const PixelStore*, int32_t, float, float, float);
template float filterBlendScalar<kKindFloat>(const PixelStore*, int32_t, float, float, float);

void filterBlendDispatch(const PixelStore* store, int32_t level, float frac, float u, float v, float* outR,
                         float* outG, float* outB, float* outA) {
  const int32_t kind = store->kind;
  if (kind == kKindRgba8) {
    filterPixelBlend<kKindRgba8>(store, level, frac, u, v, outR, outG, outB, outA);
  } else if (kind == kKindRgbaFloat) {
    filterPixelBlend<kKindRgbaFloat>(store, level, frac, u, v, outR, outG, outB, outA);
  } else if (kind == kKindRgba16) {
    filterPixelBlend<kKindRgba16>(store, level, frac, u, v, outR, outG, outB, outA);
  } else if (kind == kKindGray8) {
    *outR = *outG = *outB = filterBlendScalar<kKindGray8>(store, level, frac, u, v);
    *outA = 255.0f;
  } else if (kind == kKindGray16) {
    *outR = *outG = *outB = filterBlendScalar<kKindGray16>(store, level, frac, u, v);
    *outA = 32768.0f;
  } else if (kind != kKindFloat) {
    *outR = *outG = *outB = *outA = 0.5f;
  } else {
    *outR = *outG = *outB = filterBlendScalar<kKindFloat>(store, level, frac, u, v);
    *outA = 1.0f;
  }
}

void filterUnitPixel(const PixelStore* store, int32_t level, float frac, float u, float v, float out[4]) {
  // The four-channel kinds in the dispatch's order, their kernels inline.
  const int32_t kind = store->kind;
  if (kind == kKindRgba8) {
    blendAt<kKindRgba8>(store, level, frac, u, v, out);
  } else if (kind == kKindRgbaFloat) {
    blendAt<kKindRgbaFloat>(store, level, frac, u, v, out);
  } else if (kind == kKindRgba16) {
    blendAt<kKindRgba16>(store, level, frac, u, v, out);
  } else {
    filterBlendDispatch(store, level, frac, u, v, &out[0], &out[1], &out[2], &out[3]);
  }
  const float scale = store->valueToUnit;
  out[0] *= scale;
  out[1] *= scale;
  out[2] *= scale;
  out[3] *= scale;
}

namespace {

template <int32_t kKind>
void kernelsAtLevelZero(const PixelStore* store, int32_t count, const float* us, const float* vs, float (*out)[4]) {
  // As blendAt takes level 0 with frac 0: the level limited, one kernel read.
  const int32_t l = limitBlendLevel(store, 0);
  const float scaleX = store->levelScaleX[l];
  const float scaleY = store->levelScaleY[l];
  const float unit = store->valueToUnit;
  for (int32_t k = 0; k < count; ++k) {
    float* o = out[k];
    kernelAt<kKind>(store, l, scaleX * us[k] - 0.5f, scaleY * vs[k] - 0.5f, o);
    o[0] *= unit;
    o[1] *= unit;
    o[2] *= unit;
    o[3] *= unit;
  }
}

}  // namespace

void filterUnitPixelsAtLevelZero(const PixelStore* store, int32_t count, const float* us, const float* vs,
                                 float (*out)[4]) {
  switch (store->kind) {
    case kKindRgba8: kernelsAtLevelZero<kKindRgba8>(store, count, us, vs, out); return;
    case kKindRgba16: kernelsAtLevelZero<kKindRgba16>(store, count, us, vs, out); return;
    case kKindRgbaFloat: kernelsAtLevelZero<kKindRgbaFloat>(store, count, us, vs, out); return;
    default:
      for (int32_t k = 0; k < count; ++k) filterUnitPixel(store, 0, 0.0f, us[k], vs[k], out[k]);
      return;
  }
}

void filterUnitPixelAt(const PixelStore* store, int32_t level, float frac, float x, float y, float out[4]) {
  const float u = (x + 0.5f) * store->invInnerWidth[level];
  const float v = (y + 0.5f) * store->invInnerHeight[level];
  filterUnitPixel(store, level, frac, u, v, out);
}

// ---- four-neighbour read --------------------------------------------------------------------------------

namespace {

// Unit coordinates out of 0..1 are clamped back into it, the store's fold for
// coordMode 3.
inline float clampUnit(float c) { return c < 0.0f ? 0.0f : (c > 1.0f ? 1.0f : c); }

}  // namespace

void bilinearUnitPixel(float u, float v, const PixelStore* store, int32_t level, float out[4]) {
  const float du = store->invInnerWidth[level];
  const float dv = store->invInnerHeight[level];
  const float scaleX = store->levelScaleX[level];
  const float scaleY = store->levelScaleY[level];
  const float u0 = clampUnit(u);
  const float v0 = clampUnit(v);
  const float u1 = clampUnit(u + du);
  const float v1 = clampUnit(v + dv);

  const float fx = scaleX * u0 - 0.5f;
  const float fy = scaleY * v0 - 0.5f;
  const int32_t x0 = truncToInt32(fx);
  const int32_t y0 = truncToInt32(fy);
  const int32_t x1 = truncToInt32(scaleX * u1 - 0.5f);
  const int32_t y1 = truncToInt32(scaleY * v1 - 0.5f);
  const float tx = fx - float(x0);
  const float ty = fy - float(y0);

  float a[4];
  float b[4];
  float c[4];
  float d[4];
  readUnitPixel(x0, y0, store, level, a);
  readUnitPixel(x1, y0, store, level, b);
  readUnitPixel(x0, y1, store, level, c);
  readUnitPixel(x1, y1, store, level, d);
  for (int k = 0; k < 4; ++k) {
    const float top = a[k] + (b[k] - a[k]) * tx;
    const float bottom = c[k] + (d[k] - c[k]) * tx;
    out[k] = top + (bottom - top) * ty;
  }
}

#include "store/resample.h"

#include <stddef.h>
#include <string.h>

#include "store/portable_math.h"
#include "store/resample_blocks.h"

// The arithmetic of each kind is written out flat: five row sums of five
// products, then one column sum of the five rows. Where the block lies and
// how it is read is shared with the SSE4.1 road (resample_blocks.h).

namespace {
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

// Kind 4: the rows of resample_blocks.h, then the column sum.
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

template <int32_t kKind>
inline void blendAt(const PixelStore* store, int32_t level, float frac, float u, float v, float out[4]) {
  blendLevels(store, level, frac, u, v, out,
              [](const PixelStore* s, int32_t l, float x, float y, float o[4]) { kernelAt<kKind>(s, l, x, y, o); });
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

bool kernelRoadRuns(KernelRoad road) {
  switch (road) {
    case kKernelRoadLanes:
      return true;
    case kKernelRoadSse41:
#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
      return kernelSse41Built() && __builtin_cpu_supports("sse4.1");
#else
      return false;
#endif
  }
  return false;
}

KernelRoad kernelRoadFor() { return kernelRoadRuns(kKernelRoadSse41) ? kKernelRoadSse41 : kKernelRoadLanes; }

namespace {

inline bool takesSse41(const PixelStore* store) {
  return store->kernelRoad == kKernelRoadSse41 && (store->kind == kKindRgba8 || store->kind == kKindRgba16);
}

}  // namespace

void filterUnitPixel(const PixelStore* store, int32_t level, float frac, float u, float v, float out[4]) {
  if (takesSse41(store)) {
    filterUnitPixelSse41(store, level, frac, u, v, out);
    return;
  }
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
  levelZeroReads(store, count, us, vs, out,
                 [](const PixelStore* s, int32_t l, float x, float y, float o[4]) { kernelAt<kKind>(s, l, x, y, o); });
}

}  // namespace

void filterUnitPixelsAtLevelZero(const PixelStore* store, int32_t count, const float* us, const float* vs,
                                 float (*out)[4]) {
  if (takesSse41(store)) {
    filterUnitPixelsAtLevelZeroSse41(store, count, us, vs, out);
    return;
  }
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

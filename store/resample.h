// Five-tap resampling: a store read at a fractional position of one pyramid
// level through the separable 5 x 5 filter of the store's kernel table, and
// two adjacent levels blended for a fractional level. The only way colour is
// read between pixel centres.
//
// Positions are floats in pixels of the level, a pixel's centre at its integer
// coordinate. Results are in the store's own value range (about 0..255 for
// 8 bits, 0..32768 for 16 bits, as stored for floats); the filter's negative
// lobes can take them slightly outside, and nothing here clamps. The kernels
// never test `tiles`: an empty store must not reach them.
//
// All functions are pure over read-only stores: any number of threads may run
// them at once.
#pragma once

#include <stdint.h>

#include "store/pixel_store.h"

// SSE2 forms of the render's small helpers (truncation, the finishing of four
// channels at once); a MENDARIS_SCALAR_KERNELS build takes the plain forms,
// which give the same bits.
#if (defined(__SSE2__) || defined(_M_X64) || (defined(_M_IX86_FP) && _M_IX86_FP >= 2)) && \
    !defined(MENDARIS_SCALAR_KERNELS)
#include <emmintrin.h>
#define MENDARIS_SSE2_TRUNC 1
#else
#define MENDARIS_SSE2_TRUNC 0
#endif

// truncToInt32 for the hot loops of the render. The x86 conversion truncates
// toward zero and gives INT32_MIN for NaN and for anything outside the int32
// range, which is exactly what truncToInt32 answers after its range test; so
// on SSE2 the instruction alone is taken, and elsewhere the helper.
inline int32_t truncFloat(float value) {
#if MENDARIS_SSE2_TRUNC
  return _mm_cvttss_si32(_mm_set_ss(value));
#else
  return truncToInt32(value);
#endif
}

inline int32_t truncDouble(double value) {
#if MENDARIS_SSE2_TRUNC
  return _mm_cvttsd_si32(_mm_set_sd(value));
#else
  return truncToInt32(value);
#endif
}

// The 5 x 5 filter at (x, y) of `level`. Specialised for kinds 3 (8-bit words),
// 4 (16-bit) and 9 (float), each written out flat: integer kinds in 32-bit
// integer arithmetic on the integer weight rows, floats in single precision.
template <int32_t kKind>
void filterPixel(const PixelStore* store, int32_t level, float x, float y, float* outR, float* outG, float* outB,
                 float* outA);
template <>
void filterPixel<kKindRgba8>(const PixelStore* store, int32_t level, float x, float y, float* outR, float* outG,
                             float* outB, float* outA);
template <>
void filterPixel<kKindRgba16>(const PixelStore* store, int32_t level, float x, float y, float* outR, float* outG,
                              float* outB, float* outA);
template <>
void filterPixel<kKindRgbaFloat>(const PixelStore* store, int32_t level, float x, float y, float* outR,
                                 float* outG, float* outB, float* outA);

// The same filter on one-value kinds 0 (bytes), 1 (16-bit, the total scaled by
// 2^-30 with no per-row division) and 5 (float).
template <int32_t kKind>
float filterScalar(const PixelStore* store, int32_t level, float x, float y);
template <>
float filterScalar<kKindGray8>(const PixelStore* store, int32_t level, float x, float y);
template <>
float filterScalar<kKindGray16>(const PixelStore* store, int32_t level, float x, float y);
template <>
float filterScalar<kKindFloat>(const PixelStore* store, int32_t level, float x, float y);

// Unit coordinates (u, v) at level + frac, for kinds 3, 4 and 9. The level is
// limited to 0..topLevel - 1, so that the level above always exists; with frac
// exactly 0 one level is read, else the two are mixed as a + (b - a) * frac.
template <int32_t kKind>
void filterPixelBlend(const PixelStore* store, int32_t level, float frac, float u, float v, float* outR,
                      float* outG, float* outB, float* outA);

// The one-value forms for kinds 0, 1 and 5. Kind 5 does not mix: frac exactly
// 0 reads the level, anything else the level above alone.
template <int32_t kKind>
float filterBlendScalar(const PixelStore* store, int32_t level, float frac, float u, float v);

// Chooses by the store's kind: 3, 9, 4 through filterPixelBlend; 0 and 1 give
// the one value three times with alpha 255 or 32768; 5 the value with alpha
// 1.0; any other kind 0.5 in all four.
void filterBlendDispatch(const PixelStore* store, int32_t level, float frac, float u, float v, float* outR,
                         float* outG, float* outB, float* outA);

// filterBlendDispatch with the four results times valueToUnit: r, g, b, a in
// unit range. Points from 0 up: left of or above 0 a point has no phase in
// the kernel table (the sampler folds its points into range first).
void filterUnitPixel(const PixelStore* store, int32_t level, float frac, float u, float v, float out[4]);

// filterUnitPixel at level 0 with no blend, for `count` points (us[k], vs[k])
// into out[k]: the same bits as one call per point. The reads do not depend on
// one another, and a batch lets the processor overlap them.
void filterUnitPixelsAtLevelZero(const PixelStore* store, int32_t count, const float* us, const float* vs,
                                 float (*out)[4]);

// The integer kernels' roads, which give the same bits: the lanes of the
// build (SSE2, or the plain forms) and SSE4.1's (resample_sse41.cpp), whose
// 32-bit multiply saves SSE2's long way round. A store takes its road when it
// is made (pixelStoreInit), from kernelRoadFor(), the one place where the
// road is chosen; filterUnitPixel and the level-0 batch follow the store's
// road for kinds 3 and 4. Other kinds have the one road.
enum KernelRoad : int32_t {
  kKernelRoadLanes = 0,
  kKernelRoadSse41 = 1,
};

// Whether this build has the SSE4.1 road, and whether this build and processor can take `road`.
bool kernelSse41Built();
bool kernelRoadRuns(KernelRoad road);
KernelRoad kernelRoadFor();

// filterUnitPixel and the level-0 batch on the SSE4.1 road, for kinds 3 and 4 alone.
void filterUnitPixelSse41(const PixelStore* store, int32_t level, float frac, float u, float v, float out[4]);
void filterUnitPixelsAtLevelZeroSse41(const PixelStore* store, int32_t count, const float* us, const float* vs,
                                      float (*out)[4]);

// filterUnitPixel at pixel (x, y) of `level`: u = (x + 0.5) * invInnerWidth[level],
// v = (y + 0.5) * invInnerHeight[level].
void filterUnitPixelAt(const PixelStore* store, int32_t level, float frac, float x, float y, float out[4]);

// The four-neighbour variant: the pixels at (u, v), one pixel right, one down
// and both, each read with readUnitPixel, mixed bilinearly on the fractions of
// the first point. Unit range out.
void bilinearUnitPixel(float u, float v, const PixelStore* store, int32_t level, float out[4]);

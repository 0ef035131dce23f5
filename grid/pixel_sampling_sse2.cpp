// The lane road of a row's pixels: four pixels whose corners agree, each lane
// doing the pixel road's single-precision operations for its own pixel in
// the same order. A corner mean is taken in float only where the float sum
// is finite (the pixel road's own shortcut); a group where any is not, or
// where a corner or a mean is the missing mark -1.0, goes back whole to the
// pixel road, which knows those cases.
#include "grid/pixel_sampling.h"

#include <float.h>

#include "grid/sample_grid.h"

#if (defined(__SSE2__) || defined(_M_X64) || (defined(_M_IX86_FP) && _M_IX86_FP >= 2)) && \
    !defined(MENDARIS_SCALAR_KERNELS)
#include <emmintrin.h>

bool sampleLanesBuilt() { return true; }

namespace {

// A cell's landing point as the low half of a vector: (landU, landV, 0, 0).
inline __m128 landOf(const SampleCell* cell) {
  return _mm_castpd_ps(_mm_load_sd(reinterpret_cast<const double*>(&cell->landU)));
}

// The landing points of cells from[0..3]: u in one vector, v in the other.
inline void landsOfFour(const SampleCell* from, __m128* u, __m128* v) {
  const __m128 first = _mm_movelh_ps(landOf(from), landOf(from + 1));
  const __m128 second = _mm_movelh_ps(landOf(from + 2), landOf(from + 3));
  *u = _mm_shuffle_ps(first, second, _MM_SHUFFLE(2, 0, 2, 0));
  *v = _mm_shuffle_ps(first, second, _MM_SHUFFLE(3, 1, 3, 1));
}

// The lanes where a + b is finite, and in `mean` its half: meanOfTwo's float road.
inline __m128 finiteMean(__m128 a, __m128 b, __m128* mean) {
  const __m128 sum = _mm_add_ps(a, b);
  *mean = _mm_mul_ps(sum, _mm_set1_ps(0.5f));
  const __m128 magnitude = _mm_and_ps(sum, _mm_castsi128_ps(_mm_set1_epi32(0x7fffffff)));
  return _mm_cmple_ps(magnitude, _mm_set1_ps(FLT_MAX));
}

}  // namespace

int32_t agreeingQuadLanes(const SampleCell* lower, const SampleCell* upper, ColumnMeans means[5], float us[4],
                          float vs[4]) {
  // Columns 0 to 3 and 1 to 4 of both rows.
  __m128 lowerU0, lowerV0, lowerU1, lowerV1, upperU0, upperV0, upperU1, upperV1;
  landsOfFour(lower, &lowerU0, &lowerV0);
  landsOfFour(lower + 1, &lowerU1, &lowerV1);
  landsOfFour(upper, &upperU0, &upperV0);
  landsOfFour(upper + 1, &upperU1, &upperV1);
  const __m128 missing = _mm_set1_ps(-1.0f);
  __m128 marked = _mm_or_ps(_mm_or_ps(_mm_cmpeq_ps(lowerU0, missing), _mm_cmpeq_ps(lowerV0, missing)),
                            _mm_or_ps(_mm_cmpeq_ps(upperU0, missing), _mm_cmpeq_ps(upperV0, missing)));
  marked = _mm_or_ps(marked, _mm_or_ps(_mm_or_ps(_mm_cmpeq_ps(lowerU1, missing), _mm_cmpeq_ps(lowerV1, missing)),
                                       _mm_or_ps(_mm_cmpeq_ps(upperU1, missing), _mm_cmpeq_ps(upperV1, missing))));
  // The column means (upper, lower), columns 0 to 3 and 1 to 4.
  __m128 columnU0, columnV0, columnU1, columnV1;
  __m128 finite = _mm_and_ps(finiteMean(upperU0, lowerU0, &columnU0), finiteMean(upperV0, lowerV0, &columnV0));
  finite = _mm_and_ps(finite, _mm_and_ps(finiteMean(upperU1, lowerU1, &columnU1),
                                         finiteMean(upperV1, lowerV1, &columnV1)));
  marked = _mm_or_ps(marked, _mm_or_ps(_mm_or_ps(_mm_cmpeq_ps(columnU0, missing), _mm_cmpeq_ps(columnV0, missing)),
                                       _mm_or_ps(_mm_cmpeq_ps(columnU1, missing), _mm_cmpeq_ps(columnV1, missing))));
  // Each pixel's centre: the mean of its left column and its right one.
  __m128 u, v;
  finite = _mm_and_ps(finite, _mm_and_ps(finiteMean(columnU0, columnU1, &u), finiteMean(columnV0, columnV1, &v)));
  if (_mm_movemask_ps(_mm_andnot_ps(marked, finite)) != 0xf) return -1;

  // footprintIsLevelZeroRead with nothing missing: the derivatives from the
  // pixel's own corner to its left and upper neighbours, and the test.
  const __m128 d0 = _mm_sub_ps(lowerU1, lowerU0);
  const __m128 d1 = _mm_sub_ps(lowerV1, lowerV0);
  const __m128 d2 = _mm_sub_ps(lowerU1, upperU1);
  const __m128 d3 = _mm_sub_ps(lowerV1, upperV1);
  const __m128 b = _mm_mul_ps(_mm_add_ps(_mm_mul_ps(d1, d0), _mm_mul_ps(d3, d2)), _mm_set1_ps(-2.0f));
  const __m128 zero = _mm_setzero_ps();
  const __m128 one = _mm_set1_ps(1.0f);
  __m128 read = _mm_and_ps(_mm_cmplt_ps(_mm_set1_ps(-1e-7f), b), _mm_cmplt_ps(b, _mm_set1_ps(1e-7f)));
  read = _mm_and_ps(read, _mm_and_ps(_mm_cmpge_ps(u, zero), _mm_cmple_ps(u, one)));
  read = _mm_and_ps(read, _mm_and_ps(_mm_cmpge_ps(v, zero), _mm_cmplt_ps(v, one)));

  alignas(16) float columnU[4];
  alignas(16) float columnV[4];
  _mm_store_ps(columnU, columnU0);
  _mm_store_ps(columnV, columnV0);
  for (int q = 0; q < 4; ++q) means[q] = ColumnMeans{columnU[q], columnV[q]};
  means[4] = ColumnMeans{_mm_cvtss_f32(_mm_shuffle_ps(columnU1, columnU1, _MM_SHUFFLE(3, 3, 3, 3))),
                         _mm_cvtss_f32(_mm_shuffle_ps(columnV1, columnV1, _MM_SHUFFLE(3, 3, 3, 3)))};
  _mm_storeu_ps(us, u);
  _mm_storeu_ps(vs, v);
  return _mm_movemask_ps(read);
}

#else

bool sampleLanesBuilt() { return false; }

// Never taken: sampleLanesBuilt says no.
int32_t agreeingQuadLanes(const SampleCell*, const SampleCell*, ColumnMeans*, float*, float*) { return -1; }

#endif

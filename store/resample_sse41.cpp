// The SSE4.1 road of the integer kernels (kinds 3 and 4): SSE2's road with
// the 32-bit products in one instruction (pmulld) where SSE2 takes two
// widening multiplies and their shuffles. It gives the bits of the SSE2 road:
// - kind 3 sums Σ pixel * wx * wy over the block in 32-bit integers. The
//   SSE2 road adds five row sums; this road adds five column sums, each from
//   pmaddwd on pairs of rows. Integer sums taken modulo 2^32 do not depend
//   on their order, and every product is exact, so the total is the same
//   word.
// - kind 4 divides each row sum by 32768 before the column sum, so it keeps
//   the SSE2 road's rows (resample_blocks.h) and takes only the column sum
//   here.
// Built where the compiler can be asked for SSE4.1 in one file (as the
// walk's wide lanes are); taken only on a processor that has it.
#include "store/resample.h"

#if defined(MENDARIS_KERNEL_SSE41) && defined(__SSE4_1__) && !defined(MENDARIS_SCALAR_KERNELS)
#include <smmintrin.h>

#include "store/resample_blocks.h"

bool kernelSse41Built() { return true; }

namespace {

inline __m128i weightWord(uint32_t w) { return _mm_set1_epi32(int(w)); }

// Pixels 0 to 3 of two rows (a the upper, b the lower), weighed in pairs: for
// each pixel, (upper, lower) per channel times (w upper, w lower), lane 0
// holding channel 3.
inline void pairedRowsU8(__m128i a, __m128i b, __m128i weights, __m128i zero, __m128i c[4]) {
  const __m128i first = _mm_unpacklo_epi8(a, b);
  const __m128i second = _mm_unpackhi_epi8(a, b);
  c[0] = _mm_madd_epi16(_mm_unpacklo_epi8(first, zero), weights);
  c[1] = _mm_madd_epi16(_mm_unpackhi_epi8(first, zero), weights);
  c[2] = _mm_madd_epi16(_mm_unpacklo_epi8(second, zero), weights);
  c[3] = _mm_madd_epi16(_mm_unpackhi_epi8(second, zero), weights);
}

// The four pixels of a row from `row` on.
inline __m128i rowBytes(const uint8_t* row) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(row)); }

// Pixel 4 of two rows, weighed as a pair.
inline __m128i pairedLastU8(const uint8_t* upper, const uint8_t* lower, __m128i weights, __m128i zero) {
  const __m128i bytes = _mm_unpacklo_epi8(_mm_cvtsi32_si128(int(loadWord(upper + 16))),
                                          _mm_cvtsi32_si128(int(loadWord(lower + 16))));
  return _mm_madd_epi16(_mm_unpacklo_epi8(bytes, zero), weights);
}

inline __m128i pixelU8(const uint8_t* p) { return _mm_cvtepu8_epi32(_mm_cvtsi32_si128(int(loadWord(p)))); }

inline void filterBlockU8x4Sse41(const uint8_t* block, ptrdiff_t stride, const uint32_t wx[5], const uint32_t wy[5],
                                 float out[4]) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i wy01 = weightPair(wy[0], wy[1]);
  const __m128i wy23 = weightPair(wy[2], wy[3]);
  const uint8_t* r4 = block + 4 * stride;
  // The columns of rows 0 to 3.
  __m128i c[4];
  __m128i d[4];
  pairedRowsU8(rowBytes(block), rowBytes(block + stride), wy01, zero, c);
  pairedRowsU8(rowBytes(block + 2 * stride), rowBytes(block + 3 * stride), wy23, zero, d);
  const __m128i c4 = _mm_add_epi32(pairedLastU8(block, block + stride, wy01, zero),
                                   pairedLastU8(block + 2 * stride, block + 3 * stride, wy23, zero));
  __m128i sum = _mm_mullo_epi32(_mm_add_epi32(c[0], d[0]), weightWord(wx[0]));
  sum = _mm_add_epi32(sum, _mm_mullo_epi32(_mm_add_epi32(c[1], d[1]), weightWord(wx[1])));
  sum = _mm_add_epi32(sum, _mm_mullo_epi32(_mm_add_epi32(c[2], d[2]), weightWord(wx[2])));
  sum = _mm_add_epi32(sum, _mm_mullo_epi32(_mm_add_epi32(c[3], d[3]), weightWord(wx[3])));
  sum = _mm_add_epi32(sum, _mm_mullo_epi32(c4, weightWord(wx[4])));
  // Row 4, summed along the row and weighed once.
  __m128i row4 = _mm_mullo_epi32(pixelU8(r4), weightWord(wx[0]));
  row4 = _mm_add_epi32(row4, _mm_mullo_epi32(pixelU8(r4 + 4), weightWord(wx[1])));
  row4 = _mm_add_epi32(row4, _mm_mullo_epi32(pixelU8(r4 + 8), weightWord(wx[2])));
  row4 = _mm_add_epi32(row4, _mm_mullo_epi32(pixelU8(r4 + 12), weightWord(wx[3])));
  row4 = _mm_add_epi32(row4, _mm_mullo_epi32(pixelU8(r4 + 16), weightWord(wx[4])));
  const __m128i total = _mm_add_epi32(sum, _mm_mullo_epi32(row4, weightWord(wy[4])));
  const __m128 scaled = _mm_mul_ps(_mm_cvtepi32_ps(total), _mm_set1_ps(kScale8));
  _mm_storeu_ps(out, _mm_shuffle_ps(scaled, scaled, _MM_SHUFFLE(0, 1, 2, 3)));
}

inline void filterBlockU16x4Sse41(const uint8_t* block, ptrdiff_t stride, const uint32_t wx[5],
                                  const uint32_t wy[5], float out[4]) {
  const __m128i flip = _mm_set1_epi16(short(0x8000));
  const __m128i w01 = weightPair(wx[0], wx[1]);
  const __m128i w23 = weightPair(wx[2], wx[3]);
  const __m128i w4 = weightPair(wx[4], 0);
  __m128i total = _mm_mullo_epi32(rowU16x4(block, w01, w23, w4, flip), weightWord(wy[0]));
  for (int r = 1; r < 5; ++r) {
    total = _mm_add_epi32(total, _mm_mullo_epi32(rowU16x4(block + r * stride, w01, w23, w4, flip), weightWord(wy[r])));
  }
  _mm_storeu_ps(out, _mm_mul_ps(_mm_cvtepi32_ps(total), _mm_set1_ps(kScale16)));
}

// The kernel at base pixels (i, j) and their phases.
template <int32_t kKind>
inline void kernelOfBaseSse41(const PixelStore* store, int32_t level, int32_t i, int32_t phaseX, int32_t j,
                              int32_t phaseY, float out[4]) {
  constexpr int kBytes = kKind == kKindRgba8 ? 4 : 8;
  const int32_t(*taps)[kKernelPhases] =
      kKind == kKindRgba8 ? store->kernelTable.weights2048 : store->kernelTable.weights32768;
  uint32_t wx[5];
  uint32_t wy[5];
  unsignedWeights(taps, phaseX, wx);
  unsignedWeights(taps, phaseY, wy);
  alignas(16) uint8_t local[25 * kBytes];
  const uint8_t* block;
  const ptrdiff_t stride = locateBlock<kBytes>(store, level, i, j, local, &block);
  if (kKind == kKindRgba8) {
    filterBlockU8x4Sse41(block, stride, wx, wy, out);
  } else {
    filterBlockU16x4Sse41(block, stride, wx, wy, out);
  }
}

template <int32_t kKind>
inline void kernelAtSse41(const PixelStore* store, int32_t level, float x, float y, float out[4]) {
  int32_t phaseX;
  int32_t phaseY;
  const int32_t i = kernelBase(x, &phaseX);
  const int32_t j = kernelBase(y, &phaseY);
  kernelOfBaseSse41<kKind>(store, level, i, phaseX, j, phaseY, out);
}

// ---- runs of kind 3 at level 0 ----
// Reads of one base row and one vertical phase share their columns: a
// column's sum down the five rows depends on nothing else. Along a row of
// pixel centres, and along most rows of landing points, the reads go one base
// pixel at a time either way, or stay. A run of such reads has the columns of
// its span weighed once, down the rows, and each read takes its five of them
// across, with its own horizontal phase. The total is the same word as the
// block's: every product is exact, and sums modulo 2^32 do not depend on
// their order.

// Columns 0 to 3 from `at` of the five rows, each down its rows: four
// channel words a pixel, lane 0 holding channel 3.
inline void columnsU8x4(const uint8_t* at, ptrdiff_t stride, __m128i wy01, __m128i wy23, __m128i wy4, __m128i zero,
                        __m128i* out) {
  __m128i c[4];
  __m128i d[4];
  __m128i e[4];
  pairedRowsU8(rowBytes(at), rowBytes(at + stride), wy01, zero, c);
  pairedRowsU8(rowBytes(at + 2 * stride), rowBytes(at + 3 * stride), wy23, zero, d);
  // Row 4 pairs with a row of zeros: its weight pair is (wy4, 0).
  pairedRowsU8(rowBytes(at + 4 * stride), zero, wy4, zero, e);
  for (int k = 0; k < 4; ++k) out[k] = _mm_add_epi32(_mm_add_epi32(c[k], d[k]), e[k]);
}

// Reads in a run, and columns in its span, at most.
constexpr int32_t kRunMost = 64;
static_assert(kRunMost <= 64, "a batch's reads are the bits of one word");

// The run's reads: `first` is the span's first block (base pixel minBase),
// columnCount the span's width plus 4, and read k's block starts at column
// bases[k] - minBase of the span.
void runU8x4(const uint8_t* first, ptrdiff_t stride, int32_t columnCount, int32_t count, const int32_t* bases,
             int32_t minBase, const int32_t* phaseXs, const int32_t (*taps)[kKernelPhases], const uint32_t wy[5],
             float unit, float (*out)[4]) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i wy01 = weightPair(wy[0], wy[1]);
  const __m128i wy23 = weightPair(wy[2], wy[3]);
  const __m128i wy4 = weightPair(wy[4], 0);
  // The columns, four at a time; the last few one at a time, so that no read
  // passes the span's right edge.
  __m128i columns[kRunMost + 8];
  int32_t at = 0;
  for (; at + 4 <= columnCount; at += 4) columnsU8x4(first + at * 4, stride, wy01, wy23, wy4, zero, columns + at);
  for (; at < columnCount; ++at) {
    const uint8_t* p = first + at * 4;
    __m128i sum = _mm_mullo_epi32(pixelU8(p), weightWord(wy[0]));
    for (int r = 1; r < 5; ++r) sum = _mm_add_epi32(sum, _mm_mullo_epi32(pixelU8(p + r * stride), weightWord(wy[r])));
    columns[at] = sum;
  }
  const __m128 scale = _mm_set1_ps(kScale8);
  __m128i w[5] = {zero, zero, zero, zero, zero};
  int32_t phase = -1;
  for (int32_t k = 0; k < count; ++k) {
    if (phaseXs[k] != phase) {
      phase = phaseXs[k];
      uint32_t wx[5];
      unsignedWeights(taps, phase, wx);
      for (int t = 0; t < 5; ++t) w[t] = weightWord(wx[t]);
    }
    const __m128i* c = columns + (bases[k] - minBase);
    __m128i total = _mm_mullo_epi32(c[0], w[0]);
    total = _mm_add_epi32(total, _mm_mullo_epi32(c[1], w[1]));
    total = _mm_add_epi32(total, _mm_mullo_epi32(c[2], w[2]));
    total = _mm_add_epi32(total, _mm_mullo_epi32(c[3], w[3]));
    total = _mm_add_epi32(total, _mm_mullo_epi32(c[4], w[4]));
    const __m128 scaled = _mm_mul_ps(_mm_cvtepi32_ps(total), scale);
    // Channel order, then unit range, as levelZeroReads takes it.
    _mm_storeu_ps(out[k], _mm_mul_ps(_mm_shuffle_ps(scaled, scaled, _MM_SHUFFLE(0, 1, 2, 3)), _mm_set1_ps(unit)));
  }
}

// kernelBase of scale * u - 0.5 for four points.
inline void basesX4(__m128 u, float scale, int32_t* bases, int32_t* phases) {
  const __m128 p = _mm_add_ps(_mm_sub_ps(_mm_mul_ps(_mm_set1_ps(scale), u), _mm_set1_ps(0.5f)), _mm_set1_ps(0.5f));
  const __m128i i = _mm_cvttps_epi32(p);
  const __m128i phase = _mm_cvttps_epi32(_mm_mul_ps(_mm_sub_ps(p, _mm_cvtepi32_ps(i)), _mm_set1_ps(128.0f)));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(bases), i);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(phases), phase);
}

// Bit k set where read k continues the run of read k - 1: the same base row
// and vertical phase, and a base pixel within one of the last one's.
inline uint64_t runContinuations(const int32_t* is, const int32_t* js, const int32_t* phaseYs, int32_t n) {
  uint64_t bits = 0;
  const __m128i one = _mm_set1_epi32(1);
  const __m128i two = _mm_set1_epi32(2);
  int32_t k = 1;
  for (; k + 4 <= n; k += 4) {
    const __m128i* now = reinterpret_cast<const __m128i*>(is + k);
    const __m128i* before = reinterpret_cast<const __m128i*>(is + k - 1);
    // i - previous i + 1 at most 2, unsigned.
    const __m128i step = _mm_add_epi32(_mm_sub_epi32(_mm_loadu_si128(now), _mm_loadu_si128(before)), one);
    const __m128i near = _mm_cmpeq_epi32(_mm_min_epu32(step, two), step);
    const __m128i sameRow = _mm_cmpeq_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(js + k)),
                                            _mm_loadu_si128(reinterpret_cast<const __m128i*>(js + k - 1)));
    const __m128i samePhase = _mm_cmpeq_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(phaseYs + k)),
                                              _mm_loadu_si128(reinterpret_cast<const __m128i*>(phaseYs + k - 1)));
    const __m128i joins = _mm_and_si128(near, _mm_and_si128(sameRow, samePhase));
    bits |= uint64_t(uint32_t(_mm_movemask_ps(_mm_castsi128_ps(joins)))) << k;
  }
  for (; k < n; ++k) {
    if (js[k] == js[k - 1] && phaseYs[k] == phaseYs[k - 1] && uint32_t(is[k]) - uint32_t(is[k - 1]) + 1u <= 2u) {
      bits |= uint64_t(1) << k;
    }
  }
  return bits;
}

// Bits first to last.
inline uint64_t bitSpan(int32_t first, int32_t last) {
  return (~uint64_t(0) >> (63 - last)) & (~uint64_t(0) << first);
}

// The runs of kind 3 among a batch's n reads (n at most kRunMost), each read
// together; returns the reads left to be read one by one: those in no run,
// and those of a run whose span leaves its tile. The runs are found all at
// once and the lone reads go on to a loop of their own, so that where runs
// and lone reads alternate, as on landing points, no branch has to guess
// which comes next.
uint64_t readRunsU8(const PixelStore* store, int32_t l, int32_t n, const int32_t* is, const int32_t* js,
                    const int32_t* phaseXs, const int32_t* phaseYs, float unit, float (*out)[4]) {
  const uint64_t all = bitSpan(0, n - 1);
  const uint64_t joins = runContinuations(is, js, phaseYs, n);
  uint64_t runs = (joins | (joins >> 1)) & all;
  uint64_t alone = all & ~runs;
  while (runs != 0) {
    const int32_t first = __builtin_ctzll(runs);
    // The run ends before the first read after `first` that does not join.
    const uint64_t breaks = ~joins & all & ~bitSpan(0, first);
    const int32_t last = breaks != 0 ? __builtin_ctzll(breaks) - 1 : n - 1;
    const uint64_t span = bitSpan(first, last);
    runs &= ~span;
    int32_t minBase = is[first];
    int32_t maxBase = is[first];
    for (int32_t k = first + 1; k <= last; ++k) {
      minBase = is[k] < minBase ? is[k] : minBase;
      maxBase = is[k] > maxBase ? is[k] : maxBase;
    }
    // Its span's first and last blocks each in one tile, the same one: the
    // blocks between lie in it too.
    const int32_t x0 = int32_t(uint32_t(minBase) - 2u);
    const int32_t y0 = int32_t(uint32_t(js[first]) - 2u);
    const int32_t xLast = int32_t(uint32_t(maxBase) - 2u);
    if (!kernelInOneTile(store, l, x0, y0) || !kernelInOneTile(store, l, xLast, y0) ||
        (x0 >> kTileShift) != (xLast >> kTileShift)) {
      alone |= span;
      continue;
    }
    uint32_t wy[5];
    unsignedWeights(store->kernelTable.weights2048, phaseYs[first], wy);
    runU8x4(storePixel<const uint8_t>(store, l, x0, y0, 4), ptrdiff_t(kTileWidth) * 4, maxBase - minBase + 5,
            last - first + 1, is + first, minBase, phaseXs + first, store->kernelTable.weights2048, wy, unit,
            out + first);
  }
  return alone;
}

// levelZeroReads on this road: the base pixels and phases of a batch found
// four at a time; at kind 3 the runs read together, then each read left.
template <int32_t kKind>
void levelZeroReadsSse41(const PixelStore* store, int32_t count, const float* us, const float* vs,
                         float (*out)[4]) {
  const int32_t l = limitBlendLevel(store, 0);
  const float scaleX = store->levelScaleX[l];
  const float scaleY = store->levelScaleY[l];
  const float unit = store->valueToUnit;
  for (int32_t start = 0; start < count; start += kRunMost) {
    const int32_t n = count - start < kRunMost ? count - start : kRunMost;
    int32_t is[kRunMost];
    int32_t js[kRunMost];
    int32_t phaseXs[kRunMost];
    int32_t phaseYs[kRunMost];
    int32_t k = 0;
    for (; k + 4 <= n; k += 4) {
      basesX4(_mm_loadu_ps(us + start + k), scaleX, is + k, phaseXs + k);
      basesX4(_mm_loadu_ps(vs + start + k), scaleY, js + k, phaseYs + k);
    }
    for (; k < n; ++k) {
      is[k] = kernelBase(scaleX * us[start + k] - 0.5f, &phaseXs[k]);
      js[k] = kernelBase(scaleY * vs[start + k] - 0.5f, &phaseYs[k]);
    }
    uint64_t alone = bitSpan(0, n - 1);
    if (kKind == kKindRgba8) alone = readRunsU8(store, l, n, is, js, phaseXs, phaseYs, unit, out + start);
    for (; alone != 0; alone &= alone - 1) {
      const int32_t r = __builtin_ctzll(alone);
      float* o = out[start + r];
      kernelOfBaseSse41<kKind>(store, l, is[r], phaseXs[r], js[r], phaseYs[r], o);
      _mm_storeu_ps(o, _mm_mul_ps(_mm_loadu_ps(o), _mm_set1_ps(unit)));
    }
  }
}

template <int32_t kKind>
struct KernelSse41 {
  void operator()(const PixelStore* s, int32_t l, float x, float y, float o[4]) const {
    kernelAtSse41<kKind>(s, l, x, y, o);
  }
};

}  // namespace

void filterUnitPixelSse41(const PixelStore* store, int32_t level, float frac, float u, float v, float out[4]) {
  if (store->kind == kKindRgba8) {
    blendLevels(store, level, frac, u, v, out, KernelSse41<kKindRgba8>());
  } else {
    blendLevels(store, level, frac, u, v, out, KernelSse41<kKindRgba16>());
  }
  const float scale = store->valueToUnit;
  out[0] *= scale;
  out[1] *= scale;
  out[2] *= scale;
  out[3] *= scale;
}

void filterUnitPixelsAtLevelZeroSse41(const PixelStore* store, int32_t count, const float* us, const float* vs,
                                      float (*out)[4]) {
  if (store->kind == kKindRgba8) {
    levelZeroReadsSse41<kKindRgba8>(store, count, us, vs, out);
  } else {
    levelZeroReadsSse41<kKindRgba16>(store, count, us, vs, out);
  }
}

#else

bool kernelSse41Built() { return false; }

// Never taken: kernelRoadRuns says no.
void filterUnitPixelSse41(const PixelStore*, int32_t, float, float, float, float out[4]) {
  out[0] = out[1] = out[2] = out[3] = 0.0f;
}

void filterUnitPixelsAtLevelZeroSse41(const PixelStore*, int32_t count, const float*, const float*, float (*out)[4]) {
  for (int32_t k = 0; k < count; ++k) out[k][0] = out[k][1] = out[k][2] = out[k][3] = 0.0f;
}

#endif

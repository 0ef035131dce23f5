// The lane road of the fill: the row road's loops of kind 3, the half-passes
// of kind 4, the reduce of kind 9 and the row sums of kinds 4 and 9 on the
// way down, in SSE2 lanes, each lane doing the plain loop's operations for
// its channel or pixel.
#include "fill/fill_roads.h"
#include "fill/fill_rows.h"

#if (defined(__SSE2__) || defined(_M_X64) || (defined(_M_IX86_FP) && _M_IX86_FP >= 2)) && \
    !defined(MENDARIS_SCALAR_KERNELS)
#include <emmintrin.h>

bool fillLanesBuilt() { return true; }

namespace {

// Kind 3: of the four pixels from p on, the ones that are holes with some
// alpha around them, as four bits. p must have a pixel of its row before it
// and four after it.
inline int32_t openHolesU8(const uint8_t* p, const uint8_t* up, const uint8_t* down) {
  const __m128i alphaMask = _mm_set1_epi32(0xff);
  const __m128i zero = _mm_setzero_si128();
  const __m128i own = _mm_and_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), alphaMask);
  __m128i around = _mm_or_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(up)),
                                _mm_loadu_si128(reinterpret_cast<const __m128i*>(down)));
  around = _mm_or_si128(around, _mm_loadu_si128(reinterpret_cast<const __m128i*>(p - 4)));
  around = _mm_or_si128(around, _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 4)));
  const __m128i bare = _mm_cmpeq_epi32(_mm_and_si128(around, alphaMask), zero);
  return _mm_movemask_ps(_mm_castsi128_ps(_mm_andnot_si128(bare, _mm_cmpeq_epi32(own, zero))));
}

// Kind 3: one pixel of the level above from its four, the channels in lanes
// (lane 0 the alpha, 3 the red, as the word's bytes lie), each lane doing the
// scalar road's operations in its order. The floored alpha is every lane's
// weight; the weight sum comes out in all four lanes.
inline uint32_t reduceQuadU8(const uint8_t* const quad[4], __m128 toUnit, __m128 toValue, __m128i floorValue,
                             uint32_t full) {
  const __m128i zero = _mm_setzero_si128();
  __m128 sum = _mm_setzero_ps();
  __m128 weight = _mm_setzero_ps();
  for (int32_t q = 0; q < 4; ++q) {
    const __m128i c =
        _mm_unpacklo_epi16(_mm_unpacklo_epi8(_mm_cvtsi32_si128(int(loadWord(quad[q]))), zero), zero);
    const __m128 unit = _mm_mul_ps(_mm_cvtepi32_ps(c), toUnit);
    const __m128 faint = _mm_castsi128_ps(_mm_cmplt_epi32(_mm_shuffle_epi32(c, 0), floorValue));
    const __m128 w = _mm_andnot_ps(faint, _mm_shuffle_ps(unit, unit, 0));
    sum = _mm_add_ps(sum, _mm_mul_ps(unit, w));
    weight = _mm_add_ps(weight, w);
  }
  const __m128 positive = _mm_cmpgt_ps(weight, _mm_setzero_ps());
  const __m128 value = _mm_or_ps(_mm_and_ps(positive, _mm_div_ps(sum, weight)), _mm_andnot_ps(positive, sum));
  // Truncated, and only the low 8 bits kept, as the word takes them.
  const __m128i bytes = _mm_and_si128(_mm_cvttps_epi32(_mm_mul_ps(value, toValue)), _mm_set1_epi32(0xff));
  const __m128i packed = _mm_packus_epi16(_mm_packs_epi32(bytes, bytes), bytes);
  const uint32_t alpha = _mm_movemask_ps(positive) != 0 ? (full & 0xffu) : 0u;
  return (uint32_t(_mm_cvtsi128_si32(packed)) & 0xffffff00u) | alpha;
}

// The column sums split for pmaddwd: s = high * 2^15 + low, low the 15 bits
// below (0..32767), high the rest taken arithmetically; both fit 16 bits
// signed, as four 16-bit lanes a column.
inline void splitColumnSums(const int32_t* sums, int32_t count, int16_t* low, int16_t* high) {
  const __m128i mask = _mm_set1_epi32(0x7fff);
  int32_t c = 0;
  for (; c + 2 <= count; c += 2) {
    const __m128i first = _mm_load_si128(reinterpret_cast<const __m128i*>(sums + 4 * c));
    const __m128i second = _mm_load_si128(reinterpret_cast<const __m128i*>(sums + 4 * c + 4));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(low + 4 * c),
                     _mm_packs_epi32(_mm_and_si128(first, mask), _mm_and_si128(second, mask)));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(high + 4 * c),
                     _mm_packs_epi32(_mm_srai_epi32(first, 15), _mm_srai_epi32(second, 15)));
  }
  if (c < count) {
    const __m128i first = _mm_load_si128(reinterpret_cast<const __m128i*>(sums + 4 * c));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(low + 4 * c), _mm_packs_epi32(_mm_and_si128(first, mask), first));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(high + 4 * c), _mm_packs_epi32(_mm_srai_epi32(first, 15), first));
  }
}

// Σ w[m] * s[col[m]] over the five columns, four lanes, modulo 2^32 as the
// kernel has it: each half through pmaddwd in pairs of columns, exactly, and
// the high half's total moved up 15 bits. pairs holds (w0, w1), (w2, w3) and
// (w4, 0) as 16-bit pairs.
inline __m128i weighColumns(const int16_t* low, const int16_t* high, const int32_t col[5], const uint32_t pairs[3]) {
  const __m128i w01 = _mm_set1_epi32(int(pairs[0]));
  const __m128i w23 = _mm_set1_epi32(int(pairs[1]));
  const __m128i w4 = _mm_set1_epi32(int(pairs[2]));
  const auto at = [](const int16_t* half, int32_t c) {
    return _mm_loadl_epi64(reinterpret_cast<const __m128i*>(half + 4 * c));
  };
  __m128i lowSum = _mm_madd_epi16(_mm_unpacklo_epi16(at(low, col[0]), at(low, col[1])), w01);
  lowSum = _mm_add_epi32(lowSum, _mm_madd_epi16(_mm_unpacklo_epi16(at(low, col[2]), at(low, col[3])), w23));
  lowSum = _mm_add_epi32(lowSum, _mm_madd_epi16(_mm_unpacklo_epi16(at(low, col[4]), _mm_setzero_si128()), w4));
  __m128i highSum = _mm_madd_epi16(_mm_unpacklo_epi16(at(high, col[0]), at(high, col[1])), w01);
  highSum = _mm_add_epi32(highSum, _mm_madd_epi16(_mm_unpacklo_epi16(at(high, col[2]), at(high, col[3])), w23));
  highSum = _mm_add_epi32(highSum, _mm_madd_epi16(_mm_unpacklo_epi16(at(high, col[4]), _mm_setzero_si128()), w4));
  return _mm_add_epi32(_mm_slli_epi32(highSum, 15), lowSum);
}

// The kernel's totals to the hole's word: each lane to float, scaled to unit
// range, clamped, back to the byte (truncated), alpha full. The lanes do the
// scalar road's operations; a clamped zero may come out as +0 where the
// scalar keeps -0, which truncates to the same byte.
inline uint32_t broughtDownWord(__m128i totals, __m128 toUnit, __m128 limit, __m128 toValue, uint32_t full) {
  __m128 c = _mm_mul_ps(_mm_mul_ps(_mm_cvtepi32_ps(totals), _mm_set1_ps(kScale8)), toUnit);
  c = _mm_min_ps(_mm_max_ps(c, _mm_setzero_ps()), limit);
  const __m128i bytes = _mm_cvttps_epi32(_mm_mul_ps(c, toValue));
  const __m128i packed = _mm_packus_epi16(_mm_packs_epi32(bytes, bytes), bytes);
  return (uint32_t(_mm_cvtsi128_si32(packed)) & 0xffffff00u) | (full & 0xffu);
}

// The colour lanes of c with lane 3 (alpha) taken from a.
inline __m128 withAlphaLane(__m128 c, __m128 a) {
  const __m128 alpha = _mm_castsi128_ps(_mm_setr_epi32(0, 0, 0, -1));
  return _mm_or_ps(_mm_andnot_ps(alpha, c), _mm_and_ps(alpha, a));
}

// Kind 9's row sums, a lane a channel: each lane adds from the left (top),
// each step in single precision, as RowSumOf<kKindRgbaFloat> does.
struct RowSumLanesFloat {
  typedef float Type;
  static void weigh(const uint8_t* const pixels[5], const float w[5], float out[4]) {
    __m128 s = _mm_mul_ps(_mm_loadu_ps(reinterpret_cast<const float*>(pixels[0])), _mm_set1_ps(w[0]));
    for (int32_t m = 1; m < 5; ++m) {
      s = _mm_add_ps(s, _mm_mul_ps(_mm_loadu_ps(reinterpret_cast<const float*>(pixels[m])), _mm_set1_ps(w[m])));
    }
    _mm_storeu_ps(out, s);
  }
  static __m128 totalLanes(const float* const rows[5], const float w[5]) {
    __m128 s = _mm_mul_ps(_mm_loadu_ps(rows[0]), _mm_set1_ps(w[0]));
    for (int32_t m = 1; m < 5; ++m) s = _mm_add_ps(s, _mm_mul_ps(_mm_loadu_ps(rows[m]), _mm_set1_ps(w[m])));
    return s;
  }
  static void total(const float* const rows[5], const float w[5], float out[4]) {
    _mm_storeu_ps(out, totalLanes(rows, w));
  }
  // storeBroughtDown in the lanes: to unit range, then clampColour's two
  // tests as max(0, c) and min(limit, c), which keep c where a test fails
  // (a NaN, and -0 against 0), alpha 1.0.
  static void bringDown(uint8_t* p, const float* const rows[5], const float w[5], float toUnit, float,
                        float limit) {
    __m128 c = _mm_mul_ps(totalLanes(rows, w), _mm_set1_ps(toUnit));
    c = _mm_min_ps(_mm_set1_ps(limit), _mm_max_ps(_mm_setzero_ps(), c));
    _mm_storeu_ps(reinterpret_cast<float*>(p), withAlphaLane(c, _mm_set1_ps(1.0f)));
  }
};

// Kind 4's row sums, the four channels in the lanes, by the 16-bit kernel's
// own pairs (resample_blocks.h): each row's sum divided by 32768 with
// truncation toward zero, then the five rows' total, wrapping in 32 bits as
// RowSumOf<kKindRgba16> wraps.
struct RowSumLanesU16 {
  typedef uint32_t Type;
  static void weigh(const uint8_t* const pixels[5], const uint32_t w[5], uint32_t out[4]) {
    const __m128i sums = fivePixelsU16x4(pixels, weightPair(w[0], w[1]), weightPair(w[2], w[3]),
                                         weightPair(w[4], 0), _mm_set1_epi16(short(0x8000)));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), sums);
  }
  static __m128 totalLanes(const uint32_t* const rows[5], const uint32_t w[5]) {
    auto row = [&](int32_t m) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(rows[m])); };
    const __m128i t = columnSumLanes(row(0), row(1), row(2), row(3), row(4), w);
    return _mm_mul_ps(_mm_cvtepi32_ps(t), _mm_set1_ps(kScale16));
  }
  static void total(const uint32_t* const rows[5], const uint32_t w[5], float out[4]) {
    _mm_storeu_ps(out, totalLanes(rows, w));
  }
  // storeBroughtDown in the lanes: to unit range, clamped (a total is never
  // NaN, and 0 stands for any negative as the plain clamp has it), alpha 1.0,
  // to stored values by truncation; values 0..32768 keep their low 16 bits
  // through a signed pack once 32768 is taken off and its bit put back.
  static void bringDown(uint8_t* p, const uint32_t* const rows[5], const uint32_t w[5], float toUnit, float toValue,
                        float limit) {
    __m128 c = _mm_mul_ps(totalLanes(rows, w), _mm_set1_ps(toUnit));
    c = withAlphaLane(_mm_min_ps(_mm_max_ps(c, _mm_setzero_ps()), _mm_set1_ps(limit)), _mm_set1_ps(1.0f));
    const __m128i values = _mm_sub_epi32(_mm_cvttps_epi32(_mm_mul_ps(c, _mm_set1_ps(toValue))), _mm_set1_epi32(32768));
    const __m128i words = _mm_xor_si128(_mm_packs_epi32(values, values), _mm_set1_epi16(short(0x8000)));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(p), words);
  }
};

}  // namespace

void expandIntoByRowSumsLanesU16(PixelStore* store, int32_t level, int32_t readLevel, float limit, int32_t firstRun,
                                 int32_t endRun) {
  expandIntoByRowSums<kKindRgba16, RowSumLanesU16>(store, level, readLevel, limit, firstRun, endRun);
}

void expandIntoByRowSumsLanesFloat(PixelStore* store, int32_t level, int32_t readLevel, float limit, int32_t firstRun,
                                   int32_t endRun) {
  expandIntoByRowSums<kKindRgbaFloat, RowSumLanesFloat>(store, level, readLevel, limit, firstRun, endRun);
}

int32_t floorRunLanesU8(uint8_t* run, int32_t count, uint32_t floorValue) {
  const __m128i alphaMask = _mm_set1_epi32(0xff);
  const __m128i limit = _mm_set1_epi32(int(floorValue));
  int32_t k = 0;
  for (; k + 4 <= count; k += 4) {
    __m128i* p = reinterpret_cast<__m128i*>(run + k * 4);
    const __m128i w = _mm_loadu_si128(p);
    const __m128i faint = _mm_cmplt_epi32(_mm_and_si128(w, alphaMask), limit);
    _mm_storeu_si128(p, _mm_andnot_si128(_mm_and_si128(faint, alphaMask), w));
  }
  return k;
}

int32_t binariseRunLanesU8(uint8_t* run, int32_t count, uint32_t full) {
  const __m128i alphaMask = _mm_set1_epi32(0xff);
  const __m128i fullAlpha = _mm_set1_epi32(int(full & 0xffu));
  int32_t k = 0;
  for (; k + 4 <= count; k += 4) {
    __m128i* p = reinterpret_cast<__m128i*>(run + k * 4);
    const __m128i w = _mm_loadu_si128(p);
    const __m128i bare = _mm_cmpeq_epi32(_mm_and_si128(w, alphaMask), _mm_setzero_si128());
    const __m128i alpha = _mm_andnot_si128(bare, fullAlpha);
    _mm_storeu_si128(p, _mm_or_si128(_mm_andnot_si128(alphaMask, w), alpha));
  }
  return k;
}

namespace {

// Kind 4: of the two pixels from p on, the ones that are holes with some
// alpha around them, as two bits. p must have a pixel of its row before it
// and two after it.
inline int32_t openHolesU16(const uint8_t* p, const uint8_t* up, const uint8_t* down) {
  const __m128i alphaMask = _mm_setr_epi16(0, 0, 0, -1, 0, 0, 0, -1);
  const __m128i zero = _mm_setzero_si128();
  const __m128i own = _mm_and_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), alphaMask);
  __m128i around = _mm_or_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(up)),
                                _mm_loadu_si128(reinterpret_cast<const __m128i*>(down)));
  around = _mm_or_si128(around, _mm_loadu_si128(reinterpret_cast<const __m128i*>(p - 8)));
  around = _mm_or_si128(around, _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 8)));
  // Per pixel, all ones in its 64 bits when the test holds for its alpha word.
  const __m128i bare = _mm_cmpeq_epi32(_mm_and_si128(around, alphaMask), zero);
  const __m128i hole = _mm_cmpeq_epi32(own, zero);
  return _mm_movemask_pd(_mm_castsi128_pd(_mm_andnot_si128(bare, hole)));
}

// The open holes of the eight pixels from b on, as eight bits.
inline int32_t openHolesOfEight(const uint8_t* b, const uint8_t* up, const uint8_t* down, KindBytes<kKindRgba8>) {
  return openHolesU8(b, up, down) | (openHolesU8(b + 16, up + 16, down + 16) << 4);
}

inline int32_t openHolesOfEight(const uint8_t* b, const uint8_t* up, const uint8_t* down, KindBytes<kKindRgba16>) {
  int32_t open = 0;
  for (int32_t pair = 0; pair < 4; ++pair) {
    open |= openHolesU16(b + 16 * pair, up + 16 * pair, down + 16 * pair) << (2 * pair);
  }
  return open;
}

// The holes that a neighbour's alpha could fill, of the half-pass's colour,
// are found eight pixels at a time; the others are passed over. Filling one
// changes no neighbour of another of its colour.
template <int32_t kKind>
int32_t halfPassBlocksLanes(uint8_t* row, const uint8_t* up, const uint8_t* down, int32_t phase, int32_t count,
                            float toUnit, float toValue) {
  constexpr int32_t kBytes = KindBytes<kKind>::kValue;
  const int32_t colour = phase == 0 ? 0x55 : 0xaa;
  int32_t block = 4;
  for (; block + 8 < count; block += 8) {
    uint8_t* b = row + block * kBytes;
    const uint8_t* blockUp = up + block * kBytes;
    const uint8_t* blockDown = down + block * kBytes;
    const int32_t open = openHolesOfEight(b, blockUp, blockDown, KindBytes<kKind>()) & colour;
    if (open == 0) continue;
    for (int32_t i = phase; i < 8; i += 2) {
      if ((open & (1 << i)) == 0) continue;
      uint8_t* p = b + i * kBytes;
      fillHole<kKind>(p, blockUp + i * kBytes, p - kBytes, p + kBytes, blockDown + i * kBytes, toUnit, toValue);
    }
  }
  return block + phase;
}

}  // namespace

int32_t halfPassBlocksLanesU8(uint8_t* row, const uint8_t* up, const uint8_t* down, int32_t phase, int32_t count,
                              float toUnit, float toValue) {
  return halfPassBlocksLanes<kKindRgba8>(row, up, down, phase, count, toUnit, toValue);
}

int32_t halfPassBlocksLanesU16(uint8_t* row, const uint8_t* up, const uint8_t* down, int32_t phase, int32_t count,
                               float toUnit, float toValue) {
  return halfPassBlocksLanes<kKindRgba16>(row, up, down, phase, count, toUnit, toValue);
}

void reduceRowLanesU8(const RowRef& row0, const RowRef& row1, const RowRef& out, int32_t width, int32_t maxX,
                      float toUnit, float toValue, uint32_t floorValue, uint32_t full) {
  constexpr int32_t kBytes = 4;
  const __m128 toUnitLanes = _mm_set1_ps(toUnit);
  const __m128 toValueLanes = _mm_set1_ps(toValue);
  const __m128i floorLanes = _mm_set1_epi32(int(floorValue));
  for (int32_t ox = 0; ox < width; ++ox) {
    const uint8_t* quad[4];
    blockUnder<kBytes>(row0, row1, ox, maxX, quad);
    uint8_t* dst = pixelIn<kBytes>(out, ox);
    if (blockWithoutWeight<kKindRgba8>(quad, floorValue)) {
      storeWord(dst, 0);
      continue;
    }
    storeWord(dst, reduceQuadU8(quad, toUnitLanes, toValueLanes, floorLanes, full));
  }
}

void reduceRowLanesFloat(const RowRef& row0, const RowRef& row1, const RowRef& out, int32_t width, int32_t maxX) {
  constexpr int32_t kBytes = 16;
  const __m128 one = _mm_set1_ps(1.0f);
  for (int32_t ox = 0; ox < width; ++ox) {
    const uint8_t* quad[4];
    blockUnder<kBytes>(row0, row1, ox, maxX, quad);
    // addWeighted in the lanes: the colour times alpha, and alpha itself as
    // 1.0 times alpha, which is alpha exactly.
    __m128 sum = _mm_setzero_ps();
    for (const uint8_t* source : quad) {
      float alpha = loadFloat(source + 12);
      if (kCoverFloor > double(alpha)) alpha = 0.0f;
      const __m128 colour = withAlphaLane(_mm_loadu_ps(reinterpret_cast<const float*>(source)), one);
      sum = _mm_add_ps(sum, _mm_mul_ps(colour, _mm_set1_ps(alpha)));
    }
    // weightedMean: the sums over alpha, opaque; or the sums, alpha 0.
    const float alpha = _mm_cvtss_f32(_mm_shuffle_ps(sum, sum, _MM_SHUFFLE(3, 3, 3, 3)));
    const __m128 pixel = alpha > 0.0f ? withAlphaLane(_mm_div_ps(sum, _mm_set1_ps(alpha)), one)
                                      : withAlphaLane(sum, _mm_setzero_ps());
    _mm_storeu_ps(reinterpret_cast<float*>(pixelIn<kBytes>(out, ox)), pixel);
  }
}

void columnSumsLanesU8(const uint8_t* const rows[5], const int32_t weights[5], int32_t count, int32_t* sums) {
  // Every weight fits 16 bits signed and every byte is below 256: pmaddwd
  // forms the pairs exactly, and the sums stay far inside 32 bits.
  const __m128i zero = _mm_setzero_si128();
  const __m128i w01 = _mm_set1_epi32(int((uint32_t(weights[1]) << 16) | (uint32_t(weights[0]) & 0xffffu)));
  const __m128i w23 = _mm_set1_epi32(int((uint32_t(weights[3]) << 16) | (uint32_t(weights[2]) & 0xffffu)));
  const __m128i w4 = _mm_set1_epi32(int(uint32_t(weights[4]) & 0xffffu));
  int32_t c = 0;
  for (; c + 2 <= count; c += 2) {
    const __m128i r0 = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(rows[0] + 4 * c));
    const __m128i r1 = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(rows[1] + 4 * c));
    const __m128i r2 = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(rows[2] + 4 * c));
    const __m128i r3 = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(rows[3] + 4 * c));
    const __m128i r4 = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(rows[4] + 4 * c));
    const __m128i p01 = _mm_unpacklo_epi8(r0, r1);
    const __m128i p23 = _mm_unpacklo_epi8(r2, r3);
    const __m128i p4 = _mm_unpacklo_epi8(r4, zero);
    __m128i first = _mm_madd_epi16(_mm_unpacklo_epi8(p01, zero), w01);
    first = _mm_add_epi32(first, _mm_madd_epi16(_mm_unpacklo_epi8(p23, zero), w23));
    first = _mm_add_epi32(first, _mm_madd_epi16(_mm_unpacklo_epi8(p4, zero), w4));
    __m128i second = _mm_madd_epi16(_mm_unpackhi_epi8(p01, zero), w01);
    second = _mm_add_epi32(second, _mm_madd_epi16(_mm_unpackhi_epi8(p23, zero), w23));
    second = _mm_add_epi32(second, _mm_madd_epi16(_mm_unpackhi_epi8(p4, zero), w4));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(sums + 4 * c), first);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(sums + 4 * c + 4), second);
  }
  if (c < count) {
    const __m128i r0 = _mm_cvtsi32_si128(int(loadWord(rows[0] + 4 * c)));
    const __m128i r1 = _mm_cvtsi32_si128(int(loadWord(rows[1] + 4 * c)));
    const __m128i r2 = _mm_cvtsi32_si128(int(loadWord(rows[2] + 4 * c)));
    const __m128i r3 = _mm_cvtsi32_si128(int(loadWord(rows[3] + 4 * c)));
    const __m128i r4 = _mm_cvtsi32_si128(int(loadWord(rows[4] + 4 * c)));
    __m128i s = _mm_madd_epi16(_mm_unpacklo_epi8(_mm_unpacklo_epi8(r0, r1), zero), w01);
    s = _mm_add_epi32(s, _mm_madd_epi16(_mm_unpacklo_epi8(_mm_unpacklo_epi8(r2, r3), zero), w23));
    s = _mm_add_epi32(s, _mm_madd_epi16(_mm_unpacklo_epi8(_mm_unpacklo_epi8(r4, zero), zero), w4));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(sums + 4 * c), s);
  }
}

void bringDownRunLanesU8(uint8_t* run, int32_t count, uint32_t holeValue, uint32_t full, const int32_t* sums,
                         int32_t span, const int32_t (*columns)[5], const uint32_t (*weightPairs)[3], float toUnit,
                         float limit, float toValue) {
  alignas(16) int16_t lowHalves[4 * kColumnSumSpan];
  alignas(16) int16_t highHalves[4 * kColumnSumSpan];
  splitColumnSums(sums, span, lowHalves, highHalves);
  const __m128 toUnitLanes = _mm_set1_ps(toUnit);
  const __m128 limitLanes = _mm_set1_ps(limit);
  const __m128 toValueLanes = _mm_set1_ps(toValue);
  for (int32_t k = 0; k < count; ++k) {
    uint8_t* p = run + k * 4;
    if (storedAlpha<kKindRgba8>(p) >= holeValue) {
      setStoredAlpha<kKindRgba8>(p, full);
      continue;
    }
    storeWord(p, broughtDownWord(weighColumns(lowHalves, highHalves, columns[k], weightPairs[k]), toUnitLanes,
                                 limitLanes, toValueLanes, full));
  }
}

#else

bool fillLanesBuilt() { return false; }

// Never called where the lanes are not built; each leaves everything to the plain loop.
int32_t floorRunLanesU8(uint8_t*, int32_t, uint32_t) { return 0; }
int32_t binariseRunLanesU8(uint8_t*, int32_t, uint32_t) { return 0; }
int32_t halfPassBlocksLanesU8(uint8_t*, const uint8_t*, const uint8_t*, int32_t phase, int32_t, float, float) {
  return 4 + phase;
}
int32_t halfPassBlocksLanesU16(uint8_t*, const uint8_t*, const uint8_t*, int32_t phase, int32_t, float, float) {
  return 4 + phase;
}
void reduceRowLanesU8(const RowRef&, const RowRef&, const RowRef&, int32_t, int32_t, float, float, uint32_t,
                      uint32_t) {}
void reduceRowLanesFloat(const RowRef&, const RowRef&, const RowRef&, int32_t, int32_t) {}
void columnSumsLanesU8(const uint8_t* const*, const int32_t*, int32_t, int32_t*) {}
void bringDownRunLanesU8(uint8_t*, int32_t, uint32_t, uint32_t, const int32_t*, int32_t, const int32_t (*)[5],
                         const uint32_t (*)[3], float, float, float) {}
void expandIntoByRowSumsLanesFloat(PixelStore*, int32_t, int32_t, float, int32_t, int32_t) {}
void expandIntoByRowSumsLanesU16(PixelStore*, int32_t, int32_t, float, int32_t, int32_t) {}

#endif

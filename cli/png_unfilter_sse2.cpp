// The pixel lanes of the PNG unfilter: Sub, Average and Paeth read the byte
// a pixel before, already unfiltered, so a row goes a pixel at a time, the
// pixel's 4 or 8 bytes side by side in 16-bit lanes.
#include "cli/png_unfilter.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#include <string.h>

namespace mendaris_cli {

namespace {

template <size_t kBpp>
inline __m128i loadPixel(const uint8_t* p) {
  if (kBpp == 4) {
    uint32_t v;
    memcpy(&v, p, 4);
    return _mm_unpacklo_epi8(_mm_cvtsi32_si128(int(v)), _mm_setzero_si128());
  }
  return _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)), _mm_setzero_si128());
}

template <size_t kBpp>
inline void storePixel(uint8_t* p, __m128i v) {
  const __m128i bytes = _mm_packus_epi16(v, v);
  if (kBpp == 4) {
    const uint32_t w = uint32_t(_mm_cvtsi128_si32(bytes));
    memcpy(p, &w, 4);
  } else {
    _mm_storel_epi64(reinterpret_cast<__m128i*>(p), bytes);
  }
}

inline __m128i absLanes(__m128i v) { return _mm_max_epi16(v, _mm_sub_epi16(_mm_setzero_si128(), v)); }

// The pixel `filtered` plus what the filter predicted from a (left), b (up)
// and c (up left), each byte modulo 256.
template <uint8_t kFilter>
inline __m128i unfilterPixel(__m128i filtered, __m128i a, __m128i b, __m128i c) {
  __m128i predicted;
  if (kFilter == 1) {
    predicted = a;
  } else if (kFilter == 3) {
    predicted = _mm_srli_epi16(_mm_add_epi16(a, b), 1);
  } else {
    // Paeth: the nearest of a, b and c to a + b - c, ties in that order.
    const __m128i bc = _mm_sub_epi16(b, c);
    const __m128i ac = _mm_sub_epi16(a, c);
    const __m128i pa = absLanes(bc);
    const __m128i pb = absLanes(ac);
    const __m128i pc = absLanes(_mm_add_epi16(bc, ac));
    const __m128i takeA = _mm_andnot_si128(_mm_or_si128(_mm_cmpgt_epi16(pa, pb), _mm_cmpgt_epi16(pa, pc)),
                                           _mm_set1_epi16(-1));
    const __m128i takeB = _mm_andnot_si128(_mm_or_si128(takeA, _mm_cmpgt_epi16(pb, pc)), _mm_set1_epi16(-1));
    const __m128i takeC = _mm_andnot_si128(_mm_or_si128(takeA, takeB), _mm_set1_epi16(-1));
    predicted = _mm_or_si128(_mm_or_si128(_mm_and_si128(takeA, a), _mm_and_si128(takeB, b)),
                             _mm_and_si128(takeC, c));
  }
  return _mm_and_si128(_mm_add_epi16(filtered, predicted), _mm_set1_epi16(0xff));
}

template <size_t kBpp, uint8_t kFilter>
void unfilterPixels(uint8_t* row, const uint8_t* prior, size_t n) {
  // Left of the first pixel, a and c are zero.
  __m128i a = _mm_setzero_si128();
  __m128i c = _mm_setzero_si128();
  for (size_t i = 0; i + kBpp <= n; i += kBpp) {
    const __m128i b = kFilter == 1 ? _mm_setzero_si128() : loadPixel<kBpp>(prior + i);
    a = unfilterPixel<kFilter>(loadPixel<kBpp>(row + i), a, b, c);
    storePixel<kBpp>(row + i, a);
    c = b;
  }
}

template <size_t kBpp>
bool unfilterWithPixels(uint8_t filter, uint8_t* row, const uint8_t* prior, size_t n) {
  switch (filter) {
    case 1: unfilterPixels<kBpp, 1>(row, prior, n); return true;
    case 3: unfilterPixels<kBpp, 3>(row, prior, n); return true;
    case 4: unfilterPixels<kBpp, 4>(row, prior, n); return true;
    default: return false;
  }
}

}  // namespace

bool unfilterRowLanes(uint8_t filter, uint8_t* row, const uint8_t* prior, size_t n, size_t bpp) {
  if (n % bpp != 0) return false;
  if (bpp == 4) return unfilterWithPixels<4>(filter, row, prior, n);
  if (bpp == 8) return unfilterWithPixels<8>(filter, row, prior, n);
  return false;
}

}  // namespace mendaris_cli

#else

namespace mendaris_cli {

bool unfilterRowLanes(uint8_t, uint8_t*, const uint8_t*, size_t, size_t) { return false; }

}  // namespace mendaris_cli

#endif

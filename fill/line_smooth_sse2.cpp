#include "fill/line_smooth_lanes.h"

#include "store/pixel_store.h"

#if (defined(__SSE2__) || defined(_M_X64) || (defined(_M_IX86_FP) && _M_IX86_FP >= 2)) && \
    !defined(MENDARIS_SCALAR_KERNELS)
#include <emmintrin.h>

namespace {

// Rows of the group kept for the window: a power of two above its length.
constexpr int32_t kRingRows = 64;
constexpr int32_t kVectors = kColumnGroup / 4;
constexpr int64_t kFetchAhead = 8;

inline int64_t clampCell(int64_t i, int64_t last) { return i < 0 ? 0 : (i < last ? i : last); }

}  // namespace

bool smoothColumnGroupFloat(PixelStore* store, int32_t level, int32_t line, int32_t first, int32_t n, int32_t back,
                            int32_t forward) {
  if (int64_t(back) + int64_t(forward) + 2 > kRingRows) return false;
  const int32_t across = store->tilesAcross[level];
  const StoreTile* tiles = store->tiles + store->firstTile[level] + (line >> kTileShift);
  const size_t columnOffset = size_t(line & kTileMask);
  // The group's first float in row first + i; the group never leaves its tile.
  const auto rowAt = [&](int64_t i) {
    const int32_t y = first + int32_t(i);
    return reinterpret_cast<float*>(tiles[(y >> kTileShift) * across].pixels) +
           (size_t(y & kTileMask) * kTileWidth + columnOffset);
  };
  // Each lane runs smoothColumnFloat's sums for its column: the cells are
  // taken as the window needs them, and a mean goes back to its cell once
  // the cell was taken, never to be read from the store again.
  __m128 ring[kRingRows][kVectors];
  const int64_t last = int64_t(n) - 1;
  int64_t taken = 0;
  const auto takeUpTo = [&](int64_t i) {
    const int64_t stop = i < last ? i : last;
    for (; taken <= stop; ++taken) {
      // Rows lie a tile's width apart, past what the processor fetches ahead
      // by itself: the line a few rows down is asked for now.
      if (taken + kFetchAhead <= last) {
        _mm_prefetch(reinterpret_cast<const char*>(rowAt(taken + kFetchAhead)), _MM_HINT_T0);
      }
      const float* p = rowAt(taken);
      for (int32_t v = 0; v < kVectors; ++v) ring[taken & (kRingRows - 1)][v] = _mm_loadu_ps(p + 4 * v);
    }
  };
  const auto cell = [&](int64_t i) { return ring[clampCell(i, last) & (kRingRows - 1)]; };
  const __m128 norm = _mm_set1_ps(float(1.0 / double(int64_t(forward) + 1 + int64_t(back))));
  takeUpTo(forward);
  __m128 sum[kVectors];
  for (int32_t v = 0; v < kVectors; ++v) sum[v] = _mm_setzero_ps();
  for (int64_t i = -int64_t(back); i <= int64_t(forward); ++i) {
    const __m128* c = cell(i);
    for (int32_t v = 0; v < kVectors; ++v) sum[v] = _mm_add_ps(sum[v], c[v]);
  }
  float* out = rowAt(0);
  for (int32_t v = 0; v < kVectors; ++v) _mm_storeu_ps(out + 4 * v, _mm_mul_ps(sum[v], norm));
  for (int64_t i = 1; i < n; ++i) {
    takeUpTo(i + forward);
    const __m128* leaving = cell(i - 1 - back);
    const __m128* entering = cell(i + forward);
    out = rowAt(i);
    for (int32_t v = 0; v < kVectors; ++v) {
      sum[v] = _mm_add_ps(_mm_sub_ps(sum[v], leaving[v]), entering[v]);
      _mm_storeu_ps(out + 4 * v, _mm_mul_ps(sum[v], norm));
    }
  }
  return true;
}

bool smoothRowGroupFloat(PixelStore* store, int32_t level, int32_t line, int32_t first, int32_t n, int32_t back,
                         int32_t forward) {
  // The cells are taken up to three ahead of what the window needs.
  if (int64_t(back) + int64_t(forward) + 5 > kRingRows) return false;
  RowRef rows[kRowGroup];
  for (int32_t r = 0; r < kRowGroup; ++r) rows[r] = rowRef(store, level, line + r, 4);
  const auto cellOf = [&](int32_t r, int64_t i) {
    return reinterpret_cast<float*>(pixelIn<4>(rows[r], first + int32_t(i)));
  };
  // Lane r runs boxLineFloat's sums for row line + r, cell by cell along x.
  __m128 ring[kRingRows];
  const int64_t last = int64_t(n) - 1;
  int64_t taken = 0;
  const auto takeUpTo = [&](int64_t i) {
    const int64_t stop = i < last ? i : last;
    while (taken <= stop) {
      const int32_t x = first + int32_t(taken);
      if (taken + 3 <= last && (x & kTileMask) <= kTileWidth - 4) {
        // Four cells of each row, turned into four cells of the four rows.
        __m128 a = _mm_loadu_ps(cellOf(0, taken));
        __m128 b = _mm_loadu_ps(cellOf(1, taken));
        __m128 c = _mm_loadu_ps(cellOf(2, taken));
        __m128 d = _mm_loadu_ps(cellOf(3, taken));
        _MM_TRANSPOSE4_PS(a, b, c, d);
        ring[taken & (kRingRows - 1)] = a;
        ring[(taken + 1) & (kRingRows - 1)] = b;
        ring[(taken + 2) & (kRingRows - 1)] = c;
        ring[(taken + 3) & (kRingRows - 1)] = d;
        taken += 4;
      } else {
        ring[taken & (kRingRows - 1)] = _mm_movelh_ps(
            _mm_unpacklo_ps(_mm_load_ss(cellOf(0, taken)), _mm_load_ss(cellOf(1, taken))),
            _mm_unpacklo_ps(_mm_load_ss(cellOf(2, taken)), _mm_load_ss(cellOf(3, taken))));
        ++taken;
      }
    }
  };
  const auto cell = [&](int64_t i) { return ring[clampCell(i, last) & (kRingRows - 1)]; };
  const auto put = [&](int64_t i, __m128 v) {
    _mm_store_ss(cellOf(0, i), v);
    _mm_store_ss(cellOf(1, i), _mm_shuffle_ps(v, v, _MM_SHUFFLE(1, 1, 1, 1)));
    _mm_store_ss(cellOf(2, i), _mm_shuffle_ps(v, v, _MM_SHUFFLE(2, 2, 2, 2)));
    _mm_store_ss(cellOf(3, i), _mm_shuffle_ps(v, v, _MM_SHUFFLE(3, 3, 3, 3)));
  };
  // Means go back four cells at a time, turned into four cells of each row,
  // once all four were taken; a four that crosses a tile's edge goes cell by
  // cell.
  __m128 means[4];
  const auto putFour = [&](int64_t i) {
    if ((uint32_t(first + int32_t(i)) & kTileMask) <= kTileWidth - 4) {
      __m128 a = means[0];
      __m128 b = means[1];
      __m128 c = means[2];
      __m128 d = means[3];
      _MM_TRANSPOSE4_PS(a, b, c, d);
      _mm_storeu_ps(cellOf(0, i), a);
      _mm_storeu_ps(cellOf(1, i), b);
      _mm_storeu_ps(cellOf(2, i), c);
      _mm_storeu_ps(cellOf(3, i), d);
      return;
    }
    for (int32_t k = 0; k < 4; ++k) put(i + k, means[k]);
  };
  const __m128 norm = _mm_set1_ps(float(1.0 / double(int64_t(forward) + 1 + int64_t(back))));
  takeUpTo(forward);
  __m128 sum = _mm_setzero_ps();
  for (int64_t i = -int64_t(back); i <= int64_t(forward); ++i) sum = _mm_add_ps(sum, cell(i));
  means[0] = _mm_mul_ps(sum, norm);
  for (int64_t i = 1; i < n; ++i) {
    takeUpTo(i + forward);
    sum = _mm_add_ps(_mm_sub_ps(sum, cell(i - 1 - back)), cell(i + forward));
    means[i & 3] = _mm_mul_ps(sum, norm);
    if ((i & 3) == 3) putFour(i - 3);
  }
  for (int64_t i = n & ~int64_t(3); i < n; ++i) put(i, means[i & 3]);
  return true;
}

#else

bool smoothRowGroupFloat(PixelStore*, int32_t, int32_t, int32_t, int32_t, int32_t, int32_t) { return false; }

bool smoothColumnGroupFloat(PixelStore*, int32_t, int32_t, int32_t, int32_t, int32_t, int32_t) { return false; }

#endif

// The wide lane road of the walk: the lane road's steps in AVX2, eight lanes
// to a group, each lane doing the point road's operations for its own point
// in the same order. Single precision runs eight at a time and double
// precision four at a time; there are no fused operations, so every lane
// rounds where the point road rounds. Unlike the SSE2 lanes, a reflection at
// the image's edge stays in the lane; only an unusual field read goes to the
// point road. Built only where the compiler keeps the stack aligned for
// 32-byte vectors; taken only on a processor that has AVX2.
#include "grid/opaque_walk.h"

#if defined(MENDARIS_WALK_AVX2) && defined(__AVX2__) && !defined(MENDARIS_SCALAR_KERNELS)
#include <immintrin.h>

#include "grid/opaque_walk_lanes.h"

bool walkWideLanesBuilt() { return true; }

namespace {

constexpr int32_t kLanes = 8;

// The base pixel of a field read in each lane and the fraction, as fieldTap
// finds them for a coordinate from zero on. fieldTap takes a negative one
// below itself; such a read never is the usual case, and a lane with one
// goes to the point road (usualLanes), so its base here does not matter.
struct TapLanes {
  __m256i base;
  __m256 frac;
};

inline TapLanes tapLanes(__m256 f) {
  TapLanes t;
  t.base = _mm256_cvttps_epi32(f);
  t.frac = _mm256_sub_ps(f, _mm256_cvtepi32_ps(t.base));
  return t;
}

inline __m256 joinHalves(__m128 low, __m128 high) {
  return _mm256_insertf128_ps(_mm256_castps128_ps256(low), high, 1);
}

inline __m256 lerpLanes(__m256 a, __m256 b, __m256 c, __m256 d, __m256 tx, __m256 ty) {
  const __m256 top = _mm256_add_ps(a, _mm256_mul_ps(_mm256_sub_ps(b, a), tx));
  const __m256 bottom = _mm256_add_ps(c, _mm256_mul_ps(_mm256_sub_ps(d, c), tx));
  return _mm256_add_ps(top, _mm256_mul_ps(_mm256_sub_ps(bottom, top), ty));
}

inline int32_t maskOf(__m256i v) { return _mm256_movemask_ps(_mm256_castsi256_ps(v)); }

// The lanes whose five reads lie in the 4 x 4 field pixels from (X - 1,
// Y - 1) on, all in one tile: the point road's own test for such bases.
// The lanes also need the lowest coordinates, left and top (those of tm and
// sm), from zero on: below, fieldTap's base would differ from tapLanes'.
inline int32_t usualLanes(const WalkView& w, __m256 left, __m256 top, const TapLanes& tm, const TapLanes& t0,
                          const TapLanes& tp, const TapLanes& sm, const TapLanes& s0, const TapLanes& sp) {
  const __m256i one = _mm256_set1_epi32(1);
  const __m256i minusOne = _mm256_set1_epi32(-1);
  __m256i ok = _mm256_and_si256(_mm256_cmpeq_epi32(tm.base, _mm256_sub_epi32(t0.base, one)),
                                _mm256_cmpeq_epi32(tp.base, _mm256_add_epi32(t0.base, one)));
  ok = _mm256_and_si256(ok, _mm256_cmpeq_epi32(sm.base, _mm256_sub_epi32(s0.base, one)));
  ok = _mm256_and_si256(ok, _mm256_cmpeq_epi32(sp.base, _mm256_add_epi32(s0.base, one)));
  ok = _mm256_and_si256(ok, _mm256_cmpgt_epi32(tm.base, minusOne));
  ok = _mm256_and_si256(ok, _mm256_cmpgt_epi32(sm.base, minusOne));
  ok = _mm256_and_si256(ok, _mm256_cmpgt_epi32(_mm256_set1_epi32(w.fieldMaxX), tp.base));
  ok = _mm256_and_si256(ok, _mm256_cmpgt_epi32(_mm256_set1_epi32(w.fieldMaxY), sp.base));
  ok = _mm256_and_si256(ok, _mm256_cmpeq_epi32(_mm256_srai_epi32(tm.base, kTileShift),
                                               _mm256_srai_epi32(_mm256_add_epi32(tp.base, one), kTileShift)));
  ok = _mm256_and_si256(ok, _mm256_cmpeq_epi32(_mm256_srai_epi32(sm.base, kTileShift),
                                               _mm256_srai_epi32(_mm256_add_epi32(sp.base, one), kTileShift)));
  const __m256 fromZero = _mm256_and_ps(_mm256_cmp_ps(left, _mm256_setzero_ps(), _CMP_GE_OS),
                                        _mm256_cmp_ps(top, _mm256_setzero_ps(), _CMP_GE_OS));
  return w.fieldTiles != nullptr ? maskOf(ok) & _mm256_movemask_ps(fromZero) : 0;
}

inline void storeLanes(__m256i a, __m256i b, int32_t* toA, int32_t* toB) {
  _mm256_store_si256(reinterpret_cast<__m256i*>(toA), a);
  _mm256_store_si256(reinterpret_cast<__m256i*>(toB), b);
}

// The mask of the lanes in `lanes` whose pixel (x, y) is solid (solidIn).
inline int32_t solidLanes(const WalkView& w, __m256i x, __m256i y, int32_t lanes) {
  if (!w.opaqueBytes || w.opaqueTiles == nullptr) {
    alignas(32) int32_t xs[kLanes];
    alignas(32) int32_t ys[kLanes];
    storeLanes(x, y, xs, ys);
    return solidLanesEach(w, xs, ys, lanes);
  }
  const __m256i minusOne = _mm256_set1_epi32(-1);
  const __m256i inside = _mm256_and_si256(
      _mm256_and_si256(_mm256_cmpgt_epi32(x, minusOne), _mm256_cmpgt_epi32(_mm256_set1_epi32(w.width), x)),
      _mm256_and_si256(_mm256_cmpgt_epi32(y, minusOne), _mm256_cmpgt_epi32(_mm256_set1_epi32(w.height), y)));
  lanes &= maskOf(inside);
  // Inside the source the map's own clamp only lowers a coordinate past its
  // last pixel; outside lanes read pixel (0, 0) and are not taken.
  x = _mm256_and_si256(_mm256_min_epi32(x, _mm256_set1_epi32(w.opaqueMaxX)), inside);
  y = _mm256_and_si256(_mm256_min_epi32(y, _mm256_set1_epi32(w.opaqueMaxY)), inside);
  const __m256i tile = _mm256_add_epi32(_mm256_mullo_epi32(_mm256_srai_epi32(y, kTileShift),
                                                           _mm256_set1_epi32(w.opaqueAcross)),
                                        _mm256_srai_epi32(x, kTileShift));
  const __m256i mask = _mm256_set1_epi32(kTileMask);
  const __m256i place =
      _mm256_add_epi32(_mm256_slli_epi32(_mm256_and_si256(y, mask), kTileShift), _mm256_and_si256(x, mask));
  alignas(32) int32_t tiles[kLanes];
  alignas(32) int32_t places[kLanes];
  storeLanes(tile, place, tiles, places);
  return solidBytes<kLanes>(w, tiles, places, lanes);
}

// One group of eight lanes: two groups (sixteen walks) measured slower, the
// lanes standing idle longer while the last walks of a batch finish.
constexpr int32_t kGroups = 1;

// A group's step up to its field reads: the reflected points, the taps, the
// lanes that end on their reflection, and the lanes it leaves to the point
// road (an unusual read).
struct GroupStep {
  __m256 x, y;  // the points after their reflections
  TapLanes tm, t0, tp, sm, s0, sp;
  int32_t landed;  // lanes whose reflected point is solid: the step ends there
  int32_t left;
  const uint8_t* blocks[kLanes];
};

// v, or in the lanes of `where` its mirror image float(edgeTwice - double(v)).
inline __m256 mirrorLanes(__m256 v, __m256 where, double edgeTwice) {
  const __m256d e = _mm256_set1_pd(edgeTwice);
  const __m256 image = joinHalves(_mm256_cvtpd_ps(_mm256_sub_pd(e, _mm256_cvtps_pd(_mm256_castps256_ps128(v)))),
                                  _mm256_cvtpd_ps(_mm256_sub_pd(e, _mm256_cvtps_pd(_mm256_extractf128_ps(v, 1)))));
  return _mm256_blendv_ps(v, image, where);
}

// The lanes' mask as a vector: all bits set in the lanes of `bits`.
inline __m256 laneVector(int32_t bits) {
  const __m256i each = _mm256_setr_epi32(1, 2, 4, 8, 16, 32, 64, 128);
  return _mm256_castsi256_ps(_mm256_cmpeq_epi32(_mm256_and_si256(_mm256_set1_epi32(bits), each), each));
}

// Both halves of the step go into the walk's loop: the walk is taken by two
// roads, and the compiler would otherwise keep them as calls.
__attribute__((always_inline)) inline void beginStep(const WalkView& w, const float* lx, const float* ly,
                                                     int32_t busy, GroupStep* g) {
  __m256 x = _mm256_load_ps(lx);
  __m256 y = _mm256_load_ps(ly);
  // The reflections of the point road, once per side in its order, the tests
  // strict. The edges are whole numbers, exact in single precision as in
  // double, and twice an edge is exact in double.
  const __m256 minusOne = _mm256_set1_ps(-1.0f);
  const __m256 width = _mm256_set1_ps(float(w.width));
  const __m256 height = _mm256_set1_ps(float(w.height));
  const __m256 reflects =
      _mm256_or_ps(_mm256_or_ps(_mm256_cmp_ps(x, minusOne, _CMP_LT_OS), _mm256_cmp_ps(y, minusOne, _CMP_LT_OS)),
                   _mm256_or_ps(_mm256_cmp_ps(x, width, _CMP_GT_OS), _mm256_cmp_ps(y, height, _CMP_GT_OS)));
  const int32_t moved = busy & _mm256_movemask_ps(reflects);
  g->landed = 0;
  if (moved != 0) {
    x = mirrorLanes(x, _mm256_cmp_ps(x, minusOne, _CMP_LT_OS), 2.0 * -1.0);
    y = mirrorLanes(y, _mm256_cmp_ps(y, minusOne, _CMP_LT_OS), 2.0 * -1.0);
    x = mirrorLanes(x, _mm256_cmp_ps(x, width, _CMP_GT_OS), 2.0 * double(w.width));
    y = mirrorLanes(y, _mm256_cmp_ps(y, height, _CMP_GT_OS), 2.0 * double(w.height));
    // A point the reflection moved is tested again: the step ends on it when
    // it is solid.
    g->landed = solidLanes(w, _mm256_cvttps_epi32(x), _mm256_cvttps_epi32(y), moved);
  }
  g->x = x;
  g->y = y;
  // The read coordinates, float(double(x) + offset) for offsets 7.5, 8.5
  // and 9.5, come straight from a single-precision sum: both operands are
  // floats, and a sum rounded first to double and then to float gives the
  // once-rounded float sum (double holds more than twice float's bits and two).
  const float margin = float(kFieldMargin) - 0.5f;
  const __m256 xm = _mm256_add_ps(x, _mm256_set1_ps(margin - 1.0f));
  const __m256 ym = _mm256_add_ps(y, _mm256_set1_ps(margin - 1.0f));
  g->tm = tapLanes(xm);
  g->t0 = tapLanes(_mm256_add_ps(x, _mm256_set1_ps(margin)));
  g->tp = tapLanes(_mm256_add_ps(x, _mm256_set1_ps(margin + 1.0f)));
  g->sm = tapLanes(ym);
  g->s0 = tapLanes(_mm256_add_ps(y, _mm256_set1_ps(margin)));
  g->sp = tapLanes(_mm256_add_ps(y, _mm256_set1_ps(margin + 1.0f)));
  // A read out of the usual case goes to the point road.
  g->left = busy & ~g->landed & ~usualLanes(w, xm, ym, g->tm, g->t0, g->tp, g->sm, g->s0, g->sp);
  // Each lane's block: its tile and its first pixel's byte in the tile, as
  // usualBlock finds them.
  const __m256i left = g->tm.base;
  const __m256i top = g->sm.base;
  const __m256i mask = _mm256_set1_epi32(kTileMask);
  const __m256i tile = _mm256_add_epi32(
      _mm256_mullo_epi32(_mm256_srai_epi32(top, kTileShift), _mm256_set1_epi32(w.fieldAcross)),
      _mm256_srai_epi32(left, kTileShift));
  const __m256i place = _mm256_slli_epi32(
      _mm256_add_epi32(_mm256_slli_epi32(_mm256_and_si256(top, mask), kTileShift), _mm256_and_si256(left, mask)), 2);
  alignas(32) int32_t tiles[kLanes];
  alignas(32) int32_t places[kLanes];
  storeLanes(tile, place, tiles, places);
  const int32_t usual = busy & ~g->landed & ~g->left;
  for (int32_t lane = 0; lane < kLanes; ++lane) {
    g->blocks[lane] = (usual & (1 << lane)) != 0 ? w.fieldTiles[tiles[lane]].pixels + places[lane]
                                                 : reinterpret_cast<const uint8_t*>(kZeroBlock);
  }
}

// The step from points (x, y) given the gradient (gx, gy) and the distance d:
// four lanes at a time in double, the normalised gradient and the step of
// twice the distance against it.
inline void stepLanes(__m256 gx, __m256 gy, __m256 d, __m256 x, __m256 y, __m256* nextX, __m256* nextY) {
  auto half = [](__m128 gx4, __m128 gy4, __m128 d4, __m128 x4, __m128 y4, __m128* nx4, __m128* ny4) {
    const __m256d gxd = _mm256_cvtps_pd(gx4);
    const __m256d gyd = _mm256_cvtps_pd(gy4);
    const __m256d n = _mm256_div_pd(_mm256_set1_pd(1.0), _mm256_sqrt_pd(_mm256_add_pd(_mm256_mul_pd(gxd, gxd),
                                                                                       _mm256_mul_pd(gyd, gyd))));
    const __m256d step = _mm256_mul_pd(_mm256_set1_pd(2.0), _mm256_cvtps_pd(d4));
    *nx4 = _mm256_cvtpd_ps(_mm256_sub_pd(_mm256_cvtps_pd(x4), _mm256_mul_pd(step, _mm256_mul_pd(gxd, n))));
    *ny4 = _mm256_cvtpd_ps(_mm256_sub_pd(_mm256_cvtps_pd(y4), _mm256_mul_pd(step, _mm256_mul_pd(gyd, n))));
  };
  __m128 nxLow, nyLow, nxHigh, nyHigh;
  half(_mm256_castps256_ps128(gx), _mm256_castps256_ps128(gy), _mm256_castps256_ps128(d), _mm256_castps256_ps128(x),
       _mm256_castps256_ps128(y), &nxLow, &nyLow);
  half(_mm256_extractf128_ps(gx, 1), _mm256_extractf128_ps(gy, 1), _mm256_extractf128_ps(d, 1),
       _mm256_extractf128_ps(x, 1), _mm256_extractf128_ps(y, 1), &nxHigh, &nyHigh);
  *nextX = joinHalves(nxLow, nxHigh);
  *nextY = joinHalves(nyLow, nyHigh);
}

// The rest of a group's step: the reads, the gradient, the next point, and
// the mask of the busy lanes not left over whose point stands on a solid pixel.
__attribute__((always_inline)) inline int32_t endStep(const WalkView& w, const GroupStep& g, int32_t busy,
                                                      float* nextX, float* nextY) {
  // Each lane's four rows of four, turned so that a vector holds one pixel
  // of the block for all eight lanes: block[r][c] is row Y - 1 + r, column
  // X - 1 + c. Lane k's row and lane k + 4's share a vector, one in each
  // half, and each half is turned on its own.
  __m256 block[4][4];
  for (int32_t r = 0; r < 4; ++r) {
    __m256 line[4];
    for (int32_t lane = 0; lane < 4; ++lane) {
      const size_t row = size_t(r) * kTileWidth * 4u;
      line[lane] = joinHalves(_mm_loadu_ps(reinterpret_cast<const float*>(g.blocks[lane] + row)),
                              _mm_loadu_ps(reinterpret_cast<const float*>(g.blocks[lane + 4] + row)));
    }
    const __m256 t0 = _mm256_unpacklo_ps(line[0], line[1]);
    const __m256 t1 = _mm256_unpacklo_ps(line[2], line[3]);
    const __m256 t2 = _mm256_unpackhi_ps(line[0], line[1]);
    const __m256 t3 = _mm256_unpackhi_ps(line[2], line[3]);
    block[r][0] = _mm256_castpd_ps(_mm256_unpacklo_pd(_mm256_castps_pd(t0), _mm256_castps_pd(t1)));
    block[r][1] = _mm256_castpd_ps(_mm256_unpackhi_pd(_mm256_castps_pd(t0), _mm256_castps_pd(t1)));
    block[r][2] = _mm256_castpd_ps(_mm256_unpacklo_pd(_mm256_castps_pd(t2), _mm256_castps_pd(t3)));
    block[r][3] = _mm256_castpd_ps(_mm256_unpackhi_pd(_mm256_castps_pd(t2), _mm256_castps_pd(t3)));
  }
  const __m256 right = lerpLanes(block[1][2], block[1][3], block[2][2], block[2][3], g.tp.frac, g.s0.frac);
  const __m256 leftRead = lerpLanes(block[1][0], block[1][1], block[2][0], block[2][1], g.tm.frac, g.s0.frac);
  const __m256 down = lerpLanes(block[2][1], block[2][2], block[3][1], block[3][2], g.t0.frac, g.sp.frac);
  const __m256 up = lerpLanes(block[0][1], block[0][2], block[1][1], block[1][2], g.t0.frac, g.sm.frac);
  const __m256 here = lerpLanes(block[1][1], block[1][2], block[2][1], block[2][2], g.t0.frac, g.s0.frac);
  const __m256 gx = _mm256_sub_ps(right, leftRead);
  const __m256 gy = _mm256_sub_ps(down, up);

  __m256 nx;
  __m256 ny;
  stepLanes(gx, gy, here, g.x, g.y, &nx, &ny);
  if (g.landed != 0) {
    const __m256 landed = laneVector(g.landed);
    nx = _mm256_blendv_ps(nx, g.x, landed);
    ny = _mm256_blendv_ps(ny, g.y, landed);
  }
  _mm256_store_ps(nextX, nx);
  _mm256_store_ps(nextY, ny);
  return g.landed | solidLanes(w, _mm256_cvttps_epi32(nx), _mm256_cvttps_epi32(ny), busy & ~g.landed & ~g.left);
}

// The grid's road: eight points side by side on one row of integer points.
// Such a point is never reflected, and each of its first step's reads lies
// half-way between field pixels in both directions, so the eight lanes' 4 x 4
// blocks are the same rows and columns shifted by one: a row of the block is
// one load of eight floats, with no turning. The lanes compute endStep's
// operations with every fraction 0.5.

// Where a row of points y is the usual case for every group: inside the
// source, its four field rows inside the field and in one tile, and both
// maps read from their tiles.
inline bool gridRowUsual(const WalkView& w, int32_t y) {
  return w.opaqueBytes && w.opaqueTiles != nullptr && w.fieldTiles != nullptr && y >= 0 && y < w.height &&
         y + kFieldMargin < w.fieldMaxY &&
         ((y + kFieldMargin - 2) >> kTileShift) == ((y + kFieldMargin + 1) >> kTileShift);
}

// Where points x0 .. x0 + 7 of a usual row are the usual case together: inside
// the source, and their field columns x0 + 7 .. x0 + 17 inside the field and in
// one tile.
inline bool gridGroupUsual(const WalkView& w, int32_t x0) {
  return x0 >= 0 && x0 + kLanes <= w.width && x0 + kLanes - 1 + kFieldMargin < w.fieldMaxX &&
         ((x0 + kFieldMargin - 2) >> kTileShift) == ((x0 + kLanes - 1 + kFieldMargin + 1) >> kTileShift);
}

// solidLanes of pixels x0 .. x0 + 7 (the columns in xi) of row y, all in the
// source: where the eight bytes lie in one tile of the map, their top bits in
// one load.
inline int32_t solidRowLanes(const WalkView& w, __m256i xi, int32_t x0, int32_t y) {
  const int32_t last = clampToLevel(x0 + kLanes - 1, w.opaqueMaxX);
  const int32_t row = clampToLevel(y, w.opaqueMaxY);
  if (last != x0 + kLanes - 1 || (x0 >> kTileShift) != (last >> kTileShift)) {
    return solidLanes(w, xi, _mm256_set1_epi32(y), 0xff);
  }
  const uint8_t* bytes = w.opaqueTiles[(row >> kTileShift) * w.opaqueAcross + (x0 >> kTileShift)].pixels +
                         size_t((row & kTileMask) * kTileWidth + (x0 & kTileMask));
  return _mm_movemask_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(bytes))) & 0xff;
}

// The group (x0 .. x0 + 7, y) of a usual row, usual itself: its landing points
// where a point lands where it stands or on its first step; the mask of the
// lanes that walk on.
int32_t gridGroup(const WalkView& w, int32_t x0, int32_t y, float* outX, float* outY) {
  const __m256i xi = _mm256_add_epi32(_mm256_set1_epi32(x0), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
  const __m256 x = _mm256_cvtepi32_ps(xi);
  const __m256 yv = _mm256_set1_ps(float(y));
  const int32_t solid = solidRowLanes(w, xi, x0, y);
  if (solid == 0xff) {
    _mm256_storeu_ps(outX, x);
    _mm256_storeu_ps(outY, yv);
    return 0;
  }
  const int32_t top = y + kFieldMargin - 2;
  const int32_t left = x0 + kFieldMargin - 2;
  const float* block = reinterpret_cast<const float*>(
      w.fieldTiles[(top >> kTileShift) * w.fieldAcross + (left >> kTileShift)].pixels +
      size_t((top & kTileMask) * kTileWidth + (left & kTileMask)) * 4u);
  __m256 b[4][4];
  for (int32_t r = 0; r < 4; ++r)
    for (int32_t c = 0; c < 4; ++c) b[r][c] = _mm256_loadu_ps(block + size_t(r) * kTileWidth + size_t(c));
  const __m256 h = _mm256_set1_ps(0.5f);
  const __m256 right = lerpLanes(b[1][2], b[1][3], b[2][2], b[2][3], h, h);
  const __m256 leftRead = lerpLanes(b[1][0], b[1][1], b[2][0], b[2][1], h, h);
  const __m256 down = lerpLanes(b[2][1], b[2][2], b[3][1], b[3][2], h, h);
  const __m256 up = lerpLanes(b[0][1], b[0][2], b[1][1], b[1][2], h, h);
  const __m256 here = lerpLanes(b[1][1], b[1][2], b[2][1], b[2][2], h, h);
  __m256 nx;
  __m256 ny;
  stepLanes(_mm256_sub_ps(right, leftRead), _mm256_sub_ps(down, up), here, x, yv, &nx, &ny);
  const int32_t bare = ~solid & 0xff;
  const int32_t arrived = solidLanes(w, _mm256_cvttps_epi32(nx), _mm256_cvttps_epi32(ny), bare);
  const __m256 stays = laneVector(solid);
  _mm256_storeu_ps(outX, _mm256_blendv_ps(nx, x, stays));
  _mm256_storeu_ps(outY, _mm256_blendv_ps(ny, yv, stays));
  return bare & ~arrived;
}

// The walk in wide lanes, its step's two halves inlined into it; every road
// into it takes this one copy.
void walkWide(const WalkView& w, int32_t count, const float* xs, const float* ys, float* outX, float* outY,
              uint8_t* walked, const float* fromX, const float* fromY) {
  walkInLanes<kLanes, kGroups, GroupStep>(
      w, count, xs, ys, outX, outY, walked, [](const auto&... a) { beginStep(a...); },
      [](const auto&... a) { return endStep(a...); }, fromX, fromY);
}

// Walks collected to take the wide lanes together: from their start, or
// (with `from`) on from their first step.
struct LaneBatch {
  static constexpr int32_t kMost = 512;
  float x[kMost];
  float y[kMost];
  float fromX[kMost];
  float fromY[kMost];
  int32_t at[kMost];
  int32_t count;
};

void walkBatch(const WalkView& w, LaneBatch* b, bool from, float* outX, float* outY, uint8_t* walked) {
  if (b->count == 0) return;
  float landX[LaneBatch::kMost];
  float landY[LaneBatch::kMost];
  uint8_t landed[LaneBatch::kMost];
  walkWide(w, b->count, b->x, b->y, landX, landY, landed, from ? b->fromX : nullptr, from ? b->fromY : nullptr);
  for (int32_t i = 0; i < b->count; ++i) {
    outX[b->at[i]] = landX[i];
    outY[b->at[i]] = landY[i];
    walked[b->at[i]] = landed[i];
  }
  b->count = 0;
}

}  // namespace

void nearestOpaqueGridWide(const WalkView& w, int32_t left, int32_t top, int32_t columns, int32_t rows,
                           float* outX, float* outY, uint8_t* walked) {
  // The points outside the usual case walk from their start on the wide
  // lanes; those that walk on after their first step go on from there.
  // Both are collected from whole stretches of rows.
  constexpr int32_t kStretch = LaneBatch::kMost / 2;
  LaneBatch fresh;
  LaneBatch onward;
  fresh.count = 0;
  onward.count = 0;
  const auto walkRest = [&]() {
    walkBatch(w, &fresh, false, outX, outY, walked);
    walkBatch(w, &onward, true, outX, outY, walked);
  };
  const auto toRest = [&](int32_t x, int32_t y, int32_t at) {
    fresh.x[fresh.count] = float(x);
    fresh.y[fresh.count] = float(y);
    fresh.at[fresh.count] = at;
    ++fresh.count;
  };
  const auto goOn = [&](int32_t x, int32_t y, float stepX, float stepY, int32_t at) {
    onward.x[onward.count] = stepX;
    onward.y[onward.count] = stepY;
    onward.fromX[onward.count] = float(x);
    onward.fromY[onward.count] = float(y);
    onward.at[onward.count] = at;
    ++onward.count;
  };
  for (int32_t row = 0; row < rows; ++row) {
    const int32_t y = top + row;
    const bool usualRow = gridRowUsual(w, y);
    for (int32_t first = 0; first < columns; first += kStretch) {
      const int32_t end = columns - first < kStretch ? columns : first + kStretch;
      if (fresh.count > LaneBatch::kMost - kStretch || onward.count > LaneBatch::kMost - kStretch) walkRest();
      const int32_t base = row * columns;
      // Groups of eight from the stretch's start; the last group ends at the
      // stretch's end and may overlap the one before, whose lanes it leaves.
      int32_t done = first;
      while (done < end) {
        const int32_t at = end - done < kLanes ? end - kLanes : done;
        if (at < first || !usualRow || !gridGroupUsual(w, left + at)) {
          for (int32_t i = done; i < end && i < at + kLanes; ++i) toRest(left + i, y, base + i);
          done = at < first ? end : at + kLanes;
          continue;
        }
        float groupX[kLanes];
        float groupY[kLanes];
        const int32_t walksOn = gridGroup(w, left + at, y, groupX, groupY);
        for (int32_t i = done; i < at + kLanes; ++i) {
          const int32_t lane = i - at;
          if ((walksOn & (1 << lane)) != 0) {
            goOn(left + i, y, groupX[lane], groupY[lane], base + i);
            continue;
          }
          outX[base + i] = groupX[lane];
          outY[base + i] = groupY[lane];
          walked[base + i] = 1;
        }
        done = at + kLanes;
      }
    }
  }
  walkRest();
}

void nearestOpaqueWideLanes(const WalkView& w, int32_t count, const float* xs, const float* ys, float* outX,
                            float* outY, uint8_t* walked) {
  walkWide(w, count, xs, ys, outX, outY, walked, nullptr, nullptr);
}

#else

// Not built for this target: the compiler cannot be trusted to keep the
// stack aligned for 32-byte vectors, or the target is not x86-64.
bool walkWideLanesBuilt() { return false; }

void nearestOpaqueWideLanes(const WalkView& w, int32_t count, const float* xs, const float* ys, float* outX,
                            float* outY, uint8_t* walked) {
  nearestOpaqueManyOn(kWalkRoadPoints, w, count, xs, ys, outX, outY, walked);
}

void nearestOpaqueGridWide(const WalkView& w, int32_t left, int32_t top, int32_t columns, int32_t rows,
                           float* outX, float* outY, uint8_t* walked) {
  nearestOpaqueGridOn(kWalkRoadPoints, w, left, top, columns, rows, outX, outY, walked);
}

#endif

// The lane road of the walk: eight walks in step, in two groups of four
// lanes, each lane doing the point road's operations for its own point in
// the same order. The field's reads
// are gathered lane by lane; the arithmetic between them runs in the lanes,
// single precision four at a time and double precision two at a time.
#include "grid/opaque_walk.h"

#if (defined(__SSE2__) || defined(_M_X64) || (defined(_M_IX86_FP) && _M_IX86_FP >= 2)) && \
    !defined(MENDARIS_SCALAR_KERNELS)
#include <emmintrin.h>

#include "grid/opaque_walk_lanes.h"

bool walkLanesBuilt() { return true; }

namespace {

constexpr int32_t kLanes = 4;

// The base pixel of a field read in each lane and the fraction, as fieldTap
// finds them for a coordinate from zero on. fieldTap takes a negative one
// below itself; such a read never is the usual case, and a lane with one
// goes to the point road (usualLanes), so its base here does not matter.
struct TapLanes {
  __m128i base;
  __m128 frac;
};

inline TapLanes tapLanes(__m128 f) {
  TapLanes t;
  t.base = _mm_cvttps_epi32(f);
  t.frac = _mm_sub_ps(f, _mm_cvtepi32_ps(t.base));
  return t;
}

inline __m128 lerpLanes(__m128 a, __m128 b, __m128 c, __m128 d, __m128 tx, __m128 ty) {
  const __m128 top = _mm_add_ps(a, _mm_mul_ps(_mm_sub_ps(b, a), tx));
  const __m128 bottom = _mm_add_ps(c, _mm_mul_ps(_mm_sub_ps(d, c), tx));
  return _mm_add_ps(top, _mm_mul_ps(_mm_sub_ps(bottom, top), ty));
}

// In the usual case the five reads of a step lie in the 4 x 4 field pixels
// from (X - 1, Y - 1) on: the three columns of the row reads one apart, the
// three rows of the column reads one apart, all in one tile. The mask of the
// lanes where that holds; the test is the point road's own for such bases.
// The lanes also need the lowest coordinates, left and top (those of tm and
// sm), from zero on: below, fieldTap's base would differ from tapLanes'.
inline int32_t usualLanes(const WalkView& w, __m128 left, __m128 top, const TapLanes& tm, const TapLanes& t0,
                          const TapLanes& tp, const TapLanes& sm, const TapLanes& s0, const TapLanes& sp) {
  const __m128i one = _mm_set1_epi32(1);
  const __m128i minusOne = _mm_set1_epi32(-1);
  __m128i ok = _mm_and_si128(_mm_cmpeq_epi32(tm.base, _mm_sub_epi32(t0.base, one)),
                             _mm_cmpeq_epi32(tp.base, _mm_add_epi32(t0.base, one)));
  ok = _mm_and_si128(ok, _mm_cmpeq_epi32(sm.base, _mm_sub_epi32(s0.base, one)));
  ok = _mm_and_si128(ok, _mm_cmpeq_epi32(sp.base, _mm_add_epi32(s0.base, one)));
  // loX = X - 1 >= 0, hiX = X + 1 < fieldMaxX, and X - 1 and X + 2 in one
  // tile; the same down the rows.
  ok = _mm_and_si128(ok, _mm_cmpgt_epi32(tm.base, minusOne));
  ok = _mm_and_si128(ok, _mm_cmpgt_epi32(sm.base, minusOne));
  ok = _mm_and_si128(ok, _mm_cmpgt_epi32(_mm_set1_epi32(w.fieldMaxX), tp.base));
  ok = _mm_and_si128(ok, _mm_cmpgt_epi32(_mm_set1_epi32(w.fieldMaxY), sp.base));
  ok = _mm_and_si128(ok, _mm_cmpeq_epi32(_mm_srai_epi32(tm.base, kTileShift),
                                         _mm_srai_epi32(_mm_add_epi32(tp.base, one), kTileShift)));
  ok = _mm_and_si128(ok, _mm_cmpeq_epi32(_mm_srai_epi32(sm.base, kTileShift),
                                         _mm_srai_epi32(_mm_add_epi32(sp.base, one), kTileShift)));
  const __m128 fromZero = _mm_and_ps(_mm_cmpge_ps(left, _mm_setzero_ps()), _mm_cmpge_ps(top, _mm_setzero_ps()));
  return w.fieldTiles != nullptr ? _mm_movemask_ps(_mm_castsi128_ps(ok)) & _mm_movemask_ps(fromZero) : 0;
}

inline void storeLanes(__m128i a, __m128i b, int32_t* toA, int32_t* toB) {
  _mm_store_si128(reinterpret_cast<__m128i*>(toA), a);
  _mm_store_si128(reinterpret_cast<__m128i*>(toB), b);
}

// The mask of the lanes in `lanes` whose pixel (x, y) is solid (solidIn). The
// byte map's tile and the place in it are found in the lanes; points outside
// the source are not solid.
inline int32_t solidLanes(const WalkView& w, __m128i x, __m128i y, int32_t lanes) {
  if (!w.opaqueBytes || w.opaqueTiles == nullptr) {
    alignas(16) int32_t xs[kLanes];
    alignas(16) int32_t ys[kLanes];
    storeLanes(x, y, xs, ys);
    return solidLanesEach(w, xs, ys, lanes);
  }
  const __m128i minusOne = _mm_set1_epi32(-1);
  const __m128i inside =
      _mm_and_si128(_mm_and_si128(_mm_cmpgt_epi32(x, minusOne), _mm_cmpgt_epi32(_mm_set1_epi32(w.width), x)),
                    _mm_and_si128(_mm_cmpgt_epi32(y, minusOne), _mm_cmpgt_epi32(_mm_set1_epi32(w.height), y)));
  lanes &= _mm_movemask_ps(_mm_castsi128_ps(inside));
  // Inside the source the map's own clamp only lowers a coordinate past its
  // last pixel; outside lanes read pixel (0, 0) and are not taken.
  auto lower = [](__m128i v, int32_t max) {
    const __m128i limit = _mm_set1_epi32(max);
    const __m128i above = _mm_cmpgt_epi32(v, limit);
    return _mm_or_si128(_mm_and_si128(above, limit), _mm_andnot_si128(above, v));
  };
  x = _mm_and_si128(lower(x, w.opaqueMaxX), inside);
  y = _mm_and_si128(lower(y, w.opaqueMaxY), inside);
  // Tile rows and columns are below 2^16: the 16-bit product is the whole one.
  const __m128i tile = _mm_add_epi32(
      _mm_mullo_epi16(_mm_srai_epi32(y, kTileShift), _mm_set1_epi32(w.opaqueAcross)), _mm_srai_epi32(x, kTileShift));
  const __m128i mask = _mm_set1_epi32(kTileMask);
  const __m128i place = _mm_add_epi32(_mm_slli_epi32(_mm_and_si128(y, mask), kTileShift), _mm_and_si128(x, mask));
  alignas(16) int32_t tiles[kLanes];
  alignas(16) int32_t places[kLanes];
  storeLanes(tile, place, tiles, places);
  return solidBytes<kLanes>(w, tiles, places, lanes);
}

// The lanes run as groups of four, each group a chain of steps of its own
// that the processor overlaps with the others'.
constexpr int32_t kGroups = 2;
// A group's step up to its field reads: the taps, and the lanes it leaves to
// the point road (a reflection, an unusual read).
struct GroupStep {
  __m128d xLow, xHigh, yLow, yHigh;
  TapLanes tm, t0, tp, sm, s0, sp;
  int32_t left;
  const uint8_t* blocks[kLanes];
};

void beginStep(const WalkView& w, const float* lx, const float* ly, int32_t busy, GroupStep* g) {
  const __m128 x = _mm_load_ps(lx);
  const __m128 y = _mm_load_ps(ly);
  // A point that the step would reflect goes to the point road. The edges
  // are whole numbers, exact in single precision as in double.
  __m128 reflects = _mm_or_ps(_mm_cmplt_ps(x, _mm_set1_ps(-1.0f)), _mm_cmplt_ps(y, _mm_set1_ps(-1.0f)));
  reflects = _mm_or_ps(reflects, _mm_cmpgt_ps(x, _mm_set1_ps(float(w.width))));
  reflects = _mm_or_ps(reflects, _mm_cmpgt_ps(y, _mm_set1_ps(float(w.height))));
  g->xLow = _mm_cvtps_pd(x);
  g->xHigh = _mm_cvtps_pd(_mm_movehl_ps(x, x));
  g->yLow = _mm_cvtps_pd(y);
  g->yHigh = _mm_cvtps_pd(_mm_movehl_ps(y, y));
  // The read coordinates, float(double(x) + offset) for offsets 7.5, 8.5
  // and 9.5, come straight from a single-precision sum: both operands are
  // floats, and a sum rounded first to double and then to float gives the
  // once-rounded float sum (double holds more than twice float's bits and two).
  const float margin = float(kFieldMargin) - 0.5f;
  const __m128 xm = _mm_add_ps(x, _mm_set1_ps(margin - 1.0f));
  const __m128 ym = _mm_add_ps(y, _mm_set1_ps(margin - 1.0f));
  g->tm = tapLanes(xm);
  g->t0 = tapLanes(_mm_add_ps(x, _mm_set1_ps(margin)));
  g->tp = tapLanes(_mm_add_ps(x, _mm_set1_ps(margin + 1.0f)));
  g->sm = tapLanes(ym);
  g->s0 = tapLanes(_mm_add_ps(y, _mm_set1_ps(margin)));
  g->sp = tapLanes(_mm_add_ps(y, _mm_set1_ps(margin + 1.0f)));
  g->left = busy & (_mm_movemask_ps(reflects) | ~usualLanes(w, xm, ym, g->tm, g->t0, g->tp, g->sm, g->s0, g->sp));
  alignas(16) int32_t columns[kLanes];
  alignas(16) int32_t rows[kLanes];
  storeLanes(g->tm.base, g->sm.base, columns, rows);
  // A lane that does not take the usual case reads zeros.
  for (int32_t lane = 0; lane < kLanes; ++lane) {
    g->blocks[lane] = ((busy & ~g->left) & (1 << lane)) != 0 ? usualBlock(w, columns[lane], rows[lane])
                                                             : reinterpret_cast<const uint8_t*>(kZeroBlock);
  }
}

// The rest of a group's step: the reads, the gradient, the next point, and
// the mask of the busy lanes not left over whose point stands on a solid pixel.
int32_t endStep(const WalkView& w, const GroupStep& g, int32_t busy, float* nextX, float* nextY) {
  // Each lane's four rows of four, turned so that a vector holds one pixel
  // of the block for all four lanes: block[r][c] is row Y - 1 + r, column
  // X - 1 + c.
  __m128 block[4][4];
  for (int32_t r = 0; r < 4; ++r) {
    __m128 line[kLanes];
    for (int32_t lane = 0; lane < kLanes; ++lane) {
      line[lane] = _mm_loadu_ps(reinterpret_cast<const float*>(g.blocks[lane] + size_t(r) * kTileWidth * 4u));
    }
    _MM_TRANSPOSE4_PS(line[0], line[1], line[2], line[3]);
    for (int32_t c = 0; c < 4; ++c) block[r][c] = line[c];
  }
  const __m128 right = lerpLanes(block[1][2], block[1][3], block[2][2], block[2][3], g.tp.frac, g.s0.frac);
  const __m128 leftRead = lerpLanes(block[1][0], block[1][1], block[2][0], block[2][1], g.tm.frac, g.s0.frac);
  const __m128 down = lerpLanes(block[2][1], block[2][2], block[3][1], block[3][2], g.t0.frac, g.sp.frac);
  const __m128 up = lerpLanes(block[0][1], block[0][2], block[1][1], block[1][2], g.t0.frac, g.sm.frac);
  const __m128 here = lerpLanes(block[1][1], block[1][2], block[2][1], block[2][2], g.t0.frac, g.s0.frac);
  const __m128 gx = _mm_sub_ps(right, leftRead);
  const __m128 gy = _mm_sub_ps(down, up);

  // Two lanes at a time in double: the normalised gradient, and the step of
  // twice the distance against it.
  auto half = [](__m128d gxd, __m128d gyd, __m128d dd, __m128d xd, __m128d yd, __m128d* nx2, __m128d* ny2) {
    const __m128d n = _mm_div_pd(_mm_set1_pd(1.0),
                                 _mm_sqrt_pd(_mm_add_pd(_mm_mul_pd(gxd, gxd), _mm_mul_pd(gyd, gyd))));
    const __m128d step = _mm_mul_pd(_mm_set1_pd(2.0), dd);
    *nx2 = _mm_sub_pd(xd, _mm_mul_pd(step, _mm_mul_pd(gxd, n)));
    *ny2 = _mm_sub_pd(yd, _mm_mul_pd(step, _mm_mul_pd(gyd, n)));
  };
  __m128d nxLow, nyLow, nxHigh, nyHigh;
  half(_mm_cvtps_pd(gx), _mm_cvtps_pd(gy), _mm_cvtps_pd(here), g.xLow, g.yLow, &nxLow, &nyLow);
  half(_mm_cvtps_pd(_mm_movehl_ps(gx, gx)), _mm_cvtps_pd(_mm_movehl_ps(gy, gy)),
       _mm_cvtps_pd(_mm_movehl_ps(here, here)), g.xHigh, g.yHigh, &nxHigh, &nyHigh);
  const __m128 nx = _mm_movelh_ps(_mm_cvtpd_ps(nxLow), _mm_cvtpd_ps(nxHigh));
  const __m128 ny = _mm_movelh_ps(_mm_cvtpd_ps(nyLow), _mm_cvtpd_ps(nyHigh));
  _mm_storeu_ps(nextX, nx);
  _mm_storeu_ps(nextY, ny);
  return solidLanes(w, _mm_cvttps_epi32(nx), _mm_cvttps_epi32(ny), busy & ~g.left);
}

}  // namespace

void nearestOpaqueLanes(const WalkView& w, int32_t count, const float* xs, const float* ys, float* outX,
                        float* outY, uint8_t* walked) {
  // The two halves of the step as lambdas, so that they are inlined into the walk.
  walkInLanes<kLanes, kGroups, GroupStep>(
      w, count, xs, ys, outX, outY, walked, [](const auto&... a) { beginStep(a...); },
      [](const auto&... a) { return endStep(a...); });
}

#else

bool walkLanesBuilt() { return false; }

void nearestOpaqueLanes(const WalkView& w, int32_t count, const float* xs, const float* ys, float* outX,
                        float* outY, uint8_t* walked) {
  nearestOpaqueManyOn(kWalkRoadPoints, w, count, xs, ys, outX, outY, walked);
}

#endif

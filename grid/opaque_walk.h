// Where a corner point of the sample grid lands: a point on a solid pixel stays
// where it is; a point on a transparent one is walked downhill on the signed
// distance field (sphere tracing in two dimensions) until it stands on a solid
// pixel, for at most kWalkSteps steps.
//
// Points are floats in pixels of level 0 of the source: x = 3.0 names column 3.
// The stores come from the process-wide blocks: the source's level-0 size from
// the instance block, the solid map and the distance field from the parameter
// block. Everything here is a pure read of stores that nobody writes during
// the render, so any number of workers may walk at once.
#pragma once

#include <stdint.h>

#include "store/pixel_store.h"
#include "store/resample.h"

constexpr int32_t kWalkSteps = 20;
// Source pixel (x, y) lies at (x + 9, y + 9) of the distance field.
constexpr int32_t kFieldMargin = 9;

// Unit coordinates of a grid point, all in single precision: with rate 1 and
// no offset, u = (x + 1) / width, v = (y + 1) / height (a grid point stands at
// the lower right corner of its pixel). s and t are the centred, aspect-true
// coordinates, which this filter computes and does not use.
void pointToUnit(float x, float y, int32_t sampleRate, int32_t offsetX, int32_t offsetY, const PixelStore* store,
                 float* u, float* v, float* s, float* t);

// The u and v of pointToUnit alone, inline for the grid's loops: the same
// single-precision operations in the same order.
inline void pointToUnitUV(float x, float y, float rate, float offsetX, float offsetY, float halfPixelU,
                          float halfPixelV, float* u, float* v) {
  float fx = x * rate + offsetX + 0.5f;
  float fy = y * rate + offsetY + 0.5f;
  *u = (fx + 1.0f + fx) * halfPixelU;
  *v = (fy + 1.0f + fy) * halfPixelV;
}

// What the walks read, taken from the blocks and the stores once for many
// walks (a render unit's worth): the source's size, and the solid map and
// distance field with their level-0 tile tables. Valid while the stores stay
// as they are, which holds for the whole render.
struct WalkView {
  const PixelStore* source;
  const PixelStore* opaque;
  const PixelStore* field;
  int32_t width;  // level 0 of the source
  int32_t height;
  // The solid map, read straight from its tiles when it is the usual byte
  // store; any other kind goes through the store's own reader.
  bool opaqueBytes;
  const StoreTile* opaqueTiles;  // level 0's first tile; null when the store has none
  int32_t opaqueAcross;
  int32_t opaqueMaxX;
  int32_t opaqueMaxY;
  // The distance field, level 0.
  const StoreTile* fieldTiles;  // null when the store has none
  int32_t fieldAcross;
  int32_t fieldMaxX;
  int32_t fieldMaxY;
};

// Whether a solid-map byte's unit-range value, as the store's reader gives it
// (value * 0.003921568627451 rounded to single), is above 0.5: from 128 on
// (127 gives 0.498, 128 gives 0.502).
inline bool solidByte(uint8_t value) { return value >= 128; }

// Whether pixel (x, y) lies in the source and is solid. The byte map is read
// from its tile directly, clamped to the map's own level as its reader clamps.
inline bool solidIn(const WalkView& w, int32_t x, int32_t y) {
  if (uint32_t(x) >= uint32_t(w.width) || uint32_t(y) >= uint32_t(w.height)) return false;
  if (!w.opaqueBytes) return readUnitScalar(x, y, w.opaque, 0) > 0.5f;
  if (w.opaqueTiles == nullptr) return false;
  x = clampToLevel(x, w.opaqueMaxX);
  y = clampToLevel(y, w.opaqueMaxY);
  const StoreTile& tile = w.opaqueTiles[(y >> kTileShift) * w.opaqueAcross + (x >> kTileShift)];
  return solidByte(tile.pixels[(y & kTileMask) * kTileWidth + (x & kTileMask)]);
}

inline bool solidClampedIn(const WalkView& w, int32_t x, int32_t y) {
  x = clampToLevel(x, w.width - 1);
  y = clampToLevel(y, w.height - 1);
  return solidIn(w, x, y);
}

// The view of the stores that the blocks in hostContext name. The source, the
// solid map and the field must be there.
void walkViewFromBlocks(WalkView* view);

// nearestOpaque through a view taken beforehand: the same result.
bool nearestOpaqueIn(const WalkView& view, float x, float y, float* outX, float* outY);

// 1.0 when pixel (x, y) lies in the source and is solid, else 0.0.
float opaqueAt(int32_t x, int32_t y);
// opaqueAt of (x, y) limited to the source's level 0.
float opaqueAtClamped(int32_t x, int32_t y);

// One step of the walk: reflect into -1..width, -1..height, stop on a solid
// pixel, else step twice the field's distance against its gradient. True when
// the point it gives stands on a solid pixel.
bool walkStep(float x, float y, float* outX, float* outY);

// The landing point of (x, y). False only for a point outside the image whose
// clamped neighbour is solid: it is taken as it stands, so that the grid stays
// smooth across the image's edge. Otherwise true, whether or not the walk
// arrived within its steps.
bool nearestOpaque(float x, float y, float* outX, float* outY);

// ---- the roads of the walk ------------------------------------------------------------------
// - The point road walks one point after another (nearestOpaqueIn): the road
//   the other reproduces.
// - The lane road (opaque_walk_sse2.cpp) keeps eight walks in step in SSE2
//   lanes, a finished walk's lane taken at once by the next point; the wide
//   lane road (opaque_walk_avx2.cpp) the same with eight walks in AVX2
//   lanes, on a processor that has them. A lane whose step leaves the usual
//   case (a reflection at the image's edge, which the wide lanes take
//   themselves, a field read across a tile's edge, a NaN) takes that step on
//   the point road. Every value comes from the same operations in the same
//   order, or from ones that round to the same bits, so every road lands
//   every point on the same bits. A walk that stands still
//   or swings between two points ends early on the point its last step
//   would give.

enum WalkRoad : int32_t {
  kWalkRoadPoints = 0,
  kWalkRoadLanes = 1,
  kWalkRoadWideLanes = 2,
};

// Whether the lane road is built into this module.
bool walkLanesBuilt();
// Whether the wide lane road is built into this module.
bool walkWideLanesBuilt();
// Whether `road` is built and this processor can take it.
bool walkRoadRuns(WalkRoad road);
// The fastest road that runs: the one place the road is chosen.
WalkRoad walkRoadFor();
// nearestOpaqueIn of points (xs[i], ys[i]) on `road`: landing points in
// outX, outY, its answer in walked (1 or 0).
void nearestOpaqueManyOn(WalkRoad road, const WalkView& view, int32_t count, const float* xs, const float* ys,
                         float* outX, float* outY, uint8_t* walked);
// The same for the integer points (left + i, top + j), i below columns and j
// below rows, their answers in that order, row after row: on the wide lane
// road a row's points go eight side by side through the first step (the
// step that almost every walk ends with), and only the walks that go on take
// the lanes one by one.
void nearestOpaqueGridOn(WalkRoad road, const WalkView& view, int32_t left, int32_t top, int32_t columns,
                         int32_t rows, float* outX, float* outY, uint8_t* walked);
void nearestOpaqueGridWide(const WalkView& view, int32_t left, int32_t top, int32_t columns, int32_t rows,
                           float* outX, float* outY, uint8_t* walked);
void nearestOpaqueLanes(const WalkView& view, int32_t count, const float* xs, const float* ys, float* outX,
                        float* outY, uint8_t* walked);
void nearestOpaqueWideLanes(const WalkView& view, int32_t count, const float* xs, const float* ys, float* outX,
                            float* outY, uint8_t* walked);

// The point road's pieces, for the lane road. landsWhereItStands: whether
// (x, y) is its own landing point (walked then says what nearestOpaqueIn
// answers); otherwise it walks, every step with knownBare set.
inline bool landsWhereItStands(const WalkView& w, float x, float y, bool* walked) {
  const int32_t xi = truncFloat(x);
  const int32_t yi = truncFloat(y);
  const bool outside = uint32_t(xi) >= uint32_t(w.width) || uint32_t(yi) >= uint32_t(w.height);
  if (outside && solidClampedIn(w, xi, yi)) {
    *walked = false;
    return true;
  }
  // A point inside the source is never reflected, so the first step's test is
  // the solid test of (xi, yi) itself: a corner on a solid pixel stays, for the
  // cost of one read of the map. A point outside is never solid either: the
  // first step need not look again.
  *walked = true;
  return !outside && solidIn(w, xi, yi);
}

// One step from (x, y); knownBare: the caller found (x, y) bare already.
bool walkStepIn(const WalkView& view, float x, float y, float* outX, float* outY, bool knownBare);

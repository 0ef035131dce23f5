#include "grid/opaque_walk.h"

#include <math.h>

#include "host/blocks.h"
#include "host/plugin_main.h"
#include "store/pixel_store.h"
#include "store/portable_math.h"
#include "store/resample.h"

namespace {

// One axis of a bilinear read of the field: the base pixel, floor-like but
// with an exact negative integer taken one below itself, and the fraction.
struct FieldTap {
  int32_t base;
  float frac;
};

inline FieldTap fieldTap(float f) {
  FieldTap t;
  t.base = f >= 0.0f ? truncFloat(f) : truncFloat(f - 1.0f);
  t.frac = f - float(t.base);
  return t;
}

inline float lerpCorners(float a, float b, float c, float d, float tx, float ty) {
  float top = a + (b - a) * tx;
  float bottom = c + (d - c) * tx;
  return top + (bottom - top) * ty;
}

// The five field reads of a step: at X + 1, X - 1 on row Y, at Y + 1, Y - 1 on
// column X, and at (X, Y) itself. Each is the store's bilinear read at the
// float coordinates. The usual case, all 3 x 3 positions with their right
// and lower neighbours inside the field and inside one tile, reads the tile
// directly; anywhere else the store's reader does it, edges and all.
struct FieldReads {
  float right;
  float left;
  float down;
  float up;
  float here;
};

inline FieldReads readField(const WalkView& w, float xm, float x0, float xp, float ym, float y0, float yp) {
  FieldReads r;
  const FieldTap tm = fieldTap(xm);
  const FieldTap t0 = fieldTap(x0);
  const FieldTap tp = fieldTap(xp);
  const FieldTap sm = fieldTap(ym);
  const FieldTap s0 = fieldTap(y0);
  const FieldTap sp = fieldTap(yp);
  const int32_t loX = tm.base < t0.base ? tm.base : t0.base;
  const int32_t hiX = tp.base > t0.base ? tp.base : t0.base;
  const int32_t loY = sm.base < s0.base ? sm.base : s0.base;
  const int32_t hiY = sp.base > s0.base ? sp.base : s0.base;
  if (w.fieldTiles != nullptr && loX >= 0 && loY >= 0 && hiX < w.fieldMaxX && hiY < w.fieldMaxY &&
      (loX >> kTileShift) == ((hiX + 1) >> kTileShift) && (loY >> kTileShift) == ((hiY + 1) >> kTileShift) &&
      tm.base <= hiX && tp.base >= loX && sm.base <= hiY && sp.base >= loY) {
    const StoreTile& tile = w.fieldTiles[(loY >> kTileShift) * w.fieldAcross + (loX >> kTileShift)];
    const uint8_t* pixels = tile.pixels;
    auto at = [pixels](int32_t x, int32_t y) {
      return pixels + size_t(((y & kTileMask) * kTileWidth + (x & kTileMask))) * 4u;
    };
    auto read = [](const uint8_t* p, float tx, float ty) {
      return lerpCorners(loadFloat(p), loadFloat(p + 4), loadFloat(p + kTileWidth * 4),
                         loadFloat(p + kTileWidth * 4 + 4), tx, ty);
    };
    r.right = read(at(tp.base, s0.base), tp.frac, s0.frac);
    r.left = read(at(tm.base, s0.base), tm.frac, s0.frac);
    r.down = read(at(t0.base, sp.base), t0.frac, sp.frac);
    r.up = read(at(t0.base, sm.base), t0.frac, sm.frac);
    r.here = read(at(t0.base, s0.base), t0.frac, s0.frac);
    return r;
  }
  r.right = readBilinear(xp, y0, w.field, 0);
  r.left = readBilinear(xm, y0, w.field, 0);
  r.down = readBilinear(x0, yp, w.field, 0);
  r.up = readBilinear(x0, ym, w.field, 0);
  r.here = readBilinear(x0, y0, w.field, 0);
  return r;
}

// One step. `knownBare` says that the caller has just found the point itself
// bare (the previous step's last test): unless the reflection moves it, the
// test at the head of the step would give the same answer, and is skipped.
bool stepIn(const WalkView& w, float x, float y, float* outX, float* outY, bool knownBare) {
  // Reflect once per side, in this order, the tests strict: a point at exactly
  // -1 or exactly at the width stays.
  const double width = double(w.width);
  const double height = double(w.height);
  bool moved = false;
  if (x < -1.0f) {
    x = float(2.0 * -1.0 - double(x));
    moved = true;
  }
  if (y < -1.0f) {
    y = float(2.0 * -1.0 - double(y));
    moved = true;
  }
  if (double(x) > width) {
    x = float(2.0 * width - double(x));
    moved = true;
  }
  if (double(y) > height) {
    y = float(2.0 * height - double(y));
    moved = true;
  }

  if ((moved || !knownBare) && solidIn(w, truncFloat(x), truncFloat(y))) {
    *outX = x;
    *outY = y;
    return true;
  }

  // Field position: the field's margin of 9, less half a pixel, so that the
  // bilinear read centres on the pixel. Each read's coordinates are rounded to
  // float from the double sums.
  const double fx = double(x) + (double(kFieldMargin) - 0.5);
  const double fy = double(y) + (double(kFieldMargin) - 0.5);
  const FieldReads f =
      readField(w, float(fx - 1.0), float(fx), float(fx + 1.0), float(fy - 1.0), float(fy), float(fy + 1.0));
  // Central differences over two field pixels, subtracted in single precision.
  const float gx = f.right - f.left;
  const float gy = f.down - f.up;
  // No guard: a flat spot gives NaN, and the NaN stays in the point.
  const double n = 1.0 / sqrt(double(gx) * double(gx) + double(gy) * double(gy));
  const double nx = double(gx) * n;
  const double ny = double(gy) * n;
  const float d = f.here;
  // The step is twice the distance, against the gradient; the factor is part
  // of the result, not a tuning knob.
  const float nextX = float(double(x) - 2.0 * double(d) * nx);
  const float nextY = float(double(y) - 2.0 * double(d) * ny);
  *outX = nextX;
  *outY = nextY;
  return solidIn(w, truncFloat(nextX), truncFloat(nextY));
}

}  // namespace

void walkViewFromBlocks(WalkView* view) {
  const PixelStore* source = &hostContext.instanceBlock->sourceStore;
  const PixelStore* opaque = hostContext.paramBlock->opaqueStore;
  const PixelStore* field = hostContext.paramBlock->distanceStore;
  view->source = source;
  view->opaque = opaque;
  view->field = field;
  view->width = source->levelWidth[0];
  view->height = source->levelHeight[0];
  view->opaqueBytes = opaque->kind == kKindGray8;
  view->opaqueTiles = opaque->tiles != nullptr ? opaque->tiles + opaque->firstTile[0] : nullptr;
  view->opaqueAcross = opaque->tilesAcross[0];
  view->opaqueMaxX = opaque->levelMaxX[0];
  view->opaqueMaxY = opaque->levelMaxY[0];
  view->fieldTiles = field->tiles != nullptr ? field->tiles + field->firstTile[0] : nullptr;
  view->fieldAcross = field->tilesAcross[0];
  view->fieldMaxX = field->levelMaxX[0];
  view->fieldMaxY = field->levelMaxY[0];
}

void pointToUnit(float x, float y, int32_t sampleRate, int32_t offsetX, int32_t offsetY, const PixelStore* store,
                 float* u, float* v, float* s, float* t) {
  float fx = x * float(sampleRate) + float(offsetX) + 0.5f;
  float fy = y * float(sampleRate) + float(offsetY) + 0.5f;
  *u = (fx + 1.0f + fx) * store->halfPixelU;
  *v = (fy + 1.0f + fy) * store->halfPixelV;
  *s = (*u - 0.5f) * store->aspectX;
  *t = (*v - 0.5f) * store->aspectY;
}

float opaqueAt(int32_t x, int32_t y) {
  WalkView w;
  walkViewFromBlocks(&w);
  return solidIn(w, x, y) ? 1.0f : 0.0f;
}

float opaqueAtClamped(int32_t x, int32_t y) {
  WalkView w;
  walkViewFromBlocks(&w);
  return solidClampedIn(w, x, y) ? 1.0f : 0.0f;
}

bool walkStep(float x, float y, float* outX, float* outY) {
  WalkView w;
  walkViewFromBlocks(&w);
  return stepIn(w, x, y, outX, outY, false);
}

bool walkStepIn(const WalkView& w, float x, float y, float* outX, float* outY, bool knownBare) {
  return stepIn(w, x, y, outX, outY, knownBare);
}

bool nearestOpaqueIn(const WalkView& w, float x, float y, float* outX, float* outY) {
  bool walked;
  if (landsWhereItStands(w, x, y, &walked)) {
    *outX = x;
    *outY = y;
    return walked;
  }
  // Every later step starts where the one before found no solid pixel.
  float cx = x;
  float cy = y;
  for (int32_t step = 0; step < kWalkSteps; ++step) {
    float nx;
    float ny;
    const bool arrived = stepIn(w, cx, cy, &nx, &ny, true);
    cx = nx;
    cy = ny;
    if (arrived) break;
  }
  *outX = cx;
  *outY = cy;
  return true;
}

bool nearestOpaque(float x, float y, float* outX, float* outY) {
  WalkView w;
  walkViewFromBlocks(&w);
  return nearestOpaqueIn(w, x, y, outX, outY);
}

bool walkRoadRuns(WalkRoad road) {
  switch (road) {
    case kWalkRoadPoints:
      return true;
    case kWalkRoadLanes:
      return walkLanesBuilt();
    case kWalkRoadWideLanes:
#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
      // The processor's word, and the system's that it keeps the wide registers.
      return walkWideLanesBuilt() && __builtin_cpu_supports("avx2");
#else
      return false;
#endif
  }
  return false;
}

WalkRoad walkRoadFor() {
  if (walkRoadRuns(kWalkRoadWideLanes)) return kWalkRoadWideLanes;
  return walkRoadRuns(kWalkRoadLanes) ? kWalkRoadLanes : kWalkRoadPoints;
}

void nearestOpaqueManyOn(WalkRoad road, const WalkView& w, int32_t count, const float* xs, const float* ys,
                         float* outX, float* outY, uint8_t* walked) {
  if (road == kWalkRoadWideLanes && walkRoadRuns(kWalkRoadWideLanes)) {
    nearestOpaqueWideLanes(w, count, xs, ys, outX, outY, walked);
    return;
  }
  if (road == kWalkRoadLanes && walkLanesBuilt()) {
    nearestOpaqueLanes(w, count, xs, ys, outX, outY, walked);
    return;
  }
  for (int32_t i = 0; i < count; ++i) walked[i] = nearestOpaqueIn(w, xs[i], ys[i], &outX[i], &outY[i]) ? 1 : 0;
}

void nearestOpaqueGridOn(WalkRoad road, const WalkView& w, int32_t left, int32_t top, int32_t columns, int32_t rows,
                         float* outX, float* outY, uint8_t* walked) {
  if (road == kWalkRoadWideLanes && walkRoadRuns(kWalkRoadWideLanes)) {
    nearestOpaqueGridWide(w, left, top, columns, rows, outX, outY, walked);
    return;
  }
  // The other roads take the points a stretch of a row at a time.
  constexpr int32_t kStretch = 256;
  float xs[kStretch];
  float ys[kStretch];
  for (int32_t row = 0; row < rows; ++row) {
    for (int32_t first = 0; first < columns; first += kStretch) {
      const int32_t count = columns - first < kStretch ? columns - first : kStretch;
      for (int32_t i = 0; i < count; ++i) {
        xs[i] = float(left + first + i);
        ys[i] = float(top + row);
      }
      const size_t at = size_t(row) * size_t(columns) + size_t(first);
      nearestOpaqueManyOn(road, w, count, xs, ys, outX + at, outY + at, walked + at);
    }
  }
}

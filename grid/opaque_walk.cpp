#include "grid/opaque_walk.h"

#include <math.h>

#include "host/blocks.h"
#include "host/plugin_main.h"
#include "store/pixel_store.h"
#include "store/portable_math.h"

namespace {

// The three stores a walk reads, fetched once per walk.
struct WalkStores {
  const PixelStore* source;
  const PixelStore* opaque;
  const PixelStore* field;
};

inline WalkStores walkStores() {
  WalkStores w;
  w.source = &hostContext.instanceBlock->sourceStore;
  w.opaque = hostContext.paramBlock->opaqueStore;
  w.field = hostContext.paramBlock->distanceStore;
  return w;
}

inline float opaqueIn(const WalkStores& w, int32_t x, int32_t y) {
  if (pointOutside(x, y, w.source, 0)) return 0.0f;
  return readUnitScalar(x, y, w.opaque, 0) > 0.5f ? 1.0f : 0.0f;
}

inline float opaqueClampedIn(const WalkStores& w, int32_t x, int32_t y) {
  x = clampToLevel(x, w.source->levelWidth[0] - 1);
  y = clampToLevel(y, w.source->levelHeight[0] - 1);
  return opaqueIn(w, x, y);
}

inline float fieldAt(const WalkStores& w, double fx, double fy) {
  return readBilinear(float(fx), float(fy), w.field, 0);
}

bool stepIn(const WalkStores& w, float x, float y, float* outX, float* outY) {
  // Reflect once per side, in this order, the tests strict: a point at exactly
  // -1 or exactly at the width stays.
  double width = double(w.source->levelWidth[0]);
  double height = double(w.source->levelHeight[0]);
  if (x < -1.0f) x = float(2.0 * -1.0 - double(x));
  if (y < -1.0f) y = float(2.0 * -1.0 - double(y));
  if (double(x) > width) x = float(2.0 * width - double(x));
  if (double(y) > height) y = float(2.0 * height - double(y));

  if (opaqueIn(w, truncToInt32(x), truncToInt32(y)) > 0.5f) {
    *outX = x;
    *outY = y;
    return true;
  }

  // Field position: the field's margin of 9, less half a pixel, so that the
  // bilinear read centres on the pixel.
  double fx = double(x) + (double(kFieldMargin) - 0.5);
  double fy = double(y) + (double(kFieldMargin) - 0.5);
  // Central differences over two field pixels, subtracted in single precision.
  float gx = fieldAt(w, fx + 1.0, fy) - fieldAt(w, fx - 1.0, fy);
  float gy = fieldAt(w, fx, fy + 1.0) - fieldAt(w, fx, fy - 1.0);
  // No guard: a flat spot gives NaN, and the NaN stays in the point.
  double n = 1.0 / sqrt(double(gx) * double(gx) + double(gy) * double(gy));
  double nx = double(gx) * n;
  double ny = double(gy) * n;
  float d = fieldAt(w, fx, fy);
  // The step is twice the distance, against the gradient; the factor is part
  // of the result, not a tuning knob.
  float nextX = float(double(x) - 2.0 * double(d) * nx);
  float nextY = float(double(y) - 2.0 * double(d) * ny);
  *outX = nextX;
  *outY = nextY;
  return opaqueIn(w, truncToInt32(nextX), truncToInt32(nextY)) > 0.5f;
}

}  // namespace

void pointToUnit(float x, float y, int32_t sampleRate, int32_t offsetX, int32_t offsetY, const PixelStore* store,
                 float* u, float* v, float* s, float* t) {
  float fx = x * float(sampleRate) + float(offsetX) + 0.5f;
  float fy = y * float(sampleRate) + float(offsetY) + 0.5f;
  *u = (fx + 1.0f + fx) * store->halfPixelU;
  *v = (fy + 1.0f + fy) * store->halfPixelV;
  *s = (*u - 0.5f) * store->aspectX;
  *t = (*v - 0.5f) * store->aspectY;
}

float opaqueAt(int32_t x, int32_t y) { return opaqueIn(walkStores(), x, y); }

float opaqueAtClamped(int32_t x, int32_t y) { return opaqueClampedIn(walkStores(), x, y); }

bool walkStep(float x, float y, float* outX, float* outY) { return stepIn(walkStores(), x, y, outX, outY); }

bool nearestOpaque(float x, float y, float* outX, float* outY) {
  WalkStores w = walkStores();
  int32_t xi = truncToInt32(x);
  int32_t yi = truncToInt32(y);
  if (pointOutside(xi, yi, w.source, 0) && opaqueClampedIn(w, xi, yi) == 1.0f) {
    *outX = x;
    *outY = y;
    return false;
  }
  float cx = x;
  float cy = y;
  for (int32_t step = 0; step < kWalkSteps; ++step) {
    float nx;
    float ny;
    bool arrived = stepIn(w, cx, cy, &nx, &ny);
    cx = nx;
    cy = ny;
    if (arrived) break;
  }
  *outX = cx;
  *outY = cy;
  return true;
}

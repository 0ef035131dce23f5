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

struct PixelStore;

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

struct StoreTile;

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

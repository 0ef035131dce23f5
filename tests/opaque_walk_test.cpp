// The nearest-opaque walk: unit coordinates of grid points, the solid-pixel
// tests and their thresholds, the reflection into the image's range, the step
// of twice the distance on hand-made linear fields, the rules for points just
// outside the image, the limit of 20 steps and the NaN of a flat field.
#include <gtest/gtest.h>

#include <math.h>
#include <stdint.h>
#include <stdlib.h>

#include "grid/opaque_walk.h"
#include "host/blocks.h"
#include "host/plugin_main.h"
#include "store/pixel_store.h"

namespace {

// The stores a walk reads, hung from blocks of the test's own in hostContext.
struct WalkWorld {
  InstanceBlock* instance;
  ParamBlock* params;
  int32_t width;
  int32_t height;

  WalkWorld(int32_t w, int32_t h) : width(w), height(h) {
    instance = static_cast<InstanceBlock*>(calloc(1, sizeof(InstanceBlock)));
    params = static_cast<ParamBlock*>(calloc(1, sizeof(ParamBlock)));
    pixelStoreInit(&instance->sourceStore);
    EXPECT_TRUE(pixelStoreBuild(&instance->sourceStore, w, h, kKindRgba8, 0, false));
    params->opaqueStore = pixelStoreCreate(w, h, kKindGray8, 0, false);
    params->distanceStore = pixelStoreCreate(w + 18, h + 18, kKindFloat, 0, true);
    params->sampleRate = 1;
    hostContext.instanceBlock = instance;
    hostContext.paramBlock = params;
  }
  ~WalkWorld() {
    pixelStoreDestroy(&params->opaqueStore);
    pixelStoreDestroy(&params->distanceStore);
    pixelStoreRelease(&instance->sourceStore);
    hostContext.instanceBlock = nullptr;
    hostContext.paramBlock = nullptr;
    free(params);
    free(instance);
  }

  PixelStore* source() { return &instance->sourceStore; }
  PixelStore* opaque() { return params->opaqueStore; }
  PixelStore* field() { return params->distanceStore; }

  void setOpaque(int32_t x, int32_t y, int32_t value) { writeU8(x, y, opaque(), 0, value); }

  // Columns from `edge` on solid, the others bare.
  void solidFromColumn(int32_t edge) {
    for (int32_t y = 0; y < height; ++y)
      for (int32_t x = 0; x < width; ++x) setOpaque(x, y, x >= edge ? 255 : 0);
  }

  // The field value at every field cell (column fx, row fy, both including the margin).
  template <class F>
  void fillField(F f) {
    PixelStore* s = field();
    for (int32_t fy = 0; fy < s->levelHeight[0]; ++fy)
      for (int32_t fx = 0; fx < s->levelWidth[0]; ++fx) writeFloat(fx, fy, s, 0, f(fx, fy));
  }

  // The field of a vertical edge before `edge`: the last bare column holds 0,
  // each column further out one more, the solid ones -1, -2, ...: at source
  // column x the value is edge - 1 - x, and field column fx is x + 9.
  void edgeField(int32_t edge) {
    fillField([edge](int32_t fx, int32_t) { return float(edge - 1 - (fx - kFieldMargin)); });
  }
  // The same edge along rows: solid from row `edge` down.
  void edgeFieldRows(int32_t edge) {
    fillField([edge](int32_t, int32_t fy) { return float(edge - 1 - (fy - kFieldMargin)); });
  }
};

// ---- unit coordinates ---------------------------------------------------------------------

TEST(PointToUnit, GridPointIsLowerRightCornerOfItsPixel) {
  WalkWorld world(16, 8);
  float u, v, s, t;
  pointToUnit(3.0f, 5.0f, 1, 0, 0, world.source(), &u, &v, &s, &t);
  EXPECT_EQ(u, 4.0f / 16.0f);
  EXPECT_EQ(v, 6.0f / 8.0f);
  // Centred and aspect-true: the wide side is stretched by width / height.
  EXPECT_EQ(s, (0.25f - 0.5f) * 2.0f);
  EXPECT_EQ(t, 0.25f);

  // The point half a pixel up and left has the pixel's centre.
  pointToUnit(2.5f, 4.5f, 1, 0, 0, world.source(), &u, &v, &s, &t);
  EXPECT_EQ(u, 3.5f / 16.0f);
  EXPECT_EQ(v, 5.5f / 8.0f);

  // The grid's outermost corner before the image.
  pointToUnit(-1.0f, -1.0f, 1, 0, 0, world.source(), &u, &v, &s, &t);
  EXPECT_EQ(u, 0.0f);
  EXPECT_EQ(v, 0.0f);
}

TEST(PointToUnit, RateAndOffsetsScaleBeforeTheHalfPixel) {
  WalkWorld world(16, 8);
  float u, v, s, t;
  // fx = 3 * 2 + 1 + 0.5 = 7.5, u = 16 * (0.5 / 16); fy = 5 * 2 + 3 + 0.5, v = 28 * (0.5 / 8).
  pointToUnit(3.0f, 5.0f, 2, 1, 3, world.source(), &u, &v, &s, &t);
  EXPECT_EQ(u, 0.5f);
  EXPECT_EQ(v, 1.75f);
  EXPECT_EQ(s, 0.0f);
  EXPECT_EQ(t, 1.25f);
}

TEST(PointToUnit, IsSinglePrecisionThroughout) {
  WalkWorld world(3, 7);
  const PixelStore* store = world.source();
  for (int32_t x = -1; x <= 3; ++x) {
    float u, v, s, t;
    pointToUnit(float(x), 0.0f, 1, 0, 0, store, &u, &v, &s, &t);
    // (fx + 1 + fx) in floats, times the float half pixel, rounded once more.
    volatile float fx = float(x) + 0.5f;
    volatile float sum = fx + 1.0f + fx;
    volatile float expected = sum * store->halfPixelU;
    EXPECT_EQ(floatBits(u), floatBits(expected)) << x;
    // The tall side is stretched by height / width.
    EXPECT_EQ(floatBits(t), floatBits(float((v - 0.5f) * (7.0f / 3.0f))));
  }
}

// ---- solid tests ----------------------------------------------------------------------------

TEST(OpaqueAt, ThresholdIsStrictlyAboveHalf) {
  WalkWorld world(8, 8);
  world.setOpaque(1, 1, 127);  // 0.498
  world.setOpaque(2, 1, 128);  // 0.502
  world.setOpaque(3, 1, 255);
  EXPECT_EQ(opaqueAt(0, 1), 0.0f);
  EXPECT_EQ(opaqueAt(1, 1), 0.0f);
  EXPECT_EQ(opaqueAt(2, 1), 1.0f);
  EXPECT_EQ(opaqueAt(3, 1), 1.0f);
}

TEST(OpaqueAt, OutsideTheSourceIsNeverSolid) {
  WalkWorld world(8, 8);
  for (int32_t y = 0; y < 8; ++y)
    for (int32_t x = 0; x < 8; ++x) world.setOpaque(x, y, 255);
  EXPECT_EQ(opaqueAt(0, 0), 1.0f);
  EXPECT_EQ(opaqueAt(7, 7), 1.0f);
  EXPECT_EQ(opaqueAt(-1, 0), 0.0f);
  EXPECT_EQ(opaqueAt(0, -1), 0.0f);
  EXPECT_EQ(opaqueAt(8, 0), 0.0f);
  EXPECT_EQ(opaqueAt(0, 8), 0.0f);
  EXPECT_EQ(opaqueAt(INT32_MIN, INT32_MIN), 0.0f);
  // Clamped into the image, the same points are solid.
  EXPECT_EQ(opaqueAtClamped(-1, 0), 1.0f);
  EXPECT_EQ(opaqueAtClamped(8, 9), 1.0f);
  EXPECT_EQ(opaqueAtClamped(INT32_MIN, INT32_MAX), 1.0f);
}

TEST(OpaqueAt, ClampedReadsTheNearestEdgePixel) {
  WalkWorld world(8, 4);
  world.setOpaque(0, 2, 255);
  world.setOpaque(7, 3, 255);
  EXPECT_EQ(opaqueAtClamped(-5, 2), 1.0f);
  EXPECT_EQ(opaqueAtClamped(-5, 1), 0.0f);
  EXPECT_EQ(opaqueAtClamped(100, 100), 1.0f);
  EXPECT_EQ(opaqueAtClamped(100, 2), 0.0f);
}

// ---- one step -----------------------------------------------------------------------------------

TEST(WalkStep, SolidPointStaysAndArrives) {
  WalkWorld world(16, 4);
  world.solidFromColumn(5);
  world.edgeField(5);
  float x, y;
  EXPECT_TRUE(walkStep(6.25f, 1.5f, &x, &y));
  EXPECT_EQ(x, 6.25f);
  EXPECT_EQ(y, 1.5f);
}

TEST(WalkStep, StepsTwiceTheDistanceAgainstTheGradient) {
  // Field value at source x is 4 - x; read at x + 8.5 of the field it is
  // 4.5 - x, and the gradient points to -x: x' = x + 2 * (4.5 - x) = 9 - x.
  WalkWorld world(16, 4);
  world.solidFromColumn(5);
  world.edgeField(5);
  float x, y;
  EXPECT_TRUE(walkStep(3.0f, 1.5f, &x, &y));
  EXPECT_EQ(x, 6.0f);
  EXPECT_EQ(y, 1.5f);
  EXPECT_TRUE(walkStep(0.0f, 2.0f, &x, &y));
  EXPECT_EQ(x, 9.0f);
  EXPECT_EQ(y, 2.0f);
  // The field's zero lies at 4.5, in the last bare column: a point just short
  // of it is mirrored to just past it, still bare.
  EXPECT_FALSE(walkStep(4.25f, 0.0f, &x, &y));
  EXPECT_EQ(x, 4.75f);
}

TEST(WalkStep, StepsAlongRowsToo) {
  WalkWorld world(4, 16);
  for (int32_t y = 0; y < 16; ++y)
    for (int32_t x = 0; x < 4; ++x) world.setOpaque(x, y, y >= 6 ? 255 : 0);
  world.edgeFieldRows(6);
  float x, y;
  // y' = 2 * 6 - 1 - y.
  EXPECT_TRUE(walkStep(2.0f, 1.0f, &x, &y));
  EXPECT_EQ(x, 2.0f);
  EXPECT_EQ(y, 10.0f);
}

TEST(WalkStep, ResultSaysWhetherTheStepLandedOnSolid) {
  WalkWorld world(32, 4);
  world.solidFromColumn(20);  // the field still says the edge is at 5
  world.edgeField(5);
  float x, y;
  EXPECT_FALSE(walkStep(3.0f, 1.0f, &x, &y));
  EXPECT_EQ(x, 6.0f);
}

TEST(WalkStep, ReflectsBelowMinusOneAndPastTheWidth) {
  WalkWorld world(16, 8);
  world.solidFromColumn(5);
  world.edgeField(5);
  float x, y;
  // -3 reflects about -1 to 1, which steps to 9 - 1 = 8 (unreflected it would reach 12).
  EXPECT_TRUE(walkStep(-3.0f, 2.0f, &x, &y));
  EXPECT_EQ(x, 8.0f);
  // y reflects about -1 as well, and about the height: -2.5 becomes 0.5, 10 becomes 6.
  EXPECT_TRUE(walkStep(-3.0f, -2.5f, &x, &y));
  EXPECT_EQ(y, 0.5f);
  EXPECT_TRUE(walkStep(-3.0f, 10.0f, &x, &y));
  EXPECT_EQ(y, 6.0f);
  // Past the width: 20 becomes 12, which is solid and stays.
  EXPECT_TRUE(walkStep(20.0f, 1.0f, &x, &y));
  EXPECT_EQ(x, 12.0f);
}

TEST(WalkStep, ReflectionIsOncePerSideInOrder) {
  // x = -40 reflects about -1 to 38, then about the width 16 to -6: one
  // reflection per side, no repeat. -6 is bare and outside, so the step goes
  // on from there: 9 - (-6) = 15.
  WalkWorld world(16, 8);
  world.solidFromColumn(5);
  world.edgeField(5);
  float x, y;
  EXPECT_TRUE(walkStep(-40.0f, 1.0f, &x, &y));
  EXPECT_EQ(x, 15.0f);
}

TEST(WalkStep, PointsAtExactlyMinusOneAndWidthAreNotReflected) {
  // Reflection about the limit maps the limit onto itself, so the step from
  // exactly -1 and exactly the width is the plain step.
  WalkWorld world(16, 8);
  world.solidFromColumn(5);
  world.edgeField(5);
  float x, y;
  EXPECT_TRUE(walkStep(-1.0f, 1.0f, &x, &y));
  EXPECT_EQ(x, 10.0f);
  EXPECT_FALSE(walkStep(16.0f, 1.0f, &x, &y));
  EXPECT_EQ(x, 9.0f - 16.0f);
  // Just beyond them the reflection does act: -1.5 becomes -0.5, 16.5 becomes
  // 15.5, which is solid and stays.
  EXPECT_TRUE(walkStep(-1.5f, 1.0f, &x, &y));
  EXPECT_EQ(x, 9.0f - (-0.5f));
  EXPECT_TRUE(walkStep(16.5f, 1.0f, &x, &y));
  EXPECT_EQ(x, 15.5f);
}

TEST(WalkStep, FlatFieldGivesNaN) {
  WalkWorld world(8, 8);
  world.fillField([](int32_t, int32_t) { return 3.0f; });
  float x, y;
  EXPECT_FALSE(walkStep(2.0f, 2.0f, &x, &y));
  EXPECT_TRUE(isnan(x));
  EXPECT_TRUE(isnan(y));
  // A NaN point walks on without touching an address: still NaN, never solid.
  float x2, y2;
  EXPECT_FALSE(walkStep(x, y, &x2, &y2));
  EXPECT_TRUE(isnan(x2));
}

TEST(WalkStep, SymmetricSpotCancelsToNaN) {
  // A ridge along column 6: the field falls to both sides alike, so the two
  // differences cancel at its top.
  WalkWorld world(16, 8);
  world.fillField([](int32_t fx, int32_t) { return 10.0f - fabsf(float(fx) - (6.0f + 9.0f - 0.5f)); });
  float x, y;
  EXPECT_FALSE(walkStep(6.0f, 3.0f, &x, &y));
  EXPECT_TRUE(isnan(x));
}

// ---- the walk --------------------------------------------------------------------------------------

TEST(NearestOpaque, SolidPointIsReturnedUnchanged) {
  WalkWorld world(16, 8);
  world.solidFromColumn(5);
  world.edgeField(5);
  float x, y;
  EXPECT_TRUE(nearestOpaque(7.75f, 3.25f, &x, &y));
  EXPECT_EQ(x, 7.75f);
  EXPECT_EQ(y, 3.25f);
}

TEST(NearestOpaque, PointBesideStraightEdgeLandsAcrossIt) {
  WalkWorld world(16, 8);
  world.solidFromColumn(5);
  world.edgeField(5);
  for (float start : {0.0f, 1.5f, 3.0f, 4.0f}) {
    float x, y;
    EXPECT_TRUE(nearestOpaque(start, 2.0f, &x, &y));
    EXPECT_EQ(x, 9.0f - start) << start;
    EXPECT_EQ(y, 2.0f);
    EXPECT_EQ(opaqueAt(int32_t(x), int32_t(y)), 1.0f);
  }
}

TEST(NearestOpaque, OutsideBesideSolidIsTakenAsItStands) {
  WalkWorld world(16, 8);
  world.solidFromColumn(0);
  world.edgeField(0);
  float x, y;
  // (-1, y) beside the solid (0, y): unclamped, not walked.
  EXPECT_FALSE(nearestOpaque(-1.0f, 3.0f, &x, &y));
  EXPECT_EQ(x, -1.0f);
  EXPECT_EQ(y, 3.0f);
  // x = width and y = height: outside, solid neighbour.
  EXPECT_FALSE(nearestOpaque(16.0f, 8.0f, &x, &y));
  EXPECT_EQ(x, 16.0f);
  EXPECT_EQ(y, 8.0f);
  // -0.5 truncates to 0, which is inside: a plain solid point, result true.
  EXPECT_TRUE(nearestOpaque(-0.5f, 3.0f, &x, &y));
  EXPECT_EQ(x, -0.5f);
}

TEST(NearestOpaque, OutsideBesideBareWalks) {
  WalkWorld world(16, 8);
  world.solidFromColumn(5);
  world.edgeField(5);
  float x, y;
  // (-1, y) beside the bare (0, y): walks, with no reflection at exactly -1.
  EXPECT_TRUE(nearestOpaque(-1.0f, 3.0f, &x, &y));
  EXPECT_EQ(x, 10.0f);
  EXPECT_EQ(y, 3.0f);
  // Above the image, beside a bare pixel: walks along x only, and since row -1
  // lies outside, no step arrives; twenty steps between 2 and 7 end at 2.
  EXPECT_TRUE(nearestOpaque(2.0f, -1.0f, &x, &y));
  EXPECT_EQ(x, 2.0f);
  EXPECT_EQ(y, -1.0f);
}

TEST(NearestOpaque, PointAtWidthFollowsTheOutsideRules) {
  // Solid only up to column 9 of 16; the edge at width is bare.
  WalkWorld world(16, 4);
  for (int32_t y = 0; y < 4; ++y)
    for (int32_t x = 0; x < 16; ++x) world.setOpaque(x, y, x < 10 ? 255 : 0);
  // Field: source x has the value x - 10, falling towards the solid side.
  world.fillField([](int32_t fx, int32_t) { return float(fx - kFieldMargin - 10); });
  float x, y;
  // Read at 16 + 8.5: 5.5, gradient +x: x' = 16 - 11 = 5.
  EXPECT_TRUE(nearestOpaque(16.0f, 1.0f, &x, &y));
  EXPECT_EQ(x, 5.0f);
}

TEST(NearestOpaque, StopsAfterTwentySteps) {
  // No solid pixel anywhere and a gentle slope: every step moves about a
  // quarter pixel to +x, and no step arrives.
  WalkWorld world(64, 4);
  world.fillField([](int32_t fx, int32_t) { return 0.125f - float(fx) / 1024.0f; });
  float x, y;
  EXPECT_TRUE(nearestOpaque(10.0f, 1.0f, &x, &y));

  float cx = 10.0f, cy = 1.0f;
  float track[kWalkSteps + 2][2];
  for (int32_t i = 0; i < kWalkSteps + 1; ++i) {
    float nx, ny;
    EXPECT_FALSE(walkStep(cx, cy, &nx, &ny));
    cx = nx;
    cy = ny;
    track[i + 1][0] = cx;
    track[i + 1][1] = cy;
  }
  EXPECT_EQ(x, track[kWalkSteps][0]);
  EXPECT_EQ(y, track[kWalkSteps][1]);
  EXPECT_NE(x, track[kWalkSteps - 1][0]);
  EXPECT_NE(x, track[kWalkSteps + 1][0]);
  EXPECT_GT(x, 13.0f);
  EXPECT_LT(x, 16.0f);
}

TEST(NearestOpaque, EndsAtTheFirstArrival) {
  // The gentle slope again, with solid columns from 12: the walk creeps to +x
  // and ends with the first step that reaches column 12.
  WalkWorld world(64, 4);
  world.solidFromColumn(12);
  world.fillField([](int32_t fx, int32_t) { return 0.125f - float(fx) / 1024.0f; });
  float x, y;
  EXPECT_TRUE(nearestOpaque(10.0f, 1.0f, &x, &y));

  float cx = 10.0f, cy = 1.0f;
  int32_t steps = 0;
  bool arrived = false;
  while (!arrived && steps < kWalkSteps) {
    arrived = walkStep(cx, cy, &cx, &cy);
    ++steps;
  }
  EXPECT_TRUE(arrived);
  EXPECT_GT(steps, 5);
  EXPECT_LT(steps, kWalkSteps);
  EXPECT_EQ(x, cx);
  EXPECT_EQ(y, cy);
  EXPECT_GE(x, 12.0f);
  EXPECT_LT(x, 12.25f);
}

TEST(NearestOpaque, BareLayerKeepsLastStepPosition) {
  WalkWorld world(16, 8);
  world.edgeField(5);
  float x, y;
  // Oscillates between 3 and 6 twenty times: ends where it started.
  EXPECT_TRUE(nearestOpaque(3.0f, 2.0f, &x, &y));
  EXPECT_EQ(x, 3.0f);
  EXPECT_EQ(y, 2.0f);
}

TEST(NearestOpaque, FlatFieldWalkEndsAtNaN) {
  WalkWorld world(8, 8);
  world.fillField([](int32_t, int32_t) { return 9000000.0f; });
  float x, y;
  EXPECT_TRUE(nearestOpaque(3.0f, 4.0f, &x, &y));
  EXPECT_TRUE(isnan(x));
  EXPECT_TRUE(isnan(y));
}

// ---- against the walk written out from the store's readers ------------------------------------------

// One step as the walk is defined, through the stores' own readers: the
// clamped bilinear read of the field five times, the unit-range read of the
// solid map. The walk reads the field's tiles directly where it can; the two
// must agree to the bit everywhere, at tile borders and edges included.
bool referenceSolid(int32_t x, int32_t y) {
  const PixelStore* source = &hostContext.instanceBlock->sourceStore;
  if (pointOutside(x, y, source, 0)) return false;
  return readUnitScalar(x, y, hostContext.paramBlock->opaqueStore, 0) > 0.5f;
}

bool referenceStep(float x, float y, float* outX, float* outY) {
  const PixelStore* source = &hostContext.instanceBlock->sourceStore;
  const PixelStore* field = hostContext.paramBlock->distanceStore;
  const double width = source->levelWidth[0];
  const double height = source->levelHeight[0];
  if (x < -1.0f) x = float(-2.0 - double(x));
  if (y < -1.0f) y = float(-2.0 - double(y));
  if (double(x) > width) x = float(2.0 * width - double(x));
  if (double(y) > height) y = float(2.0 * height - double(y));
  if (referenceSolid(truncToInt32(x), truncToInt32(y))) {
    *outX = x;
    *outY = y;
    return true;
  }
  const double fx = double(x) + 8.5;
  const double fy = double(y) + 8.5;
  auto read = [field](double px, double py) { return readBilinear(float(px), float(py), field, 0); };
  const float gx = read(fx + 1.0, fy) - read(fx - 1.0, fy);
  const float gy = read(fx, fy + 1.0) - read(fx, fy - 1.0);
  const double n = 1.0 / sqrt(double(gx) * double(gx) + double(gy) * double(gy));
  const float d = read(fx, fy);
  *outX = float(double(x) - 2.0 * double(d) * (double(gx) * n));
  *outY = float(double(y) - 2.0 * double(d) * (double(gy) * n));
  return referenceSolid(truncToInt32(*outX), truncToInt32(*outY));
}

bool referenceWalk(float x, float y, float* outX, float* outY) {
  const PixelStore* source = &hostContext.instanceBlock->sourceStore;
  const int32_t xi = truncToInt32(x);
  const int32_t yi = truncToInt32(y);
  if (pointOutside(xi, yi, source, 0)) {
    const int32_t cx = clampToLevel(xi, source->levelWidth[0] - 1);
    const int32_t cy = clampToLevel(yi, source->levelHeight[0] - 1);
    if (referenceSolid(cx, cy)) {
      *outX = x;
      *outY = y;
      return false;
    }
  }
  for (int32_t i = 0; i < kWalkSteps; ++i) {
    if (referenceStep(x, y, &x, &y)) break;
  }
  *outX = x;
  *outY = y;
  return true;
}

bool sameFloat(float a, float b) { return floatBits(a) == floatBits(b) || (isnan(a) && isnan(b)); }

TEST(NearestOpaque, MatchesTheWalkThroughTheStoresReaders) {
  // A source wider and taller than one field tile (the field is 18 wider),
  // discs of solid pixels, a field of distances to them with a little noise,
  // flat patches (NaN steps), and stray half-solid bytes (127, 128).
  const int32_t w = 530;
  const int32_t h = 520;
  WalkWorld world(w, h);
  const float discs[][3] = {{40, 50, 30}, {300, 100, 60}, {500, 505, 25}, {120, 400, 70}, {505, 20, 12}};
  auto distance = [&](float x, float y) {
    float best = 1e9f;
    for (const auto& d : discs) best = fminf(best, hypotf(x - d[0], y - d[1]) - d[2]);
    return best;
  };
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      uint32_t k = uint32_t(x * 7919 + y * 104729);
      int32_t value = distance(float(x), float(y)) < 0.0f ? 255 : (k % 97 == 0 ? 128 : (k % 89 == 0 ? 127 : 0));
      world.setOpaque(x, y, value);
    }
  world.fillField([&](int32_t fx, int32_t fy) {
    if ((fx / 41 + fy / 37) % 13 == 0) return 4.0f;
    uint32_t k = uint32_t(fx * 2654435761u + uint32_t(fy) * 40503u);
    return distance(float(fx - kFieldMargin), float(fy - kFieldMargin)) + float(k % 1000) / 4000.0f - 0.125f;
  });

  int32_t walked = 0;
  uint32_t k = 12345;
  for (int32_t i = 0; i < 40000; ++i) {
    k = k * 1664525u + 1013904223u;
    float x;
    float y;
    switch (i % 4) {
      case 0:  // anywhere, and a little beyond the edges
        x = float(int32_t(k % 54000u)) / 100.0f - 3.0f;
        y = float(int32_t((k >> 8) % 53000u)) / 100.0f - 3.0f;
        break;
      case 1:  // grid points, the row and column outside included
        x = float(int32_t(k % uint32_t(w + 2)) - 1);
        y = float(int32_t((k >> 12) % uint32_t(h + 2)) - 1);
        break;
      case 2:  // about the field's tile border (field column 512 is source 503)
        x = 497.0f + float(k % 1400u) / 100.0f;
        y = float(int32_t((k >> 9) % uint32_t(h)));
        break;
      default:  // the same in rows, and far outside for the reflection
        x = i % 8 == 3 ? float(int32_t(k % 4000u)) - 2000.0f : float(int32_t((k >> 5) % uint32_t(w)));
        y = 497.0f + float(k % 1400u) / 100.0f;
        break;
    }
    float ax, ay, bx, by;
    const bool a = nearestOpaque(x, y, &ax, &ay);
    const bool b = referenceWalk(x, y, &bx, &by);
    ASSERT_EQ(a, b) << x << "," << y;
    ASSERT_TRUE(sameFloat(ax, bx) && sameFloat(ay, by)) << x << "," << y << ": " << ax << "," << ay << " vs " << bx
                                                        << "," << by;
    float sx, sy, rx, ry;
    ASSERT_EQ(walkStep(x, y, &sx, &sy), referenceStep(x, y, &rx, &ry)) << x << "," << y;
    ASSERT_TRUE(sameFloat(sx, rx) && sameFloat(sy, ry)) << x << "," << y;
    if (ax != x || ay != y) ++walked;
  }
  EXPECT_GT(walked, 10000);
}

}  // namespace

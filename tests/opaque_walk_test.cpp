// The nearest-opaque walk: unit coordinates of grid points, the solid-pixel
// tests and their thresholds, the reflection into the image's range, the step
// of twice the distance on hand-made linear fields, the rules for points just
// outside the image, the limit of 20 steps and the NaN of a flat field. The
// walk over tile borders is pinned by the end-to-end digests.
#include <gtest/gtest.h>

#include <math.h>
#include <stdint.h>

#include "grid/opaque_walk.h"
#include "store/pixel_store.h"
#include "tests/support/layer_world.h"

namespace {

using testing_support::LayerWorld;

// Columns from `edge` on solid, the others bare.
void solidFromColumn(LayerWorld& world, int32_t edge) {
  for (int32_t y = 0; y < world.height; ++y)
    for (int32_t x = 0; x < world.width; ++x) world.setOpaque(x, y, x >= edge ? 255 : 0);
}

// Runs one step or a whole walk on a 16 by 8 layer with a vertical edge and
// checks where it ends.
struct WalkCase {
  int32_t solidFrom, edge;
  float x, y;
  bool result;
  float ex, ey;
};

void expectWalks(bool (*walk)(float, float, float*, float*), const WalkCase* cases, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    const WalkCase& c = cases[i];
    LayerWorld world(16, 8);
    solidFromColumn(world, c.solidFrom);
    // The last bare column before the edge holds 0, each column further out
    // one more, the solid ones -1, -2, ...
    world.fillField([&c](float x, float) { return float(c.edge - 1) - x; });
    float x, y;
    EXPECT_EQ(walk(c.x, c.y, &x, &y), c.result) << c.x << "," << c.y;
    EXPECT_EQ(x, c.ex) << c.x << "," << c.y;
    EXPECT_EQ(y, c.ey) << c.x << "," << c.y;
  }
}

// ---- unit coordinates ---------------------------------------------------------------------

TEST(PointToUnit, WorkedPoints) {
  struct Case {
    float x, y;
    int32_t rate, offsetH, offsetV;
    float u, v, s, t;
  };
  // The grid point is the lower right corner of its pixel; s and t are centred
  // and aspect-true (the wide side stretched by width / height); rate and
  // offsets scale before the half pixel.
  const Case cases[] = {
      {3.0f, 5.0f, 1, 0, 0, 4.0f / 16.0f, 6.0f / 8.0f, (0.25f - 0.5f) * 2.0f, 0.25f},
      {2.5f, 4.5f, 1, 0, 0, 3.5f / 16.0f, 5.5f / 8.0f, (3.5f / 16.0f - 0.5f) * 2.0f, 5.5f / 8.0f - 0.5f},
      {-1.0f, -1.0f, 1, 0, 0, 0.0f, 0.0f, -1.0f, -0.5f},
      {3.0f, 5.0f, 2, 1, 3, 0.5f, 1.75f, 0.0f, 1.25f},
  };
  LayerWorld world(16, 8);
  for (const Case& c : cases) {
    float u, v, s, t;
    pointToUnit(c.x, c.y, c.rate, c.offsetH, c.offsetV, world.source(), &u, &v, &s, &t);
    EXPECT_EQ(u, c.u) << c.x;
    EXPECT_EQ(v, c.v) << c.y;
    EXPECT_EQ(s, c.s) << c.x;
    EXPECT_EQ(t, c.t) << c.y;
  }
}

// ---- solid tests ----------------------------------------------------------------------------

TEST(OpaqueAt, StrictlyAboveHalfNeverOutsideClampedToTheNearestEdge) {
  LayerWorld world(8, 4);
  world.setOpaque(1, 1, 127);  // 0.498
  world.setOpaque(2, 1, 128);  // 0.502
  world.setOpaque(3, 1, 255);
  world.setOpaque(0, 2, 255);
  world.setOpaque(7, 3, 255);
  struct Case {
    int32_t x, y;
    float plain, clamped;
  };
  const Case cases[] = {{0, 1, 0, 0},   {1, 1, 0, 0},          {2, 1, 1, 1},      {3, 1, 1, 1},
                        {-5, 2, 0, 1},  {-5, 1, 0, 0},         {100, 100, 0, 1},  {100, 2, 0, 0},
                        {7, 4, 0, 1},   {INT32_MIN, 2, 0, 1},  {0, INT32_MAX, 0, 0}};
  for (const Case& c : cases) {
    EXPECT_EQ(opaqueAt(c.x, c.y), c.plain) << c.x << "," << c.y;
    EXPECT_EQ(opaqueAtClamped(c.x, c.y), c.clamped) << c.x << "," << c.y;
  }
}

// ---- one step -----------------------------------------------------------------------------------

// On a 16 by 8 layer with a vertical edge: field value at source x is
// edge - 1 - x; read at x + 8.5 of the field it is edge - 0.5 - x, and the
// gradient points to -x, so x' = x + 2 (edge - 0.5 - x) = 2 edge - 1 - x.
// Points reflect once about -1 and once about the width or height, in that
// order, and a point exactly at a limit is not reflected.
TEST(WalkStep, WorkedSteps) {
  const WalkCase cases[] = {
      {5, 5, 6.25f, 1.5f, true, 6.25f, 1.5f},   // solid: stays
      {5, 5, 3.0f, 1.5f, true, 6.0f, 1.5f},     // 9 - 3
      {5, 5, 0.0f, 2.0f, true, 9.0f, 2.0f},
      {5, 5, 4.25f, 0.0f, false, 4.75f, 0.0f},  // mirrored about the zero at 4.5, still bare
      {7, 5, 3.0f, 1.0f, false, 6.0f, 1.0f},    // the field and the solid map disagree
      {5, 5, -3.0f, 2.0f, true, 8.0f, 2.0f},    // -3 reflects about -1 to 1
      {5, 5, -3.0f, -2.5f, true, 8.0f, 0.5f},
      {5, 5, -3.0f, 10.0f, true, 8.0f, 6.0f},   // about the height
      {5, 5, 20.0f, 1.0f, true, 12.0f, 1.0f},   // about the width, solid
      {5, 5, -40.0f, 1.0f, true, 15.0f, 1.0f},  // to 38, to -6, then 9 + 6
      {5, 5, -1.0f, 1.0f, true, 10.0f, 1.0f},
      {5, 5, 16.0f, 1.0f, false, -7.0f, 1.0f},
      {5, 5, -1.5f, 1.0f, true, 9.5f, 1.0f},
      {5, 5, 16.5f, 1.0f, true, 15.5f, 1.0f},
  };
  expectWalks(walkStep, cases, sizeof cases / sizeof cases[0]);
}

TEST(WalkStep, StepsAlongRowsToo) {
  LayerWorld world(4, 16);
  for (int32_t y = 0; y < 16; ++y)
    for (int32_t x = 0; x < 4; ++x) world.setOpaque(x, y, y >= 6 ? 255 : 0);
  world.fillField([](float, float y) { return 5.0f - y; });
  float x, y;
  EXPECT_TRUE(walkStep(2.0f, 1.0f, &x, &y));  // y' = 2 * 6 - 1 - y
  EXPECT_EQ(x, 2.0f);
  EXPECT_EQ(y, 10.0f);
}

TEST(WalkStep, FlatOrSymmetricFieldGivesNaNAndNaNWalksOn) {
  LayerWorld world(16, 8);
  float x, y, x2, y2;
  world.fillField([](float, float) { return 3.0f; });
  EXPECT_FALSE(walkStep(2.0f, 2.0f, &x, &y));
  EXPECT_TRUE(isnan(x) && isnan(y));
  // A NaN point walks on without touching an address: still NaN, never solid.
  EXPECT_FALSE(walkStep(x, y, &x2, &y2));
  EXPECT_TRUE(isnan(x2));
  // A ridge along column 6: the differences to both sides cancel at its top.
  world.fillField([](float x, float) { return 10.0f - fabsf(x - 5.5f); });
  EXPECT_FALSE(walkStep(6.0f, 3.0f, &x, &y));
  EXPECT_TRUE(isnan(x));
}

// ---- the walk --------------------------------------------------------------------------------------

TEST(NearestOpaque, WorkedWalks) {
  const WalkCase cases[] = {
      {5, 5, 7.75f, 3.25f, true, 7.75f, 3.25f},  // solid: unchanged
      {5, 5, 0.0f, 2.0f, true, 9.0f, 2.0f},      // across the straight edge
      {5, 5, 1.5f, 2.0f, true, 7.5f, 2.0f},
      {5, 5, 4.0f, 2.0f, true, 5.0f, 2.0f},
      {0, 0, -1.0f, 3.0f, false, -1.0f, 3.0f},   // outside beside solid: taken as it stands
      {0, 0, 16.0f, 8.0f, false, 16.0f, 8.0f},
      {0, 0, -0.5f, 3.0f, true, -0.5f, 3.0f},    // truncates to 0, inside and solid
      {5, 5, -1.0f, 3.0f, true, 10.0f, 3.0f},    // outside beside bare: walks, unreflected
      {5, 5, 2.0f, -1.0f, true, 2.0f, -1.0f},    // row -1 is outside: twenty steps 2 <-> 7
      {16, 5, 3.0f, 2.0f, true, 3.0f, 2.0f},     // a bare layer: twenty steps 3 <-> 6
  };
  expectWalks(nearestOpaque, cases, sizeof cases / sizeof cases[0]);
}

TEST(NearestOpaque, PointAtWidthFollowsTheOutsideRules) {
  // Solid only up to column 9 of 16; the field at source x is x - 10. Read at
  // 16 + 8.5 it is 5.5, gradient +x: x' = 16 - 11 = 5.
  LayerWorld world(16, 4);
  for (int32_t y = 0; y < 4; ++y)
    for (int32_t x = 0; x < 16; ++x) world.setOpaque(x, y, x < 10 ? 255 : 0);
  world.fillField([](float x, float) { return x - 10.0f; });
  float x, y;
  EXPECT_TRUE(nearestOpaque(16.0f, 1.0f, &x, &y));
  EXPECT_EQ(x, 5.0f);
}

TEST(NearestOpaque, TwentyStepsAtMostEndingAtTheFirstArrival) {
  // A gentle slope, every step about a quarter pixel to +x: without solid
  // pixels the walk stops after twenty steps near 14; with solid columns from
  // 12 it ends with the first step that reaches column 12.
  for (int32_t solidFrom : {64, 12}) {
    LayerWorld world(64, 4);
    solidFromColumn(world, solidFrom);
    world.fillField([](float x, float) { return 0.125f - (x + float(kFieldMargin)) / 1024.0f; });
    float x, y;
    EXPECT_TRUE(nearestOpaque(10.0f, 1.0f, &x, &y));
    float cx = 10.0f, cy = 1.0f;
    int32_t steps = 0;
    while (steps < kWalkSteps && !walkStep(cx, cy, &cx, &cy)) ++steps;
    EXPECT_EQ(x, cx);
    EXPECT_EQ(y, cy);
    if (solidFrom == 64) {
      EXPECT_EQ(steps, kWalkSteps);
      EXPECT_GT(x, 13.0f);
      EXPECT_LT(x, 16.0f);
    } else {
      EXPECT_GT(steps, 4);
      EXPECT_GE(x, 12.0f);
      EXPECT_LT(x, 12.25f);
    }
  }
}

}  // namespace

// The sample grid and the pixel sampling of a render unit: the grid's shape
// and index arithmetic, the cells after the fill (keys, starts, landing
// points), the identity map where the layer is solid, independence from the
// partition into units, NaN points, the missing cell array, the corner
// averages, the row loop against the sampler's whole road, and the lane road
// against the pixel road.
#include <gtest/gtest.h>

#include <float.h>
#include <math.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <utility>
#include <vector>

#include "grid/opaque_walk.h"
#include "grid/pixel_sampling.h"
#include "grid/sample_grid.h"
#include "host/blocks.h"
#include "host/plugin_main.h"
#include "platform/platform.h"
#include "run/job_pool.h"
#include "store/footprint.h"
#include "store/pixel_store.h"
#include "store/resample.h"
#include "tests/support/layer_world.h"

namespace {

using testing_support::LayerWorld;

// Colours at every level; alpha as given at level 0.
template <class F>
void paint(LayerWorld& world, F colourAt) {
  PixelStore* s = world.source();
  for (int32_t level = 0; level <= s->topLevel; ++level)
    for (int32_t y = 0; y < s->levelHeight[level]; ++y)
      for (int32_t x = 0; x < s->levelWidth[level]; ++x) {
        int32_t c[4];
        colourAt(x, y, level, c);
        writeU8x4(x, y, s, level, c);
      }
}

void patterned(LayerWorld& world, int32_t alpha) {
  paint(world, [alpha](int32_t x, int32_t y, int32_t level, int32_t c[4]) {
    c[0] = (x * 37 + y * 11 + level * 50) & 255;
    c[1] = (x * 5 + y * 71) & 255;
    c[2] = (x * y * 3 + 17) & 255;
    c[3] = alpha;
  });
}

void allSolid(LayerWorld& world) {
  for (int32_t y = 0; y < world.height; ++y)
    for (int32_t x = 0; x < world.width; ++x) world.setOpaque(x, y, 255);
  world.fillField([](float, float) { return -9000000.0f; });
}

// Solid inside the rectangle [x0, x1) x [y0, y1), bare elsewhere, with a
// distance field of that rectangle: 0 in the bare pixels next to it.
void solidRect(LayerWorld& world, int32_t x0, int32_t y0, int32_t x1, int32_t y1) {
  for (int32_t y = 0; y < world.height; ++y)
    for (int32_t x = 0; x < world.width; ++x)
      world.setOpaque(x, y, (x >= x0 && x < x1 && y >= y0 && y < y1) ? 255 : 0);
  world.fillField([=](float sx, float sy) {
    float dx = fmaxf(fmaxf(float(x0) - sx, sx - float(x1 - 1)), 0.0f);
    float dy = fmaxf(fmaxf(float(y0) - sy, sy - float(y1 - 1)), 0.0f);
    if (dx > 0.0f || dy > 0.0f) return sqrtf(dx * dx + dy * dy) - 1.0f;
    float in = fminf(fminf(sx - float(x0), float(x1 - 1) - sx), fminf(sy - float(y0), float(y1 - 1) - sy));
    return -(in + 1.0f);
  });
}

// One render unit of the given rectangle, with its grid and cell array.
struct TestUnit {
  JobUnit* unit;
  SampleGrid* grid;
  explicit TestUnit(VRect rect, bool allocate = true) {
    unit = static_cast<JobUnit*>(calloc(1, sizeof(JobUnit)));
    grid = static_cast<SampleGrid*>(calloc(1, sizeof(SampleGrid)));
    unit->kind = kJobRender;
    unit->cursor.unitRect = rect;
    unit->grids = grid;
    unit->gridCount = 1;
    unit->instance = hostContext.instanceBlock;
    unit->sourceStore = hostContext.instanceBlock != nullptr ? &hostContext.instanceBlock->sourceStore : nullptr;
    if (allocate) {
      EXPECT_TRUE(gridAllocate(unit, grid, 1));
    }
  }
  ~TestUnit() {
    gridRelease(grid, 1);
    free(grid);
    free(unit);
  }
  SampleCell* cell(int32_t x, int32_t y) { return cellAt(grid, x, y); }
};

std::vector<float> colourOf(const SampleCell* c) { return std::vector<float>(c->colour, c->colour + 4); }

// ---- the grid's shape ------------------------------------------------------------------------------

TEST(SampleGrid, CellsRunFromTheCornerBeforeTheRectangleAndNullPastThem) {
  LayerWorld world(16, 16);
  TestUnit one(VRect{4, 2, 5, 3});
  EXPECT_EQ(gridsPerUnit(), 1);
  EXPECT_EQ(one.unit->cursor.gridCols, 3);
  EXPECT_EQ(one.unit->cursor.gridRows, 3);
  EXPECT_EQ(one.grid->slotIndex, 0);
  EXPECT_EQ(one.grid->slotTag, 1000);
  EXPECT_EQ(one.grid->workUnit, one.unit);
  // Points from (left - 1, top - 1) to (right, bottom), row-major, zero-filled.
  for (int32_t y = 3; y <= 5; ++y)
    for (int32_t x = 1; x <= 3; ++x) EXPECT_EQ(one.cell(x, y), one.grid->cells + (y - 3) * 3 + (x - 1));
  for (int32_t i = 0; i < 9; ++i) EXPECT_EQ(one.grid->cells[i].keyA, 0);
  TestUnit t(VRect{4, 2, 9, 7});  // 5 wide, 5 high: 7 by 7 cells
  EXPECT_EQ(t.unit->cursor.gridCols, 7);
  EXPECT_NE(t.cell(1, 3), nullptr);
  EXPECT_NE(t.cell(7, 9), nullptr);
  for (const auto& p : {std::make_pair(8, 5), std::make_pair(0, 5), std::make_pair(4, 10), std::make_pair(4, 2),
                        std::make_pair(INT32_MIN, 5)})
    EXPECT_EQ(t.cell(p.first, p.second), nullptr) << p.first << "," << p.second;
  gridRelease(t.grid, 1);
  EXPECT_EQ(t.grid->cells, nullptr);
  EXPECT_EQ(t.cell(4, 4), nullptr);
  gridRelease(t.grid, 1);  // harmless twice
}

// ---- the cells --------------------------------------------------------------------------------------

TEST(FillCells, StartIsTheCornerAndLandingIsTheWalk) {
  LayerWorld world(16, 6);
  solidRect(world, 5, 0, 16, 6);  // a straight edge before column 5
  TestUnit t(VRect{0, 0, 6, 16});
  // The grid as renderUnit prepares it, by hand.
  t.grid->store = world.source();
  t.grid->sampleRate = 1;
  fillCells(t.unit, t.grid);

  float u, v, s, tt;
  // A solid corner: stays, walked.
  SampleCell* solid = t.cell(9, 2);
  pointToUnit(9.0f, 2.0f, 1, 0, 0, world.source(), &u, &v, &s, &tt);
  EXPECT_EQ(solid->startU, u);
  EXPECT_EQ(solid->startV, v);
  EXPECT_EQ(solid->landU, u);
  EXPECT_EQ(solid->landV, v);
  EXPECT_EQ(solid->walked, 1);

  // A bare corner lands where the walk takes it.
  SampleCell* bare = t.cell(2, 3);
  float lx, ly;
  EXPECT_TRUE(nearestOpaque(2.0f, 3.0f, &lx, &ly));
  EXPECT_GE(lx, 5.0f);
  pointToUnit(lx, ly, 1, 0, 0, world.source(), &u, &v, &s, &tt);
  EXPECT_EQ(bare->landU, u);
  EXPECT_EQ(bare->landV, v);
  EXPECT_EQ(bare->walked, 1);

  // The corner beyond the right edge beside a solid pixel: taken as it stands.
  SampleCell* outside = t.cell(16, 6);
  pointToUnit(16.0f, 6.0f, 1, 0, 0, world.source(), &u, &v, &s, &tt);
  EXPECT_EQ(outside->walked, 0);
  EXPECT_EQ(outside->landU, u);
  EXPECT_EQ(outside->landV, v);
  EXPECT_EQ(u, 17.0f / 16.0f);

  // The corner before the left edge beside a bare pixel walks.
  SampleCell* before = t.cell(-1, 2);
  EXPECT_EQ(before->walked, 1);
  EXPECT_GT(before->landU, 5.0f / 16.0f);
}

TEST(FillCells, RateAndShiftComeFromTheParameterBlock) {
  LayerWorld world(8, 8);
  allSolid(world);
  world.params->tileShiftH = 3;
  world.params->tileShiftV = 1;
  TestUnit t(VRect{2, 2, 4, 4});
  renderUnit(t.unit);
  EXPECT_EQ(t.grid->sampleRate, 1);
  EXPECT_EQ(t.grid->offsetX, 3);
  EXPECT_EQ(t.grid->offsetY, 1);
  float u, v, s, tt;
  pointToUnit(2.0f, 3.0f, 1, 3, 1, world.source(), &u, &v, &s, &tt);
  EXPECT_EQ(t.cell(2, 3)->startU, u);
  EXPECT_EQ(t.cell(2, 3)->startV, v);
  EXPECT_EQ(u, 6.0f / 8.0f);
}

// ---- render units ------------------------------------------------------------------------------------

TEST(RenderUnit, SolidLayerMapIsTheIdentity) {
  // Every corner lands on itself, every pixel is read at its centre at level
  // 0, and the source's alpha is replaced by 1.
  LayerWorld world(24, 18);
  patterned(world, 90);
  allSolid(world);
  TestUnit t(VRect{5, 3, 18, 24});
  renderUnit(t.unit);
  for (int32_t y = 4; y <= 18; ++y)
    for (int32_t x = 2; x <= 24; ++x) {
      const SampleCell* c = t.cell(x, y);
      EXPECT_EQ(c->landU, c->startU);
      EXPECT_EQ(c->landV, c->startV);
    }
  for (int32_t y = 5; y < 18; ++y)
    for (int32_t x = 3; x < 24; ++x) {
      float u = averageU(averageU(t.cell(x - 1, y)->landU, t.cell(x - 1, y - 1)->landU, 0),
                         averageU(t.cell(x, y - 1)->landU, t.cell(x, y)->landU, 0), 0);
      float v = averageV(averageV(t.cell(x - 1, y)->landV, t.cell(x - 1, y - 1)->landV, 0),
                         averageV(t.cell(x, y - 1)->landV, t.cell(x, y)->landV, 0), 0);
      EXPECT_NEAR(u, (x + 0.5) / 24.0, 1e-6);
      EXPECT_NEAR(v, (y + 0.5) / 18.0, 1e-6);
      float expected[4];
      filterUnitPixel(world.source(), 0, 0.0f, u, v, expected);
      expected[3] = 1.0f;
      EXPECT_EQ(colourOf(t.cell(x, y)), std::vector<float>(expected, expected + 4)) << x << "," << y;
    }
}

TEST(RenderUnit, ColoursDoNotDependOnThePartition) {
  LayerWorld world(21, 15);
  patterned(world, 255);
  solidRect(world, 6, 4, 14, 10);
  TestUnit whole(VRect{0, 0, 15, 21});
  renderUnit(whole.unit);
  const VRect parts[] = {VRect{0, 0, 7, 9}, VRect{0, 9, 7, 21}, VRect{7, 0, 15, 9}, VRect{7, 9, 15, 21}};
  int32_t differing = 0;
  for (const VRect& r : parts) {
    TestUnit part(r);
    renderUnit(part.unit);
    for (int32_t y = r.top; y < r.bottom; ++y)
      for (int32_t x = r.left; x < r.right; ++x) {
        const float* a = whole.cell(x, y)->colour;
        const float* b = part.cell(x, y)->colour;
        for (int c = 0; c < 4; ++c) EXPECT_EQ(floatBits(a[c]), floatBits(b[c])) << x << "," << y;
        if (a[0] != whole.cell(10, 7)->colour[0]) ++differing;
      }
  }
  EXPECT_GT(differing, 0);
  // The bare pixels took colour from the solid rectangle and are opaque.
  for (int32_t y = 0; y < 15; ++y)
    for (int32_t x = 0; x < 21; ++x) EXPECT_EQ(whole.cell(x, y)->colour[3], 1.0f);
}

TEST(RenderUnit, RowsAtATimeGiveTheCellsOfTheWholeUnitRoad) {
  // renderUnit takes a few rows of cells and then their pixels; the cells
  // must come out byte for byte as fillCells then samplePixels leave them,
  // in units whose height is and is not a multiple of the band.
  LayerWorld world(40, 30);
  patterned(world, 255);
  solidRect(world, 9, 6, 27, 19);
  for (const VRect& r : {VRect{2, 3, 28, 37}, VRect{0, 0, 4, 40}, VRect{5, 1, 30, 2}, VRect{11, 7, 12, 30}}) {
    TestUnit banded(r);
    renderUnit(banded.unit);
    // The grid as renderUnit prepares it, then the whole-unit road afresh.
    TestUnit whole(r);
    renderUnit(whole.unit);
    const size_t bytes =
        size_t(banded.unit->cursor.gridRows) * size_t(banded.unit->cursor.gridCols) * sizeof(SampleCell);
    memset(whole.grid->cells, 0, bytes);
    resetFootprintState(&whole.grid->state);
    fillCells(whole.unit, whole.grid);
    samplePixels(whole.unit);
    EXPECT_EQ(memcmp(banded.grid->cells, whole.grid->cells, bytes), 0) << r.top << "," << r.left;
  }
}

TEST(RenderUnit, LaneRoadGivesThePixelRoadsCells) {
  // The lane road against the pixel road on the same cells, byte for byte,
  // with one cell changed in each case to send a group of four, or a whole
  // row, back to the pixel road: a missing corner, a column mean that comes
  // out as the missing mark, a sum past the float range, a NaN, keys that
  // disagree, a missed point, and a stretched footprint that is no level-0
  // read. Widths that do and do not divide by four.
  if (!sampleLanesBuilt()) GTEST_SKIP() << "the lane road is not built here";
  LayerWorld world(40, 30);
  patterned(world, 255);
  solidRect(world, 9, 6, 27, 19);
  // Each change is made at two places: in the fourth column of corners and
  // in the ninth, the last of the second group of four pixels.
  struct Change {
    const char* what;
    void (*apply)(SampleCell* at, SampleCell* below);
  };
  const Change changes[] = {
      {"none", [](SampleCell*, SampleCell*) {}},
      {"missing corner", [](SampleCell* at, SampleCell*) { at->landU = -1.0f; }},
      {"mean is the mark",
       [](SampleCell* at, SampleCell* below) {
         at->landV = -0.5f;
         below->landV = -1.5f;
       }},
      {"sum past the range",
       [](SampleCell* at, SampleCell* below) {
         at->landU = 3e38f;
         below->landU = 3e38f;
       }},
      {"NaN", [](SampleCell* at, SampleCell*) { at->landV = NAN; }},
      {"keys disagree", [](SampleCell* at, SampleCell*) { at->keyC = 1; }},
      {"missed", [](SampleCell* at, SampleCell*) { at->keyA = -5; }},
      {"stretched", [](SampleCell* at, SampleCell*) { at->landU += 0.05f; }},
  };
  for (const VRect& r : {VRect{2, 3, 28, 37}, VRect{5, 1, 11, 6}}) {
    TestUnit t(r);
    renderUnit(t.unit);
    const size_t count = size_t(t.unit->cursor.gridRows) * size_t(t.unit->cursor.gridCols);
    const std::vector<SampleCell> rendered(t.grid->cells, t.grid->cells + count);
    // A last case jitters every landing point by a few millionths, so that
    // the footprint's test falls on both sides of its bound.
    for (size_t c = 0; c <= sizeof changes / sizeof changes[0]; ++c) {
      const bool jitter = c == sizeof changes / sizeof changes[0];
      std::vector<SampleCell> byRoad[2];
      for (SampleRoad road : {kSampleRoadPixels, kSampleRoadLanes}) {
        memcpy(t.grid->cells, rendered.data(), count * sizeof(SampleCell));
        if (jitter) {
          uint32_t state = 7;
          for (size_t i = 0; i < count; ++i) {
            state = state * 1664525u + 1013904223u;
            t.grid->cells[i].landU += float(int32_t(state >> 24) - 128) * 3e-8f;
            t.grid->cells[i].landV += float(int32_t((state >> 16) & 255) - 128) * 3e-8f;
          }
        } else {
          changes[c].apply(t.cell(r.left + 2, r.top + 1), t.cell(r.left + 2, r.top + 2));
          if (r.right - r.left > 8) changes[c].apply(t.cell(r.left + 7, r.top + 3), t.cell(r.left + 7, r.top + 4));
        }
        resetFootprintState(&t.grid->state);
        samplePixelRowsOn(road, t.unit, r.top, r.bottom);
        byRoad[road].assign(t.grid->cells, t.grid->cells + count);
      }
      const char* what = jitter ? "jitter" : changes[c].what;
      EXPECT_EQ(memcmp(byRoad[0].data(), byRoad[1].data(), count * sizeof(SampleCell)), 0) << what;
      if (c == 0) {
        EXPECT_EQ(memcmp(byRoad[1].data(), rendered.data(), count * sizeof(SampleCell)), 0);
      }
    }
  }
}

TEST(RenderUnit, BareLayerWithFlatFieldGivesBlackOpaque) {
  // No solid pixel and no gradient: every walk ends at NaN, the footprint
  // gives zero colour, and the window makes it opaque.
  LayerWorld world(9, 7);
  patterned(world, 0);
  world.fillField([](float, float) { return 9000000.0f; });
  TestUnit t(VRect{0, 0, 7, 9});
  renderUnit(t.unit);
  EXPECT_TRUE(isnan(t.cell(4, 4)->landU));
  for (int32_t y = 0; y < 7; ++y)
    for (int32_t x = 0; x < 9; ++x) EXPECT_EQ(colourOf(t.cell(x, y)), (std::vector<float>{0, 0, 0, 1}));
}

// ---- pixel sampling ------------------------------------------------------------------------------------

TEST(PixelSampling, AveragesSkipMissingCornersUseDoubleAndWrap) {
  // Mode 0 plain; averageV wraps on the circle under mode 1 only, averageU
  // under any mode but 0.
  const float a = 0.1f, b = 0.7f, mean = float((double(a) + double(b)) * 0.5);
  struct Case {
    bool v;
    float a, b;
    int32_t mode;
    float mean;
  };
  const Case cases[] = {{true, -1.0f, 0.25f, 0, 0.25f},  {true, 0.25f, -1.0f, 0, 0.25f}, {false, -1.0f, 0.75f, 0, 0.75f},
                        {false, -1.0f, -1.0f, 0, -1.0f}, {true, 0.25f, 0.5f, 0, 0.375f}, {false, a, b, 0, mean},
                        {true, a, b, 0, mean},           {true, 0.9f, 0.1f, 1, 1.0f},    {true, 0.2f, 0.4f, 1, 0.3f},
                        {false, 0.9f, 0.2f, 1, 0.05f},   {false, 0.9f, 0.2f, 0, 0.55f},  {true, 0.9f, 0.2f, 2, 0.55f},
                        {false, 0.9f, 0.2f, 2, 0.05f}};
  for (const Case& c : cases) {
    const float got = c.v ? averageV(c.a, c.b, c.mode) : averageU(c.a, c.b, c.mode);
    EXPECT_NEAR(got, c.mean, c.mode == 0 ? 0.0 : 1e-6) << (c.v ? "v " : "u ") << c.a << " " << c.b << " " << c.mode;
  }
}

TEST(PixelSampling, PlainMeansRoundAsTheDoubleMean) {
  // The plain mean is taken in float where that gives the double's bits;
  // the edges of that ground (overflowing sums, means below the normal
  // range, exact zeros, NaN, far exponents), then random bit patterns.
  const float big = FLT_MAX;
  const float tiny = FLT_MIN;
  const float sub = 1e-45f;
  std::vector<std::pair<float, float>> pairs = {
      {big, big},          {-big, -big},       {big, -big},        {big, 1.0f},       {tiny, 0.0f},
      {tiny, tiny},        {tiny, -tiny * 0.5f}, {sub, sub},         {sub, 0.0f},       {sub * 3.0f, sub},
      {-sub, sub},         {0.0f, -0.0f},      {-0.0f, -0.0f},     {1.0f, 1e-30f},    {0.75f, 1e-8f},
      {nanf(""), 0.5f},    {0.5f, -nanf("")},  {INFINITY, 1.0f},   {INFINITY, -INFINITY}, {3e38f, 1e38f},
      {tiny * 2.0f, -tiny}, {0.1f, 0.7f}};
  uint32_t state = 12345;
  for (int i = 0; i < 200000; ++i) {
    state = state * 1664525u + 1013904223u;
    const uint32_t x = state;
    state = state * 1664525u + 1013904223u;
    // Half the pairs close in size, so that their sums cancel.
    const uint32_t y = (i & 1) != 0 ? state : (x ^ (state & 0x8000ffffu));
    pairs.push_back({bitsToFloat(x), bitsToFloat(y)});
  }
  for (const auto& p : pairs) {
    if (p.first == -1.0f || p.second == -1.0f) continue;  // the missing corner's mark
    const float expected = float((double(p.first) + double(p.second)) * 0.5);
    for (const float got :
         {averageU(p.first, p.second, 0), averageV(p.first, p.second, 0), averageV(p.first, p.second, 2)}) {
      ASSERT_EQ(floatBits(got), floatBits(expected)) << p.first << " " << p.second;
    }
  }
}

}  // namespace

// ---- the row loop against the sampler's whole road ------------------------------------------------------

TEST(SamplePixels, EveryPixelAsTheSamplersWholeRoadGivesIt) {
  // A layer with walks, seams and elongated footprints; then cells edited so
  // that some corners are missing (-1.0), NaN, without a hit, or of another
  // key. The row loop must give each pixel the colour that samplePixel gives.
  LayerWorld world(40, 30);
  patterned(world, 255);
  solidRect(world, 9, 6, 27, 19);
  TestUnit t(VRect{2, 3, 28, 37});
  renderUnit(t.unit);
  t.cell(5, 5)->landU = -1.0f;
  t.cell(8, 3)->landV = nanf("");
  t.cell(10, 6)->keyC = 1;
  t.cell(12, 8)->keyA = -5;
  t.cell(3, 9)->landU = -1.0f;
  t.cell(3, 9)->landV = -1.0f;
  t.cell(20, 12)->landU = -1.0f;
  t.cell(21, 12)->landU = -1.0f;
  samplePixels(t.unit);

  const VRect& r = t.unit->cursor.unitRect;
  int32_t general = 0;
  for (int32_t y = r.top; y < r.bottom; ++y)
    for (int32_t x = r.left; x < r.right; ++x) {
      PixelSample sample;
      samplePixel(kDefaultSharpness, t.grid->store, x, y, t.grid, kSamplerMode, 1, sample, t.unit);
      const float* got = t.cell(x, y)->colour;
      for (int c = 0; c < 4; ++c)
        ASSERT_EQ(floatBits(got[c]), floatBits(sample.resultColour[c])) << x << "," << y << " channel " << c;
      // Corners whose keys hash apart took the general road in the row loop too.
      if (sample.hash[0] != sample.hash[1] || sample.hash[0] != sample.hash[2] || sample.hash[0] != sample.hash[3])
        ++general;
    }
  EXPECT_GT(general, 0);
  // The pixel whose own corner has nothing under it shows the no-hit colour.
  EXPECT_EQ(colourOf(t.cell(12, 8)), (std::vector<float>{1, 0, 1, 1}));
}

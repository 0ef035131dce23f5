// The coverage fields: the opaque map and its thresholds, the seed of the
// distance field with its margin, the sweeps and the inversion with values
// worked out by hand, and the smoothing's windows on a spike, through the job
// pool of the engine itself.
#include <gtest/gtest.h>

#include <math.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <utility>
#include <vector>

#include "fill/coverage.h"
#include "fill/line_smooth.h"
#include "host/blocks.h"
#include "host/plugin_main.h"
#include "store/pixel_store.h"
#include "tests/support/test_support.h"

namespace {

// The fields hang from the fixture's ParamBlock.
struct CoverageFixture : testing_support::EngineFixture {
  PixelStore* source = nullptr;

  void TearDown() override {
    pixelStoreDestroy(&params.opaqueStore);
    pixelStoreDestroy(&params.distanceStore);
    pixelStoreDestroy(&source);
    EngineFixture::TearDown();
  }

  // A source of the given kind, every pixel (r, g, b, alpha) in stored units.
  void makeSource(int32_t width, int32_t height, int32_t kind, float alpha) {
    source = pixelStoreCreate(width, height, kind, 0, false);
    ASSERT_NE(source, nullptr);
    for (int32_t y = 0; y < height; ++y) {
      for (int32_t x = 0; x < width; ++x) put(x, y, alpha);
    }
  }
  // Sets the alpha of one pixel, in stored units (255, 32768 or the float), colour mid-grey.
  void put(int32_t x, int32_t y, float alpha) {
    if (source->kind == kKindRgba8) {
      const int32_t c[4] = {100, 120, 140, int32_t(alpha)};
      writeU8x4(x, y, source, 0, c);
    } else if (source->kind == kKindRgba16) {
      const int32_t c[4] = {12000, 14000, 16000, int32_t(alpha)};
      writeU16x4(x, y, source, 0, c);
    } else {
      const float c[4] = {0.4f, 0.5f, 0.6f, alpha};
      uint32_t w[4];
      memcpy(w, c, sizeof w);
      writeWord4(x, y, source, 0, w);
    }
  }

  // The field as the sweeps leave it, before smoothing.
  PixelStore* unsmoothedField() {
    PixelStore* field = pixelStoreCreate(source->levelWidth[0] + kDistanceGrowth,
                                         source->levelHeight[0] + kDistanceGrowth, kKindFloat, 0, true);
    seedDistanceStore(source, field, 0);
    sweepDistance(field);
    invertDistanceStore(field);
    sweepDistance(field);
    return field;
  }
};

float cell(const PixelStore* field, int32_t x, int32_t y) { return readFloat(x, y, field, 0); }

// ---- opaque map and seed -------------------------------------------------------------------------

TEST_F(CoverageFixture, OpaqueMapAndSeedDrawTheSolidLineAtEveryKind) {
  // 8 bits: solid from 252; 16 bits: from 32383; floats as they stand, the
  // floats on either side of 252/255, above 1 (solid) and NaN (not). The seed
  // holds the alpha below the line, far from it on.
  float above = float(kSolidAlpha);
  if (double(above) < kSolidAlpha) above = nextafterf(above, 2.0f);
  const float below = nextafterf(above, 0.0f);
  struct Case {
    int32_t kind;
    std::vector<float> alphas;
    std::vector<int32_t> solid;
  };
  const Case cases[] = {
      {kKindRgba8, {0, 5, 128, 251, 252, 255}, {0, 0, 0, 0, 255, 255}},
      {kKindRgba16, {521, 32382, 32383, 32768}, {0, 0, 255, 255}},
      {kKindRgbaFloat, {below, above, 0.5f, 3.0f, nanf("")}, {0, 255, 0, 255, 0}},
      {kKindRgbaFloat, {0.0f, 0.5f, 0.98f, 1.0f}, {0, 0, 0, 255}},
  };
  for (const Case& c : cases) {
    const int32_t n = int32_t(c.alphas.size());
    makeSource(n, 1, c.kind, 0.0f);
    for (int32_t x = 0; x < n; ++x) put(x, 0, c.alphas[size_t(x)]);
    PixelStore* opaque = buildOpaqueStore(source);
    ASSERT_NE(opaque, nullptr);
    EXPECT_EQ(opaque->kind, kKindGray8);
    PixelStore* field = pixelStoreCreate(n + kDistanceGrowth, 1 + kDistanceGrowth, kKindFloat, 0, true);
    seedDistanceStore(source, field, 0);
    const float unit = c.kind == kKindRgba8 ? float(1.0 / 255.0) : c.kind == kKindRgba16 ? float(1.0 / 32768.0) : 1.0f;
    for (int32_t x = 0; x < n; ++x) {
      EXPECT_EQ(readU8(x, 0, opaque, 0), c.solid[size_t(x)]) << c.kind << " alpha " << c.alphas[size_t(x)];
      const float a = c.alphas[size_t(x)];
      const float seed = c.solid[size_t(x)] != 0 ? kFarDistance : c.kind == kKindRgbaFloat ? a : a * unit;
      if (a == a) {
        EXPECT_EQ(cell(field, x + 9, 9), seed) << x;
      }
    }
    pixelStoreDestroy(&opaque);
    pixelStoreDestroy(&field);
    pixelStoreDestroy(&source);
  }
}

TEST_F(CoverageFixture, SeedRunsTheImageEdgesThroughTheMargin) {
  // 3 x 2 image: the field is 23 x 22 cells, with pixel (x, y) at (x + 9, y + 9).
  makeSource(3, 2, kKindRgbaFloat, 1.0f);
  put(0, 0, 0.25f);  // top-left corner, soft
  put(2, 1, 0.75f);  // bottom-right corner, soft
  PixelStore* field = pixelStoreCreate(3 + kDistanceGrowth, 2 + kDistanceGrowth, kKindFloat, 0, true);
  ASSERT_EQ(field->levelWidth[0], 23);
  ASSERT_EQ(field->levelHeight[0], 22);
  seedDistanceStore(source, field, 0);
  // The top-left block of the margin repeats pixel (0, 0); 11 columns and 11
  // rows past the last pixel still hold it; pixel (1, 0) runs up through the
  // top margin only.
  for (int32_t y = 0; y <= 9; ++y)
    for (int32_t x = 0; x <= 9; ++x) EXPECT_EQ(cell(field, x, y), 0.25f) << x << "," << y;
  for (int32_t y = 10; y < 22; ++y)
    for (int32_t x = 11; x < 23; ++x) EXPECT_EQ(cell(field, x, y), 0.75f) << x << "," << y;
  for (int32_t y = 0; y <= 9; ++y) EXPECT_EQ(cell(field, 10, y), kFarDistance);
  pixelStoreDestroy(&field);
}

// ---- one cell ----------------------------------------------------------------------------------

TEST(RelaxDistanceCell, WorkedCells) {
  // 3 x 3 cells, the centre relaxed from its four neighbours.
  PixelStore* field = pixelStoreCreate(1, 1, kKindFloat, 0, true);
  const float far = kFarDistance, r2 = float(sqrt(2.0) * 0.5);
  struct Case {
    float centre, left, right, up, down, result;
  };
  const Case cases[] = {
      {far, 5, 3, 7, 9, 4},    // the nearer of each axis: 3 alone, + 1
      {far, 8, 6, 2, 4, 3},
      {far, 0, far, 1.5f, far, 1},  // |a - b| of a whole pixel or more: min + 1
      {far, 0, far, 1.0f, far, 1},
      {far, 0, far, 0.9f, far, float((sqrt(2.0 - 0.81) + 0.9) * 0.5)},
      {far, 0, far, 0, far, r2},
      {0.999f, -5, -5, -5, -5, 0.999f},  // below one: final
      {-3, -5, -5, -5, -5, -3},
      {1.0f, 0, 0, 0, 0, r2},            // 1.0 itself is still open
      {2, 5, 5, 5, 5, 2},                // only ever lowered
  };
  for (const Case& c : cases) {
    for (int32_t y = 0; y < 3; ++y)
      for (int32_t x = 0; x < 3; ++x) writeFloat(x, y, field, 0, far);
    writeFloat(1, 1, field, 0, c.centre);
    writeFloat(0, 1, field, 0, c.left);
    writeFloat(2, 1, field, 0, c.right);
    writeFloat(1, 0, field, 0, c.up);
    writeFloat(1, 2, field, 0, c.down);
    relaxDistanceCell(1, 1, field);
    EXPECT_FLOAT_EQ(readFloat(1, 1, field, 0), c.result) << c.centre << " " << c.left << " " << c.up;
  }
  // Corner (0, 0): left and up read past the edge as the cell itself; right 4, down 6.
  for (int32_t y = 0; y < 3; ++y)
    for (int32_t x = 0; x < 3; ++x) writeFloat(x, y, field, 0, far);
  writeFloat(1, 0, field, 0, 4.0f);
  writeFloat(0, 1, field, 0, 6.0f);
  relaxDistanceCell(0, 0, field);
  EXPECT_EQ(readFloat(0, 0, field, 0), 5.0f);
  pixelStoreDestroy(&field);
}

// ---- sweeps (the whole pipeline over tile borders is pinned by the end-to-end digests) ----------------

TEST_F(CoverageFixture, StraightEdgeCountsWholePixelsBothWays) {
  // Columns 0..14 bare, 15..29 solid: field columns 0..23 bare (margin
  // included), 24..49 solid. Before smoothing the last bare column holds 0,
  // the ones before it 1, 2, ...; the solid ones -1, -2, ... out through the margin.
  makeSource(30, 12, kKindRgba8, 255.0f);
  for (int32_t y = 0; y < 12; ++y) {
    for (int32_t x = 0; x < 15; ++x) put(x, y, 0.0f);
  }
  PixelStore* field = unsmoothedField();
  ASSERT_EQ(field->levelWidth[0], 50);
  ASSERT_EQ(field->levelHeight[0], 32);
  for (int32_t y = 0; y < 32; ++y) {
    for (int32_t x = 0; x < 50; ++x) {
      const float expected = x <= 23 ? float(23 - x) : -float(x - 23);
      ASSERT_EQ(cell(field, x, y), expected) << x << "," << y;
    }
  }
  pixelStoreDestroy(&field);
}

TEST_F(CoverageFixture, FirstSweepFreezesALoneSolidPixelBelowOne) {
  makeSource(9, 9, kKindRgba8, 0.0f);
  put(4, 4, 255.0f);
  PixelStore* field = pixelStoreCreate(9 + kDistanceGrowth, 9 + kDistanceGrowth, kKindFloat, 0, true);
  seedDistanceStore(source, field, 0);
  sweepDistance(field);
  const float depth = float(sqrt(2.0) * 0.5);  // (0 + 0 + sqrt(2)) / 2
  EXPECT_EQ(cell(field, 13, 13), depth);
  EXPECT_EQ(cell(field, 12, 13), 0.0f);
  invertDistanceStore(field);
  EXPECT_EQ(cell(field, 13, 13), -depth);
  EXPECT_EQ(cell(field, 12, 13), kFarDistance);
  sweepDistance(field);
  // A 4-neighbour: -0.7071 + 1 along one axis.
  const float next = float(double(-depth) + 1.0);
  for (const auto& p : {std::make_pair(12, 13), std::make_pair(14, 13), std::make_pair(13, 12), std::make_pair(13, 14)})
    EXPECT_EQ(cell(field, p.first, p.second), next) << p.first << "," << p.second;
  EXPECT_EQ(cell(field, 11, 13), float(double(next) + 1.0));
  pixelStoreDestroy(&field);
}

TEST_F(CoverageFixture, SoftPixelStaysNegativeAndItsNeighboursStartAtHalf) {
  // One pixel of alpha 0.5 in a bare layer: no solid pixel, so the first
  // round changes nothing; after inversion the soft pixel is -0.5 and final.
  makeSource(15, 15, kKindRgbaFloat, 0.0f);
  put(7, 7, 0.5f);
  PixelStore* field = pixelStoreCreate(15 + kDistanceGrowth, 15 + kDistanceGrowth, kKindFloat, 0, true);
  seedDistanceStore(source, field, 0);
  sweepDistance(field);
  EXPECT_EQ(cell(field, 16, 16), 0.5f);
  EXPECT_EQ(cell(field, 15, 16), 0.0f);
  invertDistanceStore(field);
  EXPECT_EQ(cell(field, 16, 16), -0.5f);
  sweepDistance(field);
  EXPECT_EQ(cell(field, 16, 16), -0.5f);
  // Along the axes: -0.5 + 1, then + 1 again; on the diagonal both fronts
  // at 0.5 meet, (sqrt(2) + 1) / 2.
  const float diagonal = float((sqrt(2.0) + 1.0) * 0.5);
  const float cells[][3] = {{15, 16, 0.5f},     {17, 16, 0.5f},     {16, 15, 0.5f},     {16, 17, 0.5f},
                            {18, 16, 1.5f},     {16, 14, 1.5f},     {15, 15, diagonal}, {17, 17, diagonal},
                            {15, 17, diagonal}, {17, 15, diagonal}};
  for (const auto& c : cells) EXPECT_EQ(cell(field, int32_t(c[0]), int32_t(c[1])), c[2]) << c[0] << "," << c[1];
  pixelStoreDestroy(&field);
}

TEST(Inversion, FlipsSignsAndOpensBareCells) {
  // A float alpha below 0 seeds a negative cell: only 0.0 itself is bare.
  PixelStore* field = pixelStoreCreate(3, 1, kKindFloat, 0, true);  // 5 x 3 cells
  const float before[5] = {0.0f, 0.3f, 2.5f, kFarDistance, -0.25f};
  const float after[5] = {kFarDistance, -0.3f, -2.5f, -kFarDistance, 0.25f};
  for (int32_t y = 0; y < 3; ++y) {
    for (int32_t x = 0; x < 5; ++x) writeFloat(x, y, field, 0, before[x]);
  }
  invertDistanceStore(field);
  for (int32_t y = 0; y < 3; ++y) {
    for (int32_t x = 0; x < 5; ++x) EXPECT_EQ(readFloat(x, y, field, 0), after[x]) << x << "," << y;
  }
  pixelStoreDestroy(&field);
}

// ---- smoothing ----------------------------------------------------------------------------------

TEST(SmoothReach, RadiusSixGivesWindowsOfSixCells) {
  // Radius 1: r = 0.4333, both reaches 0, and hi - 1 is negative; radius 3:
  // r = 1.3, hi = 1 (1.8), lo = 1 (1.3); negative values step down before
  // they are truncated: r = -1.3.
  const float cases[][3] = {{6.0f, 3, 2}, {1.0f, 0, 0}, {3.0f, 1, 1}, {-3.0f, -1, -2}};
  for (const auto& c : cases) {
    const SmoothReach r = smoothReach(c[0]);
    EXPECT_EQ(r.hi, int32_t(c[1])) << c[0];
    EXPECT_EQ(r.lo, int32_t(c[2])) << c[0];
  }
}

// Counts of the windows (back, forward) applied to a unit spike: how many
// paths lead from the spike to each offset, for the three windows in turn.
std::vector<double> boxProfile() {
  std::vector<double> profile(41, 0.0);  // offsets -20..20
  profile[20] = 1.0;
  const int windows[3][2] = {{2, 3}, {3, 2}, {2, 3}};
  for (const auto& wnd : windows) {
    std::vector<double> next(41, 0.0);
    // out[i] = mean of in[i - back .. i + forward]
    for (int i = 0; i < 41; ++i) {
      double s = 0.0;
      for (int j = i - wnd[0]; j <= i + wnd[1]; ++j) {
        if (j >= 0 && j < 41) s += profile[j];
      }
      next[i] = s / 6.0;
    }
    profile = next;
  }
  return profile;
}

TEST_F(CoverageFixture, SmoothingSpreadsASpikeIntoABellHalfACellBack) {
  // A spike of 1 in a zero field: the bell covers 16 cells on each axis, from
  // 8 before the spike to 7 after it, with its centre of mass half a cell back.
  PixelStore* field = pixelStoreCreate(38, 38, kKindFloat, 0, true);  // 40 x 40 cells
  ASSERT_NE(field, nullptr);
  writeFloat(20, 20, field, 0, 1.0f);
  smoothStore(field, 0, levelRect(field, 0), 6.0f);
  const std::vector<double> profile = boxProfile();
  double mass = 0.0;
  double sumX = 0.0;
  double sumY = 0.0;
  for (int32_t y = 0; y < 40; ++y) {
    for (int32_t x = 0; x < 40; ++x) {
      const float v = readFloat(x, y, field, 0);
      const double expected = profile[x] * profile[y];
      ASSERT_NEAR(v, expected, 1e-7) << x << "," << y;
      // Every cell of the bell has weight; outside it the running sums may
      // leave a trace of rounding, which the comparison above bounds.
      const bool inside = x >= 12 && x <= 27 && y >= 12 && y <= 27;
      if (inside) {
        ASSERT_GT(v, 2e-5f) << x << "," << y;
      }
      mass += v;
      sumX += v * x;
      sumY += v * y;
    }
  }
  EXPECT_NEAR(mass, 1.0, 1e-5);
  EXPECT_NEAR(sumX / mass, 19.5, 1e-4);
  EXPECT_NEAR(sumY / mass, 19.5, 1e-4);
  pixelStoreDestroy(&field);
}

// ---- the whole preparation ----------------------------------------------------------------------

TEST_F(CoverageFixture, UniformLayersGiveUniformFields) {
  // Without holes: deep everywhere; bare: far; one pixel: a field of 21 x 21
  // cells that all repeat it; one soft pixel is a seed in every cell and the
  // smoothing of a constant gives it back.
  struct Case {
    int32_t w, h, kind;
    float alpha;
    int32_t solid;
    float cell;
  };
  const Case cases[] = {
      {40, 30, kKindRgba8, 255.0f, 255, -kFarDistance}, {33, 17, kKindRgba16, 0.0f, 0, kFarDistance},
      {1, 1, kKindRgba8, 255.0f, 255, -kFarDistance},   {1, 1, kKindRgba8, 128.0f, 0, -128.0f * float(1.0 / 255.0)},
      {1, 1, kKindRgbaFloat, 0.0f, 0, kFarDistance},
  };
  for (const Case& c : cases) {
    makeSource(c.w, c.h, c.kind, c.alpha);
    buildFillFields(source);
    ASSERT_NE(params.opaqueStore, nullptr);
    EXPECT_EQ(params.spareStore, nullptr);
    for (int32_t y = 0; y < c.h; ++y)
      for (int32_t x = 0; x < c.w; ++x) ASSERT_EQ(readU8(x, y, params.opaqueStore, 0), c.solid);
    const PixelStore* field = params.distanceStore;
    EXPECT_EQ(field->levelWidth[0], c.w + 20);
    EXPECT_EQ(field->levelHeight[0], c.h + 20);
    for (int32_t y = 0; y < c.h + 20; ++y)
      for (int32_t x = 0; x < c.w + 20; ++x) ASSERT_FLOAT_EQ(cell(field, x, y), c.cell) << x << "," << y;
    EXPECT_EQ(result, 0);
    pixelStoreDestroy(&params.opaqueStore);
    pixelStoreDestroy(&params.distanceStore);
    pixelStoreDestroy(&source);
  }
}

}  // namespace

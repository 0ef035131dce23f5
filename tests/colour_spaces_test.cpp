// Colour representations behind the blend modes: HSL and its brightness
// variant against hand-worked values and round trips, the hue-wheel points,
// the grid interpolation on synthetic grids, and the two stored grids.
#include <gtest/gtest.h>

#include <math.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "finish/colour_spaces.h"

namespace {

struct Rgb {
  float r, g, b;
};

Rgb hsl(float h, float sat, float l) {
  Rgb c;
  hslToRgb(h, sat, l, &c.r, &c.g, &c.b);
  return c;
}

Rgb hueSatLuma(float h, float sat, float t) {
  Rgb c;
  hueSatLumaToRgb(h, sat, t, &c.r, &c.g, &c.b);
  return c;
}

// ---- HSL ---------------------------------------------------------------------------------------

TEST(RgbToHsl, HandWorkedColours) {
  struct Row {
    Rgb in;
    float h, sat, l;
  };
  // Hue = sixths x 0.16666667, with the sixths from the channel shares below
  // the maximum. Pure red comes out of the last sector: 6 x 0.16666667 rounds
  // to exactly 1.0.
  const Row rows[] = {
      {{1.0f, 0.0f, 0.0f}, 1.0f, 1.0f, 0.5f},                 // 5 + fb, fb = 1
      {{0.0f, 1.0f, 0.0f}, 0.33333334f, 1.0f, 0.5f},          // 1 + fr, fr = 1
      {{0.0f, 0.0f, 1.0f}, 0.6666667f, 1.0f, 0.5f},           // 3 + fg, fg = 1
      {{1.0f, 0.5f, 0.0f}, 0.083333336f, 1.0f, 0.5f},         // 1 - fg, fg = 0.5
      {{0.0f, 1.0f, 0.5f}, 0.41666669f, 1.0f, 0.5f},          // 3 - fb = 2.5
      {{0.5f, 0.0f, 1.0f}, 0.75f, 1.0f, 0.5f},                // 5 - fr = 4.5
      {{0.0f, 0.5f, 1.0f}, 0.58333337f, 1.0f, 0.5f},          // 3 + fg = 3.5
      {{1.0f, 1.0f, 0.5f}, 0.16666667f, 1.0f, 0.75f},         // l above 0.5: delta / (2 - max - min)
      {{0.5f, 0.25f, 0.25f}, 1.0f, 0.33333334f, 0.375f},      // g and b both min: 5 + fb
      // Black and grays have no hue or saturation; negative lightness stops
      // before the spread is looked at.
      {{0.0f, 0.0f, 0.0f}, 0.0f, 0.0f, 0.0f},
      {{0.1f, 0.1f, 0.1f}, 0.0f, 0.0f, 0.1f},
      {{0.75f, 0.75f, 0.75f}, 0.0f, 0.0f, 0.75f},
      {{1.0f, 1.0f, 1.0f}, 0.0f, 0.0f, 1.0f},
      {{-0.5f, 0.25f, -0.5f}, 0.0f, 0.0f, -0.125f},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(::testing::Message() << row.in.r << ", " << row.in.g << ", " << row.in.b);
    float h, sat, l;
    rgbToHsl(row.in.r, row.in.g, row.in.b, &h, &sat, &l);
    EXPECT_FLOAT_EQ(h, row.h);
    EXPECT_FLOAT_EQ(sat, row.sat);
    EXPECT_FLOAT_EQ(l, row.l);
  }
}

TEST(HslToRgb, HandWorkedColours) {
  // M = (sat + 1) l or sat + l - sat l; m = 2l - M; the sector n = trunc(6h).
  // Hue 1 takes the sector of 0; no light gives black.
  struct Row {
    float h, sat, l;
    Rgb out;
  };
  const Row rows[] = {
      {0.25f, 0.5f, 0.25f, {0.25f, 0.375f, 0.125f}},  // M 0.375, m 0.125, sector 1 half way
      {0.0f, 0.5f, 0.75f, {0.875f, 0.625f, 0.625f}},  // M 0.875, m 0.625
      {1.0f, 0.5f, 0.75f, {0.875f, 0.625f, 0.625f}},
      {0.5f, 1.0f, 0.5f, {0.0f, 1.0f, 1.0f}},         // sector 3 at its start: cyan
      {0.75f, 1.0f, 0.5f, {0.5f, 0.0f, 1.0f}},        // sector 4 half way: rising 0.5
      {0.9166667f, 1.0f, 0.5f, {1.0f, 0.0f, 0.5f}},   // sector 5 half way: falling 0.5
      {0.0f, 1.0f, 0.5f, {1.0f, 0.0f, 0.0f}},         {1.0f, 1.0f, 0.5f, {1.0f, 0.0f, 0.0f}},
      {0.3f, 0.0f, 0.0f, {0, 0, 0}},                  {0.3f, 0.5f, 0.0f, {0, 0, 0}},
      {0.3f, 1.0f, 0.0f, {0, 0, 0}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(::testing::Message() << row.h << ", " << row.sat << ", " << row.l);
    Rgb c = hsl(row.h, row.sat, row.l);
    EXPECT_NEAR(c.r, row.out.r, 1e-6f);
    EXPECT_NEAR(c.g, row.out.g, 1e-6f);
    EXPECT_NEAR(c.b, row.out.b, 1e-6f);
  }
  Rgb one = hsl(1.0f, 1.0f, 0.5f), zero = hsl(0.0f, 1.0f, 0.5f);
  EXPECT_EQ(memcmp(&one, &zero, sizeof one), 0);
}

// ---- hue, saturation, luma ------------------------------------------------------------------------

TEST(HueBrightness, WeighsTheHueAtHalfLightness) {
  EXPECT_EQ(hueBrightness(0.0f, 1.0f), 0.28f);                  // red
  EXPECT_EQ(hueBrightness(0.33333334f, 1.0f), 0.52f);           // green
  EXPECT_EQ(hueBrightness(0.6666667f, 1.0f), 0.2f);             // blue
  EXPECT_EQ(hueBrightness(0.16666667f, 1.0f), float(0.52 + 0.28));  // yellow
  EXPECT_EQ(hueBrightness(0.4f, 0.0f), 0.5f);                   // any gray
}

TEST(RgbToHueSatLuma, HandWorkedColours) {
  float h, sat, t;
  rgbToHueSatLuma(1.0f, 0.0f, 0.0f, &h, &sat, &t);  // l 0.5: t = 2 l Y = Y
  EXPECT_EQ(h, 1.0f);
  EXPECT_EQ(sat, 1.0f);
  EXPECT_EQ(t, 0.28f);
  rgbToHueSatLuma(0.25f, 0.25f, 0.25f, &h, &sat, &t);  // gray: Y 0.5, t = l
  EXPECT_EQ(t, 0.25f);
  rgbToHueSatLuma(0.875f, 0.875f, 0.875f, &h, &sat, &t);  // (l - 0.5) 2 (1 - Y) + Y
  EXPECT_EQ(t, 0.875f);
  rgbToHueSatLuma(1.0f, 0.5f, 0.5f, &h, &sat, &t);  // red at l 0.75: 0.5 x 0.72 + 0.28
  EXPECT_FLOAT_EQ(t, 0.64f);
  rgbToHueSatLuma(0.0f, 0.5f, 0.0f, &h, &sat, &t);  // green at l 0.25: 0.5 x 0.52
  EXPECT_FLOAT_EQ(t, 0.26f);
}

// Inside the range the way back is the round trip's; past it, white and black
// whatever the hue.
TEST(HueSatLumaToRgb, EndsAreWhiteAndBlack) {
  Rgb white = hueSatLuma(0.6f, 1.0f, 1.0f);
  EXPECT_TRUE(white.r == 1.0f && white.g == 1.0f && white.b == 1.0f);
  Rgb black = hueSatLuma(0.6f, 1.0f, -0.5f);
  EXPECT_TRUE(black.r == 0.0f && black.g == 0.0f && black.b == 0.0f);
}

// Both representations give every colour of a coarse cube back, from values
// within their ranges.
TEST(ColourRoundTrips, EveryColourOfACoarseCubeThroughHslAndHueSatLuma) {
  for (int r = 0; r <= 16; ++r) {
    for (int g = 0; g <= 16; ++g) {
      for (int b = 0; b <= 16; ++b) {
        const float in[3] = {r / 16.0f, g / 16.0f, b / 16.0f};
        float h, sat, l, hy, saty, t;
        rgbToHsl(in[0], in[1], in[2], &h, &sat, &l);
        rgbToHueSatLuma(in[0], in[1], in[2], &hy, &saty, &t);
        ASSERT_TRUE(h >= 0.0f && h <= 1.0f && sat >= 0.0f && sat <= 1.0f && t >= 0.0f && t <= 1.0f);
        for (const Rgb& back : {hsl(h, sat, l), hueSatLuma(hy, saty, t)}) {
          ASSERT_NEAR(back.r, in[0], 2e-6f) << r << " " << g << " " << b;
          ASSERT_NEAR(back.g, in[1], 2e-6f) << r << " " << g << " " << b;
          ASSERT_NEAR(back.b, in[2], 2e-6f) << r << " " << g << " " << b;
        }
      }
    }
  }
}

// ---- the hue wheel --------------------------------------------------------------------------------

TEST(PolarToXy, TrigonometryInDoubleRoundedBeforeTheProduct) {
  float x, y;
  polarToXy(0.0f, 2.0f, &x, &y);
  EXPECT_EQ(x, 2.0f);
  EXPECT_EQ(y, 0.0f);
  // The float pi lies just past pi: its sine is about -8.74e-8.
  polarToXy(kWheelPi, 1.0f, &x, &y);
  EXPECT_EQ(x, -1.0f);
  EXPECT_EQ(y, float(-8.742278000372485e-08));
  polarToXy(kWheelPi, 3.0f, &x, &y);
  EXPECT_EQ(y, float(-8.742278000372485e-08) * 3.0f);
}

TEST(XyToPolar, AnglesRunFromZeroToTwoPi) {
  struct Row {
    float x, y, angle, radius;
  };
  const Row rows[] = {
      {1.0f, 0.0f, 0.0f, 1.0f},
      {-1.0f, 0.0f, kWheelPi, 1.0f},
      {0.0f, 0.0f, kWheelPi, 0.0f},          // the origin takes pi
      {0.0f, 1.0f, 1.5707964f, 1.0f},
      {0.0f, -1.0f, kWheelThreeHalfPi, 1.0f},  // the lower half is carried round
      {3.0f, 4.0f, 0.9272952f, 5.0f},
      {1.0f, -1.0f, 5.497787f, 1.4142135f},
      {-1.0f, -1.0f, 3.926991f, 1.4142135f},
  };
  for (const Row& row : rows) {
    float angle, radius;
    xyToPolar(row.x, row.y, &angle, &radius);
    EXPECT_FLOAT_EQ(angle, row.angle) << row.x << ", " << row.y;
    EXPECT_FLOAT_EQ(radius, row.radius) << row.x << ", " << row.y;
  }
  float angle, radius;
  xyToPolar(0.0f, -1.0f, &angle, &radius);
  EXPECT_EQ(angle, 4.712389f);
}

TEST(XyToPolar, UndoesPolarToXy) {
  for (int i = 0; i < 720; ++i) {
    float angle = i * (kWheelTwoPi / 720.0f);
    float radius = 0.05f + (i % 20) * 0.05f;
    float x, y, backAngle, backRadius;
    polarToXy(angle, radius, &x, &y);
    xyToPolar(x, y, &backAngle, &backRadius);
    float diff = fabsf(backAngle - angle);
    if (diff > kWheelPi) diff = fabsf(diff - kWheelTwoPi);
    ASSERT_LT(diff, 2e-6f) << i;
    ASSERT_NEAR(backRadius, radius, 2e-7f) << i;
    ASSERT_GE(backAngle, 0.0f);
    ASSERT_LE(backAngle, kWheelTwoPi);
  }
}

// ---- grid lookup ----------------------------------------------------------------------------------

uint8_t* nodeOf(uint8_t* grid, int i, int j, int k) { return grid + 3 * i + 48 * j + 768 * k; }

TEST(GridLookup, FullScaleStandsOneStepShortAndReadsTheLastNode) {
  // 32768 / 2184.5334 is just under 15: q = 14, f = 2184, weights 0, 0, 0, 2184.
  static uint8_t grid[kColourGridBytes];
  memset(grid, 0, sizeof grid);
  uint8_t* last = nodeOf(grid, 15, 15, 15);
  last[0] = 255;
  last[1] = 17;
  last[2] = 1;
  const int32_t in[3] = {32768, 32768, 32768};
  int32_t out[3];
  gridLookup(in, out, grid, kColourGridSpacing15);
  EXPECT_EQ(out[0], 32760);  // 2184 x 255 / 17
  EXPECT_EQ(out[1], 2184);
  EXPECT_EQ(out[2], 128);  // 2184 / 17 = 128.47, truncated
}

TEST(GridLookup, VisitsTheFourNodesOfTheTetrahedronInOrderOfFraction) {
  static uint8_t grid[kColourGridBytes];
  memset(grid, 0, sizeof grid);
  // f = (1500, 1000, 500): base, +i, +i+j, +i+j+k with weights 684, 500, 500, 500.
  nodeOf(grid, 1, 0, 0)[0] = 17;
  nodeOf(grid, 1, 1, 0)[0] = 34;
  nodeOf(grid, 1, 1, 1)[0] = 51;
  nodeOf(grid, 0, 1, 0)[1] = 255;  // off the path: never read
  nodeOf(grid, 0, 0, 1)[1] = 255;  // off the path
  nodeOf(grid, 0, 0, 0)[2] = 34;
  const int32_t in[3] = {1500, 1000, 500};
  int32_t out[3];
  gridLookup(in, out, grid, kColourGridSpacing15);
  EXPECT_EQ(out[0], 500 * 1 + 500 * 2 + 500 * 3);
  EXPECT_EQ(out[1], 0);
  EXPECT_EQ(out[2], 684 * 2);

  // The other way round the path goes base, +k, +k+j, +k+j+i.
  const int32_t reversed[3] = {500, 1000, 1500};
  gridLookup(reversed, out, grid, kColourGridSpacing15);
  EXPECT_EQ(out[0], 500 * 3);  // only the far corner carries a red byte on this path
  EXPECT_EQ(out[1], 500 * 15);  // (0, 0, 1) lies on it
  EXPECT_EQ(out[2], 684 * 2);
}

TEST(GridLookup, LinearGridIsReproducedInTheCellsAndSteps) {
  // Node bytes 17 x step give back 2184 q + f for every channel.
  static uint8_t grid[kColourGridBytes];
  for (int k = 0; k < 16; ++k)
    for (int j = 0; j < 16; ++j)
      for (int i = 0; i < 16; ++i) {
        uint8_t* node = nodeOf(grid, i, j, k);
        node[0] = uint8_t(17 * i);
        node[1] = uint8_t(17 * j);
        node[2] = uint8_t(17 * k);
      }
  const int32_t in[3] = {10000, 0, 25000};
  int32_t out[3];
  gridLookup(in, out, grid, kColourGridSpacing15);
  // 10000: q 4, f trunc(10000 - 8738.1338) = 1261. 25000: q 11, f trunc(25000 - 24029.867) = 970.
  EXPECT_EQ(out[0], 4 * 2184 + 1261);
  EXPECT_EQ(out[1], 0);
  EXPECT_EQ(out[2], 11 * 2184 + 970);
}

TEST(GridLookup, InputsOutsideTheRangeReadTheEdge) {
  const int32_t low[3] = {-5000, INT32_MIN, -1};
  const int32_t zero[3] = {0, 0, 0};
  const int32_t high[3] = {40000, INT32_MAX, 32769};
  const int32_t full[3] = {32768, 32768, 32768};
  int32_t a[3], b[3];
  gridLookup(low, a, kLabToRgbGrid, kColourGridSpacing15);
  gridLookup(zero, b, kLabToRgbGrid, kColourGridSpacing15);
  EXPECT_EQ(memcmp(a, b, sizeof a), 0);
  gridLookup(high, a, kRgbToLabGrid, kColourGridSpacing15);
  gridLookup(full, b, kRgbToLabGrid, kColourGridSpacing15);
  EXPECT_EQ(memcmp(a, b, sizeof a), 0);
}

// ---- the stored grids -------------------------------------------------------------------------------

void expectNode(const uint8_t* grid, int i, int j, int k, int b0, int b1, int b2) {
  const uint8_t* node = grid + 3 * i + 48 * j + 768 * k;
  EXPECT_EQ(node[0], b0) << "node " << i << ", " << j << ", " << k;
  EXPECT_EQ(node[1], b1) << "node " << i << ", " << j << ", " << k;
  EXPECT_EQ(node[2], b2) << "node " << i << ", " << j << ", " << k;
}

TEST(ColourGrids, RgbToLabHoldsItsFixedNodes) {
  static_assert(sizeof kRgbToLabGrid == 12288, "16 x 16 x 16 nodes of 3 bytes");
  expectNode(kRgbToLabGrid, 0, 0, 0, 0, 128, 128);
  expectNode(kRgbToLabGrid, 15, 15, 15, 255, 128, 128);
  expectNode(kRgbToLabGrid, 8, 8, 8, 163, 128, 128);
  expectNode(kRgbToLabGrid, 15, 0, 0, 144, 208, 208);
  expectNode(kRgbToLabGrid, 0, 15, 0, 214, 51, 207);
  expectNode(kRgbToLabGrid, 0, 0, 15, 104, 158, 33);
  expectNode(kRgbToLabGrid, 15, 15, 0, 243, 119, 222);
}

TEST(ColourGrids, LabToRgbHoldsItsFixedNodes) {
  static_assert(sizeof kLabToRgbGrid == 12288, "16 x 16 x 16 nodes of 3 bytes");
  expectNode(kLabToRgbGrid, 0, 0, 0, 0, 0, 181);
  expectNode(kLabToRgbGrid, 15, 0, 0, 0, 255, 255);
  expectNode(kLabToRgbGrid, 0, 15, 0, 28, 0, 182);
  expectNode(kLabToRgbGrid, 0, 0, 15, 0, 0, 0);
  expectNode(kLabToRgbGrid, 8, 8, 8, 125, 104, 95);
  expectNode(kLabToRgbGrid, 15, 15, 15, 255, 7, 7);
}

TEST(RgbToLab15, RoundTripsThroughLabWithinTheGridError) {
  // The grids are coarse and the way back clips, so the round trip is close
  // in the middle of the cube and looser toward its faces.
  int64_t total = 0;
  int count = 0;
  int worstInner = 0;
  for (int r = 0; r <= 32768; r += 1024)
    for (int g = 0; g <= 32768; g += 1024)
      for (int b = 0; b <= 32768; b += 1024) {
        const int32_t in[3] = {r, g, b};
        int32_t lab[3], back[3];
        rgbToLab15(in, lab);
        labToRgb15(lab, back);
        int err = 0;
        for (int c = 0; c < 3; ++c) err = abs(back[c] - in[c]) > err ? abs(back[c] - in[c]) : err;
        total += err;
        ++count;
        bool inner = r >= 8192 && r <= 24576 && g >= 8192 && g <= 24576 && b >= 8192 && b <= 24576;
        if (inner && err > worstInner) worstInner = err;
      }
  EXPECT_LE(worstInner, 2048);               // 1/16 of full scale
  EXPECT_LE(total / count, 700);             // about 2 % on average over the whole cube
  const int32_t gray[3] = {16384, 16384, 16384};
  int32_t lab[3], back[3];
  rgbToLab15(gray, lab);
  labToRgb15(lab, back);
  for (int c = 0; c < 3; ++c) EXPECT_NEAR(back[c], 16384, 256) << c;
}

}  // namespace

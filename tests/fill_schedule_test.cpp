// The fill schedule on small stores worked out by hand: the diamond that one
// opaque pixel spreads at level 0, the alpha floors, the one-pixel hole, the
// level chain of thin and tiny images, bare and opaque layers at every kind,
// the read of the level above and the clamp that follows it.
#include <gtest/gtest.h>

#include <math.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "fill/fill_schedule.h"
#include "host/plugin_main.h"
#include "store/pixel_store.h"
#include "store/resample.h"

namespace {

// A heap store of one kind, for the length of a test.
struct Store {
  PixelStore* s;
  Store(int32_t w, int32_t h, int32_t kind) : s(pixelStoreCreate(w, h, kind, 0, false)) {}
  ~Store() { pixelStoreDestroy(&s); }
};

// Pixels in stored units: 0..255, 0..32768, or the floats.
struct Px {
  float r, g, b, a;
};

void put(PixelStore* s, int32_t level, int32_t x, int32_t y, Px p) {
  if (s->kind == kKindRgbaFloat) {
    const float c[4] = {p.r, p.g, p.b, p.a};
    uint32_t w[4];
    memcpy(w, c, sizeof w);
    writeWord4(x, y, s, level, w);
  } else {
    const int32_t c[4] = {int32_t(p.r), int32_t(p.g), int32_t(p.b), int32_t(p.a)};
    writeChannels(x, y, s, level, c);
  }
}

Px get(const PixelStore* s, int32_t level, int32_t x, int32_t y) {
  if (s->kind == kKindRgbaFloat) {
    uint32_t w[4];
    readWord4(x, y, s, level, w);
    float c[4];
    memcpy(c, w, sizeof c);
    return Px{c[0], c[1], c[2], c[3]};
  }
  int32_t c[4] = {0, 0, 0, 0};
  readChannels(x, y, s, level, c);
  return Px{float(c[0]), float(c[1]), float(c[2]), float(c[3])};
}

void fillLevel(PixelStore* s, int32_t level, Px p) {
  for (int32_t y = 0; y < s->levelHeight[level]; ++y) {
    for (int32_t x = 0; x < s->levelWidth[level]; ++x) put(s, level, x, y, p);
  }
}

::testing::AssertionResult samePx(Px got, Px want) {
  if (got.r == want.r && got.g == want.g && got.b == want.b && got.a == want.a) {
    return ::testing::AssertionSuccess();
  }
  return ::testing::AssertionFailure() << "(" << got.r << ", " << got.g << ", " << got.b << ", " << got.a
                                       << ") instead of (" << want.r << ", " << want.g << ", " << want.b << ", "
                                       << want.a << ")";
}

// Every pixel of levels first..last is `want`.
void expectLevelsAre(const PixelStore* s, int32_t first, int32_t last, Px want) {
  for (int32_t level = first; level <= last; ++level) {
    for (int32_t y = 0; y < s->levelHeight[level]; ++y) {
      for (int32_t x = 0; x < s->levelWidth[level]; ++x) {
        ASSERT_TRUE(samePx(get(s, level, x, y), want)) << "level " << level << " at " << x << "," << y;
      }
    }
  }
}

// The engine's kernels read the record only through the store: a context with
// nothing in it is enough, but stores record the host's buffer procs.
struct FillFixture : ::testing::Test {
  FilterRecord record;
  void SetUp() override {
    memset(&record, 0, sizeof(record));
    hostContext.filterRecord = &record;
  }
  void TearDown() override { hostContext.filterRecord = nullptr; }
};

// ---- one opaque pixel -----------------------------------------------------------------------------

// Level 0 after diffusion: filled pixels within `radius` steps of (cx, cy),
// holes beyond.
void expectDiamond(const PixelStore* s, int32_t cx, int32_t cy, int32_t radius, Px colour) {
  for (int32_t y = 0; y < s->levelHeight[0]; ++y) {
    for (int32_t x = 0; x < s->levelWidth[0]; ++x) {
      const int32_t steps = abs(x - cx) + abs(y - cy);
      const Px got = get(s, 0, x, y);
      if (steps <= radius) {
        ASSERT_TRUE(samePx(got, colour)) << x << "," << y;
      } else {
        ASSERT_EQ(got.a, 0.0f) << x << "," << y;
      }
    }
  }
}

TEST_F(FillFixture, LonePixelOnEvenSquareSpreadsFiveSteps) {
  // x + y even: the first half-pass finds no hole next to it, so three passes
  // move the rim 5 steps.
  Store st(40, 40, kKindRgba8);
  put(st.s, 0, 20, 20, Px{255, 0, 255, 255});
  diffuseLevel(st.s, 0, kFillPasses);
  expectDiamond(st.s, 20, 20, 5, Px{255, 0, 255, 255});
}

TEST_F(FillFixture, LonePixelOnOddSquareSpreadsSixSteps) {
  Store st(40, 40, kKindRgba8);
  put(st.s, 0, 21, 20, Px{255, 0, 255, 255});
  diffuseLevel(st.s, 0, kFillPasses);
  expectDiamond(st.s, 21, 20, 6, Px{255, 0, 255, 255});
}

TEST_F(FillFixture, LonePixelColoursTheWholeImage) {
  // Channels of 0 and full scale survive every mean and the flat kernel
  // exactly: every level below the top ends in the one colour, opaque.
  Store st(150, 90, kKindRgba8);
  fillLevel(st.s, 0, Px{30, 60, 90, 0});  // colours under bare pixels do not count
  put(st.s, 0, 77, 41, Px{255, 0, 255, 255});
  fillLevels(st.s, kFillPasses);
  const int32_t top = st.s->topLevel;
  expectLevelsAre(st.s, 0, top - 1, Px{255, 0, 255, 255});
  expectLevelsAre(st.s, top, top, Px{255, 0, 255, 255});
}

TEST_F(FillFixture, LonePixelOfMidColourEndsWithinTwoSteps) {
  // Thirds and halves of a mid colour lose a step to truncation here and
  // there, and the kernel's lobes over a mix of such values lose or gain one
  // more: nothing else moves the colour.
  Store st(100, 64, kKindRgba8);
  put(st.s, 0, 50, 30, Px{101, 150, 37, 255});
  fillLevels(st.s, kFillPasses);
  EXPECT_TRUE(samePx(get(st.s, 0, 50, 30), Px{101, 150, 37, 255}));
  for (int32_t y = 0; y < 64; ++y) {
    for (int32_t x = 0; x < 100; ++x) {
      const Px p = get(st.s, 0, x, y);
      ASSERT_EQ(p.a, 255.0f);
      ASSERT_GE(p.r, 99.0f) << x << "," << y;
      ASSERT_LE(p.r, 102.0f) << x << "," << y;
      ASSERT_GE(p.g, 148.0f) << x << "," << y;
      ASSERT_LE(p.g, 151.0f) << x << "," << y;
      ASSERT_GE(p.b, 35.0f) << x << "," << y;
      ASSERT_LE(p.b, 38.0f) << x << "," << y;
    }
  }
}

// ---- alpha thresholds --------------------------------------------------------------------------

// 5 x 5, all opaque in (0, 255, 0), with a hole at the centre (2, 2) and the
// neighbour above it (2, 1) in (255, 0, 255) at `alpha`.
void centreHole(PixelStore* s, int32_t alpha) {
  fillLevel(s, 0, Px{0, 255, 0, 255});
  put(s, 0, 2, 2, Px{0, 0, 0, 0});
  put(s, 0, 2, 1, Px{255, 0, 255, float(alpha)});
}

TEST_F(FillFixture, AlphaFourIsBareAndItsColourWeighsNothing) {
  Store st(5, 5, kKindRgba8);
  centreHole(st.s, 4);
  fillLevels(st.s, kFillPasses);
  // The faint pixel became a hole and was filled from its opaque neighbours.
  EXPECT_TRUE(samePx(get(st.s, 0, 2, 2), Px{0, 255, 0, 255}));
  EXPECT_TRUE(samePx(get(st.s, 0, 2, 1), Px{0, 255, 0, 255}));
}

TEST_F(FillFixture, AlphaFiveIsCoveredAndKeepsItsColour) {
  Store st(5, 5, kKindRgba8);
  centreHole(st.s, 5);
  fillLevels(st.s, kFillPasses);
  EXPECT_TRUE(samePx(get(st.s, 0, 2, 1), Px{255, 0, 255, 255}));
  // The hole's mean weighs the faint pixel by 5/255 against three of weight 1:
  // red 0.0196 / 3.0196 * 255 = 1.66, green 3 / 3.0196 * 255 = 253.3.
  EXPECT_TRUE(samePx(get(st.s, 0, 2, 2), Px{1, 253, 1, 255}));
}

// 9 x 9 bare, with `count` pixels of 8-bit alpha `alpha` at (3, 4) and (5, 4);
// the pixel (4, 4) between them has both as neighbours.
void faintNeighbours(PixelStore* s, int32_t alpha, int32_t count) {
  put(s, 0, 3, 4, Px{255, 0, 0, float(alpha)});
  if (count > 1) put(s, 0, 5, 4, Px{255, 0, 0, float(alpha)});
}

TEST_F(FillFixture, OneNeighbourOfAlphaFiveStartsNoFill) {
  Store st(9, 9, kKindRgba8);
  faintNeighbours(st.s, 5, 1);
  diffuseLevel(st.s, 0, kFillPasses);
  // The covered pixel counts as full now; nothing around it was filled.
  EXPECT_TRUE(samePx(get(st.s, 0, 3, 4), Px{255, 0, 0, 255}));
  for (int32_t y = 0; y < 9; ++y) {
    for (int32_t x = 0; x < 9; ++x) {
      if (x != 3 || y != 4) {
        EXPECT_EQ(get(st.s, 0, x, y).a, 0.0f) << x << "," << y;
      }
    }
  }
}

TEST_F(FillFixture, TwoNeighboursOfAlphaFiveFillTheHoleBetween) {
  Store st(9, 9, kKindRgba8);
  faintNeighbours(st.s, 5, 2);
  diffuseLevel(st.s, 0, kFillPasses);
  EXPECT_TRUE(samePx(get(st.s, 0, 4, 4), Px{255, 0, 0, 255}));
  // (4, 4) is even: filled in the first half-pass, it spreads in the second.
  EXPECT_EQ(get(st.s, 0, 4, 3).a, 255.0f);
}

TEST_F(FillFixture, OneNeighbourOfAlphaNineFills) {
  Store st(9, 9, kKindRgba8);
  faintNeighbours(st.s, 9, 1);
  diffuseLevel(st.s, 0, kFillPasses);
  EXPECT_TRUE(samePx(get(st.s, 0, 2, 4), Px{255, 0, 0, 255}));
  EXPECT_TRUE(samePx(get(st.s, 0, 3, 3), Px{255, 0, 0, 255}));
  EXPECT_TRUE(samePx(get(st.s, 0, 4, 4), Px{255, 0, 0, 255}));
}

TEST_F(FillFixture, NoPassesLeaveTheLevelAlone) {
  Store st(4, 4, kKindRgba8);
  put(st.s, 0, 1, 1, Px{10, 20, 30, 4});
  put(st.s, 0, 2, 2, Px{40, 50, 60, 128});
  diffuseLevel(st.s, 0, 0);
  EXPECT_TRUE(samePx(get(st.s, 0, 1, 1), Px{10, 20, 30, 4}));
  EXPECT_TRUE(samePx(get(st.s, 0, 2, 2), Px{40, 50, 60, 128}));
  EXPECT_EQ(get(st.s, 0, 1, 2).a, 0.0f);
}

// ---- holes and covered pixels -----------------------------------------------------------------------

TEST_F(FillFixture, OnePixelHoleTakesTheWeightedMeanOfItsNeighbours) {
  // Red of the four neighbours 10, 20, 30, 45: a mean of 26.25; soft alphas
  // weigh: green 200 at alpha 255 and 0 at alpha 85 (a third): 150.
  Store st(5, 5, kKindRgba8);
  fillLevel(st.s, 0, Px{0, 0, 0, 255});
  put(st.s, 0, 2, 2, Px{99, 99, 99, 0});
  put(st.s, 0, 2, 1, Px{10, 200, 0, 255});
  put(st.s, 0, 1, 2, Px{20, 200, 0, 255});
  put(st.s, 0, 3, 2, Px{30, 200, 0, 255});
  put(st.s, 0, 2, 3, Px{45, 200, 0, 255});
  fillLevels(st.s, kFillPasses);
  EXPECT_TRUE(samePx(get(st.s, 0, 2, 2), Px{26, 200, 0, 255}));

  Store soft(5, 5, kKindRgba8);
  fillLevel(soft.s, 0, Px{0, 0, 0, 255});
  put(soft.s, 0, 2, 2, Px{0, 0, 0, 0});
  put(soft.s, 0, 2, 1, Px{0, 200, 0, 255});
  put(soft.s, 0, 1, 2, Px{0, 200, 0, 255});
  put(soft.s, 0, 3, 2, Px{0, 200, 0, 255});
  put(soft.s, 0, 2, 3, Px{0, 0, 0, 85});
  fillLevels(soft.s, kFillPasses);
  // 600 / (3 + 1/3) = 180.
  const Px p = get(soft.s, 0, 2, 2);
  EXPECT_GE(p.g, 179.0f);
  EXPECT_LE(p.g, 180.0f);
  EXPECT_EQ(p.a, 255.0f);
  // The soft pixel keeps its colour and becomes opaque.
  EXPECT_TRUE(samePx(get(soft.s, 0, 2, 3), Px{0, 0, 0, 255}));
}

TEST_F(FillFixture, OpaqueLayerKeepsEveryPixelOfLevelZero) {
  Store st(70, 45, kKindRgba8);
  srand(3);
  std::vector<Px> before;
  for (int32_t y = 0; y < 45; ++y) {
    for (int32_t x = 0; x < 70; ++x) {
      const Px p{float(rand() % 256), float(rand() % 256), float(rand() % 256), 255};
      put(st.s, 0, x, y, p);
      before.push_back(p);
    }
  }
  fillLevels(st.s, kFillPasses);
  for (int32_t y = 0; y < 45; ++y) {
    for (int32_t x = 0; x < 70; ++x) ASSERT_TRUE(samePx(get(st.s, 0, x, y), before[size_t(y * 70 + x)]));
  }
}

TEST_F(FillFixture, SoftPixelsKeepTheirColoursIn16Bits) {
  Store st(20, 20, kKindRgba16);
  srand(5);
  std::vector<Px> before;
  for (int32_t y = 0; y < 20; ++y) {
    for (int32_t x = 0; x < 20; ++x) {
      const Px p{float(rand() % 32769), float(rand() % 32769), float(rand() % 32769), float(521 + rand() % 32248)};
      put(st.s, 0, x, y, p);
      before.push_back(p);
    }
  }
  fillLevels(st.s, kFillPasses);
  for (int32_t y = 0; y < 20; ++y) {
    for (int32_t x = 0; x < 20; ++x) {
      Px want = before[size_t(y * 20 + x)];
      want.a = 32768;
      ASSERT_TRUE(samePx(get(st.s, 0, x, y), want)) << x << "," << y;
    }
  }
}

TEST_F(FillFixture, FullAlphaIn16BitsIs32768) {
  Store st(60, 50, kKindRgba16);
  put(st.s, 0, 10, 40, Px{32768, 0, 16384, 32768});
  fillLevels(st.s, kFillPasses);
  const int32_t top = st.s->topLevel;
  expectLevelsAre(st.s, 0, top - 1, Px{32768, 0, 16384, 32768});
}

// ---- bare layers -----------------------------------------------------------------------------------

TEST_F(FillFixture, BareLayerEndsBlackAndOpaqueButTheTop) {
  Store st(37, 23, kKindRgba8);
  fillLevel(st.s, 0, Px{200, 100, 50, 0});
  fillLevels(st.s, kFillPasses);
  const int32_t top = st.s->topLevel;
  expectLevelsAre(st.s, 0, top - 1, Px{0, 0, 0, 255});
  expectLevelsAre(st.s, top, top, Px{0, 0, 0, 0});
}

TEST_F(FillFixture, BareFloatLayerEndsBlackAndOpaqueButTheTop) {
  Store st(9, 40, kKindRgbaFloat);
  fillLevel(st.s, 0, Px{0.5f, 2.0f, -1.0f, 0.0f});
  fillLevels(st.s, kFillPasses);
  const int32_t top = st.s->topLevel;
  expectLevelsAre(st.s, 0, top - 1, Px{0, 0, 0, 1.0f});
  expectLevelsAre(st.s, top, top, Px{0, 0, 0, 0});
}

// ---- tiny and thin images ----------------------------------------------------------------------------

TEST_F(FillFixture, BarePixelOfAOnePixelImageKeepsItsColour) {
  Store st(1, 1, kKindRgba8);
  ASSERT_EQ(st.s->topLevel, 1);
  put(st.s, 0, 0, 0, Px{10, 20, 30, 0});
  fillLevels(st.s, kFillPasses);
  EXPECT_TRUE(samePx(get(st.s, 0, 0, 0), Px{10, 20, 30, 255}));
  EXPECT_TRUE(samePx(get(st.s, 1, 0, 0), Px{0, 0, 0, 0}));
}

TEST_F(FillFixture, CoveredPixelOfAOnePixelImageReachesTheTop) {
  Store st(1, 1, kKindRgba16);
  put(st.s, 0, 0, 0, Px{1000, 2000, 3000, 600});
  fillLevels(st.s, kFillPasses);
  EXPECT_TRUE(samePx(get(st.s, 0, 0, 0), Px{1000, 2000, 3000, 32768}));
  EXPECT_TRUE(samePx(get(st.s, 1, 0, 0), Px{1000, 2000, 3000, 32768}));
}

TEST_F(FillFixture, ThinImageFillsAlongItsLength) {
  // 1 x 100: levels 1 x 50, 26, 14, 8, 4, 2, 1.
  Store st(1, 100, kKindRgba8);
  const int32_t heights[8] = {100, 50, 26, 14, 8, 4, 2, 1};
  ASSERT_EQ(st.s->topLevel, 7);
  for (int32_t level = 0; level <= 7; ++level) {
    EXPECT_EQ(st.s->levelWidth[level], 1);
    EXPECT_EQ(st.s->levelHeight[level], heights[level]);
  }
  put(st.s, 0, 0, 80, Px{255, 0, 0, 255});
  fillLevels(st.s, kFillPasses);
  expectLevelsAre(st.s, 0, 7, Px{255, 0, 0, 255});
}

TEST_F(FillFixture, TwoByTwoClosesFromOnePixel) {
  // Any colour: the means are of one or two equal values.
  Store st(2, 2, kKindRgba8);
  ASSERT_EQ(st.s->topLevel, 1);
  put(st.s, 0, 0, 0, Px{77, 133, 201, 255});
  fillLevels(st.s, kFillPasses);
  expectLevelsAre(st.s, 0, 1, Px{77, 133, 201, 255});
}

TEST_F(FillFixture, TwoByTwoWithOnlyAFaintPixelStaysDefined) {
  // The faint pixel opens nothing at level 0; the way down reads level 0
  // itself. The covered pixel keeps its colour, all end opaque.
  Store st(2, 2, kKindRgba8);
  put(st.s, 0, 0, 0, Px{40, 50, 60, 6});
  fillLevels(st.s, kFillPasses);
  EXPECT_TRUE(samePx(get(st.s, 0, 0, 0), Px{40, 50, 60, 255}));
  for (int32_t y = 0; y < 2; ++y) {
    for (int32_t x = 0; x < 2; ++x) EXPECT_EQ(get(st.s, 0, x, y).a, 255.0f);
  }
  EXPECT_TRUE(samePx(get(st.s, 1, 0, 0), Px{40, 50, 60, 255}));
}

// ---- reduce ----------------------------------------------------------------------------------------

TEST_F(FillFixture, ReduceTakesAlphaWeightedMeansOfBlocks) {
  Store st(5, 4, kKindRgba8);
  ASSERT_EQ(st.s->levelWidth[1], 4);  // 3 rounded up to even
  ASSERT_EQ(st.s->levelHeight[1], 2);
  // Block (0, 0): red 10, 20, 30, 41 opaque: 25.25.
  put(st.s, 0, 0, 0, Px{10, 0, 0, 255});
  put(st.s, 0, 1, 0, Px{20, 0, 0, 255});
  put(st.s, 0, 0, 1, Px{30, 0, 0, 255});
  put(st.s, 0, 1, 1, Px{41, 0, 0, 255});
  // Block (1, 0): two bare pixels whose colours do not count, one of alpha 4 (floored).
  put(st.s, 0, 2, 0, Px{200, 0, 0, 255});
  put(st.s, 0, 3, 0, Px{0, 0, 0, 0});
  put(st.s, 0, 2, 1, Px{100, 0, 0, 255});
  put(st.s, 0, 3, 1, Px{255, 255, 255, 4});
  // Column 4 stands alone in block (2, 0) and again in the padding block (3, 0).
  put(st.s, 0, 4, 0, Px{60, 70, 80, 255});
  put(st.s, 0, 4, 1, Px{60, 70, 80, 255});
  reduceColours(st.s, 0);
  EXPECT_TRUE(samePx(get(st.s, 1, 0, 0), Px{25, 0, 0, 255}));
  EXPECT_TRUE(samePx(get(st.s, 1, 1, 0), Px{150, 0, 0, 255}));
  EXPECT_TRUE(samePx(get(st.s, 1, 2, 0), Px{60, 70, 80, 255}));
  EXPECT_TRUE(samePx(get(st.s, 1, 3, 0), Px{60, 70, 80, 255}));
  // Row 1 of level 1 reads rows 2 and 3, all bare: black, alpha 0.
  EXPECT_TRUE(samePx(get(st.s, 1, 0, 1), Px{0, 0, 0, 0}));
}

// ---- the way down ----------------------------------------------------------------------------------

TEST_F(FillFixture, HoleReadsTheLevelAboveAtHalfItsCoordinates) {
  // 1000 x 600: level 2 is 250 x 150, level 3 126 x 76. A hole at x = 100 of
  // level 2 reads level 3 at 125 * (50.5 / 126) - 0.5, about 49.6.
  Store st(1000, 600, kKindRgbaFloat);
  ASSERT_EQ(st.s->topLevel, 10);
  ASSERT_EQ(st.s->levelWidth[3], 126);
  fillLevel(st.s, 2, Px{0, 0, 0, 1.0f});
  put(st.s, 2, 100, 40, Px{0, 0, 0, 0.0f});
  for (int32_t y = 0; y < 76; ++y) {
    for (int32_t x = 0; x < 126; ++x) put(st.s, 3, x, y, Px{float(x) * 0.25f, float(y), float(x * y % 7), 1.0f});
  }
  expandInto(st.s, 2);
  const float px = 125.0f * ((100.0f * 0.5f + 0.5f) * (1.0f / 126.0f)) - 0.5f;
  const float py = 75.0f * ((40.0f * 0.5f + 0.5f) * (1.0f / 76.0f)) - 0.5f;
  EXPECT_NEAR(px, 49.6, 0.01);
  float r, g, b, a;
  filterPixel<kKindRgbaFloat>(st.s, 3, px, py, &r, &g, &b, &a);
  // The way down clamps to 0..65535.
  b = b < 0.0f ? 0.0f : b;
  EXPECT_TRUE(samePx(get(st.s, 2, 100, 40), Px{r, g, b, 1.0f}));
  // The red ramp is 0.25 a pixel: the point lies near 49.6 * 0.25.
  EXPECT_NEAR(r, 12.4, 0.05);
  // Covered pixels are left as they are.
  EXPECT_TRUE(samePx(get(st.s, 2, 101, 40), Px{0, 0, 0, 1.0f}));
}

TEST_F(FillFixture, KernelOvershootIsClampedBeforeTheWrite) {
  // A hard step at level 1 makes the kernel ring: below 0 on the dark side,
  // above full on the bright side. Clamped, the row rises monotonically; a
  // value written unclamped would wrap the byte.
  Store st(32, 16, kKindRgba8);
  for (int32_t y = 0; y < st.s->levelHeight[1]; ++y) {
    for (int32_t x = 0; x < st.s->levelWidth[1]; ++x) put(st.s, 1, x, y, Px{x < 8 ? 0.0f : 255.0f, 0, 0, 255});
  }
  expandInto(st.s, 0);
  for (int32_t y = 0; y < 16; ++y) {
    for (int32_t x = 1; x < 32; ++x) ASSERT_LE(get(st.s, 0, x - 1, y).r, get(st.s, 0, x, y).r) << x << "," << y;
    EXPECT_EQ(get(st.s, 0, 0, y).r, 0.0f);
    EXPECT_EQ(get(st.s, 0, 31, y).r, 255.0f);
    EXPECT_EQ(get(st.s, 0, 5, y).a, 255.0f);
  }
}

TEST_F(FillFixture, FloatColoursAboveOnePassThroughAndClampAtTheLimit) {
  // 32-bit colours above 1 pass through the means unclamped; the way down
  // clamps what it brings at 0 and 65535.
  Store st(64, 64, kKindRgbaFloat);
  for (int32_t y = 30; y < 34; ++y) {
    for (int32_t x = 30; x < 34; ++x) put(st.s, 0, x, y, Px{70000.0f, 3.5f, -2.0f, 1.0f});
  }
  fillLevels(st.s, kFillPasses);
  // Covered, and filled by neighbour means at level 0: as they were.
  EXPECT_TRUE(samePx(get(st.s, 0, 31, 31), Px{70000.0f, 3.5f, -2.0f, 1.0f}));
  EXPECT_TRUE(samePx(get(st.s, 0, 29, 31), Px{70000.0f, 3.5f, -2.0f, 1.0f}));
  EXPECT_TRUE(samePx(get(st.s, 0, 33, 36), Px{70000.0f, 3.5f, -2.0f, 1.0f}));
  // Far away, brought down from coarse levels: clamped at every level on the
  // way, so what the float kernel mixes lies at the limits up to the rounding
  // of its weights (unclamped it would be 70000 and -2).
  const Px far = get(st.s, 0, 2, 60);
  EXPECT_LE(far.r, kFloatColourLimit);
  EXPECT_GT(far.r, 65530.0f);
  EXPECT_NEAR(far.g, 3.5f, 1e-4);
  EXPECT_GE(far.b, 0.0f);
  EXPECT_LT(far.b, 0.01f);
  EXPECT_EQ(far.a, 1.0f);
  // The coarse levels themselves kept the raw means.
  EXPECT_TRUE(samePx(get(st.s, 1, 15, 15), Px{70000.0f, 3.5f, -2.0f, 1.0f}));
}


// ---- the schedule against a plain one -------------------------------------------------------------
//
// The schedule works on the tiles' rows and skips what cannot change. Here the
// same steps are written the plain way, one accessor call per pixel read or
// written, in the stated order; both must leave every byte of every tile the
// same, spare rows and the columns past each level included.

void plainDiffuse(PixelStore* s, int32_t level, int32_t passes) {
  if (passes < 1) return;
  const int32_t w = s->levelWidth[level];
  const int32_t h = s->levelHeight[level];
  for (int32_t y = 0; y < h; ++y) {
    for (int32_t x = 0; x < w; ++x) {
      float p[4];
      readUnitPixel(x, y, s, level, p);
      if (kCoverFloor > double(p[3])) p[3] = 0.0f;
      writeUnitPixel(x, y, s, level, p);
    }
  }
  for (int32_t pass = 0; pass < passes; ++pass) {
    for (int32_t parity = 0; parity < 2; ++parity) {
      for (int32_t y = 0; y < h; ++y) {
        for (int32_t x = (parity ^ y) & 1; x < w; x += 2) {
          float p[4];
          readUnitPixel(x, y, s, level, p);
          if (p[3] != 0.0f) continue;
          const int32_t offsets[4][2] = {{0, -1}, {-1, 0}, {1, 0}, {0, 1}};
          float r = 0.0f, g = 0.0f, b = 0.0f, a = 0.0f;
          for (const auto& o : offsets) {
            float q[4];
            readUnitPixel(x + o[0], y + o[1], s, level, q);
            r += q[0] * q[3];
            g += q[1] * q[3];
            b += q[2] * q[3];
            a += q[3];
          }
          if (double(a) > kNeighbourFloor) {
            const float filled[4] = {r / a, g / a, b / a, 1.0f};
            writeUnitPixel(x, y, s, level, filled);
          }
        }
      }
    }
  }
  for (int32_t y = 0; y < h; ++y) {
    for (int32_t x = 0; x < w; ++x) {
      float p[4];
      readUnitPixel(x, y, s, level, p);
      p[3] = p[3] == 0.0f ? 0.0f : 1.0f;
      writeUnitPixel(x, y, s, level, p);
    }
  }
}

void plainReduce(PixelStore* s, int32_t level) {
  for (int32_t oy = 0; oy < s->levelHeight[level + 1]; ++oy) {
    for (int32_t ox = 0; ox < s->levelWidth[level + 1]; ++ox) {
      float r = 0.0f, g = 0.0f, b = 0.0f, a = 0.0f;
      const int32_t offsets[4][2] = {{0, 0}, {1, 0}, {0, 1}, {1, 1}};
      for (const auto& o : offsets) {
        float q[4];
        readUnitPixel(2 * ox + o[0], 2 * oy + o[1], s, level, q);
        if (kCoverFloor > double(q[3])) q[3] = 0.0f;
        r += q[0] * q[3];
        g += q[1] * q[3];
        b += q[2] * q[3];
        a += q[3];
      }
      const float pixel[4] = {a > 0.0f ? r / a : r, a > 0.0f ? g / a : g, a > 0.0f ? b / a : b,
                              a > 0.0f ? 1.0f : 0.0f};
      writeUnitPixel(ox, oy, s, level + 1, pixel);
    }
  }
}

void plainExpand(PixelStore* s, int32_t level) {
  const bool integerKind = s->kind == kKindRgba8 || s->kind == kKindRgba16;
  const float limit = integerKind ? 1.0f : kFloatColourLimit;
  for (int32_t y = 0; y < s->levelHeight[level]; ++y) {
    for (int32_t x = 0; x < s->levelWidth[level]; ++x) {
      float p[4];
      readUnitPixel(x, y, s, level, p);
      if (!(double(p[3]) > kHoleAlpha)) {
        filterUnitPixelAt(s, level + 1, 0.0f, float(x) * 0.5f, float(y) * 0.5f, p);
        for (int32_t c = 0; c < 3; ++c) {
          if (0.0f > p[c]) {
            p[c] = 0.0f;
          } else if (p[c] > limit) {
            p[c] = limit;
          }
        }
      }
      p[3] = 1.0f;
      writeUnitPixel(x, y, s, level, p);
    }
  }
}

void plainFill(PixelStore* s, int32_t passes) {
  const int32_t top = s->topLevel;
  for (int32_t level = 0; level < top; ++level) {
    plainDiffuse(s, level, passes);
    plainReduce(s, level);
  }
  for (int32_t level = top - 1; level >= 0; --level) plainExpand(s, level);
}

uint32_t nextRandom(uint32_t* state) {
  *state = *state * 1664525u + 1013904223u;
  return *state >> 8;
}

// Every pixel of every level: random colours under bare pixels, discs of
// cover with soft rims, and scattered pixels of any alpha, the faint ones
// around the floors included. Floats also get colours above 1 and below 0,
// now and then a NaN or an infinity, and alphas of -0.0.
void paintScene(PixelStore* s, uint32_t seed) {
  uint32_t state = seed;
  const bool floats = s->kind == kKindRgbaFloat;
  const float full = s->kind == kKindRgba8 ? 255.0f : (s->kind == kKindRgba16 ? 32768.0f : 1.0f);
  const float maxColour = s->kind == kKindRgba16 ? 32768.0f : full;
  for (int32_t level = 0; level <= s->topLevel; ++level) {
    const int32_t w = s->levelWidth[level];
    const int32_t h = s->levelHeight[level];
    struct Disc {
      int32_t x, y, r;
    };
    std::vector<Disc> discs;
    const int32_t discCount = 1 + int32_t(nextRandom(&state) % 6u);
    for (int32_t i = 0; i < discCount; ++i) {
      discs.push_back(Disc{int32_t(nextRandom(&state) % uint32_t(w)), int32_t(nextRandom(&state) % uint32_t(h)),
                           1 + int32_t(nextRandom(&state) % uint32_t(w / 4 + 2))});
    }
    for (int32_t y = 0; y < h; ++y) {
      for (int32_t x = 0; x < w; ++x) {
        Px p;
        if (floats) {
          p.r = float(int32_t(nextRandom(&state) % 4000u) - 500) / 1000.0f;
          p.g = float(nextRandom(&state) % 1000u) / 999.0f;
          p.b = float(nextRandom(&state) % 1000u) / 999.0f;
        } else {
          p.r = float(nextRandom(&state) % uint32_t(maxColour + 1.0f));
          p.g = float(nextRandom(&state) % uint32_t(maxColour + 1.0f));
          p.b = float(nextRandom(&state) % uint32_t(maxColour + 1.0f));
        }
        double cover = 0.0;
        for (const Disc& d : discs) {
          const double dist = sqrt(double((x - d.x) * (x - d.x) + (y - d.y) * (y - d.y)));
          const double c = double(d.r) + 0.5 - dist;
          if (c > cover) cover = c;
        }
        if (cover > 1.0) cover = 1.0;
        p.a = floats ? float(cover) : float(int32_t(cover * full));
        const uint32_t roll = nextRandom(&state) % 100u;
        if (roll < 4) {
          // A scattered pixel of any alpha.
          p.a = floats ? float(nextRandom(&state) % 1001u) / 1000.0f : float(nextRandom(&state) % uint32_t(full + 1));
        } else if (roll < 7) {
          // Faint alphas around the floors: 8-bit 3..10, 16-bit 515..530.
          p.a = floats ? float(nextRandom(&state) % 40u) / 1000.0f
                       : (s->kind == kKindRgba8 ? float(3 + nextRandom(&state) % 8u)
                                                : float(515 + nextRandom(&state) % 16u));
        }
        if (floats && roll == 7) p.a = -0.0f;
        if (floats && roll == 8) p.r = nanf("");
        if (floats && roll == 9) p.g = INFINITY;
        put(s, level, x, y, p);
      }
    }
  }
}

// The first tile byte where two stores of the same geometry differ, or -1.
int64_t firstDifference(const PixelStore* a, const PixelStore* b) {
  int64_t offset = 0;
  for (int32_t i = 0; i < a->tileCount; ++i) {
    const size_t bytes = size_t(a->tiles[i].rows + kTileSpareRows) * kTileWidth * size_t(a->pixelBytes);
    for (size_t k = 0; k < bytes; ++k) {
      if (a->tiles[i].pixels[k] != b->tiles[i].pixels[k]) return offset + int64_t(k);
    }
    offset += int64_t(bytes);
  }
  return -1;
}

struct SceneSize {
  int32_t w, h;
};

// Sizes for the tiles' edges, odd levels, thin and tiny images.
const SceneSize kSceneSizes[] = {{1, 1},  {2, 2},   {3, 5},    {7, 1},   {1, 9},   {6, 6},    {37, 23},
                                 {64, 48}, {130, 7}, {515, 40}, {40, 515}, {600, 530}, {1030, 33}};
const int32_t kSceneKinds[] = {kKindRgba8, kKindRgba16, kKindRgbaFloat};

TEST_F(FillFixture, WholeScheduleMatchesThePlainOneBitForBit) {
  uint32_t seed = 99;
  for (int32_t kind : kSceneKinds) {
    for (const SceneSize& size : kSceneSizes) {
      Store fast(size.w, size.h, kind);
      Store plain(size.w, size.h, kind);
      ASSERT_NE(fast.s, nullptr);
      paintScene(fast.s, ++seed);
      paintScene(plain.s, seed);
      fillLevels(fast.s, kFillPasses);
      plainFill(plain.s, kFillPasses);
      EXPECT_EQ(firstDifference(fast.s, plain.s), -1) << "kind " << kind << ", " << size.w << " x " << size.h;
    }
  }
}

TEST_F(FillFixture, EachStepMatchesThePlainOneOnRandomLevels) {
  // Each step alone, on levels as painted (not as the steps before would leave
  // them): soft alphas reach the reduce and the way down, and the way down
  // reads a level with holes.
  uint32_t seed = 7000;
  for (int32_t kind : kSceneKinds) {
    for (const SceneSize& size : kSceneSizes) {
      for (int32_t passes : {1, 3}) {
        Store fast(size.w, size.h, kind);
        Store plain(size.w, size.h, kind);
        paintScene(fast.s, ++seed);
        paintScene(plain.s, seed);
        diffuseLevel(fast.s, 0, passes);
        plainDiffuse(plain.s, 0, passes);
        ASSERT_EQ(firstDifference(fast.s, plain.s), -1) << "diffuse, kind " << kind << ", " << size.w << " x "
                                                         << size.h << ", passes " << passes;
      }
      Store fast(size.w, size.h, kind);
      Store plain(size.w, size.h, kind);
      paintScene(fast.s, ++seed);
      paintScene(plain.s, seed);
      for (int32_t level = 0; level < fast.s->topLevel; ++level) {
        reduceColours(fast.s, level);
        plainReduce(plain.s, level);
        ASSERT_EQ(firstDifference(fast.s, plain.s), -1) << "reduce " << level << ", kind " << kind;
      }
      paintScene(fast.s, ++seed);
      paintScene(plain.s, seed);
      for (int32_t level = fast.s->topLevel - 1; level >= 0; --level) {
        expandInto(fast.s, level);
        plainExpand(plain.s, level);
        ASSERT_EQ(firstDifference(fast.s, plain.s), -1) << "expand " << level << ", kind " << kind << ", "
                                                         << size.w << " x " << size.h;
      }
    }
  }
}

TEST_F(FillFixture, WrappingEdgesAndOddScalesMatchThePlainSchedule) {
  // Stores that the filter never makes: edges that wrap in the kernel, and an
  // 8-bit scale whose trip to unit range and back changes values. The
  // schedule must still do exactly what the plain steps do.
  uint32_t seed = 31;
  for (int32_t edgeMode : {1, 2}) {
    PixelStore* fast = pixelStoreCreate(70, 45, kKindRgba8, edgeMode, false);
    PixelStore* plain = pixelStoreCreate(70, 45, kKindRgba8, edgeMode, false);
    paintScene(fast, ++seed);
    paintScene(plain, seed);
    fillLevels(fast, kFillPasses);
    plainFill(plain, kFillPasses);
    EXPECT_EQ(firstDifference(fast, plain), -1) << "edge mode " << edgeMode;
    pixelStoreDestroy(&fast);
    pixelStoreDestroy(&plain);
  }
  for (int32_t kind : {kKindRgba8, kKindRgba16}) {
    Store fast(50, 40, kind);
    Store plain(50, 40, kind);
    for (PixelStore* s : {fast.s, plain.s}) {
      s->valueToUnit = kind == kKindRgba8 ? 1.0f / 250.0f : 1.0f / 30000.0f;
      s->unitToValue = kind == kKindRgba8 ? 249.0f : 29999.0f;
    }
    paintScene(fast.s, ++seed);
    paintScene(plain.s, seed);
    fillLevels(fast.s, kFillPasses);
    plainFill(plain.s, kFillPasses);
    EXPECT_EQ(firstDifference(fast.s, plain.s), -1) << "odd scale, kind " << kind;
  }
}

}  // namespace

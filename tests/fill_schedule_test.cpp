// The fill schedule on small stores worked out by hand: the diamond that one
// opaque pixel spreads at level 0, the alpha floors, the one-pixel hole, the
// level chain of thin and tiny images, bare and opaque layers at every kind,
// the read of the level above and the clamp that follows it. (The whole
// pipeline is pinned bit for bit by the end-to-end digests.)
#include <gtest/gtest.h>

#include <math.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "fill/fill_schedule.h"
#include "host/plugin_main.h"
#include "store/pixel_store.h"
#include "tests/support/test_support.h"

namespace {

using testing_support::OwnedStore;

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

using FillFixture = testing_support::EngineFixture;

// ---- one opaque pixel -----------------------------------------------------------------------------

TEST_F(FillFixture, LonePixelSpreadsADiamondOfFiveOrSixSteps) {
  // x + y even: the first half-pass finds no hole next to it, so three passes
  // move the rim 5 steps; odd: 6.
  for (int32_t cx : {20, 21}) {
    OwnedStore st(40, 40, kKindRgba8);
    const Px colour{255, 0, 255, 255};
    put(st.store, 0, cx, 20, colour);
    diffuseLevel(st.store, 0, kFillPasses);
    const int32_t radius = cx == 20 ? 5 : 6;
    for (int32_t y = 0; y < 40; ++y)
      for (int32_t x = 0; x < 40; ++x) {
        if (abs(x - cx) + abs(y - 20) <= radius)
          ASSERT_TRUE(samePx(get(st.store, 0, x, y), colour)) << x << "," << y;
        else
          ASSERT_EQ(get(st.store, 0, x, y).a, 0.0f) << x << "," << y;
      }
  }
}

TEST_F(FillFixture, OnePixelColoursTheWholeImageAtEveryKind) {
  // Channels of 0 and full scale survive every mean and the flat kernel
  // exactly; colours under bare pixels do not count; a bare layer ends black
  // and opaque; the top level stays as the reduce left it. The thin image
  // fills along its length (1 x 100: levels 1 x 50, 26, 14, 8, 4, 2, 1).
  struct Case {
    int32_t w, h, kind;
    Px under, pixel, result, top;
  };
  const Case cases[] = {
      {150, 90, kKindRgba8, {30, 60, 90, 0}, {255, 0, 255, 255}, {255, 0, 255, 255}, {255, 0, 255, 255}},
      {60, 50, kKindRgba16, {0, 0, 0, 0}, {32768, 0, 16384, 32768}, {32768, 0, 16384, 32768}, {32768, 0, 16384, 32768}},
      {1, 100, kKindRgba8, {0, 0, 0, 0}, {255, 0, 0, 255}, {255, 0, 0, 255}, {255, 0, 0, 255}},
      {2, 2, kKindRgba8, {0, 0, 0, 0}, {77, 133, 201, 255}, {77, 133, 201, 255}, {77, 133, 201, 255}},
      {37, 23, kKindRgba8, {200, 100, 50, 0}, {200, 100, 50, 0}, {0, 0, 0, 255}, {0, 0, 0, 0}},
      {9, 40, kKindRgbaFloat, {0.5f, 2.0f, -1.0f, 0}, {0.5f, 2.0f, -1.0f, 0}, {0, 0, 0, 1.0f}, {0, 0, 0, 0}},
  };
  for (const Case& c : cases) {
    OwnedStore st(c.w, c.h, c.kind);
    fillLevel(st.store, 0, c.under);
    put(st.store, 0, c.w / 2, c.h * 4 / 5, c.pixel);
    fillLevels(st.store, kFillPasses);
    const int32_t top = st.store->topLevel;
    SCOPED_TRACE(testing::Message() << c.w << " x " << c.h);
    expectLevelsAre(st.store, 0, top - 1, c.result);
    expectLevelsAre(st.store, top, top, c.top);
  }
}

// ---- alpha thresholds --------------------------------------------------------------------------

TEST_F(FillFixture, AlphaFloorsOfCoverAndOfNeighbours) {
  // 5 x 5 opaque green with a hole at the centre and the pixel above it
  // magenta at alpha 4 or 5. At 4 it is bare and its colour weighs nothing; at
  // 5 it is covered and weighs 5/255 against three of weight 1: red
  // 0.0196 / 3.0196 * 255 = 1.66, green 3 / 3.0196 * 255 = 253.3.
  for (int32_t alpha : {4, 5}) {
    OwnedStore st(5, 5, kKindRgba8);
    fillLevel(st.store, 0, Px{0, 255, 0, 255});
    put(st.store, 0, 2, 2, Px{0, 0, 0, 0});
    put(st.store, 0, 2, 1, Px{255, 0, 255, float(alpha)});
    fillLevels(st.store, kFillPasses);
    EXPECT_TRUE(samePx(get(st.store, 0, 2, 2), alpha == 4 ? Px{0, 255, 0, 255} : Px{1, 253, 1, 255}));
    EXPECT_TRUE(samePx(get(st.store, 0, 2, 1), alpha == 4 ? Px{0, 255, 0, 255} : Px{255, 0, 255, 255}));
  }
  // 9 x 9 bare with red pixels of a faint alpha at (3, 4) and maybe (5, 4):
  // one of alpha 5 starts no fill, two fill the hole between them (which, even,
  // spreads in the second half-pass), one of alpha 9 fills.
  struct Case {
    int32_t alpha, count;
    bool filled;
  };
  for (Case c : {Case{5, 1, false}, Case{5, 2, true}, Case{9, 1, true}}) {
    OwnedStore st(9, 9, kKindRgba8);
    put(st.store, 0, 3, 4, Px{255, 0, 0, float(c.alpha)});
    if (c.count > 1) put(st.store, 0, 5, 4, Px{255, 0, 0, float(c.alpha)});
    diffuseLevel(st.store, 0, kFillPasses);
    EXPECT_TRUE(samePx(get(st.store, 0, 3, 4), Px{255, 0, 0, 255}));
    const Px expected = c.filled ? Px{255, 0, 0, 255} : Px{0, 0, 0, 0};
    EXPECT_TRUE(samePx(get(st.store, 0, c.count > 1 ? 4 : 2, 4), expected)) << c.alpha << " x" << c.count;
    EXPECT_EQ(get(st.store, 0, 4, 3).a, c.filled ? 255.0f : 0.0f) << c.alpha << " x" << c.count;
  }
}

// ---- holes and covered pixels -----------------------------------------------------------------------

TEST_F(FillFixture, OnePixelHoleTakesTheWeightedMeanOfItsNeighbours) {
  // Red of the four neighbours 10, 20, 30, 45: a mean of 26.25. Soft alphas
  // weigh: green 200 three times at alpha 255, 0 at alpha 85: 600 / (3 + 1/3) = 180.
  struct Case {
    Px up, left, right, down;
    Px hole;
  };
  const Case cases[] = {
      {{10, 200, 0, 255}, {20, 200, 0, 255}, {30, 200, 0, 255}, {45, 200, 0, 255}, {26, 200, 0, 255}},
      {{0, 200, 0, 255}, {0, 200, 0, 255}, {0, 200, 0, 255}, {0, 0, 0, 85}, {0, 180, 0, 255}},
  };
  for (const Case& c : cases) {
    OwnedStore st(5, 5, kKindRgba8);
    fillLevel(st.store, 0, Px{0, 0, 0, 255});
    put(st.store, 0, 2, 2, Px{99, 99, 99, 0});
    put(st.store, 0, 2, 1, c.up);
    put(st.store, 0, 1, 2, c.left);
    put(st.store, 0, 3, 2, c.right);
    put(st.store, 0, 2, 3, c.down);
    fillLevels(st.store, kFillPasses);
    EXPECT_TRUE(samePx(get(st.store, 0, 2, 2), c.hole));
    // The soft pixel keeps its colour and becomes opaque.
    EXPECT_TRUE(samePx(get(st.store, 0, 2, 3), Px{c.down.r, c.down.g, c.down.b, 255}));
  }
}

TEST_F(FillFixture, CoveredPixelsKeepTheirColoursAndBecomeOpaque) {
  // An opaque 8-bit layer, soft 16-bit pixels, and one-pixel images whose
  // bare or covered pixel keeps its colour (the top of a bare one is black).
  struct Case {
    int32_t w, h, kind, alphaFrom, alphaTo;
  };
  srand(3);
  for (Case c : {Case{70, 45, kKindRgba8, 255, 255}, Case{20, 20, kKindRgba16, 521, 32768}}) {
    OwnedStore st(c.w, c.h, c.kind);
    const int32_t full = c.kind == kKindRgba8 ? 255 : 32768;
    std::vector<Px> before;
    for (int32_t y = 0; y < c.h; ++y)
      for (int32_t x = 0; x < c.w; ++x) {
        const Px p{float(rand() % (full + 1)), float(rand() % (full + 1)), float(rand() % (full + 1)),
                   float(c.alphaFrom + rand() % (c.alphaTo - c.alphaFrom + 1))};
        put(st.store, 0, x, y, p);
        before.push_back(Px{p.r, p.g, p.b, float(full)});
      }
    fillLevels(st.store, kFillPasses);
    for (int32_t y = 0; y < c.h; ++y)
      for (int32_t x = 0; x < c.w; ++x) ASSERT_TRUE(samePx(get(st.store, 0, x, y), before[size_t(y * c.w + x)]));
  }
  OwnedStore bare(1, 1, kKindRgba8);
  ASSERT_EQ(bare.store->topLevel, 1);
  put(bare.store, 0, 0, 0, Px{10, 20, 30, 0});
  fillLevels(bare.store, kFillPasses);
  EXPECT_TRUE(samePx(get(bare.store, 0, 0, 0), Px{10, 20, 30, 255}));
  EXPECT_TRUE(samePx(get(bare.store, 1, 0, 0), Px{0, 0, 0, 0}));
  OwnedStore covered(1, 1, kKindRgba16);
  put(covered.store, 0, 0, 0, Px{1000, 2000, 3000, 600});
  fillLevels(covered.store, kFillPasses);
  EXPECT_TRUE(samePx(get(covered.store, 0, 0, 0), Px{1000, 2000, 3000, 32768}));
  EXPECT_TRUE(samePx(get(covered.store, 1, 0, 0), Px{1000, 2000, 3000, 32768}));
}

TEST_F(FillFixture, TwoByTwoWithOnlyAFaintPixelStaysDefined) {
  // The faint pixel opens nothing at level 0; the way down reads level 0
  // itself. The covered pixel keeps its colour, all end opaque.
  OwnedStore st(2, 2, kKindRgba8);
  put(st.store, 0, 0, 0, Px{40, 50, 60, 6});
  fillLevels(st.store, kFillPasses);
  EXPECT_TRUE(samePx(get(st.store, 0, 0, 0), Px{40, 50, 60, 255}));
  for (int32_t y = 0; y < 2; ++y)
    for (int32_t x = 0; x < 2; ++x) EXPECT_EQ(get(st.store, 0, x, y).a, 255.0f);
  EXPECT_TRUE(samePx(get(st.store, 1, 0, 0), Px{40, 50, 60, 255}));
}

// ---- reduce ----------------------------------------------------------------------------------------

TEST_F(FillFixture, ReduceTakesAlphaWeightedMeansOfBlocks) {
  OwnedStore st(5, 4, kKindRgba8);
  ASSERT_EQ(st.store->levelWidth[1], 4);  // 3 rounded up to even
  ASSERT_EQ(st.store->levelHeight[1], 2);
  // Block (0, 0): red 10, 20, 30, 41 opaque: 25.25.
  put(st.store, 0, 0, 0, Px{10, 0, 0, 255});
  put(st.store, 0, 1, 0, Px{20, 0, 0, 255});
  put(st.store, 0, 0, 1, Px{30, 0, 0, 255});
  put(st.store, 0, 1, 1, Px{41, 0, 0, 255});
  // Block (1, 0): two bare pixels whose colours do not count, one of alpha 4 (floored).
  put(st.store, 0, 2, 0, Px{200, 0, 0, 255});
  put(st.store, 0, 3, 0, Px{0, 0, 0, 0});
  put(st.store, 0, 2, 1, Px{100, 0, 0, 255});
  put(st.store, 0, 3, 1, Px{255, 255, 255, 4});
  // Column 4 stands alone in block (2, 0) and again in the padding block (3, 0).
  put(st.store, 0, 4, 0, Px{60, 70, 80, 255});
  put(st.store, 0, 4, 1, Px{60, 70, 80, 255});
  reduceColours(st.store, 0);
  EXPECT_TRUE(samePx(get(st.store, 1, 0, 0), Px{25, 0, 0, 255}));
  EXPECT_TRUE(samePx(get(st.store, 1, 1, 0), Px{150, 0, 0, 255}));
  EXPECT_TRUE(samePx(get(st.store, 1, 2, 0), Px{60, 70, 80, 255}));
  EXPECT_TRUE(samePx(get(st.store, 1, 3, 0), Px{60, 70, 80, 255}));
  // Row 1 of level 1 reads rows 2 and 3, all bare: black, alpha 0.
  EXPECT_TRUE(samePx(get(st.store, 1, 0, 1), Px{0, 0, 0, 0}));
}

// ---- the way down ----------------------------------------------------------------------------------

TEST_F(FillFixture, HoleReadsTheLevelAboveAtHalfItsCoordinates) {
  // 1000 x 600: level 2 is 250 x 150, level 3 126 x 76. A hole at x = 100 of
  // level 2 reads level 3 at 125 * (50.5 / 126) - 0.5, about 49.6.
  OwnedStore st(1000, 600, kKindRgbaFloat);
  ASSERT_EQ(st.store->topLevel, 10);
  ASSERT_EQ(st.store->levelWidth[3], 126);
  fillLevel(st.store, 2, Px{0, 0, 0, 1.0f});
  put(st.store, 2, 100, 40, Px{0, 0, 0, 0.0f});
  for (int32_t y = 0; y < 76; ++y) {
    for (int32_t x = 0; x < 126; ++x) put(st.store, 3, x, y, Px{float(x) * 0.25f, float(y), float(x * y % 7), 1.0f});
  }
  expandInto(st.store, 2);
  // The ramps are 0.25 a pixel across and 1 a pixel down: the point lies near
  // (49.6, 75 * (20.5 / 76) - 0.5 = 19.73), and the way down clamps blue at 0.
  const Px hole = get(st.store, 2, 100, 40);
  EXPECT_NEAR(hole.r, 12.4, 0.05);
  EXPECT_NEAR(hole.g, 19.73, 0.05);
  EXPECT_GE(hole.b, 0.0f);
  EXPECT_EQ(hole.a, 1.0f);
  // Covered pixels are left as they are.
  EXPECT_TRUE(samePx(get(st.store, 2, 101, 40), Px{0, 0, 0, 1.0f}));
}

TEST_F(FillFixture, KernelOvershootIsClampedBeforeTheWrite) {
  // A hard step at level 1 makes the kernel ring: below 0 on the dark side,
  // above full on the bright side. Clamped, the row rises monotonically; a
  // value written unclamped would wrap the byte.
  OwnedStore st(32, 16, kKindRgba8);
  for (int32_t y = 0; y < st.store->levelHeight[1]; ++y) {
    for (int32_t x = 0; x < st.store->levelWidth[1]; ++x) put(st.store, 1, x, y, Px{x < 8 ? 0.0f : 255.0f, 0, 0, 255});
  }
  expandInto(st.store, 0);
  for (int32_t y = 0; y < 16; ++y) {
    for (int32_t x = 1; x < 32; ++x) ASSERT_LE(get(st.store, 0, x - 1, y).r, get(st.store, 0, x, y).r) << x << "," << y;
    EXPECT_EQ(get(st.store, 0, 0, y).r, 0.0f);
    EXPECT_EQ(get(st.store, 0, 31, y).r, 255.0f);
    EXPECT_EQ(get(st.store, 0, 5, y).a, 255.0f);
  }
}

TEST_F(FillFixture, FloatColoursAboveOnePassThroughAndClampAtTheLimit) {
  // 32-bit colours above 1 pass through the means unclamped; the way down
  // clamps what it brings at 0 and 65535.
  OwnedStore st(64, 64, kKindRgbaFloat);
  for (int32_t y = 30; y < 34; ++y) {
    for (int32_t x = 30; x < 34; ++x) put(st.store, 0, x, y, Px{70000.0f, 3.5f, -2.0f, 1.0f});
  }
  fillLevels(st.store, kFillPasses);
  // Covered, and filled by neighbour means at level 0: as they were.
  EXPECT_TRUE(samePx(get(st.store, 0, 31, 31), Px{70000.0f, 3.5f, -2.0f, 1.0f}));
  EXPECT_TRUE(samePx(get(st.store, 0, 29, 31), Px{70000.0f, 3.5f, -2.0f, 1.0f}));
  EXPECT_TRUE(samePx(get(st.store, 0, 33, 36), Px{70000.0f, 3.5f, -2.0f, 1.0f}));
  // Far away, brought down from coarse levels: clamped at every level on the
  // way, so what the float kernel mixes lies at the limits up to the rounding
  // of its weights (unclamped it would be 70000 and -2).
  const Px far = get(st.store, 0, 2, 60);
  EXPECT_LE(far.r, kFloatColourLimit);
  EXPECT_GT(far.r, 65530.0f);
  EXPECT_NEAR(far.g, 3.5f, 1e-4);
  EXPECT_GE(far.b, 0.0f);
  EXPECT_LT(far.b, 0.01f);
  EXPECT_EQ(far.a, 1.0f);
  // The coarse levels themselves kept the raw means.
  EXPECT_TRUE(samePx(get(st.store, 1, 15, 15), Px{70000.0f, 3.5f, -2.0f, 1.0f}));
}

}  // namespace

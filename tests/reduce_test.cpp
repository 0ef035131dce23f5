// The level pass: flat images, hand-worked kernels, edges, clipping, and
// levels cut into units against the whole.
#include <gtest/gtest.h>

#include <math.h>
#include <string.h>

#include <functional>
#include <random>
#include <vector>

#include "fill/reduce.h"
#include "host/blocks.h"
#include "host/plugin_main.h"
#include "store/pixel_store.h"
#include "tests/support/test_support.h"

namespace {

using testing_support::OwnedStore;

VRect wholeLevel(const PixelStore* store, int32_t level) { return levelRect(store, level); }

void fillU8x4(PixelStore* s, int32_t level, const std::function<void(int32_t, int32_t, int32_t*)>& f) {
  for (int32_t y = 0; y < s->levelHeight[level]; ++y)
    for (int32_t x = 0; x < s->levelWidth[level]; ++x) {
      int32_t v[4];
      f(x, y, v);
      if (s->kind == kKindRgba8) {
        writeU8x4(x, y, s, level, v);
      } else {
        writeU16x4(x, y, s, level, v);
      }
    }
}

void fillFloat4(PixelStore* s, int32_t level, const std::function<void(int32_t, int32_t, float*)>& f) {
  for (int32_t y = 0; y < s->levelHeight[level]; ++y)
    for (int32_t x = 0; x < s->levelWidth[level]; ++x) {
      float v[4];
      f(x, y, v);
      uint32_t w[4];
      memcpy(w, v, sizeof w);
      writeWord4(x, y, s, level, w);
    }
}

float floatChannel(const PixelStore* s, int32_t x, int32_t y, int32_t level, int32_t ch) {
  uint32_t w[4];
  readWord4(x, y, s, level, w);
  return bitsToFloat(w[ch]);
}

// Random content over all of level 0, wide ranges for the floats (negatives
// and values past 65535 reach the clamp).
void fillRandom(PixelStore* s, uint32_t seed) {
  std::mt19937 rng(seed);
  for (int32_t y = 0; y < s->levelHeight[0]; ++y)
    for (int32_t x = 0; x < s->levelWidth[0]; ++x) {
      switch (s->kind) {
        case kKindRgba8: {
          const int32_t v[4] = {int32_t(rng() & 255), int32_t(rng() & 255), int32_t(rng() & 255),
                                int32_t(rng() & 255)};
          writeU8x4(x, y, s, 0, v);
          break;
        }
        case kKindRgba16: {
          const int32_t v[4] = {int32_t(rng() % 32769), int32_t(rng() % 32769), int32_t(rng() % 32769),
                                int32_t(rng() % 32769)};
          writeU16x4(x, y, s, 0, v);
          break;
        }
        case kKindGray8: writeU8(x, y, s, 0, int32_t(rng() & 255)); break;
        case kKindGray16: writeU16(x, y, s, 0, int32_t(rng() % 32769)); break;
        case kKindFloat: writeFloat(x, y, s, 0, float(int32_t(rng() % 200001) - 50000) * 0.731f); break;
        case kKindRgbaFloat: {
          float v[4];
          for (float& c : v) c = float(int32_t(rng() % 200001) - 50000) * 0.731f + float(rng() % 1000) * 1e-4f;
          uint32_t w[4];
          memcpy(w, v, sizeof w);
          writeWord4(x, y, s, 0, w);
          break;
        }
        default: break;
      }
    }
}

// ---- flat images -----------------------------------------------------------------------------------

TEST(ReduceFlat, FlatLevelsComeOutAsTheKernelScaleLeavesThem) {
  // 200 * 1640 weighed, times 1/1630 rather than 1/1640: 201.2, truncated 201;
  // full scale stays by the clamp (256.6 would wrap the byte); 16 bits:
  // 32800000 / 1630 = 20122.7, and 1640 / 1630 is still 1. Odd level sizes
  // round up to even (10 x 6 gives 6 x 4).
  struct Case {
    int32_t w, h, kind;
    int32_t in[4], out[4];
  };
  const Case cases[] = {
      {10, 6, kKindRgba8, {200, 200, 200, 200}, {201, 201, 201, 201}},
      {7, 9, kKindRgba8, {255, 255, 0, 255}, {255, 255, 0, 255}},
      {12, 12, kKindRgba16, {32768, 20000, 0, 1}, {32768, 20122, 0, 1}},
  };
  for (const Case& c : cases) {
    OwnedStore s(c.w, c.h, c.kind);
    fillU8x4(s.store, 0, [&](int32_t, int32_t, int32_t* v) { memcpy(v, c.in, sizeof c.in); });
    reduceLevelUnit(s.store, 0, wholeLevel(s.store, 1));
    if (c.w == 10) {
      EXPECT_EQ(s->levelWidth[1], 6);
      EXPECT_EQ(s->levelHeight[1], 4);
    }
    for (int32_t y = 0; y < s->levelHeight[1]; ++y)
      for (int32_t x = 0; x < s->levelWidth[1]; ++x) {
        int32_t v[4];
        if (c.kind == kKindRgba8) readU8x4(x, y, s.store, 1, v);
        else readU16x4(x, y, s.store, 1, v);
        for (int ch = 0; ch < 4; ++ch) ASSERT_EQ(v[ch], c.out[ch]) << c.w << " x " << c.h << " at " << x << "," << y;
      }
  }
}

TEST(ReduceFlat, FloatHalfStaysHalfAndTheRangeIsClamped) {
  OwnedStore s(8, 8, kKindRgbaFloat);
  fillFloat4(s.store, 0, [](int32_t, int32_t, float* v) {
    v[0] = 0.5f;
    v[1] = 100000.0f;
    v[2] = -3.0f;
    v[3] = 65535.0f;
  });
  reduceLevelUnit(s.store, 0, wholeLevel(s.store, 1));
  for (int32_t y = 0; y < 4; ++y)
    for (int32_t x = 0; x < 4; ++x) {
      // The sum of 0.5 times the weights is 820 exactly; only the scale rounds.
      EXPECT_EQ(floatChannel(s.store, x, y, 1, 0), 820.0f * 0.0006097561f);
      EXPECT_NEAR(floatChannel(s.store, x, y, 1, 0), 0.5f, 1e-6f);
      EXPECT_EQ(floatChannel(s.store, x, y, 1, 1), 65535.0f);
      EXPECT_EQ(floatChannel(s.store, x, y, 1, 2), 0.0f);
      EXPECT_FALSE(signbit(floatChannel(s.store, x, y, 1, 2)));
      EXPECT_LE(floatChannel(s.store, x, y, 1, 3), 65535.0f);
    }
}

// ---- hand-worked kernels -----------------------------------------------------------------------------

TEST(ReduceKernel, FourByFourByHand) {
  // A 4 x 4 level gives 2 x 2. Folding the clamped taps of destination (0, 0)
  // onto the 16 source pixels gives the weights
  //   410 324 81 5 / 324 256 64 4 / 81 64 16 1 / 5 4 1 0
  // (row 0 takes the rows -2, -1 and 0 of the kernel, column 0 its columns -2,
  // -1 and 0); the other three pixels take the mirror images.
  // Channel 0 holds 10, 20, ..., 160 row by row:
  //   (0, 0): 13210 + 36360 + 15570 + 1360 = 66500, / 1630 = 40.8
  //   (1, 0): 27790 + 47880 + 18450 + 1540 = 95660, / 1630 = 58.7
  //   (0, 1): 160 + 9090 + 62280 + 111610 = 183140, / 1630 = 112.4
  //   (1, 1): 340 + 11970 + 73800 + 126190 = 212300, / 1630 = 130.2
  // Channel 1 is 255 minus channel 0: 418200 less those sums.
  OwnedStore s(4, 4, kKindRgba8);
  fillU8x4(s.store, 0, [](int32_t x, int32_t y, int32_t* v) {
    v[0] = 10 * (4 * y + x + 1);
    v[1] = 255 - v[0];
    v[2] = 0;
    v[3] = 255;
  });
  reduceLevelUnit(s.store, 0, wholeLevel(s.store, 1));
  const int32_t want0[2][2] = {{40, 58}, {112, 130}};
  const int32_t want1[2][2] = {{215, 197}, {144, 126}};  // 351700, 322540, 235060, 205900
  for (int32_t y = 0; y < 2; ++y)
    for (int32_t x = 0; x < 2; ++x) {
      int32_t v[4];
      readU8x4(x, y, s.store, 1, v);
      EXPECT_EQ(v[0], want0[y][x]) << x << "," << y;
      EXPECT_EQ(v[1], want1[y][x]) << x << "," << y;
      EXPECT_EQ(v[2], 0);
      EXPECT_EQ(v[3], 255);
    }
}

TEST(ReduceKernel, TwoByTwoGoesToOnePixelWithAQuarterEach) {
  // Every tap is a clamped read of the four pixels, each of which gathers 410.
  OwnedStore s(2, 2, kKindRgba16);
  ASSERT_EQ(s->topLevel, 1);
  const int32_t values[2][2] = {{1000, 2000}, {3000, 4000}};
  fillU8x4(s.store, 0, [&](int32_t x, int32_t y, int32_t* v) {
    v[0] = values[y][x];
    v[1] = x == 0 && y == 0 ? 1000 : 0;  // 410000 / 1630 = 251.5
    v[2] = v[3] = 0;
  });
  reduceLevelUnit(s.store, 0, wholeLevel(s.store, 1));
  int32_t v[4];
  readU16x4(0, 0, s.store, 1, v);
  EXPECT_EQ(v[0], 2515);  // 410 * 10000 = 4100000, / 1630 = 2515.3
  EXPECT_EQ(v[1], 251);
}

TEST(ReduceKernel, FloatSumsKeepTheTableOrder) {
  // One huge value among small ones: added in the table's order, the small
  // terms before it survive, the ones after it are absorbed. Destination (0, 0)
  // of a 4 x 4 level reads source (0, 0) first (tap (-1, -2)).
  OwnedStore s(4, 4, kKindFloat);
  for (int32_t y = 0; y < 4; ++y)
    for (int32_t x = 0; x < 4; ++x) writeFloat(x, y, s.store, 0, 1.0f);
  writeFloat(3, 3, s.store, 0, 3.0e7f);
  reduceLevelUnit(s.store, 0, wholeLevel(s.store, 1));
  // (1, 1) reads (3, 3) at taps (+1..+3, +1..+3), late in the order: past the ceiling.
  EXPECT_EQ(readFloat(1, 1, s.store, 1), 65535.0f);
  // Destination (0, 0) reads (3, 3) once, with weight 0 (a corner): it stays 1640 * scale.
  EXPECT_EQ(readFloat(0, 0, s.store, 1), 1640.0f * 0.0006097561f);
}

// ---- edges and clipping --------------------------------------------------------------------------------

TEST(ReduceEdges, OddWidthRepeatsTheLastColumn) {
  // 5 x 3 gives 4 x 2 (3 is odd, so 4): destination column 3 reads source
  // columns 6..9, all clamped to column 4, so it reduces that column alone.
  OwnedStore s(5, 3, kKindRgba8);
  ASSERT_EQ(s->levelWidth[1], 4);
  ASSERT_EQ(s->levelHeight[1], 2);
  fillU8x4(s.store, 0, [](int32_t x, int32_t y, int32_t* v) {
    v[0] = x == 4 ? 200 : 17 * x + 3 * y;
    v[1] = x == 4 ? 10 * y : 0;
    v[2] = v[3] = 0;
  });
  reduceLevelUnit(s.store, 0, wholeLevel(s.store, 1));
  for (int32_t y = 0; y < 2; ++y) {
    int32_t v[4];
    readU8x4(3, y, s.store, 1, v);
    EXPECT_EQ(v[0], 201);
  }
  // Channel 1 of column 3: the rows 0, 10, 20 under the column weights. Row
  // 0 of the destination folds rows -2..0 onto source row 0 (weight 820), row
  // 1 onto 1 (648), row 2 onto 2 (162) and row 3 onto 2 again (10):
  // 6480 + 3440 = 9920, / 1630 = 6.09.
  int32_t v[4];
  readU8x4(3, 0, s.store, 1, v);
  EXPECT_EQ(v[1], 6);
}

TEST(ReduceEdges, RectIsClippedToTheLevelAbove) {
  // A rect far past the level: only the level's own pixels are written, and
  // the tile memory past its width stays zero.
  OwnedStore s(20, 10, kKindRgba8);
  fillU8x4(s.store, 0, [](int32_t, int32_t, int32_t* v) { v[0] = v[1] = v[2] = v[3] = 200; });
  VRect wide = {-40, -40, 400, 400};
  reduceLevelUnit(s.store, 0, wide);
  for (int32_t y = 0; y < s->levelHeight[1]; ++y) {
    for (int32_t x = 0; x < s->levelWidth[1]; ++x) {
      int32_t v[4];
      readU8x4(x, y, s.store, 1, v);
      ASSERT_EQ(v[0], 201);
    }
    for (int32_t x = s->levelWidth[1]; x < kTileWidth; ++x) {
      ASSERT_EQ(loadWord(storePixel<uint32_t>(s.store, 1, x, y)), 0u) << x << "," << y;
    }
  }
  // The spare rows below the level stay zero as well.
  for (int32_t x = 0; x < kTileWidth; ++x)
    ASSERT_EQ(loadWord(storePixel<uint32_t>(s.store, 1, x, s->levelHeight[1])), 0u);
}

TEST(ReduceEdges, TopLevelHasNothingAbove) {
  OwnedStore s(2, 2, kKindRgba8);
  fillU8x4(s.store, 0, [](int32_t, int32_t, int32_t* v) { v[0] = v[1] = v[2] = v[3] = 50; });
  fillU8x4(s.store, 1, [](int32_t, int32_t, int32_t* v) { v[0] = v[1] = v[2] = v[3] = 7; });
  reduceLevelUnit(s.store, 1, wholeLevel(s.store, 1));  // level 2 does not exist
  int32_t v[4];
  readU8x4(0, 0, s.store, 1, v);
  EXPECT_EQ(v[0], 7);
}

// ---- cut into units -------------------------------------------------

class ReduceKinds : public ::testing::TestWithParam<int32_t> {};

TEST_P(ReduceKinds, UnitsGiveTheSameLevelAsTheWhole) {
  OwnedStore whole(1100, 70, GetParam());
  OwnedStore parts(1100, 70, GetParam());
  fillRandom(whole.store, 5);
  fillRandom(parts.store, 5);
  reduceLevelUnit(whole.store, 0, wholeLevel(whole.store, 1));
  // Two halves split at an odd column, the right half again at an odd row,
  // done in reverse order.
  const int32_t w = whole->levelWidth[1];
  const int32_t h = whole->levelHeight[1];
  ASSERT_EQ(h, 36);  // 35 is odd, so 36
  const VRect right1 = {0, 257, 17, w};
  const VRect right2 = {17, 257, h, w};
  const VRect left = {0, 0, h, 257};
  reduceLevelUnit(parts.store, 0, right2);
  reduceLevelUnit(parts.store, 0, right1);
  reduceLevelUnit(parts.store, 0, left);
  const int32_t bytes = pixelKindInfo(GetParam()).pixelBytes;
  for (int32_t y = 0; y < whole->levelHeight[1]; ++y)
    for (int32_t x = 0; x < whole->levelWidth[1]; ++x)
      ASSERT_EQ(memcmp(storePixel<uint8_t>(whole.store, 1, x, y, bytes), storePixel<uint8_t>(parts.store, 1, x, y, bytes),
                       size_t(bytes)),
                0)
          << x << "," << y;
}

INSTANTIATE_TEST_SUITE_P(AllKinds, ReduceKinds,
                         ::testing::Values(kKindRgba8, kKindRgba16, kKindRgbaFloat, kKindGray8, kKindGray16,
                                           kKindFloat));

TEST(ReduceKinds, SignedThreeChannelBlockMean) {
  OwnedStore s(4, 2, kKindSigned16x3);
  const int32_t a[3] = {100, -100, 400};
  const int32_t b[3] = {101, -107, 401};
  writeI16x3(0, 0, s.store, 0, a);
  writeI16x3(1, 0, s.store, 0, a);
  writeI16x3(0, 1, s.store, 0, a);
  writeI16x3(1, 1, s.store, 0, b);
  reduceLevelUnit(s.store, 0, wholeLevel(s.store, 1));
  int32_t v[3];
  readI16x3(0, 0, s.store, 1, v);
  EXPECT_EQ(v[0], 50);   // 401 / 4 = 100, halved
  EXPECT_EQ(v[1], -50);  // -407 / 4 = -101 (toward zero; floor gives -102), halved
  EXPECT_EQ(v[2], 100);  // 1601 / 4 = 400, quartered
}

// ---- the level pass through the pool ---------------------------------------------------------------------

using BuildLevels = testing_support::EngineFixture;

TEST_F(BuildLevels, EveryLevelFromTheOneBelow) {
  // 300 x 170 cuts level 1 (150 x 86) into four units of up to 128 x 128.
  OwnedStore pooled(300, 170, kKindRgba8);
  OwnedStore direct(300, 170, kKindRgba8);
  fillRandom(pooled.store, 21);
  fillRandom(direct.store, 21);
  pooled->loadState = 1;
  buildLevels(pooled.store, 0);
  EXPECT_EQ(pooled->loadState, 2);
  for (int32_t level = 0; level < direct->topLevel; ++level)
    reduceLevelUnit(direct.store, level, wholeLevel(direct.store, level + 1));
  for (int32_t level = 1; level <= direct->topLevel; ++level)
    for (int32_t y = 0; y < direct->levelHeight[level]; ++y)
      for (int32_t x = 0; x < direct->levelWidth[level]; ++x)
        ASSERT_EQ(loadWord(storePixel<uint32_t>(pooled.store, level, x, y)),
                  loadWord(storePixel<uint32_t>(direct.store, level, x, y)))
            << "level " << level << " (" << x << ", " << y << ")";
}

TEST_F(BuildLevels, OneLevelStore) {
  OwnedStore s(1, 1, kKindRgbaFloat);
  ASSERT_EQ(s->topLevel, 1);
  fillFloat4(s.store, 0, [](int32_t, int32_t, float* v) { v[0] = v[1] = v[2] = v[3] = 0.25f; });
  buildLevels(s.store, 0);
  EXPECT_EQ(s->loadState, 2);
  EXPECT_EQ(floatChannel(s.store, 0, 0, 1, 0), 410.0f * 0.0006097561f);
}

TEST_F(BuildLevels, FromALaterLevelLeavesTheLowerOnesAlone) {
  OwnedStore s(16, 16, kKindRgba8);
  fillU8x4(s.store, 0, [](int32_t, int32_t, int32_t* v) { v[0] = v[1] = v[2] = v[3] = 200; });
  fillU8x4(s.store, 1, [](int32_t, int32_t, int32_t* v) { v[0] = v[1] = v[2] = v[3] = 100; });
  buildLevels(s.store, 1);
  EXPECT_EQ(s->loadState, 2);
  int32_t v[4];
  readU8x4(0, 0, s.store, 1, v);
  EXPECT_EQ(v[0], 100);
  readU8x4(0, 0, s.store, 2, v);
  EXPECT_EQ(v[0], 100);  // 164000 / 1630 = 100.6
}

}  // namespace

// The kernel table and the five-tap kernels: the table's sums and telling
// rows, flat areas, the orientation of the taps, the one-tile road against
// the clamped road and across tile borders, blending between levels, the kind
// dispatch and small levels.
#include <gtest/gtest.h>

#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <functional>
#include <vector>

#include "store/pixel_store.h"
#include "tests/support/test_support.h"
#include "store/resample.h"
#include "store/resample_table.h"

namespace {

using testing_support::OwnedStore;

uint32_t hashPoint(int32_t x, int32_t y, uint32_t salt) {
  uint32_t h = uint32_t(x) * 0x9e3779b1u ^ (uint32_t(y) + salt) * 0x85ebca77u;
  h ^= h >> 15;
  h *= 0xc2b2ae3du;
  h ^= h >> 13;
  return h;
}

int32_t to8(double unit) { return int32_t(floor(unit * 255.0 + 0.5)); }
int32_t to16(double unit) { return int32_t(floor(unit * 32768.0 + 0.5)); }

// Writes channel values made from (x, y) through the kind's own writer.
// `value(x, y, channel)` gives a number in 0..1, scaled to the kind's range.
void fillLevel(PixelStore* s, int32_t level, const std::function<double(int32_t, int32_t, int)>& value) {
  for (int32_t y = 0; y < s->levelHeight[level]; ++y) {
    for (int32_t x = 0; x < s->levelWidth[level]; ++x) {
      switch (s->kind) {
        case kKindRgba8: {
          const int32_t c[4] = {to8(value(x, y, 0)), to8(value(x, y, 1)), to8(value(x, y, 2)), to8(value(x, y, 3))};
          writeU8x4(x, y, s, level, c);
          break;
        }
        case kKindRgba16: {
          const int32_t c[4] = {to16(value(x, y, 0)), to16(value(x, y, 1)), to16(value(x, y, 2)),
                                to16(value(x, y, 3))};
          writeU16x4(x, y, s, level, c);
          break;
        }
        case kKindRgbaFloat: {
          const float c[4] = {float(value(x, y, 0)), float(value(x, y, 1)), float(value(x, y, 2)),
                              float(value(x, y, 3))};
          writeUnitPixel(x, y, s, level, c);
          break;
        }
        case kKindGray8: writeU8(x, y, s, level, to8(value(x, y, 0))); break;
        case kKindGray16: writeU16(x, y, s, level, to16(value(x, y, 0))); break;
        case kKindFloat: writeFloat(x, y, s, level, float(value(x, y, 0))); break;
      }
    }
  }
}

void fillRandom(PixelStore* s, uint32_t salt) {
  for (int32_t level = 0; level <= s->topLevel; ++level) {
    fillLevel(s, level, [&](int32_t x, int32_t y, int c) {
      return double(hashPoint(x, y, salt + uint32_t(level * 4 + c)) >> 8) / double(1 << 24);
    });
  }
}

void fillFlat(PixelStore* s, int32_t level, const double value[4]) {
  fillLevel(s, level, [&](int32_t, int32_t, int c) { return value[c]; });
}

void kernelPixel(const PixelStore* s, int32_t level, float x, float y, float out[4]) {
  switch (s->kind) {
    case kKindRgba8: filterPixel<kKindRgba8>(s, level, x, y, &out[0], &out[1], &out[2], &out[3]); break;
    case kKindRgba16: filterPixel<kKindRgba16>(s, level, x, y, &out[0], &out[1], &out[2], &out[3]); break;
    default: filterPixel<kKindRgbaFloat>(s, level, x, y, &out[0], &out[1], &out[2], &out[3]); break;
  }
}

// ---- kernel table ------------------------------------------------------------------------------------

class KernelTable : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { fillResampleKernelTable(&table); }
  static ResampleKernelTable table;
};
ResampleKernelTable KernelTable::table;

TEST_F(KernelTable, IntegerTapsSumToTheirScaleAtEveryPhase) {
  for (int p = 0; p < kKernelPhases; ++p) {
    int32_t s8 = 0;
    int32_t s16 = 0;
    for (int t = 0; t < kKernelTaps; ++t) {
      s8 += table.weights2048[t][p];
      s16 += table.weights32768[t][p];
    }
    EXPECT_EQ(s8, 2048) << "phase " << p;
    EXPECT_EQ(s16, 32768) << "phase " << p;
  }
}

TEST_F(KernelTable, TellingRowsMatch) {
  struct Row {
    int phase;
    float w[5];
    int32_t q8[5];
    int32_t q16[5];
  };
  const Row rows[] = {
      {0,
       {0, -0.046494f, 0.594386f, 0.497274f, -0.045166f},
       {0, -95, 1217, 1018, -92},
       {0, -1523, 19476, 16294, -1479}},
      {32,
       {-0.001998f, -0.00993f, 0.794354f, 0.243777f, -0.026203f},
       {-4, -20, 1626, 499, -53},
       {-65, -325, 26029, 7988, -859}},
      {64,
       {-0.013511f, 0.116435f, 0.848497f, 0.056232f, -0.007653f},
       {-27, 238, 1737, 115, -15},
       {-442, 3815, 27803, 1842, -250}},
      {96,
       {-0.034671f, 0.336326f, 0.731495f, -0.032616f, -0.000534f},
       {-71, 688, 1498, -66, -1},
       {-1136, 11020, 23969, -1068, -17}},
      {127,
       {-0.046609f, 0.586659f, 0.505418f, -0.045469f, 0},
       {-95, 1201, 1035, -93, 0},
       {-1527, 19223, 16561, -1489, 0}},
  };
  for (const Row& r : rows) {
    for (int t = 0; t < 5; ++t) {
      EXPECT_NEAR(table.weights[t][r.phase], r.w[t], 5e-7) << "phase " << r.phase << " tap " << t;
      EXPECT_EQ(table.weights2048[t][r.phase], r.q8[t]) << "phase " << r.phase << " tap " << t;
      EXPECT_EQ(table.weights32768[t][r.phase], r.q16[t]) << "phase " << r.phase << " tap " << t;
    }
  }
  // Every evaluation for tap 0 at phase 0 lies at x <= -2.
  EXPECT_EQ(table.weights[0][0], 0.0f);
}

// ---- flat areas ----------------------------------------------------------------------------------------

// Positions of phase 0 that take each road: inside one tile, across a tile
// border, clamped at the left and top edge, clamped at the right and bottom
// edge. A fraction added to them is the phase.
std::vector<float> roadPositions(int32_t length) {
  const float l = float(length);
  return {19.5f, 508.5f, 509.5f, 511.5f, -0.5f, 0.5f, l - 3.5f, l - 1.5f, l - 0.5f, l + 0.5f};
}

TEST(FlatArea, IntegerKindsReturnTheValueExactlyEverywhere) {
  OwnedStore s8(1030, 600, kKindRgba8);
  OwnedStore s16(1030, 600, kKindRgba16);
  OwnedStore g8(1030, 600, kKindGray8);
  OwnedStore g16(1030, 600, kKindGray16);
  const double v8[4] = {200.0 / 255, 17.0 / 255, 0.0, 1.0};
  const double v16[4] = {1.0, 12345.0 / 32768, 0.0, 1.0 / 32768};
  // The 16-bit scalar keeps whole row sums, so its total wraps above a value of 1.
  const double one16[4] = {1.0 / 32768, 0, 0, 0};
  fillFlat(s8.store, 0, v8);
  fillFlat(s16.store, 0, v16);
  fillFlat(g8.store, 0, v8);
  fillFlat(g16.store, 0, one16);
  for (float bx : roadPositions(1030)) {
    for (float by : roadPositions(600)) {
      for (int phase = 0; phase < 128; phase += 3) {
        const float x = bx + float(phase) / 128.0f;
        const float y = by + float(127 - phase) / 128.0f;
        float out[4];
        filterPixel<kKindRgba8>(s8.store, 0, x, y, &out[0], &out[1], &out[2], &out[3]);
        ASSERT_EQ(std::vector<float>(out, out + 4), (std::vector<float>{200, 17, 0, 255})) << x << "," << y;
        filterPixel<kKindRgba16>(s16.store, 0, x, y, &out[0], &out[1], &out[2], &out[3]);
        ASSERT_EQ(std::vector<float>(out, out + 4), (std::vector<float>{32768, 12345, 0, 1})) << x << "," << y;
        ASSERT_EQ(filterScalar<kKindGray8>(g8.store, 0, x, y), 200.0f);
        ASSERT_EQ(filterScalar<kKindGray16>(g16.store, 0, x, y), 1.0f);
      }
    }
  }
}

// ---- orientation of the taps ------------------------------------------------------------------------

// At x = i - 0.5 the phase is 0 and the base pixel is i: pixel i + 1 takes
// tap 1 and pixel i - 2 tap 4; the base row takes tap 2.
TEST(TapOrientation, EightBit) {
  OwnedStore s(20, 20, kKindRgba8);
  const int32_t bright[4] = {255, 0, 0, 0};
  writeU8x4(11, 10, s.store, 0, bright);
  float out[4];
  filterPixel<kKindRgba8>(s.store, 0, 9.5f, 9.5f, &out[0], &out[1], &out[2], &out[3]);
  EXPECT_EQ(out[0], -29481825.0f * 0x1p-22f);  // 255 * -95 * 1217
  EXPECT_EQ(out[1], 0.0f);
  EXPECT_EQ(out[3], 0.0f);

  // Column i - 2 takes tap 4, row j - 1 tap 3.
  const int32_t alphaOnly[4] = {0, 0, 0, 255};
  writeU8x4(8, 9, s.store, 0, alphaOnly);
  filterPixel<kKindRgba8>(s.store, 0, 9.5f, 9.5f, &out[0], &out[1], &out[2], &out[3]);
  EXPECT_EQ(out[3], -23882280.0f * 0x1p-22f);  // 255 * -92 * 1018
  // Row j + 2 takes tap 0, which is 0 at phase 0.
  writeU8x4(8, 12, s.store, 0, bright);
  float again[4];
  filterPixel<kKindRgba8>(s.store, 0, 9.5f, 9.5f, &again[0], &again[1], &again[2], &again[3]);
  EXPECT_EQ(again[0], out[0]);
}

TEST(TapOrientation, SixteenBitRowSumsTruncateTowardZeroAndFloat) {
  OwnedStore s(20, 20, kKindRgba16);
  const int32_t value[4] = {1000, 0, 0, 0};
  writeU16x4(11, 10, s.store, 0, value);
  float out[4];
  filterPixel<kKindRgba16>(s.store, 0, 9.5f, 9.5f, &out[0], &out[1], &out[2], &out[3]);
  // Row: 1000 * -1523 = -1523000, / 32768 -> -46 (toward zero; floor would give -47).
  // Column: -46 * 19476 = -895896, times 2^-15.
  EXPECT_EQ(out[0], -895896.0f * 0x1p-15f);
  EXPECT_EQ(out[1], 0.0f);
  OwnedStore f(20, 20, kKindRgbaFloat);
  const uint32_t one[4] = {floatBits(1.0f), 0, 0, 0};
  writeWord4(11, 10, f.store, 0, one);
  filterPixel<kKindRgbaFloat>(f.store, 0, 9.5f, 9.5f, &out[0], &out[1], &out[2], &out[3]);
  const ResampleKernelTable& k = f->kernelTable;
  EXPECT_EQ(out[0], k.weightsFloat[1][0] * k.weightsFloat[2][0]);
}

// ---- roads against each other ----------------------------------------------------------------------

TEST(KernelReference, LeftOfColumnZeroRepeatsColumnZero) {
  OwnedStore s(40, 40, kKindRgba8);
  fillRandom(s.store, 3);
  // x < 1.5 puts the block's first column left of 0: the general road, with
  // columns -2 and -1 read as column 0. Make a copy whose columns are shifted
  // right by two with column 0 written three times: the same sums.
  OwnedStore t(42, 40, kKindRgba8);
  for (int32_t y = 0; y < 40; ++y) {
    for (int32_t x = 0; x < 42; ++x) {
      int32_t c[4];
      readU8x4(x < 2 ? 0 : x - 2, y, s.store, 0, c);
      writeU8x4(x, y, t.store, 0, c);
    }
  }
  for (float x : {-0.5f, -0.25f, 0.0f, 0.3f, 0.7f, 1.2f, 1.49f}) {
    float a[4];
    float b[4];
    filterPixel<kKindRgba8>(s.store, 0, x, 20.3f, &a[0], &a[1], &a[2], &a[3]);
    filterPixel<kKindRgba8>(t.store, 0, x + 2.0f, 20.3f, &b[0], &b[1], &b[2], &b[3]);
    for (int c = 0; c < 4; ++c) EXPECT_EQ(a[c], b[c]) << x;
  }
}

// The same content at two offsets: once with the 5 x 5 block inside a tile,
// once across a vertical border, a horizontal border and a tile corner.
TEST(TileBorder, CrossingBlockEqualsTheBlockInsideOneTile) {
  for (int32_t kind : {kKindRgba8, kKindRgba16, kKindRgbaFloat}) {
    const int32_t offsets[][2] = {{100, 100}, {490, 100}, {100, 490}, {490, 490}};
    std::vector<PixelStore*> stores;
    for (const auto& o : offsets) {
      PixelStore* s = pixelStoreCreate(600, 600, kind, 0, false);
      ASSERT_NE(s, nullptr);
      fillLevel(s, 0, [&](int32_t x, int32_t y, int c) {
        return double(hashPoint(x - o[0], y - o[1], uint32_t(c)) >> 8) / double(1 << 24);
      });
      stores.push_back(s);
    }
    for (int32_t cy = 14; cy <= 30; ++cy) {
      for (int32_t cx = 14; cx <= 30; ++cx) {
        const float fx = float((cx * 37) % 128) / 128.0f;
        const float fy = float((cy * 53) % 128) / 128.0f;
        float inside[4];
        kernelPixel(stores[0], 0, float(offsets[0][0] + cx) + fx, float(offsets[0][1] + cy) + fy, inside);
        for (size_t k = 1; k < stores.size(); ++k) {
          float crossing[4];
          kernelPixel(stores[k], 0, float(offsets[k][0] + cx) + fx, float(offsets[k][1] + cy) + fy, crossing);
          for (int c = 0; c < 4; ++c) {
            ASSERT_EQ(floatBits(crossing[c]), floatBits(inside[c])) << "kind " << kind << " offset " << k << " at "
                                                                    << cx << "," << cy;
          }
        }
      }
    }
    for (PixelStore* s : stores) pixelStoreDestroy(&s);
  }
}

// ---- blending between levels ----------------------------------------------------------------------

TEST(LevelBlend, FractionMixesTwoLevels) {
  OwnedStore s(1000, 600, kKindRgba8);
  const double hundred[4] = {100.0 / 255, 100.0 / 255, 100.0 / 255, 100.0 / 255};
  const double twoHundred[4] = {200.0 / 255, 200.0 / 255, 200.0 / 255, 200.0 / 255};
  fillFlat(s.store, 0, hundred);
  fillFlat(s.store, 1, twoHundred);
  fillFlat(s.store, 2, twoHundred);
  float out[4];
  filterPixelBlend<kKindRgba8>(s.store, 0, 0.0f, 0.3f, 0.6f, &out[0], &out[1], &out[2], &out[3]);
  EXPECT_EQ(out[0], 100.0f);
  filterPixelBlend<kKindRgba8>(s.store, 0, 0.25f, 0.3f, 0.6f, &out[0], &out[1], &out[2], &out[3]);
  EXPECT_EQ(out[0], 125.0f);
  EXPECT_EQ(out[3], 125.0f);
  // Two identical levels: any fraction gives the value.
  filterPixelBlend<kKindRgba8>(s.store, 1, 0.25f, 0.3f, 0.6f, &out[0], &out[1], &out[2], &out[3]);
  EXPECT_EQ(out[0], 200.0f);
}

TEST(LevelBlend, LevelIsLimitedButTheFractionStillBlends) {
  OwnedStore s(300, 200, kKindRgbaFloat);
  fillRandom(s.store, 8);
  const int32_t top = s->topLevel;
  float a[4];
  float b[4];
  filterPixelBlend<kKindRgbaFloat>(s.store, top + 3, 0.5f, 0.3f, 0.9f, &a[0], &a[1], &a[2], &a[3]);
  filterPixelBlend<kKindRgbaFloat>(s.store, top - 1, 0.5f, 0.3f, 0.9f, &b[0], &b[1], &b[2], &b[3]);
  for (int c = 0; c < 4; ++c) EXPECT_EQ(a[c], b[c]);
  float only[4];
  filterPixelBlend<kKindRgbaFloat>(s.store, top - 1, 0.0f, 0.3f, 0.9f, &only[0], &only[1], &only[2], &only[3]);
  EXPECT_NE(a[0], only[0]);  // the fraction reached level top
  filterPixelBlend<kKindRgbaFloat>(s.store, -4, 0.5f, 0.3f, 0.9f, &a[0], &a[1], &a[2], &a[3]);
  filterPixelBlend<kKindRgbaFloat>(s.store, 0, 0.5f, 0.3f, 0.9f, &b[0], &b[1], &b[2], &b[3]);
  for (int c = 0; c < 4; ++c) EXPECT_EQ(a[c], b[c]);
}

// ---- dispatch and unit entries ------------------------------------------------------------------------

TEST(KindDispatch, OneValueKindsAndUnknownKinds) {
  float r, g, b, a;
  OwnedStore g8(50, 50, kKindGray8);
  const double v8[4] = {64.0 / 255, 0, 0, 0};
  fillFlat(g8.store, 0, v8);
  filterBlendDispatch(g8.store, 0, 0.0f, 0.5f, 0.5f, &r, &g, &b, &a);
  EXPECT_EQ((std::vector<float>{r, g, b, a}), (std::vector<float>{64, 64, 64, 255}));

  OwnedStore g16(50, 50, kKindGray16);
  const double v16[4] = {1.0 / 32768, 0, 0, 0};
  fillFlat(g16.store, 0, v16);
  filterBlendDispatch(g16.store, 0, 0.0f, 0.5f, 0.5f, &r, &g, &b, &a);
  EXPECT_EQ(r, 1.0f);
  EXPECT_EQ(a, 32768.0f);
  // Larger values wrap the 32-bit total of this kernel: a flat 2 makes 2^31, read as -2^31.
  const double two16[4] = {2.0 / 32768, 0, 0, 0};
  fillFlat(g16.store, 0, two16);
  filterBlendDispatch(g16.store, 0, 0.0f, 0.5f, 0.5f, &r, &g, &b, &a);
  EXPECT_EQ(r, -2.0f);

  OwnedStore raw(50, 50, kKindRaw16);
  filterBlendDispatch(raw.store, 0, 0.0f, 0.5f, 0.5f, &r, &g, &b, &a);
  EXPECT_EQ(r, 0.5f);
  EXPECT_EQ(a, 0.5f);
  float unit[4];
  filterUnitPixel(raw.store, 0, 0.0f, 0.5f, 0.5f, unit);
  EXPECT_EQ(unit[3], 0.5f);
}

TEST(KindDispatch, DistanceKindReadsOneLevelOnly) {
  OwnedStore f(64, 64, kKindFloat);
  const double one[4] = {1.0, 0, 0, 0};
  const double three[4] = {3.0, 0, 0, 0};
  fillFlat(f.store, 0, one);
  fillFlat(f.store, 1, three);
  float r, g, b, a;
  filterBlendDispatch(f.store, 0, 0.0f, 0.5f, 0.5f, &r, &g, &b, &a);
  EXPECT_NEAR(r, 1.0f, 1e-6f);
  EXPECT_EQ(a, 1.0f);
  filterBlendDispatch(f.store, 0, 0.5f, 0.5f, 0.5f, &r, &g, &b, &a);
  EXPECT_NEAR(r, 3.0f, 3e-6f);  // no mixing: the level above alone
  filterBlendDispatch(f.store, 0, 1e-6f, 0.5f, 0.5f, &r, &g, &b, &a);
  EXPECT_NEAR(r, 3.0f, 3e-6f);
}

TEST(UnitEntries, BilinearNeighbours) {
  OwnedStore s(4, 4, kKindRgbaFloat);
  fillLevel(s.store, 0, [](int32_t x, int32_t y, int c) { return c == 3 ? 1.0 : double(x + 4 * y); });
  float out[4];
  // u = 0.5 -> 4 * 0.5 - 0.5 = 1.5: pixels 1 and 2, fraction 0.5; v = 0.25 -> 0.5: rows 0 and 1.
  bilinearUnitPixel(0.5f, 0.25f, s.store, 0, out);
  EXPECT_EQ(out[0], 3.5f);
  EXPECT_EQ(out[3], 1.0f);
  // Outside the unit square the point is clamped back.
  bilinearUnitPixel(-3.0f, 0.25f, s.store, 0, out);
  float edge[4];
  bilinearUnitPixel(0.0f, 0.25f, s.store, 0, edge);
  EXPECT_EQ(out[0], edge[0]);
}

TEST(UnitEntries, EveryRoadAndTheLevelZeroBatchReadTheLaneRoadsBits) {
  // Each kernel road this build and processor can take, one point at a time
  // at blended levels and in the render's batches of level-0 reads, against
  // the lane road one point at a time, bit for bit, in every kind: points
  // across tile borders, on the edges and a little past them, rows of pixel
  // centres, and batches of odd sizes. Points run from 0 up, as the sampler's do: left of 0 a point
  // has no phase in the table.
  const int32_t kinds[] = {kKindRgba8, kKindRgba16, kKindRgbaFloat, kKindGray8, kKindFloat};
  for (int32_t kind : kinds) {
    OwnedStore s(700, 530, kind);
    ASSERT_NE(s.store, nullptr);
    fillRandom(s.store, 3);
    std::vector<float> us, vs;
    uint32_t state = 99;
    for (int i = 0; i < 3000; ++i) {
      state = state * 1664525u + 1013904223u;
      us.push_back(float(int32_t(state >> 8) % 10150) / 10000.0f);
      state = state * 1664525u + 1013904223u;
      vs.push_back(float(int32_t(state >> 8) % 10150) / 10000.0f);
    }
    for (float edge : {0.0f, 1.0f, 512.0f / 700.0f, 511.5f / 700.0f}) {
      us.push_back(edge);
      vs.push_back(edge * 0.9f);
    }
    // Rows of pixel centres, nudged as landing points are: runs of reads on
    // one phase pair, across the tile border at 512 and up to the right edge.
    for (int y : {0, 250, 527}) {
      for (int x = 470; x < 700; ++x) {
        us.push_back((float(x) + 0.513f) / 700.0f);
        vs.push_back((float(y) + 0.489f) / 530.0f);
      }
    }
    // Rows of landing points as a mirror gives them: going left, six tenths
    // of a pixel a step, so that base pixels stay or step back and the
    // horizontal phase changes on one row; on the second row the vertical
    // phase drifts too.
    for (int y : {3, 300}) {
      for (int k = 0; k < 300; ++k) {
        us.push_back((690.0f - 0.6f * float(k)) / 700.0f);
        vs.push_back((float(y) + 0.3f + (y == 3 ? 0.0f : 0.003f * float(k % 200))) / 530.0f);
      }
    }
    // Points three pixels apart on one row and phase pair: a run whose span
    // grew with them would outgrow its columns.
    for (int k = 0; k < 150; ++k) {
      us.push_back((float(5 + 3 * k) + 0.513f) / 700.0f);
      vs.push_back(100.489f / 530.0f);
    }
    const size_t n = us.size();
    s->kernelRoad = kKernelRoadLanes;
    std::vector<float> level0(n * 4), blended(n * 4);
    for (size_t i = 0; i < n; ++i) {
      filterUnitPixel(s.store, 0, 0.0f, us[i], vs[i], &level0[i * 4]);
      filterUnitPixel(s.store, int32_t(i % 3), 0.375f, us[i], vs[i], &blended[i * 4]);
    }
    for (KernelRoad road : {kKernelRoadLanes, kKernelRoadSse41}) {
      if (!kernelRoadRuns(road)) {
        printf("road %d skipped: not built here, or this processor cannot take it\n", int(road));
        continue;
      }
      s->kernelRoad = road;
      std::vector<float> batch(n * 4);
      // Batches of the sampler's 64 and of odd sizes, taking turns.
      for (size_t at = 0, turn = 0; at < n; ++turn) {
        const size_t size = turn % 2 == 0 ? 64 : 37;
        const int32_t count = int32_t(n - at < size ? n - at : size);
        filterUnitPixelsAtLevelZero(s.store, count, &us[at], &vs[at], reinterpret_cast<float(*)[4]>(&batch[at * 4]));
        at += size_t(count);
      }
      for (size_t i = 0; i < n; ++i) {
        float one[4];
        filterUnitPixel(s.store, int32_t(i % 3), 0.375f, us[i], vs[i], one);
        ASSERT_EQ(memcmp(one, &blended[i * 4], sizeof one), 0)
            << "blend, road " << road << ", kind " << kind << ", (" << us[i] << ", " << vs[i] << ")";
        ASSERT_EQ(memcmp(&level0[i * 4], &batch[i * 4], sizeof one), 0)
            << "batch, road " << road << ", kind " << kind << ", (" << us[i] << ", " << vs[i] << ")";
      }
    }
  }
}

// ---- small levels ----------------------------------------------------------------------------------------

// Levels of 1 to 4 pixels in either direction let the one-tile road read the
// tile's columns past the level and its spare rows. The memory must be there:
// the sanitizer build turns any read past it into a failure.
TEST(SmallLevels, EveryKindReadsCleanly) {
  const int32_t kinds[] = {kKindRgba8, kKindRgba16, kKindRgbaFloat, kKindGray8, kKindGray16, kKindFloat};
  const int32_t sizes[][2] = {{1, 1}, {2, 1}, {1, 2}, {3, 3}, {4, 4}, {4, 1}, {2, 4},
                              {1, 700}, {4, 600}, {700, 1}, {600, 4}, {5, 5}, {6, 3}};
  for (int32_t kind : kinds) {
    for (const auto& size : sizes) {
      OwnedStore s(size[0], size[1], kind);
      ASSERT_NE(s.store, nullptr);
      fillRandom(s.store, 1);
      for (int32_t level = -1; level <= s->topLevel + 1; ++level) {
        for (float frac : {0.0f, 0.5f}) {
          for (int iu = 0; iu <= 10; ++iu) {
            for (int iv = 0; iv <= 10; ++iv) {
              float out[4];
              filterUnitPixel(s.store, level, frac, float(iu) / 10.0f, float(iv) / 10.0f, out);
              for (int c = 0; c < 4; ++c) ASSERT_TRUE(isfinite(out[c]));
            }
          }
        }
      }
      for (int32_t level = 0; level <= s->topLevel; ++level) {
        const float w = float(s->levelWidth[level]);
        const float h = float(s->levelHeight[level]);
        float out[4];
        filterUnitPixelAt(s.store, level, 0.0f, w - 1.0f, h - 1.0f, out);
        bilinearUnitPixel(1.0f, 1.0f, s.store, level, out);
        for (int c = 0; c < 4; ++c) ASSERT_TRUE(isfinite(out[c]));
      }
    }
  }
}

// ---- the render's truncations -------------------------------------------------------------------------

TEST(Truncation, FastFormsAgreeWithTheHelperEverywhere) {
  // Toward zero; INT32_MIN for NaN, infinities and anything past the int32
  // range, whichever way the build computes it.
  const float floats[] = {0.0f, -0.0f, 0.5f, -0.5f, 0.99999994f, -0.99999994f, 1.0f, -1.0f, 2.5f, -2.5f,
                          8388607.5f, -8388607.5f, 2147483520.0f, -2147483648.0f, 2147483648.0f, -2147483904.0f,
                          3e38f, -3e38f, bitsToFloat(0x7f800000u), bitsToFloat(0xff800000u),
                          bitsToFloat(0x7fc00000u), bitsToFloat(0xffc00001u), bitsToFloat(1u)};
  for (float f : floats) EXPECT_EQ(truncFloat(f), truncToInt32(f)) << f;
  const double doubles[] = {0.0, -0.5, 127.99999999, -127.99999999, 2147483647.9, 2147483648.0, -2147483648.9,
                            -2147483649.0, 1e300, -1e300, double(bitsToFloat(0x7fc00000u))};
  for (double d : doubles) EXPECT_EQ(truncDouble(d), truncToInt32(d)) << d;
  // And a spread of bit patterns over the whole float range.
  uint32_t k = 7;
  for (int32_t i = 0; i < 200000; ++i) {
    k = k * 1664525u + 1013904223u;
    const float f = bitsToFloat(k);
    ASSERT_EQ(truncFloat(f), truncToInt32(f)) << k;
    ASSERT_EQ(truncDouble(double(f) * 128.0), truncToInt32(double(f) * 128.0)) << k;
  }
}

}  // namespace

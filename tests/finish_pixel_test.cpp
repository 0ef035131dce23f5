// The pixel finishing path on tiles of our own: alpha gain, spill, gray
// reduction, selection weighting and the tile reads it skips; the colour
// routines under it; and writeUnit on a host record of our own.
#include <gtest/gtest.h>
#include <math.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <vector>

#include "finish/finish_pixel.h"
#include "finish/host_pixels.h"
#include "grid/sample_grid.h"
#include "tests/support/test_support.h"
#include "tests/support/test_tile.h"
#include "host/blocks.h"
#include "host/host_record.h"
#include "host/plugin_main.h"
#include "run/band_render.h"
#include "run/job_pool.h"
#include "store/portable_math.h"

namespace {

using testing_support::TestTile;

// A page that faults on any access: an input tile that must not be read.
struct GuardPage {
  void* page;
  GuardPage() {
    page = mmap(nullptr, size_t(getpagesize()), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  }
  ~GuardPage() { munmap(page, size_t(getpagesize())); }
};

struct FinishFixture : testing_support::EngineFixture {
  void finish(TestTile& t, int32_t x, int32_t y, PixelValue sample) {
    finishPixel(x, y, &sample, t.cursor, nullptr);
  }
};

PixelValue spilled(PixelValue v, bool floatMath = false) {
  HostTileView view;
  memset(&view, 0, sizeof view);
  view.floatMath = floatMath;
  spillExcess(&v, view);
  return v;
}

void expectPixel(const PixelValue& v, float r, float g, float b, float a) {
  EXPECT_EQ(v.r, r);
  EXPECT_EQ(v.g, g);
  EXPECT_EQ(v.b, b);
  EXPECT_EQ(v.a, a);
}

}  // namespace

// ---- excess spill, mixing, compositing -------------------------------------------------------------

TEST(SpillExcess, WorkedPixels) {
  struct Case {
    PixelValue in, out;
    bool floatMath;
  };
  const Case cases[] = {
      // One channel over gives each other 0.0586 (15/256) of the excess.
      {{1.5f, 0.2f, 0.2f, 1.0f}, {1.5f, 0.25859374f, 0.25859374f, 1.0f}, false},
      {{0.2f, 1.5f, 0.2f, 0.5f}, {0.25859374f, 1.5f, 0.25859374f, 0.5f}, false},
      // Blue over: red and green each take 0.234375, and red, now over, hands
      // its excess on to green without giving any up.
      {{1.0f, 0.5f, 3.0f, 1.0f}, {1.234375f, 0.96875f, 3.0f, 1.0f}, false},
      // The cascade runs both ways; a channel exactly at 1 is not over.
      {{2.0f, 1.0f, 1.0f, 1.0f}, {2.0f, 1.3515625f, 1.234375f, 1.0f}, false},
      // Two over give the third 0.1875 (6/32) of their summed excess.
      {{1.2f, 1.2f, 0.5f, 1.0f}, {1.2f, 1.2f, 0.59375f, 1.0f}, false},
      {{1.5f, 0.25f, 1.25f, 1.0f}, {1.5f, 0.42578125f, 1.25f, 1.0f}, false},
      {{0.0f, 1.25f, 1.75f, 1.0f}, {0.234375f, 1.25f, 1.75f, 1.0f}, false},
      // None or all over, or float mode: nothing moves.
      {{1.5f, 1.5f, 1.5f, 1.0f}, {1.5f, 1.5f, 1.5f, 1.0f}, false},
      {{1.0f, 1.0f, 1.0f, 1.0f}, {1.0f, 1.0f, 1.0f, 1.0f}, false},
      {{0.3f, 0.6f, 0.9f, 0.1f}, {0.3f, 0.6f, 0.9f, 0.1f}, false},
      {{2.5f, 0.2f, 0.2f, 1.0f}, {2.5f, 0.2f, 0.2f, 1.0f}, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.in.r << " " << c.in.g << " " << c.in.b);
    expectPixel(spilled(c.in, c.floatMath), c.out.r, c.out.g, c.out.b, c.out.a);
  }
}

TEST(MixAlphaAware, WeighsColourByAlphaAndAlphaByT) {
  struct Case {
    PixelValue a, b;
    float t;
    PixelValue out;
  };
  const Case cases[] = {
      {{0.5f, 0.5f, 0.5f, 0.0f}, {0.25f, 0.75f, 1.0f, 0.8f}, 0.25f, {0.25f, 0.75f, 1.0f, 0.2f}},  // no leak
      {{0.9f, 0.1f, 0.3f, 0.0f}, {0.2f, 0.4f, 0.6f, 0.0f}, 0.5f, {0, 0, 0, 0}},
      {{0.9f, 0.1f, 0.3f, 1.0f}, {0.2f, 0.4f, 0.6f, 0.0f}, 1.0f, {0, 0, 0, 0}},  // only b weighs
      // Weights 0.5 and 0.25: b gives a third of the colour, half of the alpha step.
      {{1.0f, 0.0f, 0.0f, 1.0f}, {0.0f, 1.0f, 0.0f, 0.5f}, 0.5f, {0.6666667f, 0.33333334f, 0.0f, 0.75f}},
      {{1.0f, 0.0f, 0.0f, 1.0f}, {0.0f, 1.0f, 0.0f, 0.5f}, 0.0f, {1.0f, 0.0f, 0.0f, 1.0f}},
      // The weight of a is one double product, rounded once; two float
      // operations would give 0x1.325b86p-5.
      {{0.0f, 0.0f, 0.0f, 0.13f}, {1.0f, 1.0f, 1.0f, 0.5f}, 0.01f, {0x1.325b88p-5f, 0x1.325b88p-5f, 0x1.325b88p-5f, 0.1337f}},
  };
  for (const Case& c : cases) {
    PixelValue out;
    mixAlphaAware(&out, &c.a, &c.b, c.t);
    EXPECT_FLOAT_EQ(out.r, c.out.r) << c.t;
    EXPECT_EQ(out.g, c.out.g) << c.t;
    EXPECT_FLOAT_EQ(out.b, c.out.b) << c.t;
    if (c.t == 0.01f) {
      EXPECT_EQ(out.r, c.out.r);  // exact bits
    } else {
      EXPECT_EQ(out.a, c.out.a) << c.t;
    }
  }
  // The result may land on an operand.
  PixelValue into = cases[3].a;
  mixAlphaAware(&into, &into, &cases[3].b, 0.5f);
  EXPECT_EQ(into.g, 0.33333334f);
  EXPECT_EQ(into.a, 0.75f);
}

// ---- alpha gain ------------------------------------------------------------------------------------

TEST_F(FinishFixture, AlphaGainAtEightBitsRaisesFrom143Up) {
  // Alpha b/255 both as divided and as read through the colour factor.
  TestTile t(8, 4, VRect{0, 0, 2, 256});
  for (int32_t b = 0; b < 256; ++b) {
    finish(t, b, 0, {0.5f, 0.5f, 0.5f, float(b) / 255.0f});
    finish(t, b, 1, {0.5f, 0.5f, 0.5f, float(b) * t.view().invColourScale});
  }
  for (int32_t b = 0; b < 256; ++b) {
    int32_t expected = b <= 142 ? b : b == 255 ? 255 : b + 1;
    EXPECT_EQ(t.out8(b, 0)[3], expected) << b;
    EXPECT_EQ(t.out8(b, 1)[3], expected) << b;
    EXPECT_EQ(t.out8(b, 0)[0], 127) << b;
  }
  // Almost opaque becomes opaque from exactly this alpha on.
  finish(t, 0, 0, {0.5f, 0.5f, 0.5f, 0.99304867f});
  finish(t, 1, 0, {0.5f, 0.5f, 0.5f, nextafterf(0.99304867f, 0.0f)});
  EXPECT_EQ(t.out8(0, 0)[3], 255);
  EXPECT_EQ(t.out8(1, 0)[3], 254);
}

TEST_F(FinishFixture, AlphaGainAtSixteenBitsSaturatesFrom32541) {
  TestTile t(16, 4, VRect{0, 0, 1, 400});
  for (int32_t i = 0; i < 400; ++i) finish(t, i, 0, {0.5f, 0.5f, 0.5f, float(32369 + i) / 32768.0f});
  for (int32_t i = 0; i < 400; ++i) {
    int32_t k = 32369 + i;
    if (k >= 32541) {
      EXPECT_EQ(t.out16(i, 0)[3], 32768) << k;
    } else {
      EXPECT_LT(t.out16(i, 0)[3], 32768) << k;
      EXPECT_GT(t.out16(i, 0)[3], k) << k;
    }
  }
}

// ---- colours ----------------------------------------------------------------------------------------

TEST_F(FinishFixture, GrayWeightsLoseALevelOnExactlyTheseValues) {
  // Each level as the engine reads an 8-bit sample: b times the colour factor.
  TestTile t(8, 2, VRect{0, 0, 1, 256});
  for (int32_t b = 0; b < 256; ++b) {
    float v = float(b) * t.view().invColourScale;
    finish(t, b, 0, {v, v, v, 1.0f});
  }
  std::vector<int32_t> lower;
  for (int32_t b = 0; b < 256; ++b) {
    int32_t stored = t.out8(b, 0)[0];
    ASSERT_TRUE(stored == b || stored == b - 1) << b << " stored as " << stored;
    if (stored == b - 1) lower.push_back(b);
    EXPECT_EQ(t.out8(b, 0)[1], 255);
  }
  const std::vector<int32_t> expected = {17,  23,  33,  34,  37,  46,  66,  68,  74,  79,  83,  87,
                                         92,  132, 136, 148, 149, 158, 166, 171, 174, 175, 184};
  EXPECT_EQ(lower, expected);
}

// One 8-bit pixel finished over an input pixel, under a selection byte.
TEST_F(FinishFixture, WorkedEightBitPixels) {
  struct Case {
    const char* what;
    int16_t planes;
    bool grayMode, transparency;
    int32_t mask;  // -1: no selection
    uint8_t in[4];
    PixelValue sample;
    uint8_t out[4];
  };
  const Case cases[] = {
      {"gray by planes, not by image mode: 0.3 of red", 2, false, true, -1, {}, {1, 0, 0, 1}, {76, 255}},
      {"colour by planes", 4, true, true, -1, {}, {1, 0, 0, 1}, {255, 0, 0, 255}},
      {"clamped after the spill", 4, false, true, -1, {}, {1.5f, 0.2f, 0.2f, 1}, {255, 65, 65, 255}},
      // Green's excess gives red and blue 0.1171875 each, and blue, now
      // over, hands its own on to red: 0.234375.
      {"spill cascade", 4, false, true, -1, {}, {-0.5f, 2, 1, 1}, {59, 255, 255, 255}},
      {"negative alpha", 4, false, true, -1, {}, {0.5f, 0.5f, 0.5f, -1}, {127, 127, 127, 0}},
      {"zero sample", 4, false, true, -1, {0x77, 0x77, 0x77, 0x77}, {0, 0, 0, 0}, {0, 0, 0, 0}},
      // 0.5 x 1.007, not combined with the input's alpha.
      {"partial alpha replaces the input", 4, false, true, -1, {10, 20, 30, 255}, {1, 0, 0, 0.5f}, {255, 0, 0, 128}},
      // Over an empty input white falls short of full scale, alpha included;
      // over a red one a trace of the red shows through.
      {"mask 254 over nothing", 4, false, true, 254, {}, {1, 1, 1, 1}, {253, 253, 253, 253}},
      {"mask 254 over red", 4, false, true, 254, {255, 0, 0, 255}, {0, 0, 0, 1}, {1, 0, 0, 255}},
      {"half selection mixes alpha too", 4, false, true, 128, {}, {1, 1, 1, 1}, {127, 127, 127, 127}},
      // Without transparency a partial result is laid over the input.
      {"over blue", 3, false, false, -1, {0, 0, 255}, {1, 0, 0, 0.5f}, {128, 0, 126}},
      {"nothing over", 3, false, false, -1, {40, 0, 0}, {1, 1, 1, 0}, {40, 0, 0}},
  };
  for (const Case& c : cases) {
    TestTile t(8, c.planes, VRect{0, 0, 1, 1}, c.transparency);
    t.view().isGrayMode = c.grayMode;
    t.view().isRgbMode = !c.grayMode;
    if (c.mask >= 0) t.useMask(uint8_t(c.mask));
    memcpy(t.in8(0, 0), c.in, size_t(c.planes));
    finish(t, 0, 0, c.sample);
    for (int p = 0; p < c.planes; ++p) EXPECT_EQ(t.out8(0, 0)[p], c.out[p]) << c.what << ", plane " << p;
  }
}

// ---- float mode -------------------------------------------------------------------------------------

TEST_F(FinishFixture, FloatModeHasNoGainNoSpillAndAFloatCeiling) {
  TestTile t(32, 4, VRect{0, 0, 1, 3});
  finish(t, 0, 0, {2.5f, 70000.0f, -3.0f, 0.5f});
  finish(t, 1, 0, {2.5f, 0.2f, 0.2f, 0.99f});
  finish(t, 2, 0, {0.0f, 0.0f, 0.0f, 1.5f});
  const float* a = t.outF(0, 0);
  EXPECT_TRUE(a[0] == 2.5f && a[1] == 65535.0f && a[2] == 0.0f && a[3] == 0.5f);
  const float* b = t.outF(1, 0);
  EXPECT_TRUE(b[1] == 0.2f && b[2] == 0.2f && b[3] == 0.99f);
  EXPECT_EQ(t.outF(2, 0)[3], 1.0f);
  // Gray, and the selection mixes: coverage 0 gives back the input.
  TestTile g(32, 2, VRect{0, 0, 1, 2});
  g.useMask(0);
  g.mask[1] = 255;
  float* in = reinterpret_cast<float*>(g.in.data());
  in[0] = 3.0f;
  in[1] = 0.25f;
  finish(g, 0, 0, {9.0f, 9.0f, 9.0f, 1.0f});
  finish(g, 1, 0, {2.0f, 1.0f, 0.5f, 1.0f});
  EXPECT_EQ(g.outF(0, 0)[0], 3.0f);
  EXPECT_EQ(g.outF(0, 0)[1], 0.25f);
  EXPECT_FLOAT_EQ(g.outF(1, 0)[0], 1.245f);
  EXPECT_EQ(g.outF(1, 0)[1], 1.0f);
}

// ---- selection --------------------------------------------------------------------------------------

TEST_F(FinishFixture, CoverageZeroGivesBackEveryValue) {
  for (int32_t bits : {8, 16}) {
    const int32_t rows = bits == 8 ? 2 : 128, cols = bits == 8 ? 256 : 257, full = bits == 8 ? 255 : 32768;
    TestTile t(bits, 4, VRect{0, 0, rows, cols});
    t.useMask(0);
    for (int32_t dy = 0; dy < rows; ++dy)
      for (int32_t dx = 0; dx < cols; ++dx) {
        const int32_t v = std::min(dy * cols + dx, full);
        const int32_t samples[4] = {v, full - v, (v * 37) % (full + 1), (v + 128 * dy) % (full + 1)};
        for (int c = 0; c < 4; ++c) {
          if (bits == 8) t.in8(dx, dy)[c] = uint8_t(samples[c]);
          else t.in16(dx, dy)[c] = uint16_t(samples[c]);
        }
      }
    for (int32_t y = 0; y < rows; ++y)
      for (int32_t x = 0; x < cols; ++x) finish(t, x, y, {3.0f, -1.0f, 0.5f, 0.3f});
    EXPECT_EQ(t.out, t.in) << bits;
  }
}

TEST_F(FinishFixture, OpaqueFullySelectedPixelsNeverReadTheInput) {
  GuardPage guard;
  TestTile m(8, 4, VRect{0, 0, 1, 1});
  m.useMask(255);  // a full mask byte counts as whole
  m.view().inData = guard.page;
  finish(m, 0, 0, {0.5f, 0.25f, 1.0f, 1.0f});
  EXPECT_EQ(m.out8(0, 0)[1], 63);
  EXPECT_EQ(m.out8(0, 0)[3], 255);
  TestTile t(16, 4, VRect{0, 0, 4, 4});
  t.view().inData = guard.page;
  for (int32_t y = 0; y < 4; ++y)
    for (int32_t x = 0; x < 4; ++x) finish(t, x, y, {0.25f, 0.5f, 0.75f, 1.0f});
  EXPECT_EQ(t.out16(3, 3)[0], 8192);
  EXPECT_EQ(t.out16(3, 3)[3], 32768);
  // The self-masking host weighs the selection itself: its mask is not read either.
  t.useMask(0);
  t.view().hostSig = 0x41666650;
  finish(t, 0, 0, {0.25f, 0.5f, 0.75f, 1.0f});
  // No input tile at all is just as good.
  t.view().inData = nullptr;
  t.view().hostSig = 0x3842494D;
  t.view().haveMask = false;
  finish(t, 1, 1, {0.25f, 0.5f, 0.75f, 0.5f});
  EXPECT_EQ(t.out16(1, 1)[3], 16498);  // trunc(32768 x 0.5035)
}

TEST_F(FinishFixture, DisplayStageShowsACheckerboardBehind) {
  params.runStage = 1;
  TestTile t(8, 4, VRect{0, 0, 16, 16});
  std::vector<uint8_t> planar(size_t(16 * 16 * 3), 7);
  PreviewBuffer preview = {planar.data(), 16, 16, 256, 3};
  for (int32_t y = 0; y < 16; ++y)
    for (int32_t x = 0; x < 16; ++x) {
      PixelValue clear = {0.0f, 0.0f, 0.0f, 0.0f};
      finishPixel(x, y, &clear, t.cursor, &preview);
    }
  EXPECT_EQ(planar[0], 255);
  EXPECT_EQ(planar[8], 204);  // 0.8 where (x ^ y) & 8
  EXPECT_EQ(planar[8 * 16], 204);
  EXPECT_EQ(planar[8 * 16 + 8], 255);
  EXPECT_EQ(planar[256 + 8 * 16 + 15], 255);
  PixelValue black = {0.0f, 0.0f, 0.0f, 1.0f};
  finishPixel(8, 0, &black, t.cursor, &preview);
  EXPECT_EQ(planar[8], 0);
  // Unselected, the checkerboard shows and not the input.
  t.useMask(0);
  t.in8(9, 0)[0] = 100;
  finishPixel(9, 0, &black, t.cursor, &preview);
  EXPECT_EQ(planar[9], 204);
  for (uint8_t b : t.out) EXPECT_EQ(b, 0);
}

// ---- writeUnit on a host record of our own ------------------------------------------------------------

namespace {

struct WriteUnitFixture : testing_support::EngineFixture {
  JobUnit unit;
  SampleGrid grid;
  std::vector<SampleCell> cells;
  std::vector<uint8_t> in;
  std::vector<uint8_t> out;
  std::vector<uint8_t> mask;
  static constexpr int32_t kRowBytes = 40;  // up to 10 RGBA pixels a row

  void SetUp() override {
    EngineFixture::SetUp();
    memset(&unit, 0, sizeof unit);
    memset(&grid, 0, sizeof grid);
    // The unit: columns 3 to 6, rows 2 and 3 of the run rectangle.
    unit.kind = kJobRender;
    unit.cursor.unitRect = VRect{2, 3, 4, 7};
    unit.cursor.gridCols = 6;
    unit.cursor.gridRows = 4;
    cells.assign(24, SampleCell());
    memset(cells.data(), 0, cells.size() * sizeof(SampleCell));
    // The cell of point (x, y) carries (x / 16, y / 16, 0.5, 1).
    for (int32_t row = 0; row < 4; ++row)
      for (int32_t col = 0; col < 6; ++col) {
        SampleCell& c = cells[size_t(row * 6 + col)];
        c.colour[0] = float(col - 1 + 3) / 16.0f;
        c.colour[1] = float(row - 1 + 2) / 16.0f;
        c.colour[2] = 0.5f;
        c.colour[3] = 1.0f;
      }
    grid.cells = cells.data();
    grid.workUnit = &unit;
    unit.grids = &grid;
    unit.gridCount = 1;

    in.assign(size_t(kRowBytes * 2), 9);
    out.assign(size_t(kRowBytes * 2), 0xEE);
    mask.assign(size_t(2 * 4), 0);
    record.filterCase = filterCaseEditableTransparencyWithSelection;
    record.imageMode = plugInModeRGBColor;
    record.depth = 8;
    record.planes = 4;
    record.inLoPlane = 0;
    record.inHiPlane = 3;
    record.inLayerPlanes = 3;
    record.outLayerPlanes = 3;
    record.inData = in.data();
    record.outData = out.data();
    record.inRowBytes = kRowBytes;
    record.outRowBytes = kRowBytes;
    // The host's tile at an offset of its own (a floating layer).
    record.outRect = PIRect{12, 13, 14, 17};
    record.inRect = record.outRect;
    record.maskRect = record.outRect;
    record.haveMask = 1;
    record.maskData = mask.data();
    record.maskRowBytes = 4;
    record.hostSig = 0x3842494D;
    record.autoMask = 1;
  }
  const uint8_t* outPixel(int32_t dx, int32_t dy) const { return out.data() + dy * kRowBytes + dx * 4; }
};

}  // namespace

TEST_F(WriteUnitFixture, EachPixelTakesTheColourOfItsLowerRightCorner) {
  std::fill(mask.begin(), mask.end(), uint8_t(255));
  writeUnit(&unit);
  EXPECT_EQ(record.autoMask, 0);
  const uint8_t red[] = {47, 63, 79, 95};  // trunc(x / 16 x 255) for x = 3..6
  const uint8_t green[] = {31, 47};        // y = 2, 3
  for (int32_t dy = 0; dy < 2; ++dy)
    for (int32_t dx = 0; dx < 4; ++dx) {
      const uint8_t* p = outPixel(dx, dy);
      EXPECT_EQ(p[0], red[dx]) << dx << " " << dy;
      EXPECT_EQ(p[1], green[dy]) << dx << " " << dy;
      EXPECT_EQ(p[2], 127);
      EXPECT_EQ(p[3], 255);
    }
  EXPECT_EQ(outPixel(4, 0)[0], 0xEE);  // past the unit's width
}

TEST_F(WriteUnitFixture, UnselectedPixelsKeepTheInputUnlessTheHostMasksItself) {
  mask[1] = 255;  // only pixel (4, 2) is selected
  writeUnit(&unit);
  EXPECT_EQ(outPixel(0, 0)[0], 9);
  EXPECT_EQ(outPixel(1, 0)[0], 63);
  EXPECT_EQ(outPixel(3, 1)[3], 9);
  record.hostSig = 0x41666650;  // 'AffP'
  record.autoMask = 0;
  writeUnit(&unit);
  EXPECT_EQ(record.autoMask, 1);
  EXPECT_EQ(outPixel(0, 0)[0], 47);
  EXPECT_EQ(outPixel(3, 1)[1], 47);
}

// ---- rows: finishRow against finishPixel pixel by pixel ---------------------------------------------

namespace {

// A sample drawn from the values that matter to the finishing path: ordinary
// colours, colours past 1 (the spill) and below 0, alpha near the gain's
// threshold and outside 0..1, exact 0 and 1, and a few NaN, infinite and
// denormal values.
float drawValue(uint32_t h, bool alpha) {
  switch (h % 16) {
    case 0: return 0.0f;
    case 1: return 1.0f;
    case 2: return 1.0f + float(h >> 8 & 255) / 512.0f;   // past full scale
    case 3: return -float(h >> 8 & 255) / 1024.0f;        // below zero
    case 4: return alpha ? 0.99f + float(h >> 8 & 255) / 12800.0f : 2.5f;
    case 5: return h & 0x100 ? bitsToFloat(0x7fc00000u) : bitsToFloat(0xffc00001u);  // NaN
    case 6: return h & 0x100 ? bitsToFloat(0x7f800000u) : -bitsToFloat(0x7f800000u);
    case 7: return bitsToFloat(0x00000005u);  // denormal
    case 8: return 70000.0f;
    default: return float(h >> 8 & 0xffff) / 65535.0f;
  }
}

uint32_t mixBits(uint32_t x) {
  x ^= x >> 16;
  x *= 0x7feb352du;
  x ^= x >> 15;
  x *= 0x846ca68bu;
  x ^= x >> 16;
  return x;
}

// The same tile twice, one finished by finishRow, the other by finishPixel.
void expectRowsMatchPixels(int32_t bits, int16_t planes, bool transparency, int32_t maskMode, int32_t limits,
                           uint32_t seed) {
  const VRect unit{5, 7, 5 + 9, 7 + 13};  // 13 wide, 9 high
  TestTile a(bits, planes, unit, transparency);
  TestTile b(bits, planes, unit, transparency);
  for (TestTile* t : {&a, &b}) {
    // The same input, mask and stale output in both.
    for (size_t i = 0; i < t->in.size(); ++i) t->in[i] = uint8_t(mixBits(seed + uint32_t(i)));
    if (bits == 32) {
      // Float input samples: values in 0..1 and some past 1.
      float* f = reinterpret_cast<float*>(t->in.data());
      for (size_t i = 0; i < t->in.size() / 4; ++i) f[i] = float(mixBits(seed * 7 + uint32_t(i)) % 3000) / 2000.0f;
    }
    for (size_t i = 0; i < t->mask.size(); ++i) {
      uint32_t h = mixBits(seed * 3 + uint32_t(i));
      t->mask[i] = uint8_t(h % 3 == 0 ? 255 : h % 3 == 1 ? 0 : h >> 8);
    }
    std::fill(t->out.begin(), t->out.end(), uint8_t(0x5A));
    HostTileView& v = t->view();
    v.haveMask = maskMode != 0;
    if (maskMode == 2) v.hostSig = kSelfMaskingHostSig;
    if (limits & 1) v.inRect[3] = v.inRect[1] + 8;       // input narrower than the unit
    if (limits & 2) v.maskRect[2] = v.maskRect[0] + 5;   // mask shorter
    if (limits & 4) v.outRect[3] = v.outRect[1] + 10;    // output narrower: rows fall back
    if (limits & 8) v.inData = nullptr;
  }
  // Colours as a unit's cells hold them: 18 words apart.
  const int32_t width = unit.right - unit.left;
  std::vector<SampleCell> cells(size_t(width) * 11);
  memset(cells.data(), 0, cells.size() * sizeof(SampleCell));
  for (size_t i = 0; i < cells.size(); ++i)
    for (int c = 0; c < 4; ++c) cells[i].colour[c] = drawValue(mixBits(seed * 5 + uint32_t(i * 4 + c)), c == 3);

  // Rows of the unit, and two rows outside it that finishPixel drops.
  for (int32_t y = unit.top - 1; y <= unit.bottom; ++y) {
    const SampleCell* row = &cells[size_t(y - unit.top + 1) * size_t(width)];
    finishRow(y, unit.left, unit.right, row->colour, ptrdiff_t(sizeof(SampleCell)), a.cursor, nullptr);
    for (int32_t x = unit.left; x < unit.right; ++x) {
      const SampleCell& c = row[x - unit.left];
      PixelValue sample = {c.colour[0], c.colour[1], c.colour[2], c.colour[3]};
      finishPixel(x, y, &sample, b.cursor, nullptr);
    }
  }
  // A row that starts left of the unit, and one without colours.
  finishRow(unit.top + 1, unit.left - 2, unit.right, cells[0].colour, ptrdiff_t(sizeof(SampleCell)), a.cursor,
            nullptr);
  for (int32_t x = unit.left - 2; x < unit.right; ++x) {
    const SampleCell& c = cells[size_t(x - (unit.left - 2))];
    PixelValue sample = {c.colour[0], c.colour[1], c.colour[2], c.colour[3]};
    finishPixel(x, unit.top + 1, &sample, b.cursor, nullptr);
  }
  finishRow(unit.top + 2, unit.left, unit.right, nullptr, 0, a.cursor, nullptr);
  for (int32_t x = unit.left; x < unit.right; ++x) {
    PixelValue zero = {0.0f, 0.0f, 0.0f, 0.0f};
    finishPixel(x, unit.top + 2, &zero, b.cursor, nullptr);
  }
  ASSERT_EQ(a.out.size(), b.out.size());
  for (size_t i = 0; i < a.out.size(); ++i) {
    ASSERT_EQ(a.out[i], b.out[i]) << "byte " << i << " bits " << bits << " planes " << planes << " transparency "
                                  << transparency << " mask " << maskMode << " limits " << limits;
  }
}

}  // namespace

// Every depth and layout, then a host that delivered less than the unit, then
// the switches that take the pixel-by-pixel road inside finishRow: another
// blend mode, and the partial stage.
TEST_F(FinishFixture, RowsMatchPixelByPixel) {
  uint32_t seed = 1;
  for (int32_t bits : {8, 16, 32})
    for (int16_t planes : {1, 2, 3, 4})
      for (bool transparency : {true, false}) {
        if (transparency && planes == 1) continue;  // alpha needs a plane of its own
        for (int32_t maskMode : {0, 1, 2}) expectRowsMatchPixels(bits, planes, transparency, maskMode, 0, seed++);
      }
  for (int32_t bits : {8, 16, 32})
    for (int32_t limits = 1; limits < 16; ++limits) expectRowsMatchPixels(bits, 4, true, 1, limits, seed++);
  params.blendMode = 2;
  expectRowsMatchPixels(8, 4, true, 1, 0, seed++);
  params.blendMode = 1;
  params.runStage = 2;
  expectRowsMatchPixels(16, 4, true, 1, 0, seed++);
}

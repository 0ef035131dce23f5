// The host pixel conversion on tiles of our own: exact round trips at 8 and
// 16 bits, the stored values of a few floats, the selection's weights, and
// the bounds of every read and write.
#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <vector>

#include "finish/host_pixels.h"
#include "tests/support/test_support.h"
#include "tests/support/test_tile.h"
#include "host/blocks.h"
#include "host/plugin_main.h"
#include "store/portable_math.h"

namespace {

using testing_support::TestTile;

using HostPixels = testing_support::EngineFixture;

// The value stored for one float alone, through a 1 by 1 RGBA tile.
uint8_t stored8(float c) {
  TestTile t(8, 4, VRect{0, 0, 1, 1});
  writeHostPixel(0, 0, PixelValue{c, c, c, c}, t.cursor, nullptr);
  return t.out8(0, 0)[0];
}
uint16_t stored16(float c) {
  TestTile t(16, 4, VRect{0, 0, 1, 1});
  writeHostPixel(0, 0, PixelValue{c, c, c, c}, t.cursor, nullptr);
  return t.out16(0, 0)[0];
}

}  // namespace

// ---- exact round trips -------------------------------------------------------------------

// Every 8-bit value in RGBA away from the origin, every 16-bit one in gray
// and alpha.
TEST_F(HostPixels, EveryValueSurvivesReadAndWrite) {
  for (int32_t bits : {8, 16}) {
    const int32_t full = bits == 8 ? 255 : 32768, rows = bits == 8 ? 2 : 128, cols = bits == 8 ? 256 : 257;
    const int16_t planes = bits == 8 ? 4 : 2;
    TestTile t(bits, planes, VRect{5, 300, 5 + rows, 300 + cols});
    for (int32_t dy = 0; dy < rows; ++dy)
      for (int32_t dx = 0; dx < cols; ++dx) {
        const int32_t v = std::min(dy * cols + dx, full);
        const int32_t samples[4] = {v, full - v, (v * 7 + dy) % (full + 1), (v + 128 * dy) % (full + 1)};
        for (int c = 0; c < planes; ++c) {
          if (bits == 8) t.in8(dx, dy)[c] = uint8_t(samples[c]);
          else t.in16(dx, dy)[c] = uint16_t(samples[c]);
        }
      }
    for (int32_t y = t.top(); y < t.top() + rows; ++y)
      for (int32_t x = t.left(); x < t.left() + cols; ++x)
        writeHostPixel(x, y, readHostPixel(x, y, t.cursor), t.cursor, nullptr);
    EXPECT_EQ(t.out, t.in) << bits;
  }
}

TEST_F(HostPixels, ReadFactorsAreTheCorrectlyRoundedReciprocals) {
  TestTile t8(8, 4, VRect{0, 0, 1, 1});
  TestTile t16(16, 4, VRect{0, 0, 1, 1});
  EXPECT_EQ(floatBits(t8.view().invColourScale), 0x3B808081u);
  EXPECT_EQ(floatBits(kMaskByteScale), 0x3B808080u);
  t8.in8(0, 0)[0] = 1;
  t16.in16(0, 0)[0] = 32768;
  t16.in16(0, 0)[3] = 16384;
  EXPECT_EQ(floatBits(readHostPixel(0, 0, t8.cursor).r), 0x3B808081u);
  EXPECT_EQ(readHostPixel(0, 0, t16.cursor).r, 1.0f);
  EXPECT_EQ(readHostPixel(0, 0, t16.cursor).a, 0.5f);
  // The mask's factor would lose a level on every value but 0.
  for (int32_t b = 1; b < 256; ++b) EXPECT_EQ(truncToInt32(float(b) * kMaskByteScale * 255.0f), b - 1) << b;
}

// ---- stored values ----------------------------------------------------------------------------

TEST_F(HostPixels, StoredValuesTruncateAfterOneMultiplication) {
  const struct {
    float value;
    int32_t eight, sixteen;
  } cases[] = {{1.0f, 255, 32768}, {0.5f, 127, 16384}, {0.99999994f, 254, 32767}, {0.0f, 0, 0}};
  for (const auto& c : cases) {
    EXPECT_EQ(stored8(c.value), c.eight) << c.value;
    EXPECT_EQ(stored16(c.value), c.sixteen) << c.value;
  }

  TestTile t(32, 4, VRect{0, 0, 1, 1});
  writeHostPixel(0, 0, PixelValue{1.0f, 2.5f, 65535.0f, 0.25f}, t.cursor, nullptr);
  EXPECT_EQ(std::vector<float>(t.outF(0, 0), t.outF(0, 0) + 4), (std::vector<float>{1.0f, 2.5f, 65535.0f, 0.25f}));
}

// ---- planes --------------------------------------------------------------------------------------

TEST_F(HostPixels, GrayTileReadsPlaneZeroIntoAllThreeAndWritesGreen) {
  TestTile t(8, 2, VRect{0, 0, 2, 2});
  EXPECT_EQ(t.view().inLayerPlanes, 1);
  t.in8(1, 1)[0] = 51;
  t.in8(1, 1)[1] = 102;
  PixelValue v = readHostPixel(1, 1, t.cursor);
  EXPECT_EQ(v.r, v.g);
  EXPECT_EQ(v.b, v.g);
  EXPECT_EQ(truncToInt32(v.g * 255.0f), 51);
  EXPECT_EQ(truncToInt32(v.a * 255.0f), 102);

  writeHostPixel(0, 1, PixelValue{0.2f, 0.6f, 1.0f, 0.4f}, t.cursor, nullptr);
  EXPECT_EQ(t.out8(0, 1)[0], 153);  // trunc(0.6 x 255), from green alone
  EXPECT_EQ(t.out8(0, 1)[1], 102);  // trunc(255 x 0.4)
  EXPECT_EQ(t.out8(1, 1)[0], 0);    // its neighbour untouched
  EXPECT_EQ(t.out8(0, 0)[0], 0);
}

TEST_F(HostPixels, InputStrideFollowsThePlaneSpanAndAlphaPlaneTheLayerPlanes) {
  // Five samples a pixel (a spare plane behind alpha) on the input side only.
  TestTile t(8, 4, VRect{0, 0, 1, 3});
  HostTileView& v = t.view();
  v.inHiPlane = 4;
  std::vector<uint8_t> wide(size_t(15), 0);
  wide[10] = 10;  // pixel 2, plane 0
  wide[11] = 20;
  wide[12] = 30;
  wide[13] = 40;  // alpha at inLayerPlanes = 3
  wide[14] = 99;
  v.inData = wide.data();
  PixelValue p = readHostPixel(2, 0, t.cursor);
  const float unit = t.view().invColourScale;
  EXPECT_EQ((std::vector<float>{p.r, p.g, p.b, p.a}), (std::vector<float>{10 * unit, 20 * unit, 30 * unit, 40 * unit}));
}

TEST_F(HostPixels, WithoutTransparencyAlphaReadsOneAndIsNotWritten) {
  TestTile t(16, 3, VRect{0, 0, 1, 2}, false);
  t.in16(1, 0)[0] = 32768;
  PixelValue p = readHostPixel(1, 0, t.cursor);
  EXPECT_EQ(p.r, 1.0f);
  EXPECT_EQ(p.a, 1.0f);
  // Three planes a pixel: the alpha would land on the next pixel's red.
  writeHostPixel(0, 0, PixelValue{0.5f, 0.25f, 0.125f, 0.75f}, t.cursor, nullptr);
  EXPECT_EQ(std::vector<uint16_t>(t.out16(0, 0), t.out16(0, 0) + 4), (std::vector<uint16_t>{16384, 8192, 4096, 0}));
}

TEST_F(HostPixels, RowStepIsBytesShiftedByTheDepth) {
  for (int32_t bits : {8, 16, 32}) {
    TestTile t(bits, 4, VRect{10, 20, 13, 22});
    PixelValue v = {1.0f, 1.0f, 1.0f, 1.0f};
    writeHostPixel(21, 12, v, t.cursor, nullptr);
    // Exactly one pixel changed, at column 1 of row 2.
    size_t pixelBytes = size_t(4 * bits / 8);
    size_t at = size_t(2) * size_t(t.rowBytes) + pixelBytes;
    for (size_t i = 0; i < t.out.size(); ++i) {
      bool inside = i >= at && i < at + pixelBytes;
      if (!inside) {
        ASSERT_EQ(t.out[i], 0) << bits << " byte " << i;
      }
    }
    memcpy(t.in.data(), t.out.data(), t.in.size());
    PixelValue back = readHostPixel(21, 12, t.cursor);
    EXPECT_EQ(back.r, 1.0f) << bits;
    EXPECT_EQ(back.a, 1.0f) << bits;
    EXPECT_EQ(readHostPixel(21, 11, t.cursor).r, 0.0f) << bits;
  }
}

TEST_F(HostPixels, WithoutTheRowModeTheRowStepIsLeftOut) {
  TestTile t(8, 4, VRect{0, 0, 3, 2});
  t.in8(1, 0)[0] = 255;
  writeHostPixel(1, 2, PixelValue{1.0f, 0.0f, 0.0f, 1.0f}, t.cursor, nullptr, 0);
  EXPECT_EQ(t.out8(1, 0)[0], 255);
  EXPECT_EQ(t.out8(1, 2)[0], 0);
  EXPECT_EQ(readHostPixel(1, 2, t.cursor, 0).r, 1.0f);
}

// ---- selection --------------------------------------------------------------------------------

TEST_F(HostPixels, MaskBytesWeighJustShortOfWhole) {
  TestTile t(8, 4, VRect{4, 8, 6, 12});
  t.view().haveMask = true;
  t.maskAt(0, 0) = 255;
  t.maskAt(1, 0) = 254;
  t.maskAt(2, 0) = 0;
  t.maskAt(3, 1) = 128;
  EXPECT_EQ(selectionCoverage(8, 4, t.cursor), 0.99999994f);
  EXPECT_EQ(floatBits(selectionCoverage(8, 4, t.cursor)), 0x3F7FFFFFu);
  EXPECT_EQ(selectionCoverage(9, 4, t.cursor), 0.99607837f);
  EXPECT_EQ(selectionCoverage(10, 4, t.cursor), 0.0f);
  EXPECT_EQ(selectionCoverage(11, 5, t.cursor), 128.0f * 0.0039215684f);
  EXPECT_EQ(selectionCoverage(11, 4, t.cursor), 0.0f);  // the mask's own row step
}

TEST_F(HostPixels, NoMaskOrTheSelfMaskingHostMeansWhole) {
  TestTile t(8, 4, VRect{0, 0, 2, 2});
  HostTileView& v = t.view();
  v.haveMask = false;
  EXPECT_EQ(selectionCoverage(0, 0, t.cursor), 1.0f);
  v.haveMask = true;
  EXPECT_EQ(selectionCoverage(0, 0, t.cursor), 0.0f);
  v.hostSig = 0x41666650;  // 'AffP'
  EXPECT_EQ(selectionCoverage(0, 0, t.cursor), 1.0f);
  v.hostSig = 0x3842494D;
  v.maskData = nullptr;
  EXPECT_EQ(selectionCoverage(0, 0, t.cursor), 1.0f);
}

// ---- bounds and null buffers -------------------------------------------------------------------------

// Outside the unit a write is dropped, a read gives zero, a mask weighs
// nothing and no mask weighs whole.
TEST_F(HostPixels, PixelsOutsideTheUnitAreDroppedAndReadAsZero) {
  TestTile t(8, 4, VRect{4, 8, 6, 12});
  std::fill(t.in.begin(), t.in.end(), uint8_t(200));
  std::fill(t.mask.begin(), t.mask.end(), uint8_t(255));
  const int32_t outside[][2] = {{7, 4}, {12, 4}, {8, 3}, {8, 6}, {-2147483640, 4}, {8, 2147483647}};
  for (const auto& p : outside) {
    writeHostPixel(p[0], p[1], PixelValue{1.0f, 1.0f, 1.0f, 1.0f}, t.cursor, nullptr);
    PixelValue v = readHostPixel(p[0], p[1], t.cursor);
    EXPECT_EQ(v.r, 0.0f);
    EXPECT_EQ(v.a, 0.0f);
    EXPECT_EQ(selectionCoverage(p[0], p[1], t.cursor), 1.0f);
    t.view().haveMask = true;
    EXPECT_EQ(selectionCoverage(p[0], p[1], t.cursor), 0.0f) << p[0] << " " << p[1];
    t.view().haveMask = false;
  }
  for (uint8_t b : t.out) ASSERT_EQ(b, 0);
  EXPECT_GT(readHostPixel(11, 5, t.cursor).r, 0.78f);
}

TEST_F(HostPixels, NarrowerOutRectKeepsTheColumnsAndRowsBeyondUnwritten) {
  TestTile t(8, 4, VRect{0, 0, 4, 6});
  HostTileView& v = t.view();
  // The host gave back 4 columns and 3 rows of the 6 by 4 asked, at its own offset.
  v.outRect[0] = 100;
  v.outRect[1] = -50;
  v.outRect[2] = 103;
  v.outRect[3] = -46;
  for (int32_t y = 0; y < 4; ++y)
    for (int32_t x = 0; x < 6; ++x) writeHostPixel(x, y, PixelValue{1.0f, 1.0f, 1.0f, 1.0f}, t.cursor, nullptr);
  for (int32_t y = 0; y < 4; ++y)
    for (int32_t x = 0; x < 6; ++x) {
      uint8_t expected = (x < 4 && y < 3) ? 255 : 0;
      for (int32_t c = 0; c < 4; ++c) EXPECT_EQ(t.out8(x, y)[c], expected) << x << " " << y;
    }
}

// Null buffers, a depth the tile does not know, and the partial stage: reads
// give zero, and nothing is written.
TEST_F(HostPixels, NoBuffersNoKnownDepthOrThePartialStageTouchNothing) {
  for (int road = 0; road < 3; ++road) {
    TestTile t(8, 4, VRect{0, 0, 2, 2});
    t.in8(1, 1)[0] = 255;
    t.in8(1, 1)[3] = 255;
    if (road == 0) t.view().inData = t.view().outData = nullptr;
    if (road == 1) t.view().is8Bit = false;
    if (road == 2) params.runStage = 2;
    PixelValue v = readHostPixel(1, 1, t.cursor);
    if (road < 2) {
      EXPECT_TRUE(v.r == 0.0f && v.g == 0.0f && v.b == 0.0f && v.a == 0.0f) << road;
    }
    writeHostPixel(1, 1, PixelValue{1.0f, 1.0f, 1.0f, 1.0f}, t.cursor, nullptr);
    for (uint8_t b : t.out) ASSERT_EQ(b, 0) << road;
  }
}

TEST_F(HostPixels, DisplayStageDrawsIntoThePlanarBufferClamped) {
  params.runStage = 1;
  TestTile t(8, 4, VRect{0, 0, 8, 8});
  std::vector<uint8_t> planar(size_t(4 * 3 * 3), 0);  // 4 columns, 3 rows, 3 planes
  PreviewBuffer preview = {planar.data(), 4, 3, 12, 3};
  writeHostPixel(1, 2, PixelValue{1.0f, 0.5f, 0.2f, 0.0f}, t.cursor, &preview);
  EXPECT_EQ(planar[2 * 4 + 1], 255);
  EXPECT_EQ(planar[12 + 2 * 4 + 1], 127);
  EXPECT_EQ(planar[24 + 2 * 4 + 1], 51);
  writeHostPixel(-5, 7, PixelValue{0.1f, 0.1f, 0.1f, 1.0f}, t.cursor, &preview);  // to column 0, row 2
  EXPECT_EQ(planar[2 * 4 + 0], 25);
  writeHostPixel(9, -1, PixelValue{0.1f, 0.1f, 0.1f, 1.0f}, t.cursor, &preview);  // to column 3, row 0
  EXPECT_EQ(planar[3], 25);
  for (uint8_t b : t.out) ASSERT_EQ(b, 0);

  // Fewer than three planes take green alone.
  std::vector<uint8_t> single(size_t(4 * 3), 0);
  PreviewBuffer gray = {single.data(), 4, 3, 12, 1};
  writeHostPixel(0, 0, PixelValue{1.0f, 0.5f, 0.2f, 1.0f}, t.cursor, &gray);
  EXPECT_EQ(single[0], 127);
  writeHostPixel(0, 0, PixelValue{1.0f, 0.5f, 0.2f, 1.0f}, t.cursor, nullptr);  // no buffer: nothing
}

// A host that cannot pad hands back smaller input and mask rectangles: nothing
// is read past them.
TEST_F(HostPixels, ReadsStopAtTheDeliveredRectangles) {
  TestTile t(8, 4, VRect{0, 0, 4, 4});
  std::fill(t.in.begin(), t.in.end(), uint8_t(200));
  t.useMask(255);
  // Only the first row came, and of the input only one pixel of it.
  HostTileView& v = t.view();
  v.maskRect[2] = 1;
  v.inRect[2] = 1;
  v.inRect[3] = 1;
  EXPECT_GT(selectionCoverage(3, 0, t.cursor), 0.99f);
  EXPECT_EQ(selectionCoverage(0, 1, t.cursor), 0.0f);
  EXPECT_GT(readHostPixel(0, 0, t.cursor).a, 0.7f);
  EXPECT_EQ(readHostPixel(1, 0, t.cursor).a, 0.0f);
  EXPECT_EQ(readHostPixel(0, 1, t.cursor).a, 0.0f);
}

// Pixel stores: the level chain and its tables, tile layout and memory, every
// accessor's clamping and dropping, the kind packings and unit conversions,
// and the tile-count helpers.
#include <gtest/gtest.h>

#include <math.h>
#include <stdint.h>
#include <string.h>

#include <utility>
#include <vector>

#include "host/blocks.h"
#include "host/plugin_main.h"
#include "store/memory_blocks.h"
#include "store/pixel_store.h"
#include "tests/support/test_support.h"

namespace {

using testing_support::OwnedStore;

void expectLevel(const PixelStore* s, int level, int w, int h) {
  EXPECT_EQ(s->levelWidth[level], w) << "level " << level;
  EXPECT_EQ(s->levelHeight[level], h) << "level " << level;
}

// ---- kinds ------------------------------------------------------------------------------------------

TEST(PixelKinds, TableGivesSizesPlanesAndScales) {
  struct Row {
    int32_t kind, bytes, planes, planeBytes;
    float toUnit, toValue;
  };
  const Row rows[] = {
      {0, 1, 1, 1, 1.0f / 255.0f, 255.0f},      {1, 2, 1, 2, 1.0f / 32768.0f, 32768.0f},
      {2, 2, 1, 2, 1.0f, 1.0f},                 {3, 4, 4, 1, 1.0f / 255.0f, 255.0f},
      {4, 8, 4, 2, 1.0f / 32768.0f, 32768.0f},  {5, 4, 1, 4, 1.0f, 1.0f},
      {7, 6, 3, 2, 1.0f, 1.0f},                 {9, 16, 4, 4, 1.0f, 1.0f},
  };
  for (const Row& r : rows) {
    PixelKindInfo info = pixelKindInfo(r.kind);
    EXPECT_EQ(info.pixelBytes, r.bytes) << r.kind;
    EXPECT_EQ(info.planes, r.planes) << r.kind;
    EXPECT_EQ(info.planeBytes, r.planeBytes) << r.kind;
    EXPECT_EQ(info.valueToUnit, r.toUnit) << r.kind;
    EXPECT_EQ(info.unitToValue, r.toValue) << r.kind;
  }
  for (int32_t kind : {6, 8, 10, -1, 1000}) {
    PixelKindInfo info = pixelKindInfo(kind);
    EXPECT_EQ(info.pixelBytes, 0);
    EXPECT_EQ(info.planes, 1);
    EXPECT_EQ(info.planeBytes, 0);
  }
}

// ---- level chain ----------------------------------------------------------------------------------

TEST(LevelChain, OddSizesRoundUpToTheTopLevelOfOnePixel) {
  struct Case {
    int32_t w, h, top;
    std::vector<std::pair<int32_t, int32_t>> chain;
  };
  const Case cases[] = {
      {1, 1, 1, {{1, 1}, {1, 1}}},
      {3, 1, 2, {{3, 1}, {2, 1}, {1, 1}}},
      {1000, 600, 10, {{1000, 600}, {500, 300}, {250, 150}, {126, 76}, {64, 38}, {32, 20}, {16, 10}, {8, 6},
                       {4, 4}, {2, 2}, {1, 1}}},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(lastLevel(c.w, c.h), c.top);
    OwnedStore s(c.w, c.h, kKindRgba16);
    ASSERT_NE(s.store, nullptr);
    EXPECT_EQ(s->topLevel, c.top);
    for (int level = 0; level <= c.top + 1; ++level) {
      int32_t w, h;
      levelSize(c.w, c.h, level, &w, &h);
      const std::pair<int32_t, int32_t> want = level <= c.top ? c.chain[size_t(level)] : std::make_pair(0, 0);
      EXPECT_EQ(std::make_pair(w, h), want) << c.w << " level " << level;
      expectLevel(s.store, level, want.first, want.second);
    }
  }
  EXPECT_EQ(lastLevel(1 << 22, 1), kStoreLevels - 1);  // a long thin image stops at twenty levels
  EXPECT_EQ(lastLevel(0, 5), 0);
  OwnedStore s(1000, 600, kKindRgba8);
  EXPECT_EQ(s->coarseLevel, 7);
  // The scale is the base width over a power of two, though level 3 is 126 wide.
  EXPECT_EQ(s->levelScaleX[3], 125.0f);
  EXPECT_EQ(s->levelScaleY[3], 75.0f);
  EXPECT_EQ(s->levelScaleX[10], 1000.0f / 1024.0f);
  // A zero-byte pixel gets no tile memory, and an empty size no store.
  const int32_t refused[][3] = {{10, 10, 6}, {0, 10, kKindRgba8}, {10, 0, kKindRgba8}, {-3, 10, kKindRgba8}};
  for (const auto& bad : refused)
    EXPECT_EQ(pixelStoreCreate(bad[0], bad[1], bad[2], 0, false), nullptr) << bad[0] << " x " << bad[1];
  EXPECT_FALSE(pixelStoreBuild(nullptr, 10, 10, kKindRgba8, 0, false));
}

TEST(LevelTables, BorderedStoreAddsOnePixelEachSide) {
  // The distance field's store: the image plus its margin, as float with a border.
  OwnedStore s(118, 68, kKindFloat, true);
  ASSERT_NE(s.store, nullptr);
  EXPECT_TRUE(s->bordered);
  expectLevel(s.store, 0, 120, 70);
  expectLevel(s.store, 1, 62, 36);  // inner 60 x 34: 59 is odd
  EXPECT_EQ(s->innerWidthF[0], 118.0f);
  EXPECT_EQ(s->innerWidthF[1], 60.0f);
  EXPECT_EQ(s->invInnerWidth[0], 1.0f / 118.0f);
  EXPECT_EQ(s->levelMaxX[0], 119);
  EXPECT_EQ(s->pixelBytes, 4);
  EXPECT_EQ(s->levelScaleX[1], 60.0f);  // half the stored base width
  EXPECT_EQ(s->topLevel, lastLevel(118, 68));
}

// ---- tiles ----------------------------------------------------------------------------------------

TEST(StoreTiles, TilesOf512WithTheLastColumnFullWidthAndTheLastRowShort) {
  struct Case {
    int32_t w, h, across, count;
    VRect last;  // the last tile's rectangle
    int32_t lastRows;
  };
  const Case cases[] = {
      {513, 10, 2, 2, {0, 512, 10, 1024}, 10},  // a full tile of memory though one column is image
      {20, 512, 1, 1, {0, 0, 512, 512}, 512},
      {20, 513, 1, 2, {512, 0, 513, 512}, 1},
  };
  for (const Case& c : cases) {
    OwnedStore s(c.w, c.h, kKindRgba8);
    ASSERT_NE(s.store, nullptr);
    EXPECT_EQ(s->tilesAcross[0], c.across);
    EXPECT_EQ(s->lastTile[0] - s->firstTile[0] + 1, c.count);
    const VRect r = tileRect(s.store, c.count - 1);
    EXPECT_TRUE(r.top == c.last.top && r.left == c.last.left && r.bottom == c.last.bottom && r.right == c.last.right)
        << c.w << " x " << c.h;
    EXPECT_EQ(s->tiles[c.count - 1].rows, c.lastRows);
    EXPECT_EQ(s->tiles[c.count - 1].top, c.last.top);
  }
  // The last column of the second tile is addressable.
  OwnedStore s(513, 10, kKindRgba8);
  const int32_t channels[4] = {1, 2, 3, 4};
  writeU8x4(512, 9, s.store, 0, channels);
  uint32_t word;
  memcpy(&word, s->tiles[1].pixels + (9 * 512 + 0) * 4, 4);
  EXPECT_EQ(word, 0x01020304u);
}

TEST(StoreTiles, MemoryIsZeroWithFourSpareRows) {
  // Under the sanitizer build a tile allocated any shorter makes this read fail.
  for (int32_t kind : {kKindGray8, kKindRgba8, kKindRgba16, kKindFloat, kKindRgbaFloat}) {
    OwnedStore s(600, 3, kind);
    ASSERT_NE(s.store, nullptr);
    const int32_t bytes = pixelKindInfo(kind).pixelBytes;
    for (int32_t t = 0; t < s->tileCount; ++t) {
      const StoreTile& tile = s->tiles[t];
      const size_t size = size_t(tile.rows + kTileSpareRows) * 512 * size_t(bytes);
      size_t nonZero = 0;
      for (size_t i = 0; i < size; ++i) nonZero += tile.pixels[i] != 0;
      EXPECT_EQ(nonZero, 0u) << "kind " << kind << " tile " << t;
    }
  }
}

// ---- creation, release, destruction -----------------------------------------------------------------

TEST(StoreLifecycle, ReleaseKeepsTheObjectAndEmptiesIt) {
  OwnedStore s(700, 20, kKindRgba8);
  ASSERT_NE(s.store, nullptr);
  pixelStoreRelease(s.store);
  EXPECT_EQ(s->tiles, nullptr);
  EXPECT_EQ(s->tileCount, 0);
  EXPECT_EQ(s->tilesReleased, 1);
  EXPECT_EQ(s->tileTableId, -1);
  pixelStoreRelease(s.store);  // twice is harmless
  EXPECT_EQ(s->tiles, nullptr);
  // An empty store reads 0 and ignores writes.
  EXPECT_EQ(readU8(3, 3, s.store, 0), 0);
  writeU8(3, 3, s.store, 0, 7);
  // And it can be built again.
  ASSERT_TRUE(pixelStoreBuild(s.store, 40, 30, kKindRgbaFloat, 0, false));
  EXPECT_EQ(s->levelWidth[0], 40);
  EXPECT_EQ(s->kind, kKindRgbaFloat);
  EXPECT_FALSE(s->ownsItself);  // the build clears it; only creation sets it
  s->ownsItself = true;
  // Destroying twice or null is harmless.
  PixelStore* t = pixelStoreCreate(10, 10, kKindGray8, 0, false);
  pixelStoreDestroy(&t);
  EXPECT_EQ(t, nullptr);
  pixelStoreDestroy(&t);
  pixelStoreDestroy(nullptr);
}

TEST(StoreLifecycle, EmbeddedStoreIsReleasedNotFreed) {
  PixelStore embedded;
  memset(&embedded, 0, sizeof embedded);
  pixelStoreInit(&embedded);
  EXPECT_EQ(embedded.initMark, -99);
  EXPECT_EQ(embedded.tiles, nullptr);
  EXPECT_EQ(embedded.tileCount, 0);
  ASSERT_TRUE(pixelStoreBuild(&embedded, 100, 50, kKindRgba16, 0, false));
  // Built again without a release in between: the old tiles go first (the leak
  // checker of the sanitizer build would see them otherwise).
  ASSERT_TRUE(pixelStoreBuild(&embedded, 64, 64, kKindRgba16, 0, false));
  PixelStore* pointer = &embedded;
  pixelStoreDestroy(&pointer);
  EXPECT_EQ(pointer, nullptr);
  EXPECT_EQ(embedded.tiles, nullptr);  // the object itself lives on
  EXPECT_EQ(embedded.tilesReleased, 1);
}

// ---- geometry helpers -----------------------------------------------------------------------------

TEST(StoreGeometry, LevelRectAndPointOutside) {
  OwnedStore s(100, 60, kKindGray8);
  ASSERT_NE(s.store, nullptr);
  struct Case {
    const PixelStore* store;
    int level;
    int32_t bottom, right;
  };
  const Case rects[] = {
      {s.store, 0, 60, 100}, {s.store, 1, 30, 50}, {s.store, s->topLevel + 1, 0, 0}, {nullptr, 0, 0, 0}};
  for (const Case& c : rects) {
    VRect r = levelRect(c.store, c.level);
    EXPECT_TRUE(r.top == 0 && r.left == 0 && r.bottom == c.bottom && r.right == c.right) << c.level;
  }
  const int32_t points[][4] = {{0, 0, 0, 0},  {99, 59, 0, 0}, {100, 0, 0, 1}, {0, 60, 0, 1},
                               {-1, 5, 0, 1}, {5, -1, 0, 1},  {50, 0, 1, 1}};
  for (const auto& p : points) EXPECT_EQ(pointOutside(p[0], p[1], s.store, p[2]), p[3] != 0) << p[0] << "," << p[1];
}

// ---- accessors --------------------------------------------------------------------------------------

TEST(StoreAccess, ReadsClampToTheNearestEdge) {
  OwnedStore s(100, 100, kKindGray8);
  ASSERT_NE(s.store, nullptr);
  for (int y = 0; y < 100; ++y)
    for (int x = 0; x < 100; ++x) writeU8(x, y, s.store, 0, (x * 7 + y * 3) & 0xff);
  EXPECT_EQ(readU8(-5, 700, s.store, 0), (0 * 7 + 99 * 3) & 0xff);
  EXPECT_EQ(readU8(1000, -1000, s.store, 0), (99 * 7) & 0xff);
  // Writes only the low byte.
  writeU8(4, 4, s.store, 0, 0x1ff);
  EXPECT_EQ(readU8(4, 4, s.store, 0), 0xff);
}

TEST(StoreAccess, EveryWriterDropsOutsideTheLevel) {
  OwnedStore f(10, 10, kKindFloat);
  OwnedStore w(10, 10, kKindRgba8);
  OwnedStore q(10, 10, kKindRgba16);
  OwnedStore r(10, 10, kKindRgbaFloat);
  OwnedStore t(10, 10, kKindSigned16x3);
  OwnedStore g(10, 10, kKindGray16);
  OwnedStore b(10, 10, kKindGray8);
  const int32_t v[4] = {9, 9, 9, 9};
  const uint32_t words[4] = {9, 9, 9, 9};
  const int32_t outside[][2] = {{-1, 0}, {0, -1}, {10, 0}, {0, 10}, {5, 5}};  // (5, 5) lies in level 0 only
  for (const auto& p : outside) {
    writeFloat(p[0], p[1], f.store, 1, 5.0f);
    writeFloatNoCheck(p[0], p[1], f.store, 1, 5.0f);
    writeRaw32(p[0], p[1], f.store, 1, 5);
    writeU8x4(p[0], p[1], w.store, 1, v);
    writeU16x4(p[0], p[1], q.store, 1, v);
    writeWord4(p[0], p[1], r.store, 1, words);
    writeI16x3(p[0], p[1], t.store, 1, v);
    writeU16(p[0], p[1], g.store, 1, 5);
    writeU8(p[0], p[1], b.store, 1, 5);
  }
  for (int y = 0; y < 5; ++y) {
    for (int x = 0; x < 5; ++x) {
      int32_t c[4];
      uint32_t cw[4];
      EXPECT_EQ(readFloat(x, y, f.store, 1), 0.0f);
      readU8x4(x, y, w.store, 1, c);
      EXPECT_EQ(c[0] | c[1] | c[2] | c[3], 0);
      readU16x4(x, y, q.store, 1, c);
      EXPECT_EQ(c[0] | c[1] | c[2] | c[3], 0);
      readWord4(x, y, r.store, 1, cw);
      EXPECT_EQ(cw[0] | cw[1] | cw[2] | cw[3], 0u);
      readI16x3(x, y, t.store, 1, c);
      EXPECT_EQ(c[0] | c[1] | c[2], 0);
      EXPECT_EQ(readU16(x, y, g.store, 1), 0);
      EXPECT_EQ(readU8(x, y, b.store, 1), 0);
    }
  }
}

TEST(StoreAccess, Kind3PacksChannelZeroInTheTopByte) {
  OwnedStore s(10, 10, kKindRgba8);
  ASSERT_NE(s.store, nullptr);
  const int32_t in[4] = {1, 2, 3, 4};
  writeU8x4(3, 4, s.store, 0, in);
  EXPECT_EQ(readRaw32(3, 4, s.store, 0), 0x01020304u);
  int32_t out[4];
  // Only the low 8 bits of each channel reach the word.
  const int32_t wide[4] = {0x1ab, 0x1ff, 0x102, -1};
  writeU8x4(3, 4, s.store, 0, wide);
  EXPECT_EQ(readRaw32(3, 4, s.store, 0), 0xabff02ffu);
  // The dispatching pair takes the same road.
  writeChannels(5, 5, s.store, 0, in);
  readChannels(5, 5, s.store, 0, out);
  EXPECT_EQ(out[3], 4);
}

TEST(StoreAccess, SixteenBitAndFloatKindsRoundTrip) {
  OwnedStore q(10, 10, kKindRgba16);
  const int32_t in[4] = {0, 1, 32768, 65535 + 7};
  writeU16x4(2, 2, q.store, 0, in);
  int32_t out[4];
  readU16x4(2, 2, q.store, 0, out);
  EXPECT_EQ(std::vector<int32_t>(out, out + 4), (std::vector<int32_t>{0, 1, 32768, 6}));  // the low 16 bits

  OwnedStore r(10, 10, kKindRgbaFloat);
  const float rgba[4] = {-1.5f, 70000.0f, 0.25f, 1.0f};
  writeUnitPixel(1, 1, r.store, 0, rgba);
  float back[4];
  readUnitPixel(1, 1, r.store, 0, back);
  for (int c = 0; c < 4; ++c) EXPECT_EQ(back[c], rgba[c]);
  uint32_t words[4];
  readWord4(1, 1, r.store, 0, words);
  EXPECT_EQ(words[2], floatBits(0.25f));

  OwnedStore t(10, 10, kKindSigned16x3);
  const int32_t signedIn[3] = {-5, 40000, 7};
  writeI16x3(0, 9, t.store, 0, signedIn);
  readI16x3(0, 9, t.store, 0, out);
  EXPECT_EQ(std::vector<int32_t>(out, out + 3), (std::vector<int32_t>{-5, 40000 - 65536, 7}));

  OwnedStore g(10, 10, kKindGray16);
  writeU16Again(9, 0, g.store, 0, 0x12345);
  EXPECT_EQ(readU16Again(9, 0, g.store, 0), 0x2345);
  EXPECT_EQ(readScalar(9, 0, g.store, 0), 0x2345u);
  EXPECT_EQ(readUnitScalar(9, 0, g.store, 0), float(0x2345 / 32768.0));
}

TEST(StoreAccess, UnitPixelOfOneValueKinds) {
  OwnedStore f(4, 4, kKindFloat);
  writeFloat(1, 1, f.store, 0, 12.5f);
  float out[4];
  readUnitPixel(1, 1, f.store, 0, out);
  EXPECT_EQ(std::vector<float>(out, out + 4), (std::vector<float>{12.5f, 12.5f, 12.5f, 1.0f}));

  OwnedStore g(4, 4, kKindGray8);
  writeU8(2, 3, g.store, 0, 255);
  readUnitPixel(2, 3, g.store, 0, out);
  EXPECT_EQ(std::vector<float>(out, out + 4), std::vector<float>(4, 1.0f));
  EXPECT_EQ(readUnitScalar(2, 3, g.store, 0), 1.0f);
  writeUnitScalar(0, 0, g.store, 0, 0.5f);  // trunc(127.5)
  EXPECT_EQ(readU8(0, 0, g.store, 0), 127);
  writeUnitScalar(0, 0, g.store, 0, 1.0f);
  EXPECT_EQ(readU8(0, 0, g.store, 0), 255);
}

TEST(StoreAccess, EveryValueSurvivesAUnitRoundTrip) {
  for (int32_t kind : {kKindRgba8, kKindRgba16, kKindGray8}) {
    const int32_t full = kind == kKindRgba16 ? 32768 : 255;
    OwnedStore s(512, 65, kind);
    auto at = [](int32_t v) { return std::make_pair(v & 511, v >> 9); };
    for (int32_t v = 0; v <= full; ++v) {
      const int32_t in[4] = {v, full - v, v, v};
      if (kind == kKindGray8) writeU8(at(v).first, at(v).second, s.store, 0, v);
      else writeChannels(at(v).first, at(v).second, s.store, 0, in);
    }
    for (int32_t v = 0; v <= full; ++v) {
      const int32_t x = at(v).first, y = at(v).second;
      if (kind == kKindGray8) {
        writeUnitScalar(x, y, s.store, 0, readUnitScalar(x, y, s.store, 0));
        ASSERT_EQ(readU8(x, y, s.store, 0), v);
        continue;
      }
      float unit[4];
      readUnitPixel(x, y, s.store, 0, unit);
      if (kind == kKindRgba8) {
        EXPECT_EQ(unit[0], float(v) * float(1.0 / 255.0));
      }
      writeUnitPixel(x, y, s.store, 0, unit);
      int32_t back[4];
      readChannels(x, y, s.store, 0, back);
      ASSERT_EQ(back[0], v) << kind;
      ASSERT_EQ(back[1], full - v) << kind;
    }
  }
}

TEST(StoreAccess, UnitWritesTruncateAndWrap) {
  OwnedStore s(2, 2, kKindRgba8);
  const float over[4] = {1.004f, 0.9999f, -0.001f, 0.5f};
  writeUnitPixel(0, 0, s.store, 0, over);
  int32_t c[4];
  readU8x4(0, 0, s.store, 0, c);
  // trunc(256.02) = 256 wraps the byte; 254.97 is truncated, not rounded; trunc(-0.255) = 0.
  EXPECT_EQ(std::vector<int32_t>(c, c + 4), (std::vector<int32_t>{0, 254, 0, 127}));
}

TEST(StoreAccess, ChannelDispatchOfOtherKinds) {
  OwnedStore s(3, 3, kKindRaw16);
  int32_t out[4] = {7, 7, 7, 7};
  readChannels(0, 0, s.store, 0, out);  // kind 2 has no channel reader
  EXPECT_EQ(out[0] | out[1] | out[2] | out[3], 0);
  const int32_t in[4] = {1234, 0, 0, 0};
  writeChannels(1, 1, s.store, 0, in);
  EXPECT_EQ(readU16(1, 1, s.store, 0), 1234);
  float unit[4];
  readUnitPixel(1, 1, s.store, 0, unit);  // kind 2 is unscaled
  EXPECT_EQ(unit[0], 1234.0f);
  EXPECT_EQ(unit[3], 1.0f);

  OwnedStore f(3, 3, kKindFloat);
  const int32_t bits[4] = {int32_t(floatBits(-4.0f)), 0, 0, 0};
  writeChannels(2, 2, f.store, 0, bits);
  EXPECT_EQ(readFloat(2, 2, f.store, 0), -4.0f);
}

TEST(StoreAccess, BilinearReadOfTheFloatKind) {
  OwnedStore s(4, 3, kKindFloat);
  for (int y = 0; y < 3; ++y)
    for (int x = 0; x < 4; ++x) writeFloat(x, y, s.store, 0, float(x + 10 * y));
  EXPECT_EQ(readBilinear(1.25f, 1.5f, s.store, 0), 16.25f);
  EXPECT_EQ(readBilinear(3.0f, 2.0f, s.store, 0), 23.0f);
  // Past the edges every neighbour clamps: the corner pixels run on.
  EXPECT_EQ(readBilinear(10.0f, 10.0f, s.store, 0), 23.0f);
  EXPECT_EQ(readBilinear(-3.5f, 0.5f, s.store, 0), 5.0f);
  // An exact negative integer is taken one below itself with fraction 1.0:
  // -1 -> neighbours -2 and -1, both clamped to column 0.
  EXPECT_EQ(readBilinear(-1.0f, 1.0f, s.store, 0), 10.0f);
  // Just left of 0 mixes columns -1 and 0, both column 0.
  EXPECT_EQ(readBilinear(-0.25f, 0.0f, s.store, 0), 0.0f);
  EXPECT_EQ(readBilinear(2.5f, 0.0f, s.store, 0), 2.5f);
}

// ---- tile-count helpers -----------------------------------------------------------------------------

TEST(TileCounts, CeilingDivisionAndLastTileExtent) {
  const int32_t counts[][3] = {{1, 512, 1}, {512, 512, 1}, {513, 512, 2}, {0, 512, 0}};
  for (const auto& c : counts) EXPECT_EQ(tilesFor(c[0], c[1]), c[2]) << c[0];
  EXPECT_EQ(tilesForArea(513, 1025, 512), 6);
  // At or past the last tile: what remains.
  const int32_t extents[][4] = {{0, 512, 512, 512}, {1, 513, 512, 1}, {0, 513, 512, 512},
                                {5, 513, 512, 1},   {2, 300, 128, 44},  {1, 300, 128, 128}};
  for (const auto& e : extents) EXPECT_EQ(tileExtent(e[0], e[1], e[2]), e[3]) << e[0] << " of " << e[1];
}

}  // namespace

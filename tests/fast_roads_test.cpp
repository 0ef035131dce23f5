// Each fast road against the plain road it stands in for, on random stores:
// every byte of every tile must come out the same.
#include <gtest/gtest.h>

#include <stdint.h>
#include <string.h>

#include "fill/fill_roads.h"
#include "fill/fill_schedule.h"
#include "fill/line_smooth.h"
#include "store/pixel_store.h"

namespace {

uint32_t nextRandom(uint32_t* state) {
  *state = *state * 1664525u + 1013904223u;
  return *state >> 8;
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

// Two float stores with the same distance-like values: far cells, signed
// distances, and exact zeros.
void paintField(PixelStore* a, PixelStore* b, uint32_t seed) {
  uint32_t state = seed;
  for (int32_t y = 0; y < a->levelHeight[0]; ++y) {
    for (int32_t x = 0; x < a->levelWidth[0]; ++x) {
      const uint32_t roll = nextRandom(&state) % 16u;
      const float v = roll == 0 ? 9000000.0f : (roll == 1 ? 0.0f : float(int32_t(nextRandom(&state) % 20001u) - 10000) / 97.0f);
      writeFloat(x, y, a, 0, v);
      writeFloat(x, y, b, 0, v);
    }
  }
}

TEST(FastRoads, LineGroupsSmoothAsSingleLines) {
  // Rectangles (left, right, top, bottom) reaching past the level, windows
  // longer than the groups keep, and thin levels.
  struct Case {
    int32_t w, h, left, right, top, bottom, back, forward;
  } const cases[] = {
      {64, 40, 0, 64, 0, 40, 2, 3},       {600, 530, 0, 600, 0, 530, 3, 2},  {530, 70, 5, 523, 0, 70, 2, 2},
      {100, 9, 16, 100, 3, 200, 0, 1},    {70, 1, 0, 70, 0, 1, 3, 3},        {48, 50, 0, 48, 0, 50, 40, 30},
      {40, 600, -3, 47, -5, 600, 1, 0},   {515, 7, 0, 515, 1, 6, 2, 3},
  };
  uint32_t seed = 11;
  for (const Case& c : cases) {
    for (bool vertical : {false, true}) {
      PixelStore* fast = pixelStoreCreate(c.w, c.h, kKindFloat, 0, true);
      PixelStore* plain = pixelStoreCreate(c.w, c.h, kKindFloat, 0, true);
      ASSERT_NE(fast, nullptr);
      ASSERT_NE(plain, nullptr);
      paintField(fast, plain, ++seed);
      PassContext context;
      memset(&context, 0, sizeof context);
      ASSERT_TRUE(makeLineBuffer(&context, fast));
      if (vertical) {
        filterColumns(fast, &context, c.left, c.right, c.top, c.bottom, 0, c.back, c.forward);
        for (int32_t x = c.left; x < c.right; ++x) filterColumn(plain, x, &context, c.top, c.bottom, 0, c.back, c.forward);
      } else {
        filterRows(fast, &context, c.top, c.bottom, c.left, c.right, 0, c.back, c.forward);
        for (int32_t y = c.top; y < c.bottom; ++y) filterRow(plain, y, &context, c.left, c.right, 0, c.back, c.forward);
      }
      EXPECT_EQ(firstDifference(fast, plain), -1)
          << c.w << " x " << c.h << ", window " << c.back << ", " << c.forward << (vertical ? ", columns" : ", rows");
      freeLineBuffer(&context);
      pixelStoreDestroy(&fast);
      pixelStoreDestroy(&plain);
    }
  }
}

// Every level of two stores alike: random colours, and alphas that are mostly
// 0 or full with faint and soft ones among them (8-bit 3..10 around the
// floors); floats also get colours outside 0..1.
void paintLayers(PixelStore* a, PixelStore* b, uint32_t seed) {
  uint32_t state = seed;
  const int32_t kind = a->kind;
  const uint32_t full = kind == kKindRgba8 ? 255u : 32768u;
  for (int32_t level = 0; level <= a->topLevel; ++level) {
    for (int32_t y = 0; y < a->levelHeight[level]; ++y) {
      for (int32_t x = 0; x < a->levelWidth[level]; ++x) {
        const uint32_t roll = nextRandom(&state) % 10u;
        if (kind == kKindRgbaFloat) {
          const float alpha = roll < 6 ? 0.0f : (roll < 8 ? 1.0f : float(nextRandom(&state) % 1001u) / 1000.0f);
          const float c[4] = {float(int32_t(nextRandom(&state) % 4000u) - 500) / 1000.0f,
                              float(nextRandom(&state) % 1000u) / 999.0f, float(nextRandom(&state) % 1000u) / 999.0f,
                              alpha};
          uint32_t w[4];
          memcpy(w, c, sizeof w);
          writeWord4(x, y, a, level, w);
          writeWord4(x, y, b, level, w);
        } else {
          const uint32_t faint = kind == kKindRgba8 ? 3 + nextRandom(&state) % 8u : 515 + nextRandom(&state) % 16u;
          const uint32_t alpha = roll < 6 ? 0u : (roll < 8 ? full : (roll < 9 ? faint : nextRandom(&state) % full));
          const int32_t c[4] = {int32_t(nextRandom(&state) % (full + 1)), int32_t(nextRandom(&state) % (full + 1)),
                                int32_t(nextRandom(&state) % (full + 1)), int32_t(alpha)};
          writeChannels(x, y, a, level, c);
          writeChannels(x, y, b, level, c);
        }
      }
    }
  }
}

TEST(FastRoads, FillRoadsLeaveThePixelRoadsBits) {
  const int32_t kinds[] = {kKindRgba8, kKindRgba16, kKindRgbaFloat};
  const FillRoad roads[] = {kFillRoadRows, kFillRoadLanes};
  struct Size {
    int32_t w, h;
  } const sizes[] = {{1, 1}, {3, 5}, {37, 23}, {130, 7}, {600, 530}, {1030, 33}};
  uint32_t seed = 500;
  for (int32_t kind : kinds) {
    for (FillRoad road : roads) {
      for (const Size& size : sizes) {
        PixelStore* fast = pixelStoreCreate(size.w, size.h, kind, 0, false);
        PixelStore* plain = pixelStoreCreate(size.w, size.h, kind, 0, false);
        ASSERT_NE(fast, nullptr);
        ASSERT_NE(plain, nullptr);
        // The whole schedule, then each step alone on levels as painted.
        paintLayers(fast, plain, ++seed);
        fillLevelsOn(road, fast, kFillPasses);
        fillLevelsOn(kFillRoadPixels, plain, kFillPasses);
        EXPECT_EQ(firstDifference(fast, plain), -1) << "fill, kind " << kind << ", road " << road << ", " << size.w;
        paintLayers(fast, plain, ++seed);
        for (int32_t level = 0; level < fast->topLevel; ++level) {
          diffuseLevelOn(road, fast, level, 1);
          diffuseLevelOn(kFillRoadPixels, plain, level, 1);
          reduceColoursOn(road, fast, level);
          reduceColoursOn(kFillRoadPixels, plain, level);
        }
        EXPECT_EQ(firstDifference(fast, plain), -1) << "up, kind " << kind << ", road " << road << ", " << size.w;
        paintLayers(fast, plain, ++seed);
        for (int32_t level = fast->topLevel - 1; level >= 0; --level) {
          expandIntoOn(road, fast, level);
          expandIntoOn(kFillRoadPixels, plain, level);
        }
        EXPECT_EQ(firstDifference(fast, plain), -1) << "down, kind " << kind << ", road " << road << ", " << size.w;
        pixelStoreDestroy(&fast);
        pixelStoreDestroy(&plain);
      }
    }
  }
}

}  // namespace

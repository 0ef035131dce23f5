// Each fast road against the plain road it stands in for, on random stores:
// every byte of every tile must come out the same.
#include <gtest/gtest.h>

#include <stdint.h>
#include <string.h>

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

TEST(FastRoads, ColumnGroupsSmoothAsSingleColumns) {
  struct Case {
    int32_t w, h, left, right, top, bottom, back, forward;
  } const cases[] = {
      {64, 40, 0, 64, 0, 40, 2, 3},       {600, 530, 0, 600, 0, 530, 3, 2},  {530, 70, 5, 523, 0, 70, 2, 2},
      {100, 9, 16, 100, 3, 200, 0, 1},    {70, 1, 0, 70, 0, 1, 3, 3},        {48, 50, 0, 48, 0, 50, 40, 30},
      {40, 600, -3, 47, -5, 600, 1, 0},
  };
  uint32_t seed = 11;
  for (const Case& c : cases) {
    PixelStore* fast = pixelStoreCreate(c.w, c.h, kKindFloat, 0, true);
    PixelStore* plain = pixelStoreCreate(c.w, c.h, kKindFloat, 0, true);
    ASSERT_NE(fast, nullptr);
    ASSERT_NE(plain, nullptr);
    paintField(fast, plain, ++seed);
    PassContext context;
    memset(&context, 0, sizeof context);
    ASSERT_TRUE(makeLineBuffer(&context, fast));
    filterColumns(fast, &context, c.left, c.right, c.top, c.bottom, 0, c.back, c.forward);
    for (int32_t column = c.left; column < c.right; ++column) {
      filterColumn(plain, column, &context, c.top, c.bottom, 0, c.back, c.forward);
    }
    EXPECT_EQ(firstDifference(fast, plain), -1) << c.w << " x " << c.h << ", window " << c.back << ", " << c.forward;
    freeLineBuffer(&context);
    pixelStoreDestroy(&fast);
    pixelStoreDestroy(&plain);
  }
}

}  // namespace

// Each fast road against the plain road it stands in for, on random stores:
// every byte of every tile must come out the same.
#include <gtest/gtest.h>

#include <stdint.h>
#include <stdio.h>
#include <math.h>
#include <string.h>

#include <vector>

#include "fill/fill_roads.h"
#include "fill/fill_schedule.h"
#include "fill/line_smooth.h"
#include "grid/opaque_walk.h"
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
          // Now and then a -0 red and a green past the colour limit, which
          // the clamps must keep as the pixel road does.
          const uint32_t odd = nextRandom(&state) % 16u;
          const float c[4] = {odd == 0 ? -0.0f : float(int32_t(nextRandom(&state) % 4000u) - 500) / 1000.0f,
                              odd == 1 ? 70000.0f : float(nextRandom(&state) % 1000u) / 999.0f,
                              float(nextRandom(&state) % 1000u) / 999.0f, alpha};
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
        // The reduce alone, on levels whose faint alphas were never floored.
        paintLayers(fast, plain, ++seed);
        for (int32_t level = 0; level < fast->topLevel; ++level) {
          reduceColoursOn(road, fast, level);
          reduceColoursOn(kFillRoadPixels, plain, level);
        }
        EXPECT_EQ(firstDifference(fast, plain), -1) << "reduce, kind " << kind << ", road " << road << ", " << size.w;
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

TEST(FastRoads, WalkLanesLandWhereThePointRoadLands) {
  // Solid discs in a layer wide and tall enough for the field to cross tile
  // edges; the field is a distance that reaches zero outside the discs (the
  // walks that never arrive, as smoothing makes them), with flat patches (a
  // NaN gradient) and far values.
  struct Disc {
    float x, y, r;
  } const discs[] = {{40, 30, 12},   {300, 90, 40},   {520, 260, 25},  {100, 400, 60}, {590, 520, 8},
                     {3, 500, 5},    {600, 200, 15},  {300, 530, 10},  {605, 450, 10}};
  const int32_t width = 600;
  const int32_t height = 530;
  PixelStore* opaque = pixelStoreCreate(width, height, kKindGray8, 0, false);
  PixelStore* field = pixelStoreCreate(width + 2 * kFieldMargin, height + 2 * kFieldMargin, kKindFloat, 0, true);
  ASSERT_NE(opaque, nullptr);
  ASSERT_NE(field, nullptr);
  auto distance = [&](float x, float y) {
    float best = 1e9f;
    for (const Disc& d : discs) best = fminf(best, sqrtf((x - d.x) * (x - d.x) + (y - d.y) * (y - d.y)) - d.r);
    return best;
  };
  for (int32_t y = 0; y < height; ++y)
    for (int32_t x = 0; x < width; ++x) writeU8(x, y, opaque, 0, distance(float(x), float(y)) < 0.0f ? 255 : 0);
  for (int32_t y = 0; y < field->levelHeight[0]; ++y) {
    for (int32_t x = 0; x < field->levelWidth[0]; ++x) {
      const float sx = float(x - kFieldMargin);
      const float sy = float(y - kFieldMargin);
      float v = 0.8f * distance(sx, sy) - 1.5f;
      if (sx > 200 && sx < 230 && sy > 200 && sy < 230) v = 7.0f;
      if (sx > 420 && sy < 40) v = 9000000.0f;
      // Beside the solid right and bottom edges, a field whose first step from
      // a corner outside the image arrives: such a corner still stays put.
      if (sx > 590 && sy > 440 && sy < 460) v = 0.5f * (sx - 598.0f);
      if (sy > 520 && sx > 290 && sx < 310) v = 0.5f * (sy - 528.0f);
      writeFloat(x, y, field, 0, v);
    }
  }
  WalkView view;
  memset(&view, 0, sizeof view);
  view.opaque = opaque;
  view.field = field;
  view.width = width;
  view.height = height;
  view.opaqueBytes = true;
  view.opaqueTiles = opaque->tiles + opaque->firstTile[0];
  view.opaqueAcross = opaque->tilesAcross[0];
  view.opaqueMaxX = opaque->levelMaxX[0];
  view.opaqueMaxY = opaque->levelMaxY[0];
  view.fieldTiles = field->tiles + field->firstTile[0];
  view.fieldAcross = field->tilesAcross[0];
  view.fieldMaxX = field->levelMaxX[0];
  view.fieldMaxY = field->levelMaxY[0];

  // The byte map read straight from its tiles against the store's reader,
  // for every byte value.
  for (int32_t value = 0; value < 256; ++value) {
    writeU8(7, 9, opaque, 0, value);
    WalkView reader = view;
    reader.opaqueBytes = false;
    EXPECT_EQ(solidIn(view, 7, 9), solidIn(reader, 7, 9)) << value;
  }
  writeU8(7, 9, opaque, 0, distance(7.0f, 9.0f) < 0.0f ? 255 : 0);

  // Every grid corner of the layer and its frame, then points between
  // pixels and far outside (reflected on their first step).
  std::vector<float> xs, ys;
  for (int32_t y = -1; y <= height; ++y)
    for (int32_t x = -1; x <= width; ++x) {
      xs.push_back(float(x));
      ys.push_back(float(y));
    }
  uint32_t state = 77;
  for (int32_t i = 0; i < 20000; ++i) {
    xs.push_back(float(int32_t(nextRandom(&state) % 7000u)) / 10.0f - 50.0f);
    ys.push_back(float(int32_t(nextRandom(&state) % 6300u)) / 10.0f - 50.0f);
  }
  const size_t n = xs.size();
  std::vector<float> laneX(n), laneY(n), pointX(n), pointY(n);
  std::vector<uint8_t> laneWalked(n), pointWalked(n);
  // In chunks of odd sizes, as a render unit's rows come; every lane road
  // that this build and processor can take against the point road.
  auto land = [&](WalkRoad road, float* outX, float* outY, uint8_t* walked) {
    for (size_t at = 0; at < n; at += 131) {
      const int32_t count = int32_t(n - at < 131 ? n - at : 131);
      nearestOpaqueManyOn(road, view, count, &xs[at], &ys[at], &outX[at], &outY[at], &walked[at]);
    }
  };
  land(kWalkRoadPoints, pointX.data(), pointY.data(), pointWalked.data());
  size_t walkedOff = 0;
  for (size_t i = 0; i < n; ++i) walkedOff += pointWalked[i] != 0 && (pointX[i] != xs[i] || pointY[i] != ys[i]) ? 1 : 0;
  EXPECT_GT(walkedOff, n / 2);
  for (WalkRoad road : {kWalkRoadLanes, kWalkRoadWideLanes}) {
    if (!walkRoadRuns(road)) {
      printf("road %d skipped: not built here, or this processor cannot take it\n", int(road));
      continue;
    }
    land(road, laneX.data(), laneY.data(), laneWalked.data());
    for (size_t i = 0; i < n; ++i) {
      ASSERT_TRUE(memcmp(&laneX[i], &pointX[i], 4) == 0 && memcmp(&laneY[i], &pointY[i], 4) == 0 &&
                  laneWalked[i] == pointWalked[i])
          << "road " << road << ", point (" << xs[i] << ", " << ys[i] << "): lanes (" << laneX[i] << ", "
          << laneY[i] << "), points (" << pointX[i] << ", " << pointY[i] << ")";
    }
  }
  // The frame's corners as grids of integer points: whole rows (longer than
  // a stretch), a unit's width from the image's edge and across the tile
  // edge at 512, and blocks narrower than eight lanes, in bands of three rows.
  struct Block {
    int32_t left, columns;
  } const blocks[] = {{-1, width + 2}, {-1, 130}, {447, 130}, {505, 7}, {596, 5}};
  for (WalkRoad road : {kWalkRoadPoints, kWalkRoadLanes, kWalkRoadWideLanes}) {
    if (!walkRoadRuns(road)) continue;
    for (const Block& b : blocks) {
      for (int32_t top = -1; top <= height; top += 3) {
        const int32_t rows = height + 1 - top < 3 ? height + 1 - top : 3;
        const size_t count = size_t(rows) * size_t(b.columns);
        std::vector<float> gridX(count), gridY(count);
        std::vector<uint8_t> gridWalked(count);
        nearestOpaqueGridOn(road, view, b.left, top, b.columns, rows, gridX.data(), gridY.data(), gridWalked.data());
        for (size_t i = 0; i < count; ++i) {
          const int32_t x = b.left + int32_t(i % size_t(b.columns));
          const int32_t y = top + int32_t(i / size_t(b.columns));
          const size_t at = size_t(y + 1) * size_t(width + 2) + size_t(x + 1);
          ASSERT_TRUE(memcmp(&gridX[i], &pointX[at], 4) == 0 && memcmp(&gridY[i], &pointY[at], 4) == 0 &&
                      gridWalked[i] == pointWalked[at])
              << "grid, road " << road << ", point (" << x << ", " << y << "): (" << gridX[i] << ", " << gridY[i]
              << "), points (" << pointX[at] << ", " << pointY[at] << ")";
        }
      }
    }
  }
  pixelStoreDestroy(&opaque);
  pixelStoreDestroy(&field);
}

}  // namespace

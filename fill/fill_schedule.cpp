#include "fill/fill_schedule.h"

#include <stddef.h>
#include <string.h>

#include "fill/fill_roads.h"
#include "fill/fill_rows.h"

// The pixel road, which every other road reproduces, and the one place where
// a road is chosen (fill_roads.h tells the roads apart).

namespace {

// ---- the pixel road ----------------------------------------------------------------------------

// The accessors of the store's own kind, inline, so that each level is worked
// flat for its kind: the same conversions as readUnitPixel and writeUnitPixel
// (stored value times valueToUnit in single precision; unit value times
// unitToValue, truncated; float bits as they are).
template <int32_t kKind>
inline void readPixel(int32_t x, int32_t y, const PixelStore* store, int32_t level, float out[4]) {
  if (kKind == kKindRgba8 || kKind == kKindRgba16) {
    int32_t c[4];
    if (kKind == kKindRgba8) {
      readU8x4(x, y, store, level, c);
    } else {
      readU16x4(x, y, store, level, c);
    }
    const float scale = store->valueToUnit;
    out[0] = float(c[0]) * scale;
    out[1] = float(c[1]) * scale;
    out[2] = float(c[2]) * scale;
    out[3] = float(c[3]) * scale;
  } else if (kKind == kKindRgbaFloat) {
    uint32_t w[4];
    readWord4(x, y, store, level, w);
    memcpy(out, w, sizeof w);
  } else {
    readUnitPixel(x, y, store, level, out);
  }
}

template <int32_t kKind>
inline void writePixel(int32_t x, int32_t y, PixelStore* store, int32_t level, const float rgba[4]) {
  if (kKind == kKindRgba8 || kKind == kKindRgba16) {
    const float scale = store->unitToValue;
    const int32_t c[4] = {truncToInt32(rgba[0] * scale), truncToInt32(rgba[1] * scale),
                          truncToInt32(rgba[2] * scale), truncToInt32(rgba[3] * scale)};
    if (kKind == kKindRgba8) {
      writeU8x4(x, y, store, level, c);
    } else {
      writeU16x4(x, y, store, level, c);
    }
  } else if (kKind == kKindRgbaFloat) {
    uint32_t w[4];
    memcpy(w, rgba, sizeof w);
    writeWord4(x, y, store, level, w);
  } else {
    writeUnitPixel(x, y, store, level, rgba);
  }
}


template <int32_t kKind>
void diffuseLevelByPixel(PixelStore* store, int32_t level, int32_t passes) {
  const int32_t width = store->levelWidth[level];
  const int32_t height = store->levelHeight[level];

  // Alphas too faint to count are cleared, so that such a pixel is a hole below.
  for (int32_t y = 0; y < height; ++y) {
    for (int32_t x = 0; x < width; ++x) {
      float p[4];
      readPixel<kKind>(x, y, store, level, p);
      if (kCoverFloor > double(p[3])) p[3] = 0.0f;
      writePixel<kKind>(x, y, store, level, p);
    }
  }

  // Red-black passes: the first half visits the pixels with x + y even, the
  // second those with x + y odd. A pixel sees only pixels of the other colour,
  // so a half-pass does not depend on its own order, and a hole's rim moves in
  // by at most one pixel per half-pass.
  for (int32_t pass = 0; pass < passes; ++pass) {
    for (int32_t parity = 0; parity < 2; ++parity) {
      for (int32_t y = 0; y < height; ++y) {
        for (int32_t x = (parity ^ y) & 1; x < width; x += 2) {
          float p[4];
          readPixel<kKind>(x, y, store, level, p);
          if (p[3] != 0.0f) continue;
          // Reads clamp: at an edge the hole stands in for its missing
          // neighbour and adds nothing.
          float up[4];
          float left[4];
          float right[4];
          float down[4];
          readPixel<kKind>(x, y - 1, store, level, up);
          readPixel<kKind>(x - 1, y, store, level, left);
          readPixel<kKind>(x + 1, y, store, level, right);
          readPixel<kKind>(x, y + 1, store, level, down);
          float filled[4];
          if (neighbourMean(up, left, right, down, filled)) writePixel<kKind>(x, y, store, level, filled);
        }
      }
    }
  }

  // From here on a covered pixel counts as full: soft pixels keep their own
  // colour and weigh as solid colour in the levels above.
  for (int32_t y = 0; y < height; ++y) {
    for (int32_t x = 0; x < width; ++x) {
      float p[4];
      readPixel<kKind>(x, y, store, level, p);
      p[3] = p[3] == 0.0f ? 0.0f : 1.0f;
      writePixel<kKind>(x, y, store, level, p);
    }
  }
}

template <int32_t kKind>
void reduceColoursByPixel(PixelStore* store, int32_t level) {
  const int32_t target = level + 1;
  const int32_t width = store->levelWidth[target];
  const int32_t height = store->levelHeight[target];
  for (int32_t oy = 0; oy < height; ++oy) {
    for (int32_t ox = 0; ox < width; ++ox) {
      float r = 0.0f;
      float g = 0.0f;
      float b = 0.0f;
      float a = 0.0f;
      // Past the end of an odd level the clamped read repeats the edge pixel,
      // which then weighs twice.
      const int32_t sx = 2 * ox;
      const int32_t sy = 2 * oy;
      const int32_t offsets[4][2] = {{0, 0}, {1, 0}, {0, 1}, {1, 1}};
      for (const auto& offset : offsets) {
        float q[4];
        readPixel<kKind>(sx + offset[0], sy + offset[1], store, level, q);
        if (kCoverFloor > double(q[3])) q[3] = 0.0f;
        addWeighted(q, &r, &g, &b, &a);
      }
      float pixel[4];
      weightedMean(r, g, b, a, pixel);
      writePixel<kKind>(ox, oy, store, target, pixel);
    }
  }
}


template <int32_t kKind>
void expandIntoByPixel(PixelStore* store, int32_t level, float limit) {
  const int32_t width = store->levelWidth[level];
  const int32_t height = store->levelHeight[level];
  for (int32_t y = 0; y < height; ++y) {
    for (int32_t x = 0; x < width; ++x) {
      float p[4];
      readPixel<kKind>(x, y, store, level, p);
      if (!(double(p[3]) > kHoleAlpha)) {
        // Pixel x of this level reads the level above at x / 2, a quarter
        // pixel off its geometric centre; that offset belongs to the picture.
        // Below the top the kernel reads level + 1; for the level just under
        // the top it is held to the level itself, which by then is closed.
        const float fx = float(x) * 0.5f;
        const float fy = float(y) * 0.5f;
        filterUnitPixelAt(store, level + 1, 0.0f, fx, fy, p);
        for (int32_t c = 0; c < 3; ++c) p[c] = clampColour(p[c], limit);
      }
      p[3] = 1.0f;
      writePixel<kKind>(x, y, store, level, p);
    }
  }
}

}  // namespace

FillRoad fillRoadFor(const PixelStore* store) {
  if (!rowRoadTakes(store)) return kFillRoadPixels;
  return fillLanesBuilt() ? kFillRoadLanes : kFillRoadRows;
}

void diffuseLevelOn(FillRoad road, PixelStore* store, int32_t level, int32_t passes) {
  if (passes < 1) return;
  if (road != kFillRoadPixels && rowRoadTakes(store)) {
    diffuseLevelByRows(store, level, passes, road == kFillRoadLanes && fillLanesBuilt());
    return;
  }
  switch (store->kind) {
    case kKindRgba8: diffuseLevelByPixel<kKindRgba8>(store, level, passes); return;
    case kKindRgba16: diffuseLevelByPixel<kKindRgba16>(store, level, passes); return;
    case kKindRgbaFloat: diffuseLevelByPixel<kKindRgbaFloat>(store, level, passes); return;
    default: diffuseLevelByPixel<-1>(store, level, passes); return;
  }
}

void reduceColoursOn(FillRoad road, PixelStore* store, int32_t level) {
  // The reduce rewrites whole pixels: any scale takes the rows.
  const int32_t kind = store->kind;
  if (road != kFillRoadPixels && (kind == kKindRgba8 || kind == kKindRgba16 || kind == kKindRgbaFloat)) {
    reduceColoursByRows(store, level, road == kFillRoadLanes && fillLanesBuilt());
    return;
  }
  reduceColoursByPixel<-1>(store, level);
}

void expandIntoOn(FillRoad road, PixelStore* store, int32_t level) {
  const int32_t kind = store->kind;
  const bool integerKind = kind == kKindRgba8 || kind == kKindRgba16 || kind == kKindGray8 || kind == kKindGray16;
  const float limit = integerKind ? 1.0f : kFloatColourLimit;
  // The level read: level + 1, held below the top. Where that is the level
  // itself, the pixels read are the ones being rewritten and the order of
  // the pixel road is part of the result. Elsewhere nothing written is read
  // again, and the row road takes the pixels a run of columns at a time.
  int32_t readLevel = level + 1 < 0 ? 0 : level + 1;
  if (readLevel > store->topLevel - 1) readLevel = store->topLevel - 1;
  if (road != kFillRoadPixels && readLevel != level && rowRoadTakes(store)) {
    expandIntoByRows(store, level, readLevel, limit, road == kFillRoadLanes && fillLanesBuilt());
    return;
  }
  switch (kind) {
    case kKindRgba8: expandIntoByPixel<kKindRgba8>(store, level, limit); return;
    case kKindRgba16: expandIntoByPixel<kKindRgba16>(store, level, limit); return;
    case kKindRgbaFloat: expandIntoByPixel<kKindRgbaFloat>(store, level, limit); return;
    default: expandIntoByPixel<-1>(store, level, limit); return;
  }
}

void fillLevelsOn(FillRoad road, PixelStore* store, int32_t passes) {
  // A source that could not be loaded holds no pixels to fill.
  if (store == nullptr || store->tiles == nullptr) return;
  const int32_t top = store->topLevel;
  if (top == 0) return;
  for (int32_t level = 0; level < top; ++level) {
    diffuseLevelOn(road, store, level, passes);
    reduceColoursOn(road, store, level);
  }
  for (int32_t level = top - 1; level >= 0; --level) expandIntoOn(road, store, level);
}

void diffuseLevel(PixelStore* store, int32_t level, int32_t passes) {
  diffuseLevelOn(fillRoadFor(store), store, level, passes);
}

void reduceColours(PixelStore* store, int32_t level) { reduceColoursOn(fillRoadFor(store), store, level); }

void expandInto(PixelStore* store, int32_t level) { expandIntoOn(fillRoadFor(store), store, level); }

void fillLevels(PixelStore* store, int32_t passes) {
  if (store == nullptr || store->tiles == nullptr) return;
  fillLevelsOn(fillRoadFor(store), store, passes);
}

#include "fill/fill_schedule.h"

#include "store/pixel_store.h"
#include "store/resample.h"

namespace {

// Adds one neighbour's colour, weighted by its alpha, to the sums.
inline void addWeighted(const float q[4], float* r, float* g, float* b, float* a) {
  *r += q[0] * q[3];
  *g += q[1] * q[3];
  *b += q[2] * q[3];
  *a += q[3];
}

}  // namespace

void diffuseLevel(PixelStore* store, int32_t level, int32_t passes) {
  if (passes < 1) return;
  const int32_t width = store->levelWidth[level];
  const int32_t height = store->levelHeight[level];

  // Alphas too faint to count are cleared, so that such a pixel is a hole below.
  for (int32_t y = 0; y < height; ++y) {
    for (int32_t x = 0; x < width; ++x) {
      float p[4];
      readUnitPixel(x, y, store, level, p);
      if (kCoverFloor > double(p[3])) p[3] = 0.0f;
      writeUnitPixel(x, y, store, level, p);
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
          readUnitPixel(x, y, store, level, p);
          if (p[3] != 0.0f) continue;
          float r = 0.0f;
          float g = 0.0f;
          float b = 0.0f;
          float a = 0.0f;
          // Reads clamp: at an edge the hole stands in for its missing
          // neighbour and adds nothing.
          float q[4];
          readUnitPixel(x, y - 1, store, level, q);
          addWeighted(q, &r, &g, &b, &a);
          readUnitPixel(x - 1, y, store, level, q);
          addWeighted(q, &r, &g, &b, &a);
          readUnitPixel(x + 1, y, store, level, q);
          addWeighted(q, &r, &g, &b, &a);
          readUnitPixel(x, y + 1, store, level, q);
          addWeighted(q, &r, &g, &b, &a);
          if (double(a) > kNeighbourFloor) {
            const float filled[4] = {r / a, g / a, b / a, 1.0f};
            writeUnitPixel(x, y, store, level, filled);
          }
        }
      }
    }
  }

  // From here on a covered pixel counts as full: soft pixels keep their own
  // colour and weigh as solid colour in the levels above.
  for (int32_t y = 0; y < height; ++y) {
    for (int32_t x = 0; x < width; ++x) {
      float p[4];
      readUnitPixel(x, y, store, level, p);
      p[3] = p[3] == 0.0f ? 0.0f : 1.0f;
      writeUnitPixel(x, y, store, level, p);
    }
  }
}

void reduceColours(PixelStore* store, int32_t level) {
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
        readUnitPixel(sx + offset[0], sy + offset[1], store, level, q);
        if (kCoverFloor > double(q[3])) q[3] = 0.0f;
        addWeighted(q, &r, &g, &b, &a);
      }
      float pixel[4];
      if (a > 0.0f) {
        pixel[0] = r / a;
        pixel[1] = g / a;
        pixel[2] = b / a;
        pixel[3] = 1.0f;
      } else {
        // No term was added: black with alpha 0.
        pixel[0] = r;
        pixel[1] = g;
        pixel[2] = b;
        pixel[3] = 0.0f;
      }
      writeUnitPixel(ox, oy, store, target, pixel);
    }
  }
}

void expandInto(PixelStore* store, int32_t level) {
  const int32_t kind = store->kind;
  const bool integerKind = kind == kKindRgba8 || kind == kKindRgba16 || kind == kKindGray8 || kind == kKindGray16;
  const float limit = integerKind ? 1.0f : kFloatColourLimit;
  const int32_t width = store->levelWidth[level];
  const int32_t height = store->levelHeight[level];
  for (int32_t y = 0; y < height; ++y) {
    for (int32_t x = 0; x < width; ++x) {
      float p[4];
      readUnitPixel(x, y, store, level, p);
      if (!(double(p[3]) > kHoleAlpha)) {
        // Pixel x of this level reads the level above at x / 2, a quarter
        // pixel off its geometric centre; that offset belongs to the picture.
        // Below the top the kernel reads level + 1; for the level just under
        // the top it is held to the level itself, which by then is closed.
        const float fx = float(x) * 0.5f;
        const float fy = float(y) * 0.5f;
        filterUnitPixelAt(store, level + 1, 0.0f, fx, fy, p);
        // The kernel's negative lobes and overshoot end here.
        for (int32_t c = 0; c < 3; ++c) {
          if (0.0f > p[c]) {
            p[c] = 0.0f;
          } else if (p[c] > limit) {
            p[c] = limit;
          }
        }
      }
      p[3] = 1.0f;
      writeUnitPixel(x, y, store, level, p);
    }
  }
}

void fillLevels(PixelStore* store, int32_t passes) {
  // A source that could not be loaded holds no pixels to fill.
  if (store == nullptr || store->tiles == nullptr) return;
  const int32_t top = store->topLevel;
  if (top == 0) return;
  for (int32_t level = 0; level < top; ++level) {
    diffuseLevel(store, level, passes);
    reduceColours(store, level);
  }
  for (int32_t level = top - 1; level >= 0; --level) expandInto(store, level);
}

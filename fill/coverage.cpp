#include "fill/coverage.h"

#include <math.h>

#include "host/blocks.h"
#include "host/plugin_main.h"
#include "run/job_pool.h"
#include "store/pixel_store.h"

namespace {

// The upwind update of one cell from its value and its four neighbours. a is
// the nearer of the two horizontal neighbours, b of the two vertical ones.
// Where they differ by a whole pixel or more the wave comes from one axis
// alone; otherwise the two fronts meet and the quadratic's root is taken.
inline float relaxedValue(float v, float left, float right, float up, float down) {
  const float a = left > right ? right : left;
  const float b = up > down ? down : up;
  const float d = a - b;
  float n;
  if (fabsf(d) >= 1.0f) {
    n = float(double(a > b ? b : a) + 1.0);
  } else {
    n = float((sqrt(2.0 - double(d * d)) + double(b + a)) * 0.5);
  }
  return v > n ? n : v;
}

// One sweep over level 0, the rows in the order of yRising and, within each
// row, the columns in the order of xRising.
//
// The update of a cell reads its four neighbours, each either before or after
// its own update in this sweep: before, the neighbour on the side the x loop
// comes from and the one on the side the y loop comes from; after, the other
// two. A sweep with the columns outermost and one with the rows outermost
// agree on this, so both give the same field, bit for bit; the rows go
// outermost here because a row is contiguous in its tile.
//
// Inside a row the cells are addressed directly in the tile; a neighbour past
// the edge of the field is the cell itself, as the clamping accessors give it.
void sweepRows(PixelStore* field, bool xRising, bool yRising) {
  const int32_t width = field->levelWidth[0];
  const int32_t height = field->levelHeight[0];
  const int32_t tilesAcross = field->tilesAcross[0];
  for (int32_t step = 0; step < height; ++step) {
    const int32_t y = yRising ? step : height - 1 - step;
    const int32_t yUp = y > 0 ? y - 1 : 0;
    const int32_t yDown = y < height - 1 ? y + 1 : height - 1;
    for (int32_t tileStep = 0; tileStep < tilesAcross; ++tileStep) {
      const int32_t tile = xRising ? tileStep : tilesAcross - 1 - tileStep;
      const int32_t x0 = tile * kTileWidth;
      const int32_t count = width - x0 < kTileWidth ? width - x0 : kTileWidth;
      float* row = storePixel<float>(field, 0, x0, y);
      const float* rowUp = storePixel<const float>(field, 0, x0, yUp);
      const float* rowDown = storePixel<const float>(field, 0, x0, yDown);
      // The cells just outside this tile's part of the row, where the row goes on.
      const float* beforeTile = x0 > 0 ? storePixel<const float>(field, 0, x0 - 1, y) : nullptr;
      const float* afterTile = x0 + count < width ? storePixel<const float>(field, 0, x0 + count, y) : nullptr;
      for (int32_t i = 0; i < count; ++i) {
        const int32_t k = xRising ? i : count - 1 - i;
        const float v = row[k];
        if (1.0f > v) continue;  // final: seeds, negatives and values below one pixel
        float left;
        if (k > 0) {
          left = row[k - 1];
        } else {
          left = beforeTile != nullptr ? *beforeTile : v;
        }
        float right;
        if (k + 1 < count) {
          right = row[k + 1];
        } else {
          right = afterTile != nullptr ? *afterTile : v;
        }
        const float n = relaxedValue(v, left, right, rowUp[k], rowDown[k]);
        // Storing v again would leave the same bits.
        if (n != v) row[k] = n;
      }
    }
  }
}

// Truncation toward zero after 1 is taken from a negative value: floor for
// all but the negative integers, which land one below.
int32_t floorLike(double value) {
  if (value < 0.0) value -= 1.0;
  return truncToInt32(value);
}

// The alpha of a source pixel as readUnitPixel gives it: the stored value
// times valueToUnit in single precision, or the float as it stands. Read with
// the accessor of the store's own kind, so that each kind runs flat.
template <int32_t kKind>
inline float unitAlpha(int32_t x, int32_t y, const PixelStore* source, int32_t level) {
  if (kKind == kKindRgba8 || kKind == kKindRgba16) {
    int32_t c[4];
    if (kKind == kKindRgba8) {
      readU8x4(x, y, source, level, c);
    } else {
      readU16x4(x, y, source, level, c);
    }
    return float(c[3]) * source->valueToUnit;
  }
  if (kKind == kKindRgbaFloat) {
    uint32_t w[4];
    readWord4(x, y, source, level, w);
    return bitsToFloat(w[3]);
  }
  float p[4];
  readUnitPixel(x, y, source, level, p);
  return p[3];
}

template <int32_t kKind>
void markSolidPixels(const PixelStore* source, PixelStore* store) {
  const int32_t width = source->levelWidth[0];
  const int32_t height = source->levelHeight[0];
  for (int32_t y = 0; y < height; ++y) {
    for (int32_t x = 0; x < width; ++x) {
      const float alpha = unitAlpha<kKind>(x, y, source, 0);
      writeUnitScalar(x, y, store, 0, double(alpha) >= kSolidAlpha ? 1.0f : 0.0f);
    }
  }
}

template <int32_t kKind>
void seedFrom(const PixelStore* source, PixelStore* field, int32_t level) {
  const int32_t lastX = source->levelWidth[level] - 1;
  const int32_t lastY = source->levelHeight[level] - 1;
  const int32_t width = field->levelWidth[level];
  const int32_t height = field->levelHeight[level];
  for (int32_t y = 0; y < height; ++y) {
    int32_t sy = y - kDistanceMargin;
    sy = sy < 0 ? 0 : (sy > lastY ? lastY : sy);
    for (int32_t x = 0; x < width; ++x) {
      int32_t sx = x - kDistanceMargin;
      sx = sx < 0 ? 0 : (sx > lastX ? lastX : sx);
      const float alpha = unitAlpha<kKind>(sx, sy, source, level);
      // The alpha itself seeds a pixel that is not solid, so that a soft edge
      // puts the zero crossing between pixels.
      writeFloat(x, y, field, level, kSolidAlpha > double(alpha) ? alpha : kFarDistance);
    }
  }
}

void runBoxPass(PixelStore* store, int32_t level, VRect rect, JobKind kind, int32_t back, int32_t forward) {
  JobRequest request = makeJobRequest(0);
  request.passStore = store;
  request.passLevel = level;
  request.rect = rect;
  request.radiusA = back;
  request.radiusB = forward;
  runJob(kind, kind == kJobBoxRows ? kTilingRowBands : kTilingColumnBands, request);
}

}  // namespace

PixelStore* buildOpaqueStore(const PixelStore* source) {
  const int32_t width = source->levelWidth[0];
  const int32_t height = source->levelHeight[0];
  PixelStore* store = pixelStoreCreate(width, height, kKindGray8, 0, false);
  if (store == nullptr) return nullptr;
  switch (source->kind) {
    case kKindRgba8: markSolidPixels<kKindRgba8>(source, store); break;
    case kKindRgba16: markSolidPixels<kKindRgba16>(source, store); break;
    case kKindRgbaFloat: markSolidPixels<kKindRgbaFloat>(source, store); break;
    default: markSolidPixels<-1>(source, store); break;
  }
  return store;
}

void seedDistanceStore(const PixelStore* source, PixelStore* field, int32_t level) {
  switch (source->kind) {
    case kKindRgba8: seedFrom<kKindRgba8>(source, field, level); return;
    case kKindRgba16: seedFrom<kKindRgba16>(source, field, level); return;
    case kKindRgbaFloat: seedFrom<kKindRgbaFloat>(source, field, level); return;
    default: seedFrom<-1>(source, field, level); return;
  }
}

void relaxDistanceCell(int32_t x, int32_t y, PixelStore* field) {
  const float v = readFloat(x, y, field, 0);
  if (1.0f > v) return;
  const float left = readFloat(x - 1, y, field, 0);
  const float right = readFloat(x + 1, y, field, 0);
  const float up = readFloat(x, y - 1, field, 0);
  const float down = readFloat(x, y + 1, field, 0);
  writeFloatNoCheck(x, y, field, 0, relaxedValue(v, left, right, up, down));
}

void sweepDistance(PixelStore* field) {
  // x rising, y rising; x falling, y rising; both falling; x rising, y falling.
  sweepRows(field, true, true);
  sweepRows(field, false, true);
  sweepRows(field, false, false);
  sweepRows(field, true, false);
}

void invertDistanceStore(PixelStore* field) {
  const int32_t width = field->levelWidth[0];
  const int32_t height = field->levelHeight[0];
  for (int32_t y = 0; y < height; ++y) {
    for (int32_t x = 0; x < width; ++x) {
      const float v = readFloatUnclamped(x, y, field, 0);
      writeFloatNoCheck(x, y, field, 0, v == 0.0f ? kFarDistance : -v);
    }
  }
}

SmoothReach smoothReach(float radius) {
  const double r = double(radius) * 13.0 / 30.0;
  SmoothReach reach;
  reach.hi = floorLike(r + 0.5);
  reach.lo = floorLike((r - 0.5) + 0.5);
  return reach;
}

void smoothStore(PixelStore* store, int32_t level, VRect rect, float radius) {
  const SmoothReach reach = smoothReach(radius);
  const int32_t hi = reach.hi;
  const int32_t lo = reach.lo;
  // Three boxes make a bell; their placements alternate so that the bell's
  // centre stays within half a cell of the cell it is written to.
  runBoxPass(store, level, rect, kJobBoxRows, lo, hi);
  runBoxPass(store, level, rect, kJobBoxColumns, lo, hi);
  runBoxPass(store, level, rect, kJobBoxRows, hi, lo);
  runBoxPass(store, level, rect, kJobBoxColumns, hi, lo);
  if (hi - 1 >= 0) {
    runBoxPass(store, level, rect, kJobBoxRows, hi - 1, hi);
    runBoxPass(store, level, rect, kJobBoxColumns, hi - 1, hi);
  }
}

void buildFillFields(PixelStore* source) {
  ParamBlock* params = hostContext.paramBlock;
  if (params == nullptr) return;
  params->distanceStore = nullptr;
  params->spareStore = nullptr;
  // A source that could not be loaded has no pixels to derive anything from;
  // its failure was reported when it was made.
  if (source == nullptr || source->tiles == nullptr) {
    params->opaqueStore = nullptr;
    return;
  }
  const VRect r = levelRect(source, 0);
  const int32_t width = r.right - r.left;
  const int32_t height = r.bottom - r.top;

  params->distanceStore = pixelStoreCreate(width + kDistanceGrowth, height + kDistanceGrowth, kKindFloat, 0, true);
  params->opaqueStore = buildOpaqueStore(source);
  if (params->distanceStore == nullptr || params->opaqueStore == nullptr) {
    // Out of memory for a store of the run: reported as for the source store.
    setFailure(kErrSourceStore, kResultSourceFailed);
  }
  PixelStore* field = params->distanceStore;
  if (field == nullptr) return;

  seedDistanceStore(source, field, 0);
  // The depth of solid pixels, measured from the pixels that are not solid.
  sweepDistance(field);
  invertDistanceStore(field);
  // The distance of bare pixels, measured from the covered ones.
  sweepDistance(field);
  smoothStore(field, 0, levelRect(field, 0), kFieldSmoothRadius);
}

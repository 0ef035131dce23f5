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
  // Both candidates are formed and one is chosen, which the processor does
  // without a jump; the root of a negative number is never chosen.
  const float alone = float(double(a > b ? b : a) + 1.0);
  const float meeting = float((sqrt(2.0 - double(d * d)) + double(b + a)) * 0.5);
  const float n = fabsf(d) >= 1.0f ? alone : meeting;
  return v > n ? n : v;
}

// One cell of a sweep, addressed in its tile; a neighbour past the edge of
// the field is the cell itself, as the clamping accessors give it.
inline void relaxInTile(PixelStore* field, int32_t x, int32_t y, int32_t maxX, int32_t maxY) {
  float* cell = storePixel<float>(field, 0, x, y);
  const float v = *cell;
  if (1.0f > v) return;  // final: seeds, negatives and values below one pixel
  float left = v;
  if ((x & kTileMask) != 0) {
    left = cell[-1];
  } else if (x > 0) {
    left = *storePixel<float>(field, 0, x - 1, y);
  }
  float right = v;
  if (x < maxX) right = (x & kTileMask) != kTileMask ? cell[1] : *storePixel<float>(field, 0, x + 1, y);
  float up = v;
  if ((y & kTileMask) != 0) {
    up = cell[-kTileWidth];
  } else if (y > 0) {
    up = *storePixel<float>(field, 0, x, y - 1);
  }
  float down = v;
  if (y < maxY) down = (y & kTileMask) != kTileMask ? cell[kTileWidth] : *storePixel<float>(field, 0, x, y + 1);
  *cell = relaxedValue(v, left, right, up, down);
}

// Rows that a sweep carries along together.
constexpr int32_t kSweepBand = 8;

// One sweep over level 0 in the order of rows and columns given.
//
// The update of a cell reads its four neighbours, each either before or after
// its own update in this sweep: before, the neighbour on the side the x loop
// comes from and the one on the side the y loop comes from; after, the other
// two. Any order of visiting that keeps those two before and those two after
// gives the same field, bit for bit: columns outermost, rows outermost, or
// the order used here. A band of rows is swept together, each row one cell
// behind the row before it, so that the cells updated side by side do not
// wait on each other and the processor can overlap their arithmetic; a single
// row would be one long chain, each cell waiting on its predecessor.
void sweepOnce(PixelStore* field, bool xRising, bool yRising) {
  const int32_t width = field->levelWidth[0];
  const int32_t height = field->levelHeight[0];
  const int32_t maxX = width - 1;
  const int32_t maxY = height - 1;
  for (int32_t band = 0; band < height; band += kSweepBand) {
    const int32_t rows = height - band < kSweepBand ? height - band : kSweepBand;
    for (int32_t step = 0; step < width + rows - 1; ++step) {
      // Row j of the band is at column step - j of its walk.
      const int32_t firstRow = step - maxX > 0 ? step - maxX : 0;
      const int32_t endRow = step + 1 < rows ? step + 1 : rows;
      for (int32_t j = firstRow; j < endRow; ++j) {
        const int32_t i = step - j;
        const int32_t x = xRising ? i : maxX - i;
        const int32_t y = yRising ? band + j : maxY - (band + j);
        relaxInTile(field, x, y, maxX, maxY);
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
  for (int32_t y = 0; y < height; ++y) {
    for (int32_t x = 0; x < width; ++x) {
      float p[4];
      readUnitPixel(x, y, source, 0, p);
      writeUnitScalar(x, y, store, 0, double(p[3]) >= kSolidAlpha ? 1.0f : 0.0f);
    }
  }
  return store;
}

void seedDistanceStore(const PixelStore* source, PixelStore* field, int32_t level) {
  const int32_t lastX = source->levelWidth[level] - 1;
  const int32_t lastY = source->levelHeight[level] - 1;
  const int32_t width = field->levelWidth[level];
  const int32_t height = field->levelHeight[level];
  for (int32_t y = 0; y < height; ++y) {
    int32_t sy = y - kFieldMargin;
    sy = sy < 0 ? 0 : (sy > lastY ? lastY : sy);
    for (int32_t x = 0; x < width; ++x) {
      int32_t sx = x - kFieldMargin;
      sx = sx < 0 ? 0 : (sx > lastX ? lastX : sx);
      float p[4];
      readUnitPixel(sx, sy, source, level, p);
      // The alpha itself seeds a pixel that is not solid, so that a soft edge
      // puts the zero crossing between pixels.
      writeFloat(x, y, field, level, kSolidAlpha > double(p[3]) ? p[3] : kFarDistance);
    }
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
  sweepOnce(field, true, true);
  sweepOnce(field, false, true);
  sweepOnce(field, false, false);
  sweepOnce(field, true, false);
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

  params->distanceStore = pixelStoreCreate(width + kFieldGrowth, height + kFieldGrowth, kKindFloat, 0, true);
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

// The worker's half of the render: renderUnit on 128 x 128 units of a
// 4096 x 4096 atlas-like layer (opaque islands in a sea of transparency), as
// the render job runs it on a worker. Reports nanoseconds per output pixel.
// And the host's half: the finishing of a unit's 128 x 128 colours into a
// host tile, row by row as writeUnit hands them over, at each depth.
//
// Units: "solid" lies inside an island (every corner stays, one kernel read a
// pixel), "edge" straddles an island's border, "gap" lies in the transparent
// sea between islands (every corner walks, footprints are computed).
#include <benchmark/benchmark.h>

#include <math.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "finish/finish_pixel.h"
#include "finish/host_pixels.h"
#include "grid/opaque_walk.h"
#include "grid/sample_grid.h"
#include "host/blocks.h"
#include "host/plugin_main.h"
#include "run/job_pool.h"
#include "store/pixel_store.h"
#include "store/resample.h"

namespace {

constexpr int32_t kSide = 4096;
constexpr int32_t kCell = 512;  // the atlas's grid: one island per cell

// The island of the atlas cell (cx, cy): a rectangle inset from the cell by
// margins that differ from cell to cell.
struct Island {
  int32_t x0, y0, x1, y1;
};
Island islandOf(int32_t cx, int32_t cy) {
  int32_t left = 24 + (cx * 37 + cy * 11) % 60;
  int32_t top = 24 + (cx * 13 + cy * 29) % 60;
  int32_t right = 24 + (cx * 7 + cy * 41) % 60;
  int32_t bottom = 24 + (cx * 23 + cy * 5) % 60;
  return Island{cx * kCell + left, cy * kCell + top, (cx + 1) * kCell - right, (cy + 1) * kCell - bottom};
}

// Signed distance of a point to the island of its own cell: negative inside.
float islandDistance(float x, float y) {
  int32_t cx = int32_t(floorf(x / float(kCell)));
  int32_t cy = int32_t(floorf(y / float(kCell)));
  cx = cx < 0 ? 0 : (cx > kSide / kCell - 1 ? kSide / kCell - 1 : cx);
  cy = cy < 0 ? 0 : (cy > kSide / kCell - 1 ? kSide / kCell - 1 : cy);
  Island is = islandOf(cx, cy);
  float dx = fmaxf(fmaxf(float(is.x0) - x, x - float(is.x1 - 1)), 0.0f);
  float dy = fmaxf(fmaxf(float(is.y0) - y, y - float(is.y1 - 1)), 0.0f);
  if (dx > 0.0f || dy > 0.0f) return sqrtf(dx * dx + dy * dy) - 1.0f;
  float in = fminf(fminf(x - float(is.x0), float(is.x1 - 1) - x), fminf(y - float(is.y0), float(is.y1 - 1) - y));
  return -(in + 1.0f);
}

struct Atlas {
  InstanceBlock* instance = nullptr;
  ParamBlock* params = nullptr;

  // soft: the field as smoothing leaves it, reaching zero a little outside
  // each island, so that most walks use all their steps or swing.
  explicit Atlas(bool soft = false) {
    instance = static_cast<InstanceBlock*>(calloc(1, sizeof(InstanceBlock)));
    params = static_cast<ParamBlock*>(calloc(1, sizeof(ParamBlock)));
    PixelStore* source = &instance->sourceStore;
    pixelStoreInit(source);
    if (!pixelStoreBuild(source, kSide, kSide, kKindRgba8, 0, false)) abort();
    params->opaqueStore = pixelStoreCreate(kSide, kSide, kKindGray8, 0, false);
    params->distanceStore = pixelStoreCreate(kSide + 18, kSide + 18, kKindFloat, 0, true);
    if (params->opaqueStore == nullptr || params->distanceStore == nullptr) abort();
    params->sampleRate = 1;
    instance->runCols = kSide;
    instance->runRows = kSide;
    instance->wholeFilterRect = VRect{0, 0, kSide, kSide};
    hostContext.instanceBlock = instance;
    hostContext.paramBlock = params;

    // Colours at every level (the filled pyramid), a texture that changes
    // from pixel to pixel.
    for (int32_t level = 0; level <= source->topLevel; ++level)
      for (int32_t y = 0; y < source->levelHeight[level]; ++y)
        for (int32_t x = 0; x < source->levelWidth[level]; ++x) {
          int32_t c[4] = {(x * 37 + y * 11) & 255, (x * 5 + y * 71 + level * 30) & 255, (x ^ y) & 255, 255};
          writeU8x4Unchecked(x, y, source, level, c);
        }
    for (int32_t y = 0; y < kSide; ++y)
      for (int32_t x = 0; x < kSide; ++x)
        writeU8(x, y, params->opaqueStore, 0, islandDistance(float(x), float(y)) < 0.0f ? 255 : 0);
    PixelStore* field = params->distanceStore;
    for (int32_t fy = 0; fy < field->levelHeight[0]; ++fy)
      for (int32_t fx = 0; fx < field->levelWidth[0]; ++fx)
        writeFloat(fx, fy, field, 0,
                   islandDistance(float(fx - kFieldMargin), float(fy - kFieldMargin)) * (soft ? 0.8f : 1.0f) -
                       (soft ? 1.5f : 0.0f));
  }
};

Atlas& atlas(bool soft = false) {
  static Atlas* exact = nullptr;
  static Atlas* smooth = nullptr;
  Atlas*& a = soft ? smooth : exact;
  if (a == nullptr) a = new Atlas(soft);
  hostContext.instanceBlock = a->instance;
  hostContext.paramBlock = a->params;
  return *a;
}

void renderOneUnit(benchmark::State& state, int32_t left, int32_t top) {
  atlas();
  VRect rect{top, left, top + kRenderTileSide, left + kRenderTileSide};
  for (auto _ : state) {
    // As the pool does it: a fresh unit, its grid and zeroed cells, per unit.
    JobUnit unit;
    SampleGrid grid;
    memset(&unit, 0, sizeof unit);
    memset(&grid, 0, sizeof grid);
    unit.kind = kJobRender;
    unit.cursor.unitRect = rect;
    unit.grids = &grid;
    unit.gridCount = 1;
    unit.instance = hostContext.instanceBlock;
    unit.sourceStore = &hostContext.instanceBlock->sourceStore;
    gridAllocate(&unit, &grid, 1);
    renderUnit(&unit);
    benchmark::DoNotOptimize(grid.cells[0].colour[0]);
    gridRelease(&grid, 1);
  }
  const double pixels = double(kRenderTileSide) * kRenderTileSide * double(state.iterations());
  state.SetItemsProcessed(int64_t(pixels));
  // The inverted rate is the time per pixel (printed with its SI prefix: n for ns).
  state.counters["ns_per_pixel"] =
      benchmark::Counter(pixels, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_RenderUnitSolid(benchmark::State& state) {
  // Inside the island of cell (2, 3), well clear of its border.
  renderOneUnit(state, 2 * kCell + 192, 3 * kCell + 192);
}

void BM_RenderUnitEdge(benchmark::State& state) {
  // Across the right border of the island of cell (4, 4) and the gap beyond.
  renderOneUnit(state, 5 * kCell - 96, 4 * kCell + 192);
}

void BM_RenderUnitGap(benchmark::State& state) {
  // The crossing of four cells: transparent sea with island corners around.
  renderOneUnit(state, 3 * kCell - 64, 3 * kCell - 64);
}

void BM_RenderUnitImageCorner(benchmark::State& state) {
  // The top-left unit: corners at x or y = -1 walk from outside the image.
  renderOneUnit(state, 0, 0);
}

// The walk alone on each road, over the soft field: four rows of 130 corners
// through the middle of every 128 x 128 unit of the layer, landed four rows
// at a time as the grid does, so that the walks read the whole field as a
// render does; as points one by one, or (grid 1) as the grid's integer points.
void BM_WalkCorners(benchmark::State& state) {
  const WalkRoad road = WalkRoad(state.range(0));
  const bool grid = state.range(1) != 0;
  atlas(true);
  if (!walkRoadRuns(road)) {
    state.SkipWithError("road not built or not taken by this processor");
    return;
  }
  WalkView view;
  walkViewFromBlocks(&view);
  const int32_t side = kRenderTileSide + 2;
  std::vector<float> xs, ys;
  for (int32_t top = 0; top < kSide; top += kRenderTileSide)
    for (int32_t left = 0; left < kSide; left += kRenderTileSide)
      for (int32_t y = 0; y < 4; ++y)
        for (int32_t x = 0; x < side; ++x) {
          xs.push_back(float(left - 1 + x));
          ys.push_back(float(top + kRenderTileSide / 2 + y));
        }
  std::vector<float> landX(xs.size()), landY(xs.size());
  std::vector<uint8_t> walked(xs.size());
  for (auto _ : state) {
    for (size_t at = 0; at < xs.size(); at += size_t(4 * side)) {
      if (grid) {
        nearestOpaqueGridOn(road, view, int32_t(xs[at]), int32_t(ys[at]), side, 4, &landX[at], &landY[at],
                            &walked[at]);
      } else {
        nearestOpaqueManyOn(road, view, 4 * side, &xs[at], &ys[at], &landX[at], &landY[at], &walked[at]);
      }
    }
    benchmark::DoNotOptimize(landX[0]);
  }
  state.SetItemsProcessed(int64_t(xs.size()) * int64_t(state.iterations()));
}
BENCHMARK(BM_WalkCorners)
    ->ArgNames({"road", "grid"})
    ->Args({kWalkRoadPoints, 0})
    ->Args({kWalkRoadLanes, 0})
    ->Args({kWalkRoadWideLanes, 0})
    ->Args({kWalkRoadWideLanes, 1})
    ->Unit(benchmark::kMillisecond);

// The level-0 reads of the render on each kernel road: a unit's worth of
// points, a pixel centre apiece, nudged off the centre as landing points are,
// in the batches of the sampler.
void BM_LevelZeroReads(benchmark::State& state) {
  const KernelRoad road = KernelRoad(state.range(0));
  PixelStore* store = &atlas().instance->sourceStore;
  if (!kernelRoadRuns(road)) {
    state.SkipWithError("road not built or not taken by this processor");
    return;
  }
  std::vector<float> us, vs;
  for (int32_t y = 0; y < kRenderTileSide; ++y)
    for (int32_t x = 0; x < kRenderTileSide; ++x) {
      us.push_back((float(3 * kCell - 64 + x) + 0.5f + 0.013f * float(y % 7)) / float(kSide));
      vs.push_back((float(3 * kCell - 64 + y) + 0.5f - 0.011f * float(x % 5)) / float(kSide));
    }
  std::vector<float> out(us.size() * 4);
  const int32_t saved = store->kernelRoad;
  store->kernelRoad = road;
  for (auto _ : state) {
    for (size_t at = 0; at < us.size(); at += 64) {
      filterUnitPixelsAtLevelZero(store, 64, &us[at], &vs[at], reinterpret_cast<float(*)[4]>(&out[at * 4]));
    }
    benchmark::DoNotOptimize(out[0]);
  }
  store->kernelRoad = saved;
  const double reads = double(us.size()) * double(state.iterations());
  state.counters["ns_per_read"] = benchmark::Counter(reads, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_LevelZeroReads)
    ->ArgName("road")
    ->Arg(kKernelRoadLanes)
    ->Arg(kKernelRoadSse41)
    ->Unit(benchmark::kMicrosecond);

// ---- the host's half ----------------------------------------------------------------------

// A unit's cursor with its view as a host presents a tile of four planes
// (colour and transparency) at `bits`, no selection mask unless asked, and a
// unit's cells with colours as the sampler leaves them (alpha 1 mostly, some
// partial alpha, some colours above 1 at 32 bits).
struct FinishTile {
  TileCursor cursor;
  std::vector<uint8_t> in;
  std::vector<uint8_t> out;
  std::vector<uint8_t> mask;
  std::vector<SampleCell> cells;
  ParamBlock params;

  FinishTile(int32_t bits, bool withMask) {
    memset(&cursor, 0, sizeof cursor);
    memset(&params, 0, sizeof params);
    params.blendMode = 1;
    hostContext.paramBlock = &params;
    const int32_t side = kRenderTileSide;
    cursor.unitRect = VRect{0, 0, side, side};
    const int32_t rowBytes = side * 4 * (bits / 8);
    in.assign(size_t(rowBytes) * side, 0x40);
    out.assign(size_t(rowBytes) * side, 0);
    mask.assign(size_t(side) * side, 0);
    for (size_t i = 0; i < mask.size(); ++i) mask[i] = uint8_t(i % 7 == 0 ? 128 : 255);
    HostTileView& v = cursor.view;
    v.hasTransparency = true;
    v.planes = 4;
    v.inHiPlane = 3;
    v.inData = in.data();
    v.outData = out.data();
    v.inLayerPlanes = 3;
    v.outLayerPlanes = 3;
    v.inRowBytes = rowBytes;
    v.outRowBytes = rowBytes;
    v.isColorPlanes = true;
    v.isRgbMode = true;
    v.is8Bit = bits == 8;
    v.is16Bit = bits == 16;
    v.is32Bit = bits == 32;
    v.floatMath = v.is32Bit;
    v.haveMask = withMask;
    v.outRect[2] = side;
    v.outRect[3] = side;
    v.inRect[2] = v.maskRect[2] = side;
    v.inRect[3] = v.maskRect[3] = side;
    v.maskData = mask.data();
    v.maskRowBytes = side;
    v.hostSig = 0x3842494D;
    v.outPixelStride = 4;
    v.alphaScaleInt = v.is8Bit ? 255 : v.is16Bit ? 32768 : 1;
    v.colourScale = v.is8Bit ? 255.0f : v.is16Bit ? 32768.0f : 1.0f;
    v.invAlphaScale = float(1.0 / double(v.alphaScaleInt));
    v.invColourScale = float(1.0 / double(v.colourScale));
    cells.assign(size_t(side + 2) * size_t(side + 2), SampleCell());
    for (size_t i = 0; i < cells.size(); ++i) {
      SampleCell& c = cells[i];
      memset(&c, 0, sizeof c);
      c.colour[0] = float(i % 251) / 250.0f;
      c.colour[1] = float(i % 241) / 200.0f;
      c.colour[2] = float(i % 239) / 238.0f;
      c.colour[3] = i % 5 == 0 ? 0.5f : 1.0f;
    }
  }
};

void finishTile(benchmark::State& state, int32_t bits, bool withMask) {
  FinishTile tile(bits, withMask);
  const int32_t side = kRenderTileSide;
  for (auto _ : state) {
    for (int32_t y = 0; y < side; ++y) {
      const SampleCell* first = &tile.cells[size_t(y + 1) * size_t(side + 2) + 1];
      finishRow(y, 0, side, first->colour, ptrdiff_t(sizeof(SampleCell)), tile.cursor, nullptr);
    }
    benchmark::DoNotOptimize(tile.out.data());
  }
  const double pixels = double(side) * side * double(state.iterations());
  state.counters["ns_per_pixel"] =
      benchmark::Counter(pixels, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  hostContext.paramBlock = nullptr;
}

// The same tile through finishPixel, one call a pixel: the row loop's reference.
void BM_FinishTile8PixelByPixel(benchmark::State& state) {
  FinishTile tile(8, false);
  const int32_t side = kRenderTileSide;
  for (auto _ : state) {
    for (int32_t y = 0; y < side; ++y) {
      for (int32_t x = 0; x < side; ++x) {
        const SampleCell& c = tile.cells[size_t(y + 1) * size_t(side + 2) + size_t(x + 1)];
        PixelValue sample = {c.colour[0], c.colour[1], c.colour[2], c.colour[3]};
        finishPixel(x, y, &sample, tile.cursor, nullptr);
      }
    }
    benchmark::DoNotOptimize(tile.out.data());
  }
  const double pixels = double(side) * side * double(state.iterations());
  state.counters["ns_per_pixel"] =
      benchmark::Counter(pixels, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  hostContext.paramBlock = nullptr;
}

void BM_FinishTile8(benchmark::State& state) { finishTile(state, 8, false); }
void BM_FinishTile8Masked(benchmark::State& state) { finishTile(state, 8, true); }
void BM_FinishTile16(benchmark::State& state) { finishTile(state, 16, false); }
void BM_FinishTile32(benchmark::State& state) { finishTile(state, 32, false); }

BENCHMARK(BM_RenderUnitSolid)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RenderUnitEdge)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RenderUnitGap)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RenderUnitImageCorner)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FinishTile8PixelByPixel)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_FinishTile8)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_FinishTile8Masked)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_FinishTile16)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_FinishTile32)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();

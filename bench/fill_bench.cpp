// The three phases that prepare the fill on a large 8-bit layer: the level
// pass, the coverage fields (opaque map, sweeps, smoothing jobs) and the fill
// schedule; and the fill schedule again at 16 bits and in floats. The layer is
// 4096 x 4096 with islands of soft-edged discs over about a quarter of it, the
// rest transparent.
//
// Time is the wall clock of the timed part alone; the counter cpu_ms is the
// processor time of the whole process over the same part (all threads), which
// other work on the machine disturbs far less.
//
//   fill_bench --benchmark_counters_tabular=true
#include <benchmark/benchmark.h>
#include <math.h>
#include <string.h>

#include <chrono>
#include <ctime>

#include "fill/coverage.h"
#include "fill/fill_schedule.h"
#include "fill/reduce.h"
#include "host/blocks.h"
#include "host/plugin_main.h"
#include "store/pixel_store.h"

namespace {

constexpr int32_t kSide = 4096;

// A host record and blocks of our own, enough for the job pool.
struct BenchHost {
  FilterRecord record;
  ParamBlock params;
  int16_t result = 0;
  BenchHost() {
    memset(&record, 0, sizeof(record));
    memset(&params, 0, sizeof(params));
    params.runStage = kRunStageWhole;
    params.progressDone = -1;
    hostContext.filterRecord = &record;
    hostContext.paramBlock = &params;
    hostContext.instanceBlock = nullptr;
    hostContext.resultWord = &result;
  }
};

BenchHost& benchHost() {
  static BenchHost host;
  return host;
}

// Small deterministic generator, so that every run sees the same layer.
uint32_t nextRandom(uint32_t* state) {
  *state = *state * 1664525u + 1013904223u;
  return *state >> 8;
}

// Discs with an edge one pixel soft, dropped at random until about a quarter
// of the layer is covered; colours follow the position.
void paintIslands(PixelStore* store) {
  const int32_t w = store->levelWidth[0];
  const int32_t h = store->levelHeight[0];
  for (int32_t y = 0; y < h; ++y) {
    for (int32_t x = 0; x < w; ++x) {
      const int32_t c[4] = {(x * 7) & 255, (y * 3) & 255, ((x + y) >> 4) & 255, 0};
      writeU8x4(x, y, store, 0, c);
    }
  }
  uint32_t state = 12345u;
  int64_t covered = 0;
  const int64_t goal = int64_t(w) * h / 4;
  while (covered < goal) {
    const int32_t radius = 8 + int32_t(nextRandom(&state) % uint32_t(w / 24 + 1));
    const int32_t cx = int32_t(nextRandom(&state) % uint32_t(w));
    const int32_t cy = int32_t(nextRandom(&state) % uint32_t(h));
    for (int32_t y = cy - radius - 1; y <= cy + radius + 1; ++y) {
      for (int32_t x = cx - radius - 1; x <= cx + radius + 1; ++x) {
        if (x < 0 || y < 0 || x >= w || y >= h) continue;
        const double d = sqrt(double((x - cx) * (x - cx) + (y - cy) * (y - cy)));
        double a = (double(radius) + 0.5 - d) * 255.0;
        if (a <= 0.0) continue;
        if (a > 255.0) a = 255.0;
        int32_t c[4];
        readU8x4(x, y, store, 0, c);
        if (c[3] == 0) ++covered;
        if (int32_t(a) > c[3]) c[3] = int32_t(a);
        writeU8x4(x, y, store, 0, c);
      }
    }
  }
}

// The layer loaded and its levels reduced, made once.
PixelStore* loadedLayer() {
  static PixelStore* layer = nullptr;
  if (layer == nullptr) {
    benchHost();
    layer = pixelStoreCreate(kSide, kSide, kKindRgba8, 0, false);
    paintIslands(layer);
    buildLevels(layer, 0);
  }
  return layer;
}

// The same layer at 16 bits (values times 32768 / 255) or in floats (over
// 255), levels reduced, made once per kind.
PixelStore* loadedLayerOf(int32_t kind) {
  if (kind == kKindRgba8) return loadedLayer();
  static PixelStore* layers[2] = {nullptr, nullptr};
  PixelStore*& layer = layers[kind == kKindRgba16 ? 0 : 1];
  if (layer == nullptr) {
    const PixelStore* bytes = loadedLayer();
    layer = pixelStoreCreate(kSide, kSide, kind, 0, false);
    for (int32_t y = 0; y < kSide; ++y) {
      for (int32_t x = 0; x < kSide; ++x) {
        int32_t c[4];
        readU8x4(x, y, bytes, 0, c);
        if (kind == kKindRgba16) {
          const int32_t wide[4] = {c[0] * 32768 / 255, c[1] * 32768 / 255, c[2] * 32768 / 255, c[3] * 32768 / 255};
          writeU16x4(x, y, layer, 0, wide);
        } else {
          const float unit[4] = {float(c[0]) / 255.0f, float(c[1]) / 255.0f, float(c[2]) / 255.0f,
                                 float(c[3]) / 255.0f};
          uint32_t w[4];
          memcpy(w, unit, sizeof w);
          writeWord4(x, y, layer, 0, w);
        }
      }
    }
    buildLevels(layer, 0);
  }
  return layer;
}

// Copies every tile of `from` into `to`, which has the same geometry.
void copyStore(const PixelStore* from, PixelStore* to) {
  for (int32_t i = 0; i < from->tileCount; ++i) {
    const StoreTile& tile = from->tiles[i];
    memcpy(to->tiles[i].pixels, tile.pixels, size_t(tile.rows + kTileSpareRows) * kTileWidth * from->pixelBytes);
  }
}

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The processor time of the timed parts, summed over the iterations, as a
// per-iteration counter in milliseconds.
struct CpuClock {
  double total = 0.0;
  std::clock_t start = 0;
  void begin() { start = std::clock(); }
  void end() { total += double(std::clock() - start) * 1000.0 / CLOCKS_PER_SEC; }
  void report(benchmark::State& state) const {
    state.counters["cpu_ms"] = benchmark::Counter(total / double(state.iterations()));
  }
};

void BM_BuildLevels(benchmark::State& state) {
  PixelStore* layer = loadedLayer();
  PixelStore* work = pixelStoreCreate(kSide, kSide, kKindRgba8, 0, false);
  copyStore(layer, work);
  CpuClock cpu;
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    cpu.begin();
    buildLevels(work, 0);
    cpu.end();
    state.SetIterationTime(secondsSince(start));
  }
  cpu.report(state);
  pixelStoreDestroy(&work);
}
BENCHMARK(BM_BuildLevels)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_BuildFillFields(benchmark::State& state) {
  PixelStore* layer = loadedLayer();
  ParamBlock& params = benchHost().params;
  CpuClock cpu;
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    cpu.begin();
    buildFillFields(layer);
    cpu.end();
    state.SetIterationTime(secondsSince(start));
    pixelStoreDestroy(&params.opaqueStore);
    pixelStoreDestroy(&params.distanceStore);
  }
  cpu.report(state);
}
BENCHMARK(BM_BuildFillFields)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);

// The parts of the fields alone: the seed, the sweeps with the inversion, and
// the smoothing.
void BM_FieldSeed(benchmark::State& state) {
  PixelStore* layer = loadedLayer();
  PixelStore* field = pixelStoreCreate(kSide + kDistanceGrowth, kSide + kDistanceGrowth, kKindFloat, 0, true);
  CpuClock cpu;
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    cpu.begin();
    seedDistanceStore(layer, field, 0);
    cpu.end();
    state.SetIterationTime(secondsSince(start));
  }
  cpu.report(state);
  pixelStoreDestroy(&field);
}
BENCHMARK(BM_FieldSeed)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_FieldSweeps(benchmark::State& state) {
  PixelStore* layer = loadedLayer();
  PixelStore* field = pixelStoreCreate(kSide + kDistanceGrowth, kSide + kDistanceGrowth, kKindFloat, 0, true);
  CpuClock cpu;
  for (auto _ : state) {
    seedDistanceStore(layer, field, 0);
    const auto start = std::chrono::steady_clock::now();
    cpu.begin();
    sweepDistance(field);
    invertDistanceStore(field);
    sweepDistance(field);
    cpu.end();
    state.SetIterationTime(secondsSince(start));
  }
  cpu.report(state);
  pixelStoreDestroy(&field);
}
BENCHMARK(BM_FieldSweeps)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_FieldSmoothing(benchmark::State& state) {
  benchHost();
  PixelStore* field = pixelStoreCreate(kSide + kDistanceGrowth, kSide + kDistanceGrowth, kKindFloat, 0, true);
  CpuClock cpu;
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    cpu.begin();
    smoothStore(field, 0, levelRect(field, 0), kFieldSmoothRadius);
    cpu.end();
    state.SetIterationTime(secondsSince(start));
  }
  cpu.report(state);
  pixelStoreDestroy(&field);
}
BENCHMARK(BM_FieldSmoothing)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);

// The fill schedule of a layer of the given kind, on a fresh copy each time
// (the fill works in place).
void BM_FillLevels(benchmark::State& state) {
  const int32_t kind = int32_t(state.range(0));
  PixelStore* layer = loadedLayerOf(kind);
  PixelStore* work = pixelStoreCreate(kSide, kSide, kind, 0, false);
  CpuClock cpu;
  for (auto _ : state) {
    copyStore(layer, work);
    const auto start = std::chrono::steady_clock::now();
    cpu.begin();
    fillLevels(work, kFillPasses);
    cpu.end();
    state.SetIterationTime(secondsSince(start));
  }
  cpu.report(state);
  pixelStoreDestroy(&work);
}
BENCHMARK(BM_FillLevels)
    ->Arg(kKindRgba8)
    ->Arg(kKindRgba16)
    ->Arg(kKindRgbaFloat)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);

}  // namespace

BENCHMARK_MAIN();

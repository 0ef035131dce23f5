// Pixel store and resampling speed: each five-tap kernel per kind on its
// one-tile road and on its general (tile-crossing or clamped) road, the unit
// entry with and without a level blend, the accessors' read throughput and the
// cost of a store's kernel table. One iteration is one sample, so the time per
// iteration is the time per sample.
#include <benchmark/benchmark.h>

#include <stdint.h>

#include <vector>

#include "store/pixel_store.h"
#include "store/resample.h"

namespace {

constexpr int32_t kWidth = 2048;
constexpr int32_t kHeight = 1536;
constexpr int kPositions = 4096;

uint32_t nextRandom(uint32_t* state) {
  *state = *state * 1664525u + 1013904223u;
  return *state >> 8;
}

// One store per kind, filled with noise, made once.
PixelStore* benchStore(int32_t kind) {
  static PixelStore* stores[10] = {};
  if (stores[kind] != nullptr) return stores[kind];
  PixelStore* s = pixelStoreCreate(kWidth, kHeight, kind, 0, false);
  uint32_t state = 7;
  for (int32_t level = 0; level <= s->topLevel; ++level) {
    for (int32_t y = 0; y < s->levelHeight[level]; ++y) {
      for (int32_t x = 0; x < s->levelWidth[level]; ++x) {
        const uint32_t r = nextRandom(&state);
        const float unit[4] = {float(r & 0xff) / 255.0f, float((r >> 8) & 0xff) / 255.0f,
                               float((r >> 16) & 0xff) / 255.0f, 1.0f};
        writeUnitPixel(x, y, s, level, unit);
      }
    }
  }
  stores[kind] = s;
  return s;
}

struct Point {
  float x;
  float y;
};

// Positions walk the image as a render does, one pixel (plus a random phase)
// per sample along a row, so that the kernel rather than the memory is timed.

// Interior: a 64 x 64 patch inside one tile; every block lies in the tile.
std::vector<Point> interiorPoints() {
  std::vector<Point> points;
  uint32_t state = 1;
  for (int n = 0; n < kPositions; ++n) {
    const float fx = float(nextRandom(&state) % 128) / 128.0f;
    const float fy = float(nextRandom(&state) % 128) / 128.0f;
    points.push_back({float(512 + 200 + n % 64) + fx, float(300 + n / 64) + fy});
  }
  return points;
}

// General: half the blocks across the border between two tile columns, half
// clamped at the image's left edge, walking down.
std::vector<Point> generalPoints() {
  std::vector<Point> points;
  uint32_t state = 2;
  for (int n = 0; n < kPositions; ++n) {
    const float fx = float(nextRandom(&state) % 128) / 128.0f;
    const float fy = float(nextRandom(&state) % 128) / 128.0f;
    const float y = float(100 + n / 2 % 1024) + fy;
    if (n % 2 == 0) {
      points.push_back({510.0f + fx, y});  // the block spans columns 508..513
    } else {
      points.push_back({fx - 0.5f, y});  // columns -2..2, clamped
    }
  }
  return points;
}

template <int32_t kKind>
void runKernel(benchmark::State& state, const std::vector<Point>& points) {
  const PixelStore* s = benchStore(kKind);
  size_t i = 0;
  for (auto _ : state) {
    float r, g, b, a;
    const Point& p = points[i];
    filterPixel<kKind>(s, 0, p.x, p.y, &r, &g, &b, &a);
    benchmark::DoNotOptimize(r);
    benchmark::DoNotOptimize(a);
    i = (i + 1) & (kPositions - 1);
  }
  state.SetItemsProcessed(int64_t(state.iterations()));
}

template <int32_t kKind>
void BM_KernelInterior(benchmark::State& state) {
  static const std::vector<Point> points = interiorPoints();
  runKernel<kKind>(state, points);
}

template <int32_t kKind>
void BM_KernelGeneral(benchmark::State& state) {
  static const std::vector<Point> points = generalPoints();
  runKernel<kKind>(state, points);
}

BENCHMARK(BM_KernelInterior<kKindRgba8>)->Name("Kernel/rgba8/interior");
BENCHMARK(BM_KernelGeneral<kKindRgba8>)->Name("Kernel/rgba8/general");
BENCHMARK(BM_KernelInterior<kKindRgba16>)->Name("Kernel/rgba16/interior");
BENCHMARK(BM_KernelGeneral<kKindRgba16>)->Name("Kernel/rgba16/general");
BENCHMARK(BM_KernelInterior<kKindRgbaFloat>)->Name("Kernel/float/interior");
BENCHMARK(BM_KernelGeneral<kKindRgbaFloat>)->Name("Kernel/float/general");

// The footprint sampler's entry: unit coordinates, dispatch, scaling; frac 0
// reads one level, a fraction two.
void BM_UnitPixel(benchmark::State& state) {
  const PixelStore* s = benchStore(int32_t(state.range(0)));
  const float frac = state.range(1) == 0 ? 0.0f : 0.5f;
  uint32_t seed = 3;
  std::vector<Point> points;
  for (int n = 0; n < kPositions; ++n) {
    // About one pixel apart along a row of a patch, as neighbouring output pixels land.
    const float jitter = float(nextRandom(&seed) % 1024) / 1024.0f;
    points.push_back(
        {(700.0f + float(n % 64) + jitter) / float(kWidth), (300.0f + float(n / 64) + jitter) / float(kHeight)});
  }
  size_t i = 0;
  for (auto _ : state) {
    float out[4];
    filterUnitPixel(s, 0, frac, points[i].x, points[i].y, out);
    benchmark::DoNotOptimize(out);
    i = (i + 1) & (kPositions - 1);
  }
  state.SetItemsProcessed(int64_t(state.iterations()));
}
BENCHMARK(BM_UnitPixel)->ArgNames({"kind", "blend"})->ArgsProduct({{3, 4, 9}, {0, 1}});

// Accessor throughput: a row-major sweep of one 512 x 512 tile's worth of
// pixels per iteration, through the clamping reader of the kind.
void BM_ReadU8x4(benchmark::State& state) {
  const PixelStore* s = benchStore(kKindRgba8);
  for (auto _ : state) {
    int32_t sum = 0;
    for (int32_t y = 0; y < 512; ++y) {
      for (int32_t x = 0; x < 512; ++x) {
        int32_t c[4];
        readU8x4(x + 700, y + 300, s, 0, c);
        sum += c[0] + c[3];
      }
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * 512 * 512);
}
BENCHMARK(BM_ReadU8x4);

void BM_ReadUnitPixel(benchmark::State& state) {
  const PixelStore* s = benchStore(int32_t(state.range(0)));
  for (auto _ : state) {
    float sum = 0.0f;
    for (int32_t y = 0; y < 512; ++y) {
      for (int32_t x = 0; x < 512; ++x) {
        float p[4];
        readUnitPixel(x + 700, y + 300, s, 0, p);
        sum += p[0] + p[3];
      }
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * 512 * 512);
}
BENCHMARK(BM_ReadUnitPixel)->ArgName("kind")->Arg(3)->Arg(4)->Arg(9);

void BM_ReadFloatAndBilinear(benchmark::State& state) {
  static PixelStore* s = nullptr;
  if (s == nullptr) {
    s = pixelStoreCreate(kWidth + 18, kHeight + 18, kKindFloat, 0, true);
    for (int32_t y = 0; y < s->levelHeight[0]; ++y)
      for (int32_t x = 0; x < s->levelWidth[0]; ++x) writeFloat(x, y, s, 0, float((x * 31 + y * 17) % 97));
  }
  const bool bilinear = state.range(0) != 0;
  for (auto _ : state) {
    float sum = 0.0f;
    for (int32_t y = 0; y < 512; ++y) {
      for (int32_t x = 0; x < 512; ++x) {
        sum += bilinear ? readBilinear(float(x) + 0.37f, float(y) + 0.61f, s, 0) : readFloat(x, y, s, 0);
      }
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * 512 * 512);
}
BENCHMARK(BM_ReadFloatAndBilinear)->ArgName("bilinear")->Arg(0)->Arg(1);

// What every store initialisation pays for its own kernel table.
void BM_KernelTableFill(benchmark::State& state) {
  static ResampleKernelTable table;
  for (auto _ : state) {
    fillResampleKernelTable(&table);
    benchmark::DoNotOptimize(table.weights2048[2][0]);
  }
}
BENCHMARK(BM_KernelTableFill)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();

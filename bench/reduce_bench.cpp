// The level pass and the line smoothing on a 4096 x 4096 image, one pass at a
// time, called directly on one thread (the pool would spread the same work
// over the processors).
#include <benchmark/benchmark.h>

#include <string.h>

#include <random>

#include "fill/line_smooth.h"
#include "fill/reduce.h"
#include "store/pixel_store.h"

namespace {

constexpr int32_t kSide = 4096;

// Level 0 full of noise; made once per kind and kept for the process.
PixelStore* noiseStore(int32_t kind, bool bordered) {
  PixelStore* store = pixelStoreCreate(kSide, kSide, kind, 0, bordered);
  if (store == nullptr) return nullptr;
  std::mt19937 rng(1);
  const int32_t w = store->levelWidth[0];
  const int32_t h = store->levelHeight[0];
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      switch (kind) {
        case kKindRgba8: {
          const int32_t v[4] = {int32_t(rng() & 255), int32_t(rng() & 255), int32_t(rng() & 255), 255};
          writeU8x4(x, y, store, 0, v);
          break;
        }
        case kKindRgba16: {
          const int32_t v[4] = {int32_t(rng() & 32767), int32_t(rng() & 32767), int32_t(rng() & 32767), 32768};
          writeU16x4(x, y, store, 0, v);
          break;
        }
        case kKindRgbaFloat: {
          const float v[4] = {float(rng() & 65535) / 65536.0f, float(rng() & 65535) / 65536.0f,
                              float(rng() & 65535) / 65536.0f, 1.0f};
          uint32_t words[4];
          memcpy(words, v, sizeof words);
          writeWord4(x, y, store, 0, words);
          break;
        }
        case kKindFloat:
          // A distance field: small values near the edge, far cells at 9000000.
          writeFloat(x, y, store, 0, (rng() % 4 == 0) ? 9000000.0f : float(int32_t(rng() % 201) - 100));
          break;
        default: break;
      }
    }
  return store;
}

PixelStore* storeOfKind(int32_t kind) {
  static PixelStore* stores[10] = {};
  if (stores[kind] == nullptr) stores[kind] = noiseStore(kind, kind == kKindFloat);
  return stores[kind];
}

void reduceLevelOne(benchmark::State& state) {
  const int32_t kind = int32_t(state.range(0));
  PixelStore* store = storeOfKind(kind);
  if (store == nullptr) {
    state.SkipWithError("no memory for the store");
    return;
  }
  const VRect rect = levelRect(store, 1);
  for (auto _ : state) {
    reduceLevelUnit(store, 0, rect);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * int64_t(rect.right) * int64_t(rect.bottom));
  state.SetLabel("pixels of level 1");
}
BENCHMARK(reduceLevelOne)->Arg(kKindRgba8)->Arg(kKindRgba16)->Arg(kKindRgbaFloat)->Unit(benchmark::kMillisecond);

// Every level from the one below, as the level pass does it.
void reduceAllLevels(benchmark::State& state) {
  const int32_t kind = int32_t(state.range(0));
  PixelStore* store = storeOfKind(kind);
  if (store == nullptr) {
    state.SkipWithError("no memory for the store");
    return;
  }
  for (auto _ : state) {
    for (int32_t level = 0; level < store->topLevel; ++level) reduceLevelUnit(store, level, levelRect(store, level + 1));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(reduceAllLevels)->Arg(kKindRgba8)->Arg(kKindRgba16)->Arg(kKindRgbaFloat)->Unit(benchmark::kMillisecond);

// One box pass of the distance field's blur, window (2, 3), over every row or
// every column of the store. The values drift a little with each repetition,
// which changes nothing in the cost.
void smoothPass(benchmark::State& state) {
  const bool vertical = state.range(0) != 0;
  PixelStore* store = storeOfKind(kKindFloat);
  if (store == nullptr) {
    state.SkipWithError("no memory for the store");
    return;
  }
  PassContext context;
  memset(&context, 0, sizeof context);
  if (!makeLineBuffer(&context, store)) {
    state.SkipWithError("no line buffer");
    return;
  }
  const int32_t w = store->levelWidth[0];
  const int32_t h = store->levelHeight[0];
  for (auto _ : state) {
    if (vertical) {
      for (int32_t column = 0; column < w; ++column) filterColumn(store, column, &context, 0, h, 0, 2, 3);
    } else {
      for (int32_t row = 0; row < h; ++row) filterRow(store, row, &context, 0, w, 0, 2, 3);
    }
    benchmark::ClobberMemory();
  }
  freeLineBuffer(&context);
  state.SetItemsProcessed(state.iterations() * int64_t(w) * int64_t(h));
  state.SetLabel(vertical ? "columns" : "rows");
}
BENCHMARK(smoothPass)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// The kernel alone on one line of the image's width.
void boxLineFloatAlone(benchmark::State& state) {
  static float in[kSide];
  static float out[kSide];
  for (int32_t i = 0; i < kSide; ++i) in[i] = float(i % 97);
  for (auto _ : state) {
    boxLineFloat(in, out, 0, kSide, 2, 3);
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(state.iterations() * kSide);
}
BENCHMARK(boxLineFloatAlone);

}  // namespace

BENCHMARK_MAIN();

// A layer as the render sees it: an 8-bit RGBA source, its solid map and its
// distance field (with the margin), hung from blocks of the test's own in
// hostContext.
#pragma once

#include <stdint.h>
#include <stdlib.h>

#include <gtest/gtest.h>

#include "grid/opaque_walk.h"
#include "host/blocks.h"
#include "host/plugin_main.h"
#include "store/pixel_store.h"

namespace testing_support {

struct LayerWorld {
  InstanceBlock* instance;
  ParamBlock* params;
  int32_t width;
  int32_t height;

  LayerWorld(int32_t w, int32_t h) : width(w), height(h) {
    instance = static_cast<InstanceBlock*>(calloc(1, sizeof(InstanceBlock)));
    params = static_cast<ParamBlock*>(calloc(1, sizeof(ParamBlock)));
    pixelStoreInit(&instance->sourceStore);
    EXPECT_TRUE(pixelStoreBuild(&instance->sourceStore, w, h, kKindRgba8, 0, false));
    params->opaqueStore = pixelStoreCreate(w, h, kKindGray8, 0, false);
    params->distanceStore = pixelStoreCreate(w + 2 * kFieldMargin, h + 2 * kFieldMargin, kKindFloat, 0, true);
    params->sampleRate = 1;
    instance->runCols = w;
    instance->runRows = h;
    instance->wholeFilterRect = VRect{0, 0, h, w};
    instance->workerCount = 1;
    hostContext.instanceBlock = instance;
    hostContext.paramBlock = params;
  }
  ~LayerWorld() {
    pixelStoreDestroy(&params->opaqueStore);
    pixelStoreDestroy(&params->distanceStore);
    pixelStoreRelease(&instance->sourceStore);
    hostContext.instanceBlock = nullptr;
    hostContext.paramBlock = nullptr;
    free(params);
    free(instance);
  }
  LayerWorld(const LayerWorld&) = delete;
  LayerWorld& operator=(const LayerWorld&) = delete;

  PixelStore* source() { return &instance->sourceStore; }
  PixelStore* opaque() { return params->opaqueStore; }
  PixelStore* field() { return params->distanceStore; }

  void setOpaque(int32_t x, int32_t y, int32_t value) { writeU8(x, y, opaque(), 0, value); }

  // f(source x, source y) at every cell of the field, margin included.
  template <class F>
  void fillField(F f) {
    PixelStore* s = field();
    for (int32_t fy = 0; fy < s->levelHeight[0]; ++fy)
      for (int32_t fx = 0; fx < s->levelWidth[0]; ++fx)
        writeFloat(fx, fy, s, 0, f(float(fx - kFieldMargin), float(fy - kFieldMargin)));
  }
};

}  // namespace testing_support

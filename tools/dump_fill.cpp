// Looks at the fill by eye: generates a layer with islands on a transparent
// ground, takes it through the same steps as a run (store, levels, coverage
// fields, fill) and writes pictures:
//
//   <prefix>_layer.ppm     the layer over a grey checkerboard
//   <prefix>_filled.ppm    level 0 after the fill
//   <prefix>_level<N>.ppm  the other levels after the fill, enlarged to level 0
//   <prefix>_opaque.ppm    the opaque map
//   <prefix>_distance.ppm  the distance field as a heat map, margin included:
//                          blue inside, red outside, white at the edge,
//                          each side scaled to its own deepest value, with
//                          lighter lines every 8 pixels of distance
//
// Build by hand against the engine's objects or library, for instance
//   g++ -std=c++17 -O2 -ffp-contract=off -I. tools/dump_fill.cpp
//       build/native/libmendaris_engine.a -pthread -ldl -o dump_fill
// and run
//   dump_fill [width height [kind [prefix]]]     kind 3, 4 or 9 (8, 16, 32 bits)
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "fill/coverage.h"
#include "fill/fill_schedule.h"
#include "fill/reduce.h"
#include "host/blocks.h"
#include "host/plugin_main.h"
#include "store/pixel_store.h"

namespace {

uint32_t nextRandom(uint32_t* state) {
  *state = *state * 1664525u + 1013904223u;
  return *state >> 8;
}

// Unit-range colour and alpha of the generated layer at (x, y): a few discs
// and a ring with soft, one-pixel edges, a thin diagonal bar, and a soft
// glow; colours follow position so that the fill's continuation shows.
void layerPixel(int32_t x, int32_t y, int32_t w, int32_t h, float out[4]) {
  const double fx = double(x) / w;
  const double fy = double(y) / h;
  out[0] = float(0.5 + 0.5 * sin(fx * 9.0));
  out[1] = float(0.5 + 0.5 * cos(fy * 7.0));
  out[2] = float(fx * fy);
  double alpha = 0.0;
  uint32_t state = 99u;
  const double unit = double(w < h ? w : h);
  for (int32_t i = 0; i < 9; ++i) {
    const double cx = double(nextRandom(&state) % 1000u) / 1000.0 * w;
    const double cy = double(nextRandom(&state) % 1000u) / 1000.0 * h;
    const double r = unit * (0.03 + double(nextRandom(&state) % 100u) / 1000.0);
    const double d = sqrt((x - cx) * (x - cx) + (y - cy) * (y - cy));
    double a = r + 0.5 - d;
    if (i == 0) a = 0.5 - fabs(d - r * 1.5) + r * 0.15;  // a ring
    a = a < 0.0 ? 0.0 : (a > 1.0 ? 1.0 : a);
    if (a > alpha) alpha = a;
  }
  // A bar two pixels wide.
  const double bar = 1.5 - fabs(double(x - y) - 0.2 * w);
  if (bar > alpha) alpha = bar > 1.0 ? 1.0 : bar;
  // A faint glow: alphas of a few 8-bit steps, near the floors.
  const double gx = x - 0.8 * w;
  const double gy = y - 0.2 * h;
  const double glow = 0.05 * exp(-(gx * gx + gy * gy) / (unit * unit * 0.002));
  if (glow > alpha) alpha = glow;
  out[3] = float(alpha);
}

void writeSource(PixelStore* store) {
  const int32_t w = store->levelWidth[0];
  const int32_t h = store->levelHeight[0];
  for (int32_t y = 0; y < h; ++y) {
    for (int32_t x = 0; x < w; ++x) {
      float p[4];
      layerPixel(x, y, w, h, p);
      if (store->kind == kKindRgbaFloat) {
        uint32_t words[4];
        memcpy(words, p, sizeof words);
        writeWord4(x, y, store, 0, words);
      } else {
        const float scale = store->unitToValue;
        const int32_t c[4] = {int32_t(p[0] * scale), int32_t(p[1] * scale), int32_t(p[2] * scale),
                              int32_t(p[3] * scale)};
        writeChannels(x, y, store, 0, c);
      }
    }
  }
}

struct Picture {
  int32_t width;
  int32_t height;
  std::vector<uint8_t> rgb;
  Picture(int32_t w, int32_t h) : width(w), height(h), rgb(size_t(w) * h * 3, 0) {}
  void set(int32_t x, int32_t y, double r, double g, double b) {
    uint8_t* p = &rgb[(size_t(y) * width + x) * 3];
    const double c[3] = {r, g, b};
    for (int i = 0; i < 3; ++i) p[i] = uint8_t(c[i] <= 0.0 ? 0 : (c[i] >= 1.0 ? 255 : int(c[i] * 255.0 + 0.5)));
  }
  bool save(const std::string& path) const {
    FILE* f = fopen(path.c_str(), "wb");
    if (f == nullptr) return false;
    fprintf(f, "P6\n%d %d\n255\n", width, height);
    const bool ok = fwrite(rgb.data(), 1, rgb.size(), f) == rgb.size();
    return fclose(f) == 0 && ok;
  }
};

// Level `level` of the store, shown at the size of level 0.
Picture levelPicture(const PixelStore* store, int32_t level, bool overCheckerboard) {
  const int32_t w = store->levelWidth[0];
  const int32_t h = store->levelHeight[0];
  Picture picture(w, h);
  for (int32_t y = 0; y < h; ++y) {
    for (int32_t x = 0; x < w; ++x) {
      float p[4];
      readUnitPixel(x >> level, y >> level, store, level, p);
      double a = overCheckerboard ? double(p[3]) : 1.0;
      a = a < 0.0 ? 0.0 : (a > 1.0 ? 1.0 : a);
      const double ground = ((x >> 3) + (y >> 3)) & 1 ? 0.55 : 0.75;
      picture.set(x, y, p[0] * a + ground * (1.0 - a), p[1] * a + ground * (1.0 - a), p[2] * a + ground * (1.0 - a));
    }
  }
  return picture;
}

Picture distancePicture(const PixelStore* field) {
  const int32_t w = field->levelWidth[0];
  const int32_t h = field->levelHeight[0];
  // The deepest values inside and outside, leaving out cells no distance reached.
  float reachInside = 1.0f;
  float reachOutside = 1.0f;
  for (int32_t y = 0; y < h; ++y) {
    for (int32_t x = 0; x < w; ++x) {
      const float v = readFloat(x, y, field, 0);
      if (fabsf(v) >= kFarDistance * 0.5f) continue;
      if (v < 0.0f && -v > reachInside) reachInside = -v;
      if (v > 0.0f && v > reachOutside) reachOutside = v;
    }
  }
  Picture picture(w, h);
  for (int32_t y = 0; y < h; ++y) {
    for (int32_t x = 0; x < w; ++x) {
      const float v = readFloat(x, y, field, 0);
      double t = fabs(double(v)) / (v < 0.0f ? reachInside : reachOutside);
      if (t > 1.0) t = 1.0;
      const double line = fmod(fabs(double(v)), 8.0) < 0.75 ? 0.12 : 0.0;
      const double fade = 1.0 - t;
      if (v < 0.0f) {
        picture.set(x, y, fade * 0.9 + line, fade * 0.9 + line, 0.45 + 0.55 * fade + line);
      } else {
        picture.set(x, y, 0.45 + 0.55 * fade + line, fade * 0.9 + line, fade * 0.9 + line);
      }
    }
  }
  return picture;
}

Picture opaquePicture(const PixelStore* opaque) {
  Picture picture(opaque->levelWidth[0], opaque->levelHeight[0]);
  for (int32_t y = 0; y < picture.height; ++y) {
    for (int32_t x = 0; x < picture.width; ++x) {
      const double v = readU8(x, y, opaque, 0) / 255.0;
      picture.set(x, y, v, v, v);
    }
  }
  return picture;
}

}  // namespace

int main(int argc, char** argv) {
  const int32_t width = argc > 2 ? atoi(argv[1]) : 640;
  const int32_t height = argc > 2 ? atoi(argv[2]) : 480;
  const int32_t kind = argc > 3 ? atoi(argv[3]) : kKindRgba8;
  const std::string prefix = argc > 4 ? argv[4] : "fill";
  if (width <= 0 || height <= 0 || (kind != kKindRgba8 && kind != kKindRgba16 && kind != kKindRgbaFloat)) {
    fprintf(stderr, "usage: %s [width height [kind 3|4|9 [prefix]]]\n", argv[0]);
    return 2;
  }

  // A host record and blocks of our own: enough for the job pool.
  FilterRecord record;
  memset(&record, 0, sizeof(record));
  ParamBlock params;
  memset(&params, 0, sizeof(params));
  params.runStage = kRunStageWhole;
  params.progressDone = -1;
  int16_t result = 0;
  hostContext.filterRecord = &record;
  hostContext.paramBlock = &params;
  hostContext.resultWord = &result;

  PixelStore* source = pixelStoreCreate(width, height, kind, 0, false);
  if (source == nullptr) {
    fprintf(stderr, "no memory for a %d x %d store\n", width, height);
    return 1;
  }
  writeSource(source);
  bool ok = levelPicture(source, 0, true).save(prefix + "_layer.ppm");
  buildLevels(source, 0);
  buildFillFields(source);
  if (params.distanceStore == nullptr || params.opaqueStore == nullptr) {
    fprintf(stderr, "the coverage fields could not be made\n");
    return 1;
  }
  fillLevels(source, kFillPasses);

  ok = levelPicture(source, 0, false).save(prefix + "_filled.ppm") && ok;
  for (int32_t level = 1; level < source->topLevel && level <= 4; ++level) {
    ok = levelPicture(source, level, false).save(prefix + "_level" + std::to_string(level) + ".ppm") && ok;
  }
  ok = opaquePicture(params.opaqueStore).save(prefix + "_opaque.ppm") && ok;
  ok = distancePicture(params.distanceStore).save(prefix + "_distance.ppm") && ok;
  printf("%d x %d, kind %d: %d levels; field %d x %d; pictures under %s_*.ppm\n", width, height, kind,
         source->topLevel + 1, params.distanceStore->levelWidth[0], params.distanceStore->levelHeight[0],
         prefix.c_str());

  pixelStoreDestroy(&params.opaqueStore);
  pixelStoreDestroy(&params.distanceStore);
  pixelStoreDestroy(&source);
  return ok ? 0 : 1;
}

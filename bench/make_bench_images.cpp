// Test images for the file-to-file benchmarks, as PNG through OpenImageIO:
//
//   atlas    the stand-in host's generated atlas (the one end_to_end_timing fills)
//   islands  about 75% transparent around textured islands: soft-edged blobs
//            with colour noise inside, as real textures have, on a transparent
//            ground whose colour is black
//
//   make_bench_images KIND SIZE DEPTH OUT.png
//
// The pictures are pure functions of their arguments.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <cmath>
#include <string>
#include <vector>

#include <OpenImageIO/imageio.h>

#include "cli/depth_mapping.h"
#include "plugin_host/scenarios.h"

namespace {

uint32_t hash(uint32_t x, uint32_t y, uint32_t seed) {
  uint32_t h = x * 0x8da6b343u ^ y * 0xd8163841u ^ seed * 0xcb1ab31fu;
  h ^= h >> 15;
  h *= 0x2c1b3c6du;
  h ^= h >> 12;
  h *= 0x297a2d39u;
  h ^= h >> 15;
  return h;
}

double unit(uint32_t h) { return double(h & 0xffffff) / double(0xffffff); }

// Value noise over a lattice of `cell` pixels, smoothly interpolated.
double valueNoise(double x, double y, double cell, uint32_t seed) {
  double fx = x / cell, fy = y / cell;
  int32_t ix = int32_t(std::floor(fx)), iy = int32_t(std::floor(fy));
  double tx = fx - ix, ty = fy - iy;
  tx = tx * tx * (3 - 2 * tx);
  ty = ty * ty * (3 - 2 * ty);
  double a = unit(hash(uint32_t(ix), uint32_t(iy), seed)), b = unit(hash(uint32_t(ix + 1), uint32_t(iy), seed));
  double c = unit(hash(uint32_t(ix), uint32_t(iy + 1), seed)), d = unit(hash(uint32_t(ix + 1), uint32_t(iy + 1), seed));
  return (a + (b - a) * tx) + ((c + (d - c) * tx) - (a + (b - a) * tx)) * ty;
}

// Samples 0..1, four a pixel (RGBA), straight colour.
std::vector<float> islands(int size) {
  std::vector<float> rgba(size_t(size) * size_t(size) * 4, 0.0f);
  double scale = size / 1024.0;
  for (int y = 0; y < size; ++y) {
    for (int x = 0; x < size; ++x) {
      // Islands where a coarse noise field rises above a threshold: about a quarter of the area.
      double field = 0.65 * valueNoise(x, y, 160 * scale, 11) + 0.35 * valueNoise(x, y, 40 * scale, 12);
      double coverage = (field - 0.585) / (0.02);
      if (coverage <= 0) continue;
      if (coverage > 1) coverage = 1;
      float* p = &rgba[(size_t(y) * size_t(size) + size_t(x)) * 4];
      double tone = valueNoise(x, y, 24 * scale, 13);
      for (int c = 0; c < 3; ++c) {
        double base = 0.25 + 0.5 * valueNoise(x, y, 200 * scale, 20 + c);
        double grain = unit(hash(uint32_t(x), uint32_t(y), 30 + c)) - 0.5;
        double v = base * (0.7 + 0.6 * tone) + 0.18 * grain;
        p[c] = float(v < 0 ? 0 : v > 1 ? 1 : v);
      }
      p[3] = float(coverage);
    }
  }
  return rgba;
}

std::vector<float> atlas(int size) {
  standin::Document d = standin::makeAtlasDocument(size, size, 16, 3, 2024);
  std::vector<float> rgba(size_t(size) * size_t(size) * 4);
  for (int y = 0; y < size; ++y)
    for (int x = 0; x < size; ++x)
      for (int c = 0; c < 4; ++c)
        rgba[(size_t(y) * size_t(size) + size_t(x)) * 4 + size_t(c)] =
            float(mendaris_cli::hostToFile16(uint16_t(d.sample(x, y, c))) / 65535.0);
  return rgba;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5 || (strcmp(argv[1], "atlas") != 0 && strcmp(argv[1], "islands") != 0)) {
    fprintf(stderr, "usage: make_bench_images atlas|islands SIZE 8|16 OUT.png\n");
    return 2;
  }
  int size = atoi(argv[2]);
  int depth = atoi(argv[3]);
  std::vector<float> rgba = strcmp(argv[1], "atlas") == 0 ? atlas(size) : islands(size);
  OIIO::TypeDesc type = depth == 16 ? OIIO::TypeDesc::UINT16 : OIIO::TypeDesc::UINT8;
  OIIO::ImageSpec spec(size, size, 4, type);
  spec.attribute("oiio:UnassociatedAlpha", 1);
  auto out = OIIO::ImageOutput::create(argv[4]);
  if (!out || !out->open(argv[4], spec) || !out->write_image(OIIO::TypeDesc::FLOAT, rgba.data()) || !out->close()) {
    fprintf(stderr, "make_bench_images: %s: cannot write\n", argv[4]);
    return 1;
  }
  return 0;
}

// Makes examples/atlas.png, the sample texture atlas of `make demo`: 512 by
// 512 RGBA, a handful of UV islands (a brick panel, a metal disc, foliage, a
// wooden L, a trim strip, a small decal) with anti-aliased edges, textured
// inside, on a transparent ground with wide gaps between them. The colour
// under fully transparent pixels is black, as painting programs export it.
// The picture is a pure function of this program: no clock, no system random.
//
//   g++ -std=c++17 -O2 tools/make_example_atlas.cpp -o /tmp/make_example_atlas -lOpenImageIO -lOpenImageIO_Util
//   /tmp/make_example_atlas examples/atlas.png
#include <stdint.h>
#include <stdio.h>

#include <cmath>
#include <vector>

#include <OpenImageIO/imageio.h>

namespace {

constexpr int kSide = 512;
constexpr int kSubsamples = 4;  // per direction: 16 coverage samples a pixel
constexpr double kPi = 3.14159265358979323846;

struct Colour {
  double r, g, b;
};

// ---- noise -------------------------------------------------------------------------------

uint32_t hash(int32_t x, int32_t y, uint32_t seed) {
  uint32_t h = uint32_t(x) * 0x8da6b343u ^ uint32_t(y) * 0xd8163841u ^ seed * 0xcb1ab31fu;
  h ^= h >> 13;
  h *= 0x5bd1e995u;
  h ^= h >> 15;
  return h;
}

double lattice(int32_t x, int32_t y, uint32_t seed) { return double(hash(x, y, seed) & 0xffff) / 65535.0; }

// Smooth value noise in 0..1, one lattice cell per `scale` pixels.
double valueNoise(double x, double y, double scale, uint32_t seed) {
  x /= scale;
  y /= scale;
  double fx = std::floor(x), fy = std::floor(y);
  int32_t ix = int32_t(fx), iy = int32_t(fy);
  double tx = x - fx, ty = y - fy;
  tx = tx * tx * (3.0 - 2.0 * tx);
  ty = ty * ty * (3.0 - 2.0 * ty);
  double a = lattice(ix, iy, seed), b = lattice(ix + 1, iy, seed);
  double c = lattice(ix, iy + 1, seed), d = lattice(ix + 1, iy + 1, seed);
  return (a + (b - a) * tx) * (1.0 - ty) + (c + (d - c) * tx) * ty;
}

double fractal(double x, double y, double scale, uint32_t seed) {
  return 0.55 * valueNoise(x, y, scale, seed) + 0.3 * valueNoise(x, y, scale / 2.0, seed + 1) +
         0.15 * valueNoise(x, y, scale / 4.0, seed + 2);
}

// A little per-pixel grain, so that the islands are not flat.
double grain(int x, int y, uint32_t seed) { return lattice(x, y, seed) - 0.5; }

Colour mix(Colour a, Colour b, double t) {
  return {a.r + (b.r - a.r) * t, a.g + (b.g - a.g) * t, a.b + (b.b - a.b) * t};
}

Colour shade(Colour c, double k) { return {c.r * k, c.g * k, c.b * k}; }

// ---- islands ---------------------------------------------------------------------------------

struct Point {
  double x, y;
};

bool insidePolygon(const std::vector<Point>& polygon, double x, double y) {
  bool inside = false;
  for (size_t i = 0, j = polygon.size() - 1; i < polygon.size(); j = i++) {
    const Point& a = polygon[i];
    const Point& b = polygon[j];
    if ((a.y > y) != (b.y > y) && x < (b.x - a.x) * (y - a.y) / (b.y - a.y) + a.x) inside = !inside;
  }
  return inside;
}

// A rectangle of the given size about its centre, turned by `degrees`.
bool insideTurnedRect(double x, double y, Point centre, double width, double height, double degrees) {
  double t = degrees * kPi / 180.0;
  double dx = x - centre.x, dy = y - centre.y;
  double u = dx * std::cos(t) + dy * std::sin(t);
  double v = -dx * std::sin(t) + dy * std::cos(t);
  return std::fabs(u) <= width / 2.0 && std::fabs(v) <= height / 2.0;
}

bool insideEllipse(double x, double y, Point centre, double rx, double ry) {
  double dx = (x - centre.x) / rx, dy = (y - centre.y) / ry;
  return dx * dx + dy * dy <= 1.0;
}

const std::vector<Point> kTriangle = {{292, 262}, {474, 300}, {352, 456}};
const std::vector<Point> kLShape = {{34, 290}, {206, 290}, {206, 352}, {112, 352}, {112, 486}, {34, 486}};

// Which island covers a point, 0 for none.
int islandAt(double x, double y) {
  if (insideTurnedRect(x, y, {142, 128}, 190, 126, 11.0)) return 1;
  if (insideEllipse(x, y, {388, 118}, 76, 76) && !insideEllipse(x, y, {388, 118}, 20, 20)) return 2;
  if (insidePolygon(kTriangle, x, y)) return 3;
  if (insidePolygon(kLShape, x, y)) return 4;
  if (insideTurnedRect(x, y, {370, 487}, 250, 16, -4.0)) return 5;
  if (insideEllipse(x, y, {236, 392}, 30, 18)) return 6;
  return 0;
}

// The texture of island `id` at pixel (x, y).
Colour texture(int id, int x, int y) {
  double px = x + 0.5, py = y + 0.5;
  switch (id) {
    case 1: {  // bricks, turned with the panel
      double t = 11.0 * kPi / 180.0;
      double u = (px - 142) * std::cos(t) + (py - 128) * std::sin(t) + 200.0;
      double v = -(px - 142) * std::sin(t) + (py - 128) * std::cos(t) + 200.0;
      double row = std::floor(v / 18.0);
      double offset = std::fmod(row, 2.0) == 0.0 ? 0.0 : 19.0;
      double bu = std::fmod(u + offset, 38.0), bv = std::fmod(v, 18.0);
      bool mortar = bu < 3.0 || bv < 3.0;
      if (mortar) return shade({0.78, 0.75, 0.70}, 0.9 + 0.2 * grain(x, y, 11));
      double brick = lattice(int32_t(std::floor((u + offset) / 38.0)), int32_t(row), 12);
      Colour base = mix({0.62, 0.22, 0.14}, {0.78, 0.40, 0.22}, brick);
      return shade(base, 0.85 + 0.3 * fractal(px, py, 10.0, 13) + 0.12 * grain(x, y, 14));
    }
    case 2: {  // brushed metal, rings about the hub
      double r = std::hypot(px - 388, py - 118);
      double ring = 0.5 + 0.5 * std::sin(r * 0.9 + 3.0 * valueNoise(px, py, 16.0, 21));
      Colour base = mix({0.36, 0.44, 0.56}, {0.70, 0.76, 0.84}, 0.6 * ring + 0.4 * fractal(px, py, 24.0, 22));
      return shade(base, 1.0 + 0.1 * grain(x, y, 23));
    }
    case 3: {  // foliage
      double n = fractal(px, py, 14.0, 31);
      Colour base = mix({0.12, 0.36, 0.10}, {0.50, 0.72, 0.20}, n);
      if (valueNoise(px, py, 5.0, 32) > 0.72) base = mix(base, {0.86, 0.80, 0.30}, 0.6);
      return shade(base, 1.0 + 0.18 * grain(x, y, 33));
    }
    case 4: {  // wood grain running along the long leg
      double w = px * 0.18 + 6.0 * fractal(px, py * 0.25, 20.0, 41);
      double ring = 0.5 + 0.5 * std::sin(w * 2.0 * kPi / 3.0);
      Colour base = mix({0.55, 0.33, 0.14}, {0.85, 0.62, 0.34}, ring);
      return shade(base, 0.92 + 0.16 * fractal(px, py, 6.0, 42) + 0.08 * grain(x, y, 43));
    }
    case 5: {  // a trim strip with rivets
      double along = std::fmod(px, 24.0);
      bool rivet = std::hypot(along - 12.0, py - (487 + (px - 370) * std::tan(-4.0 * kPi / 180.0))) < 3.5;
      Colour base = rivet ? Colour{0.85, 0.82, 0.72} : mix({0.34, 0.16, 0.44}, {0.56, 0.30, 0.66}, fractal(px, py, 12.0, 51));
      return shade(base, 1.0 + 0.1 * grain(x, y, 52));
    }
    case 6: {  // a decal: stripes
      bool stripe = std::fmod(px + py + 400.0, 12.0) < 6.0;
      return shade(stripe ? Colour{0.95, 0.78, 0.10} : Colour{0.12, 0.12, 0.14}, 1.0 + 0.08 * grain(x, y, 61));
    }
    default:
      return {0, 0, 0};
  }
}

uint8_t to8(double v) {
  double s = std::floor(v * 255.0 + 0.5);
  return uint8_t(s < 0.0 ? 0.0 : s > 255.0 ? 255.0 : s);
}

}  // namespace

int main(int argc, char** argv) {
  const char* path = argc > 1 ? argv[1] : "examples/atlas.png";
  std::vector<uint8_t> pixels(size_t(kSide) * kSide * 4, 0);
  for (int y = 0; y < kSide; ++y) {
    for (int x = 0; x < kSide; ++x) {
      // Coverage from the subsamples; the colour from the island most of them fall in.
      int counts[7] = {0};
      for (int sy = 0; sy < kSubsamples; ++sy)
        for (int sx = 0; sx < kSubsamples; ++sx)
          ++counts[islandAt(x + (sx + 0.5) / kSubsamples, y + (sy + 0.5) / kSubsamples)];
      int covered = kSubsamples * kSubsamples - counts[0];
      if (covered == 0) continue;
      int id = 1;
      for (int i = 2; i < 7; ++i)
        if (counts[i] > counts[id]) id = i;
      Colour c = texture(id, x, y);
      uint8_t* p = &pixels[(size_t(y) * kSide + size_t(x)) * 4];
      p[0] = to8(c.r);
      p[1] = to8(c.g);
      p[2] = to8(c.b);
      p[3] = uint8_t((covered * 255 + kSubsamples * kSubsamples / 2) / (kSubsamples * kSubsamples));
    }
  }
  auto out = OIIO::ImageOutput::create(path);
  if (!out) {
    fprintf(stderr, "make_example_atlas: %s: %s\n", path, OIIO::geterror().c_str());
    return 1;
  }
  OIIO::ImageSpec spec(kSide, kSide, 4, OIIO::TypeDesc::UINT8);
  spec.alpha_channel = 3;
  // The colour is straight: the writer must not divide it by alpha.
  spec.attribute("oiio:UnassociatedAlpha", 1);
  spec.attribute("png:compressionLevel", 9);
  spec.attribute("Software", "make_example_atlas (Mendaris K)");
  if (!out->open(path, spec) || !out->write_image(OIIO::TypeDesc::UINT8, pixels.data()) || !out->close()) {
    fprintf(stderr, "make_example_atlas: %s: %s\n", path, out->geterror().c_str());
    return 1;
  }
  printf("%s\n", path);
  return 0;
}

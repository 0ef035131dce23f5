#include "plugin_host/scenarios.h"

#include <math.h>

namespace standin {

namespace {

// Full scale of a sample at each depth, in the host's numbers.
double fullScale(int depth) { return depth == 8 ? 255.0 : depth == 16 ? 32768.0 : 1.0; }

void setValue(Document& d, int32_t x, int32_t y, int plane, double unit) {
  double v = unit * fullScale(d.depth);
  if (d.depth != 32) v = floor(v + 0.5);
  d.setSample(x, y, plane, v);
}

}  // namespace

Document makeIslandDocument(int32_t width, int32_t height, int depth, int colourPlanes, uint64_t seed) {
  Document d = Document::make(width, height, depth, colourPlanes, true);
  Random random(seed);
  struct Island {
    double cx, cy, radius;
    double colour[3];
  };
  int count = 2 + random.below(5);
  Island islands[8];
  for (int i = 0; i < count; ++i) {
    islands[i].cx = random.below(width);
    islands[i].cy = random.below(height);
    double limit = (width < height ? width : height) / 4.0 + 1.0;
    islands[i].radius = 1.0 + random.below(int32_t(limit));
    for (int c = 0; c < 3; ++c) islands[i].colour[c] = random.below(1001) / 1000.0;
  }
  for (int32_t y = 0; y < height; ++y) {
    for (int32_t x = 0; x < width; ++x) {
      double alpha = 0.0;
      const Island* nearest = &islands[0];
      double best = 1e30;
      for (int i = 0; i < count; ++i) {
        double dx = x - islands[i].cx, dy = y - islands[i].cy;
        double dist = sqrt(dx * dx + dy * dy) - islands[i].radius;
        if (dist < best) {
          best = dist;
          nearest = &islands[i];
        }
      }
      // A soft edge of about two pixels.
      alpha = best <= -1.0 ? 1.0 : best >= 1.0 ? 0.0 : 0.5 - best * 0.5;
      for (int c = 0; c < colourPlanes; ++c) {
        double shade = nearest->colour[c] * (0.8 + 0.2 * ((x * 7 + y * 13) % 17) / 16.0);
        double value = alpha > 0.0 ? shade : random.below(1001) / 1000.0;
        setValue(d, x, y, c, value);
      }
      setValue(d, x, y, colourPlanes, alpha);
    }
  }
  return d;
}

Document makeAtlasDocument(int32_t width, int32_t height, int depth, int colourPlanes, uint64_t seed) {
  Document d = Document::make(width, height, depth, colourPlanes, true);
  Random random(seed);
  // Colour noise under the bare ground: the filter must not care what is there.
  for (int32_t y = 0; y < height; ++y)
    for (int32_t x = 0; x < width; ++x)
      for (int c = 0; c < colourPlanes; ++c) setValue(d, x, y, c, random.below(256) / 255.0);
  // Islands on a grid of cells, each a rounded rectangle filling about half of
  // its cell's width and height.
  int cells = 4;
  double cellW = double(width) / cells, cellH = double(height) / cells;
  for (int cy = 0; cy < cells; ++cy) {
    for (int cx = 0; cx < cells; ++cx) {
      double w = cellW * (0.35 + random.below(30) / 100.0);
      double h = cellH * (0.35 + random.below(30) / 100.0);
      double left = cx * cellW + random.below(int32_t(cellW - w) + 1);
      double top = cy * cellH + random.below(int32_t(cellH - h) + 1);
      double radius = (w < h ? w : h) * 0.2;
      double colour[3];
      for (int c = 0; c < 3; ++c) colour[c] = 0.15 + random.below(70) / 100.0;
      int32_t x0 = int32_t(left) - 2, x1 = int32_t(left + w) + 2;
      int32_t y0 = int32_t(top) - 2, y1 = int32_t(top + h) + 2;
      for (int32_t y = y0 < 0 ? 0 : y0; y < (y1 > height ? height : y1); ++y) {
        for (int32_t x = x0 < 0 ? 0 : x0; x < (x1 > width ? width : x1); ++x) {
          // Signed distance to the rounded rectangle.
          double qx = fabs(x + 0.5 - (left + w / 2)) - (w / 2 - radius);
          double qy = fabs(y + 0.5 - (top + h / 2)) - (h / 2 - radius);
          double ox = qx > 0 ? qx : 0, oy = qy > 0 ? qy : 0;
          double dist = sqrt(ox * ox + oy * oy) + (qx > qy ? (qx < 0 ? qx : 0) : (qy < 0 ? qy : 0)) - radius;
          double alpha = dist <= -0.5 ? 1.0 : dist >= 0.5 ? 0.0 : 0.5 - dist;
          if (alpha <= 0.0) continue;
          double texture = 0.85 + 0.15 * (((x / 8) + (y / 8)) % 2);
          for (int c = 0; c < colourPlanes; ++c) setValue(d, x, y, c, colour[c] * texture);
          setValue(d, x, y, colourPlanes, alpha);
        }
      }
    }
  }
  return d;
}

void addDiscMask(Document& d, uint64_t seed) {
  Random random(seed);
  d.mask.assign(size_t(d.width) * size_t(d.height), 0);
  double cx = d.width / 2.0, cy = d.height / 2.0;
  double radius = (d.width < d.height ? d.width : d.height) * (0.3 + random.below(20) / 100.0);
  for (int32_t y = 0; y < d.height; ++y) {
    for (int32_t x = 0; x < d.width; ++x) {
      double dist = sqrt((x - cx) * (x - cx) + (y - cy) * (y - cy)) - radius;
      double m = dist <= -2.0 ? 1.0 : dist >= 2.0 ? 0.0 : 0.5 - dist * 0.25;
      d.mask[size_t(y) * size_t(d.width) + size_t(x)] = uint8_t(floor(m * 255.0 + 0.5));
    }
  }
}

std::vector<Scenario> standardScenarios() {
  std::vector<Scenario> list;
  auto add = [&](const std::string& name, Document d, HostOptions options = HostOptions()) {
    list.push_back(Scenario{name, std::move(d), options});
  };
  add("rgba8-200x150", makeIslandDocument(200, 150, 8, 3, 1));
  add("rgba16-130x97", makeIslandDocument(130, 97, 16, 3, 2));
  add("rgba32-97x130", makeIslandDocument(97, 130, 32, 3, 3));
  add("graya8-150x120", makeIslandDocument(150, 120, 8, 1, 4));
  add("graya16-64x64", makeIslandDocument(64, 64, 16, 1, 5));
  add("graya32-70x40", makeIslandDocument(70, 40, 32, 1, 6));
  {
    Document d = makeIslandDocument(180, 140, 8, 3, 7);
    addDiscMask(d, 7);
    add("rgba8-mask-180x140", std::move(d));
  }
  {
    HostOptions o;
    o.floatCoordH = 10;
    o.floatCoordV = 10;
    add("rgba8-float-coord", makeIslandDocument(150, 150, 8, 3, 8), o);
  }
  {
    HostOptions o;
    o.bigDocument = 2;
    add("rgba16-32bit-coords", makeIslandDocument(140, 100, 16, 3, 9), o);
  }
  add("rgba8-513x40", makeIslandDocument(513, 40, 8, 3, 10));
  add("rgba8-130x1", makeIslandDocument(130, 1, 8, 3, 11));
  add("rgba8-1x1", makeIslandDocument(1, 1, 8, 3, 12));
  return list;
}

}  // namespace standin

// Draws the module's bitmaps and icons and writes them as .bmp and .ico files
// for the resource compiler:
//
//   title_1x.bmp   bitmap 270, 109 x 14, 24 bits: the About box's title at normal density
//   title_2x.bmp   bitmap 271, 218 x 28, 24 bits: the same at double density
//   mendaris_k.ico icon group 256: 16, 32 and 64 pixels, 32 bits with alpha
//   warning.ico    icon group 148: 32 pixels at 4 and at 8 bits
//
// The committed files in resources/ are its output; nothing else draws them.
// The output depends only on this file (and, in the odd last bit of a colour,
// on the maths library). To redraw them, from the repository root:
//
//   g++ -std=c++17 -O2 -Wall -Wextra -o /tmp/make_resource_images tools/make_resource_images.cpp
//   /tmp/make_resource_images resources
//
// Shapes are drawn analytically with 4 x 4 supersampling, so that each size is
// drawn for itself rather than scaled from another; the title text uses a tiny
// built-in pixel font, doubled at double density so that it stays crisp.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace {

struct Rgb {
  double r, g, b;
};

// Straight colour and coverage in 0..1.
struct Rgba {
  double r, g, b, a;
};

struct Image {
  int width = 0;
  int height = 0;
  std::vector<Rgba> pixels;  // top row first
};

Image makeImage(int width, int height, Rgba fill) {
  Image image;
  image.width = width;
  image.height = height;
  image.pixels.assign(size_t(width) * size_t(height), fill);
  return image;
}

Rgba& pixelAt(Image& image, int x, int y) { return image.pixels[size_t(y) * size_t(image.width) + size_t(x)]; }

// Paints colour over a pixel with the given coverage ("over" in straight colour).
void paintOver(Image& image, int x, int y, Rgb colour, double coverage) {
  if (coverage <= 0.0 || x < 0 || y < 0 || x >= image.width || y >= image.height) return;
  Rgba& d = pixelAt(image, x, y);
  double outA = coverage + d.a * (1.0 - coverage);
  if (outA <= 0.0) return;
  d.r = (colour.r * coverage + d.r * d.a * (1.0 - coverage)) / outA;
  d.g = (colour.g * coverage + d.g * d.a * (1.0 - coverage)) / outA;
  d.b = (colour.b * coverage + d.b * d.a * (1.0 - coverage)) / outA;
  d.a = outA;
}

const Rgb kQuince = {0.949, 0.757, 0.271};      // ripe quince yellow
const Rgb kQuinceDeep = {0.839, 0.584, 0.149};  // its shaded side
const Rgb kQuinceLight = {1.000, 0.905, 0.560}; // highlight
const Rgb kBark = {0.290, 0.180, 0.071};        // dark brown: text and stem
const Rgb kLeaf = {0.369, 0.549, 0.192};
const Rgb kLeafDark = {0.247, 0.400, 0.118};
const Rgb kBlack = {0.0, 0.0, 0.0};
const Rgb kSignalYellow = {1.0, 1.0, 0.0};

Rgb mix(Rgb a, Rgb b, double t) {
  return {a.r + (b.r - a.r) * t, a.g + (b.g - a.g) * t, a.b + (b.b - a.b) * t};
}

double clamp01(double v) { return v < 0.0 ? 0.0 : (v > 1.0 ? 1.0 : v); }

// ---- signed distances (negative inside) ----------------------------------------------

double circleDistance(double x, double y, double cx, double cy, double r) {
  return std::hypot(x - cx, y - cy) - r;
}

double roundedBoxDistance(double x, double y, double left, double top, double right, double bottom,
                          double radius) {
  double cx = (left + right) * 0.5, cy = (top + bottom) * 0.5;
  double hx = (right - left) * 0.5 - radius, hy = (bottom - top) * 0.5 - radius;
  double qx = std::fabs(x - cx) - hx, qy = std::fabs(y - cy) - hy;
  double ox = qx > 0.0 ? qx : 0.0, oy = qy > 0.0 ? qy : 0.0;
  double inside = qx > qy ? qx : qy;
  return std::hypot(ox, oy) + (inside < 0.0 ? inside : 0.0) - radius;
}

double ellipseDistance(double x, double y, double cx, double cy, double rx, double ry, double angle) {
  // Not an exact distance, but close enough near the edge for coverage.
  double c = std::cos(angle), s = std::sin(angle);
  double dx = x - cx, dy = y - cy;
  double u = (dx * c + dy * s) / rx, v = (-dx * s + dy * c) / ry;
  return (std::sqrt(u * u + v * v) - 1.0) * (rx < ry ? rx : ry);
}

double smoothUnion(double a, double b, double k) {
  double h = clamp01(0.5 + 0.5 * (b - a) / k);
  return b + (a - b) * h - k * h * (1.0 - h);
}

// Coverage of a pixel by a shape, from a 4 x 4 grid of samples.
template <typename Inside>
double coverage(int px, int py, Inside inside) {
  int hits = 0;
  for (int sy = 0; sy < 4; ++sy)
    for (int sx = 0; sx < 4; ++sx)
      if (inside(px + (sx + 0.5) / 4.0, py + (sy + 0.5) / 4.0)) ++hits;
  return hits / 16.0;
}

// ---- the pixel font ---------------------------------------------------------------------

struct Glyph {
  char letter;
  int width;
  const char* rows[7];
};

// Lower-case letters sit on the same baseline as capitals, with an x-height of 5.
const Glyph kGlyphs[] = {
    {'M', 5, {"X...X", "XX.XX", "X.X.X", "X.X.X", "X...X", "X...X", "X...X"}},
    {'K', 5, {"X...X", "X..X.", "X.X..", "XX...", "X.X..", "X..X.", "X...X"}},
    {'e', 5, {".....", ".....", ".XXX.", "X...X", "XXXXX", "X....", ".XXX."}},
    {'n', 5, {".....", ".....", "XXXX.", "X...X", "X...X", "X...X", "X...X"}},
    {'d', 5, {"....X", "....X", ".XXXX", "X...X", "X...X", "X...X", ".XXXX"}},
    {'a', 5, {".....", ".....", ".XXX.", "....X", ".XXXX", "X...X", ".XXXX"}},
    {'r', 4, {"....", "....", "X.XX", "XX..", "X...", "X...", "X..."}},
    {'i', 1, {"X", ".", "X", "X", "X", "X", "X"}},
    {'s', 4, {"....", "....", ".XXX", "X...", ".XX.", "...X", "XXX."}},
    {' ', 3, {"...", "...", "...", "...", "...", "...", "..."}},
};

const Glyph* findGlyph(char letter) {
  for (const Glyph& glyph : kGlyphs)
    if (glyph.letter == letter) return &glyph;
  return nullptr;
}

int textWidth(const std::string& text) {
  int width = 0;
  for (char letter : text) {
    const Glyph* glyph = findGlyph(letter);
    if (glyph) width += glyph->width + 1;
  }
  return width > 0 ? width - 1 : 0;
}

void drawText(Image& image, const std::string& text, int left, int top, int scale, Rgb colour) {
  int x = left;
  for (char letter : text) {
    const Glyph* glyph = findGlyph(letter);
    if (!glyph) continue;
    for (int row = 0; row < 7; ++row)
      for (int col = 0; col < glyph->width; ++col)
        if (glyph->rows[row][col] == 'X')
          for (int sy = 0; sy < scale; ++sy)
            for (int sx = 0; sx < scale; ++sx)
              paintOver(image, x + col * scale + sx, top + row * scale + sy, colour, 1.0);
    x += (glyph->width + 1) * scale;
  }
}

// ---- the pictures ----------------------------------------------------------------------

// The title: a quince-coloured pill over white with the name in dark brown.
Image drawTitle(int scale) {
  int width = 109 * scale, height = 14 * scale;
  Image image = makeImage(width, height, {1.0, 1.0, 1.0, 1.0});
  double inset = 0.5 * scale;
  double radius = height * 0.5 - inset;
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      double cover = coverage(x, y, [&](double u, double v) {
        return roundedBoxDistance(u, v, inset, inset, width - inset, height - inset, radius) <= 0.0;
      });
      // A soft vertical shade makes the pill read as a fruit skin, not a flat bar.
      Rgb skin = mix(kQuinceLight, kQuince, clamp01((y + 0.5) / height * 1.6));
      paintOver(image, x, y, skin, cover);
    }
  const std::string title = "Mendaris K";
  int left = (width - textWidth(title) * scale) / 2;
  int top = (height - 7 * scale) / 2;
  drawText(image, title, left, top, scale, kBark);
  return image;
}

// The filter's icon: a quince with its stem and a leaf, on transparency.
Image drawQuinceIcon(int size) {
  Image image = makeImage(size, size, {0.0, 0.0, 0.0, 0.0});
  double s = size;
  auto bodyDistance = [&](double u, double v) {
    double lower = circleDistance(u, v, 0.50 * s, 0.63 * s, 0.33 * s);
    double upper = circleDistance(u, v, 0.50 * s, 0.40 * s, 0.21 * s);
    return smoothUnion(lower, upper, 0.10 * s);
  };
  auto leafDistance = [&](double u, double v) {
    return ellipseDistance(u, v, 0.66 * s, 0.17 * s, 0.15 * s, 0.065 * s, -0.45);
  };
  double stemHalf = s >= 32 ? 0.035 * s : 0.5;
  for (int y = 0; y < size; ++y)
    for (int x = 0; x < size; ++x) {
      double stem = coverage(x, y, [&](double u, double v) {
        return std::fabs(u - 0.51 * s) <= stemHalf && v >= 0.08 * s && v <= 0.26 * s;
      });
      paintOver(image, x, y, kBark, stem);

      double cx = x + 0.5, cy = y + 0.5;
      double body = coverage(x, y, [&](double u, double v) { return bodyDistance(u, v) <= 0.0; });
      // Lit from the upper left: lighter there, deeper toward the lower right rim.
      double light = clamp01(std::hypot(cx - 0.38 * s, cy - 0.50 * s) / (0.48 * s));
      Rgb skin = light < 0.5 ? mix(kQuinceLight, kQuince, light * 2.0)
                             : mix(kQuince, kQuinceDeep, (light - 0.5) * 2.0);
      paintOver(image, x, y, skin, body);

      double leaf = coverage(x, y, [&](double u, double v) { return leafDistance(u, v) <= 0.0; });
      Rgb leafColour = mix(kLeaf, kLeafDark, clamp01((cy - 0.12 * s) / (0.12 * s)));
      paintOver(image, x, y, leafColour, leaf);
    }
  return image;
}

// The warning sign of the refusals: a yellow triangle with a black rim and an
// exclamation mark, hard-edged so that it survives 16 colours.
Image drawWarningIcon() {
  const int size = 32;
  Image image = makeImage(size, size, {0.0, 0.0, 0.0, 0.0});
  const double ax = 16.0, ay = 1.5, bx = 1.0, by = 29.5, cx = 31.0, cy = 29.5;
  // Distance of a point from the line through p and q, positive on the inside.
  auto edge = [](double x, double y, double px, double py, double qx, double qy, double ox, double oy) {
    double nx = qy - py, ny = px - qx;
    double length = std::hypot(nx, ny);
    double d = ((x - px) * nx + (y - py) * ny) / length;
    double side = ((ox - px) * nx + (oy - py) * ny) / length;
    return side < 0.0 ? -d : d;
  };
  for (int y = 0; y < size; ++y)
    for (int x = 0; x < size; ++x) {
      double u = x + 0.5, v = y + 0.5;
      double d1 = edge(u, v, ax, ay, bx, by, cx, cy);
      double d2 = edge(u, v, bx, by, cx, cy, ax, ay);
      double d3 = edge(u, v, cx, cy, ax, ay, bx, by);
      double inside = d1 < d2 ? (d1 < d3 ? d1 : d3) : (d2 < d3 ? d2 : d3);
      if (inside < 0.0) continue;
      paintOver(image, x, y, inside < 2.0 ? kBlack : kSignalYellow, 1.0);
    }
  for (int y = 10; y <= 20; ++y)
    for (int x = 14; x <= 17; ++x) {
      bool taper = y >= 18 && (x == 14 || x == 17);  // the stroke narrows toward its foot
      if (!taper) paintOver(image, x, y, kBlack, 1.0);
    }
  for (int y = 23; y <= 26; ++y)  // the dot: a 4 x 4 square with its corners cut
    for (int x = 14; x <= 17; ++x)
      if (!((y == 23 || y == 26) && (x == 14 || x == 17))) paintOver(image, x, y, kBlack, 1.0);
  return image;
}

// ---- file formats ----------------------------------------------------------------------

void put16(std::vector<uint8_t>& out, uint32_t v) {
  out.push_back(uint8_t(v));
  out.push_back(uint8_t(v >> 8));
}

void put32(std::vector<uint8_t>& out, uint32_t v) {
  put16(out, v & 0xFFFF);
  put16(out, v >> 16);
}

uint8_t toByte(double v) { return uint8_t(std::lround(clamp01(v) * 255.0)); }

void putInfoHeader(std::vector<uint8_t>& out, int width, int height, int bitCount, uint32_t imageBytes,
                   uint32_t coloursUsed) {
  put32(out, 40);
  put32(out, uint32_t(width));
  put32(out, uint32_t(height));
  put16(out, 1);
  put16(out, uint32_t(bitCount));
  put32(out, 0);  // no compression
  put32(out, imageBytes);
  put32(out, 2835);  // 72 dpi
  put32(out, 2835);
  put32(out, coloursUsed);
  put32(out, 0);
}

int rowBytes(int width, int bitCount) { return ((width * bitCount + 31) / 32) * 4; }

// A 24-bit bitmap file over white (the About box's background).
std::vector<uint8_t> encodeBmp(const Image& image) {
  int stride = rowBytes(image.width, 24);
  uint32_t imageBytes = uint32_t(stride * image.height);
  std::vector<uint8_t> out;
  out.push_back('B');
  out.push_back('M');
  put32(out, 14 + 40 + imageBytes);
  put32(out, 0);
  put32(out, 14 + 40);
  putInfoHeader(out, image.width, image.height, 24, imageBytes, 0);
  for (int y = image.height - 1; y >= 0; --y) {
    size_t start = out.size();
    for (int x = 0; x < image.width; ++x) {
      const Rgba& p = image.pixels[size_t(y) * size_t(image.width) + size_t(x)];
      out.push_back(toByte(p.b * p.a + (1.0 - p.a)));
      out.push_back(toByte(p.g * p.a + (1.0 - p.a)));
      out.push_back(toByte(p.r * p.a + (1.0 - p.a)));
    }
    out.resize(start + size_t(stride), 0);
  }
  return out;
}

struct PaletteColour {
  uint8_t r, g, b;
};

// The 16 colours every display could show; the 4-bit and the 8-bit warning
// icon both draw from them, so the two look the same.
const PaletteColour kVgaPalette[16] = {
    {0, 0, 0},       {128, 0, 0},   {0, 128, 0},   {128, 128, 0}, {0, 0, 128},   {128, 0, 128},
    {0, 128, 128},   {192, 192, 192}, {128, 128, 128}, {255, 0, 0}, {0, 255, 0},   {255, 255, 0},
    {0, 0, 255},     {255, 0, 255}, {0, 255, 255}, {255, 255, 255},
};

struct IconImage {
  int size;
  int bitCount;
  std::vector<uint8_t> bytes;  // header, palette, colour rows, mask rows
};

std::vector<uint8_t> andMask(const Image& image) {
  int stride = rowBytes(image.width, 1);
  std::vector<uint8_t> mask;
  for (int y = image.height - 1; y >= 0; --y) {
    std::vector<uint8_t> row(size_t(stride), 0);
    for (int x = 0; x < image.width; ++x)
      if (image.pixels[size_t(y) * size_t(image.width) + size_t(x)].a < 0.5 / 255.0)
        row[size_t(x / 8)] |= uint8_t(0x80 >> (x % 8));
    mask.insert(mask.end(), row.begin(), row.end());
  }
  return mask;
}

IconImage encodeIcon32(const Image& image) {
  IconImage icon{image.width, 32, {}};
  std::vector<uint8_t> mask = andMask(image);
  uint32_t colourBytes = uint32_t(image.width * image.height * 4);
  putInfoHeader(icon.bytes, image.width, image.height * 2, 32, colourBytes + uint32_t(mask.size()), 0);
  for (int y = image.height - 1; y >= 0; --y)
    for (int x = 0; x < image.width; ++x) {
      const Rgba& p = image.pixels[size_t(y) * size_t(image.width) + size_t(x)];
      bool clear = p.a < 0.5 / 255.0;
      icon.bytes.push_back(clear ? 0 : toByte(p.b));
      icon.bytes.push_back(clear ? 0 : toByte(p.g));
      icon.bytes.push_back(clear ? 0 : toByte(p.r));
      icon.bytes.push_back(toByte(p.a));
    }
  icon.bytes.insert(icon.bytes.end(), mask.begin(), mask.end());
  return icon;
}

int nearestPaletteIndex(const Rgba& p) {
  int best = 0;
  long bestDistance = -1;
  for (int i = 0; i < 16; ++i) {
    long dr = long(toByte(p.r)) - kVgaPalette[i].r;
    long dg = long(toByte(p.g)) - kVgaPalette[i].g;
    long db = long(toByte(p.b)) - kVgaPalette[i].b;
    long distance = dr * dr + dg * dg + db * db;
    if (bestDistance < 0 || distance < bestDistance) {
      bestDistance = distance;
      best = i;
    }
  }
  return best;
}

// A palette icon of 4 or 8 bits; transparent pixels take index 0 under a set mask bit.
IconImage encodeIconIndexed(const Image& image, int bitCount) {
  IconImage icon{image.width, bitCount, {}};
  int paletteSize = 1 << bitCount;
  int stride = rowBytes(image.width, bitCount);
  std::vector<uint8_t> mask = andMask(image);
  uint32_t colourBytes = uint32_t(stride * image.height);
  putInfoHeader(icon.bytes, image.width, image.height * 2, bitCount, colourBytes + uint32_t(mask.size()),
                uint32_t(paletteSize));
  for (int i = 0; i < paletteSize; ++i) {
    PaletteColour c = i < 16 ? kVgaPalette[i] : PaletteColour{0, 0, 0};
    icon.bytes.push_back(c.b);
    icon.bytes.push_back(c.g);
    icon.bytes.push_back(c.r);
    icon.bytes.push_back(0);
  }
  for (int y = image.height - 1; y >= 0; --y) {
    std::vector<uint8_t> row(size_t(stride), 0);
    for (int x = 0; x < image.width; ++x) {
      const Rgba& p = image.pixels[size_t(y) * size_t(image.width) + size_t(x)];
      int index = p.a < 0.5 / 255.0 ? 0 : nearestPaletteIndex(p);
      if (bitCount == 8)
        row[size_t(x)] = uint8_t(index);
      else
        row[size_t(x / 2)] |= uint8_t(x % 2 == 0 ? index << 4 : index);
    }
    icon.bytes.insert(icon.bytes.end(), row.begin(), row.end());
  }
  icon.bytes.insert(icon.bytes.end(), mask.begin(), mask.end());
  return icon;
}

std::vector<uint8_t> encodeIco(const std::vector<IconImage>& images) {
  std::vector<uint8_t> out;
  put16(out, 0);
  put16(out, 1);  // icon, not cursor
  put16(out, uint32_t(images.size()));
  uint32_t offset = uint32_t(6 + 16 * images.size());
  for (const IconImage& image : images) {
    out.push_back(uint8_t(image.size >= 256 ? 0 : image.size));
    out.push_back(uint8_t(image.size >= 256 ? 0 : image.size));
    out.push_back(uint8_t(image.bitCount < 8 ? (1 << image.bitCount) : 0));
    out.push_back(0);
    put16(out, 1);
    put16(out, uint32_t(image.bitCount));
    put32(out, uint32_t(image.bytes.size()));
    put32(out, offset);
    offset += uint32_t(image.bytes.size());
  }
  for (const IconImage& image : images) out.insert(out.end(), image.bytes.begin(), image.bytes.end());
  return out;
}

bool writeFile(const std::string& path, const std::vector<uint8_t>& bytes) {
  FILE* file = std::fopen(path.c_str(), "wb");
  if (!file) {
    std::fprintf(stderr, "cannot write %s\n", path.c_str());
    return false;
  }
  bool ok = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
  ok = std::fclose(file) == 0 && ok;
  if (ok) std::printf("wrote %s (%zu bytes)\n", path.c_str(), bytes.size());
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  std::string dir = argc > 1 ? argv[1] : "resources";
  bool ok = true;
  ok = writeFile(dir + "/title_1x.bmp", encodeBmp(drawTitle(1))) && ok;
  ok = writeFile(dir + "/title_2x.bmp", encodeBmp(drawTitle(2))) && ok;
  ok = writeFile(dir + "/mendaris_k.ico",
                 encodeIco({encodeIcon32(drawQuinceIcon(16)), encodeIcon32(drawQuinceIcon(32)),
                            encodeIcon32(drawQuinceIcon(64))})) &&
       ok;
  Image warning = drawWarningIcon();
  ok = writeFile(dir + "/warning.ico", encodeIco({encodeIconIndexed(warning, 4), encodeIconIndexed(warning, 8)})) &&
       ok;
  return ok ? 0 : 1;
}

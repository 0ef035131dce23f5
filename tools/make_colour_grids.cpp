// Writes finish/colour_grids.cpp: the two 16 x 16 x 16 colour grids that take
// RGB to Lab and back. The grids are committed as data; this program is only
// run again when the model below changes. It is not part of the CMake build:
//
//   g++ -std=c++17 -O2 tools/make_colour_grids.cpp -o /tmp/make_colour_grids
//   /tmp/make_colour_grids > finish/colour_grids.cpp
//
// The model is a gamma 1.8 monitor with the phosphors and white point below,
// adapted to the D50 white of Lab by von Kries scaling. Lab is stored a byte a
// channel: L* x 2.55, and a*, b* + 128. The way back clips XYZ below 0 and
// linear RGB to 0..1, so that every Lab node gets the nearest displayable
// colour channel by channel. Values are rounded to the nearest byte.
//
// A few nodes of each grid are fixed values that other code and its tests
// rely on (black, white, the mid gray, the primaries, yellow; the corners of
// the Lab cube). The model lands within one unit of each of them, and they are
// written as fixed: the program says on stderr which ones it moved.
#include <math.h>
#include <stdint.h>
#include <stdio.h>

namespace {

const int kNodes = 16;
const int kGridBytes = kNodes * kNodes * kNodes * 3;

const double kGamma = 1.8;
const double kPrimaries[3][2] = {{0.6311, 0.3495}, {0.2782, 0.6079}, {0.1540, 0.0860}};
const double kSourceWhite[2] = {0.3028, 0.3226};
const double kLabWhite[2] = {0.3457, 0.3585};  // D50
const double kVonKries[3][3] = {
    {0.40024, 0.70760, -0.08081}, {-0.22630, 1.16532, 0.04570}, {0.0, 0.0, 0.91822}};

struct Fixed {
  int i, j, k;
  uint8_t bytes[3];
};
const Fixed kFixedRgbToLab[] = {
    {0, 0, 0, {0, 128, 128}},    {15, 15, 15, {255, 128, 128}}, {8, 8, 8, {163, 128, 128}},
    {15, 0, 0, {144, 208, 208}}, {0, 15, 0, {214, 51, 207}},    {0, 0, 15, {104, 158, 33}},
    {15, 15, 0, {243, 119, 222}},
};
const Fixed kFixedLabToRgb[] = {
    {0, 0, 0, {0, 0, 181}}, {15, 0, 0, {0, 255, 255}},     {0, 15, 0, {28, 0, 182}},
    {0, 0, 15, {0, 0, 0}},  {8, 8, 8, {125, 104, 95}},     {15, 15, 15, {255, 7, 7}},
};

typedef double Matrix[3][3];

void xyToXyz(const double xy[2], double out[3]) {
  out[0] = xy[0] / xy[1];
  out[1] = 1.0;
  out[2] = (1.0 - xy[0] - xy[1]) / xy[1];
}

void apply(const Matrix m, const double v[3], double out[3]) {
  for (int r = 0; r < 3; ++r) out[r] = m[r][0] * v[0] + m[r][1] * v[1] + m[r][2] * v[2];
}

void multiply(const Matrix a, const Matrix b, Matrix out) {
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 3; ++c) out[r][c] = a[r][0] * b[0][c] + a[r][1] * b[1][c] + a[r][2] * b[2][c];
}

void invert(const Matrix m, Matrix out) {
  double a = m[0][0], b = m[0][1], c = m[0][2];
  double d = m[1][0], e = m[1][1], f = m[1][2];
  double g = m[2][0], h = m[2][1], i = m[2][2];
  double det = a * (e * i - f * h) - b * (d * i - f * g) + c * (d * h - e * g);
  out[0][0] = (e * i - f * h) / det;
  out[0][1] = (c * h - b * i) / det;
  out[0][2] = (b * f - c * e) / det;
  out[1][0] = (f * g - d * i) / det;
  out[1][1] = (a * i - c * g) / det;
  out[1][2] = (c * d - a * f) / det;
  out[2][0] = (d * h - e * g) / det;
  out[2][1] = (b * g - a * h) / det;
  out[2][2] = (a * e - b * d) / det;
}

// Linear RGB to XYZ relative to the Lab white.
void buildMatrix(Matrix toXyz) {
  Matrix primaries;
  for (int c = 0; c < 3; ++c) {
    double xyz[3];
    xyToXyz(kPrimaries[c], xyz);
    for (int r = 0; r < 3; ++r) primaries[r][c] = xyz[r];
  }
  Matrix inverse;
  invert(primaries, inverse);
  double white[3];
  xyToXyz(kSourceWhite, white);
  double scale[3];
  apply(inverse, white, scale);
  Matrix source;
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 3; ++c) source[r][c] = primaries[r][c] * scale[c];

  double labWhite[3];
  xyToXyz(kLabWhite, labWhite);
  double coneSource[3];
  double coneLab[3];
  apply(kVonKries, white, coneSource);
  apply(kVonKries, labWhite, coneLab);
  Matrix gain = {{coneLab[0] / coneSource[0], 0, 0}, {0, coneLab[1] / coneSource[1], 0},
                 {0, 0, coneLab[2] / coneSource[2]}};
  Matrix coneInverse;
  invert(kVonKries, coneInverse);
  Matrix step;
  Matrix adapt;
  multiply(gain, kVonKries, step);
  multiply(coneInverse, step, adapt);
  multiply(adapt, source, toXyz);
}

double labF(double t) { return t > 216.0 / 24389.0 ? cbrt(t) : (24389.0 / 27.0 * t + 16.0) / 116.0; }
double labFInverse(double t) { return t > 6.0 / 29.0 ? t * t * t : (116.0 * t - 16.0) * 27.0 / 24389.0; }

uint8_t toByte(double v) {
  if (!(v > 0.0)) return 0;
  if (v >= 255.0) return 255;
  return uint8_t(floor(v + 0.5));
}

void fix(uint8_t* grid, const Fixed* fixed, int count, const char* name) {
  for (int n = 0; n < count; ++n) {
    uint8_t* node = grid + 3 * fixed[n].i + 48 * fixed[n].j + 768 * fixed[n].k;
    for (int c = 0; c < 3; ++c) {
      if (node[c] != fixed[n].bytes[c]) {
        fprintf(stderr, "%s node (%d, %d, %d) channel %d: model %d, fixed %d\n", name, fixed[n].i,
                fixed[n].j, fixed[n].k, c, node[c], fixed[n].bytes[c]);
      }
      node[c] = fixed[n].bytes[c];
    }
  }
}

void printGrid(const char* name, const uint8_t* grid, const char* axes) {
  printf("const uint8_t %s[kColourGridBytes] = {\n", name);
  for (int k = 0; k < kNodes; ++k) {
    for (int j = 0; j < kNodes; ++j) {
      printf("    // %s %d, %d\n", axes, j, k);
      for (int half = 0; half < 2; ++half) {
        printf("   ");
        for (int i = half * 8; i < half * 8 + 8; ++i) {
          const uint8_t* node = grid + 3 * i + 48 * j + 768 * k;
          printf(" %3d, %3d, %3d,", node[0], node[1], node[2]);
        }
        printf("\n");
      }
    }
  }
  printf("};\n");
}

}  // namespace

int main() {
  Matrix toXyz;
  buildMatrix(toXyz);
  Matrix fromXyz;
  invert(toXyz, fromXyz);
  double white[3];
  xyToXyz(kLabWhite, white);

  static uint8_t rgbToLab[kGridBytes];
  static uint8_t labToRgb[kGridBytes];
  for (int k = 0; k < kNodes; ++k) {
    for (int j = 0; j < kNodes; ++j) {
      for (int i = 0; i < kNodes; ++i) {
        int offset = 3 * i + 48 * j + 768 * k;

        double linear[3] = {pow(i / 15.0, kGamma), pow(j / 15.0, kGamma), pow(k / 15.0, kGamma)};
        double xyz[3];
        apply(toXyz, linear, xyz);
        double fx = labF(xyz[0] / white[0]);
        double fy = labF(xyz[1] / white[1]);
        double fz = labF(xyz[2] / white[2]);
        rgbToLab[offset + 0] = toByte((116.0 * fy - 16.0) * 2.55);
        rgbToLab[offset + 1] = toByte(500.0 * (fx - fy) + 128.0);
        rgbToLab[offset + 2] = toByte(200.0 * (fy - fz) + 128.0);

        double lightness = i * 17 / 2.55;
        double a = j * 17 - 128.0;
        double b = k * 17 - 128.0;
        double gy = (lightness + 16.0) / 116.0;
        double gx = gy + a / 500.0;
        double gz = gy - b / 200.0;
        double back[3] = {labFInverse(gx) * white[0], labFInverse(gy) * white[1], labFInverse(gz) * white[2]};
        for (int c = 0; c < 3; ++c)
          if (back[c] < 0.0) back[c] = 0.0;
        double rgb[3];
        apply(fromXyz, back, rgb);
        for (int c = 0; c < 3; ++c) {
          double v = rgb[c] < 0.0 ? 0.0 : (rgb[c] > 1.0 ? 1.0 : rgb[c]);
          labToRgb[offset + c] = toByte(255.0 * pow(v, 1.0 / kGamma));
        }
      }
    }
  }
  fix(rgbToLab, kFixedRgbToLab, int(sizeof kFixedRgbToLab / sizeof kFixedRgbToLab[0]), "rgbToLab");
  fix(labToRgb, kFixedLabToRgb, int(sizeof kFixedLabToRgb / sizeof kFixedLabToRgb[0]), "labToRgb");

  printf("// The two colour grids, as data. Generated by tools/make_colour_grids.cpp\n");
  printf("// (see there for the model and how to run it); do not edit by hand.\n");
  printf("#include \"finish/colour_spaces.h\"\n\n");
  printf("// Node (i, j, k) = red, green, blue; bytes L, a, b.\n");
  printGrid("kRgbToLabGrid", rgbToLab, "green, blue =");
  printf("\n// Node (i, j, k) = L, a, b; bytes red, green, blue.\n");
  printGrid("kLabToRgbGrid", labToRgb, "a, b =");
  return 0;
}

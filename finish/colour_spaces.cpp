// HSL, hue/saturation/luma, wheel points and the colour grids. Only the blend
// modes other than the copy reach this code.
#include "finish/colour_spaces.h"

#include <math.h>

#include "store/portable_math.h"

void rgbToHsl(float r, float g, float b, float* h, float* sat, float* l) {
  float maxValue = r;
  if (g > maxValue) maxValue = g;
  if (b > maxValue) maxValue = b;
  float minValue = r;
  if (g < minValue) minValue = g;
  if (b < minValue) minValue = b;

  float lightness = (maxValue + minValue) * 0.5f;
  *l = lightness;
  *h = 0.0f;
  *sat = 0.0f;
  if (lightness <= 0.0f) return;
  float delta = maxValue - minValue;
  if (!(delta > 0.0f)) return;

  if (lightness <= 0.5f) {
    *sat = delta / (maxValue + minValue);
  } else {
    *sat = delta / (2.0f - maxValue - minValue);
  }

  // Distance of each channel below the maximum, as a share of the spread.
  float fr = (maxValue - r) / delta;
  float fg = (maxValue - g) / delta;
  float fb = (maxValue - b) / delta;
  float hueSixths;
  if (r == maxValue) {
    hueSixths = (g != minValue) ? 1.0f - fg : 5.0f + fb;
  } else if (g == maxValue) {
    hueSixths = (b != minValue) ? 3.0f - fb : 1.0f + fr;
  } else {
    hueSixths = (r == minValue) ? 3.0f + fg : 5.0f - fr;
  }
  *h = hueSixths * 0.16666667f;
}

void hslToRgb(float h, float sat, float l, float* r, float* g, float* b) {
  float high = (l <= 0.5f) ? (sat + 1.0f) * l : sat + l - sat * l;
  if (high <= 0.0f) {
    *r = 0.0f;
    *g = 0.0f;
    *b = 0.0f;
    return;
  }
  float low = 2.0f * l - high;
  float hueSixths = h * 6.0f;
  int32_t sector = truncToInt32(hueSixths);
  // The product through `high` is kept as it stands: it rounds differently
  // from a plain (high - low) x fraction.
  float v = (high - low) / high * high * (hueSixths - float(sector));
  float rising = low + v;
  float falling = high - v;
  // A hue of exactly 1.0 gives sector 6, and v is 0 there: red.
  switch (sector) {
    case 1: *r = falling; *g = high;    *b = low;     break;
    case 2: *r = low;     *g = high;    *b = rising;  break;
    case 3: *r = low;     *g = falling; *b = high;    break;
    case 4: *r = rising;  *g = low;     *b = high;    break;
    case 5: *r = high;    *g = low;     *b = falling; break;
    default: *r = high;   *g = rising;  *b = low;     break;
  }
}

float hueBrightness(float h, float sat) {
  float r;
  float g;
  float b;
  hslToRgb(h, sat, 0.5f, &r, &g, &b);
  return float(double(g) * kHueLumaGreen + double(r) * kHueLumaRed + double(b) * kHueLumaBlue);
}

void rgbToHueSatLuma(float r, float g, float b, float* h, float* sat, float* t) {
  float l;
  rgbToHsl(r, g, b, h, sat, &l);
  double y = hueBrightness(*h, *sat);
  double luma;
  if (l > 0.5f) {
    luma = (double(l) - 0.5) * 2.0 * (1.0 - y) + y;
  } else {
    luma = double(l) * 2.0 * y;
  }
  *t = float(luma);
}

void hueSatLumaToRgb(float h, float sat, float t, float* r, float* g, float* b) {
  float y = hueBrightness(h, sat);
  if (y < 0.0f) y = 0.0f;
  if (y > 1.0f) y = 1.0f;
  float l;
  if (t >= 1.0f) {
    l = 1.0f;
  } else if (t <= 0.0f) {
    l = 0.0f;
  } else if (t > y) {
    l = (t - y) / (1.0f - y) * 0.5f + 0.5f;
  } else {
    l = t / y * 0.5f;
  }
  hslToRgb(h, sat, l, r, g, b);
}

void polarToXy(float angle, float radius, float* x, float* y) {
  *x = float(portableCos(double(angle))) * radius;
  *y = float(portableSin(double(angle))) * radius;
}

void xyToPolar(float x, float y, float* angle, float* radius) {
  *radius = sqrtf(x * x + y * y);
  if (y == 0.0f) {
    *angle = (x > 0.0f) ? 0.0f : kWheelPi;
    return;
  }
  // atan2 gives -pi..pi; the lower half of the wheel is carried round by 2 pi,
  // which puts the negative y axis at 3 pi / 2 (the float 4.712389).
  float a = float(portableAtan2(double(y), double(x)));
  if (a < 0.0f) a = a + kWheelTwoPi;
  *angle = a;
}

void gridLookup(const int32_t in[3], int32_t out[3], const uint8_t* grid, float spacing) {
  static const int32_t kStep[3] = {kColourGridStepI, kColourGridStepJ, kColourGridStepK};
  const int32_t lastNode = kColourGridNodes - 1;
  // Inputs are held inside the grid so that no node outside the table is ever
  // addressed; inside the range this changes nothing.
  const float top = float(lastNode) * spacing;

  int32_t f[3];
  int32_t base = 0;
  int32_t step[3];
  for (int c = 0; c < 3; ++c) {
    float x = float(in[c]);
    if (!(x >= 0.0f)) x = 0.0f;
    if (x > top) x = top;
    int32_t node = truncToInt32(x / spacing);
    if (node > lastNode) node = lastNode;
    f[c] = truncToInt32(x - float(node) * spacing);
    base += node * kStep[c];
    // On the last node a step would leave the grid; its weight is zero there
    // (f is 0), so the node itself stands in.
    step[c] = (node < lastNode) ? kStep[c] : 0;
  }

  // Channels by their fraction, largest first; ties may go either way, since
  // the node between two equal fractions gets weight 0.
  int32_t first = 0;
  int32_t second = 1;
  int32_t third = 2;
  if (f[second] > f[first]) { int32_t swap = first; first = second; second = swap; }
  if (f[third] > f[second]) { int32_t swap = second; second = third; third = swap; }
  if (f[second] > f[first]) { int32_t swap = first; first = second; second = swap; }

  const uint8_t* node0 = grid + base;
  const uint8_t* node1 = node0 + step[first];
  const uint8_t* node2 = node1 + step[second];
  const uint8_t* node3 = node2 + step[third];
  int32_t w0 = truncToInt32(spacing - float(f[first]));
  int32_t w1 = f[first] - f[second];
  int32_t w2 = f[second] - f[third];
  int32_t w3 = f[third];
  for (int c = 0; c < 3; ++c) {
    int32_t sum = w0 * node0[c] + w1 * node1[c] + w2 * node2[c] + w3 * node3[c];
    out[c] = sum / 17;
  }
}

void rgbToLab15(const int32_t in[3], int32_t out[3]) {
  gridLookup(in, out, kRgbToLabGrid, kColourGridSpacing15);
}

void labToRgb15(const int32_t in[3], int32_t out[3]) {
  gridLookup(in, out, kLabToRgbGrid, kColourGridSpacing15);
}

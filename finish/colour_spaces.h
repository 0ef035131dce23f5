// Colour representations used by the blend modes that are not plain channel
// arithmetic: HSL, a variant of it whose third value follows perceived
// brightness ("hue, saturation, luma"), polar and Cartesian points on the hue
// wheel, and Lab reached through two stored 16 x 16 x 16 grids.
//
// All of it is single precision unless a function says otherwise, and the
// trigonometry goes through the portable functions so that every build gives
// the same bits.
#pragma once

#include <stdint.h>

// Weights of the brightness of a fully lit hue (double precision).
constexpr double kHueLumaRed = 0.28;
constexpr double kHueLumaGreen = 0.52;
constexpr double kHueLumaBlue = 0.2;

// The wheel's constants, as floats.
constexpr float kWheelPi = 3.1415927f;
constexpr float kWheelThreeHalfPi = 4.712389f;
constexpr float kWheelTwoPi = 6.2831855f;

// A colour grid: 16 x 16 x 16 nodes of 3 bytes; node (i, j, k) lies at byte
// 3i + 48j + 768k, so i is the fastest axis. Nodes are evenly spaced over the
// input range.
constexpr int32_t kColourGridNodes = 16;
constexpr int32_t kColourGridBytes = kColourGridNodes * kColourGridNodes * kColourGridNodes * 3;
constexpr int32_t kColourGridStepI = 3;
constexpr int32_t kColourGridStepJ = 48;
constexpr int32_t kColourGridStepK = 768;

// Node spacing for inputs in the 15-bit range 0..32768 (32768 / 15 as a float).
constexpr float kColourGridSpacing15 = 2184.5334f;

// Red, green, blue (as i, j, k) to lightness and two opponent channels centred
// on 128, a byte each. Black is (0, 128, 128), white (255, 128, 128).
extern const uint8_t kRgbToLabGrid[kColourGridBytes];
// The three Lab bytes (as i, j, k) back to red, green, blue, clipped to the
// RGB range.
extern const uint8_t kLabToRgbGrid[kColourGridBytes];

// HSL: hue 0..1 around the wheel (red at 0, or at 1.0 when it comes out of the
// last sector), saturation 0..1, lightness 0..1. Black and grays have hue and
// saturation 0.
void rgbToHsl(float r, float g, float b, float* h, float* sat, float* l);
// The inverse. A hue of 1.0 (or anything whose sector number is not 1..5)
// takes the sector of red.
void hslToRgb(float h, float sat, float l, float* r, float* g, float* b);

// Brightness of the hue (h, sat) at lightness 0.5: the weighted sum of the
// HSL colour with kHueLuma*, in double, rounded to float.
float hueBrightness(float h, float sat);
// Hue and saturation as in HSL; t is the lightness remapped so that t equals
// the hue's brightness at l = 0.5, 0 at black and 1 at white.
void rgbToHueSatLuma(float r, float g, float b, float* h, float* sat, float* t);
// The inverse: t above the hue's brightness lightens toward white, below it
// darkens toward black.
void hueSatLumaToRgb(float h, float sat, float t, float* r, float* g, float* b);

// A point on the hue wheel from its angle (radians) and radius.
void polarToXy(float angle, float radius, float* x, float* y);
// The angle of (x, y) in 0..2 pi measured from the x axis, and its distance
// from the origin. On the x axis the angle is 0 for x above 0 and pi otherwise
// (the origin included).
void xyToPolar(float x, float y, float* angle, float* radius);

// Tetrahedral interpolation of a colour grid. Each input channel runs from 0
// to 15 x spacing; the weights of the four nodes add up to about `spacing`
// and the weighted byte sum is divided by 17, so that a node byte of 255
// comes out near 255 x spacing / 17 (32760 at kColourGridSpacing15).
// Inputs outside 0..15 x spacing are read as the nearest edge of the grid.
void gridLookup(const int32_t in[3], int32_t out[3], const uint8_t* grid, float spacing);

// 15-bit RGB to 15-bit Lab and back, through the two grids.
void rgbToLab15(const int32_t in[3], int32_t out[3]);
void labToRgb15(const int32_t in[3], int32_t out[3]);

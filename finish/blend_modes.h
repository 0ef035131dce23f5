// The numbered ways of laying a source colour over a destination colour.
//
// The filter itself only ever copies (mode 1); the other modes are the
// engine's vocabulary of blends, selected by another value of the parameter
// block's blendMode. Apart from the copy they work per channel on 15-bit
// integers (full scale 32768, s = trunc(src x 32768), d likewise, arithmetic
// shifts, truncating division) or in floats where the mode says so, and the
// result c of each channel comes back as c x 2^-15.
#pragma once

#include <stdint.h>

#include "finish/pixel_value.h"

enum : int32_t {
  kBlendCopy = 1,
  kBlendMidtoneMix = 2,
  kBlendSelfGain = 3,
  kBlendExclusion = 4,
  kBlendLighten = 5,
  kBlendDarken = 6,
  kBlendAdd = 7,
  kBlendSubtract = 8,
  kBlendMultiply = 9,
  kBlendScreen = 10,
  kBlendHardLight = 11,
  kBlendOverlay = 12,
  kBlendSquareOverlay = 13,
  kBlendExclusionAgain = 14,
  kBlendColour = 15,
  kBlendLuminosity = 16,
  kBlendLinearLight = 17,
  kBlendPinLight = 18,
  kBlendPinLightReversed = 19,
  kBlendVividLight = 20,
  kBlendExtrapolate = 21,
  kBlendSaturation = 22,
  kBlendHue = 23,
  kBlendNegation = 24,
  kBlendCentreDistance = 25,
  kBlendDifference = 26,
  kBlendSoftLight = 27,
  kBlendLighterColour = 28,
  kBlendDarkerColour = 29,
  kBlendColourDodge = 30,
  kBlendColourBurn = 31,
  kBlendSquareMix = 32,
  kBlendDestGain = 33,
  kBlendSourceGain = 34,
  kBlendSquareMixReversed = 35,
  kBlendBitAnd = 36,
  kBlendBitOr = 37,
  kBlendBitXor = 38,
  kBlendProductCurve = 39,
  kBlendPinOfPins = 40,
  kBlendPinOfPinsReversed = 41,
  kBlendOverlayPin = 42,
  kBlendOverlayPinInverted = 43,
  kBlendHardOverlayPin = 44,
  kBlendOverlayHardPin = 45,
  kBlendVividMix = 46,
  kBlendGrayMix = 47,
  kBlendCrossMixSource = 48,
  kBlendCrossMixSourceBack = 49,
  kBlendCrossMixDest = 50,
  kBlendCrossMixDestBack = 51,
  kBlendHardMix = 52,
  kBlendWheelMix = 53,
  kBlendLabMultiply = 54,
  kBlendLabScreen = 55,
  kBlendLabPin = 56,
  kBlendLabPinReversed = 57,
  kBlendQuotient = 58,
  kBlendQuotientLuma = 59,
  kBlendLumaCurveSource = 60,
  kBlendLumaCurveDest = 61,
  kBlendScreenSquared = 62,
  kBlendColourToAlpha = 63,
  kBlendReflect = 64,
  kBlendGlow = 65,
  kBlendSoftReflect = 66,
  kBlendSoftGlow = 67,
  kBlendAddFolded = 68,
  kBlendFoldInvert = 69,
};

// Lays `src` over `dst` by `mode` into `out`. Mode 1 copies all four channels
// of `src` unchanged (colours above 1.0 included). Every other mode quantises
// the colours to steps of 2^-15; a mode of 0 or below, or above 69, gives the
// source so quantised. `out` alpha is `src` alpha in every mode but 63, which
// turns the source alone into colour and coverage. Modes 64 to 67 leave their
// per-channel float results in `src`'s colours. `out` may be `src` or `dst`.
void blendPixel(PixelValue* src, const PixelValue* dst, PixelValue* out, int32_t mode);

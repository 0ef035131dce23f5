// Blend modes: the copy, the quantising fallback, every channel formula on two
// hand-worked pixel pairs, the whole-pixel and float modes, the source used as
// scratch, colour to alpha, and inputs far outside the range.
#include <gtest/gtest.h>

#include <math.h>
#include <stdint.h>
#include <string.h>

#include <limits>

#include "finish/blend_modes.h"
#include "finish/colour_spaces.h"

namespace {

PixelValue px(float r, float g, float b, float a = 1.0f) { return PixelValue{r, g, b, a}; }
PixelValue px15(int32_t r, int32_t g, int32_t b, float a = 1.0f) {
  return PixelValue{r / 32768.0f, g / 32768.0f, b / 32768.0f, a};
}

PixelValue blend(PixelValue src, PixelValue dst, int32_t mode) {
  PixelValue out = {-7.0f, -7.0f, -7.0f, -7.0f};
  blendPixel(&src, &dst, &out, mode);
  return out;
}

// Expects the three colours at c x 2^-15, exactly.
void expect15(const PixelValue& out, int32_t r, int32_t g, int32_t b) {
  EXPECT_EQ(out.r, r / 32768.0f) << "red " << out.r * 32768.0f << " wanted " << r;
  EXPECT_EQ(out.g, g / 32768.0f) << "green " << out.g * 32768.0f << " wanted " << g;
  EXPECT_EQ(out.b, b / 32768.0f) << "blue " << out.b * 32768.0f << " wanted " << b;
}

void expectNear15(const PixelValue& out, int32_t r, int32_t g, int32_t b, int32_t slack) {
  EXPECT_NEAR(out.r * 32768.0f, r, slack) << "red";
  EXPECT_NEAR(out.g * 32768.0f, g, slack) << "green";
  EXPECT_NEAR(out.b * 32768.0f, b, slack) << "blue";
}

// Two pairs on which the channel formulas were worked by hand:
// A: s = (24576, 8192, 16384), d = (8192, 16384, 32768);
// B: s = (4096, 28672, 16384), d = (20480, 2048, 16384).
const PixelValue kSrcA = px(0.75f, 0.25f, 0.5f, 0.625f);
const PixelValue kDstA = px(0.25f, 0.5f, 1.0f, 0.125f);
const PixelValue kSrcB = px(0.125f, 0.875f, 0.5f, 0.375f);
const PixelValue kDstB = px(0.625f, 0.0625f, 0.5f, 1.0f);

struct ChannelRow {
  int32_t mode;
  int32_t a[3];
  int32_t b[3];
};

void checkRows(const ChannelRow* rows, size_t count) {
  for (size_t n = 0; n < count; ++n) {
    const ChannelRow& row = rows[n];
    SCOPED_TRACE(::testing::Message() << "mode " << row.mode);
    PixelValue outA = blend(kSrcA, kDstA, row.mode);
    expect15(outA, row.a[0], row.a[1], row.a[2]);
    EXPECT_EQ(outA.a, kSrcA.a);
    PixelValue outB = blend(kSrcB, kDstB, row.mode);
    expect15(outB, row.b[0], row.b[1], row.b[2]);
    EXPECT_EQ(outB.a, kSrcB.a);
  }
}

// ---- copy and fallback --------------------------------------------------------------------------

TEST(BlendCopy, PassesAllFourChannelsUnchangedAboveFullScaleToo) {
  PixelValue src = px(1.5f, 2.0f, 0.123456f, 0.7f);
  PixelValue dst = px(0.1f, 0.2f, 0.3f, 0.4f);
  PixelValue out = blend(src, dst, kBlendCopy);
  EXPECT_EQ(memcmp(&out, &src, sizeof out), 0);
  PixelValue negative = px(-0.25f, 70000.0f, 1e-9f, -1.0f);
  out = blend(negative, dst, kBlendCopy);
  EXPECT_EQ(memcmp(&out, &negative, sizeof out), 0);
}

TEST(BlendFallback, ModesOutsideTheTableGiveTheSourceQuantised) {
  PixelValue src = px(0.123456f, 1.5f, 0.999999f, 0.3f);
  PixelValue dst = px(0.9f, 0.1f, 0.5f, 1.0f);
  // 0.123456 x 32768 = 4045.4; 1.5 -> 49152; 0.999999 -> 32767.97.
  for (int32_t mode : {0, -1, -1000, 70, 71, 100000, std::numeric_limits<int32_t>::min()}) {
    SCOPED_TRACE(mode);
    PixelValue out = blend(src, dst, mode);
    expect15(out, 4045, 49152, 32767);
    EXPECT_EQ(out.a, 0.3f);
  }
}

// ---- channel formulas ---------------------------------------------------------------------------

TEST(BlendChannels, EveryChannelFormula) {
  const ChannelRow rows[] = {
      {kBlendMidtoneMix, {12288, 12288, 32768}, {14336, 3712, 16384}},
      {kBlendSelfGain, {30720, 12288, 32768}, {6656, 30464, 24576}},
      {kBlendExclusion, {20480, 16384, 16384}, {19456, 27136, 16384}},
      {kBlendExclusionAgain, {20480, 16384, 16384}, {19456, 27136, 16384}},
      {kBlendLighten, {24576, 16384, 32768}, {20480, 28672, 16384}},
      {kBlendDarken, {8192, 8192, 16384}, {4096, 2048, 16384}},
      {kBlendAdd, {32768, 24576, 32768}, {24576, 30720, 32768}},
      {kBlendSubtract, {16384, 0, 0}, {0, 26624, 0}},
      {kBlendMultiply, {6144, 4096, 16384}, {2560, 1792, 8192}},
      {kBlendScreen, {26624, 20480, 32768}, {22016, 28928, 24576}},
      {kBlendNegation, {32768, 24576, 16384}, {24576, 30720, 32768}},
      {kBlendDifference, {16384, 8192, 16384}, {16384, 26624, 0}},
      {kBlendSquareMix, {20480, 14336, 24576}, {18432, 25344, 16384}},
      {kBlendDestGain, {12288, 12288, 16384}, {10240, 3712, 16384}},
      {kBlendSourceGain, {12288, 10240, 24576}, {6144, 5376, 16384}},
      {kBlendSquareMixReversed, {20480, 12288, 32768}, {14336, 27008, 16384}},
      {kBlendBitAnd, {8192, 0, 0}, {4096, 0, 16384}},
      {kBlendBitOr, {24576, 24576, 49152}, {20480, 30720, 16384}},
      {kBlendBitXor, {16384, 24576, 49152}, {16384, 30720, 0}},
      {kBlendHardMix, {0, 0, 32768}, {0, 0, 0}},
      {kBlendAddFolded, {32768, 24576, 16384}, {24576, 30720, 32768}},
      {kBlendFoldInvert, {24576, 24576, 16384}, {4096, 28672, 16384}},
      {kBlendExtrapolate, {32768, 0, 0}, {0, 32768, 16384}},
      {kBlendCentreDistance, {32768, 24576, 0}, {16384, 26112, 32768}},
      // The light family.
      {kBlendHardLight, {20480, 8192, 32768}, {5120, 25088, 16384}},
      {kBlendOverlay, {12288, 8192, 32768}, {11264, 3584, 16384}},
      {kBlendSquareOverlay, {21489, 13200, 32768}, {8780, 6876, 26880}},
      {kBlendLinearLight, {24576, 0, 32768}, {0, 26624, 16384}},
      {kBlendVividLight, {16576, 385, 32768}, {0, 8352, 16448}},
      {kBlendSoftLight, {11264, 12288, 32896}, {14720, 3584, 16256}},
      {kBlendColourDodge, {32768, 21845, 32768}, {23405, 16384, 32768}},
      {kBlendColourBurn, {2, 0, 32768}, {0, 0, 2}},
      {kBlendProductCurve, {11136, 7680, 24576}, {4920, 3486, 14336}},
      {kBlendScreenSquared, {21632, 12800, 32768}, {14792, 25538, 18432}},
      // The pin family.
      {kBlendPinLight, {16384, 16384, 32768}, {8192, 24576, 16384}},
      {kBlendPinLightReversed, {16384, 8192, 32768}, {8192, 4096, 16384}},
      {kBlendPinOfPins, {8192, 16384, 32768}, {16384, 4096, 16384}},
      {kBlendPinOfPinsReversed, {24576, 16384, 32768}, {8192, 30720, 16384}},
      {kBlendOverlayPin, {4096, 16384, 32768}, {22528, 512, 16384}},
      {kBlendOverlayPinInverted, {8192, 16384, 32768}, {26624, 1024, 16384}},
      {kBlendHardOverlayPin, {12288, 8192, 32768}, {10240, 17408, 16384}},
      {kBlendOverlayHardPin, {20480, 8192, 32768}, {5120, 7168, 16384}},
  };
  checkRows(rows, sizeof rows / sizeof rows[0]);
}

TEST(BlendChannels, DodgeOfAFullSourceIsFullEvenOverBlack) {
  expect15(blend(px(1.0f, 1.0f, 1.0f), px(0.0f, 0.5f, 1.0f), kBlendColourDodge), 32768, 32768, 32768);
  // One step below full the quotient runs away and is clamped.
  expect15(blend(px15(32767, 32767, 32767), px(0.0f, 0.5f, 1.0f), kBlendColourDodge), 0, 32768, 32768);
}

TEST(BlendChannels, VividLightEdges) {
  // a 255, b 0: 0 / 1 = 0. a 0, b 0: (-255 << 8) / 1 + 255 below 0 -> 0.
  // a 128, b 255: (255 << 8) / 255 = 256, at least 255 -> full.
  expect15(blend(px(1.0f, 0.0f, 0.5f), px(0.0f, 0.0f, 1.0f), kBlendVividLight), 0, 0, 32768);
  // a 64, b 128: ((128 - 255) << 8) / 129 + 255 = -252 + 255 = 3 -> (3 << 7) | 1 = 385.
  expect15(blend(px15(8192, 8192, 8192), px15(16384, 16384, 16384), kBlendVividLight), 385, 385, 385);
}

// ---- cross mixes --------------------------------------------------------------------------------

TEST(BlendCrossMix, EachChannelMixesByAnotherChannel) {
  // mix(a, b, t) = ((32768 - t) a + t b) >> 15 on pair A.
  expect15(blend(kSrcA, kDstA, kBlendCrossMixSource), 20480, 12288, 28672);      // t = sg, sb, sr
  expect15(blend(kSrcA, kDstA, kBlendCrossMixSourceBack), 16384, 14336, 20480);  // t = sb, sr, sg
  expect15(blend(kSrcA, kDstA, kBlendCrossMixDest), 16384, 16384, 20480);        // t = dg, db, dr
  expect15(blend(kSrcA, kDstA, kBlendCrossMixDestBack), 8192, 10240, 24576);     // t = db, dr, dg
}

// ---- whole-pixel choices ------------------------------------------------------------------------

TEST(BlendLumaChoice, LighterAndDarkerColourTakeAWholePixel) {
  // Luma A: source 3579904, destination 4005888.
  expect15(blend(kSrcA, kDstA, kBlendLighterColour), 8192, 16384, 32768);
  expect15(blend(kSrcA, kDstA, kBlendDarkerColour), 24576, 8192, 16384);
  expect15(blend(kDstA, kSrcA, kBlendLighterColour), 8192, 16384, 32768);
  expect15(blend(kDstA, kSrcA, kBlendDarkerColour), 24576, 8192, 16384);
}

TEST(BlendLumaChoice, LowEightBitsOfLumaAreIgnored) {
  // Luma 0 against 77 x 3 = 231: equal once the low 8 bits are cleared, so
  // both modes keep the source.
  PixelValue black = px(0.0f, 0.0f, 0.0f);
  PixelValue nearBlack = px15(3, 0, 0);
  expect15(blend(black, nearBlack, kBlendLighterColour), 0, 0, 0);
  expect15(blend(black, nearBlack, kBlendDarkerColour), 0, 0, 0);
  expect15(blend(nearBlack, black, kBlendLighterColour), 3, 0, 0);
  expect15(blend(nearBlack, black, kBlendDarkerColour), 3, 0, 0);
  // 77 x 4 = 308 crosses into the next 256: now it counts.
  PixelValue brighter = px15(4, 0, 0);
  expect15(blend(black, brighter, kBlendLighterColour), 4, 0, 0);
  expect15(blend(black, brighter, kBlendDarkerColour), 0, 0, 0);
}

// ---- lightness-weighted mixes -------------------------------------------------------------------

TEST(BlendVividMix, WeightComesFromSourceLightnessAndSaturation) {
  // Pair A source: l 0.5, so tri = 1 and the weight is sat = 0.5 (and 1 - sat = 0.5).
  expect15(blend(kSrcA, kDstA, kBlendVividMix), 16384, 12288, 24576);
  expect15(blend(kSrcA, kDstA, kBlendGrayMix), 16384, 12288, 24576);
  // Pair B source: l 0.5, sat 0.75: w 0.75 for vivid, 0.25 for gray.
  expect15(blend(kSrcB, kDstB, kBlendVividMix), 8192, 22016, 16384);
  expect15(blend(kSrcB, kDstB, kBlendGrayMix), 16384, 8704, 16384);
  // Source (0.5, 0.25, 0.25): l 0.375, tri 0.75, 1 - 0.25^4 = 0.99609375,
  // sat 1/3: w = 0.33203125; c = d x 0.66796875 + s x 0.33203125.
  expect15(blend(px(0.5f, 0.25f, 0.25f), kDstA, kBlendVividMix), 10912, 13664, 24608);
}

TEST(BlendWheelMix, MovesFromSourceTowardDestinationByLightness) {
  // A white destination has weight 0 and lightness 1: the source stays.
  expectNear15(blend(kSrcA, px(1.0f, 1.0f, 1.0f), kBlendWheelMix), 24576, 8192, 16384, 2);
  // A black destination: weight 0 again, but the lightness is the smaller: black.
  expect15(blend(kSrcA, px(0.0f, 0.0f, 0.0f), kBlendWheelMix), 0, 0, 0);
  // Both at lightness 0.5: weight 1, the result takes the destination's point.
  expectNear15(blend(px(1.0f, 0.0f, 0.0f), px(0.0f, 1.0f, 1.0f), kBlendWheelMix), 0, 32768, 32768, 2);
  // Opposite hues of equal saturation meet at the centre half way: gray.
  // Source l 0.25 (tri 0.5, 1 - 0.5^4 = 0.9375), destination l 0.5: w 0.9375.
  PixelValue out = blend(px(0.5f, 0.0f, 0.0f), px(0.0f, 1.0f, 1.0f), kBlendWheelMix);
  // Point: (1, 0) + ((-1, 0) - (1, 0)) x 0.9375 = (-0.875, 0): hue 0.5, sat 0.875, l 0.25.
  expectNear15(out, 1024, 15360, 15360, 2);
}

// ---- hue, saturation, luma modes ----------------------------------------------------------------

TEST(BlendHueSatLuma, ColourAndLuminosityExchangeRoles) {
  // Red's hue at the luma of gray 0.5: (77 + 150 + 28) x 16384 >> 8 = 16320, t = 0.498.
  // Red's brightness is 0.28, so l = (0.498 - 0.28) / 0.72 x 0.5 + 0.5 = 0.65142:
  // (1, 2l - 1, 2l - 1) = (1, 0.30284, 0.30284).
  PixelValue red = px(1.0f, 0.0f, 0.0f);
  PixelValue gray = px(0.5f, 0.5f, 0.5f);
  PixelValue colour = blend(red, gray, kBlendColour);
  expectNear15(colour, 32768, 9923, 9923, 2);
  PixelValue luminosity = blend(gray, red, kBlendLuminosity);
  EXPECT_EQ(memcmp(&colour, &luminosity, 3 * sizeof(float)), 0);
}

TEST(BlendHueSatLuma, SaturationAndHue) {
  PixelValue red = px(1.0f, 0.0f, 0.0f);
  PixelValue green = px(0.0f, 1.0f, 0.0f);
  PixelValue gray = px(0.5f, 0.5f, 0.5f);
  // Saturation 0 from the gray source, hue and t 0.28 from red: gray at
  // l = 0.28 / 0.5 x 0.5 = 0.28, trunc(0.28 x 32768) = 9175.
  expect15(blend(gray, red, kBlendSaturation), 9175, 9175, 9175);
  // Green's hue with red's saturation 1 and t 0.28; green's brightness is 0.52:
  // l = 0.28 / 0.52 x 0.5 = 0.26923, (0, 2l, 0) = (0, 0.53846, 0).
  expectNear15(blend(green, red, kBlendHue), 0, 17644, 0, 2);
  // A gray destination has saturation 0: the hue of the source does not show.
  expect15(blend(red, gray, kBlendHue), 16384, 16384, 16384);
  // Green's saturation 1 on a pale red (hue 1.0, sat 0.5, l 0.5, brightness
  // 0.39, so t 0.39): red at l = (0.39 - 0.28) / 0.72 x 0.5 + 0.5 = 0.57639,
  // (1, 2l - 1, 2l - 1) = (1, 0.15278, 0.15278).
  expectNear15(blend(green, px(0.75f, 0.25f, 0.25f), kBlendSaturation), 32768, 5006, 5006, 2);
}

TEST(BlendHueSatLuma, QuotientLuma) {
  // Source gray 0.5: t 0.5. Destination gray 0.25: D = 8160 / 32768.
  // quotient(D, 0.5) = D x 0.5 / 0.5 = D; a gray at l = D: 8160.
  expect15(blend(px(0.5f, 0.5f, 0.5f), px(0.25f, 0.25f, 0.25f), kBlendQuotientLuma), 8160, 8160, 8160);
  // The other way round: t 0.25, D = 16320 / 32768 = 0.498;
  // 1 - 0.25 x 0.5 / 0.498 = 0.74902 -> a gray at 24543.
  expectNear15(blend(px(0.25f, 0.25f, 0.25f), px(0.5f, 0.5f, 0.5f), kBlendQuotientLuma), 24543, 24543, 24543, 1);
}

TEST(BlendHueSatLuma, LumaCurves) {
  // Both gray 0.5: m = 0.25, b = 1.75 x 0.25 = 0.4375 -> 14336, in both modes.
  expect15(blend(px(0.5f, 0.5f, 0.5f), px(0.5f, 0.5f, 0.5f), kBlendLumaCurveSource), 14336, 14336, 14336);
  expect15(blend(px(0.5f, 0.5f, 0.5f), px(0.5f, 0.5f, 0.5f), kBlendLumaCurveDest), 14336, 14336, 14336);
  // Source gray 0.875 (t 0.875), destination 0.5: m 0.4375, b 0.68359375.
  // Mode 60 looks at u = 0.875 > 0.8: b += (0.075 x 5) x (0.875 - b) = 0.75537 -> 24752.
  // Mode 61 looks at u = 0.5: b stays, 22400.
  PixelValue light = px(0.875f, 0.875f, 0.875f);
  PixelValue mid = px(0.5f, 0.5f, 0.5f);
  expect15(blend(light, mid, kBlendLumaCurveSource), 24752, 24752, 24752);
  expect15(blend(light, mid, kBlendLumaCurveDest), 22400, 22400, 22400);
  // Below 0.2 the curve leans toward u: source 0.125 (t 0.125), destination 0.5:
  // m 0.0625, b 0.12109375; + (0.075 x 5) x (0.125 - b) = 0.12255859 -> 4016.
  expectNear15(blend(px(0.125f, 0.125f, 0.125f), mid, kBlendLumaCurveSource), 4016, 4016, 4016, 1);
}

// ---- float modes --------------------------------------------------------------------------------

TEST(BlendFloat, QuotientOfDestinationBySource) {
  // d < s: 0.25 x 0.5 / 0.75 = 1/6 -> 5461; d >= s: 1 - 0.25 x 0.5 / 0.5 = 0.75; 1 - 0.5 x 0.5 / 1 = 0.75.
  expect15(blend(kSrcA, kDstA, kBlendQuotient), 5461, 24576, 24576);
  // Both 0 gives 1; s 0 under d 0.25 gives 1 - 0; s 0.5 over d 0 gives 0 x 0.5 / 0.5.
  expect15(blend(px(0.0f, 0.0f, 0.5f), px(0.0f, 0.25f, 0.0f), kBlendQuotient), 32768, 32768, 0);
  // Neither quotient can be formed when the larger value is not above 0: 1.
  expect15(blend(px(-0.25f, 0.0f, -0.5f), px(-0.5f, -0.5f, -0.25f), kBlendQuotient), 32768, 32768, 32768);
}

TEST(BlendFloat, ReflectAndGlowLeaveTheirResultsInTheSource) {
  struct Row {
    int32_t mode;
    float v[3];
  };
  // Pair A as floats: s = (0.75, 0.25, 0.5), d = (0.25, 0.5, 1.0).
  const Row rows[] = {
      {kBlendReflect, {0.75f, 0.125f, 1.0f}},            // s^2 / (1 - d); 1 - d = 0 gives 1
      {kBlendGlow, {0.25f, 0.33333334f, 1.0f}},          // d^2 / (1 - s), at most 1
      {kBlendSoftReflect, {0.375f, 0.0625f, 1.0f}},      // s^2 x 0.5 / (1 - d)
      {kBlendSoftGlow, {0.125f, 0.16666667f, 0.75f}},    // 1 x 0.5 / 0.5 = 1 > 0.5: 1 - 0.25 / 1
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(::testing::Message() << "mode " << row.mode);
    PixelValue src = kSrcA;
    PixelValue dst = kDstA;
    PixelValue out;
    blendPixel(&src, &dst, &out, row.mode);
    EXPECT_EQ(src.r, row.v[0]);
    EXPECT_EQ(src.g, row.v[1]);
    EXPECT_EQ(src.b, row.v[2]);
    EXPECT_EQ(src.a, kSrcA.a);
    EXPECT_EQ(out.r, float(int32_t(row.v[0] * 32768.0f)) / 32768.0f);
    EXPECT_EQ(out.g, float(int32_t(row.v[1] * 32768.0f)) / 32768.0f);
    EXPECT_EQ(out.b, float(int32_t(row.v[2] * 32768.0f)) / 32768.0f);
    EXPECT_EQ(memcmp(&dst, &kDstA, sizeof dst), 0);
  }
}

TEST(BlendFloat, SoftReflectGivesOneWithinAStepOfFull) {
  // 1 - d = 0.00390625 is not above 0.0039215684: 1.
  PixelValue out = blend(px(0.1f, 0.1f, 0.1f), px(0.99609375f, 0.5f, 0.99f), kBlendSoftReflect);
  EXPECT_EQ(out.r, 1.0f);
  EXPECT_LT(out.g, 0.5f);
  // 0.01 x 0.5 / 0.01 = 0.5: not above 0.5, so it stays 0.5 (about: 1 - 0.99 is not exact).
  EXPECT_NEAR(out.b, 0.5f, 0.001f);
}

TEST(BlendFloat, ColourToAlphaSplitsColourAndCoverage) {
  PixelValue out = blend(px(0.5f, 0.25f, 0.125f, 0.9f), kDstA, kBlendColourToAlpha);
  expect15(out, 32768, 16384, 8192);
  EXPECT_EQ(out.a, 0.5f);
  // Nothing lit: all four zero.
  out = blend(px(0.0f, 0.0f, 0.0f, 1.0f), kDstA, kBlendColourToAlpha);
  expect15(out, 0, 0, 0);
  EXPECT_EQ(out.a, 0.0f);
  out = blend(px(-0.5f, -1.0f, -0.25f, 1.0f), kDstA, kBlendColourToAlpha);
  expect15(out, 0, 0, 0);
  EXPECT_EQ(out.a, 0.0f);
  // The maximum is limited to 1: colours above it keep their excess.
  out = blend(px(2.0f, 0.5f, 0.0f, 0.3f), kDstA, kBlendColourToAlpha);
  expect15(out, 65536, 16384, 0);
  EXPECT_EQ(out.a, 1.0f);
}

// ---- Lab modes ----------------------------------------------------------------------------------

TEST(BlendLab, PinningAColourAgainstItselfIsTheGridsRoundTrip) {
  PixelValue src = px(0.6f, 0.4f, 0.3f);
  int32_t s[3] = {int32_t(0.6f * 32768.0f), int32_t(0.4f * 32768.0f), int32_t(0.3f * 32768.0f)};
  int32_t lab[3], back[3];
  rgbToLab15(s, lab);
  labToRgb15(lab, back);
  PixelValue pinned = blend(src, src, kBlendLabPin);
  PixelValue pinnedBack = blend(src, src, kBlendLabPinReversed);
  expect15(pinned, back[0], back[1], back[2]);
  EXPECT_EQ(memcmp(&pinned, &pinnedBack, 3 * sizeof(float)), 0);
}

// ---- calling conventions ------------------------------------------------------------------------

TEST(BlendCalls, OutputMayBeEitherInput) {
  for (int32_t mode : {kBlendMultiply, kBlendWheelMix, kBlendLabScreen, kBlendGlow, kBlendColourToAlpha}) {
    SCOPED_TRACE(mode);
    PixelValue expected = blend(kSrcA, kDstA, mode);
    PixelValue src = kSrcA;
    PixelValue dst = kDstA;
    blendPixel(&src, &dst, &src, mode);
    EXPECT_EQ(memcmp(&src, &expected, sizeof src), 0);
    src = kSrcA;
    blendPixel(&src, &dst, &dst, mode);
    EXPECT_EQ(memcmp(&dst, &expected, sizeof dst), 0);
  }
}

TEST(BlendCalls, ColoursFarOutsideTheRangeStayDefined) {
  // Nothing here is asked by the filter; the modes must only not misbehave
  // (the sanitizer build checks the arithmetic) and keep alpha.
  const float odd[] = {-1e30f, -2.0f, -1.0f / 32768.0f, 0.0f, 1.0f, 1.9f, 70000.0f, 1e30f,
                       std::numeric_limits<float>::infinity(), std::numeric_limits<float>::quiet_NaN()};
  for (int32_t mode = 0; mode <= 70; ++mode) {
    for (float a : odd) {
      for (float b : odd) {
        PixelValue out = blend(px(a, b, 0.5f, 0.25f), px(b, 0.5f, a, 1.0f), mode);
        if (mode != kBlendColourToAlpha) {
          ASSERT_EQ(out.a, 0.25f) << mode;
        }
      }
    }
  }
}

}  // namespace

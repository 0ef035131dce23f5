// The footprint sampler: the early exit of translation-like maps and its
// strict thresholds, the ellipse and its level, the floors, seams, the probe
// count and spread along the major axis, missing corners, the folding of
// out-of-range points, and NaN points.
#include <gtest/gtest.h>

#include <math.h>
#include <stdint.h>
#include <string.h>

#include "store/footprint.h"
#include "store/pixel_store.h"
#include "store/resample.h"

namespace {

// A 64 x 64 store with a pattern that changes from pixel to pixel at every
// level, so that a read at the wrong place or level shows.
struct PatternStore {
  PixelStore* store;
  explicit PatternStore(int32_t kind, int32_t w = 64, int32_t h = 64)
      : store(pixelStoreCreate(w, h, kind, 0, false)) {
    for (int32_t level = 0; level <= store->topLevel; ++level) {
      for (int32_t y = 0; y < store->levelHeight[level]; ++y) {
        for (int32_t x = 0; x < store->levelWidth[level]; ++x) {
          int32_t r = (x * 37 + y * 11 + level * 5) % 17;
          int32_t g = (x * 3 + y * 29 + level) % 13;
          int32_t b = (x * y + level * 7) % 11;
          float rgba[4] = {float(r) / 16.0f, float(g) / 12.0f, float(b) / 10.0f, float((x + y) % 3) / 2.0f};
          writeUnitPixel(x, y, store, level, rgba);
        }
      }
    }
  }
  ~PatternStore() { pixelStoreDestroy(&store); }
};

FootprintState freshState() {
  FootprintState state;
  resetFootprintState(&state);
  return state;
}

void expectSameColour(const float a[4], const float b[4]) {
  for (int c = 0; c < 4; ++c) EXPECT_EQ(floatBits(a[c]), floatBits(b[c])) << "channel " << c;
}

constexpr float kSentinelLod = 123.0f;

// ---- state --------------------------------------------------------------------------------------

TEST(FootprintState, ResetGivesTwentyProbesAndNoFixedLevel) {
  FootprintState state;
  memset(&state, 0x5a, sizeof state);
  resetFootprintState(&state);
  EXPECT_EQ(state.lastLod, 0.0f);
  EXPECT_FALSE(state.fixedLod);
  EXPECT_EQ(state.maxProbes, 20);
}

// ---- the early exit ----------------------------------------------------------------------------

TEST(FootprintSample, IdenticalCornersReadLevelZeroExactly) {
  PatternStore s(kKindRgba8);
  FootprintState state = freshState();
  state.lastLod = kSentinelLod;
  const float u = 0.3712f, v = 0.6190f;
  float out[4], expected[4];
  footprintFromCorners(u, v, u, v, u, v, u, v, s.store, out, kDefaultSharpness, &state);
  filterUnitPixel(s.store, 0, 0.0f, u, v, expected);
  expectSameColour(out, expected);
  EXPECT_EQ(state.lastLod, kSentinelLod);  // no footprint was computed
}

TEST(FootprintSample, IdentityMapReadsLevelZeroOnce) {
  PatternStore s(kKindRgba16);
  FootprintState state = freshState();
  state.lastLod = kSentinelLod;
  const float derivs[4] = {1.0f / 64.0f, 0.0f, 0.0f, 1.0f / 64.0f};
  const float u = 20.5f / 64.0f, v = 41.5f / 64.0f;
  float out[4], expected[4];
  footprintSample(derivs, u, v, 0, s.store, out, kDefaultSharpness, &state);
  filterUnitPixel(s.store, 0, 0.0f, u, v, expected);
  expectSameColour(out, expected);
  EXPECT_EQ(state.lastLod, kSentinelLod);
}

TEST(FootprintSample, EarlyExitBoundsAreStrict) {
  PatternStore s(kKindRgbaFloat);
  const float u = 0.5f, v = 0.25f;
  // B = (dvx * dux + dvy * duy) * -2 is exactly 1e-7f here: not inside the
  // open interval, so a footprint is computed.
  const float half = 1e-7f * 0.5f;
  const float atBound[4] = {1.0f, -half, 0.0f, 0.0f};
  FootprintState state = freshState();
  state.lastLod = kSentinelLod;
  float out[4];
  footprintSample(atBound, u, v, 0, s.store, out, kDefaultSharpness, &state);
  EXPECT_NE(state.lastLod, kSentinelLod);

  // The same at -1e-7f.
  const float atLowerBound[4] = {1.0f, half, 0.0f, 0.0f};
  state.lastLod = kSentinelLod;
  footprintSample(atLowerBound, u, v, 0, s.store, out, kDefaultSharpness, &state);
  EXPECT_NE(state.lastLod, kSentinelLod);

  // One float inside: the early exit.
  const float inside[4] = {1.0f, -nextafterf(half, 0.0f), 0.0f, 0.0f};
  state.lastLod = kSentinelLod;
  footprintSample(inside, u, v, 0, s.store, out, kDefaultSharpness, &state);
  EXPECT_EQ(state.lastLod, kSentinelLod);
  float expected[4];
  filterUnitPixel(s.store, 0, 0.0f, u, v, expected);
  expectSameColour(out, expected);
}

TEST(FootprintSample, NaNPointGivesZeroColour) {
  PatternStore s(kKindRgba8);
  FootprintState state = freshState();
  const float derivs[4] = {0.3f, 0.01f, 0.02f, 0.2f};
  float out[4] = {9.0f, 9.0f, 9.0f, 9.0f};
  footprintSample(derivs, NAN, 0.5f, 0, s.store, out, kDefaultSharpness, &state);
  EXPECT_EQ(out[0], 0.0f);
  EXPECT_EQ(out[1], 0.0f);
  EXPECT_EQ(out[2], 0.0f);
  EXPECT_EQ(out[3], 0.0f);
  memset(out, 0x7f, sizeof out);
  footprintFromCorners(0.1f, 0.2f, 0.3f, 0.4f, 0.5f, 0.6f, 0.4f, NAN, s.store, out, kDefaultSharpness, &state);
  EXPECT_EQ(out[0], 0.0f);
  EXPECT_EQ(out[3], 0.0f);
}

// ---- the ellipse ----------------------------------------------------------------------------------

TEST(FootprintSample, TinyDerivativesFloorFAndMinorToLevelZero) {
  // All four derivatives 0.016 pixels: F = C * A - B * B / 4 is about 2.6e-7
  // and is raised to 1e-6, the eigenvalues become about 1024, the minor axis
  // floors at 0.5: lod -1, read at level 0. B = -2.5e-7 passes the early exit.
  PatternStore s(kKindRgba8);
  FootprintState state = freshState();
  const float e = 0.016f / 64.0f;
  const float derivs[4] = {e, e, e, e};
  const float u = 0.41f, v = 0.27f;
  float out[4], expected[4];
  footprintSample(derivs, u, v, 0, s.store, out, kDefaultSharpness, &state);
  EXPECT_EQ(state.lastLod, -1.0f);
  filterUnitPixel(s.store, 0, 0.0f, u, v, expected);
  expectSameColour(out, expected);
}

TEST(FootprintSample, RoundFootprintPicksLevelFromMinorAxis) {
  // Four pixels per output pixel in both directions, barely skewed: the
  // eigenvalues are both 2 / 16, so both axes are 4 * 0.85 = 3.4 pixels and
  // lod = log2(3.4) = 1.766.
  PatternStore s(kKindRgba8);
  FootprintState state = freshState();
  const float derivs[4] = {4.0f / 64.0f, 1e-4f, 0.0f, 4.0f / 64.0f};
  const float u = 0.52f, v = 0.47f;
  float out[4], expected[4];
  footprintSample(derivs, u, v, 0, s.store, out, kDefaultSharpness, &state);
  EXPECT_NEAR(state.lastLod, log2(4.0 * 0.85), 1e-4);
  const int32_t level = int32_t(state.lastLod);
  EXPECT_EQ(level, 1);
  filterUnitPixel(s.store, level, state.lastLod - float(level), u, v, expected);
  expectSameColour(out, expected);
}

TEST(FootprintSample, SharpnessShrinksTheAxes) {
  PatternStore s(kKindRgba8);
  const float derivs[4] = {4.0f / 64.0f, 1e-4f, 0.0f, 4.0f / 64.0f};
  FootprintState soft = freshState();
  FootprintState sharp = freshState();
  FootprintState negative = freshState();
  float out[4];
  footprintSample(derivs, 0.5f, 0.5f, 0, s.store, out, 0.0f, &soft);
  footprintSample(derivs, 0.5f, 0.5f, 0, s.store, out, 1.0f, &sharp);
  footprintSample(derivs, 0.5f, 0.5f, 0, s.store, out, -3.0f, &negative);
  // shrink = 1 - s / 2: a factor of 2 between s = 0 and s = 1, one level.
  EXPECT_NEAR(soft.lastLod - sharp.lastLod, 1.0, 1e-5);
  // A negative sharpness counts as 0.
  EXPECT_EQ(negative.lastLod, soft.lastLod);
}

TEST(FootprintSample, LevelIsLimitedToTopLevelAndZero) {
  // A footprint of clamped coordinates cannot reach past the top level (its
  // axes stay below half the image); a level carried over can.
  PatternStore s(kKindRgba8, 16, 16);  // levels 16, 8, 4, 2, 1: topLevel 4
  ASSERT_EQ(s.store->topLevel, 4);
  const float derivs[4] = {0.25f, 1e-3f, 0.0f, 0.25f};
  const float u = 0.5f, v = 0.5f;
  float out[4], expected[4];
  FootprintState state = freshState();
  state.fixedLod = true;
  state.lastLod = 10.0f;
  footprintSample(derivs, u, v, 0, s.store, out, kDefaultSharpness, &state);
  filterUnitPixel(s.store, 4, 0.0f, u, v, expected);
  expectSameColour(out, expected);

  state.lastLod = -3.0f;
  footprintSample(derivs, u, v, 0, s.store, out, kDefaultSharpness, &state);
  filterUnitPixel(s.store, 0, 0.0f, u, v, expected);
  expectSameColour(out, expected);
}

TEST(FootprintSample, SeamTakesOneReadWithoutProbes) {
  // u jumps by more than half the image between neighbours in x: a seam. The
  // ellipse is very long, yet one read at its level, no probes.
  PatternStore s(kKindRgbaFloat);
  FootprintState state = freshState();
  const float derivs[4] = {0.6f, 1e-4f, 0.0f, 1.0f / 64.0f};
  const float u = 0.3f, v = 0.6f;
  float out[4], expected[4];
  footprintSample(derivs, u, v, 0, s.store, out, kDefaultSharpness, &state);
  float lod = state.lastLod < 0.0f ? 0.0f : state.lastLod;
  int32_t level = int32_t(lod);
  filterUnitPixel(s.store, level, lod - float(level), u, v, expected);
  expectSameColour(out, expected);
}

// ---- probes along the major axis ---------------------------------------------------------------

TEST(ProbeCount, FollowsTheRatio) {
  float m = 0.0f;
  // Exactly 1.25 is outside the band: trunc(1.75) = 1, raised to 2, full weight.
  EXPECT_EQ(probeCount(1.25f, 20, &m), 2);
  EXPECT_EQ(m, 1.0f);
  EXPECT_EQ(probeCount(1.3f, 20, &m), 2);
  EXPECT_EQ(m, (1.3f - 1.25f) * 4.0f);
  EXPECT_NEAR(m, 0.2f, 1e-6);
  EXPECT_EQ(probeCount(1.5f, 20, &m), 2);
  EXPECT_EQ(m, 1.0f);
  EXPECT_EQ(probeCount(2.49f, 20, &m), 2);
  EXPECT_EQ(probeCount(2.5f, 20, &m), 3);
  EXPECT_EQ(probeCount(8.4f, 20, &m), 8);
  EXPECT_EQ(m, 1.0f);
  EXPECT_EQ(probeCount(19.6f, 20, &m), 20);
  EXPECT_EQ(probeCount(100.0f, 20, &m), 20);
  EXPECT_EQ(probeCount(8.4f, 5, &m), 5);
  // The raise to two is not capped.
  EXPECT_EQ(probeCount(1.25f, 1, &m), 2);
}

TEST(MajorAxis, CosinesApproximateAUnitDirection) {
  float p, q;
  majorAxisCosines(0.0f, &p, &q);
  EXPECT_EQ(p, 1.0f);
  EXPECT_EQ(q, 0.0f);
  for (float t = -1.0f; t <= 1.0f; t += 0.125f) {
    majorAxisCosines(t, &p, &q);
    EXPECT_NEAR(double(p) * p + double(q) * q, 1.0, 0.01) << t;
    EXPECT_GT(p, 0.0f);
    if (t != 0.0f) {
      EXPECT_EQ(q > 0.0f, t > 0.0f) << t;
    }
    // For small t the angle is about half of atan(t).
    if (fabsf(t) <= 0.25f) {
      EXPECT_NEAR(atan2(q, p), atan(double(t)) * 0.5, 2e-3) << t;
    }
  }
  // The pair of t = 1: P = 1 - 0.12404906 + 0.018476253, Q = (126.91107 - 12.871603) / 255.
  majorAxisCosines(1.0f, &p, &q);
  EXPECT_NEAR(p, 0.894427, 1e-6);
  EXPECT_NEAR(q, 0.447214, 1e-6);
}

// The expected colour of an elongated footprint, computed independently in
// double from the closed form of the ellipse: n probes spread evenly over the
// major axis, centred on the point, averaged.
void expectProbes(const PixelStore* store, const float derivs[4], float u, float v, int32_t n, const float out[4]) {
  const double w = store->refWidth[0], h = store->refHeight[0];
  const double dux = derivs[0] * w, dvx = derivs[1] * h, duy = derivs[2] * w, dvy = derivs[3] * h;
  const double b = (double(derivs[1]) * derivs[0] + double(derivs[3]) * derivs[2]) * -2.0;
  const double a = dvx * dvx + dvy * dvy, c = dux * dux + duy * duy;
  const double f = c * a - b * b * 0.25;
  const double an = a / f, bn = b / f, cn = c / f;
  const double root = sqrt((an - cn) * (an - cn) + bn * bn);
  const double major = sqrt(2.0 / (an + cn - root)) * 0.85;
  const double minor = sqrt(2.0 / (an + cn + root)) * 0.85;
  // Level 0 in these cases: the minor axis is below one pixel.
  ASSERT_LT(log2(minor), 0.0);
  // The ellipse's major axis is along x here (C > A): direction about (1, t / 2).
  ASSERT_GT(cn, an);
  const double t = bn / (an - cn);
  const double len = sqrt(1.0 + t * t / 4.0);
  const double du = 1.0 / len, dv = (t / 2.0) / len;
  const double stepU = du * major / (n - 1) / w;
  const double stepV = dv * major / (n - 1) / h;
  double sum[4] = {0, 0, 0, 0};
  for (int32_t i = 0; i < n; ++i) {
    const double k = i - (n - 1) * 0.5;
    float tmp[4];
    filterUnitPixel(store, 0, 0.0f, float(u + k * stepU), float(v + k * stepV), tmp);
    for (int ch = 0; ch < 4; ++ch) sum[ch] += tmp[ch];
  }
  for (int ch = 0; ch < 4; ++ch) EXPECT_NEAR(out[ch], sum[ch] / n, 2e-4) << "channel " << ch;
}

TEST(FootprintSample, ElongatedFootprintAveragesProbesAlongMajorAxis) {
  // Eight pixels per output pixel in x, one in y, a trace of skew: the axes
  // are 8 * 0.85 and 0.85 pixels, ratio 8: eight probes at level 0.
  PatternStore s(kKindRgbaFloat);
  FootprintState state = freshState();
  const float derivs[4] = {8.0f / 64.0f, 1e-4f, 0.0f, 1.0f / 64.0f};
  const float u = 30.5f / 64.0f, v = 20.25f / 64.0f;
  float out[4];
  footprintSample(derivs, u, v, 0, s.store, out, kDefaultSharpness, &state);
  EXPECT_NEAR(state.lastLod, log2(0.85), 1e-4);
  expectProbes(s.store, derivs, u, v, 8, out);

  // Clearly not the single read at the centre.
  float single[4];
  filterUnitPixel(s.store, 0, 0.0f, u, v, single);
  EXPECT_GT(fabsf(single[0] - out[0]) + fabsf(single[1] - out[1]) + fabsf(single[2] - out[2]), 0.02f);
}

TEST(FootprintSample, ProbesAreLimitedByMaxProbes) {
  PatternStore s(kKindRgbaFloat);
  const float derivs[4] = {8.0f / 64.0f, 1e-4f, 0.0f, 1.0f / 64.0f};
  const float u = 30.5f / 64.0f, v = 20.25f / 64.0f;
  FootprintState state = freshState();
  state.maxProbes = 4;
  float out[4];
  footprintSample(derivs, u, v, 0, s.store, out, kDefaultSharpness, &state);
  // Four probes over the same length.
  expectProbes(s.store, derivs, u, v, 4, out);
}

TEST(FootprintSample, VeryLongFootprintTakesTwentyProbes) {
  // 40 pixels per output pixel: ratio 40, capped at the state's 20.
  PatternStore s(kKindRgbaFloat, 256, 64);
  const float derivs[4] = {40.0f / 256.0f, 1e-4f, 0.0f, 1.0f / 64.0f};
  const float u = 0.5f, v = 0.5f;
  FootprintState state = freshState();
  float out[4];
  footprintSample(derivs, u, v, 0, s.store, out, kDefaultSharpness, &state);
  expectProbes(s.store, derivs, u, v, 20, out);
}

TEST(FootprintSample, ProbesOfAnEllipseWithEqualDiagonalTermsGiveZero) {
  // On a 2 x 2 store unit and pixel measure are close enough for B to make
  // the ellipse diagonal and elongated (ratio 1.29). With all four
  // derivatives equal, A and C are the same float: t = Bn / (An - Cn) is
  // infinite, the direction NaN, every probe point NaN, and the colour zero.
  PatternStore s(kKindRgba8, 2, 2);
  FootprintState state = freshState();
  const float equal[4] = {0.45f, 0.45f, 0.45f, 0.45f};
  float out[4] = {7, 7, 7, 7};
  footprintSample(equal, 0.5f, 0.5f, 0, s.store, out, kDefaultSharpness, &state);
  for (int c = 0; c < 4; ++c) EXPECT_EQ(out[c], 0.0f) << c;

  // A hair of difference between A and C gives a direction and a colour.
  const float unequal[4] = {0.45f, 0.45f, 0.44f, 0.45f};
  footprintSample(unequal, 0.5f, 0.5f, 0, s.store, out, kDefaultSharpness, &state);
  EXPECT_GT(out[3], 0.0f);
}

// ---- missing corners and a fixed level -----------------------------------------------------------

TEST(FootprintFromCorners, DerivativesRunFromTheLowerRightCorner) {
  PatternStore s(kKindRgbaFloat);
  const float uL = 0.40f, vL = 0.51f, uU = 0.46f, vU = 0.45f, uH = 0.47f, vH = 0.50f;
  const float uC = 0.45f, vC = 0.48f;
  FootprintState a = freshState();
  FootprintState b = freshState();
  float outA[4], outB[4];
  footprintFromCorners(uL, vL, uU, vU, uH, vH, uC, vC, s.store, outA, kDefaultSharpness, &a);
  const float derivs[4] = {uH - uL, vH - vL, uH - uU, vH - vU};
  footprintSample(derivs, uC, vC, 0, s.store, outB, kDefaultSharpness, &b);
  expectSameColour(outA, outB);
  EXPECT_EQ(a.lastLod, b.lastLod);
}

TEST(FootprintFromCorners, MissingPairBorrowsTheOther) {
  PatternStore s(kKindRgbaFloat);
  const float uU = 0.46f, vU = 0.40f, uH = 0.50f, vH = 0.50f;
  FootprintState a = freshState();
  FootprintState b = freshState();
  float outA[4], outB[4];
  // The left corner missing: the x pair becomes the y pair.
  footprintFromCorners(-1.0f, 0.3f, uU, vU, uH, vH, 0.48f, 0.45f, s.store, outA, kDefaultSharpness, &a);
  const float derivs[4] = {uH - uU, vH - vU, uH - uU, vH - vU};
  footprintSample(derivs, 0.48f, 0.45f, 0, s.store, outB, kDefaultSharpness, &b);
  expectSameColour(outA, outB);
  EXPECT_EQ(a.lastLod, b.lastLod);
  EXPECT_NE(a.lastLod, 0.0f);

  // The upper corner missing: the y pair becomes the x pair.
  const float uL = 0.44f, vL = 0.47f;
  footprintFromCorners(uL, vL, -1.0f, 0.2f, uH, vH, 0.48f, 0.45f, s.store, outA, kDefaultSharpness, &a);
  const float derivsY[4] = {uH - uL, vH - vL, uH - uL, vH - vL};
  footprintSample(derivsY, 0.48f, 0.45f, 0, s.store, outB, kDefaultSharpness, &b);
  expectSameColour(outA, outB);
  EXPECT_EQ(a.lastLod, b.lastLod);
}

TEST(FootprintSample, BothPairsMissingReuseTheLastLevel) {
  PatternStore s(kKindRgba8);
  FootprintState state = freshState();
  state.lastLod = 1.5f;
  const float u = 0.37f, v = 0.62f;
  float out[4], expected[4];
  footprintFromCorners(-1.0f, 0.2f, -1.0f, 0.7f, 0.4f, 0.6f, u, v, s.store, out, kDefaultSharpness, &state);
  filterUnitPixel(s.store, 1, 0.5f, u, v, expected);
  expectSameColour(out, expected);
  EXPECT_EQ(state.lastLod, 1.5f);
}

TEST(FootprintSample, FixedLevelReusesTheLastLevel) {
  PatternStore s(kKindRgba8);
  FootprintState state = freshState();
  state.fixedLod = true;
  state.lastLod = 2.25f;
  const float derivs[4] = {8.0f / 64.0f, 1e-4f, 0.0f, 1.0f / 64.0f};
  float out[4], expected[4];
  // Out of range: the point is clamped first.
  footprintSample(derivs, 1.25f, 0.5f, 0, s.store, out, kDefaultSharpness, &state);
  filterUnitPixel(s.store, 2, 0.25f, 1.0f, 0.5f, expected);
  expectSameColour(out, expected);
  EXPECT_EQ(state.lastLod, 2.25f);
}

// ---- derivatives to pixels --------------------------------------------------------------------------

TEST(DerivativesToPixels, ScalesAndFlagsSeams) {
  FootprintDerivs d{1.0f, 200.0f, 100.0f, 3, 0.5f, -0.25f, 0.125f, -0.5f, true};
  derivativesToPixels(d);
  // Exactly 0.5 is no seam.
  EXPECT_FALSE(d.bigStep);
  EXPECT_EQ(d.dux, 100.0f);
  EXPECT_EQ(d.duy, 25.0f);
  EXPECT_EQ(d.dvx, -25.0f);
  EXPECT_EQ(d.dvy, -50.0f);

  FootprintDerivs e{1.0f, 200.0f, 100.0f, 3, 0.0f, nextafterf(-0.5f, -1.0f), 0.0f, 0.0f, false};
  derivativesToPixels(e);
  EXPECT_TRUE(e.bigStep);
}

TEST(DerivativesToPixels, WrappingModesReduceDifferences) {
  FootprintDerivs d{1.0f, 10.0f, 10.0f, 4, 0.75f, 0.75f, -0.75f, 0.0f, false};
  derivativesToPixels(d);
  EXPECT_EQ(d.dux, -2.5f);
  EXPECT_EQ(d.duy, 2.5f);
  EXPECT_EQ(d.dvx, 7.5f);
  EXPECT_TRUE(d.bigStep);  // from v alone

  FootprintDerivs e{1.0f, 10.0f, 10.0f, 5, 0.75f, 0.75f, 0.0f, 0.0f, false};
  derivativesToPixels(e);
  EXPECT_EQ(e.dux, -2.5f);
  EXPECT_EQ(e.dvx, -2.5f);
  EXPECT_FALSE(e.bigStep);

  FootprintDerivs f{1.0f, 10.0f, 10.0f, 0, 0.75f, 0.75f, 0.0f, 0.0f, false};
  derivativesToPixels(f);
  EXPECT_EQ(f.dux, 7.5f);
  EXPECT_FALSE(f.bigStep);
}

// ---- folding ------------------------------------------------------------------------------------------

TEST(FoldUnitCoords, RangeIsClosedInUAndHalfOpenInV) {
  PatternStore s(kKindRgba8, 8, 8);
  float level = 0.0f, outU = -9.0f, outV = -9.0f;
  float u = 1.0f, v = 0.5f;
  EXPECT_EQ(foldUnitCoords(&u, &v, &level, 3, s.store, &outU, &outV), 0);
  EXPECT_EQ(outU, 1.0f);
  EXPECT_EQ(outV, 0.5f);
  u = 0.5f;
  v = 1.0f;
  EXPECT_EQ(foldUnitCoords(&u, &v, &level, 3, s.store, &outU, &outV), 4);
  EXPECT_EQ(outV, 1.0f);
  EXPECT_EQ(v, 1.0f);
  u = 0.0f;
  v = 0.0f;
  EXPECT_EQ(foldUnitCoords(&u, &v, &level, 3, s.store, &outU, &outV), 0);
}

TEST(FoldUnitCoords, ModeThreeClampsInPlace) {
  PatternStore s(kKindRgba8, 8, 8);
  float level = 1.5f, outU, outV;
  float u = -0.2f, v = 1.7f;
  EXPECT_EQ(foldUnitCoords(&u, &v, &level, 3, s.store, &outU, &outV), 4);
  EXPECT_EQ(u, 0.0f);
  EXPECT_EQ(v, 1.0f);
  EXPECT_EQ(outU, 0.0f);
  EXPECT_EQ(outV, 1.0f);
  EXPECT_EQ(level, 1.5f);
  u = 3.0f;
  v = -4.0f;
  EXPECT_EQ(foldUnitCoords(&u, &v, &level, 3, s.store, &outU, &outV), 4);
  EXPECT_EQ(outU, 1.0f);
  EXPECT_EQ(outV, 0.0f);
}

TEST(FoldUnitCoords, OtherModes) {
  PatternStore s(kKindRgba8, 8, 8);
  float level = 0.0f, outU, outV;
  float u = 1.25f, v = 0.5f;
  EXPECT_EQ(foldUnitCoords(&u, &v, &level, 1, s.store, &outU, &outV), 6);
  EXPECT_EQ(outU, 1.25f);
  u = 1.25f;
  v = -0.25f;
  EXPECT_EQ(foldUnitCoords(&u, &v, &level, 4, s.store, &outU, &outV), 4);
  EXPECT_EQ(outU, 0.25f);
  EXPECT_EQ(outV, 0.0f);
  u = 1.25f;
  v = -0.25f;
  EXPECT_EQ(foldUnitCoords(&u, &v, &level, 5, s.store, &outU, &outV), 4);
  EXPECT_EQ(outU, 0.25f);
  EXPECT_EQ(outV, 0.75f);
  u = 1.25f;
  v = 1.25f;
  EXPECT_EQ(foldUnitCoords(&u, &v, &level, 8, s.store, &outU, &outV), 0);
  EXPECT_EQ(outU, 1.25f);
}

// ---- one probe ---------------------------------------------------------------------------------------

TEST(LevelSample, PlainReadIsTheKernel) {
  PatternStore s(kKindRgba16);
  float out[4], expected[4];
  levelSample(s.store, 2, 0.375f, 0.31f, 0.72f, 0.0f, out);
  filterUnitPixel(s.store, 2, 0.375f, 0.31f, 0.72f, expected);
  expectSameColour(out, expected);
}

TEST(LevelSample, OutOfRangePointIsClampedNotBlank) {
  PatternStore s(kKindRgba8);
  float out[4], expected[4];
  levelSample(s.store, 0, 0.0f, -0.5f, 1.0f, 0.0f, out);
  filterUnitPixel(s.store, 0, 0.0f, 0.0f, 1.0f, expected);
  expectSameColour(out, expected);
}

TEST(LevelSample, NaNPointGivesZeroColour) {
  PatternStore s(kKindRgba8);
  float out[4] = {5, 5, 5, 5};
  levelSample(s.store, 0, 0.0f, 0.5f, NAN, 0.0f, out);
  for (int c = 0; c < 4; ++c) EXPECT_EQ(out[c], 0.0f);
  levelSample(s.store, 3, 0.5f, NAN, 0.5f, 0.0f, out);
  for (int c = 0; c < 4; ++c) EXPECT_EQ(out[c], 0.0f);
}

TEST(LevelSample, BlankingModeGivesZeroColour) {
  PatternStore s(kKindRgba8);
  s.store->coordMode = 1;
  float out[4] = {5, 5, 5, 5};
  levelSample(s.store, 0, 0.0f, 1.5f, 0.5f, 0.0f, out);
  for (int c = 0; c < 4; ++c) EXPECT_EQ(out[c], 0.0f);
}

TEST(LevelSample, NearestFlagReadsOnePixel) {
  PatternStore s(kKindRgba8);
  float out[4], expected[4];
  // 64 * u - 0.5 = 10.7 -> pixel 10; 64 * v - 0.5 = 40.2 -> 40.
  levelSample(s.store, 0, 0.0f, 11.2f / 64.0f, 40.7f / 64.0f, -1.0f, out);
  readUnitPixel(10, 40, s.store, 0, expected);
  expectSameColour(out, expected);
}

TEST(LevelSample, PositiveFlagSharpensAgainstTheLevelAbove) {
  PatternStore s(kKindRgbaFloat);
  float out[4], a[4], b[4];
  levelSample(s.store, 1, 0.0f, 0.4f, 0.6f, 0.5f, out);
  filterUnitPixel(s.store, 1, 0.0f, 0.4f, 0.6f, a);
  filterUnitPixel(s.store, 2, 0.0f, 0.4f, 0.6f, b);
  for (int c = 0; c < 3; ++c) EXPECT_EQ(out[c], a[c] + (a[c] - b[c]) * 0.5f);
  EXPECT_EQ(out[3], a[3]);
}

// ---- the corner entry's shortcut ------------------------------------------------------------------------

TEST(FootprintFromCorners, ShortcutGivesWhatTheSamplerGives) {
  // footprintFromCorners reads a translation-like pixel straight from the
  // kernel; everything else goes to footprintSample. Either way it must be
  // footprintSample of the corner differences, bit for bit, state included.
  // Corners near the identity map (B about 0, on both sides of 1e-7), centres
  // on and around the edges of the unit range (v = 1.0 is outside, u = 1.0
  // inside), missing corners, NaN, and each kind of store.
  for (int32_t kind : {kKindRgba8, kKindRgba16, kKindRgbaFloat}) {
    PatternStore p(kind, 48, 40);
    uint32_t k = 99;
    for (int32_t i = 0; i < 6000; ++i) {
      k = k * 1664525u + 1013904223u;
      const float step = 1.0f / 48.0f;
      const float uHere = float(k % 5000u) / 4000.0f - 0.125f;
      const float vHere = float((k >> 7) % 5000u) / 4000.0f - 0.125f;
      // Tiny skews give |B| just below and just above the threshold.
      const float skew = float(int32_t((k >> 3) % 9u) - 4) * 1e-5f;
      float uLeft = uHere - step;
      float vLeft = vHere + (i % 3 == 0 ? skew : 0.0f);
      float uUp = uHere + (i % 5 == 0 ? skew * 3.0f : 0.0f);
      float vUp = vHere - 1.0f / 40.0f;
      if (i % 17 == 0) uLeft = -1.0f;
      if (i % 19 == 0) uUp = -1.0f;
      if (i % 29 == 0) vUp = vHere + 0.3f;  // elongated
      float uCentre = uHere - step * 0.5f;
      float vCentre = vHere - 0.5f / 40.0f;
      if (i % 23 == 0) uCentre = 1.0f;
      if (i % 31 == 0) vCentre = 1.0f;
      if (i % 37 == 0) vCentre = nanf("");
      if (i % 41 == 0) uCentre = -0.0f;

      FootprintState a = freshState();
      FootprintState b = freshState();
      a.lastLod = b.lastLod = kSentinelLod;
      float viaCorners[4];
      footprintFromCorners(uLeft, vLeft, uUp, vUp, uHere, vHere, uCentre, vCentre, p.store, viaCorners,
                           kDefaultSharpness, &a);
      float derivs[4] = {uHere - uLeft, vHere - vLeft, uHere - uUp, vHere - vUp};
      const int32_t missing = (uLeft == -1.0f ? kMissingX : 0) + (uUp == -1.0f ? kMissingY : 0);
      if (missing == kMissingX) {
        derivs[0] = derivs[2];
        derivs[1] = derivs[3];
      } else if (missing == kMissingY) {
        derivs[2] = derivs[0];
        derivs[3] = derivs[1];
      }
      float viaSampler[4];
      footprintSample(derivs, uCentre, vCentre, missing, p.store, viaSampler, kDefaultSharpness, &b);
      for (int c = 0; c < 4; ++c) ASSERT_EQ(floatBits(viaCorners[c]), floatBits(viaSampler[c])) << i << " " << c;
      ASSERT_EQ(floatBits(a.lastLod), floatBits(b.lastLod)) << i;
    }
  }
}

}  // namespace

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

// ---- the early exit ----------------------------------------------------------------------------

TEST(FootprintSample, EarlyExitReadsLevelZeroWithinStrictBounds) {
  // B = (dvx * dux + dvy * duy) * -2; exactly +-1e-7f is not inside the open
  // interval, so a footprint is computed; one float inside is the early exit.
  const float half = 1e-7f * 0.5f;
  struct Case {
    float derivs[4];
    bool early;
  };
  const Case cases[] = {
      {{1.0f / 64.0f, 0.0f, 0.0f, 1.0f / 64.0f}, true},  // the identity map
      {{1.0f, -half, 0.0f, 0.0f}, false},
      {{1.0f, half, 0.0f, 0.0f}, false},
      {{1.0f, -nextafterf(half, 0.0f), 0.0f, 0.0f}, true},
  };
  PatternStore s(kKindRgbaFloat);
  const float u = 20.5f / 64.0f, v = 41.5f / 64.0f;
  float out[4], expected[4];
  filterUnitPixel(s.store, 0, 0.0f, u, v, expected);
  for (const Case& c : cases) {
    FootprintState state = freshState();
    state.lastLod = kSentinelLod;
    footprintSample(c.derivs, u, v, 0, s.store, out, kDefaultSharpness, &state);
    EXPECT_EQ(state.lastLod == kSentinelLod, c.early) << c.derivs[1];
    if (c.early) expectSameColour(out, expected);
  }
  // Identical corners: the same read, no footprint computed.
  FootprintState state = freshState();
  state.lastLod = kSentinelLod;
  footprintFromCorners(u, v, u, v, u, v, u, v, s.store, out, kDefaultSharpness, &state);
  expectSameColour(out, expected);
  EXPECT_EQ(state.lastLod, kSentinelLod);
}

TEST(FootprintSample, NaNPointOrBlankingModeGivesZeroColour) {
  PatternStore s(kKindRgba8);
  FootprintState state = freshState();
  const float derivs[4] = {0.3f, 0.01f, 0.02f, 0.2f};
  auto expectZero = [](const float out[4]) {
    for (int c = 0; c < 4; ++c) EXPECT_EQ(out[c], 0.0f) << c;
  };
  float out[4] = {9.0f, 9.0f, 9.0f, 9.0f};
  footprintSample(derivs, NAN, 0.5f, 0, s.store, out, kDefaultSharpness, &state);
  expectZero(out);
  memset(out, 0x7f, sizeof out);
  footprintFromCorners(0.1f, 0.2f, 0.3f, 0.4f, 0.5f, 0.6f, 0.4f, NAN, s.store, out, kDefaultSharpness, &state);
  expectZero(out);
  memset(out, 0x7f, sizeof out);
  levelSample(s.store, 0, 0.0f, 0.5f, NAN, 0.0f, out);
  expectZero(out);
  memset(out, 0x7f, sizeof out);
  levelSample(s.store, 3, 0.5f, NAN, 0.5f, 0.0f, out);
  expectZero(out);
  s.store->coordMode = 1;
  memset(out, 0x7f, sizeof out);
  levelSample(s.store, 0, 0.0f, 1.5f, 0.5f, 0.0f, out);
  expectZero(out);
}

// ---- the ellipse ----------------------------------------------------------------------------------

TEST(FootprintSample, LevelFromTheMinorAxisFlooredAndLimited) {
  // Tiny derivatives (0.016 pixels): F is raised to 1e-6, the minor axis
  // floors at 0.5, lod -1, read at level 0. Four pixels a step, barely
  // skewed: both axes 4 * 0.85 = 3.4 pixels, lod log2(3.4) = 1.766. A level
  // carried over as fixed is limited to 0..topLevel (a 16 x 16 store: 4).
  const float e = 0.016f / 64.0f;
  struct Case {
    int32_t size;
    float derivs[4];
    bool fixed;
    float lastLod, lod;
    int32_t level;
    float fraction;
  };
  const float round = float(log2(4.0 * 0.85));
  const Case cases[] = {
      {64, {e, e, e, e}, false, 0.0f, -1.0f, 0, 0.0f},
      {64, {4.0f / 64.0f, 1e-4f, 0.0f, 4.0f / 64.0f}, false, 0.0f, round, 1, round - 1.0f},
      {16, {0.25f, 1e-3f, 0.0f, 0.25f}, true, 10.0f, 10.0f, 4, 0.0f},
      {16, {0.25f, 1e-3f, 0.0f, 0.25f}, true, -3.0f, -3.0f, 0, 0.0f},
  };
  for (const Case& c : cases) {
    PatternStore s(kKindRgba8, c.size, c.size);
    FootprintState state = freshState();
    state.fixedLod = c.fixed;
    state.lastLod = c.lastLod;
    const float u = 0.52f, v = 0.47f;
    float out[4], expected[4];
    footprintSample(c.derivs, u, v, 0, s.store, out, kDefaultSharpness, &state);
    EXPECT_NEAR(state.lastLod, c.lod, 1e-4) << c.derivs[0];
    filterUnitPixel(s.store, c.level, c.level == 1 ? state.lastLod - 1.0f : c.fraction, u, v, expected);
    expectSameColour(out, expected);
  }
}

TEST(FootprintSample, SharpnessShrinksTheAxes) {
  PatternStore s(kKindRgba8);
  const float derivs[4] = {4.0f / 64.0f, 1e-4f, 0.0f, 4.0f / 64.0f};
  FootprintState soft = freshState(), sharp = freshState(), negative = freshState();
  float out[4];
  footprintSample(derivs, 0.5f, 0.5f, 0, s.store, out, 0.0f, &soft);
  footprintSample(derivs, 0.5f, 0.5f, 0, s.store, out, 1.0f, &sharp);
  footprintSample(derivs, 0.5f, 0.5f, 0, s.store, out, -3.0f, &negative);
  // shrink = 1 - s / 2: a factor of 2 between s = 0 and s = 1, one level; a
  // negative sharpness counts as 0.
  EXPECT_NEAR(soft.lastLod - sharp.lastLod, 1.0, 1e-5);
  EXPECT_EQ(negative.lastLod, soft.lastLod);
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
  struct Case {
    float ratio;
    int32_t maxProbes, count;
    float weight;  // of the outer probes; -1: not checked
  };
  // Exactly 1.25 is outside the band: trunc(1.75) = 1, raised to 2 (not
  // capped), full weight; inside the band the weight ramps.
  const Case cases[] = {{1.25f, 20, 2, 1.0f},  {1.3f, 20, 2, (1.3f - 1.25f) * 4.0f}, {1.5f, 20, 2, 1.0f},
                        {2.49f, 20, 2, -1.0f}, {2.5f, 20, 3, -1.0f},                {8.4f, 20, 8, 1.0f},
                        {19.6f, 20, 20, -1.0f}, {100.0f, 20, 20, -1.0f},            {8.4f, 5, 5, -1.0f},
                        {1.25f, 1, 2, -1.0f}};
  for (const Case& c : cases) {
    float m = 0.0f;
    EXPECT_EQ(probeCount(c.ratio, c.maxProbes, &m), c.count) << c.ratio;
    if (c.weight >= 0.0f) {
      EXPECT_EQ(m, c.weight) << c.ratio;
    }
  }
}

TEST(MajorAxis, CosinesApproximateAUnitDirection) {
  float p, q;
  majorAxisCosines(0.0f, &p, &q);
  EXPECT_EQ(p, 1.0f);
  EXPECT_EQ(q, 0.0f);
  // For small t the angle is about half of atan(t), on either side.
  for (float t : {-0.25f, -0.125f, 0.125f, 0.25f}) {
    majorAxisCosines(t, &p, &q);
    EXPECT_NEAR(atan2(q, p), atan(double(t)) * 0.5, 2e-3) << t;
  }
  // The pair of t = 1: P = 1 - 0.12404906 + 0.018476253, Q = (126.91107 - 12.871603) / 255.
  majorAxisCosines(1.0f, &p, &q);
  EXPECT_NEAR(p, 0.894427, 1e-6);
  EXPECT_NEAR(q, 0.447214, 1e-6);
}

TEST(FootprintSample, ProbesOfAnEllipseWithEqualDiagonalTermsGiveZero) {
  // On a 2 x 2 store, with all four derivatives equal, A and C are the same
  // float: t = Bn / (An - Cn) is infinite, every probe point NaN, the colour
  // zero. A hair of difference gives a direction and a colour.
  PatternStore s(kKindRgba8, 2, 2);
  FootprintState state = freshState();
  const float equal[4] = {0.45f, 0.45f, 0.45f, 0.45f};
  float out[4] = {7, 7, 7, 7};
  footprintSample(equal, 0.5f, 0.5f, 0, s.store, out, kDefaultSharpness, &state);
  for (int c = 0; c < 4; ++c) EXPECT_EQ(out[c], 0.0f) << c;
  const float unequal[4] = {0.45f, 0.45f, 0.44f, 0.45f};
  footprintSample(unequal, 0.5f, 0.5f, 0, s.store, out, kDefaultSharpness, &state);
  EXPECT_GT(out[3], 0.0f);
}

// ---- a level carried over -----------------------------------------------------------------------

TEST(FootprintSample, BothPairsMissingOrAFixedLevelReuseTheLastLevel) {
  PatternStore s(kKindRgba8);
  float out[4], expected[4];
  FootprintState state = freshState();
  state.lastLod = 1.5f;
  footprintFromCorners(-1.0f, 0.2f, -1.0f, 0.7f, 0.4f, 0.6f, 0.37f, 0.62f, s.store, out, kDefaultSharpness, &state);
  filterUnitPixel(s.store, 1, 0.5f, 0.37f, 0.62f, expected);
  expectSameColour(out, expected);
  EXPECT_EQ(state.lastLod, 1.5f);
  // A fixed level; the point out of range is clamped first.
  state.fixedLod = true;
  state.lastLod = 2.25f;
  const float derivs[4] = {8.0f / 64.0f, 1e-4f, 0.0f, 1.0f / 64.0f};
  footprintSample(derivs, 1.25f, 0.5f, 0, s.store, out, kDefaultSharpness, &state);
  filterUnitPixel(s.store, 2, 0.25f, 1.0f, 0.5f, expected);
  expectSameColour(out, expected);
  EXPECT_EQ(state.lastLod, 2.25f);
}

// ---- derivatives to pixels --------------------------------------------------------------------------

TEST(DerivativesToPixels, ScalesWrapsAndFlagsSeams) {
  // Mode 3 scales; a step of exactly half the image is no seam. Mode 4 wraps
  // both, 5 wraps u alone, 0 neither.
  struct Case {
    FootprintDerivs in;
    float dux, duy, dvx, dvy;
    bool seam;
  };
  const Case cases[] = {
      {{1.0f, 200.0f, 100.0f, 3, 0.5f, -0.25f, 0.125f, -0.5f, true}, 100.0f, 25.0f, -25.0f, -50.0f, false},
      {{1.0f, 200.0f, 100.0f, 3, 0.0f, nextafterf(-0.5f, -1.0f), 0.0f, 0.0f, false}, 0.0f, 0.0f, nextafterf(-0.5f, -1.0f) * 100.0f, 0.0f, true},
      {{1.0f, 10.0f, 10.0f, 4, 0.75f, 0.75f, -0.75f, 0.0f, false}, -2.5f, 2.5f, 7.5f, 0.0f, true},
      {{1.0f, 10.0f, 10.0f, 5, 0.75f, 0.75f, 0.0f, 0.0f, false}, -2.5f, 0.0f, -2.5f, 0.0f, false},
      {{1.0f, 10.0f, 10.0f, 0, 0.75f, 0.75f, 0.0f, 0.0f, false}, 7.5f, 0.0f, 7.5f, 0.0f, false},
  };
  for (const Case& c : cases) {
    FootprintDerivs d = c.in;
    derivativesToPixels(d);
    EXPECT_EQ(d.dux, c.dux) << c.in.coordMode;
    EXPECT_EQ(d.duy, c.duy) << c.in.coordMode;
    EXPECT_EQ(d.dvx, c.dvx) << c.in.coordMode;
    EXPECT_EQ(d.dvy, c.dvy) << c.in.coordMode;
    EXPECT_EQ(d.bigStep, c.seam) << c.in.coordMode;
  }
}

// ---- folding ------------------------------------------------------------------------------------------

TEST(FoldUnitCoords, ModesAndTheirRanges) {
  // Mode 3 clamps in place: closed in u, half open in v. 1 blanks past the
  // range, 4 wraps and clamps, 5 wraps both, 8 leaves the point alone.
  struct Case {
    int32_t mode;
    float u, v;
    int32_t result;
    float outU, outV;
  };
  const Case cases[] = {{3, 1.0f, 0.5f, 0, 1.0f, 0.5f},    {3, 0.5f, 1.0f, 4, 0.5f, 1.0f},
                        {3, 0.0f, 0.0f, 0, 0.0f, 0.0f},    {3, -0.2f, 1.7f, 4, 0.0f, 1.0f},
                        {3, 3.0f, -4.0f, 4, 1.0f, 0.0f},   {1, 1.25f, 0.5f, 6, 1.25f, 0.5f},
                        {4, 1.25f, -0.25f, 4, 0.25f, 0.0f}, {5, 1.25f, -0.25f, 4, 0.25f, 0.75f},
                        {8, 1.25f, 1.25f, 0, 1.25f, 1.25f}};
  PatternStore s(kKindRgba8, 8, 8);
  for (const Case& c : cases) {
    float level = 1.5f, outU = -9.0f, outV = -9.0f, u = c.u, v = c.v;
    EXPECT_EQ(foldUnitCoords(&u, &v, &level, c.mode, s.store, &outU, &outV), c.result) << c.mode << " " << c.u;
    EXPECT_EQ(outU, c.outU) << c.mode << " " << c.u;
    EXPECT_EQ(outV, c.outV) << c.mode << " " << c.v;
    if (c.mode == 3) {
      EXPECT_TRUE(u == c.outU && v == c.outV);
    }
    EXPECT_EQ(level, 1.5f);
  }
}

// ---- one probe ---------------------------------------------------------------------------------------

TEST(LevelSample, ClampedNearestAndSharpenedReads) {
  PatternStore s(kKindRgbaFloat);
  float out[4], expected[4], above[4];
  // Out of range: clamped, not blank.
  levelSample(s.store, 0, 0.0f, -0.5f, 1.0f, 0.0f, out);
  filterUnitPixel(s.store, 0, 0.0f, 0.0f, 1.0f, expected);
  expectSameColour(out, expected);
  // A negative flag reads one pixel: 64 u - 0.5 = 10.7 -> 10; 64 v - 0.5 = 40.2 -> 40.
  levelSample(s.store, 0, 0.0f, 11.2f / 64.0f, 40.7f / 64.0f, -1.0f, out);
  readUnitPixel(10, 40, s.store, 0, expected);
  expectSameColour(out, expected);
  // A positive flag sharpens against the level above, colour only.
  levelSample(s.store, 1, 0.0f, 0.4f, 0.6f, 0.5f, out);
  filterUnitPixel(s.store, 1, 0.0f, 0.4f, 0.6f, expected);
  filterUnitPixel(s.store, 2, 0.0f, 0.4f, 0.6f, above);
  for (int c = 0; c < 3; ++c) EXPECT_EQ(out[c], expected[c] + (expected[c] - above[c]) * 0.5f);
  EXPECT_EQ(out[3], expected[3]);
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

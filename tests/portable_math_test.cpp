// The build-independent math functions against the platform's C library:
// within one or two units in the last place over the ranges the engine uses,
// exact at the special values, and the float-to-integer conversion's answers
// for values C++ leaves undefined.
#include <gtest/gtest.h>

#include <float.h>
#include <math.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <utility>

#include "store/portable_math.h"

namespace {

// Distance in units in the last place between two doubles of the same sign
// region; 0 for equal values (+0 and -0 included) and for two NaNs.
int64_t ulpDistance(double a, double b) {
  if (a == b) return 0;
  if (isnan(a) && isnan(b)) return 0;
  if (isnan(a) || isnan(b)) return INT64_MAX;
  int64_t ia;
  int64_t ib;
  memcpy(&ia, &a, sizeof ia);
  memcpy(&ib, &b, sizeof ib);
  // Map the sign-magnitude order onto a plain integer order.
  if (ia < 0) ia = INT64_MIN - ia;
  if (ib < 0) ib = INT64_MIN - ib;
  return ia > ib ? ia - ib : ib - ia;
}

// A fixed sequence of doubles in [0, 1).
struct Uniform {
  uint64_t state = 0x9e3779b97f4a7c15ull;
  double next() {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    return double(state >> 11) * 0x1p-53;
  }
};

constexpr double kTruncatedPi = 3.141592653;

TEST(PortableSinCos, MatchTheLibraryOverTheRangesTheEngineUses) {
  // The kernel table takes sin(pi x) and sin(pi x / 2) for x in (-2, 2); the
  // unit circle; wide arguments; and where the reduction cancels most, the
  // arguments closest to k pi / 2.
  struct Sweep {
    const char* what;
    int count;
    double (*argument)(Uniform&, int);
    int64_t tolerance;
  };
  const Sweep sweeps[] = {
      {"pi x", 400000, [](Uniform& r, int) { return kTruncatedPi * (r.next() * 4.0 - 2.0); }, 1},
      {"pi x / 2", 400000, [](Uniform& r, int) { return kTruncatedPi * (r.next() * 4.0 - 2.0) / 2; }, 1},
      {"unit circle", 300000, [](Uniform& r, int) { return (r.next() * 4.0 - 2.0) * M_PI; }, 1},
      {"wide", 200000, [](Uniform& r, int) { return (r.next() * 2.0 - 1.0) * 1.0e6; }, 2},
      {"near k pi / 2", 81 * 50,
       [](Uniform&, int n) {
         double x = (n / 50 - 40) * (M_PI / 2);
         for (int step = 0; step < n % 50; ++step) x = nextafter(x, 1e9);
         return x;
       },
       2},
  };
  for (const Sweep& sweep : sweeps) {
    Uniform r;
    int64_t worst = 0;
    for (int n = 0; n < sweep.count; ++n) {
      const double x = sweep.argument(r, n);
      worst = std::max(worst, ulpDistance(portableSin(x), sin(x)));
      worst = std::max(worst, ulpDistance(portableCos(x), cos(x)));
    }
    EXPECT_LE(worst, sweep.tolerance) << sweep.what;
  }
}

// Exact answers at the special values, bit for bit (the sign of a zero and
// NaN included).
TEST(PortableMath, SpecialValues) {
  struct Case {
    const char* what;
    double (*f)(double);
    double x, want;
  };
  const Case cases[] = {
      {"sin", portableSin, 0.0, 0.0},           {"sin", portableSin, -0.0, -0.0},
      {"sin", portableSin, 1e-300, 1e-300},     {"sin", portableSin, M_PI / 2, 1.0},
      {"sin", portableSin, INFINITY, NAN},      {"sin", portableSin, NAN, NAN},
      {"cos", portableCos, 0.0, 1.0},           {"cos", portableCos, M_PI, -1.0},
      {"cos", portableCos, -INFINITY, NAN},     {"log2", portableLog2, 1.0, 0.0},
      {"log2", portableLog2, 0.0, -INFINITY},   {"log2", portableLog2, -0.0, -INFINITY},
      {"log2", portableLog2, -1.0, NAN},        {"log2", portableLog2, NAN, NAN},
      {"log2", portableLog2, INFINITY, INFINITY}, {"log2", portableLog2, DBL_TRUE_MIN, -1074.0},
      {"log2", portableLog2, 0.5, -1.0},
  };
  for (const Case& c : cases) {
    const double got = c.f(c.x);
    EXPECT_EQ(ulpDistance(got, c.want), 0) << c.what << "(" << c.x << ") = " << got;
    if (!isnan(c.want)) {
      EXPECT_EQ(signbit(got), signbit(c.want)) << c.what << "(" << c.x << ")";
    }
  }
  // Beyond the careful range the result is still a sine: bounded.
  for (double x : {3.0e6, 1.0e10, 1.0e20, 1.0e300, -7.5e15}) {
    EXPECT_LE(fabs(portableSin(x)), 1.0) << x;
    EXPECT_LE(fabs(portableCos(x)), 1.0) << x;
  }
  for (int e = -1074; e <= 1023; ++e) EXPECT_EQ(portableLog2(ldexp(1.0, e)), double(e)) << e;
}

// Spread over the exponents from 2^-30 to 1e6, the plain numbers where
// footprint axes land, and the steps either side of 1.
TEST(PortableLog2, MatchesTheLibraryUpToAMillion) {
  Uniform r;
  int64_t worst = 0;
  auto compare = [&](double x) { worst = std::max(worst, ulpDistance(portableLog2(x), log2(x))); };
  for (int n = 0; n < 400000; ++n) compare(exp2(r.next() * (log2(1.0e6) + 30.0) - 30.0));
  for (int i = 1; i <= 100000; ++i) compare(i * 0.01);
  double up = 1.0, down = 1.0;
  for (int step = 0; step < 2000; ++step) {
    compare(up = nextafter(up, 2.0));
    compare(down = nextafter(down, 0.0));
  }
  // A float axis length as the footprint passes it: log2 of 0.85 * sqrt(2).
  compare(double(float(0.85 * sqrt(2.0))));
  EXPECT_LE(worst, 1);
}

TEST(PortableAtan2, MatchesTheLibraryInAllQuadrants) {
  Uniform r;
  int64_t worst = 0;
  for (int n = 0; n < 400000; ++n) {
    const double scale = exp2(r.next() * 40.0 - 20.0);
    const double y = (r.next() * 2.0 - 1.0) * scale;
    const double x = (r.next() * 2.0 - 1.0);
    worst = std::max(worst, ulpDistance(portableAtan2(y, x), atan2(y, x)));
    worst = std::max(worst, ulpDistance(portableAtan2(x, y), atan2(x, y)));
  }
  EXPECT_LE(worst, 1);
}

TEST(PortableAtan2, AxesZerosAndInfinities) {
  const double zeros[] = {0.0, -0.0};
  const double values[] = {0.0, -0.0, 1.0, -1.0, 1e-310, -1e-310, 1e300, -1e300, INFINITY, -INFINITY, 3.5, -2.25};
  for (double y : values) {
    for (double x : values) {
      const double got = portableAtan2(y, x);
      const double want = atan2(y, x);
      EXPECT_LE(ulpDistance(got, want), 1) << "atan2(" << y << ", " << x << ")";
      EXPECT_EQ(signbit(got), signbit(want)) << "atan2(" << y << ", " << x << ")";
    }
  }
  for (double z : zeros) {
    EXPECT_TRUE(isnan(portableAtan2(NAN, z)));
    EXPECT_TRUE(isnan(portableAtan2(z, NAN)));
  }
  EXPECT_EQ(portableAtan2(1.0, 1.0), M_PI / 4);
  EXPECT_EQ(portableAtan2(0.0, -1.0), M_PI);
  EXPECT_EQ(portableAtan2(-1.0, 0.0), -M_PI / 2);
}

TEST(TruncToInt32, TruncatesTowardZeroAndGivesIntMinOutside) {
  const std::pair<double, int32_t> doubles[] = {
      {2.9, 2},           {-2.9, -2},         {2147483647.0, INT32_MAX}, {-2147483648.0, INT32_MIN},
      {-2147483648.9, INT32_MIN}, {2147483648.0, INT32_MIN}, {1e20, INT32_MIN}, {double(NAN), INT32_MIN}};
  for (const auto& c : doubles) EXPECT_EQ(truncToInt32(c.first), c.second) << c.first;
  const std::pair<float, int32_t> floats[] = {
      {-0.5f, 0},         {-1e20f, INT32_MIN}, {2147483648.0f, INT32_MIN}, {2147483520.0f, 2147483520},
      {float(NAN), INT32_MIN}, {float(INFINITY), INT32_MIN}};
  for (const auto& c : floats) EXPECT_EQ(truncToInt32(c.first), c.second) << c.first;
}

}  // namespace

#include "store/portable_math.h"

#include <math.h>

// The methods are the classic ones for IEEE double: Cody-Waite reduction by
// pi/2 in three pieces, minimax polynomials on [-pi/4, pi/4] for sine and
// cosine, log(1 + f) through s = f / (2 + f) with the result split into a high
// and a low part before the scaling by 1/ln 2, and atan on five intervals with
// tabulated atan(0.5), atan(1), atan(1.5), atan(inf). Every step is a plain
// double operation, so the results depend on nothing but IEEE arithmetic.

namespace {

inline uint64_t doubleBits(double value) {
  uint64_t bits;
  memcpy(&bits, &value, sizeof bits);
  return bits;
}

inline double bitsToDouble(uint64_t bits) {
  double value;
  memcpy(&value, &bits, sizeof value);
  return value;
}

inline int exponentOf(double value) { return int(doubleBits(value) >> 52) & 0x7ff; }

// ---- sine and cosine ------------------------------------------------------------------------

// 2/pi, and pi/2 in three 33-bit pieces, each with the tail left after it.
const double kTwoOverPi = 6.36619772367581382433e-01;
const double kHalfPi1 = 1.57079632673412561417e+00;
const double kHalfPi1Tail = 6.07710050650619224932e-11;
const double kHalfPi2 = 6.07710050630396597660e-11;
const double kHalfPi2Tail = 2.02226624879595063154e-21;
const double kHalfPi3 = 2.02226624871116645580e-21;
const double kHalfPi3Tail = 8.47842766036889956997e-32;
const double kTwoPi = 6.28318530717958647692;
// Adding and subtracting 1.5 * 2^52 rounds a double of magnitude below 2^51 to an integer.
const double kRoundShift = 6755399441055744.0;

// Minimax coefficients of sin(x) = x + S1 x^3 + ... + S6 x^13 on [-pi/4, pi/4].
const double kS1 = -1.66666666666666324348e-01;
const double kS2 = 8.33333333332248946124e-03;
const double kS3 = -1.98412698298579493134e-04;
const double kS4 = 2.75573137070700676789e-06;
const double kS5 = -2.50507602534068634195e-08;
const double kS6 = 1.58969099521155010221e-10;
// cos(x) = 1 - x^2/2 + C1 x^4 + ... + C6 x^14 on [-pi/4, pi/4].
const double kC1 = 4.16666666666666019037e-02;
const double kC2 = -1.38888888888741095749e-03;
const double kC3 = 2.48015872894767294178e-05;
const double kC4 = -2.75573143513906633035e-07;
const double kC5 = 2.08757232129817482790e-09;
const double kC6 = -1.13596475577881948265e-11;

// sin(x + tail) for |x + tail| <= pi/4, tail much smaller than x.
double sinKernel(double x, double tail) {
  double z = x * x;
  double v = z * x;
  double r = kS2 + z * (kS3 + z * (kS4 + z * (kS5 + z * kS6)));
  if (tail == 0.0) return x + v * (kS1 + z * r);
  return x - ((z * (0.5 * tail - v * r) - tail) - v * kS1);
}

// cos(x + tail) for |x + tail| <= pi/4. 1 - x^2/2 is formed as w plus the
// rounding error of w, so that the result keeps full precision near pi/4.
double cosKernel(double x, double tail) {
  double z = x * x;
  double z2 = z * z;
  double r = z * (kC1 + z * (kC2 + z * kC3)) + z2 * z2 * (kC4 + z * (kC5 + z * kC6));
  double halfZ = 0.5 * z;
  double w = 1.0 - halfZ;
  return w + (((1.0 - w) - halfZ) + (z * r - x * tail));
}

// x = n * pi/2 + (hi + lo) with |hi + lo| <= pi/4 (about); returns n modulo 4.
// Each further piece of pi/2 is subtracted only when cancellation ate the
// bits the earlier pieces provided: the first gives 85 good bits, three give
// 151, enough for every |x| below 2^20 * pi/2. Larger arguments are first
// taken modulo the double nearest 2 pi (fmod is exact, so every build agrees):
// the result stays a sine of something, in -1..1, but no longer that of x.
// Nothing in the engine passes such arguments.
int reduceHalfPi(double x, double* hi, double* lo) {
  if (exponentOf(x) >= 0x413) x = fmod(x, kTwoPi);  // |x| >= 2^20
  double n = x * kTwoOverPi + kRoundShift - kRoundShift;
  double r = x - n * kHalfPi1;
  double w = n * kHalfPi1Tail;
  double y = r - w;
  int ex = exponentOf(x);
  if (ex - exponentOf(y) > 16) {
    double t = r;
    w = n * kHalfPi2;
    r = t - w;
    w = n * kHalfPi2Tail - ((t - r) - w);
    y = r - w;
    if (ex - exponentOf(y) > 49) {
      t = r;
      w = n * kHalfPi3;
      r = t - w;
      w = n * kHalfPi3Tail - ((t - r) - w);
      y = r - w;
    }
  }
  *hi = y;
  *lo = (r - y) - w;
  // |n| is below 2^21 here.
  return static_cast<int>(n) & 3;
}

// ---- logarithm --------------------------------------------------------------------------------

// 1/ln 2 as a 33-bit high part and the rest.
const double kInvLn2Hi = 1.44269504072144627571e+00;
const double kInvLn2Lo = 1.67517131648865118353e-10;
// log(1 + f) = f - f^2/2 + s * (f^2/2 + R(s^2)), s = f / (2 + f); R in two halves.
const double kLg1 = 6.666666666666735130e-01;
const double kLg2 = 3.999999999940941908e-01;
const double kLg3 = 2.857142874366239149e-01;
const double kLg4 = 2.222219843214978396e-01;
const double kLg5 = 1.818357216161805012e-01;
const double kLg6 = 1.531383769920937332e-01;
const double kLg7 = 1.479819860511658591e-01;

// ---- arctangent -----------------------------------------------------------------------------------

const double kAtanHi[4] = {4.63647609000806093515e-01, 7.85398163397448278999e-01,
                           9.82793723247329054082e-01, 1.57079632679489655800e+00};
const double kAtanLo[4] = {2.26987774529616870924e-17, 3.06161699786838301793e-17,
                           1.39033110312309984516e-17, 6.12323399573676603587e-17};
const double kAtanPoly[11] = {3.33333333333329318027e-01,  -1.99999999998764832476e-01,
                              1.42857142725034663711e-01,  -1.11111104054623557880e-01,
                              9.09088713343650656196e-02,  -7.69187620504482999495e-02,
                              6.66107313738753120669e-02,  -5.83357013379057348645e-02,
                              4.97687799461593236017e-02,  -3.65315727442169155270e-02,
                              1.62858201153657823623e-02};
const double kPi = 3.1415926535897931160e+00;
const double kPiLo = 1.2246467991473531772e-16;

// atan(x) for finite x >= 0.
double atanNonNegative(double x) {
  uint32_t high = uint32_t(doubleBits(x) >> 32);
  if (high >= 0x44100000) return kAtanHi[3] + kAtanLo[3];  // x >= 2^66
  int id;
  if (high < 0x3fdc0000) {                 // x < 7/16
    if (high < 0x3e400000) return x;       // x < 2^-27: atan(x) rounds to x
    id = -1;
  } else if (high < 0x3fe60000) {          // 7/16 <= x < 11/16: around atan(1/2)
    id = 0;
    x = (2.0 * x - 1.0) / (2.0 + x);
  } else if (high < 0x3ff30000) {          // 11/16 <= x < 19/16: around atan(1)
    id = 1;
    x = (x - 1.0) / (x + 1.0);
  } else if (high < 0x40038000) {          // 19/16 <= x < 39/16: around atan(3/2)
    id = 2;
    x = (x - 1.5) / (1.0 + 1.5 * x);
  } else {                                 // beyond: pi/2 - atan(1/x)
    id = 3;
    x = -1.0 / x;
  }
  double z = x * x;
  double w = z * z;
  const double* a = kAtanPoly;
  double odd = z * (a[0] + w * (a[2] + w * (a[4] + w * (a[6] + w * (a[8] + w * a[10])))));
  double even = w * (a[1] + w * (a[3] + w * (a[5] + w * (a[7] + w * a[9]))));
  if (id < 0) return x - x * (odd + even);
  return kAtanHi[id] - ((x * (odd + even) - kAtanLo[id]) - x);
}

}  // namespace

double portableSin(double x) {
  int exponent = exponentOf(x);
  if (exponent == 0x7ff) return x - x;  // NaN for NaN and infinities
  if (exponent < 0x3ff - 27) return x;  // below 2^-27 sin(x) rounds to x; keeps the sign of -0
  double hi;
  double lo;
  switch (reduceHalfPi(x, &hi, &lo)) {
    case 0: return sinKernel(hi, lo);
    case 1: return cosKernel(hi, lo);
    case 2: return -sinKernel(hi, lo);
    default: return -cosKernel(hi, lo);
  }
}

double portableCos(double x) {
  if (exponentOf(x) == 0x7ff) return x - x;
  double hi;
  double lo;
  switch (reduceHalfPi(x, &hi, &lo)) {
    case 0: return cosKernel(hi, lo);
    case 1: return -sinKernel(hi, lo);
    case 2: return -cosKernel(hi, lo);
    default: return sinKernel(hi, lo);
  }
}

double portableLog2(double x) {
  uint64_t bits = doubleBits(x);
  uint32_t high = uint32_t(bits >> 32);
  int k = 0;
  if (high < 0x00100000 || (high >> 31) != 0) {
    if ((bits << 1) == 0) return -1.0 / (x * x);  // -inf for +-0
    if ((high >> 31) != 0) return (x - x) / 0.0;  // NaN for negatives
    // Subnormal: scale into the normal range first.
    k -= 54;
    x *= 18014398509481984.0;  // 2^54
    bits = doubleBits(x);
    high = uint32_t(bits >> 32);
  } else if (high >= 0x7ff00000) {
    return x;  // +inf and NaN
  } else if (bits == 0x3ff0000000000000ull) {
    return 0.0;
  }

  // x = 2^k * m with m in [sqrt(2)/2, sqrt(2)).
  high += 0x3ff00000 - 0x3fe6a09e;
  k += int(high >> 20) - 0x3ff;
  high = (high & 0x000fffff) + 0x3fe6a09e;
  x = bitsToDouble((uint64_t(high) << 32) | (bits & 0xffffffffull));

  double f = x - 1.0;
  double halfF2 = 0.5 * f * f;
  double s = f / (2.0 + f);
  double z = s * s;
  double w = z * z;
  double t1 = w * (kLg2 + w * (kLg4 + w * kLg6));
  double t2 = z * (kLg1 + w * (kLg3 + w * (kLg5 + w * kLg7)));
  double r = t2 + t1;

  // log(m) = hi + lo, with hi cut to 32 significant bits so that hi * kInvLn2Hi is exact.
  double hi = bitsToDouble(doubleBits(f - halfF2) & 0xffffffff00000000ull);
  double lo = f - hi - halfF2 + s * (halfF2 + r);
  double valueHi = hi * kInvLn2Hi;
  double valueLo = (lo + hi) * kInvLn2Lo + lo * kInvLn2Hi;

  // Add k with the rounding error of the addition carried into the low part.
  double y = double(k);
  double sum = y + valueHi;
  valueLo += (y - sum) + valueHi;
  return valueLo + sum;
}

double portableAtan2(double y, double x) {
  if (x != x || y != y) return x + y;
  bool yNegative = (doubleBits(y) >> 63) != 0;
  bool xNegative = (doubleBits(x) >> 63) != 0;
  double ay = yNegative ? -y : y;
  double ax = xNegative ? -x : x;
  const double inf = bitsToDouble(0x7ff0000000000000ull);

  if (ay == 0.0) {
    if (!xNegative) return y;  // +-0 for x >= +0
    return yNegative ? -kPi : kPi;
  }
  if (ax == 0.0) return yNegative ? -kPi / 2 : kPi / 2;
  if (ax == inf) {
    double z;
    if (ay == inf) z = xNegative ? 3 * kPi / 4 : kPi / 4;
    else z = xNegative ? kPi : 0.0;
    return yNegative ? -z : z;
  }
  int ex = exponentOf(ax);
  int ey = exponentOf(ay);
  if (ay == inf || ey - ex > 64) return yNegative ? -kPi / 2 : kPi / 2;

  double z;
  if (xNegative && ex - ey > 64) z = 0.0;  // |y/x| < 2^-64: the result is pi to the last bit
  else z = atanNonNegative(ay / ax);
  if (!xNegative) return yNegative ? -z : z;
  // pi - z, with pi's tail applied to z first for the last bit.
  double a = kPi - (z - kPiLo);
  return yNegative ? -a : a;
}

// The numbered blend modes. The copy is the only one a run of the filter
// selects; the others are kept as the engine's vocabulary.
#include "finish/blend_modes.h"

#include "finish/colour_spaces.h"
#include "store/portable_math.h"

namespace {

const int32_t kFull = 32768;
const int32_t kHalf = 16384;
const float kUnit15 = 3.0517578125e-05f;  // 2^-15
const double kUnit30 = 9.313225746154785e-10;  // 2^-30

// 32-bit two's-complement arithmetic that wraps as the machine does. Inside
// the 15-bit range nothing wraps; a colour far above full scale (or the
// INT32_MIN of a NaN) then still gives a defined answer instead of undefined
// behaviour. Right shifts of negative numbers are arithmetic.
inline int32_t add(int32_t a, int32_t b) { return int32_t(uint32_t(a) + uint32_t(b)); }
inline int32_t sub(int32_t a, int32_t b) { return int32_t(uint32_t(a) - uint32_t(b)); }
inline int32_t mul(int32_t a, int32_t b) { return int32_t(uint32_t(a) * uint32_t(b)); }
inline int32_t shl(int32_t a, int bits) { return int32_t(uint32_t(a) << bits); }
inline int32_t absWrap(int32_t a) { return a < 0 ? sub(0, a) : a; }
// Truncating division. The divisors of the modes are never 0 inside the
// 15-bit range; outside it a 0 divisor gives 0, and INT32_MIN / -1 wraps.
inline int32_t quot(int32_t a, int32_t b) {
  if (b == 0) return 0;
  if (b == -1) return sub(0, a);
  return a / b;
}
inline int32_t minInt(int32_t a, int32_t b) { return a < b ? a : b; }
inline int32_t maxInt(int32_t a, int32_t b) { return a > b ? a : b; }
inline int32_t clamp15(int32_t x) { return x < 0 ? 0 : (x > kFull ? kFull : x); }

// Channel value to and from the 15-bit range.
inline int32_t to15(float v) { return truncToInt32(v * 32768.0f); }
inline float from15(int32_t c) { return float(c) * kUnit15; }

// Hard-light step: multiply below the middle of a, screen above it.
inline int32_t hardStep(int32_t a, int32_t b) {
  if (a < kHalf) return mul(a, b) >> 14;
  return sub(kFull, mul(sub(kFull, a), sub(kFull, b)) >> 14);
}

// Pin-light step: y below the middle darkens x toward 2y, above it lightens
// x toward 2y - full.
inline int32_t pinStep(int32_t x, int32_t y) {
  if (y < kHalf) return minInt(x, mul(2, y));
  return maxInt(x, sub(mul(2, y), kFull));
}

inline int32_t luma(int32_t r, int32_t g, int32_t b) {
  return add(add(mul(77, r), mul(150, g)), mul(28, b));
}

inline int32_t mix(int32_t a, int32_t b, int32_t t) {
  return add(mul(sub(kFull, t), a), mul(t, b)) >> 15;
}

// Triangle of lightness: 0 at black and white, 1 at the middle, in double.
inline double tri(float l) {
  double twice = double(l) * 2.0;
  return twice > 1.0 ? 2.0 - twice : twice;
}

// 1 - (1 - tri(l))^4: how far a lightness lies from the ends, sharpened.
inline double midWeight(float l) {
  double k = 1.0 - tri(l);
  return 1.0 - k * k * k * k;
}

// Ratio blend of two floats: below 0.5 while b exceeds a, above 0.5 otherwise;
// 1.0 when neither can be divided, and never above 1.
inline float quotient(float a, float b) {
  double v;
  if (b > a) {
    v = (b > 0.0f) ? double(a) * 0.5 / double(b) : 1.0;
  } else {
    v = (a > 0.0f) ? 1.0 - double(b) * 0.5 / double(a) : 1.0;
  }
  float result = float(v);
  return result > 1.0f ? 1.0f : result;
}

// The modes that work channel by channel on 15-bit integers. Anything that is
// not one of them gives the source.
int32_t blendChannel(int32_t mode, int32_t s, int32_t d) {
  switch (mode) {
    case kBlendMidtoneMix: {
      int32_t k = (d < kHalf) ? d / 2 : sub(kHalf, d / 2);
      return add(mul(k, s), mul(sub(kHalf, k), d)) >> 14;
    }
    case kBlendSelfGain: return minInt(kFull, add(s, mul(s, d) >> 15));
    case kBlendExclusion:
    case kBlendExclusionAgain: return add(mul(sub(kFull, s), d), mul(sub(kFull, d), s)) >> 15;
    case kBlendLighten: return maxInt(s, d);
    case kBlendDarken: return minInt(s, d);
    case kBlendAdd: return minInt(kFull, add(s, d));
    case kBlendSubtract: return maxInt(0, sub(s, d));
    case kBlendMultiply: return mul(s, d) >> 15;
    case kBlendScreen: return add(s, mul(sub(kFull, s), d) >> 15);
    case kBlendHardLight: return hardStep(s, d);
    case kBlendOverlay: return hardStep(d, s);
    case kBlendSquareOverlay: {
      int32_t a = sub(kFull, mul(d, s) >> 15);
      int32_t a2 = mul(a, a) >> 15;
      int32_t m = sub(kFull, a2);
      int32_t b = sub(sub(kFull, mul(sub(kFull, s), d) >> 15), s);
      int32_t b2 = mul(b, b) >> 15;
      if (m < kHalf) return mul(sub(kFull, b2), m) >> 14;
      return sub(kFull, mul(b2, a2) >> 14);
    }
    case kBlendLinearLight: return clamp15(sub(add(d, mul(2, s)), kFull));
    case kBlendPinLight: return pinStep(d, s);
    case kBlendPinLightReversed: return pinStep(s, d);
    case kBlendVividLight: {
      // Worked in 8 bits: dodge above the middle of the source, burn below.
      int32_t a = minInt(add(s, 1) >> 7, 255);
      int32_t b = minInt(add(d, 1) >> 7, 255);
      int32_t e;
      if (a > 127) {
        e = quot(shl(b, 8), sub(511, mul(2, a)));
      } else {
        e = add(quot(shl(sub(b, 255), 8), add(mul(2, a), 1)), 255);
      }
      if (e < 0) return 0;
      if (e >= 255) return kFull;
      return shl(e, 7) | (e >> 1);
    }
    case kBlendExtrapolate: return clamp15(sub(mul(2, s), d));
    case kBlendNegation: return sub(kFull, absWrap(sub(add(s, d), kFull)));
    case kBlendCentreDistance: {
      int32_t sc = sub(s, kHalf);
      int32_t dc = sub(d, kHalf);
      return clamp15(sub(kFull, absWrap(sub(mul(sc, sc) >> 13, mul(dc, dc) >> 13))));
    }
    case kBlendDifference: return absWrap(sub(s, d));
    case kBlendSoftLight: {
      if (s >= kHalf) {
        // The upper half is worked in 8 bits.
        int32_t a = sub(255, d >> 7);
        int32_t s8 = s >> 7;
        int32_t e = add(mul(mul(a, a) >> 8, sub(s8, 130)), mul(sub(258, s8), a)) >> 7;
        return shl(sub(255, e), 7);
      }
      return add(mul(mul(d, d) >> 15, sub(kHalf, s)), mul(d, s)) >> 14;
    }
    case kBlendColourDodge:
      if (s == kFull) return kFull;
      return clamp15(quot(shl(d, 15), sub(kFull, s)));
    case kBlendColourBurn: return clamp15(add(quot(shl(sub(d, kFull), 15), add(s, 1)), kFull));
    case kBlendSquareMix: return add(mul(sub(kFull, s), d), mul(s, s)) >> 15;
    case kBlendDestGain: return mul(add(sub(s, d), kFull), d) >> 15;
    case kBlendSourceGain: return mul(add(sub(d, s), kFull), s) >> 15;
    case kBlendSquareMixReversed: return add(mul(sub(kFull, d), s), mul(d, d)) >> 15;
    case kBlendBitAnd: return s & d;
    case kBlendBitOr: return s | d;
    case kBlendBitXor: return s ^ d;
    case kBlendProductCurve: {
      float m = float(double(mul(s, d)) * kUnit30);
      return truncToInt32((2.0 - double(m)) * 32768.0 * double(m));
    }
    case kBlendPinOfPins: return pinStep(pinStep(sub(kFull, s), d), pinStep(s, d));
    case kBlendPinOfPinsReversed: return pinStep(pinStep(sub(kFull, d), s), pinStep(d, s));
    case kBlendOverlayPin: return pinStep(sub(kFull, hardStep(s, sub(kFull, d))), hardStep(d, s));
    case kBlendOverlayPinInverted: {
      int32_t inverse = sub(kFull, s);
      return pinStep(sub(kFull, hardStep(inverse, sub(kFull, d))), hardStep(d, inverse));
    }
    case kBlendHardOverlayPin: return pinStep(hardStep(d, s), hardStep(s, d));
    case kBlendOverlayHardPin: return pinStep(hardStep(s, d), hardStep(d, s));
    case kBlendHardMix: return add(s, d) > kFull ? kFull : 0;
    case kBlendScreenSquared: {
      float m = float(1.0 - double(mul(sub(kFull, d), sub(kFull, s))) * kUnit30);
      return to15(m * m);
    }
    case kBlendAddFolded: {
      int32_t sum = add(s, d);
      return sum > kFull ? sub(2 * kFull, sum) : sum;
    }
    case kBlendFoldInvert: {
      int32_t folded = (s > kHalf) ? sub(kFull, s) : s;
      return (d > kHalf) ? folded : sub(kFull, folded);
    }
    default: return s;
  }
}

// Reflect: the source squared over the room the destination leaves, at most 1.
inline float reflect(float s, float d) {
  float room = 1.0f - d;
  float v = (room <= 0.0f) ? 1.0f : s * s / room;
  return v > 1.0f ? 1.0f : v;
}

// Soft reflect: half of reflect, bent toward 1 above 0.5 so that it reaches
// 1 smoothly; a destination within one 8-bit step of full gives 1.
inline float softReflect(float s, float d) {
  float room = 1.0f - d;
  if (room <= 0.0039215684f) return 1.0f;
  float v = s * s * 0.5f / room;
  if (v > 0.5f) v = 1.0f - 0.25f / v;
  return v;
}

// Takes a float colour from the helpers back to 15 bits.
inline void backTo15(float r, float g, float b, int32_t c[3]) {
  c[0] = to15(r);
  c[1] = to15(g);
  c[2] = to15(b);
}

inline void hueSatLuma15(const int32_t v[3], float* h, float* sat, float* t) {
  rgbToHueSatLuma(from15(v[0]), from15(v[1]), from15(v[2]), h, sat, t);
}

inline void hsl15(const int32_t v[3], float* h, float* sat, float* l) {
  rgbToHsl(from15(v[0]), from15(v[1]), from15(v[2]), h, sat, l);
}

inline void fromHueSatLuma(float h, float sat, float t, int32_t c[3]) {
  float r;
  float g;
  float b;
  hueSatLumaToRgb(h, sat, t, &r, &g, &b);
  backTo15(r, g, b, c);
}

}  // namespace

void blendPixel(PixelValue* src, const PixelValue* dst, PixelValue* out, int32_t mode) {
  if (mode == kBlendCopy) {
    *out = *src;
    return;
  }
  // Copies first: `out` may be either input.
  const float sf[3] = {src->r, src->g, src->b};
  const float df[3] = {dst->r, dst->g, dst->b};
  float alpha = src->a;
  int32_t s[3];
  int32_t d[3];
  for (int i = 0; i < 3; ++i) {
    s[i] = to15(sf[i]);
    d[i] = to15(df[i]);
  }
  int32_t c[3];

  switch (mode) {
    case kBlendColour:
    case kBlendLuminosity: {
      // Hue and saturation of one, the luma of the other.
      const int32_t* chroma = (mode == kBlendColour) ? s : d;
      const int32_t* light = (mode == kBlendColour) ? d : s;
      float h;
      float sat;
      float t;
      hueSatLuma15(chroma, &h, &sat, &t);
      fromHueSatLuma(h, sat, from15(luma(light[0], light[1], light[2]) >> 8), c);
      break;
    }
    case kBlendSaturation:
    case kBlendHue: {
      float hs, sats, ts, hd, satd, td;
      hueSatLuma15(s, &hs, &sats, &ts);
      hueSatLuma15(d, &hd, &satd, &td);
      if (mode == kBlendSaturation) {
        fromHueSatLuma(hd, sats, td, c);
      } else {
        fromHueSatLuma(hs, satd, td, c);
      }
      break;
    }
    case kBlendLighterColour:
    case kBlendDarkerColour: {
      int32_t sourceLuma = luma(s[0], s[1], s[2]) & ~0xff;
      int32_t destLuma = luma(d[0], d[1], d[2]) & ~0xff;
      bool keepSource = (mode == kBlendLighterColour) ? sourceLuma >= destLuma : sourceLuma <= destLuma;
      for (int i = 0; i < 3; ++i) c[i] = keepSource ? s[i] : d[i];
      break;
    }
    case kBlendVividMix:
    case kBlendGrayMix: {
      float h, sat, l;
      hsl15(s, &h, &sat, &l);
      float share = (mode == kBlendVividMix) ? sat : 1.0f - sat;
      float w = float(midWeight(l) * double(share));
      for (int i = 0; i < 3; ++i) c[i] = truncToInt32(float(d[i]) * (1.0f - w) + float(s[i]) * w);
      break;
    }
    case kBlendCrossMixSource:
      c[0] = mix(s[0], d[0], s[1]);
      c[1] = mix(s[1], d[1], s[2]);
      c[2] = mix(s[2], d[2], s[0]);
      break;
    case kBlendCrossMixSourceBack:
      c[0] = mix(s[0], d[0], s[2]);
      c[1] = mix(s[1], d[1], s[0]);
      c[2] = mix(s[2], d[2], s[1]);
      break;
    case kBlendCrossMixDest:
      c[0] = mix(s[0], d[0], d[1]);
      c[1] = mix(s[1], d[1], d[2]);
      c[2] = mix(s[2], d[2], d[0]);
      break;
    case kBlendCrossMixDestBack:
      c[0] = mix(s[0], d[0], d[2]);
      c[1] = mix(s[1], d[1], d[0]);
      c[2] = mix(s[2], d[2], d[1]);
      break;
    case kBlendWheelMix: {
      // Hues as points on the wheel, saturation as radius; the result moves
      // from the source toward the destination by how far both lightnesses
      // lie from black and white.
      float hs, sats, ls, hd, satd, ld;
      hsl15(s, &hs, &sats, &ls);
      hsl15(d, &hd, &satd, &ld);
      float xs, ys, xd, yd;
      polarToXy(hs * kWheelTwoPi, sats, &xs, &ys);
      polarToXy(hd * kWheelTwoPi, satd, &xd, &yd);
      float w = float(midWeight(ld) * midWeight(ls));
      float x = xs + (xd - xs) * w;
      float y = ys + (yd - ys) * w;
      float angle;
      float radius;
      xyToPolar(x, y, &angle, &radius);
      float r, g, b;
      hslToRgb(angle / kWheelTwoPi, radius, ls < ld ? ls : ld, &r, &g, &b);
      backTo15(r, g, b, c);
      break;
    }
    case kBlendLabMultiply:
    case kBlendLabScreen:
    case kBlendLabPin:
    case kBlendLabPinReversed: {
      int32_t sl[3];
      int32_t dl[3];
      int32_t cl[3];
      rgbToLab15(s, sl);
      rgbToLab15(d, dl);
      if (mode == kBlendLabMultiply) {
        cl[0] = mul(sl[0], dl[0]) >> 15;
        cl[1] = hardStep(dl[1], sl[1]);
        cl[2] = hardStep(dl[2], sl[2]);
      } else if (mode == kBlendLabScreen) {
        cl[0] = sub(kFull, mul(sub(kFull, dl[0]), sub(kFull, sl[0])) >> 15);
        cl[1] = hardStep(dl[1], sl[1]);
        cl[2] = hardStep(dl[2], sl[2]);
      } else if (mode == kBlendLabPin) {
        // The third channel stays the source's on purpose.
        cl[0] = pinStep(dl[0], sl[0]);
        cl[1] = pinStep(dl[1], sl[1]);
        cl[2] = sl[2];
      } else {
        cl[0] = pinStep(sl[0], dl[0]);
        cl[1] = pinStep(sl[1], dl[1]);
        cl[2] = sl[2];
      }
      labToRgb15(cl, c);
      break;
    }
    case kBlendQuotient:
      for (int i = 0; i < 3; ++i) c[i] = to15(quotient(df[i], sf[i]));
      break;
    case kBlendQuotientLuma: {
      float h, sat, t;
      hueSatLuma15(s, &h, &sat, &t);
      float destLuma = from15(luma(d[0], d[1], d[2]) >> 8);
      fromHueSatLuma(h, sat, quotient(destLuma, t), c);
      break;
    }
    case kBlendLumaCurveSource:
    case kBlendLumaCurveDest: {
      float hs, sats, ts, hd, satd, td;
      hueSatLuma15(s, &hs, &sats, &ts);
      hueSatLuma15(d, &hd, &satd, &td);
      float m = ts * td;
      float b = (2.0f - m) * m;
      float u = (mode == kBlendLumaCurveSource) ? ts : td;
      // Near black and white the curve gives way to the plain luma.
      if (u > 0.8f) b = (u - 0.8f) * 5.0f * (u - b) + b;
      if (u < 0.2f) b = (0.2f - u) * 5.0f * (u - b) + b;
      if (b < 0.0f) b = 0.0f;
      if (b > 1.0f) b = 1.0f;
      if (mode == kBlendLumaCurveSource) {
        fromHueSatLuma(hs, sats, b, c);
      } else {
        fromHueSatLuma(hd, satd, b, c);
      }
      break;
    }
    case kBlendColourToAlpha: {
      float m = sf[0];
      if (sf[1] > m) m = sf[1];
      if (sf[2] > m) m = sf[2];
      if (m > 1.0f) m = 1.0f;
      if (m <= 0.0f) {
        c[0] = c[1] = c[2] = 0;
        alpha = 0.0f;
      } else {
        for (int i = 0; i < 3; ++i) c[i] = to15(sf[i] / m);
        alpha = m;
      }
      break;
    }
    case kBlendReflect:
    case kBlendGlow:
    case kBlendSoftReflect:
    case kBlendSoftGlow: {
      float v[3];
      for (int i = 0; i < 3; ++i) {
        switch (mode) {
          case kBlendReflect: v[i] = reflect(sf[i], df[i]); break;
          case kBlendGlow: v[i] = reflect(df[i], sf[i]); break;
          case kBlendSoftReflect: v[i] = softReflect(sf[i], df[i]); break;
          default: v[i] = softReflect(df[i], sf[i]); break;
        }
      }
      // These modes leave their float results in the source.
      src->r = v[0];
      src->g = v[1];
      src->b = v[2];
      for (int i = 0; i < 3; ++i) c[i] = to15(v[i]);
      break;
    }
    default:
      for (int i = 0; i < 3; ++i) c[i] = blendChannel(mode, s[i], d[i]);
      break;
  }

  out->r = from15(c[0]);
  out->g = from15(c[1]);
  out->b = from15(c[2]);
  out->a = alpha;
}

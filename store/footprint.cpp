#include "store/footprint.h"

#include <math.h>
#include <string.h>

#include "store/pixel_store.h"
#include "store/portable_math.h"
#include "store/resample.h"

void resetFootprintState(FootprintState* state) {
  memset(state, 0, sizeof(*state));
  state->lastLod = 0.0f;
  state->fixedLod = false;
  state->maxProbes = kMaxProbes;
}

namespace {

inline void zeroColour(float out[4]) { out[0] = out[1] = out[2] = out[3] = 0.0f; }

// Reduces a periodic coordinate difference into -0.5..0.5.
inline float reduceHalf(float d) {
  if (d > 0.5f) return d - 1.0f;
  if (d < -0.5f) return d + 1.0f;
  return d;
}

inline float clampUnit(float a) { return a < 0.0f ? 0.0f : (a > 1.0f ? 1.0f : a); }

// Fractional part; floor is exact, so this gives the same bits everywhere.
inline float wrapUnit(float a) { return a - floorf(a); }

}  // namespace

void derivativesToPixels(FootprintDerivs& d) {
  d.bigStep = false;
  switch (d.coordMode) {
    case 1:
    case 2:
    case 3:
      // Neighbours more than half the image apart: a seam of the map.
      d.bigStep = fabsf(d.dux) > 0.5f || fabsf(d.dvx) > 0.5f || fabsf(d.duy) > 0.5f || fabsf(d.dvy) > 0.5f;
      break;
    case 4:
    case 7:
      // u wraps in these modes: its differences are taken the short way round.
      d.dux = reduceHalf(d.dux);
      d.duy = reduceHalf(d.duy);
      d.bigStep = fabsf(d.dvx) > 0.5f || fabsf(d.dvy) > 0.5f;
      break;
    case 5:
      d.dux = reduceHalf(d.dux);
      d.duy = reduceHalf(d.duy);
      d.dvx = reduceHalf(d.dvx);
      d.dvy = reduceHalf(d.dvy);
      break;
    default: break;
  }
  float scaleX = d.width * d.scale;
  float scaleY = d.height * d.scale;
  d.dux *= scaleX;
  d.duy *= scaleX;
  d.dvx *= scaleY;
  d.dvy *= scaleY;
}

int32_t foldUnitCoords(float* u, float* v, float* level, int32_t mode, const PixelStore* store, float* outU,
                       float* outV) {
  // v = 1.0 counts as outside while u = 1.0 does not: the engine has it so.
  if (*u >= 0.0f && *u <= 1.0f && *v >= 0.0f && *v < 1.0f) {
    *outU = *u;
    *outV = *v;
    return 0;
  }
  int32_t result = kFoldFolded;
  switch (mode) {
    case 1:
      result = kFoldBlank | kFoldFolded;
      break;
    case 2: {
      // v clamps and remembers how far it was out; u mirrors with period 2;
      // the further out, the coarser the level, up to the top.
      float excess = *v < 0.0f ? -*v : (*v > 1.0f ? *v - 1.0f : 0.0f);
      *v = clampUnit(*v);
      float m = *u - 2.0f * floorf(*u * 0.5f);
      *u = m > 1.0f ? 2.0f - m : m;
      if (excess > 0.0f) {
        float top = float(store->topLevel);
        float reach = float(1.0 - exp2(-3.0 * double(excess)));
        *level = *level + (top - *level) * reach;
        result = kFoldFolded | kFoldLevelMoved;
      }
      break;
    }
    case 3:
      *u = clampUnit(*u);
      *v = clampUnit(*v);
      break;
    case 4:
      *u = wrapUnit(*u);
      *v = clampUnit(*v);
      break;
    case 5:
      *u = wrapUnit(*u);
      *v = wrapUnit(*v);
      break;
    case 6:
      *v = wrapUnit(*v);
      *u = wrapUnit(*u);
      break;
    case 7: {
      float row = floorf(*v);
      *v = *v - row;
      if (fmodf(row, 2.0f) != 0.0f) {
        *v = 1.0f - *v;
        *u = 0.5f - *u;
      }
      *u = wrapUnit(*u);
      break;
    }
    default:
      result = 0;
      break;
  }
  *outU = *u;
  *outV = *v;
  return result;
}

void levelSample(const PixelStore* store, int32_t level, float frac, float u, float v, float flag, float out[4]) {
  // A NaN point (a walk that met a flat field, or a probe whose axis had no
  // direction) has no colour; it must not reach a kernel's pixel address.
  if (u != u || v != v) {
    zeroColour(out);
    return;
  }
  float levelF = float(level) + frac;
  float fu;
  float fv;
  int32_t flags = foldUnitCoords(&u, &v, &levelF, store->coordMode, store, &fu, &fv);
  if (flags & kFoldBlank) {
    zeroColour(out);
    return;
  }
  if (flags & kFoldLevelMoved) {
    level = truncToInt32(levelF);
    frac = levelF - float(level);
  }
  float a[4];
  if (level == 0 && flag == -1.0f) {
    int32_t px = truncToInt32(store->levelScaleX[0] * fu - 0.5f);
    int32_t py = truncToInt32(store->levelScaleY[0] * fv - 0.5f);
    readUnitPixel(px, py, store, 0, a);
  } else {
    filterUnitPixel(store, level, frac, fu, fv, a);
  }
  if (flag > 0.0f) {
    // Unsharp step against the next coarser level; alpha stays the first read's.
    float b[4];
    filterUnitPixel(store, level + 1, frac, fu, fv, b);
    out[0] = a[0] + (a[0] - b[0]) * flag;
    out[1] = a[1] + (a[1] - b[1]) * flag;
    out[2] = a[2] + (a[2] - b[2]) * flag;
    out[3] = a[3];
    return;
  }
  out[0] = a[0];
  out[1] = a[1];
  out[2] = a[2];
  out[3] = a[3];
}

int32_t probeCount(float ratio, int32_t maxProbes, float* weight) {
  int32_t n = truncToInt32(ratio + 0.5f);
  *weight = 1.0f;
  if (1.25f < ratio && ratio < 1.5f) {
    // Barely elongated: two probes, drawn together by the weight.
    *weight = (ratio - 1.25f) * 4.0f;
    return 2;
  }
  if (n < 2) return 2;
  return n < maxProbes ? n : maxProbes;
}

void majorAxisCosines(float t, float* p, float* q) {
  float t2 = t * t;
  *p = (1.0f - t2 * 0.12404906f) + (t2 * 0.018476253f) * t2;
  float first = 126.91107f - t * 12.871603f * t;
  *q = float(double(first) * (double(t) * 0.003921568627451));
}

void footprintSample(const float derivs[4], float u, float v, int32_t missing, const PixelStore* store, float out[4],
                     float sharpness, FootprintState* state) {
  if (u != u || v != v) {
    zeroColour(out);
    return;
  }
  float s = sharpness < 0.0f ? 0.0f : sharpness;

  FootprintDerivs d;
  d.scale = 1.0f;
  d.width = float(store->refWidth[0]);
  d.height = float(store->refHeight[0]);
  d.coordMode = store->coordMode;
  d.dux = derivs[0];
  d.dvx = derivs[1];
  d.duy = derivs[2];
  d.dvy = derivs[3];
  d.bigStep = false;
  if (missing == kMissingX) {
    d.dux = d.duy;
    d.dvx = d.dvy;
  } else if (missing == kMissingY) {
    d.duy = d.dux;
    d.dvy = d.dvx;
  }

  // B stays in unit measure, also below: it keeps the ellipse nearly
  // axis-aligned, and the early exit tests it there.
  float b = (d.dvx * d.dux + d.dvy * d.duy) * -2.0f;
  if (-1e-7f < b && b < 1e-7f) {
    // A translation-like map: one level-0 read, no ellipse.
    levelSample(store, 0, 0.0f, u, v, 0.0f, out);
    return;
  }

  float lod;
  float major;
  float minor;
  float an = 0.0f;
  float bn = 0.0f;
  float cn = 0.0f;
  if (missing == (kMissingX | kMissingY) || state->fixedLod) {
    lod = state->lastLod;
    float fu;
    float fv;
    int32_t flags = foldUnitCoords(&u, &v, &lod, store->coordMode, store, &fu, &fv);
    if (flags & kFoldBlank) {
      zeroColour(out);
      return;
    }
    u = fu;
    v = fv;
    major = 1.0f;
    minor = 1.0f;
  } else {
    derivativesToPixels(d);
    float a = d.dvx * d.dvx + d.dvy * d.dvy;
    float c = d.dux * d.dux + d.duy * d.duy;
    float f = c * a - b * b * 0.25f;
    if (f < 1e-6f) f = 1e-6f;
    float invF = 1.0f / f;
    an = a * invF;
    bn = b * invF;
    cn = c * invF;
    float diff = an - cn;
    float root = float(sqrt(double(diff * diff + bn * bn)));
    float lamMin = cn + an - root;
    float lamMax = cn + an + root;
    if (lamMin < 1e-6f) lamMin = 1e-6f;
    if (lamMax < 1e-6f) lamMax = 1e-6f;
    float shrink = 1.0f - s * 0.5f;
    major = float(sqrt(2.0 / double(lamMin)) * double(shrink));
    minor = float(sqrt(2.0 / double(lamMax)) * double(shrink));
    if (minor < 0.5f) minor = 0.5f;
    lod = float(portableLog2(double(minor)));
    state->lastLod = lod;
  }

  float lodC = lod;
  float top = float(store->topLevel);
  if (lodC > top) lodC = top;
  if (lodC < 0.0f) lodC = 0.0f;
  int32_t lodInt = truncToInt32(lodC);
  float frac = lodC - float(lodInt);
  float flag = sharpness == -1.0f ? -1.0f : 0.0f;

  float ratio = major / minor;
  if (ratio < 1.25f || d.bigStep || (minor <= 1.0f && major <= 1.0f)) {
    levelSample(store, lodInt, frac, u, v, flag, out);
    return;
  }

  // Elongated: probes spread along the major axis, averaged.
  float m;
  int32_t n = probeCount(ratio, state->maxProbes, &m);
  float t = bn / (an - cn);
  float p;
  float q;
  majorAxisCosines(t, &p, &q);
  float du;
  float dv;
  if (cn > an) {
    du = p;
    dv = q;
  } else {
    du = -q;
    dv = p;
  }
  float spacing = 1.0f / float(n - 1);
  float stepU = du * m * major * spacing * store->invInnerWidth[0];
  float stepV = dv * m * major * spacing * store->invInnerHeight[0];
  float span = float(n - 1);
  float pu = u - span * stepU * 0.5f;
  float pv = v - span * stepV * 0.5f;
  out[0] = out[1] = out[2] = out[3] = 0.0f;
  for (int32_t i = 0; i < n; ++i) {
    float tmp[4];
    levelSample(store, lodInt, frac, pu, pv, flag, tmp);
    out[0] += tmp[0];
    out[1] += tmp[1];
    out[2] += tmp[2];
    out[3] += tmp[3];
    pu += stepU;
    pv += stepV;
  }
  float invN = 1.0f / float(n);
  out[0] *= invN;
  out[1] *= invN;
  out[2] *= invN;
  out[3] *= invN;
}

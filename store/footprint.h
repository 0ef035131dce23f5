// The footprint sampler: one colour from the pyramid of the source for a point
// in unit coordinates, through the ellipse that one output pixel covers.
//
// The ellipse comes from how fast the point moves per output pixel (the
// derivatives of the map). Its minor axis picks the pyramid level; when it is
// clearly elongated, several probes are taken along its major axis and
// averaged. Where the map is locally a plain translation the sampler reads
// level 0 once and computes no ellipse at all.
//
// Precision is part of the result: single precision throughout, with the few
// steps that are double said where they stand.
#pragma once

#include <stdint.h>

#include "store/resample.h"

struct PixelStore;

struct FootprintState {
  float lastLod;      // log2 of the minor axis of the last footprint
  bool fixedLod;      // reuse lastLod instead of computing a footprint
  int32_t maxProbes;  // upper limit of the probes along the major axis
};

// The derivatives of one sampling and what derivativesToPixels needs to turn
// them from unit to pixel measure.
struct FootprintDerivs {
  float scale;        // 1.0
  float width;        // refWidth[0] of the store
  float height;       // refHeight[0] of the store
  int32_t coordMode;  // the store's coordMode
  float dux;          // change of u per output pixel in x
  float dvx;          // change of v per output pixel in x
  float duy;          // change of u per output pixel in y
  float dvy;          // change of v per output pixel in y
  bool bigStep;       // the map jumped by more than half the image between neighbours
};

// Flags of foldUnitCoords.
enum : int32_t {
  kFoldLevelMoved = 1,  // the level was changed: recompute its integer part and fraction
  kFoldBlank = 2,       // the point has no colour: the caller gives zeros
  kFoldFolded = 4,      // the point was out of range and was folded back
};

// Missing-pair bits of footprintSample.
enum : int32_t {
  kMissingX = 1,  // the pair towards the left neighbour is unknown
  kMissingY = 2,  // the pair towards the upper neighbour is unknown
};

constexpr float kDefaultSharpness = 0.3f;
constexpr int32_t kMaxProbes = 20;

void resetFootprintState(FootprintState* state);

// One colour in unit range at (u, v). derivs is (dux, dvx, duy, dvy) in unit
// measure; missing is 0 or a sum of kMissingX, kMissingY. A NaN point gives
// zero colour.
void footprintSample(const float derivs[4], float u, float v, int32_t missing, const PixelStore* store, float out[4],
                     float sharpness, FootprintState* state);

// Whether footprintFromCorners comes to one level-0 read at the centre: a
// translation-like map (B within 1e-7 of zero) at a point in range. The
// derivatives are from the lower right corner to the lower left (x pair) and
// to the upper right (y pair); a coordinate of exactly -1.0 marks a missing
// corner, and a missing pair borrows the other one, so that the footprint
// stays round.
inline bool footprintIsLevelZeroRead(float uLeft, float vLeft, float uUp, float vUp, float uHere, float vHere,
                                     float uCentre, float vCentre, float derivs[4], int32_t* missing) {
  derivs[0] = uHere - uLeft;
  derivs[1] = vHere - vLeft;
  derivs[2] = uHere - uUp;
  derivs[3] = vHere - vUp;
  *missing = (uLeft == -1.0f ? kMissingX : 0) + (uUp == -1.0f ? kMissingY : 0);
  if (*missing == kMissingX) {
    derivs[0] = derivs[2];
    derivs[1] = derivs[3];
  } else if (*missing == kMissingY) {
    derivs[2] = derivs[0];
    derivs[3] = derivs[1];
  }
  if (!(uCentre == uCentre && vCentre == vCentre)) return false;
  const float b = (derivs[1] * derivs[0] + derivs[3] * derivs[2]) * -2.0f;
  return -1e-7f < b && b < 1e-7f && uCentre >= 0.0f && uCentre <= 1.0f && vCentre >= 0.0f && vCentre < 1.0f;
}

// The entry of the pixel sampler: footprintSample at the centre, with the
// common case first: a translation-like map at a point in range is one
// level-0 read of the kernel, exactly what footprintSample comes to through
// levelSample, without the detours.
inline void footprintFromCorners(float uLeft, float vLeft, float uUp, float vUp, float uHere, float vHere,
                                 float uCentre, float vCentre, const PixelStore* store, float out[4],
                                 float sharpness, FootprintState* state) {
  float derivs[4];
  int32_t missing;
  if (footprintIsLevelZeroRead(uLeft, vLeft, uUp, vUp, uHere, vHere, uCentre, vCentre, derivs, &missing)) {
    filterUnitPixel(store, 0, 0.0f, uCentre, vCentre, out);
    return;
  }
  footprintSample(derivs, uCentre, vCentre, missing, store, out, sharpness, state);
}

// Sets bigStep and scales the derivatives from unit to pixel measure of level 0.
void derivativesToPixels(FootprintDerivs& derivs);

// One probe: the store's kernel at level + frac and (u, v), after the point is
// folded into range. flag -1.0 reads the nearest level-0 pixel instead, and a
// flag above 0 sharpens against the level above; 0.0 is the plain read. A NaN
// point gives zero colour: it never reaches a pixel address.
void levelSample(const PixelStore* store, int32_t level, float frac, float u, float v, float flag, float out[4]);

// Folds an out-of-range unit point back by the coordinate mode. In range means
// u in 0..1 and v in 0 up to but not including 1. Returns 0 in range, else the
// kFold flags of the mode (mode 3, the store's: clamp, kFoldFolded).
int32_t foldUnitCoords(float* u, float* v, float* level, int32_t mode, const PixelStore* store, float* outU,
                       float* outV);

// The probe count along the major axis for an axis ratio, and the weight of
// the spread: between 1.25 and 1.5 (exclusive) two probes closer together;
// below two otherwise, two; else the rounded ratio, at most maxProbes.
int32_t probeCount(float ratio, int32_t maxProbes, float* weight);

// Direction of the major axis from t, the tangent of twice its angle: the pair
// (P, Q) of the approximated direction cosines, before the choice of sign.
void majorAxisCosines(float t, float* p, float* q);

// The footprint sampler: one colour from the pyramid of the source for a point
// in unit coordinates, through the ellipse that one output pixel covers.
#pragma once

#include <stdint.h>

struct PixelStore;

struct FootprintState {
  float lastLod;      // log2 of the minor axis of the last footprint
  bool fixedLod;      // reuse lastLod instead of computing a footprint
  int32_t maxProbes;  // upper limit of the probes along the major axis
};

void resetFootprintState(FootprintState* state);

#include "store/footprint.h"

#include <string.h>

void resetFootprintState(FootprintState* state) {
  memset(state, 0, sizeof(*state));
  state->lastLod = 0.0f;
  state->fixedLod = false;
  state->maxProbes = 20;
}

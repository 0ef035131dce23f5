// Generated documents and host set-ups that every build runs through the
// module, so that outputs can be compared by digest across builds (native,
// 32-bit, Windows under Wine) and pinned as golden values.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "plugin_host/stand_in_host.h"

namespace standin {

struct Scenario {
  std::string name;
  Document document;
  HostOptions options;
};

// A small deterministic generator, the same on every platform.
struct Random {
  uint64_t state;
  explicit Random(uint64_t seed) : state(seed * 2654435761ull + 1) {}
  uint32_t next() {
    state = state * 6364136223846793005ull + 1442695040888963407ull;
    return uint32_t(state >> 33);
  }
  int32_t below(int32_t n) { return n <= 0 ? 0 : int32_t(next() % uint32_t(n)); }
};

// A layer of soft-edged coloured islands on a transparent ground, like the
// islands of a texture atlas; colour under the transparent pixels is noise.
Document makeIslandDocument(int32_t width, int32_t height, int depth, int colourPlanes, uint64_t seed);
// A texture atlas: rounded islands with anti-aliased edges covering about a
// quarter of the layer, transparent gutters around them.
Document makeAtlasDocument(int32_t width, int32_t height, int depth, int colourPlanes, uint64_t seed);
// A selection mask: a soft-edged disc.
void addDiscMask(Document& document, uint64_t seed);

std::vector<Scenario> standardScenarios();

}  // namespace standin

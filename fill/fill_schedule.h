// The fill: a pull-push pass over the pyramid of the source store, in place.
//
// Going up, each level has its holes eaten away from their rims by a few
// red-black passes of neighbour averaging, and then hands its alpha-weighted
// 2 x 2 means to the next level, which they replace whole. Going down, every
// pixel still open takes its colour from a five-tap read of the finished level
// above. Covered pixels keep their colours; levels 0 to topLevel - 1 end with
// alpha 1.0 everywhere, and the layer's alpha exists no more in the store.
//
// Everything runs on the calling thread; the order of levels and of the two
// half-passes is part of the result. The four-channel kinds are worked on the
// tiles' rows, every other kind through the store's accessors, with the same
// arithmetic either way.
#pragma once

#include <stdint.h>

struct PixelStore;

// Passes of diffuseLevel at each level.
constexpr int32_t kFillPasses = 3;
// Alpha below this counts as 0 (8-bit 0..4, 16-bit 0..520). Compared in double.
constexpr double kCoverFloor = 0.0158730159;
// A hole is filled only when its four neighbours' alphas add up to more than
// this: two neighbours of 8-bit alpha 5 do, one does not.
constexpr double kNeighbourFloor = 0.0317460318;
// In the way down, an alpha not above this is a hole.
constexpr double kHoleAlpha = 0.02;
// Upper clamp of a colour brought down for a float store; integer stores clamp at 1.0.
constexpr float kFloatColourLimit = 65535.0f;

// The whole schedule: for each level below the top, diffuse and reduce; then
// from the level below the top down to 0, expand. Nothing happens for a store
// without pixels or with topLevel 0.
void fillLevels(PixelStore* store, int32_t passes);

// Floors soft alphas, eats the holes of `level` for `passes` red-black passes,
// and leaves every alpha 0 or 1. Nothing at all happens when passes is below 1.
void diffuseLevel(PixelStore* store, int32_t level, int32_t passes);

// Writes every pixel of level + 1 as the alpha-weighted mean of its 2 x 2 block
// of `level` (reads past the edge repeat it), with alpha 1; a block without
// weight gives black with alpha 0.
void reduceColours(PixelStore* store, int32_t level);

// Gives every hole of `level` (alpha not above kHoleAlpha) the colour of a
// five-tap read of level + 1 at half its coordinates, clamped to the store's
// colour range, and sets the alpha of every pixel of the level to 1.
void expandInto(PixelStore* store, int32_t level);

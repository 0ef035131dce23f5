// Coverage of the loaded layer, in two stores derived from level 0 of the
// source before the fill destroys its alpha:
//
// - opaqueStore: one byte a pixel, 255 where the pixel is solid, 0 elsewhere;
// - distanceStore: a smooth signed distance to the edge of the covered area,
//   negative inside, positive outside, in pixels of level 0, with a margin of
//   9 cells at the left and top and 11 at the right and bottom.
//
// Both hang from ParamBlock and live for one run. Everything here runs on the
// host's thread, but for the smoothing, which goes through the job pool, and
// the seeding and the sweeps, which the run may hand to a thread of their own.
#pragma once

#include <stdint.h>

#include "host/host_record.h"

struct PixelStore;

// Grades of coverage. Alphas are compared in double against these: the float
// alpha is widened, never the constant narrowed.
// Solid: 8-bit 252..255, 16-bit 32383..32768 (252 / 255).
constexpr double kSolidAlpha = 0.9882352941176471;
// Covered: 8-bit 5..255, 16-bit 521..32768. Below it an alpha counts as 0.
constexpr double kCoveredAlpha = 0.0158730159;

// A distance that nothing has reached yet.
constexpr float kFarDistance = 9000000.0f;

// Image pixel (x, y) lies at (x + kDistanceMargin, y + kDistanceMargin) of the
// distance field. The field is made kDistanceGrowth larger than the image and
// bordered, which adds 2 more: so the margin is 9 before and 11 after.
constexpr int32_t kDistanceMargin = 9;
constexpr int32_t kDistanceGrowth = 18;

// Reach of the box blur that smooths the field.
constexpr float kFieldSmoothRadius = 6.0f;

// Builds opaqueStore and distanceStore in ParamBlock from level 0 of `source`.
// Overwrites both pointers without looking at them: the previous run's stores
// must have been freed. A store that cannot be made leaves its pointer null
// and reports code 226 with result 999; the field is then left unbuilt.
void buildFillFields(PixelStore* source);

// buildFillFields in its four steps. The first, on the host's thread, makes
// both stores in ParamBlock, empty, and gives the field (null when it could
// not be made). The second writes the map and seeds the field from the alpha
// of level 0; the third sweeps the field. Those two read level 0 of the
// source and write the two stores alone, so they may run on another thread
// while the levels above are reduced, and the sweeps while the source is
// filled. The smoothing goes through the job pool, on the host's thread.
PixelStore* makeFillFields(const PixelStore* source);
void seedFillFields(const PixelStore* source, PixelStore* opaque, PixelStore* field);
void sweepFillField(PixelStore* field);
void smoothFillField(PixelStore* field);

// A kind 0 store of the size of level 0 of `source`: 255 for solid, 0 for the
// others. Null when it could not be made. The same in two steps: the store
// made, then marked.
PixelStore* buildOpaqueStore(const PixelStore* source);
PixelStore* makeOpaqueStore(const PixelStore* source);
void markOpaqueStore(const PixelStore* source, PixelStore* store);

// Every cell of `level` of the field, margin included, takes the alpha of the
// nearest image pixel (edges run on through the margin) when that alpha is
// below solid, else kFarDistance.
void seedDistanceStore(const PixelStore* source, PixelStore* field, int32_t level);

// Four fast sweeps of level 0, in place, each over the whole field: x rising
// and y rising, x falling and y rising, both falling, x rising and y falling.
void sweepDistance(PixelStore* field);

// One upwind update of the eikonal equation at cell (x, y) of level 0. Cells
// below 1.0 are final and stay as they are.
void relaxDistanceCell(int32_t x, int32_t y, PixelStore* field);

// Over level 0: a cell of 0.0 becomes kFarDistance, every other cell changes sign.
void invertDistanceStore(PixelStore* field);

// The window reaches of smoothStore for a radius, in double: r = radius * 13 / 30,
// hi of r + 0.5 and lo of (r - 0.5) + 0.5, each truncated toward zero after 1
// was taken from a negative value. 3 and 2 for the radius 6.
struct SmoothReach {
  int32_t hi;
  int32_t lo;
};
SmoothReach smoothReach(float radius);

// Blurs `rect` of `level` by six box passes, rows and columns alternately,
// windows (lo back, hi forward), (hi, lo), (hi - 1, hi); each pass a job of
// the pool that ends before the next starts. The last two are left out when
// hi - 1 is negative.
void smoothStore(PixelStore* store, int32_t level, VRect rect, float radius);

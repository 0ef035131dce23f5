// The level pass: builds every pyramid level of a store from the one below it
// with a six-by-six smoothing kernel that halves the size.
//
// The kernel's weights, for destination pixel (x, y) and source pixel
// (2x + dx, 2y + dy) of the level below, dx and dy from -2 to +3 (the four
// corners are not read):
//
//          -2   -1    0   +1   +2   +3
//    -2     -    1    4    4    1    -
//    -1     1   16   64   64   16    1
//     0     4   64  256  256   64    4
//    +1     4   64  256  256   64    4
//    +2     1   16   64   64   16    1
//    +3     -    1    4    4    1    -
//
// They add up to 1640. The integer kinds scale by 1/1630 and clamp at the top
// of their range, so integer levels come out about 0.6 percent brighter; the
// float kinds scale by 1/1640 and clamp to 0..65535. All channels, alpha too,
// are reduced alike and independently. Reads outside the level repeat its edge.
#pragma once

#include <stdint.h>

#include "host/host_record.h"

struct PixelStore;

// Scale of the integer kinds (1/1630, deliberately not 1/1640) and of the
// float kinds (1/1640), both in single precision.
constexpr float kReduceIntegerScale = 0.00061349693f;
constexpr float kReduceFloatScale = 0.0006097561f;

// Reduces every level from firstLevel + 1 to topLevel, each through one job of
// the pool over the whole of the level above, and leaves loadState 2. Each
// level waits for the one below it to be complete.
void buildLevels(PixelStore* store, int32_t firstLevel);

// Computes the part `rect` of level + 1 from `level`. The rect is clipped to
// level + 1; nothing happens when level + 1 is past topLevel. Only the pixels
// of the clipped rect are written, so units of one level may run at once.
void reduceLevelUnit(PixelStore* store, int32_t level, VRect rect);

// The weighted variant, chosen by a store's loadGeneration above 0, which
// nothing in this filter sets. It reduces with the fixed kernel above, so that
// such a store still gets a defined pyramid.
void reduceLevelWeightedUnit(PixelStore* store, int32_t level, VRect rect);

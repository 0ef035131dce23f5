// The roads of the fill's three steps, and the one place that chooses.
//
// - The pixel road (fill_schedule.cpp) goes through the store's accessors one
//   pixel at a time in the plain order, for every store: the road the others
//   reproduce.
// - The row road (fill_schedule_rows.cpp) works on the tiles' rows directly,
//   for the three four-channel kinds whose integer values survive the trip to
//   unit range and back unchanged: it skips what cannot change (a bare
//   neighbourhood, a covered run), touches only the channels that do change,
//   and on the way down sums the level above once for many holes (columns
//   first for 8 bits, rows first for 16 bits and floats).
// - The lane road is the row road with its 8-bit loops, the 16-bit
//   half-passes and the row sums of kinds 4 and 9 in SSE2 lanes
//   (fill_schedule_sse2.cpp); it exists where SSE2 is built in.
//
// Every changed value comes from the same single-precision operations on
// every road, so all of them leave the same bits: tests hold each against
// the pixel road.
#pragma once

#include <stdint.h>

#include "store/pixel_store.h"

enum FillRoad : int32_t {
  kFillRoadPixels = 0,
  kFillRoadRows = 1,
  kFillRoadLanes = 2,
};

// Whether the lane road is built into this module.
bool fillLanesBuilt();

// The road the filter takes for `store`: the fastest one built that takes it.
FillRoad fillRoadFor(const PixelStore* store);

// The steps of fillLevels on a given road. A road that does not take the
// store (the row roads: other kinds, other scales) hands it to the pixel road.
void diffuseLevelOn(FillRoad road, PixelStore* store, int32_t level, int32_t passes);
void reduceColoursOn(FillRoad road, PixelStore* store, int32_t level);
void expandIntoOn(FillRoad road, PixelStore* store, int32_t level);
void fillLevelsOn(FillRoad road, PixelStore* store, int32_t passes);

// ---- the row roads' entries (fill_schedule_rows.cpp) -----------------------------------------------
// For kinds 3, 4 and 9 whose trip to unit range keeps their values; `lanes`
// takes the SSE2 loops.

bool rowRoadTakes(const PixelStore* store);
void diffuseLevelByRows(PixelStore* store, int32_t level, int32_t passes, bool lanes);
void reduceColoursByRows(PixelStore* store, int32_t level, bool lanes);
// readLevel is not `level` itself: nothing written is read again.
void expandIntoByRows(PixelStore* store, int32_t level, int32_t readLevel, float limit, bool lanes);

// ---- the lane loops (fill_schedule_sse2.cpp) -------------------------------------------------------
// Each does what the row road's plain loop does over the same pixels.

// The floor of the alpha, and the binarising, over whole groups of four from
// run on; the count of pixels done.
int32_t floorRunLanesU8(uint8_t* run, int32_t count, uint32_t floorValue);
int32_t binariseRunLanesU8(uint8_t* run, int32_t count, uint32_t full);
// A half-pass's pixels of the given phase from pixel 4 on, in blocks of
// eight, each with its neighbours in the run; the first pixel left for the
// plain loop.
int32_t halfPassBlocksLanesU8(uint8_t* row, const uint8_t* up, const uint8_t* down, int32_t phase, int32_t count,
                              float toUnit, float toValue);
int32_t halfPassBlocksLanesU16(uint8_t* row, const uint8_t* up, const uint8_t* down, int32_t phase, int32_t count,
                               float toUnit, float toValue);
// One row of level + 1 from rows row0 and row1 of level: every pixel the
// weighted mean of its 2 x 2 block.
void reduceRowLanesU8(const RowRef& row0, const RowRef& row1, const RowRef& out, int32_t width, int32_t maxX,
                      float toUnit, float toValue, uint32_t floorValue, uint32_t full);
// The same for kind 9, the channels in the lanes.
void reduceRowLanesFloat(const RowRef& row0, const RowRef& row1, const RowRef& out, int32_t width, int32_t maxX);
// The way down for kinds 4 and 9 by row sums (as the row road takes it), the
// four channels of each sum in the lanes.
void expandIntoByRowSumsLanesU16(PixelStore* store, int32_t level, int32_t readLevel, float limit, int32_t firstRun,
                                 int32_t endRun);
void expandIntoByRowSumsLanesFloat(PixelStore* store, int32_t level, int32_t readLevel, float limit, int32_t firstRun,
                                   int32_t endRun);
// The five-row column sums of `count` columns (four lanes a column).
void columnSumsLanesU8(const uint8_t* const rows[5], const int32_t weights[5], int32_t count, int32_t* sums);
// A run of pixels from the first hole of its row on, with the row's column
// sums ready (`span` columns from the first one summed): holes weigh five
// column sums each, the others take full alpha. Only for colours whose clamp
// lands on 0..255.
void bringDownRunLanesU8(uint8_t* run, int32_t count, uint32_t holeValue, uint32_t full, const int32_t* sums,
                         int32_t span, const int32_t (*columns)[5], const uint32_t (*weightPairs)[3], float toUnit,
                         float limit, float toValue);

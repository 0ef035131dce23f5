// The sample grid of a render unit: one cell for each corner of each pixel of
// the unit's rectangle, holding where that corner lands in the image, and, once
// the unit is sampled, the colour of the pixel whose lower right corner it is.
#pragma once

#include <stdint.h>

#include "run/job_pool.h"
#include "store/footprint.h"

struct PixelStore;

struct SampleCell {
  float landU;
  float landV;
  float startU;
  float startV;
  int32_t walked;
  int32_t spanA;
  int32_t spanB;
  float rawU;
  float rawV;
  int32_t keyA;
  int32_t keyB;
  int32_t keyC;
  int32_t noHit;
  float colour[4];
  int32_t spare;
};
static_assert(sizeof(SampleCell) == 72, "a cell is 18 words");

struct SampleGrid {
  FootprintState state;
  int32_t spanA;
  int32_t spanB;
  uint8_t reuseFlag;
  PixelStore* store;
  void* scratchBlock;
  JobUnit* workUnit;
  SampleCell* cells;
  int32_t slotIndex;
  int32_t slotTag;
  int32_t sampleRate;
  int32_t offsetX;
  int32_t offsetY;
  float bandMinU;
  float bandMaxU;
  float bandMinV;
  float bandMaxV;
  float imageMetrics[10];
};

int32_t gridsPerUnit();
// Sets the unit's grid size and takes a zero-filled cell array for each grid;
// false when any array is missing.
bool gridAllocate(JobUnit* unit, SampleGrid* grids, int32_t count);
void gridRelease(SampleGrid* grids, int32_t count);
// The cell of point (x, y), or null outside the array. Points run from one
// before the unit's left and top edges to its right and bottom edges inclusive.
// Inline: the sampler asks for eight cells a pixel.
inline SampleCell* cellAt(SampleGrid* grid, int32_t x, int32_t y) {
  if (grid->cells == nullptr || grid->workUnit == nullptr) return nullptr;
  const TileCursor& c = grid->workUnit->cursor;
  uint32_t column = uint32_t(x) - uint32_t(c.unitRect.left) + 1u;
  uint32_t row = uint32_t(y) - uint32_t(c.unitRect.top) + 1u;
  if (column >= uint32_t(c.gridCols) || row >= uint32_t(c.gridRows)) return nullptr;
  return grid->cells + size_t(row) * size_t(c.gridCols) + column;
}

// Computes the cell of grid point (x, y): its unit coordinates, the walk to
// its landing point, and the keys of what it hit (always -7, 2, 0 here).
void cellPoint(float x, float y, int32_t sampleRate, int32_t offsetX, int32_t offsetY, const PixelStore* store,
               SampleGrid* grid, SampleCell* cell);
// Every cell of the unit's grid, rows from top - 1 to bottom, columns from
// left - 1 to right, with signed 16-bit counters: coordinates of 32768 and
// above are not handled.
void fillCells(JobUnit* unit, SampleGrid* grid);
// The cells of the grid's point rows first..end - 1 alone: fillCells takes
// them all, a unit on plain counters (unitOnPlainCounters) a few at a time.
void fillCellRows(JobUnit* unit, SampleGrid* grid, int32_t first, int32_t end);

// The worker's half of the render: fills the cells and samples every pixel,
// leaving each pixel's colour in its cell. A unit on plain counters takes a
// few rows at a time, their cells and then their pixels, so that the cells a
// pixel reads are still in the cache; each cell and each pixel is a function
// of its own point, so the order gives the same bits. A unit without a grids
// array does nothing; a grid without cells leaves the unit untouched, and its
// pixels are written as (0, 0, 0, 0).
void renderUnit(JobUnit* unit);

// The sample grid of a render unit: one cell for each corner of each pixel of
// the unit's rectangle, holding where that corner lands in the image, and, once
// the unit is sampled, the colour of the pixel whose lower right corner it is.
#pragma once

#include <stdint.h>

#include "store/footprint.h"

struct JobUnit;
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
// The cell of point (x, y), or null outside the array.
SampleCell* cellAt(SampleGrid* grid, int32_t x, int32_t y);
// The worker's half of the render: fills the cells and samples every pixel.
void renderUnit(JobUnit* unit);

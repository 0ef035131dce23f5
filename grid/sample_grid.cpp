#include "grid/sample_grid.h"

#include "host/host_record.h"
#include "run/job_pool.h"

int32_t gridsPerUnit() { return 1; }

bool gridAllocate(JobUnit* unit, SampleGrid* grids, int32_t count) {
  bool complete = true;
  VRect r = unit->cursor.unitRect;
  for (int32_t i = 0; i < count; ++i) {
    SampleGrid& grid = grids[i];
    grid.slotIndex = i;
    grid.slotTag = i + 1000;
    unit->cursor.gridCols = r.right - r.left + 2;
    unit->cursor.gridRows = r.bottom - r.top + 2;
    uint32_t bytes = uint32_t(unit->cursor.gridRows) * uint32_t(unit->cursor.gridCols) * uint32_t(sizeof(SampleCell));
    grid.cells = static_cast<SampleCell*>(globalBlockAlloc(bytes));
    grid.workUnit = unit;
    if (grid.cells == nullptr) complete = false;
  }
  return complete;
}

void gridRelease(SampleGrid* grids, int32_t count) {
  for (int32_t i = 0; i < count; ++i) globalBlockFree(&grids[i].cells);
}

SampleCell* cellAt(SampleGrid* grid, int32_t x, int32_t y) {
  if (grid->cells == nullptr || grid->workUnit == nullptr) return nullptr;
  const TileCursor& c = grid->workUnit->cursor;
  uint32_t column = uint32_t(x - c.unitRect.left + 1);
  uint32_t row = uint32_t(y - c.unitRect.top + 1);
  if (column >= uint32_t(c.gridCols) || row >= uint32_t(c.gridRows)) return nullptr;
  return grid->cells + size_t(row) * size_t(c.gridCols) + column;
}

void renderUnit(JobUnit* unit) { (void)unit; }

#include "grid/sample_grid.h"

#include "grid/opaque_walk.h"
#include "grid/pixel_sampling.h"
#include "host/blocks.h"
#include "host/host_record.h"
#include "host/plugin_main.h"
#include "platform/platform.h"
#include "run/job_pool.h"
#include "store/pixel_store.h"

namespace {

// The keys of what a point hit. This filter has one object: every cell holds
// the same three.
constexpr int32_t kKeyObject = -7;
constexpr int32_t kKeyHit = 2;

// Counters of the grid loops are signed 16-bit values that wrap.
inline int16_t low16(int32_t value) { return int16_t(uint16_t(uint32_t(value))); }

}  // namespace

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

namespace {

// What every cell of a unit shares: the walk's view of the stores, and the
// grid's rate, offsets and half pixels as pointToUnit converts them.
struct CellContext {
  WalkView walk;
  float rate;
  float offsetX;
  float offsetY;
  float halfPixelU;
  float halfPixelV;
};

inline void cellContext(const SampleGrid* grid, int32_t sampleRate, int32_t offsetX, int32_t offsetY,
                        const PixelStore* store, CellContext* c) {
  (void)grid;
  walkViewFromBlocks(&c->walk);
  c->rate = float(sampleRate);
  c->offsetX = float(offsetX);
  c->offsetY = float(offsetY);
  c->halfPixelU = store->halfPixelU;
  c->halfPixelV = store->halfPixelV;
}

// A cell as cellPoint leaves it, given the walk's answer for its point: the
// point's unit coordinates, its landing point, and the keys of what it hit.
// The words are written in their final state; the colour and the spare word
// are not touched.
inline void storeCell(const CellContext& c, float x, float y, float landX, float landY, bool walked,
                      SampleCell* cell) {
  float u;
  float v;
  pointToUnitUV(x, y, c.rate, c.offsetX, c.offsetY, c.halfPixelU, c.halfPixelV, &u, &v);
  float landU;
  float landV;
  pointToUnitUV(landX, landY, c.rate, c.offsetX, c.offsetY, c.halfPixelU, c.halfPixelV, &landU, &landV);
  cell->landU = landU;
  cell->landV = landV;
  cell->startU = u;
  cell->startV = v;
  cell->walked = walked ? 1 : 0;
  cell->spanA = 0;
  cell->spanB = 0;
  cell->rawU = u;
  cell->rawV = v;
  cell->keyA = kKeyObject;
  // The engine marks landings outside 0..1 here and clears the mark at once:
  // the keys stay constant, and nothing else depends on where a point landed.
  cell->keyB = kKeyHit;
  cell->keyC = 0;
  cell->noHit = 0;
}

}  // namespace

void cellPoint(float x, float y, int32_t sampleRate, int32_t offsetX, int32_t offsetY, const PixelStore* store,
               SampleGrid* grid, SampleCell* cell) {
  CellContext c;
  cellContext(grid, sampleRate, offsetX, offsetY, store, &c);
  float landX;
  float landY;
  const bool walked = nearestOpaqueIn(c.walk, x, y, &landX, &landY);
  storeCell(c, x, y, landX, landY, walked, cell);
}

// Point rows first..end - 1 on 16-bit counters, as the engine has them;
// columns left - 1 to right.
void fillCellRows(JobUnit* unit, SampleGrid* grid, int32_t first, int32_t end) {
  const VRect& r = unit->cursor.unitRect;
  CellContext c;
  cellContext(grid, grid->sampleRate, grid->offsetX, grid->offsetY, grid->store, &c);
  // Rows of points at a time, walked on the fastest road: every point lands
  // on the same bits on each.
  const WalkRoad road = walkRoadFor();
  constexpr int32_t kRowPoints = 4 * (kRenderTileSide + 2);
  float xs[kRowPoints];
  float ys[kRowPoints];
  float landX[kRowPoints];
  float landY[kRowPoints];
  uint8_t walked[kRowPoints];
  SampleCell* cells[kRowPoints];
  int32_t count = 0;
  auto walkPoints = [&]() {
    nearestOpaqueManyOn(road, c.walk, count, xs, ys, landX, landY, walked);
    for (int32_t i = 0; i < count; ++i) storeCell(c, xs[i], ys[i], landX[i], landY[i], walked[i] != 0, cells[i]);
    count = 0;
  };
  // A unit on plain counters has every cell of its point rows, one row after
  // another: its points go to the walk as a grid, a few rows at a time.
  const int32_t columns = r.right - r.left + 2;
  if (unitOnPlainCounters(unit) && columns <= kRenderTileSide + 2) {
    for (int32_t y = first; y < end; y += kRowPoints / columns) {
      const int32_t rows = end - y < kRowPoints / columns ? end - y : kRowPoints / columns;
      SampleCell* const firstCell = cellAt(grid, r.left - 1, y);
      SampleCell* const lastCell = cellAt(grid, r.right, y + rows - 1);
      if (firstCell == nullptr || lastCell == nullptr || lastCell - firstCell != ptrdiff_t(rows) * columns - 1) break;
      nearestOpaqueGridOn(road, c.walk, r.left - 1, y, columns, rows, landX, landY, walked);
      for (int32_t j = 0, i = 0; j < rows; ++j) {
        for (int32_t x = r.left - 1; x <= r.right; ++x, ++i) {
          storeCell(c, float(x), float(y + j), landX[i], landY[i], walked[i] != 0, firstCell + i);
        }
      }
      first = y + rows;
    }
  }
  for (int16_t y = low16(first); int32_t(y) < end; y = low16(y + 1)) {
    for (int16_t x = low16(r.left - 1); int32_t(x) < r.right + 1; x = low16(x + 1)) {
      SampleCell* cell = cellAt(grid, x, y);
      if (cell == nullptr) continue;
      cells[count] = cell;
      xs[count] = float(x);
      ys[count] = float(y);
      if (++count == kRowPoints) walkPoints();
    }
  }
  walkPoints();
}

void fillCells(JobUnit* unit, SampleGrid* grid) {
  const VRect& r = unit->cursor.unitRect;
  fillCellRows(unit, grid, r.top - 1, r.bottom + 1);
}

namespace {

// Rows of pixels taken at a time on plain counters: four rows of points are
// one batch of the walk, and their cells stay in the cache.
constexpr int32_t kBandRows = 4;

}  // namespace

void renderUnit(JobUnit* unit) {
  if (unit == nullptr || unit->grids == nullptr) return;
  InstanceBlock* instance = hostContext.instanceBlock;
  ParamBlock* params = hostContext.paramBlock;

  // The instance records how many workers the render may keep busy. Every
  // unit computes the same value; it is stored only when it differs, so that
  // after the first units the workers merely read the word.
  int32_t workers = instance->runCols + 1;
  int32_t processors = platformProcessorCount();
  if (processors < workers) workers = processors;
  if (instance->workerCount != workers) instance->workerCount = workers;

  PixelStore* store = unit->sourceStore != nullptr ? unit->sourceStore : &instance->sourceStore;
  // A run whose stores could not be made has nothing to walk or read: the
  // unit ends without touching its cells.
  if (params == nullptr || params->opaqueStore == nullptr || params->distanceStore == nullptr ||
      store->tiles == nullptr) {
    return;
  }
  int32_t count = gridsPerUnit();
  VRect whole = instance->wholeFilterRect;
  float width = float(whole.right - whole.left);
  float height = float(whole.bottom - whole.top);
  const VRect& r = unit->cursor.unitRect;
  for (int32_t i = 0; i < count; ++i) {
    SampleGrid& grid = unit->grids[i];
    grid.store = store;
    grid.workUnit = unit;
    grid.imageMetrics[0] = width;
    grid.imageMetrics[1] = height;
    grid.imageMetrics[2] = height / width;
    grid.imageMetrics[3] = width;
    grid.imageMetrics[4] = height;
    grid.imageMetrics[5] = height / width;
    grid.imageMetrics[6] = 1.0f / width;
    grid.imageMetrics[7] = 1.0f / height;
    grid.imageMetrics[8] = 1.0f / width;
    grid.imageMetrics[9] = 1.0f / height;
    resetFootprintState(&grid.state);
    grid.sampleRate = params->sampleRate;
    grid.offsetX = params->tileShiftH;
    grid.offsetY = params->tileShiftV;
    grid.scratchBlock = instance->scratch[0];
  }
  const bool banded = count == 1 && unitOnPlainCounters(unit);
  for (int32_t i = 0; i < count; ++i) {
    SampleGrid& grid = unit->grids[i];
    // Without its cell array the unit ends here: the writer then gives its
    // pixels the sample (0, 0, 0, 0).
    if (grid.cells == nullptr) return;
    float s;
    float t;
    pointToUnit(float(r.left - 1), float(r.top - 1), grid.sampleRate, grid.offsetX, grid.offsetY, store,
                &grid.bandMinU, &grid.bandMinV, &s, &t);
    pointToUnit(float(r.right), float(r.bottom), grid.sampleRate, grid.offsetX, grid.offsetY, store, &grid.bandMaxU,
                &grid.bandMaxV, &s, &t);
    if (!banded) fillCells(unit, &grid);
  }
  if (!banded) {
    samplePixels(unit);
    return;
  }
  // Pixel row y reads the point rows y - 1 and y; the last point row is
  // filled as the whole-unit road fills it, though no pixel here reads it.
  SampleGrid* grid = &unit->grids[0];
  fillCellRows(unit, grid, r.top - 1, r.top);
  for (int32_t y = r.top; y < r.bottom; y += kBandRows) {
    const int32_t end = r.bottom - y < kBandRows ? r.bottom : y + kBandRows;
    fillCellRows(unit, grid, y, end);
    samplePixelRows(unit, y, end);
  }
  fillCellRows(unit, grid, r.bottom, r.bottom + 1);
}

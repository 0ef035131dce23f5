#include "run/band_render.h"

#include "finish/finish_pixel.h"
#include "finish/host_pixels.h"
#include "grid/sample_grid.h"
#include "host/blocks.h"
#include "host/host_record.h"
#include "host/plugin_main.h"
#include "platform/platform.h"
#include "run/job_pool.h"

void renderImage(uint32_t tag) {
  // The number of workers the render keeps busy, which every unit would
  // compute alike: taken here, on the host's thread, so that the units only
  // find it in place.
  InstanceBlock* instance = hostContext.instanceBlock;
  if (instance != nullptr) {
    int32_t workers = instance->runCols + 1;
    int32_t processors = platformProcessorCount();
    instance->workerCount = processors < workers ? processors : workers;
  }
  JobRequest request = makeJobRequest(tag);
  runJob(kJobRender, kTilingSquares, request);
}

namespace {

// One pixel as the writer takes it: the colour of its cell, or (0, 0, 0, 0)
// when the grid has no cell for it.
inline void writePixel(SampleGrid* grid, int32_t x, int32_t y, TileCursor& cursor) {
  PixelValue sample = {0.0f, 0.0f, 0.0f, 0.0f};
  const SampleCell* cell = grid != nullptr ? cellAt(grid, x, y) : nullptr;
  if (cell != nullptr) sample = PixelValue{cell->colour[0], cell->colour[1], cell->colour[2], cell->colour[3]};
  finishPixel(x, y, &sample, cursor, nullptr, kRowModeRows);
}

}  // namespace

void writeUnit(JobUnit* unit) {
  // That host applies the selection by itself; setHostTile cleared the flag
  // before the tile was asked for, so it is set only once the tile is here.
  setAutoMask(getHostSig() == kSelfMaskingHostSig);
  TileCursor& cursor = unit->cursor;
  takeHostTileView(&cursor);

  VRect rect = cursor.unitRect;
  SampleGrid* grid = unit->gridCount > 0 ? unit->grids : nullptr;
  // The counters are 16-bit and wrap, while the limits are 32-bit: the render
  // handles rectangles below 32768 in either direction, as the sample grid does.
  // A rectangle whose edges lie inside that range never wraps, and its rows are
  // handed to the finisher whole.
  const bool plainCounters = int32_t(int16_t(rect.top)) == rect.top && int32_t(int16_t(rect.left)) == rect.left &&
                             rect.bottom <= 32767 && rect.right <= 32767;
  if (!plainCounters) {
    for (int16_t y = int16_t(rect.top); y < rect.bottom; y = int16_t(y + 1)) {
      for (int16_t x = int16_t(rect.left); x < rect.right; x = int16_t(x + 1)) writePixel(grid, x, y, cursor);
    }
    return;
  }
  const bool noCells = grid == nullptr || grid->cells == nullptr;
  for (int32_t y = rect.top; y < rect.bottom; ++y) {
    if (rect.left >= rect.right) continue;
    if (noCells) {
      // A unit without a cell array writes (0, 0, 0, 0) everywhere.
      finishRow(y, rect.left, rect.right, nullptr, 0, cursor, nullptr);
      continue;
    }
    // The cells of a row follow each other in the array when both ends of the
    // row have theirs.
    const SampleCell* first = cellAt(grid, rect.left, y);
    const SampleCell* last = cellAt(grid, rect.right - 1, y);
    if (first != nullptr && last != nullptr && last - first == ptrdiff_t(rect.right - 1) - rect.left) {
      finishRow(y, rect.left, rect.right, first->colour, ptrdiff_t(sizeof(SampleCell)), cursor, nullptr);
    } else {
      for (int32_t x = rect.left; x < rect.right; ++x) writePixel(grid, x, y, cursor);
    }
  }
}

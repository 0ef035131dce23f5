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
  for (int16_t y = int16_t(rect.top); y < rect.bottom; y = int16_t(y + 1)) {
    for (int16_t x = int16_t(rect.left); x < rect.right; x = int16_t(x + 1)) {
      // A unit without a cell array writes (0, 0, 0, 0) everywhere.
      PixelValue sample = {0.0f, 0.0f, 0.0f, 0.0f};
      const SampleCell* cell = grid != nullptr ? cellAt(grid, x, y) : nullptr;
      if (cell != nullptr) sample = PixelValue{cell->colour[0], cell->colour[1], cell->colour[2], cell->colour[3]};
      finishPixel(x, y, &sample, cursor, nullptr, kRowModeRows);
    }
  }
}

#include "run/tile_transfer.h"

#include <string.h>

#include "host/blocks.h"
#include "host/plugin_main.h"
#include "store/pixel_store.h"

namespace {

ParamBlock* params() { return hostContext.paramBlock; }

// The one-pixel rectangle at the filter rectangle's top-left corner: during
// the reading the host prepares no output and no mask worth the name.
VRect filterCorner() {
  VRect f = getFilterRect();
  return VRect{f.top, f.left, f.top + 1, f.left + 1};
}

// One row of a host tile into one row of the store, 512 pixels. Samples come
// `stride` apart; `delivered` pixels are the host's, and a host that could not
// pad leaves the rest to the last delivered pixel, as edge replication would.
template <class Sample, class Put>
void copyRow(const Sample* row, int32_t stride, int32_t delivered, int32_t alphaPlane, bool colour, bool hasAlpha,
             Sample opaque, Put put) {
  for (int32_t x = 0; x < kTileWidth; ++x) {
    int32_t sx = x < delivered ? x : delivered - 1;
    const Sample* p = row + size_t(sx) * size_t(stride);
    Sample r = p[0];
    Sample g = colour ? p[1] : p[0];
    Sample b = colour ? p[2] : p[0];
    Sample a = hasAlpha ? p[alphaPlane] : opaque;
    put(x, r, g, b, a);
  }
}

// copyRow of an 8-bit host row laid out r, g, b, a four bytes a pixel, the
// host's usual layout: each pixel's word is its four bytes in reverse, a loop
// the compiler runs on vectors.
void copyRowRgba8(const uint8_t* row, int32_t delivered, uint32_t* words) {
  for (int32_t x = 0; x < delivered; ++x) {
    const uint8_t* p = row + size_t(x) * 4u;
    words[x] = (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
  }
  for (int32_t x = delivered; x < kTileWidth; ++x) words[x] = words[delivered - 1];
}

// copyRow of a 16- or 32-bit host row laid out r, g, b, a: the store keeps
// the same four samples in the same order, so the row is copied as it stands.
template <class Sample>
void copyRowAsLaid(const Sample* row, int32_t delivered, Sample* samples) {
  memcpy(samples, row, size_t(delivered) * 4u * sizeof(Sample));
  const Sample* last = row + 4 * (delivered - 1);
  for (int32_t x = delivered; x < kTileWidth; ++x) memcpy(samples + 4 * x, last, 4 * sizeof(Sample));
}

}  // namespace

void setHostTile(VRect rect) {
  ParamBlock* p = params();
  int32_t rate = p->sampleRate;
  VPoint fc = getFloatCoord();
  VRect r = offsetRect(rect, fc.h / rate, fc.v / rate);
  r = offsetRect(r, p->tileShiftH / rate, p->tileShiftV / rate);
  setInRect(r);
  setOutRect(r);
  if (getHaveMask()) setMaskRect(r);
  // All planes, at the run's rate, with the edges replicated past the layer.
  hostPlanesAllRate(rate, plugInWantsEdgeReplication);
  FilterRecord* record = hostContext.filterRecord;
  record->inPreDummyPlanes = 0;
  record->inPostDummyPlanes = 0;
  record->outPreDummyPlanes = 0;
  record->outPostDummyPlanes = 0;
  setAutoMask(false);
}

void copyHostTileToStore(PixelStore* store, int32_t tileIndex) {
  int32_t kind = store->kind;
  if (is8Bit()) {
    if (kind != kKindRgba8) return;
  } else if (is16Bit()) {
    if (kind != kKindRgba16) return;
  } else if (is32Bit()) {
    if (kind != kKindRgbaFloat) return;
  } else {
    return;
  }
  StoreTile& tile = store->tiles[tileIndex];
  if (tile.pixels == nullptr) return;
  const uint8_t* data = static_cast<const uint8_t*>(getInData());
  if (data == nullptr) return;
  int32_t stride = getInHiPlane() - getInLoPlane() + 1;
  int32_t rows = tile.rows;
  int32_t alphaPlane = getInLayerPlanes();
  bool hasAlpha = hasEditableTransparency();
  bool colour = getPlanes() >= 3;
  int32_t rowBytes = getInRowBytes();
  // What the host delivered: all of the tile from a host that pads; less from
  // one that cannot, and the filter never reads past that.
  VRect in = getInRect();
  int32_t deliveredWidth = in.right - in.left;
  int32_t deliveredRows = in.bottom - in.top;
  if (deliveredWidth > kTileWidth) deliveredWidth = kTileWidth;
  if (deliveredWidth <= 0 || deliveredRows <= 0) return;

  // r, g, b, a side by side, the host's usual layout: copied in plain loops.
  const bool usualLayout = stride == 4 && alphaPlane == 3 && colour && hasAlpha;
  for (int32_t row = 0; row < rows; ++row) {
    int32_t sourceRow = row < deliveredRows ? row : deliveredRows - 1;
    uint8_t* target = tile.pixels + size_t(row) * kTileWidth * size_t(store->pixelBytes);
    if (kind == kKindRgba8) {
      const uint8_t* line = data + ptrdiff_t(sourceRow) * rowBytes;
      uint32_t* words = reinterpret_cast<uint32_t*>(target);
      if (usualLayout) {
        copyRowRgba8(line, deliveredWidth, words);
        continue;
      }
      copyRow<uint8_t>(line, stride, deliveredWidth, alphaPlane, colour, hasAlpha, 255,
                       [&](int32_t x, uint32_t r, uint32_t g, uint32_t b, uint32_t a) {
                         words[x] = (r << 24) | (g << 16) | (b << 8) | a;
                       });
    } else if (kind == kKindRgba16) {
      const uint16_t* line = reinterpret_cast<const uint16_t*>(data) + ptrdiff_t(sourceRow) * (rowBytes >> 1);
      uint16_t* samples = reinterpret_cast<uint16_t*>(target);
      if (usualLayout) {
        copyRowAsLaid(line, deliveredWidth, samples);
        continue;
      }
      copyRow<uint16_t>(line, stride, deliveredWidth, alphaPlane, colour, hasAlpha, 32768,
                        [&](int32_t x, uint16_t r, uint16_t g, uint16_t b, uint16_t a) {
                          uint16_t* p = samples + 4 * x;
                          p[0] = r;
                          p[1] = g;
                          p[2] = b;
                          p[3] = a;
                        });
    } else {
      const float* line = reinterpret_cast<const float*>(data) + ptrdiff_t(sourceRow) * (rowBytes >> 2);
      float* samples = reinterpret_cast<float*>(target);
      if (usualLayout) {
        copyRowAsLaid(line, deliveredWidth, samples);
        continue;
      }
      copyRow<float>(line, stride, deliveredWidth, alphaPlane, colour, hasAlpha, 1.0f,
                     [&](int32_t x, float r, float g, float b, float a) {
                       float* p = samples + 4 * x;
                       p[0] = r;
                       p[1] = g;
                       p[2] = b;
                       p[3] = a;
                     });
    }
  }
}

void snapshotHostState(HostStateSnapshot* snapshot, InstanceBlock* instance) {
  ParamBlock* p = params();
  snapshot->inRect = getInRect();
  snapshot->outRect = getOutRect();
  snapshot->maskRect = getMaskRect();
  snapshot->sampleRate = p->sampleRate;
  snapshot->runTop = getRunRect().top;
  snapshot->loadIndex = instance->loadIndex;
  snapshot->tileShiftH = p->tileShiftH;
  snapshot->tileShiftV = p->tileShiftV;
  snapshot->runStage = p->runStage;
}

void restoreHostState(HostStateSnapshot* snapshot, InstanceBlock* instance) {
  ParamBlock* p = params();
  p->tileShiftH = snapshot->tileShiftH;
  p->tileShiftV = snapshot->tileShiftV;
  p->runStage = snapshot->runStage;
  setInRect(snapshot->inRect);
  setOutRect(snapshot->outRect);
  setMaskRect(snapshot->maskRect);
  snapshot->outRect = getOutRect();
  snapshot->maskRect = getMaskRect();
  p->sampleRate = snapshot->sampleRate;
  instance->loadIndex = snapshot->loadIndex;
}

void readSource(PixelStore* store) {
  if (store == nullptr) return;
  InstanceBlock* instance = hostContext.instanceBlock;
  ParamBlock* p = params();
  HostStateSnapshot snapshot;
  snapshotHostState(&snapshot, instance);
  p->tileShiftV = 0;
  p->tileShiftH = 0;
  setRunGeometry(instance, getFilterRect(), 1);
  for (int32_t i = store->firstTile[0]; i <= store->lastTile[0]; ++i) {
    setHostTile(tileRect(store, i));
    VRect corner = filterCorner();
    setOutRect(corner);
    setMaskRect(corner);
    advance();
    if (getResult() != 0) {
      // The store keeps what was read; the snapshot is deliberately not restored.
      hostContext.lastErrorCode = kErrReadAdvance;
      instance->loadActive = 0;
      return;
    }
    copyHostTileToStore(store, i);
  }
  store->loadState = 1;
  restoreHostState(&snapshot, instance);
}

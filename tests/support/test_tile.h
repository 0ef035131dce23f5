// A host tile for the pixel-level tests: a unit's cursor with its view
// taken from a host record of the test's own, and the buffers behind it.
#pragma once

#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <vector>

#include "finish/host_tile_view.h"
#include "host/host_record.h"
#include "host/plugin_main.h"
#include "run/job_pool.h"

namespace testing_support {

// A unit's cursor with its view taken from a host record of the given depth
// and planes, and the three buffers behind it. Rows carry three spare pixels,
// so that a wrong row step shows.
struct TestTile {
  TileCursor cursor;
  int32_t planes;
  int32_t rowBytes;
  int32_t maskRowBytes;
  std::vector<uint8_t> in;
  std::vector<uint8_t> out;
  std::vector<uint8_t> mask;

  // The host's outRect lies elsewhere in the host's frame (an offset layer),
  // since only its size may count.
  TestTile(int32_t bits, int16_t planeCount, VRect unit, bool transparency = true, VPoint outOffset = VPoint{40, -7})
      : planes(planeCount) {
    memset(&cursor, 0, sizeof cursor);
    cursor.unitRect = unit;
    int32_t width = unit.right - unit.left;
    int32_t height = unit.bottom - unit.top;
    rowBytes = (width + 3) * planes * (bits / 8);
    maskRowBytes = width + 5;
    in.assign(size_t(rowBytes) * size_t(height), 0);
    out.assign(size_t(rowBytes) * size_t(height), 0);
    mask.assign(size_t(maskRowBytes) * size_t(height), 0);
    FilterRecord r;
    memset(&r, 0, sizeof r);
    const bool gray = planeCount < 3;
    r.imageMode = bits == 8    ? (gray ? plugInModeGrayScale : plugInModeRGBColor)
                  : bits == 16 ? (gray ? plugInModeGray16 : plugInModeRGB48)
                               : (gray ? plugInModeGray32 : plugInModeRGB96);
    r.depth = bits;
    r.filterCase = transparency ? filterCaseEditableTransparencyNoSelection : filterCaseFlatImageNoSelection;
    r.planes = planeCount;
    r.inHiPlane = int16_t(planeCount - 1);
    r.inLayerPlanes = r.outLayerPlanes = int16_t(transparency ? planeCount - 1 : planeCount);
    r.inData = in.data();
    r.outData = out.data();
    r.inRowBytes = r.outRowBytes = rowBytes;
    r.outRect = PIRect{int16_t(unit.top + outOffset.v), int16_t(unit.left + outOffset.h),
                       int16_t(unit.bottom + outOffset.v), int16_t(unit.right + outOffset.h)};
    // The host delivered the input and the mask for the whole unit.
    r.inRect = r.maskRect =
        PIRect{int16_t(unit.top), int16_t(unit.left), int16_t(unit.bottom), int16_t(unit.right)};
    r.maskData = mask.data();
    r.maskRowBytes = maskRowBytes;
    r.hostSig = 0x3842494D;  // '8BIM'
    FilterRecord* saved = hostContext.filterRecord;
    hostContext.filterRecord = &r;
    takeHostTileView(&cursor);
    hostContext.filterRecord = saved;
  }
  TestTile(const TestTile&) = delete;
  TestTile& operator=(const TestTile&) = delete;

  HostTileView& view() { return cursor.view; }
  void useMask(uint8_t fill) {
    cursor.view.haveMask = true;
    std::fill(mask.begin(), mask.end(), fill);
  }
  int32_t left() const { return cursor.unitRect.left; }
  int32_t top() const { return cursor.unitRect.top; }
  int32_t width() const { return cursor.unitRect.right - cursor.unitRect.left; }
  int32_t height() const { return cursor.unitRect.bottom - cursor.unitRect.top; }

  template <class T>
  T* pixel(std::vector<uint8_t>& buffer, int32_t dx, int32_t dy) {
    return reinterpret_cast<T*>(buffer.data() + size_t(dy) * size_t(rowBytes)) + dx * planes;
  }
  uint8_t* in8(int32_t dx, int32_t dy) { return pixel<uint8_t>(in, dx, dy); }
  uint8_t* out8(int32_t dx, int32_t dy) { return pixel<uint8_t>(out, dx, dy); }
  uint16_t* in16(int32_t dx, int32_t dy) { return pixel<uint16_t>(in, dx, dy); }
  uint16_t* out16(int32_t dx, int32_t dy) { return pixel<uint16_t>(out, dx, dy); }
  float* inF(int32_t dx, int32_t dy) { return pixel<float>(in, dx, dy); }
  float* outF(int32_t dx, int32_t dy) { return pixel<float>(out, dx, dy); }
  uint8_t& maskAt(int32_t dx, int32_t dy) { return mask[size_t(dy) * size_t(maskRowBytes) + size_t(dx)]; }
};

}  // namespace testing_support

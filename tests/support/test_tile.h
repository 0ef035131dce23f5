// A host tile for the pixel-level tests: a unit's cursor with its view
// filled as takeHostTileView would fill it, and the buffers behind it.
#pragma once

#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <vector>

#include "finish/host_tile_view.h"
#include "host/host_record.h"
#include "run/job_pool.h"

namespace testing_support {

// A unit's cursor with its view filled as for a host tile of the given depth
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
    HostTileView& v = cursor.view;
    v.hasTransparency = transparency;
    v.planes = planeCount;
    v.inLoPlane = 0;
    v.inHiPlane = int16_t(planeCount - 1);
    v.inData = in.data();
    v.outData = out.data();
    v.inLayerPlanes = int16_t(transparency ? planeCount - 1 : planeCount);
    v.outLayerPlanes = v.inLayerPlanes;
    v.inRowBytes = rowBytes;
    v.outRowBytes = rowBytes;
    v.isGrayPlanes = planeCount < 3;
    v.isColorPlanes = planeCount >= 3;
    v.isGrayMode = v.isGrayPlanes;
    v.isRgbMode = v.isColorPlanes;
    v.is8Bit = bits == 8;
    v.is16Bit = bits == 16;
    v.is32Bit = bits == 32;
    v.floatMath = v.is32Bit;
    v.haveMask = false;
    v.outRect[0] = unit.top + outOffset.v;
    v.outRect[1] = unit.left + outOffset.h;
    v.outRect[2] = unit.bottom + outOffset.v;
    v.outRect[3] = unit.right + outOffset.h;
    // The host delivered the input and the mask for the whole unit.
    v.inRect[0] = v.maskRect[0] = unit.top;
    v.inRect[1] = v.maskRect[1] = unit.left;
    v.inRect[2] = v.maskRect[2] = unit.bottom;
    v.inRect[3] = v.maskRect[3] = unit.right;
    v.maskData = mask.data();
    v.maskRowBytes = maskRowBytes;
    v.hostSig = 0x3842494D;  // '8BIM'
    v.outPixelStride = planeCount;
    v.channelMaxInt = v.is8Bit ? 255 : v.is16Bit ? 32768 : 65535;
    v.alphaScaleInt = v.is8Bit ? 255 : v.is16Bit ? 32768 : 1;
    v.colourScale = v.is8Bit ? 255.0f : v.is16Bit ? 32768.0f : 1.0f;
    v.channelMax = float(v.channelMaxInt);
    v.channelMaxWide = double(v.channelMaxInt);
    v.channelMidInt = v.is8Bit ? 128 : v.is16Bit ? 16384 : 32767;
    v.invChannelMax = float(1.0 / double(v.channelMax));
    v.invAlphaScale = float(1.0 / double(v.alphaScaleInt));
    v.invColourScale = float(1.0 / double(v.colourScale));
    v.levelStep = v.is8Bit ? 1 : 128;
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

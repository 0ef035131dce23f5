#include "finish/host_pixels.h"

#include <stddef.h>

#include "host/blocks.h"
#include "host/plugin_main.h"
#include "store/portable_math.h"

namespace {

// dx and dy compared as unsigned, so that a negative offset is outside too.
bool insideUnit(int32_t dx, int32_t dy, const VRect& unit) {
  return uint32_t(dx) < uint32_t(unit.right - unit.left) && uint32_t(dy) < uint32_t(unit.bottom - unit.top);
}

// The offset of row dy in samples; `rowStep` is already in samples of the
// depth. Without the row mode the buffer is taken as one row.
ptrdiff_t rowOffset(int32_t dy, int32_t rowStep, int32_t rowMode) {
  return rowMode == kRowModeRows ? ptrdiff_t(dy) * ptrdiff_t(rowStep) : 0;
}

uint8_t sample8(float value, float scale) { return uint8_t(truncToInt32(value * scale)); }
uint16_t sample16(float value, float scale) { return uint16_t(truncToInt32(value * scale)); }

// A display stage draws into a planar 8-bit buffer, clamping the point to it.
void writePreviewPixel(int32_t x, int32_t y, const PixelValue& value, PreviewBuffer* preview) {
  if (preview == nullptr || preview->data == nullptr || preview->rowBytes <= 0 || preview->rows <= 0) return;
  int32_t px = x < 0 ? 0 : x > preview->rowBytes - 1 ? preview->rowBytes - 1 : x;
  int32_t py = y < 0 ? 0 : y > preview->rows - 1 ? preview->rows - 1 : y;
  uint8_t* p = preview->data + ptrdiff_t(py) * preview->rowBytes + px;
  if (preview->planeCount >= 3) {
    p[0] = sample8(value.r, 255.0f);
    p[preview->planeBytes] = sample8(value.g, 255.0f);
    p[ptrdiff_t(2) * preview->planeBytes] = sample8(value.b, 255.0f);
  } else {
    p[0] = sample8(value.g, 255.0f);
  }
}

}  // namespace

int32_t finishBlendMode() {
  const ParamBlock* params = hostContext.paramBlock;
  return params != nullptr ? params->blendMode : kFilterBlendMode;
}

int32_t finishRunStage() {
  const ParamBlock* params = hostContext.paramBlock;
  return params != nullptr ? params->runStage : kRunStageWhole;
}

float selectionCoverage(int32_t x, int32_t y, const TileCursor& tile, int32_t rowMode) {
  const HostTileView& view = tile.view;
  // That host applies the selection itself (writeUnit sets autoMask for it).
  if (view.hostSig == kSelfMaskingHostSig || !view.haveMask || view.maskData == nullptr) return 1.0f;
  int32_t dx = x - tile.unitRect.left;
  int32_t dy = y - tile.unitRect.top;
  if (!insideUnit(dx, dy, tile.unitRect)) return 0.0f;
  // A host that hands back a smaller mask rectangle delivers no byte beyond it.
  if (dx >= view.maskRect[3] - view.maskRect[1] || dy >= view.maskRect[2] - view.maskRect[0]) return 0.0f;
  // The mask is one byte a pixel at every depth.
  const uint8_t* mask = static_cast<const uint8_t*>(view.maskData);
  uint8_t weight = mask[rowOffset(dy, view.maskRowBytes, rowMode) + dx];
  return float(weight) * kMaskByteScale;
}

PixelValue readHostPixel(int32_t x, int32_t y, const TileCursor& tile, int32_t rowMode) {
  PixelValue value = {0.0f, 0.0f, 0.0f, 0.0f};
  const HostTileView& view = tile.view;
  if (view.inData == nullptr) return value;
  int32_t dx = x - tile.unitRect.left;
  int32_t dy = y - tile.unitRect.top;
  if (!insideUnit(dx, dy, tile.unitRect)) return value;
  // Nor is anything read past the input rectangle the host handed back.
  if (dx >= view.inRect[3] - view.inRect[1] || dy >= view.inRect[2] - view.inRect[0]) return value;
  ptrdiff_t stride = ptrdiff_t(view.inHiPlane) - view.inLoPlane + 1;
  bool colour = view.planes >= 3;
  float scale = view.invColourScale;
  float alphaScale = view.invAlphaScale;
  int32_t alphaPlane = view.inLayerPlanes;
  if (view.is8Bit) {
    const uint8_t* p = static_cast<const uint8_t*>(view.inData) + rowOffset(dy, view.inRowBytes, rowMode) + dx * stride;
    value.r = float(p[0]) * scale;
    value.g = colour ? float(p[1]) * scale : value.r;
    value.b = colour ? float(p[2]) * scale : value.r;
    value.a = view.hasTransparency ? float(p[alphaPlane]) * alphaScale : 1.0f;
  } else if (view.is16Bit) {
    const uint16_t* p =
        static_cast<const uint16_t*>(view.inData) + rowOffset(dy, view.inRowBytes >> 1, rowMode) + dx * stride;
    value.r = float(p[0]) * scale;
    value.g = colour ? float(p[1]) * scale : value.r;
    value.b = colour ? float(p[2]) * scale : value.r;
    value.a = view.hasTransparency ? float(p[alphaPlane]) * alphaScale : 1.0f;
  } else if (view.is32Bit) {
    const float* p =
        static_cast<const float*>(view.inData) + rowOffset(dy, view.inRowBytes >> 2, rowMode) + dx * stride;
    value.r = p[0] * scale;
    value.g = colour ? p[1] * scale : value.r;
    value.b = colour ? p[2] * scale : value.r;
    value.a = view.hasTransparency ? p[alphaPlane] * alphaScale : 1.0f;
  }
  return value;
}

void writeHostPixel(int32_t x, int32_t y, const PixelValue& value, const TileCursor& tile, PreviewBuffer* previewBuffer,
                    int32_t rowMode) {
  int32_t stage = finishRunStage();
  if (stage >= 2) return;
  if (stage == 1) {
    writePreviewPixel(x, y, value, previewBuffer);
    return;
  }
  const HostTileView& view = tile.view;
  if (view.outData == nullptr) return;
  int32_t dx = x - tile.unitRect.left;
  int32_t dy = y - tile.unitRect.top;
  if (!insideUnit(dx, dy, tile.unitRect)) return;
  // The host's outRect bounds the write as well: a host may hand back less
  // than the unit asked for. Only its size counts, not its position.
  if (dx >= view.outRect[3] - view.outRect[1] || dy >= view.outRect[2] - view.outRect[0]) return;
  ptrdiff_t stride = view.outPixelStride;
  bool colour = view.planes >= 3;
  float scale = view.colourScale;
  float alphaScale = float(view.alphaScaleInt);
  // The alpha plane of the output is found by the input's figure, as for the input.
  int32_t alphaPlane = view.inLayerPlanes;
  if (view.is8Bit) {
    uint8_t* p = static_cast<uint8_t*>(view.outData) + rowOffset(dy, view.outRowBytes, rowMode) + dx * stride;
    if (colour) {
      p[0] = sample8(value.r, scale);
      p[1] = sample8(value.g, scale);
      p[2] = sample8(value.b, scale);
    } else {
      p[0] = sample8(value.g, scale);  // a gray tile takes the green channel
    }
    if (view.hasTransparency) p[alphaPlane] = sample8(value.a, alphaScale);
  } else if (view.is16Bit) {
    uint16_t* p = static_cast<uint16_t*>(view.outData) + rowOffset(dy, view.outRowBytes >> 1, rowMode) + dx * stride;
    if (colour) {
      p[0] = sample16(value.r, scale);
      p[1] = sample16(value.g, scale);
      p[2] = sample16(value.b, scale);
    } else {
      p[0] = sample16(value.g, scale);
    }
    if (view.hasTransparency) p[alphaPlane] = sample16(value.a, alphaScale);
  } else if (view.is32Bit) {
    float* p = static_cast<float*>(view.outData) + rowOffset(dy, view.outRowBytes >> 2, rowMode) + dx * stride;
    if (colour) {
      p[0] = value.r * scale;
      p[1] = value.g * scale;
      p[2] = value.b * scale;
    } else {
      p[0] = value.g * scale;
    }
    if (view.hasTransparency) p[alphaPlane] = alphaScale * value.a;
  }
}

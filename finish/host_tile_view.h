// The snapshot of what the host record says about the tile at hand, taken
// once per render unit right after advanceState, so that the pixel writer
// reads plain fields instead of calling the accessors for every pixel.
#pragma once

#include <stdint.h>

struct HostTileView {
  bool hasTransparency;
  int16_t planes;
  int16_t inHiPlane;
  int16_t inLoPlane;
  void* inData;
  void* outData;
  int16_t inLayerPlanes;
  int16_t outLayerPlanes;
  int32_t inRowBytes;
  int32_t outRowBytes;
  bool isGrayPlanes;
  bool isColorPlanes;
  bool isGrayMode;
  bool isRgbMode;
  bool is8Bit;
  bool haveMask;
  bool is16Bit;
  bool is32Bit;
  bool floatMath;
  int32_t outRect[4];  // top, left, bottom, right
  void* maskData;
  int32_t maskRowBytes;
  uint32_t hostSig;
  int16_t outPixelStride;
  int32_t channelMaxInt;
  int32_t alphaScaleInt;
  float colourScale;
  float channelMax;
  double channelMaxWide;
  int32_t channelMidInt;
  float invChannelMax;
  float invAlphaScale;
  float invColourScale;
  int32_t levelStep;
  // What the host delivered: a host that cannot pad hands back rectangles
  // smaller than asked, and no read goes past them.
  int32_t inRect[4];    // top, left, bottom, right
  int32_t maskRect[4];  // top, left, bottom, right
};

// The pixel finishing path: from a computed float value to the samples in the
// host's output tile. It corrects alpha, keeps colours in range, reduces to
// gray where the tile is gray, weighs the result against the host's selection
// and hands four floats to the pixel writer. Also the three small colour
// routines it rests on: excess spill, alpha-aware mixing, compositing.
//
// The path is generic over the parameter block's blendMode and runStage; this
// filter only ever runs it at blend mode 1 (copy) and the whole-image stage,
// on a layer with editable transparency. The other branches are kept for the
// engine's other switches.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "finish/host_pixels.h"
#include "finish/pixel_value.h"
#include "run/job_pool.h"

// Raises every partial alpha a little, and makes almost-opaque results
// (from 0.99304867 upward) fully opaque.
constexpr float kAlphaGain = 1.007f;
// Gray weights; their single-precision sum falls a little short of 1, and
// that is kept: some gray levels come back one step lower.
constexpr float kGrayRed = 0.3f;
constexpr float kGrayGreen = 0.59f;
constexpr float kGrayBlue = 0.11f;
// Coverage from here upward counts as the whole pixel (a full mask byte
// weighs 0.99999994).
constexpr double kCoverageWhole = 0.9999;
// The upper limit of colours in float mode, where the integer depths use 1.0.
constexpr float kFloatColourMax = 65535.0f;

// Excess spill: a share of the colour above full scale moves to the channels
// that still have room.
constexpr float kSpillGain = 60.0f;
constexpr double kSpillScale = 0.00390625;  // 1/256
constexpr double kSpillHalf = 0.5;

// Carries `sample`, the colour computed for pixel (x, y) of the unit, into
// the host's output tile; `sample` may be changed on the way. `tile` is the
// unit's cursor, whose view was filled for the tile at hand and whose unitRect
// is the frame of x and y. `previewBuffer` is read only by a display stage.
void finishPixel(int32_t x, int32_t y, PixelValue* sample, const TileCursor& tile, PreviewBuffer* previewBuffer,
                 int32_t rowMode = kRowModeRows);

// finishPixel for the pixels x = left .. right - 1 of row y, in that order.
// The colour of pixel x is the four floats (r, g, b, a) that start
// (x - left) * strideBytes bytes after `colours`; null colours give every
// pixel the sample (0, 0, 0, 0). The result is that of calling finishPixel
// pixel by pixel. A row that the host's tile holds whole, at blend mode 1 and
// the whole-image stage, runs in a loop made for the tile's depth, with the
// view's per-tile decisions taken once for the row.
void finishRow(int32_t y, int32_t left, int32_t right, const void* colours, ptrdiff_t strideBytes,
               const TileCursor& tile, PreviewBuffer* previewBuffer);

// Colour above 1.0 in one or two of red, green, blue moves into the others, so
// that the pixel turns toward white instead of being cut. Does nothing in
// float mode, when no channel is above 1.0, and when all three are.
void spillExcess(PixelValue* value, const HostTileView& view);

// Interpolates from `a` (t = 0) to `b` (t = 1), weighing colour by alpha so
// that colour under zero alpha does not leak in. `out` may be `a` or `b`.
void mixAlphaAware(PixelValue* out, const PixelValue* a, const PixelValue* b, float t);

// Lays `src` over `dst`, straight colours; `dst` holds the result.
void compositeOver(const PixelValue* src, PixelValue* dst);

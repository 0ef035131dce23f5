// The border between the host's interleaved tile buffers and the finishing
// path's floats: one host pixel read as a PixelValue, one PixelValue written
// into the output tile, and the selection's weight of one pixel. Every depth
// difference of the output path lives here.
//
// A float goes to its sample by one multiplication and a truncation, never a
// rounding, and the read factors are the correctly rounded reciprocals of the
// write factors, so that an integer sample read and written back keeps its
// exact value at 8 and 16 bits.
//
// Coordinates x and y are in the frame of the unit's rectangle (the cursor's
// unitRect), against which the host's buffers are laid out; the cursor's view
// must have been filled for the tile at hand. These routines touch the host's
// buffers and belong to the host's thread.
#pragma once

#include <stdint.h>

#include "finish/pixel_value.h"
#include "run/job_pool.h"

// The row mode that writeUnit always passes: the buffers have rows and the row
// step applies. Any other value leaves the row step out of the address.
constexpr int32_t kRowModeRows = 1;

// The weight of one selection byte: one unit in the last place below the
// colour factor 1/255, and kept apart from it on purpose. A full byte weighs
// 0.99999994, which the finishing path's threshold of 0.9999 counts as whole.
constexpr float kMaskByteScale = 0.0039215684f;  // bits 0x3B808080

// The signature of the host that applies the selection by itself ('AffP').
constexpr uint32_t kSelfMaskingHostSig = 0x41666650u;

// A planar 8-bit image that a display stage draws into; not reached by a
// whole-image run. Columns are clamped to the row step, rows to `rows`.
struct PreviewBuffer {
  uint8_t* data;
  int32_t rowBytes;
  int32_t rows;
  int32_t planeBytes;
  int32_t planeCount;
};

// The parameter block's blend mode and run stage as the finishing path sees
// them: 1 and 0 (copy, whole image) when no parameter block is locked.
int32_t finishBlendMode();
int32_t finishRunStage();

// The share of pixel (x, y) that the filter may change, 0..1: 1.0 for the
// self-masking host and whenever there is no mask; 0.0 outside the unit.
float selectionCoverage(int32_t x, int32_t y, const TileCursor& tile, int32_t rowMode = kRowModeRows);

// The input tile's pixel at (x, y); (0, 0, 0, 0) when there is no input
// buffer, the pixel lies outside the unit, or the depth is none of 8, 16, 32.
// Alpha is 1.0 for a layer without transparency.
PixelValue readHostPixel(int32_t x, int32_t y, const TileCursor& tile, int32_t rowMode = kRowModeRows);

// Stores `value` into the output tile at (x, y). Dropped silently when there is
// no output buffer or the pixel lies outside the unit or outside the host's
// outRect (by width and height). At a display stage it draws into `previewBuffer`
// instead, and later stages store nothing.
void writeHostPixel(int32_t x, int32_t y, const PixelValue& value, const TileCursor& tile,
                    PreviewBuffer* previewBuffer, int32_t rowMode = kRowModeRows);

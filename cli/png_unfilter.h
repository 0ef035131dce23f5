// Undoing PNG's row filters (None, Sub, Up, Average, Paeth) in place. `row`
// holds the row's n bytes after its filter byte, `prior` the row above,
// already unfiltered (zeros for the first row), bpp the bytes of a pixel.
// False for a filter byte PNG does not have.
//
// Two roads: the byte road, one byte after the other, each filter's
// predictor taken as it is defined, and the pixel lanes (png_unfilter_sse2.cpp),
// which take a pixel of 4 or 8 bytes at a time in SSE2 lanes for Sub,
// Average and Paeth, whose bytes depend on the byte a pixel before. Both
// give the same bytes; unfilterRow takes the fastest for the row.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace mendaris_cli {

enum class UnfilterRoad { kBytes, kPixelLanes };

bool unfilterRowOn(UnfilterRoad road, uint8_t filter, uint8_t* row, const uint8_t* prior, size_t n, size_t bpp);
bool unfilterRow(uint8_t filter, uint8_t* row, const uint8_t* prior, size_t n, size_t bpp);

// The pixel lanes: false, with the row untouched, where they do not take the
// row (another pixel size or filter, or a build without SSE2).
bool unfilterRowLanes(uint8_t filter, uint8_t* row, const uint8_t* prior, size_t n, size_t bpp);

}  // namespace mendaris_cli

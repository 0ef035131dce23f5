// The column pass of the float box, several columns side by side: the fast
// road beside smoothLine's one column at a time, in line_smooth_sse2.cpp.
// filterColumns chooses between them.
#pragma once

#include <stdint.h>

struct PixelStore;

// Columns smoothed together: one cache line of floats, in four lanes of four.
constexpr int32_t kColumnGroup = 16;

// Smooths the kColumnGroup columns from `line` (a multiple of kColumnGroup,
// all inside the level) between rows first and first + n - 1 of a float
// store, each column exactly as smoothLine does it alone: the same running
// sums, the same order, the same bits. False, with nothing touched, where
// this road is not built or the window is too long for it.
bool smoothColumnGroupFloat(PixelStore* store, int32_t level, int32_t line, int32_t first, int32_t n, int32_t back,
                            int32_t forward);

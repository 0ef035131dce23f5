// The passes of the float box over several lines side by side: the fast
// roads beside smoothLine's one line at a time, in line_smooth_sse2.cpp.
// filterRows and filterColumns choose between them.
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

// Rows smoothed together, one a lane.
constexpr int32_t kRowGroup = 4;

// Smooths rows line .. line + kRowGroup - 1 (all inside the level) between
// columns first and first + n - 1 of a float store, each row exactly as
// smoothLine does it alone. False, with nothing touched, where this road is
// not built or the window is too long for it.
bool smoothRowGroupFloat(PixelStore* store, int32_t level, int32_t line, int32_t first, int32_t n, int32_t back,
                         int32_t forward);

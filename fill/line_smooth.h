// Box smoothing along the rows or the columns of a store, one line at a time.
//
// Each line is copied out to a buffer (a column comes out as a contiguous
// run), averaged through a sliding window of `back` cells before and `forward`
// cells after the current one, and copied back in place. At the ends of a
// line the end cell is repeated. A pass may run in place and on many threads
// at once, since no line reads a cell outside itself.
#pragma once

#include <stdint.h>

struct PixelStore;

// The local state of one unit of a smoothing job. Cleared to zeros by its
// maker, which is a valid empty state.
struct PassContext {
  // One allocation for the input line at its start and the output line after
  // it: 2 * (max(levelWidth[0], levelHeight[0]) + 1) pixels.
  uint8_t* lineBuffer;
  int32_t lineBufferBytes;
  // The integer kernels divide through a reciprocal of the window length,
  // remade whenever the length changes; 0 means none made yet.
  int32_t windowLength;
  uint64_t windowReciprocal;
};

// Makes the context's line buffer for `store`; false when the memory could
// not be had (the lines are then left as they are).
bool makeLineBuffer(PassContext* context, const PixelStore* store);
void freeLineBuffer(PassContext* context);

// Smooths row `row` between columns left and right - 1 (JobKind -1002). Does
// nothing when both radii are below 1.
void filterRow(PixelStore* store, int32_t row, PassContext* context, int32_t left, int32_t right, int32_t level,
               int32_t radiusA, int32_t radiusB);
// Smooths column `column` between rows top and bottom - 1 (JobKinds -1003, -1004).
void filterColumn(PixelStore* store, int32_t column, PassContext* context, int32_t top, int32_t bottom,
                  int32_t level, int32_t radiusA, int32_t radiusB);
// filterRow for every row from top to bottom - 1, and filterColumn for every
// column from left to right - 1, with the same results; float lines go
// several at a time where they can.
void filterRows(PixelStore* store, PassContext* context, int32_t top, int32_t bottom, int32_t left, int32_t right,
                int32_t level, int32_t radiusA, int32_t radiusB);
void filterColumns(PixelStore* store, PassContext* context, int32_t left, int32_t right, int32_t top, int32_t bottom,
                   int32_t level, int32_t radiusA, int32_t radiusB);

// Copies the line in, runs the kernel of the store's kind, copies it back. A
// negative radius, or both radii 0, leave the line untouched (not even copied).
void smoothLine(PixelStore* store, int32_t line, PassContext* context, int32_t first, int32_t end, int32_t level,
                int32_t back, int32_t forward, bool vertical);

// Moves the pixels first..end - 1 of row `line` (or column, when vertical)
// between the store and `buffer`, whose start takes the first pixel; toStore
// gives the direction. first is raised to 0 and end clipped to the level.
// Nothing happens for a count of 0 or less, a store without tiles, kind 2 or a
// kind above 5, or a line outside the level.
void copyLine(PixelStore* store, int32_t level, int32_t line, int32_t first, int32_t end, void* buffer, bool toStore,
              bool vertical);

// The float box (kind 5): out[i] for i from start to length - 1 is the mean of
// the window around in[i], kept as a running sum in single precision that is
// never rebuilt, so its rounding drift is part of the result.
void boxLineFloat(const float* in, float* out, int32_t start, int32_t length, int32_t back, int32_t forward);

// The integer boxes: the window's sum divided by its length, truncating.
// Kind 0 (bytes) and kind 1 (16-bit values), one value a pixel.
void boxLineU8(PassContext* context, const uint8_t* in, uint8_t* out, int32_t length, int32_t back,
               int32_t forward);
void boxLineU16(const uint16_t* in, uint16_t* out, int32_t length, int32_t back, int32_t forward);
// Kind 3 words: channels 0..2 (the top three bytes) smoothed, channel 3 written as 255.
void boxLineU8x4(PassContext* context, const uint32_t* in, uint32_t* out, int32_t length, int32_t back,
                 int32_t forward);
// Kind 4: channels 0..2 smoothed; channel 3 is left out of the window and passes unchanged.
void boxLineU16x4(PassContext* context, const uint16_t* in, uint16_t* out, int32_t length, int32_t back,
                  int32_t forward);

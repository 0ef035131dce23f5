// The colour of each pixel of a render unit, read from the filled pyramid at
// the mean of the pixel's four landing points, through a footprint given by
// how far apart they landed. The colour goes into the pixel's own cell (the
// cell of its lower right corner).
//
// The engine's general sampler classifies corners by the keys of what they hit
// and refines pixels that straddle a boundary; in this filter every cell holds
// the same keys, so one road is taken for every pixel: sampler mode 3, window
// kind 1, one sample at the corners. That road is what is built here.
#pragma once

#include <stdint.h>

struct JobUnit;
struct PixelStore;
struct SampleCell;
struct SampleGrid;

constexpr int32_t kSamplerMode = 3;
constexpr int32_t kWindowKind = 1;
// Words 0 to 12 of a cell: what the sampler copies of the pixel's own cell.
constexpr int32_t kCellCopyWords = 13;

// The working record of one pixel, on the sampling thread's stack.
struct PixelSample {
  int32_t edgeMode;         // wrap switch of averageU and averageV; 0
  int32_t cornerFlags;      // 1: keys differ left to right, 2: top to bottom
  int32_t collapseCorners;  // read all corners at the pixel itself; 0
  int32_t sampleCount;
  int32_t cornerPattern;
  float edgeSpan[4];
  int32_t hash[4];  // key hashes of the corners (x, y), (x - 1, y), (x, y - 1), (x - 1, y - 1)
  int32_t keyA[4];
  int32_t keyB[4];
  int32_t keyC[4];
  float resultColour[4];
};

// The hash of a key triple that the corner tests compare.
int32_t keyHash(int32_t keyA, int32_t keyB, int32_t keyC);

// True only when the cell's point has nothing under it (keyA -5).
bool cellMissed(const SampleCell& cell);

// Mean of two coordinates; -1.0 marks a missing one, and the other is taken.
// edgeMode 1 takes them on a circle of period 1 (averageU then keeps the
// fractional part). Computed in double, stored as a float.
float averageU(float a, float b, int32_t edgeMode);
float averageV(float a, float b, int32_t edgeMode);

// Every pixel of the unit, each colour into the pixel's cell.
void samplePixels(JobUnit* unit);

// Whether the unit's rectangle lies where plain counters run (its edges in
// the range of signed 16 bits), and the pixels of its rows first..end - 1
// when it does.
bool unitOnPlainCounters(const JobUnit* unit);
void samplePixelRows(JobUnit* unit, int32_t first, int32_t end);
// ---- the roads of a row's pixels ---------------------------------------------------------
// - The pixel road takes one pixel after another: the road the other
//   reproduces.
// - The lane road (pixel_sampling_sse2.cpp) takes four pixels at a time
//   where their corners agree in their keys and none is missing: the means
//   of their five corner columns, their centres and the test for a level-0
//   read in SSE2 lanes, with the pixel road's operations in its order. A
//   group with a missing corner, a mean that is not finite or one that
//   comes out as the missing mark takes the pixel road.
enum SampleRoad : int32_t {
  kSampleRoadPixels = 0,
  kSampleRoadLanes = 1,
};

// Whether the lane road is built into this module.
bool sampleLanesBuilt();
// The fastest road built: the one place the road is chosen.
SampleRoad sampleRoadFor();
// samplePixelRows on `road`.
void samplePixelRowsOn(SampleRoad road, JobUnit* unit, int32_t first, int32_t end);

// Means of a column of two corners, the upper and the lower one: the c1 of
// the pixel left of that column and the c2 of the pixel right of it.
struct ColumnMeans {
  float u;
  float v;
};

// The lane road's four pixels whose lower corners are lower[0..4] and upper
// corners upper[0..4] (pixel q's own corner is lower[q + 1]): -1 when the
// group must take the pixel road; else the mask of the pixels that are one
// level-0 read, with the five column means in means[0..4] and each pixel's
// centre in us[q], vs[q].
int32_t agreeingQuadLanes(const SampleCell* lower, const SampleCell* upper, ColumnMeans means[5], float us[4],
                          float vs[4]);

// One pixel; mode 3 and count 1 are the values of this filter.
void samplePixel(float sharpness, const PixelStore* store, int32_t x, int32_t y, SampleGrid* grid, int32_t mode,
                 int32_t count, PixelSample& sample, JobUnit* unit);
// The window of sub-positions of a pixel; kind 1 is the single position (0, 0),
// whose colour comes back with alpha 1.0.
void sampleWindow(int32_t x, int32_t y, float offX, float offY, float sharpness, SampleGrid* grid,
                  const PixelStore* store, int32_t kind, int32_t count, PixelSample& sample, JobUnit* unit);
// The colour at the mean of the pixel's four landing points, with derivatives
// from the lower right corner to the lower left and to the upper right.
void sampleAtCorners(int32_t x, int32_t y, const PixelStore* store, int32_t slot, float sharpness, SampleGrid* grid,
                     PixelSample& sample, SampleCell* cellCopy, bool flag);

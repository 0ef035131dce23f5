#include "grid/pixel_sampling.h"

#include <float.h>
#include <math.h>
#include <string.h>

#include "grid/sample_grid.h"
#include "run/job_pool.h"
#include "store/footprint.h"
#include "store/portable_math.h"
#include "store/resample.h"

namespace {

// -5 in keyA marks a point with nothing under it; its pixel shows this colour.
constexpr int32_t kNoHitKey = -5;
const float kNoHitColour[4] = {1.0f, 0.0f, 1.0f, 1.0f};

inline void zeroColour(float out[4]) { out[0] = out[1] = out[2] = out[3] = 0.0f; }

// The mean of the single-position window, weighted by alpha: with its one
// sample at alpha 1.0 the colour comes back unchanged and opaque. The alpha
// read from the source is dropped here.
inline int32_t windowMean(float c[4]) {
  float alpha = 1.0f;
  float sumR = c[0] * alpha;
  float sumG = c[1] * alpha;
  float sumB = c[2] * alpha;
  float sumA = alpha;
  int32_t samples = 1;
  if (sumA == 0.0f) {
    zeroColour(c);
  } else {
    c[0] = sumR / sumA;
    c[1] = sumG / sumA;
    c[2] = sumB / sumA;
    c[3] = sumA / float(samples);
  }
  return samples;
}

inline bool sameKeys(const SampleCell* a, const SampleCell* b) {
  return a->keyA == b->keyA && a->keyB == b->keyB && a->keyC == b->keyC;
}

// (a + b) / 2 as the engine takes it: in double, rounded to float. Where the
// float sum is finite, float arithmetic gives the same bits: the sum rounds
// once either way (a double holds more than twice a float's digits plus two);
// halving is exact in the normal range; and a sum whose half falls below it
// is a multiple of the smallest float under 2^-125, which a float holds
// exactly, so the half rounds once either way too. A sum that overflows a
// float, an infinity or a NaN takes the double road.
inline float meanOfTwo(float a, float b) {
  const float sum = a + b;
  if (fabsf(sum) <= FLT_MAX) return sum * 0.5f;
  return float((double(a) + double(b)) * 0.5);
}

// The circle mean of two coordinates of period 1: across the wrap the short
// way round.
inline double circleMean(double a, double b) {
  double lo = a < b ? a : b;
  double hi = a < b ? b : a;
  if (hi - lo > 0.5) return (lo + 1.0 + hi) * 0.5;
  return (a + b) * 0.5;
}

}  // namespace

int32_t keyHash(int32_t keyA, int32_t keyB, int32_t keyC) {
  return truncToInt32(double(float(keyA * 311 + keyB * 1181)) + double(float(keyC)) * 2099.0);
}

bool cellMissed(const SampleCell& cell) { return cell.keyA == kNoHitKey; }

float averageV(float a, float b, int32_t edgeMode) {
  if (a == -1.0f) return b;
  if (b == -1.0f) return a;
  if (edgeMode != 1) return meanOfTwo(a, b);
  return float(circleMean(double(a), double(b)));
}

float averageU(float a, float b, int32_t edgeMode) {
  if (a == -1.0f) return b;
  if (b == -1.0f) return a;
  if (edgeMode == 0) return meanOfTwo(a, b);
  double m = circleMean(double(a), double(b));
  return float(m - floor(m));
}

void sampleAtCorners(int32_t x, int32_t y, const PixelStore* store, int32_t slot, float sharpness, SampleGrid* grid,
                     PixelSample& sample, SampleCell* cellCopy, bool flag) {
  (void)slot;
  SampleCell* here = cellAt(grid, x, y);
  SampleCell* left = cellAt(grid, x - 1, y);
  SampleCell* up = cellAt(grid, x, y - 1);
  SampleCell* upLeft = cellAt(grid, x - 1, y - 1);
  if (here == nullptr || left == nullptr || up == nullptr || upLeft == nullptr) {
    // Only a pixel outside its unit's rectangle gets here; it has no corners.
    zeroColour(sample.resultColour);
    return;
  }
  memcpy(cellCopy, here, size_t(kCellCopyWords) * 4);
  grid->spanA = here->spanA;
  grid->spanB = here->spanB;
  grid->state.fixedLod = false;
  grid->reuseFlag = flag ? 1 : 0;
  if (cellMissed(*cellCopy)) {
    memcpy(sample.resultColour, kNoHitColour, sizeof kNoHitColour);
    return;
  }
  int32_t edgeMode = sample.edgeMode;
  float c1 = averageV(up->landV, here->landV, edgeMode);
  float c2 = averageV(left->landV, upLeft->landV, edgeMode);
  float v = averageV(c2, c1, edgeMode);
  c1 = averageU(up->landU, here->landU, edgeMode);
  c2 = averageU(left->landU, upLeft->landU, edgeMode);
  float u = averageU(c2, c1, edgeMode);
  footprintFromCorners(left->landU, left->landV, up->landU, up->landV, here->landU, here->landV, u, v, store,
                       sample.resultColour, sharpness, &grid->state);
}

void sampleWindow(int32_t x, int32_t y, float offX, float offY, float sharpness, SampleGrid* grid,
                  const PixelStore* store, int32_t kind, int32_t count, PixelSample& sample, JobUnit* unit) {
  (void)offX;
  (void)offY;
  (void)count;
  (void)unit;
  (void)kind;  // only the single-position window of kind 1 is reached by this filter
  sample.cornerFlags = 0;
  SampleCell cellCopy;
  sampleAtCorners(x, y, store, 0, sharpness, grid, sample, &cellCopy, false);

  sample.sampleCount = windowMean(sample.resultColour);
}

void samplePixel(float sharpness, const PixelStore* store, int32_t x, int32_t y, SampleGrid* grid, int32_t mode,
                 int32_t count, PixelSample& sample, JobUnit* unit) {
  (void)mode;  // mode 3, the only one this filter takes
  sample.cornerFlags = 0;
  sample.edgeMode = 0;
  sample.sampleCount = 0;
  sample.cornerPattern = 0;
  sample.collapseCorners = 0;
  sample.edgeSpan[0] = sample.edgeSpan[1] = sample.edgeSpan[2] = sample.edgeSpan[3] = 0.0f;

  // Keys of the four corners, in the order (x, y), (x - 1, y), (x, y - 1), (x - 1, y - 1).
  const SampleCell* corners[4] = {cellAt(grid, x, y), cellAt(grid, x - 1, y), cellAt(grid, x, y - 1),
                                  cellAt(grid, x - 1, y - 1)};
  for (int32_t i = 0; i < 4; ++i) {
    const SampleCell* cell = corners[i];
    sample.keyA[i] = cell != nullptr ? cell->keyA : 0;
    sample.keyB[i] = cell != nullptr ? cell->keyB : 0;
    sample.keyC[i] = cell != nullptr ? cell->keyC : 0;
    sample.hash[i] = keyHash(sample.keyA[i], sample.keyB[i], sample.keyC[i]);
  }
  if (sample.hash[0] != sample.hash[1] || sample.hash[2] != sample.hash[3]) sample.cornerFlags |= 1;
  if (sample.hash[0] != sample.hash[2] || sample.hash[1] != sample.hash[3]) sample.cornerFlags |= 2;
  grid->state.fixedLod = sample.cornerFlags != 0;

  // The general sampler also walks the pixel's centre here and compares its
  // keys with the corners'. All cells of this filter carry the same keys, so
  // that walk could decide nothing, and it is left out.
  sampleWindow(x, y, 0.5f, 0.5f, sharpness, grid, store, kWindowKind, count, sample, unit);
}

namespace {

// The mean is symmetric in its two arguments (a NaN aside, whose pixel gets
// zero colour whichever NaN it is), so one column's means serve the pixels on
// both sides of it.
inline ColumnMeans columnMeans(const SampleCell* upper, const SampleCell* lower) {
  return ColumnMeans{averageU(upper->landU, lower->landU, 0), averageV(upper->landV, lower->landV, 0)};
}

inline bool cornersAgree(const SampleCell* here, const SampleCell* left, const SampleCell* up,
                         const SampleCell* upLeft) {
  return sameKeys(here, left) && sameKeys(here, up) && sameKeys(here, upLeft);
}

// The sampler's whole road for one pixel, its colour into its cell when it has one.
inline void sampleGeneral(SampleGrid* grid, const PixelStore* store, int32_t x, int32_t y, SampleCell* here,
                          JobUnit* unit) {
  PixelSample sample;
  samplePixel(kDefaultSharpness, store, x, y, grid, kSamplerMode, gridsPerUnit(), sample, unit);
  if (here != nullptr) memcpy(here->colour, sample.resultColour, sizeof here->colour);
}

// The level-0 reads of a row's pixels, gathered while the row is walked and
// made together: each read is a pure function of its point, so it may wait,
// and a batch of them lets the processor overlap one read with the next.
// Each colour goes into its cell when its batch is read; nothing of the row
// reads a colour back before then.
constexpr int32_t kRowReadBatch = 64;

struct RowReads {
  int32_t count;
  float u[kRowReadBatch];
  float v[kRowReadBatch];
  SampleCell* cell[kRowReadBatch];
};

void readRowBatch(const PixelStore* store, RowReads* reads) {
  float colours[kRowReadBatch][4];
  filterUnitPixelsAtLevelZero(store, reads->count, reads->u, reads->v, colours);
  for (int32_t k = 0; k < reads->count; ++k) {
    float* colour = reads->cell[k]->colour;
#if MENDARIS_SSE2_TRUNC
    // windowMean in the lanes: each colour times alpha 1.0 and divided by
    // it, the alpha 1.0 / 1.
    const __m128 one = _mm_set1_ps(1.0f);
    const __m128 mean = _mm_div_ps(_mm_mul_ps(_mm_loadu_ps(colours[k]), one), one);
    const __m128 alphaLane = _mm_castsi128_ps(_mm_set_epi32(-1, 0, 0, 0));
    _mm_storeu_ps(colour, _mm_or_ps(_mm_andnot_ps(alphaLane, mean), _mm_and_ps(alphaLane, one)));
#else
    memcpy(colour, colours[k], sizeof colours[k]);
    windowMean(colour);
#endif
  }
  reads->count = 0;
}

// The road of a pixel whose four corners are there with equal keys: their
// hashes agree, so no corner class, no fixed level, and the single-position
// window over the corners. This is samplePixel's road for such a pixel, step
// by step; `right` and `leftColumn` are the means of the pixel's right and
// left corner columns. A level-0 read joins the row's batch.
// What the sampler keeps of the pixel it takes, before anything else.
inline void enterAgreeingPixel(SampleGrid* grid, const SampleCell* here) {
  grid->spanA = here->spanA;
  grid->spanB = here->spanB;
  grid->state.fixedLod = false;
  grid->reuseFlag = 0;
}

// A level-0 read at (u, v) for `here` joins the row's batch.
inline void joinBatch(const PixelStore* store, SampleCell* here, float u, float v, RowReads* reads) {
  reads->u[reads->count] = u;
  reads->v[reads->count] = v;
  reads->cell[reads->count] = here;
  if (++reads->count == kRowReadBatch) readRowBatch(store, reads);
}

inline void sampleAgreeing(SampleGrid* grid, const PixelStore* store, SampleCell* here, const SampleCell* left,
                           const SampleCell* up, ColumnMeans right, ColumnMeans leftColumn, RowReads* reads) {
  enterAgreeingPixel(grid, here);
  float colour[4];
  if (cellMissed(*here)) {
    memcpy(colour, kNoHitColour, sizeof colour);
  } else {
    const float v = averageV(leftColumn.v, right.v, 0);
    const float u = averageU(leftColumn.u, right.u, 0);
    float derivs[4];
    int32_t missing;
    if (footprintIsLevelZeroRead(left->landU, left->landV, up->landU, up->landV, here->landU, here->landV, u, v,
                                 derivs, &missing)) {
      joinBatch(store, here, u, v, reads);
      return;
    }
    footprintSample(derivs, u, v, missing, store, colour, kDefaultSharpness, &grid->state);
  }
  windowMean(colour);
  memcpy(here->colour, colour, sizeof here->colour);
}

// One pixel from its four corner cells, any of which may be missing.
inline void sampleCorners(SampleGrid* grid, const PixelStore* store, int32_t x, int32_t y, SampleCell* here,
                          const SampleCell* left, const SampleCell* up, const SampleCell* upLeft, JobUnit* unit) {
  if (here == nullptr || left == nullptr || up == nullptr || upLeft == nullptr ||
      !cornersAgree(here, left, up, upLeft)) {
    sampleGeneral(grid, store, x, y, here, unit);
    return;
  }
  RowReads reads;
  reads.count = 0;
  sampleAgreeing(grid, store, here, left, up, columnMeans(up, here), columnMeans(upLeft, left), &reads);
  if (reads.count > 0) readRowBatch(store, &reads);
}

// Whether every cell of the two rows of corners, count cells each, holds the
// keys of the first, and that first one has something under it: then every
// pixel between the rows has agreeing corners, none of them missed.
bool rowsAgree(const SampleCell* lower, const SampleCell* upper, int32_t count) {
  if (cellMissed(*lower)) return false;
  for (int32_t k = 0; k < count; ++k) {
    if (!sameKeys(lower + k, lower) || !sameKeys(upper + k, lower)) return false;
  }
  return true;
}

// The pixels of row y, for a rectangle inside the range of the 16-bit counters.
void samplePixelRow(SampleRoad road, JobUnit* unit, int32_t y) {
  SampleGrid* grid = &unit->grids[0];
  const VRect& r = unit->cursor.unitRect;
  const PixelStore* store = grid->store;
  const int32_t width = r.right - r.left;
  if (width <= 0) return;
  // The row of lower corners and the row of upper corners, from the column
  // left of the rectangle to its last; when both ends of both rows have
  // cells, the cells between follow each other in the array.
  SampleCell* lower = cellAt(grid, r.left - 1, y);
  SampleCell* upper = cellAt(grid, r.left - 1, y - 1);
  if (lower == nullptr || upper == nullptr || cellAt(grid, r.right - 1, y) != lower + width ||
      cellAt(grid, r.right - 1, y - 1) != upper + width) {
    for (int32_t x = r.left; x < r.right; ++x) {
      sampleCorners(grid, store, x, y, cellAt(grid, x, y), cellAt(grid, x - 1, y), cellAt(grid, x, y - 1),
                    cellAt(grid, x - 1, y - 1), unit);
    }
    return;
  }
  // Left to right, the right column's means of one pixel are the left
  // column's of the next.
  bool haveLeftColumn = false;
  ColumnMeans leftColumn = {0.0f, 0.0f};
  RowReads reads;
  reads.count = 0;
  auto pixelAt = [&](int32_t k) {
    SampleCell* here = lower + k + 1;
    const SampleCell* left = lower + k;
    const SampleCell* up = upper + k + 1;
    const SampleCell* upLeft = upper + k;
    if (!cornersAgree(here, left, up, upLeft)) {
      sampleGeneral(grid, store, r.left + k, y, here, unit);
      haveLeftColumn = false;
      return;
    }
    const ColumnMeans right = columnMeans(up, here);
    if (!haveLeftColumn) leftColumn = columnMeans(upLeft, left);
    sampleAgreeing(grid, store, here, left, up, right, leftColumn, &reads);
    leftColumn = right;
    haveLeftColumn = true;
  };
  int32_t k = 0;
  if (road == kSampleRoadLanes && sampleLanesBuilt() && rowsAgree(lower, upper, width + 1)) {
    for (; k + 4 <= width; k += 4) {
      // The group's centres go straight into the batch, with room for four.
      if (reads.count > kRowReadBatch - 4) readRowBatch(store, &reads);
      const int32_t at = reads.count;
      ColumnMeans means[5];
      const int32_t levelZero = agreeingQuadLanes(lower + k, upper + k, means, reads.u + at, reads.v + at);
      if (levelZero < 0) {
        for (int32_t q = 0; q < 4; ++q) pixelAt(k + q);
        continue;
      }
      if (levelZero == 0xf) {
        // Four level-0 reads: sampleAgreeing's road for each leaves the
        // grid's words as the last one sets them.
        for (int32_t q = 0; q < 4; ++q) reads.cell[at + q] = lower + k + q + 1;
        reads.count = at + 4;
        enterAgreeingPixel(grid, lower + k + 4);
      } else {
        // Pixel by pixel, the level-0 reads moved down over the places of
        // the others.
        for (int32_t q = 0; q < 4; ++q) {
          SampleCell* here = lower + k + q + 1;
          if ((levelZero & (1 << q)) == 0) {
            sampleAgreeing(grid, store, here, lower + k + q, upper + k + q + 1, means[q + 1], means[q], &reads);
            continue;
          }
          enterAgreeingPixel(grid, here);
          joinBatch(store, here, reads.u[at + q], reads.v[at + q], &reads);
        }
      }
      leftColumn = means[4];
      haveLeftColumn = true;
    }
  }
  for (; k < width; ++k) pixelAt(k);
  if (reads.count > 0) readRowBatch(store, &reads);
}

}  // namespace

bool unitOnPlainCounters(const JobUnit* unit) {
  const VRect& r = unit->cursor.unitRect;
  return int32_t(int16_t(r.top)) == r.top && int32_t(int16_t(r.left)) == r.left && r.bottom <= 32767 &&
         r.right <= 32767;
}

SampleRoad sampleRoadFor() { return sampleLanesBuilt() ? kSampleRoadLanes : kSampleRoadPixels; }

void samplePixelRowsOn(SampleRoad road, JobUnit* unit, int32_t first, int32_t end) {
  for (int32_t y = first; y < end; ++y) samplePixelRow(road, unit, y);
}

void samplePixelRows(JobUnit* unit, int32_t first, int32_t end) { samplePixelRowsOn(sampleRoadFor(), unit, first, end); }

void samplePixels(JobUnit* unit) {
  const VRect& r = unit->cursor.unitRect;
  // Signed 16-bit counters against the full edges, as in the cell fill. A
  // rectangle whose edges lie inside that range never wraps, and runs on
  // plain counters, row by row.
  if (unitOnPlainCounters(unit)) {
    samplePixelRows(unit, r.top, r.bottom);
    return;
  }
  SampleGrid* grid = &unit->grids[0];
  const PixelStore* store = grid->store;
  for (int16_t y = int16_t(uint16_t(r.top)); int32_t(y) < r.bottom; y = int16_t(uint16_t(y + 1))) {
    for (int16_t x = int16_t(uint16_t(r.left)); int32_t(x) < r.right; x = int16_t(uint16_t(x + 1))) {
      sampleCorners(grid, store, x, y, cellAt(grid, x, y), cellAt(grid, x - 1, y), cellAt(grid, x, y - 1),
                    cellAt(grid, x - 1, y - 1), unit);
    }
  }
}

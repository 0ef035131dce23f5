// The row road of the fill: the steps on the tiles' rows, for the
// four-channel kinds. Rows are taken in another order than the pixel road's
// only where every pixel still meets exactly the values the plain order shows
// it (each step tells why). With `lanes`, kind 3's loops run in the SSE2
// lanes of fill_schedule_sse2.cpp.
#include "fill/fill_roads.h"
#include "fill/fill_rows.h"
#include "platform/platform.h"

bool unitTripKeepsValues(const PixelStore* store) {
  const float toUnit = store->valueToUnit;
  const float toValue = store->unitToValue;
  if (store->kind == kKindRgbaFloat) return true;
  if (store->kind == kKindRgba8) {
    for (int32_t v = 0; v < 256; ++v) {
      if ((uint32_t(truncToInt32(float(v) * toUnit * toValue)) & 0xffu) != uint32_t(v)) return false;
    }
    return true;
  }
  if (store->kind == kKindRgba16) {
    if (toUnit == 0x1p-15f && toValue == 32768.0f) return true;
    for (int32_t v = 0; v < 65536; ++v) {
      if ((uint32_t(truncToInt32(float(v) * toUnit * toValue)) & 0xffffu) != uint32_t(v)) return false;
    }
    return true;
  }
  return false;
}

// The thresholds on stored integer alphas. The unit alpha grows with the
// stored value, so each test splits the values at one point: the first value
// whose unit alpha is not below `limit`, and the first whose unit alpha is

int32_t firstValueNotBelow(double limit, float scale, int32_t maxValue) {
  int32_t v = 0;
  while (v <= maxValue && limit > double(float(v) * scale)) ++v;
  return v;
}

int32_t firstValueAbove(double limit, float scale, int32_t maxValue) {
  int32_t v = 0;
  while (v <= maxValue && !(double(float(v) * scale) > limit)) ++v;
  return v;
}

bool rowRoadTakes(const PixelStore* store) {
  const int32_t kind = store->kind;
  return (kind == kKindRgba8 || kind == kKindRgba16 || kind == kKindRgbaFloat) && unitTripKeepsValues(store);
}

namespace {

// ---- diffusion on rows ---------------------------------------------------------------------------

// One row's run within one tile for a half-pass: pixels first, first + 2, ...
// below count. beforeRun and afterRun are the pixels just outside the run
// (the edge pixel itself where the level ends).
template <int32_t kKind, bool kLanes>
inline void halfPassRun(uint8_t* row, const uint8_t* up, const uint8_t* down, const uint8_t* beforeRun,
                        const uint8_t* afterRun, int32_t first, int32_t count, float toUnit, float toValue) {
  constexpr int32_t kBytes = KindBytes<kKind>::kValue;
  int32_t k = first;
  if ((kKind == kKindRgba8 || kKind == kKindRgba16) && kLanes) {
    // The first four pixels one by one, for the pixel before the run; then
    // blocks of eight in the lanes.
    for (; k < count && k < 4; k += 2) {
      uint8_t* p = row + k * kBytes;
      visitPixel<kKind>(p, up + k * kBytes, k > 0 ? p - kBytes : beforeRun, k + 1 < count ? p + kBytes : afterRun,
                        down + k * kBytes, toUnit, toValue);
    }
    k = kKind == kKindRgba8 ? halfPassBlocksLanesU8(row, up, down, first & 1, count, toUnit, toValue)
                            : halfPassBlocksLanesU16(row, up, down, first & 1, count, toUnit, toValue);
  }
  for (; k < count; k += 2) {
    uint8_t* p = row + k * kBytes;
    visitPixel<kKind>(p, up + k * kBytes, k > 0 ? p - kBytes : beforeRun, k + 1 < count ? p + kBytes : afterRun,
                      down + k * kBytes, toUnit, toValue);
  }
}

// Every run of row y inside one tile: f(first pixel, count).
template <int32_t kKind, class RowFunction>
inline void forEachRunOfRow(PixelStore* store, int32_t level, int32_t y, RowFunction f) {
  constexpr int32_t kBytes = KindBytes<kKind>::kValue;
  const int32_t width = store->levelWidth[level];
  const int32_t across = store->tilesAcross[level];
  const RowRef row = rowRef(store, level, y, kBytes);
  for (int32_t t = 0; t < across; ++t) {
    const int32_t x0 = t * kTileWidth;
    const int32_t count = width - x0 < kTileWidth ? width - x0 : kTileWidth;
    if (count <= 0) break;
    f(row.tiles[t].pixels + row.offset, count);
  }
}

// Floor of one row: only the alpha of a faint pixel changes; the rest of the
// pixel comes back from unit range as it was.
template <int32_t kKind, bool kLanes>
void floorRow(PixelStore* store, int32_t level, int32_t y, uint32_t floorValue) {
  constexpr int32_t kBytes = KindBytes<kKind>::kValue;
  forEachRunOfRow<kKind>(store, level, y, [floorValue](uint8_t* run, int32_t count) {
    int32_t k = 0;
    if (kKind == kKindRgba8 && kLanes) k = floorRunLanesU8(run, count, floorValue);
    for (; k < count; ++k) {
      uint8_t* p = run + k * kBytes;
      if (kKind == kKindRgbaFloat) {
        if (kCoverFloor > double(loadFloat(p + 12))) storeFloat(p + 12, 0.0f);
      } else if (storedAlpha<kKind>(p) < floorValue) {
        setStoredAlpha<kKind>(p, 0);
      }
    }
  });
}

// Binarise one row: a covered pixel's alpha becomes full, a bare one stays 0.
template <int32_t kKind, bool kLanes>
void binariseRow(PixelStore* store, int32_t level, int32_t y, uint32_t full) {
  constexpr int32_t kBytes = KindBytes<kKind>::kValue;
  forEachRunOfRow<kKind>(store, level, y, [full](uint8_t* run, int32_t count) {
    int32_t k = 0;
    if (kKind == kKindRgba8 && kLanes) k = binariseRunLanesU8(run, count, full);
    for (; k < count; ++k) {
      uint8_t* p = run + k * kBytes;
      if (kKind == kKindRgbaFloat) {
        storeFloat(p + 12, loadFloat(p + 12) == 0.0f ? 0.0f : 1.0f);
      } else if (storedAlpha<kKind>(p) != 0) {
        setStoredAlpha<kKind>(p, full);
      }
    }
  });
}

// Row y of a half-pass of the given parity. Reads clamp at the edges, where
// the hole stands in for its missing neighbour.
template <int32_t kKind, bool kLanes>
void halfPassRow(PixelStore* store, int32_t level, int32_t y, int32_t parity) {
  constexpr int32_t kBytes = KindBytes<kKind>::kValue;
  const int32_t width = store->levelWidth[level];
  const int32_t height = store->levelHeight[level];
  const int32_t across = store->tilesAcross[level];
  const RowRef row = rowRef(store, level, y, kBytes);
  const RowRef rowUp = rowRef(store, level, y > 0 ? y - 1 : 0, kBytes);
  const RowRef rowDown = rowRef(store, level, y < height - 1 ? y + 1 : height - 1, kBytes);
  for (int32_t t = 0; t < across; ++t) {
    const int32_t x0 = t * kTileWidth;
    const int32_t count = width - x0 < kTileWidth ? width - x0 : kTileWidth;
    if (count <= 0) break;
    uint8_t* run = row.tiles[t].pixels + row.offset;
    const uint8_t* beforeRun = x0 > 0 ? pixelIn<kBytes>(row, x0 - 1) : run;
    const uint8_t* afterRun = x0 + count < width ? pixelIn<kBytes>(row, x0 + count) : run + (count - 1) * kBytes;
    // Tiles start at even columns, so the first pixel's parity is the row's.
    halfPassRun<kKind, kLanes>(run, rowUp.tiles[t].pixels + rowUp.offset, rowDown.tiles[t].pixels + rowDown.offset,
                       beforeRun, afterRun, (parity ^ y) & 1, count, store->valueToUnit, store->unitToValue);
  }
}

// The floor, the half-passes and the binarising, in one trip down the level.
//
// Half-pass h reads the other colour as half-pass h - 1 left it and writes its
// own colour; half-pass h + 1 writes that other colour again. So half-pass h
// may take row y as soon as half-pass h - 1 has done row y + 1, and must take
// it before half-pass h + 1 does row y - 1. Each half-pass runs two rows
// behind the one before it: at step T, the floor takes row T + 1, half-pass h
// row T - 2h, and the binarising the row just behind the last half-pass's
// reach. Every row of every step then sees exactly what the passes one after
// the other would show it, and the band of rows at work stays in the cache.
template <int32_t kKind, bool kLanes>
void diffuseLevelByRow(PixelStore* store, int32_t level, int32_t passes) {
  const int32_t height = store->levelHeight[level];
  const int32_t halves = 2 * passes;
  const uint32_t floorValue =
      kKind == kKindRgbaFloat ? 0u
                              : uint32_t(firstValueNotBelow(kCoverFloor, store->valueToUnit, maxStoredValue<kKind>()));
  const uint32_t full = kKind == kKindRgbaFloat ? 0u : fullStoredAlpha(store);
  const int32_t lastStep = height - 1 + 2 * halves - 1;
  for (int32_t step = -1; step <= lastStep; ++step) {
    if (step + 1 < height) floorRow<kKind, kLanes>(store, level, step + 1, floorValue);
    for (int32_t h = 0; h < halves; ++h) {
      const int32_t y = step - 2 * h;
      if (y >= 0 && y < height) halfPassRow<kKind, kLanes>(store, level, y, h & 1);
    }
    const int32_t done = step - 2 * halves + 1;
    if (done >= 0 && done < height) binariseRow<kKind, kLanes>(store, level, done, full);
  }
}

// ---- reduction on rows ---------------------------------------------------------------------------

template <int32_t kKind, bool kLanes>
void reduceColoursByRow(PixelStore* store, int32_t level, int32_t firstRow, int32_t endRow) {
  constexpr int32_t kBytes = KindBytes<kKind>::kValue;
  const int32_t target = level + 1;
  const int32_t width = store->levelWidth[target];
  const int32_t height = store->levelHeight[target];
  const int32_t maxX = store->levelMaxX[level];
  const int32_t maxY = store->levelMaxY[level];
  const float toUnit = store->valueToUnit;
  const float toValue = store->unitToValue;
  const uint32_t floorValue =
      kKind == kKindRgbaFloat ? 0u : uint32_t(firstValueNotBelow(kCoverFloor, toUnit, maxStoredValue<kKind>()));
  for (int32_t oy = firstRow; oy < endRow && oy < height; ++oy) {
    const int32_t sy = 2 * oy;
    const RowRef row0 = rowRef(store, level, sy < maxY ? sy : maxY, kBytes);
    const RowRef row1 = rowRef(store, level, sy + 1 < maxY ? sy + 1 : maxY, kBytes);
    const RowRef out = rowRef(store, target, oy, kBytes);
    if (kKind == kKindRgba8 && kLanes) {
      reduceRowLanesU8(row0, row1, out, width, maxX, toUnit, toValue, floorValue, fullStoredAlpha(store));
      continue;
    }
    if (kKind == kKindRgbaFloat && kLanes) {
      reduceRowLanesFloat(row0, row1, out, width, maxX);
      continue;
    }
    for (int32_t ox = 0; ox < width; ++ox) {
      const uint8_t* quad[4];
      blockUnder<kBytes>(row0, row1, ox, maxX, quad);
      uint8_t* dst = pixelIn<kBytes>(out, ox);
      if (kKind != kKindRgbaFloat && blockWithoutWeight<kKind>(quad, floorValue)) {
        memset(dst, 0, kBytes);
        continue;
      }
      float r = 0.0f;
      float g = 0.0f;
      float b = 0.0f;
      float a = 0.0f;
      for (const uint8_t* source : quad) {
        float q[4];
        unitPixel<kKind>(source, toUnit, q);
        if (kCoverFloor > double(q[3])) q[3] = 0.0f;
        addWeighted(q, &r, &g, &b, &a);
      }
      float pixel[4];
      weightedMean(r, g, b, a, pixel);
      storeUnitPixel<kKind>(dst, pixel, toValue);
    }
  }
}

// ---- expansion on rows ---------------------------------------------------------------------------

// Any kind, any level read: every hole calls the kernel of its kind at the
// position the pixel road would compute, taken once per column and row.
template <int32_t kKind>
void expandIntoByKernelCall(PixelStore* store, int32_t level, int32_t readLevel, float limit, int32_t firstTile,
                            int32_t endTile) {
  constexpr int32_t kBytes = KindBytes<kKind>::kValue;
  const auto [width, height, maxX, maxY, toUnit, toValue, inverseX, inverseY, scaleX, scaleY, holeValue, full] =
      expandFrame<kKind>(store, level, readLevel);
  const int32_t across = store->tilesAcross[level];
  float columnX[kTileWidth];
  for (int32_t t = firstTile; t < endTile && t < across; ++t) {
    const int32_t x0 = t * kTileWidth;
    const int32_t count = width - x0 < kTileWidth ? width - x0 : kTileWidth;
    if (count <= 0) break;
    for (int32_t k = 0; k < count; ++k) columnX[k] = positionAbove(x0 + k, inverseX, scaleX);
    for (int32_t y = 0; y < height; ++y) {
      const RowRef row = rowRef(store, level, y, kBytes);
      uint8_t* run = row.tiles[t].pixels + row.offset;
      const float rowY = positionAbove(y, inverseY, scaleY);
      for (int32_t k = 0; k < count; ++k) {
        uint8_t* p = run + k * kBytes;
        if (!isHole<kKind>(p, holeValue)) {
          setFullAlpha<kKind>(p, full);
          continue;
        }
        float c[4];
        filterPixel<kKind>(store, readLevel, columnX[k], rowY, &c[0], &c[1], &c[2], &c[3]);
        storeBroughtDown<kKind>(p, c[0], c[1], c[2], toUnit, toValue, limit);
      }
    }
  }
}

// Kind 3 on a level read of 5 by 5 pixels or more with clamped edges: there
// every 5 x 5 block the kernel reads is the clamped block, on whichever of its
// roads. The 8-bit kernel is exact integer arithmetic modulo 2^32, so its
// double sum may be taken columns first: for a row of holes, every column of
// the level above gets its sum over the row's five rows once, and each hole
// then weighs five of those column sums.

// The plain form of columnSumsLanesU8: the five-row sums of `count` columns
// of the level above, all in one tile column, into sums (four lanes a
// column, lane 0 the alpha byte). rows[r] points at the first column in row r.
inline void columnSumsU8(const uint8_t* const rows[5], const int32_t weights[5], int32_t count, int32_t* sums) {
  for (int32_t c = 0; c < count; ++c) {
    for (int32_t lane = 0; lane < 4; ++lane) {
      uint32_t s = 0;
      for (int32_t r = 0; r < 5; ++r) s += uint32_t(rows[r][4 * c + lane]) * uint32_t(weights[r]);
      sums[4 * c + lane] = int32_t(s);
    }
  }
}

// Whether the level read is one where every block the kernel reads is the
// clamped block, on whichever of its roads: expandIntoByColumnSums and
// expandIntoByRowSums take such levels.
bool columnSumsApply(const PixelStore* store, int32_t readLevel) {
  return store->edgeMode != 1 && store->edgeMode != 2 && store->levelWidth[readLevel] >= 5 &&
         store->levelHeight[readLevel] >= 5;
}

template <bool kLanes>
void expandIntoByColumnSums(PixelStore* store, int32_t level, int32_t readLevel, float limit, int32_t firstTile,
                            int32_t endTile) {
  constexpr int32_t kBytes = 4;
  const auto [width, height, maxX, maxY, toUnit, toValue, inverseX, inverseY, scaleX, scaleY, holeValue, full] =
      expandFrame<kKindRgba8>(store, level, readLevel);
  const int32_t across = store->tilesAcross[level];
  const int32_t (*taps)[kKernelPhases] = store->kernelTable.weights2048;
  // The lanes pack to bytes with saturation where the plain loop wraps: the
  // same only while every clamped colour lands on 0..255.
  const bool wordLanes = kLanes && toValue >= 0.0f && limit * toValue < 256.0f;

  // Per column of the tile column: the five columns read (counted from the
  // first column summed) and their weights, also as 16-bit pairs (every
  // weight fits 16 bits signed).
  int32_t columns[kTileWidth][5];
  uint32_t weightsX[kTileWidth][5];
  uint32_t weightPairs[kTileWidth][3];
  alignas(16) int32_t sums[4 * kColumnSumSpan];
  for (int32_t t = firstTile; t < endTile && t < across; ++t) {
    const int32_t x0 = t * kTileWidth;
    const int32_t count = width - x0 < kTileWidth ? width - x0 : kTileWidth;
    if (count <= 0) break;
    int32_t lowest = maxX;
    int32_t highest = 0;
    for (int32_t k = 0; k < count; ++k) {
      int32_t phase;
      const int32_t i = kernelBase(positionAbove(x0 + k, inverseX, scaleX), &phase);
      int32_t w[5];
      pixelOrderWeights(taps, phase, w);
      for (int32_t m = 0; m < 5; ++m) {
        const int32_t c = clampToLevel(int32_t(uint32_t(i) - 2u + uint32_t(m)), maxX);
        columns[k][m] = c;
        weightsX[k][m] = uint32_t(w[m]);
        if (c < lowest) lowest = c;
        if (c > highest) highest = c;
      }
      weightPairs[k][0] = (uint32_t(w[1]) << 16) | (uint32_t(w[0]) & 0xffffu);
      weightPairs[k][1] = (uint32_t(w[3]) << 16) | (uint32_t(w[2]) & 0xffffu);
      weightPairs[k][2] = uint32_t(w[4]) & 0xffffu;
    }
    const bool summed = highest - lowest + 1 <= kColumnSumSpan;
    for (int32_t k = 0; summed && k < count; ++k) {
      for (int32_t m = 0; m < 5; ++m) columns[k][m] -= lowest;
    }

    for (int32_t y = 0; y < height; ++y) {
      const RowRef row = rowRef(store, level, y, kBytes);
      uint8_t* run = row.tiles[t].pixels + row.offset;
      bool rowReady = false;
      for (int32_t k = 0; k < count; ++k) {
        uint8_t* p = run + k * kBytes;
        if (storedAlpha<kKindRgba8>(p) >= holeValue) {
          setStoredAlpha<kKindRgba8>(p, full);
          continue;
        }
        if (!summed) {
          // Not a reach that halving gives; the kernel call takes any.
          float c[4];
          filterPixel<kKindRgba8>(store, readLevel, positionAbove(x0 + k, inverseX, scaleX),
                                  positionAbove(y, inverseY, scaleY), &c[0], &c[1], &c[2], &c[3]);
          storeBroughtDown<kKindRgba8>(p, c[0], c[1], c[2], toUnit, toValue, limit);
          continue;
        }
        if (!rowReady) {
          // The first hole of the run: the column sums of its five rows.
          rowReady = true;
          int32_t phaseY;
          const int32_t j = kernelBase(positionAbove(y, inverseY, scaleY), &phaseY);
          int32_t weightsY[5];
          pixelOrderWeights(taps, phaseY, weightsY);
          RowRef readRows[5];
          for (int32_t r = 0; r < 5; ++r) {
            const int32_t readY = clampToLevel(int32_t(uint32_t(j) - 2u + uint32_t(r)), maxY);
            readRows[r] = rowRef(store, readLevel, readY, kBytes);
          }
          for (int32_t c = lowest; c <= highest;) {
            const int32_t tileColumn = c >> kTileShift;
            const int32_t tileEnd = (tileColumn + 1) * kTileWidth;
            const int32_t stop = highest + 1 < tileEnd ? highest + 1 : tileEnd;
            const uint8_t* rows[5];
            for (int32_t r = 0; r < 5; ++r) {
              rows[r] = readRows[r].tiles[tileColumn].pixels + readRows[r].offset + size_t(c & kTileMask) * kBytes;
            }
            if (kLanes) {
              columnSumsLanesU8(rows, weightsY, stop - c, sums + 4 * (c - lowest));
            } else {
              columnSumsU8(rows, weightsY, stop - c, sums + 4 * (c - lowest));
            }
            c = stop;
          }
          if (wordLanes) {
            // The rest of the run in the lanes: every later pixel is a hole
            // that weighs the same sums, or takes full alpha.
            bringDownRunLanesU8(p, count - k, holeValue, full, sums, highest - lowest + 1, columns + k,
                                weightPairs + k, toUnit, limit, toValue);
            break;
          }
        }
        const int32_t* col = columns[k];
        const uint32_t* w = weightsX[k];
        // Lanes 3, 2 and 1 hold red, green and blue; the alpha is not needed.
        float value[3];
        for (int32_t lane = 3; lane >= 1; --lane) {
          const uint32_t total = uint32_t(sums[4 * col[0] + lane]) * w[0] + uint32_t(sums[4 * col[1] + lane]) * w[1] +
                                 uint32_t(sums[4 * col[2] + lane]) * w[2] + uint32_t(sums[4 * col[3] + lane]) * w[3] +
                                 uint32_t(sums[4 * col[4] + lane]) * w[4];
          value[3 - lane] = float(int32_t(total)) * kScale8;
        }
        storeBroughtDown<kKindRgba8>(p, value[0], value[1], value[2], toUnit, toValue, limit);
      }
    }
  }
}

// ---- two shares --------------------------------------------------------------------------------------
//
// A step whose pixels owe nothing to the order they are written in (the
// reduce writes level + 1 from level; the way down writes a level from the
// one above) is cut into pieces, columns of tiles or rows, and a second
// thread takes the later half of them while this one does the first. Each
// pixel comes out the same whichever thread writes it, so the result does
// not depend on the processors.

struct StepShare {
  PixelStore* store;
  int32_t level;
  int32_t readLevel;
  float limit;
  bool lanes;
  bool reduce;
  int32_t begin;
  int32_t end;
  PlatformEvent done;
};

void reduceShare(const StepShare& s) {
  switch (s.store->kind) {
    case kKindRgba8:
      if (s.lanes) {
        reduceColoursByRow<kKindRgba8, true>(s.store, s.level, s.begin, s.end);
      } else {
        reduceColoursByRow<kKindRgba8, false>(s.store, s.level, s.begin, s.end);
      }
      return;
    case kKindRgba16: reduceColoursByRow<kKindRgba16, false>(s.store, s.level, s.begin, s.end); return;
    default:
      if (s.lanes) {
        reduceColoursByRow<kKindRgbaFloat, true>(s.store, s.level, s.begin, s.end);
      } else {
        reduceColoursByRow<kKindRgbaFloat, false>(s.store, s.level, s.begin, s.end);
      }
      return;
  }
}

void expandShare(const StepShare& s) {
  const bool sums = columnSumsApply(s.store, s.readLevel);
  switch (s.store->kind) {
    case kKindRgba8:
      if (!sums) {
        expandIntoByKernelCall<kKindRgba8>(s.store, s.level, s.readLevel, s.limit, s.begin, s.end);
      } else if (s.lanes) {
        expandIntoByColumnSums<true>(s.store, s.level, s.readLevel, s.limit, s.begin, s.end);
      } else {
        expandIntoByColumnSums<false>(s.store, s.level, s.readLevel, s.limit, s.begin, s.end);
      }
      return;
    case kKindRgba16:
      if (sums && s.lanes) {
        expandIntoByRowSumsLanesU16(s.store, s.level, s.readLevel, s.limit, s.begin, s.end);
      } else if (sums) {
        expandIntoByRowSums<kKindRgba16>(s.store, s.level, s.readLevel, s.limit, s.begin, s.end);
      } else {
        expandIntoByKernelCall<kKindRgba16>(s.store, s.level, s.readLevel, s.limit, s.begin, s.end);
      }
      return;
    default:
      if (sums) {
        if (s.lanes) {
          expandIntoByRowSumsLanesFloat(s.store, s.level, s.readLevel, s.limit, s.begin, s.end);
        } else {
          expandIntoByRowSums<kKindRgbaFloat>(s.store, s.level, s.readLevel, s.limit, s.begin, s.end);
        }
      } else {
        expandIntoByKernelCall<kKindRgbaFloat>(s.store, s.level, s.readLevel, s.limit, s.begin, s.end);
      }
      return;
  }
}

void runShare(const StepShare& s) {
  if (s.reduce) {
    reduceShare(s);
  } else {
    expandShare(s);
  }
}

void shareEntry(void* argument) {
  StepShare* share = static_cast<StepShare*>(argument);
  runShare(*share);
  platformSetEvent(share->done);
}

// Stack of the second thread: the way down keeps some 30 KB of tables there.
constexpr uint32_t kShareStackBytes = 256 * 1024;
// Below this many pixels a step is not worth a thread.
constexpr int64_t kSharePixels = 1 << 16;

// Runs `whole` (pieces begin..end) in two shares where that can pay, else
// here alone.
void runInShares(StepShare whole, int64_t pixels) {
  const int32_t pieces = whole.end - whole.begin;
  if (pieces >= 2 && pixels >= kSharePixels && platformProcessorCount() >= 2) {
    StepShare later = whole;
    later.begin = whole.begin + pieces / 2;
    later.done = platformCreateEvent();
    if (later.done != nullptr && platformStartThread(shareEntry, &later, kShareStackBytes)) {
      StepShare first = whole;
      first.end = later.begin;
      runShare(first);
      platformWaitEvent(later.done);
      platformCloseEvent(later.done);
      return;
    }
    if (later.done != nullptr) platformCloseEvent(later.done);
  }
  runShare(whole);
}

}  // namespace

void diffuseLevelByRows(PixelStore* store, int32_t level, int32_t passes, bool lanes) {
  switch (store->kind) {
    case kKindRgba8:
      if (lanes) {
        diffuseLevelByRow<kKindRgba8, true>(store, level, passes);
      } else {
        diffuseLevelByRow<kKindRgba8, false>(store, level, passes);
      }
      return;
    case kKindRgba16:
      if (lanes) {
        diffuseLevelByRow<kKindRgba16, true>(store, level, passes);
      } else {
        diffuseLevelByRow<kKindRgba16, false>(store, level, passes);
      }
      return;
    default: diffuseLevelByRow<kKindRgbaFloat, false>(store, level, passes); return;
  }
}

void reduceColoursByRows(PixelStore* store, int32_t level, bool lanes) {
  const int32_t rows = store->levelHeight[level + 1];
  StepShare whole = {store, level, level, 0.0f, lanes, true, 0, rows, nullptr};
  runInShares(whole, int64_t(rows) * store->levelWidth[level + 1]);
}

void expandIntoByRows(PixelStore* store, int32_t level, int32_t readLevel, float limit, bool lanes) {
  const int32_t width = store->levelWidth[level];
  // The 8-bit road and the kernel call go by tile columns, the row sums by their runs.
  const bool byRuns = store->kind != kKindRgba8 && columnSumsApply(store, readLevel);
  const int32_t pieces = byRuns ? (width + kRowSumRun - 1) / kRowSumRun : store->tilesAcross[level];
  StepShare whole = {store, level, readLevel, limit, lanes, false, 0, pieces, nullptr};
  runInShares(whole, int64_t(width) * store->levelHeight[level]);
}

// What the lane roads of the walk share: the lanes' bookkeeping (which lane
// walks which point, when a walk ends, where it lands) around a step that
// each road takes in its own vectors.
//
// Each road's file is built for its own instruction set, so everything here
// has internal linkage: every file compiles its own copy, and no copy built
// for a wider set can stand in for another file's at link time.
#pragma once

#include <emmintrin.h>
#include <string.h>

#include "grid/opaque_walk.h"

namespace {

inline int32_t lowestBit(int32_t bits) {
#if defined(__GNUC__)
  return __builtin_ctz(uint32_t(bits));
#else
  int32_t n = 0;
  while ((bits & 1) == 0) {
    bits >>= 1;
    ++n;
  }
  return n;
#endif
}

// A lane that does not take the usual case reads its field block here.
alignas(64) const float kZeroBlock[3 * kTileWidth + 4] = {};

// The first of the four rows of the 4 x 4 field pixels from (left, top) on,
// all in one tile.
inline const uint8_t* usualBlock(const WalkView& w, int32_t left, int32_t top) {
  const uint8_t* pixels = w.fieldTiles[(top >> kTileShift) * w.fieldAcross + (left >> kTileShift)].pixels;
  return pixels + size_t(((top & kTileMask) * kTileWidth + (left & kTileMask))) * 4u;
}

// The mask of the lanes in `lanes` whose pixel (xs[lane], ys[lane]) is solid,
// one lane after another: for a map that is not the usual byte store.
inline int32_t solidLanesEach(const WalkView& w, const int32_t* xs, const int32_t* ys, int32_t lanes) {
  int32_t solid = 0;
  for (; lanes != 0; lanes &= lanes - 1) {
    const int32_t lane = lowestBit(lanes);
    if (solidIn(w, xs[lane], ys[lane])) solid |= 1 << lane;
  }
  return solid;
}

// The byte map's test for the lanes in `lanes`, their tile and place in it
// found beforehand: the byte's top bit (solidByte). All kCount lanes are
// read, without a branch: every lane's tile and place must lie in the map.
template <int32_t kCount>
inline int32_t solidBytes(const WalkView& w, const int32_t* tiles, const int32_t* places, int32_t lanes) {
  int32_t solid = 0;
  for (int32_t lane = 0; lane < kCount; ++lane) {
    solid |= int32_t(w.opaqueTiles[tiles[lane]].pixels[places[lane]] >> 7) << lane;
  }
  return solid & lanes;
}

// The walks in the lanes: each lane's point, the point it stood on one step
// before, its steps so far, and the index of the point it walks.
template <int32_t kAllLanes>
struct WalkLanes {
  alignas(32) float x[kAllLanes];
  alignas(32) float y[kAllLanes];
  alignas(32) float lastX[kAllLanes];
  alignas(32) float lastY[kAllLanes];
  alignas(32) int32_t steps[kAllLanes];
  int32_t point[kAllLanes];
};

// The lanes, four at a time from `count` on, whose points a and b are the
// same bits in x and in y.
inline int32_t sameBitsLanes(const float* ax, const float* ay, const float* bx, const float* by, int32_t count) {
  int32_t same = 0;
  for (int32_t at = 0; at < count; at += 4) {
    const __m128i x = _mm_cmpeq_epi32(_mm_load_si128(reinterpret_cast<const __m128i*>(ax + at)),
                                      _mm_load_si128(reinterpret_cast<const __m128i*>(bx + at)));
    const __m128i y = _mm_cmpeq_epi32(_mm_load_si128(reinterpret_cast<const __m128i*>(ay + at)),
                                      _mm_load_si128(reinterpret_cast<const __m128i*>(by + at)));
    same |= _mm_movemask_ps(_mm_castsi128_ps(_mm_and_si128(x, y))) << at;
  }
  return same;
}

// One step in every busy lane, kGroups groups of kLanes lanes: every group's
// step up to its field reads first (`begin(w, x, y, busy, &group)`), then
// every group's rest (`end(w, group, busy, nextX, nextY)`, which gives the
// lanes that arrived), so that the groups' chains overlap. The lanes that
// arrived go into `arrived`; the lanes left to the point road (the group's
// `left`) come back as a mask.
template <int32_t kLanes, int32_t kGroups, typename Group, typename Begin, typename End>
int32_t stepGroups(const WalkView& w, const WalkLanes<kLanes * kGroups>& l, int32_t busy, float* nextX,
                   float* nextY, int32_t* arrived, Begin begin, End end) {
  constexpr int32_t kGroupBits = (1 << kLanes) - 1;
  Group g[kGroups];
  for (int32_t k = 0; k < kGroups; ++k) begin(w, l.x + k * kLanes, l.y + k * kLanes, (busy >> (k * kLanes)) & kGroupBits, &g[k]);
  int32_t left = 0;
  for (int32_t k = 0; k < kGroups; ++k) {
    const int32_t groupBusy = (busy >> (k * kLanes)) & kGroupBits;
    *arrived |= end(w, g[k], groupBusy, nextX + k * kLanes, nextY + k * kLanes) << (k * kLanes);
    left |= g[k].left << (k * kLanes);
  }
  return left;
}

// nearestOpaqueIn of every point, kLanes * kGroups walks in step, each step
// taken by stepGroups. With `fromX` and `fromY`, each walk has taken its first
// step already: from (fromX[i], fromY[i]) to (xs[i], ys[i]), which is bare.
template <int32_t kLanes, int32_t kGroups, typename Group, typename Begin, typename End>
void walkInLanes(const WalkView& w, int32_t count, const float* xs, const float* ys, float* outX, float* outY,
                 uint8_t* walked, Begin begin, End end, const float* fromX = nullptr,
                 const float* fromY = nullptr) {
  constexpr int32_t kAllLanes = kLanes * kGroups;
  constexpr int32_t kAllLaneBits = int32_t((1u << kAllLanes) - 1u);
  WalkLanes<kAllLanes> l;
  for (int32_t lane = 0; lane < kAllLanes; ++lane) {
    l.x[lane] = l.y[lane] = l.lastX[lane] = l.lastY[lane] = 0.0f;
    l.steps[lane] = 0;
  }
  int32_t busy = 0;
  int32_t next = 0;
  for (;;) {
    // Every idle lane takes the next point that walks; the others land where
    // they stand. An idle lane keeps whatever point it had, and nobody reads it.
    for (int32_t idle = ~busy & kAllLaneBits; idle != 0 && next < count; idle &= idle - 1) {
      const int32_t lane = lowestBit(idle);
      while (next < count) {
        const int32_t i = next++;
        bool answer;
        if (fromX == nullptr && landsWhereItStands(w, xs[i], ys[i], &answer)) {
          outX[i] = xs[i];
          outY[i] = ys[i];
          walked[i] = answer ? 1 : 0;
          continue;
        }
        walked[i] = 1;
        l.x[lane] = xs[i];
        l.y[lane] = ys[i];
        l.steps[lane] = 0;
        if (fromX != nullptr) {
          l.lastX[lane] = fromX[i];
          l.lastY[lane] = fromY[i];
          l.steps[lane] = 1;
        }
        l.point[lane] = i;
        busy |= 1 << lane;
        break;
      }
    }
    if (busy == 0) return;
    alignas(32) float nextX[kAllLanes];
    alignas(32) float nextY[kAllLanes];
    int32_t arrived = 0;
    const int32_t left = stepGroups<kLanes, kGroups, Group>(w, l, busy, nextX, nextY, &arrived, begin, end);
    for (int32_t lanes = left; lanes != 0; lanes &= lanes - 1) {
      const int32_t lane = lowestBit(lanes);
      if (walkStepIn(w, l.x[lane], l.y[lane], &nextX[lane], &nextY[lane], true)) arrived |= 1 << lane;
    }
    // A step is a function of the point's bits alone, so a walk that comes
    // back to a point it stood on repeats itself from there to its last
    // step: one whose step left it where it stood ends there, one that came
    // back to where it stood two steps before swings between the two.
    const int32_t still = sameBitsLanes(nextX, nextY, l.x, l.y, kAllLanes);
    const int32_t swings = sameBitsLanes(nextX, nextY, l.lastX, l.lastY, kAllLanes);
    // Every lane counts the step, four at a time; a lane that is idle or
    // has arrived counts one it did not take, and nobody reads that.
    int32_t limit = 0;
    int32_t twoOn = 0;
    int32_t odd = 0;
    for (int32_t at = 0; at < kAllLanes; at += 4) {
      __m128i* stepsAt = reinterpret_cast<__m128i*>(l.steps + at);
      const __m128i steps = _mm_add_epi32(_mm_load_si128(stepsAt), _mm_set1_epi32(1));
      _mm_store_si128(stepsAt, steps);
      limit |= _mm_movemask_ps(_mm_castsi128_ps(_mm_cmpeq_epi32(steps, _mm_set1_epi32(kWalkSteps)))) << at;
      twoOn |= _mm_movemask_ps(_mm_castsi128_ps(_mm_cmpgt_epi32(steps, _mm_set1_epi32(1)))) << at;
      // An odd number of steps to go: kWalkSteps is even.
      odd |= _mm_movemask_ps(_mm_castsi128_ps(_mm_slli_epi32(steps, 31))) << at;
    }
    static_assert(kWalkSteps % 2 == 0, "the parity of the steps to go is read off the steps taken");
    const int32_t walking = busy & ~arrived;
    const int32_t ends = walking & (limit | still);
    const int32_t swingEnds = walking & ~ends & twoOn & swings;
    const int32_t done = (arrived & busy) | ends | swingEnds;
    // A swing with an odd number of steps to go ends on its other point.
    const int32_t back = swingEnds & odd;
    memcpy(l.lastX, l.x, sizeof l.x);
    memcpy(l.lastY, l.y, sizeof l.y);
    memcpy(l.x, nextX, sizeof l.x);
    memcpy(l.y, nextY, sizeof l.y);
    for (int32_t lanes = done; lanes != 0; lanes &= lanes - 1) {
      const int32_t lane = lowestBit(lanes);
      const bool other = (back & (1 << lane)) != 0;
      outX[l.point[lane]] = other ? l.lastX[lane] : l.x[lane];
      outY[l.point[lane]] = other ? l.lastY[lane] : l.y[lane];
    }
    busy &= ~done;
  }
}

}  // namespace

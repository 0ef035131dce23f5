#include "fill/fill_schedule.h"

#include <stddef.h>
#include <string.h>

#include "store/pixel_store.h"
#include "store/portable_math.h"
#include "store/resample.h"

#if (defined(__SSE2__) || defined(_M_X64) || (defined(_M_IX86_FP) && _M_IX86_FP >= 2)) && \
    !defined(MENDARIS_SCALAR_KERNELS)
#include <emmintrin.h>
#define MENDARIS_SSE2_FILL 1
#else
#define MENDARIS_SSE2_FILL 0
#endif

// Two roads lead through every step. The row road works on the tiles' rows
// directly, for the three four-channel kinds whose integer values survive the
// trip to unit range and back unchanged: it skips what cannot change (a bare
// neighbourhood, a covered run), touches only the channels that do change,
// and takes rows in another order only where every pixel still meets exactly
// the values the plain order shows it (each step tells why). The pixel road
// goes through the accessors one pixel at a time, in the plain order, for
// every other store. Each changed value comes from the same single-precision
// operations on either road, so both leave the same bits.

namespace {

// ---- the pixel road ----------------------------------------------------------------------------

// The accessors of the store's own kind, inline, so that each level is worked
// flat for its kind: the same conversions as readUnitPixel and writeUnitPixel
// (stored value times valueToUnit in single precision; unit value times
// unitToValue, truncated; float bits as they are).
template <int32_t kKind>
inline void readPixel(int32_t x, int32_t y, const PixelStore* store, int32_t level, float out[4]) {
  if (kKind == kKindRgba8 || kKind == kKindRgba16) {
    int32_t c[4];
    if (kKind == kKindRgba8) {
      readU8x4(x, y, store, level, c);
    } else {
      readU16x4(x, y, store, level, c);
    }
    const float scale = store->valueToUnit;
    out[0] = float(c[0]) * scale;
    out[1] = float(c[1]) * scale;
    out[2] = float(c[2]) * scale;
    out[3] = float(c[3]) * scale;
  } else if (kKind == kKindRgbaFloat) {
    uint32_t w[4];
    readWord4(x, y, store, level, w);
    memcpy(out, w, sizeof w);
  } else {
    readUnitPixel(x, y, store, level, out);
  }
}

template <int32_t kKind>
inline void writePixel(int32_t x, int32_t y, PixelStore* store, int32_t level, const float rgba[4]) {
  if (kKind == kKindRgba8 || kKind == kKindRgba16) {
    const float scale = store->unitToValue;
    const int32_t c[4] = {truncToInt32(rgba[0] * scale), truncToInt32(rgba[1] * scale),
                          truncToInt32(rgba[2] * scale), truncToInt32(rgba[3] * scale)};
    if (kKind == kKindRgba8) {
      writeU8x4(x, y, store, level, c);
    } else {
      writeU16x4(x, y, store, level, c);
    }
  } else if (kKind == kKindRgbaFloat) {
    uint32_t w[4];
    memcpy(w, rgba, sizeof w);
    writeWord4(x, y, store, level, w);
  } else {
    writeUnitPixel(x, y, store, level, rgba);
  }
}

// Adds one neighbour's colour, weighted by its alpha, to the sums.
inline void addWeighted(const float q[4], float* r, float* g, float* b, float* a) {
  *r += q[0] * q[3];
  *g += q[1] * q[3];
  *b += q[2] * q[3];
  *a += q[3];
}

// The sums of addWeighted as a pixel: the alpha-weighted mean, opaque; or,
// when no term was added, black with alpha 0.
inline void weightedMean(float r, float g, float b, float a, float pixel[4]) {
  if (a > 0.0f) {
    pixel[0] = r / a;
    pixel[1] = g / a;
    pixel[2] = b / a;
    pixel[3] = 1.0f;
  } else {
    pixel[0] = r;
    pixel[1] = g;
    pixel[2] = b;
    pixel[3] = 0.0f;
  }
}

template <int32_t kKind>
void diffuseLevelByPixel(PixelStore* store, int32_t level, int32_t passes) {
  const int32_t width = store->levelWidth[level];
  const int32_t height = store->levelHeight[level];

  // Alphas too faint to count are cleared, so that such a pixel is a hole below.
  for (int32_t y = 0; y < height; ++y) {
    for (int32_t x = 0; x < width; ++x) {
      float p[4];
      readPixel<kKind>(x, y, store, level, p);
      if (kCoverFloor > double(p[3])) p[3] = 0.0f;
      writePixel<kKind>(x, y, store, level, p);
    }
  }

  // Red-black passes: the first half visits the pixels with x + y even, the
  // second those with x + y odd. A pixel sees only pixels of the other colour,
  // so a half-pass does not depend on its own order, and a hole's rim moves in
  // by at most one pixel per half-pass.
  for (int32_t pass = 0; pass < passes; ++pass) {
    for (int32_t parity = 0; parity < 2; ++parity) {
      for (int32_t y = 0; y < height; ++y) {
        for (int32_t x = (parity ^ y) & 1; x < width; x += 2) {
          float p[4];
          readPixel<kKind>(x, y, store, level, p);
          if (p[3] != 0.0f) continue;
          // Reads clamp: at an edge the hole stands in for its missing
          // neighbour and adds nothing.
          float up[4];
          float left[4];
          float right[4];
          float down[4];
          readPixel<kKind>(x, y - 1, store, level, up);
          readPixel<kKind>(x - 1, y, store, level, left);
          readPixel<kKind>(x + 1, y, store, level, right);
          readPixel<kKind>(x, y + 1, store, level, down);
          // The weight alone decides; most holes have none, and their colour
          // sums need not be formed. Each sum runs up, left, right, down.
          const float a = ((up[3] + left[3]) + right[3]) + down[3];
          if (double(a) > kNeighbourFloor) {
            float r = 0.0f;
            float g = 0.0f;
            float b = 0.0f;
            float weight = 0.0f;
            addWeighted(up, &r, &g, &b, &weight);
            addWeighted(left, &r, &g, &b, &weight);
            addWeighted(right, &r, &g, &b, &weight);
            addWeighted(down, &r, &g, &b, &weight);
            const float filled[4] = {r / a, g / a, b / a, 1.0f};
            writePixel<kKind>(x, y, store, level, filled);
          }
        }
      }
    }
  }

  // From here on a covered pixel counts as full: soft pixels keep their own
  // colour and weigh as solid colour in the levels above.
  for (int32_t y = 0; y < height; ++y) {
    for (int32_t x = 0; x < width; ++x) {
      float p[4];
      readPixel<kKind>(x, y, store, level, p);
      p[3] = p[3] == 0.0f ? 0.0f : 1.0f;
      writePixel<kKind>(x, y, store, level, p);
    }
  }
}

template <int32_t kKind>
void reduceColoursByPixel(PixelStore* store, int32_t level) {
  const int32_t target = level + 1;
  const int32_t width = store->levelWidth[target];
  const int32_t height = store->levelHeight[target];
  for (int32_t oy = 0; oy < height; ++oy) {
    for (int32_t ox = 0; ox < width; ++ox) {
      float r = 0.0f;
      float g = 0.0f;
      float b = 0.0f;
      float a = 0.0f;
      // Past the end of an odd level the clamped read repeats the edge pixel,
      // which then weighs twice.
      const int32_t sx = 2 * ox;
      const int32_t sy = 2 * oy;
      const int32_t offsets[4][2] = {{0, 0}, {1, 0}, {0, 1}, {1, 1}};
      for (const auto& offset : offsets) {
        float q[4];
        readPixel<kKind>(sx + offset[0], sy + offset[1], store, level, q);
        if (kCoverFloor > double(q[3])) q[3] = 0.0f;
        addWeighted(q, &r, &g, &b, &a);
      }
      float pixel[4];
      weightedMean(r, g, b, a, pixel);
      writePixel<kKind>(ox, oy, store, target, pixel);
    }
  }
}

// Clamps a colour brought down from the level above: the kernel's negative
// lobes and overshoot end here.
inline float clampColour(float c, float limit) {
  if (0.0f > c) return 0.0f;
  if (c > limit) return limit;
  return c;
}

template <int32_t kKind>
void expandIntoByPixel(PixelStore* store, int32_t level, float limit) {
  const int32_t width = store->levelWidth[level];
  const int32_t height = store->levelHeight[level];
  for (int32_t y = 0; y < height; ++y) {
    for (int32_t x = 0; x < width; ++x) {
      float p[4];
      readPixel<kKind>(x, y, store, level, p);
      if (!(double(p[3]) > kHoleAlpha)) {
        // Pixel x of this level reads the level above at x / 2, a quarter
        // pixel off its geometric centre; that offset belongs to the picture.
        // Below the top the kernel reads level + 1; for the level just under
        // the top it is held to the level itself, which by then is closed.
        const float fx = float(x) * 0.5f;
        const float fy = float(y) * 0.5f;
        filterUnitPixelAt(store, level + 1, 0.0f, fx, fy, p);
        for (int32_t c = 0; c < 3; ++c) p[c] = clampColour(p[c], limit);
      }
      p[3] = 1.0f;
      writePixel<kKind>(x, y, store, level, p);
    }
  }
}

// ---- the row road: pixels in the tiles ---------------------------------------------------------


inline uint32_t load16(const uint8_t* p) {
  uint16_t v;
  memcpy(&v, p, sizeof v);
  return v;
}

inline void store16(uint8_t* p, uint32_t v) {
  const uint16_t h = uint16_t(v);
  memcpy(p, &h, sizeof h);
}


// The alpha's bits, zero exactly when the unit alpha is 0.0 (integer kinds: a
// stored 0; floats: either zero).
template <int32_t kKind>
inline uint32_t alphaBits(const uint8_t* p) {
  if (kKind == kKindRgba8) return loadWord(p) & 0xffu;
  if (kKind == kKindRgba16) return load16(p + 6);
  return loadWord(p + 12) & 0x7fffffffu;
}

// The stored alpha of an integer kind.
template <int32_t kKind>
inline uint32_t storedAlpha(const uint8_t* p) {
  return kKind == kKindRgba8 ? (loadWord(p) & 0xffu) : load16(p + 6);
}

template <int32_t kKind>
inline void setStoredAlpha(uint8_t* p, uint32_t alpha) {
  if (kKind == kKindRgba8) {
    storeWord(p, (loadWord(p) & 0xffffff00u) | (alpha & 0xffu));
  } else {
    store16(p + 6, alpha);
  }
}

// readUnitPixel of the kind, from the pixel's address.
template <int32_t kKind>
inline void unitPixel(const uint8_t* p, float scale, float out[4]) {
  if (kKind == kKindRgba8) {
    const uint32_t w = loadWord(p);
    out[0] = float(int32_t(w >> 24)) * scale;
    out[1] = float(int32_t((w >> 16) & 0xffu)) * scale;
    out[2] = float(int32_t((w >> 8) & 0xffu)) * scale;
    out[3] = float(int32_t(w & 0xffu)) * scale;
  } else if (kKind == kKindRgba16) {
    out[0] = float(int32_t(load16(p))) * scale;
    out[1] = float(int32_t(load16(p + 2))) * scale;
    out[2] = float(int32_t(load16(p + 4))) * scale;
    out[3] = float(int32_t(load16(p + 6))) * scale;
  } else {
    memcpy(out, p, 16);
  }
}

// writeUnitPixel of the kind, to the pixel's address.
template <int32_t kKind>
inline void storeUnitPixel(uint8_t* p, const float rgba[4], float scale) {
  if (kKind == kKindRgba8) {
    const int32_t c[4] = {truncToInt32(rgba[0] * scale), truncToInt32(rgba[1] * scale),
                          truncToInt32(rgba[2] * scale), truncToInt32(rgba[3] * scale)};
    storeWord(p, packU8x4(c));
  } else if (kKind == kKindRgba16) {
    store16(p, uint32_t(truncToInt32(rgba[0] * scale)));
    store16(p + 2, uint32_t(truncToInt32(rgba[1] * scale)));
    store16(p + 4, uint32_t(truncToInt32(rgba[2] * scale)));
    store16(p + 6, uint32_t(truncToInt32(rgba[3] * scale)));
  } else {
    memcpy(p, rgba, 16);
  }
}

// The row road rewrites only the channels that change, which is right only
// when every stored value comes back from unit range as it was: (v * scale)
// * inverse, truncated, gives v. It does for the kinds' own scales (1/255 and
// 255 for all 256 bytes; powers of two for 16 bits); a store with other
// scales takes the pixel road.
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
// above it.
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

template <int32_t kKind>
constexpr int32_t maxStoredValue() {
  return kKind == kKindRgba8 ? 255 : 65535;
}

// The stored alpha that 1.0 becomes.
inline uint32_t fullStoredAlpha(const PixelStore* store) { return uint32_t(truncToInt32(1.0f * store->unitToValue)); }

// ---- diffusion on rows ---------------------------------------------------------------------------

// One hole of a half-pass with its four neighbours; the sums as the pixel
// road forms them.
template <int32_t kKind>
inline void fillHole(uint8_t* p, const uint8_t* up, const uint8_t* left, const uint8_t* right, const uint8_t* down,
                     float toUnit, float toValue) {
  float qu[4];
  float ql[4];
  float qr[4];
  float qd[4];
  unitPixel<kKind>(up, toUnit, qu);
  unitPixel<kKind>(left, toUnit, ql);
  unitPixel<kKind>(right, toUnit, qr);
  unitPixel<kKind>(down, toUnit, qd);
  const float a = ((qu[3] + ql[3]) + qr[3]) + qd[3];
  if (!(double(a) > kNeighbourFloor)) return;
  float r = 0.0f;
  float g = 0.0f;
  float b = 0.0f;
  float weight = 0.0f;
  addWeighted(qu, &r, &g, &b, &weight);
  addWeighted(ql, &r, &g, &b, &weight);
  addWeighted(qr, &r, &g, &b, &weight);
  addWeighted(qd, &r, &g, &b, &weight);
  const float filled[4] = {r / a, g / a, b / a, 1.0f};
  storeUnitPixel<kKind>(p, filled, toValue);
}

// A hole whose four neighbours all have alpha 0 has nothing to take (their
// sum is 0, not above the floor); a covered pixel is no hole.
template <int32_t kKind>
inline void visitPixel(uint8_t* p, const uint8_t* up, const uint8_t* left, const uint8_t* right,
                       const uint8_t* down, float toUnit, float toValue) {
  if (alphaBits<kKind>(p) != 0) return;
  if ((alphaBits<kKind>(up) | alphaBits<kKind>(left) | alphaBits<kKind>(right) | alphaBits<kKind>(down)) == 0) {
    return;
  }
  fillHole<kKind>(p, up, left, right, down, toUnit, toValue);
}

#if MENDARIS_SSE2_FILL
// Kind 3: of the four pixels from p on, the ones that are holes with some
// alpha around them, as four bits. p must have a pixel of its row before it
// and four after it.
inline int32_t openHolesU8(const uint8_t* p, const uint8_t* up, const uint8_t* down) {
  const __m128i alphaMask = _mm_set1_epi32(0xff);
  const __m128i zero = _mm_setzero_si128();
  const __m128i own = _mm_and_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), alphaMask);
  __m128i around = _mm_or_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(up)),
                                _mm_loadu_si128(reinterpret_cast<const __m128i*>(down)));
  around = _mm_or_si128(around, _mm_loadu_si128(reinterpret_cast<const __m128i*>(p - 4)));
  around = _mm_or_si128(around, _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 4)));
  const __m128i bare = _mm_cmpeq_epi32(_mm_and_si128(around, alphaMask), zero);
  return _mm_movemask_ps(_mm_castsi128_ps(_mm_andnot_si128(bare, _mm_cmpeq_epi32(own, zero))));
}
#endif

// One row's run within one tile for a half-pass: pixels first, first + 2, ...
// below count. beforeRun and afterRun are the pixels just outside the run
// (the edge pixel itself where the level ends).
template <int32_t kKind>
inline void halfPassRun(uint8_t* row, const uint8_t* up, const uint8_t* down, const uint8_t* beforeRun,
                        const uint8_t* afterRun, int32_t first, int32_t count, float toUnit, float toValue) {
  constexpr int32_t kBytes = KindBytes<kKind>::kValue;
  int32_t k = first;
#if MENDARIS_SSE2_FILL
  if (kKind == kKindRgba8) {
    // The first four pixels one by one, for the pixel before the run.
    for (; k < count && k < 4; k += 2) {
      uint8_t* p = row + k * kBytes;
      visitPixel<kKind>(p, up + k * kBytes, k > 0 ? p - kBytes : beforeRun, k + 1 < count ? p + kBytes : afterRun,
                        down + k * kBytes, toUnit, toValue);
    }
    // Blocks of eight: the holes that a neighbour's alpha could fill, of the
    // half-pass's colour, are found together; the others are passed over.
    // Filling one changes no neighbour of another of its colour.
    const int32_t phase = first & 1;
    const int32_t colour = phase == 0 ? 0x55 : 0xaa;
    int32_t block = 4;
    for (; block + 8 < count; block += 8) {
      uint8_t* b = row + block * kBytes;
      const uint8_t* blockUp = up + block * kBytes;
      const uint8_t* blockDown = down + block * kBytes;
      const int32_t open =
          (openHolesU8(b, blockUp, blockDown) | (openHolesU8(b + 16, blockUp + 16, blockDown + 16) << 4)) & colour;
      if (open == 0) continue;
      for (int32_t i = phase; i < 8; i += 2) {
        if ((open & (1 << i)) == 0) continue;
        uint8_t* p = b + i * kBytes;
        fillHole<kKind>(p, blockUp + i * kBytes, p - kBytes, p + kBytes, blockDown + i * kBytes, toUnit, toValue);
      }
    }
    k = block + phase;
  }
#endif
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
template <int32_t kKind>
void floorRow(PixelStore* store, int32_t level, int32_t y, uint32_t floorValue) {
  constexpr int32_t kBytes = KindBytes<kKind>::kValue;
  forEachRunOfRow<kKind>(store, level, y, [floorValue](uint8_t* run, int32_t count) {
    int32_t k = 0;
#if MENDARIS_SSE2_FILL
    if (kKind == kKindRgba8) {
      const __m128i alphaMask = _mm_set1_epi32(0xff);
      const __m128i limit = _mm_set1_epi32(int(floorValue));
      for (; k + 4 <= count; k += 4) {
        __m128i* p = reinterpret_cast<__m128i*>(run + k * kBytes);
        const __m128i w = _mm_loadu_si128(p);
        const __m128i faint = _mm_cmplt_epi32(_mm_and_si128(w, alphaMask), limit);
        _mm_storeu_si128(p, _mm_andnot_si128(_mm_and_si128(faint, alphaMask), w));
      }
    }
#endif
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
template <int32_t kKind>
void binariseRow(PixelStore* store, int32_t level, int32_t y, uint32_t full) {
  constexpr int32_t kBytes = KindBytes<kKind>::kValue;
  forEachRunOfRow<kKind>(store, level, y, [full](uint8_t* run, int32_t count) {
    int32_t k = 0;
#if MENDARIS_SSE2_FILL
    if (kKind == kKindRgba8) {
      const __m128i alphaMask = _mm_set1_epi32(0xff);
      const __m128i fullAlpha = _mm_set1_epi32(int(full & 0xffu));
      for (; k + 4 <= count; k += 4) {
        __m128i* p = reinterpret_cast<__m128i*>(run + k * kBytes);
        const __m128i w = _mm_loadu_si128(p);
        const __m128i bare = _mm_cmpeq_epi32(_mm_and_si128(w, alphaMask), _mm_setzero_si128());
        const __m128i alpha = _mm_andnot_si128(bare, fullAlpha);
        _mm_storeu_si128(p, _mm_or_si128(_mm_andnot_si128(alphaMask, w), alpha));
      }
    }
#endif
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
template <int32_t kKind>
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
    halfPassRun<kKind>(run, rowUp.tiles[t].pixels + rowUp.offset, rowDown.tiles[t].pixels + rowDown.offset,
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
template <int32_t kKind>
void diffuseLevelByRow(PixelStore* store, int32_t level, int32_t passes) {
  const int32_t height = store->levelHeight[level];
  const int32_t halves = 2 * passes;
  const uint32_t floorValue =
      kKind == kKindRgbaFloat ? 0u
                              : uint32_t(firstValueNotBelow(kCoverFloor, store->valueToUnit, maxStoredValue<kKind>()));
  const uint32_t full = kKind == kKindRgbaFloat ? 0u : fullStoredAlpha(store);
  const int32_t lastStep = height - 1 + 2 * halves - 1;
  for (int32_t step = -1; step <= lastStep; ++step) {
    if (step + 1 < height) floorRow<kKind>(store, level, step + 1, floorValue);
    for (int32_t h = 0; h < halves; ++h) {
      const int32_t y = step - 2 * h;
      if (y >= 0 && y < height) halfPassRow<kKind>(store, level, y, h & 1);
    }
    const int32_t done = step - 2 * halves + 1;
    if (done >= 0 && done < height) binariseRow<kKind>(store, level, done, full);
  }
}

// ---- reduction on rows ---------------------------------------------------------------------------

#if MENDARIS_SSE2_FILL
// Kind 3: one pixel of the level above from its four, the channels in lanes
// (lane 0 the alpha, 3 the red, as the word's bytes lie), each lane doing the
// scalar road's operations in its order. The floored alpha is every lane's
// weight; the weight sum comes out in all four lanes.
inline uint32_t reduceQuadU8(const uint8_t* const quad[4], __m128 toUnit, __m128 toValue, __m128i floorValue,
                             uint32_t full) {
  const __m128i zero = _mm_setzero_si128();
  __m128 sum = _mm_setzero_ps();
  __m128 weight = _mm_setzero_ps();
  for (int32_t q = 0; q < 4; ++q) {
    const __m128i c =
        _mm_unpacklo_epi16(_mm_unpacklo_epi8(_mm_cvtsi32_si128(int(loadWord(quad[q]))), zero), zero);
    const __m128 unit = _mm_mul_ps(_mm_cvtepi32_ps(c), toUnit);
    const __m128 faint = _mm_castsi128_ps(_mm_cmplt_epi32(_mm_shuffle_epi32(c, 0), floorValue));
    const __m128 w = _mm_andnot_ps(faint, _mm_shuffle_ps(unit, unit, 0));
    sum = _mm_add_ps(sum, _mm_mul_ps(unit, w));
    weight = _mm_add_ps(weight, w);
  }
  const __m128 positive = _mm_cmpgt_ps(weight, _mm_setzero_ps());
  const __m128 value = _mm_or_ps(_mm_and_ps(positive, _mm_div_ps(sum, weight)), _mm_andnot_ps(positive, sum));
  // Truncated, and only the low 8 bits kept, as the word takes them.
  const __m128i bytes = _mm_and_si128(_mm_cvttps_epi32(_mm_mul_ps(value, toValue)), _mm_set1_epi32(0xff));
  const __m128i packed = _mm_packus_epi16(_mm_packs_epi32(bytes, bytes), bytes);
  const uint32_t alpha = _mm_movemask_ps(positive) != 0 ? (full & 0xffu) : 0u;
  return (uint32_t(_mm_cvtsi128_si32(packed)) & 0xffffff00u) | alpha;
}
#endif

template <int32_t kKind>
void reduceColoursByRow(PixelStore* store, int32_t level) {
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
#if MENDARIS_SSE2_FILL
  const __m128 toUnitLanes = _mm_set1_ps(toUnit);
  const __m128 toValueLanes = _mm_set1_ps(toValue);
  const __m128i floorLanes = _mm_set1_epi32(int(floorValue));
  const uint32_t full = uint32_t(truncToInt32(1.0f * toValue));
#endif
  for (int32_t oy = 0; oy < height; ++oy) {
    // Past the end of an odd level the clamped read repeats the edge pixel,
    // which then weighs twice.
    const int32_t sy = 2 * oy;
    const RowRef row0 = rowRef(store, level, sy < maxY ? sy : maxY, kBytes);
    const RowRef row1 = rowRef(store, level, sy + 1 < maxY ? sy + 1 : maxY, kBytes);
    const RowRef out = rowRef(store, target, oy, kBytes);
    for (int32_t ox = 0; ox < width; ++ox) {
      const int32_t sx = 2 * ox;
      const int32_t x0 = sx < maxX ? sx : maxX;
      const int32_t x1 = sx + 1 < maxX ? sx + 1 : maxX;
      const uint8_t* quad[4] = {pixelIn<kBytes>(row0, x0), pixelIn<kBytes>(row0, x1), pixelIn<kBytes>(row1, x0),
                                pixelIn<kBytes>(row1, x1)};
      uint8_t* dst = pixelIn<kBytes>(out, ox);
      if (kKind != kKindRgbaFloat && storedAlpha<kKind>(quad[0]) < floorValue &&
          storedAlpha<kKind>(quad[1]) < floorValue && storedAlpha<kKind>(quad[2]) < floorValue &&
          storedAlpha<kKind>(quad[3]) < floorValue) {
        // No weight at all: every sum stays 0, which is stored as 0.
        memset(dst, 0, kBytes);
        continue;
      }
#if MENDARIS_SSE2_FILL
      if (kKind == kKindRgba8) {
        storeWord(dst, reduceQuadU8(quad, toUnitLanes, toValueLanes, floorLanes, full));
        continue;
      }
#endif
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

// Base pixel and phase of one axis of the five-tap kernel, as the kernel
// finds them: p = coord + 0.5 in double, rounded to float; the base pixel is
// trunc(p) and the phase the first 7 bits of the fraction.
inline int32_t kernelBase(float coord, int32_t* phase) {
  const float p = float(double(coord) + 0.5);
  const int32_t i = truncToInt32(p);
  *phase = truncToInt32(double(p - float(i)) * 128.0);
  return i;
}

// Where pixel x of a level reads the level above, in pixels of that level:
// x / 2 to unit coordinates through the inverse size of level + 1, and on
// through the scale of the level read, exactly as filterUnitPixelAt goes.
inline float positionAbove(int32_t x, float inverseSize, float scale) {
  const float f = float(x) * 0.5f;
  const float u = (f + 0.5f) * inverseSize;
  return scale * u - 0.5f;
}

template <int32_t kKind>
inline bool isHole(const uint8_t* p, uint32_t holeValue) {
  if (kKind == kKindRgbaFloat) return !(double(loadFloat(p + 12)) > kHoleAlpha);
  return storedAlpha<kKind>(p) < holeValue;
}

// A pixel that is no hole keeps its colour and takes full alpha.
template <int32_t kKind>
inline void setFullAlpha(uint8_t* p, uint32_t full) {
  if (kKind == kKindRgbaFloat) {
    storeFloat(p + 12, 1.0f);
  } else {
    setStoredAlpha<kKind>(p, full);
  }
}

// A hole's colour from the kernel's output in stored units: to unit range,
// clamped, alpha 1.0, stored.
template <int32_t kKind>
inline void storeBroughtDown(uint8_t* p, float red, float green, float blue, float toUnit, float toValue,
                             float limit) {
  float c[4];
  c[0] = clampColour(red * toUnit, limit);
  c[1] = clampColour(green * toUnit, limit);
  c[2] = clampColour(blue * toUnit, limit);
  c[3] = 1.0f;
  storeUnitPixel<kKind>(p, c, toValue);
}

// Any kind, any level read: every hole calls the kernel of its kind at the
// position the pixel road would compute, taken once per column and row.
template <int32_t kKind>
void expandIntoByKernelCall(PixelStore* store, int32_t level, int32_t readLevel, float limit) {
  constexpr int32_t kBytes = KindBytes<kKind>::kValue;
  const int32_t width = store->levelWidth[level];
  const int32_t height = store->levelHeight[level];
  const int32_t across = store->tilesAcross[level];
  const float toUnit = store->valueToUnit;
  const float toValue = store->unitToValue;
  const float inverseX = store->invInnerWidth[level + 1];
  const float inverseY = store->invInnerHeight[level + 1];
  const float scaleX = store->levelScaleX[readLevel];
  const float scaleY = store->levelScaleY[readLevel];
  const uint32_t holeValue =
      kKind == kKindRgbaFloat ? 0u : uint32_t(firstValueAbove(kHoleAlpha, toUnit, maxStoredValue<kKind>()));
  const uint32_t full = kKind == kKindRgbaFloat ? 0u : fullStoredAlpha(store);
  float columnX[kTileWidth];
  for (int32_t t = 0; t < across; ++t) {
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

// The 8-bit kernel's total scale, weights times 2048 twice.
const float kScale8 = 0x1p-22f;

// Column sums can need a few columns either side of the half-width a tile
// column of the level reads; a run whose reach is wider takes the kernel call.
constexpr int32_t kColumnSumSpan = kTileWidth / 2 + 16;

// The five-row sums of `count` columns of the level above, all in one tile
// column, into sums (four lanes a column, lane 0 the alpha byte). rows[r]
// points at the first column in row r.
inline void columnSumsU8(const uint8_t* const rows[5], const int32_t weights[5], int32_t count, int32_t* sums) {
#if MENDARIS_SSE2_FILL
  // Every weight fits 16 bits signed and every byte is below 256: pmaddwd
  // forms the pairs exactly, and the sums stay far inside 32 bits.
  const __m128i zero = _mm_setzero_si128();
  const __m128i w01 = _mm_set1_epi32(int((uint32_t(weights[1]) << 16) | (uint32_t(weights[0]) & 0xffffu)));
  const __m128i w23 = _mm_set1_epi32(int((uint32_t(weights[3]) << 16) | (uint32_t(weights[2]) & 0xffffu)));
  const __m128i w4 = _mm_set1_epi32(int(uint32_t(weights[4]) & 0xffffu));
  int32_t c = 0;
  for (; c + 2 <= count; c += 2) {
    const __m128i r0 = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(rows[0] + 4 * c));
    const __m128i r1 = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(rows[1] + 4 * c));
    const __m128i r2 = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(rows[2] + 4 * c));
    const __m128i r3 = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(rows[3] + 4 * c));
    const __m128i r4 = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(rows[4] + 4 * c));
    const __m128i p01 = _mm_unpacklo_epi8(r0, r1);
    const __m128i p23 = _mm_unpacklo_epi8(r2, r3);
    const __m128i p4 = _mm_unpacklo_epi8(r4, zero);
    __m128i first = _mm_madd_epi16(_mm_unpacklo_epi8(p01, zero), w01);
    first = _mm_add_epi32(first, _mm_madd_epi16(_mm_unpacklo_epi8(p23, zero), w23));
    first = _mm_add_epi32(first, _mm_madd_epi16(_mm_unpacklo_epi8(p4, zero), w4));
    __m128i second = _mm_madd_epi16(_mm_unpackhi_epi8(p01, zero), w01);
    second = _mm_add_epi32(second, _mm_madd_epi16(_mm_unpackhi_epi8(p23, zero), w23));
    second = _mm_add_epi32(second, _mm_madd_epi16(_mm_unpackhi_epi8(p4, zero), w4));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(sums + 4 * c), first);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(sums + 4 * c + 4), second);
  }
  if (c < count) {
    const __m128i r0 = _mm_cvtsi32_si128(int(loadWord(rows[0] + 4 * c)));
    const __m128i r1 = _mm_cvtsi32_si128(int(loadWord(rows[1] + 4 * c)));
    const __m128i r2 = _mm_cvtsi32_si128(int(loadWord(rows[2] + 4 * c)));
    const __m128i r3 = _mm_cvtsi32_si128(int(loadWord(rows[3] + 4 * c)));
    const __m128i r4 = _mm_cvtsi32_si128(int(loadWord(rows[4] + 4 * c)));
    __m128i s = _mm_madd_epi16(_mm_unpacklo_epi8(_mm_unpacklo_epi8(r0, r1), zero), w01);
    s = _mm_add_epi32(s, _mm_madd_epi16(_mm_unpacklo_epi8(_mm_unpacklo_epi8(r2, r3), zero), w23));
    s = _mm_add_epi32(s, _mm_madd_epi16(_mm_unpacklo_epi8(_mm_unpacklo_epi8(r4, zero), zero), w4));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(sums + 4 * c), s);
  }
#else
  for (int32_t c = 0; c < count; ++c) {
    for (int32_t lane = 0; lane < 4; ++lane) {
      uint32_t s = 0;
      for (int32_t r = 0; r < 5; ++r) s += uint32_t(rows[r][4 * c + lane]) * uint32_t(weights[r]);
      sums[4 * c + lane] = int32_t(s);
    }
  }
#endif
}

#if MENDARIS_SSE2_FILL
// The column sums split for pmaddwd: s = high * 2^15 + low, low the 15 bits
// below (0..32767), high the rest taken arithmetically; both fit 16 bits
// signed, as four 16-bit lanes a column.
inline void splitColumnSums(const int32_t* sums, int32_t count, int16_t* low, int16_t* high) {
  const __m128i mask = _mm_set1_epi32(0x7fff);
  int32_t c = 0;
  for (; c + 2 <= count; c += 2) {
    const __m128i first = _mm_load_si128(reinterpret_cast<const __m128i*>(sums + 4 * c));
    const __m128i second = _mm_load_si128(reinterpret_cast<const __m128i*>(sums + 4 * c + 4));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(low + 4 * c),
                     _mm_packs_epi32(_mm_and_si128(first, mask), _mm_and_si128(second, mask)));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(high + 4 * c),
                     _mm_packs_epi32(_mm_srai_epi32(first, 15), _mm_srai_epi32(second, 15)));
  }
  if (c < count) {
    const __m128i first = _mm_load_si128(reinterpret_cast<const __m128i*>(sums + 4 * c));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(low + 4 * c), _mm_packs_epi32(_mm_and_si128(first, mask), first));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(high + 4 * c), _mm_packs_epi32(_mm_srai_epi32(first, 15), first));
  }
}

// Σ w[m] * s[col[m]] over the five columns, four lanes, modulo 2^32 as the
// kernel has it: each half through pmaddwd in pairs of columns, exactly, and
// the high half's total moved up 15 bits. pairs holds (w0, w1), (w2, w3) and
// (w4, 0) as 16-bit pairs.
inline __m128i weighColumns(const int16_t* low, const int16_t* high, const int32_t col[5], const uint32_t pairs[3]) {
  const __m128i w01 = _mm_set1_epi32(int(pairs[0]));
  const __m128i w23 = _mm_set1_epi32(int(pairs[1]));
  const __m128i w4 = _mm_set1_epi32(int(pairs[2]));
  const auto at = [](const int16_t* half, int32_t c) {
    return _mm_loadl_epi64(reinterpret_cast<const __m128i*>(half + 4 * c));
  };
  __m128i lowSum = _mm_madd_epi16(_mm_unpacklo_epi16(at(low, col[0]), at(low, col[1])), w01);
  lowSum = _mm_add_epi32(lowSum, _mm_madd_epi16(_mm_unpacklo_epi16(at(low, col[2]), at(low, col[3])), w23));
  lowSum = _mm_add_epi32(lowSum, _mm_madd_epi16(_mm_unpacklo_epi16(at(low, col[4]), _mm_setzero_si128()), w4));
  __m128i highSum = _mm_madd_epi16(_mm_unpacklo_epi16(at(high, col[0]), at(high, col[1])), w01);
  highSum = _mm_add_epi32(highSum, _mm_madd_epi16(_mm_unpacklo_epi16(at(high, col[2]), at(high, col[3])), w23));
  highSum = _mm_add_epi32(highSum, _mm_madd_epi16(_mm_unpacklo_epi16(at(high, col[4]), _mm_setzero_si128()), w4));
  return _mm_add_epi32(_mm_slli_epi32(highSum, 15), lowSum);
}

// The kernel's totals to the hole's word: each lane to float, scaled to unit
// range, clamped, back to the byte (truncated), alpha full. The lanes do the
// scalar road's operations; a clamped zero may come out as +0 where the
// scalar keeps -0, which truncates to the same byte.
inline uint32_t broughtDownWord(__m128i totals, __m128 toUnit, __m128 limit, __m128 toValue, uint32_t full) {
  __m128 c = _mm_mul_ps(_mm_mul_ps(_mm_cvtepi32_ps(totals), _mm_set1_ps(kScale8)), toUnit);
  c = _mm_min_ps(_mm_max_ps(c, _mm_setzero_ps()), limit);
  const __m128i bytes = _mm_cvttps_epi32(_mm_mul_ps(c, toValue));
  const __m128i packed = _mm_packus_epi16(_mm_packs_epi32(bytes, bytes), bytes);
  return (uint32_t(_mm_cvtsi128_si32(packed)) & 0xffffff00u) | (full & 0xffu);
}
#endif

// The weights of one axis in pixel order: pixel i - 2 takes tap 4, pixel
// i + 2 tap 0.
inline void pixelOrderWeights(const int32_t (*taps)[kKernelPhases], int32_t phase, int32_t w[5]) {
  w[0] = taps[4][phase];
  w[1] = taps[3][phase];
  w[2] = taps[2][phase];
  w[3] = taps[1][phase];
  w[4] = taps[0][phase];
}

// Whether the level read is one where every block the kernel reads is the
// clamped block, on whichever of its roads: expandIntoByColumnSums and
// expandIntoByRowSums take such levels.
bool columnSumsApply(const PixelStore* store, int32_t readLevel) {
  return store->edgeMode != 1 && store->edgeMode != 2 && store->levelWidth[readLevel] >= 5 &&
         store->levelHeight[readLevel] >= 5;
}

void expandIntoByColumnSums(PixelStore* store, int32_t level, int32_t readLevel, float limit) {
  constexpr int32_t kBytes = 4;
  const int32_t width = store->levelWidth[level];
  const int32_t height = store->levelHeight[level];
  const int32_t across = store->tilesAcross[level];
  const int32_t maxX = store->levelMaxX[readLevel];
  const int32_t maxY = store->levelMaxY[readLevel];
  const float toUnit = store->valueToUnit;
  const float toValue = store->unitToValue;
  const float inverseX = store->invInnerWidth[level + 1];
  const float inverseY = store->invInnerHeight[level + 1];
  const float scaleX = store->levelScaleX[readLevel];
  const float scaleY = store->levelScaleY[readLevel];
  const int32_t (*taps)[kKernelPhases] = store->kernelTable.weights2048;
  const uint32_t holeValue = uint32_t(firstValueAbove(kHoleAlpha, toUnit, 255));
  const uint32_t full = fullStoredAlpha(store);

  // Per column of the tile column: the five columns read (counted from the
  // first column summed) and their weights.
  int32_t columns[kTileWidth][5];
  uint32_t weightsX[kTileWidth][5];
  alignas(16) int32_t sums[4 * kColumnSumSpan];
#if MENDARIS_SSE2_FILL
  uint32_t weightPairs[kTileWidth][3];
  alignas(16) int16_t lowHalves[4 * kColumnSumSpan];
  alignas(16) int16_t highHalves[4 * kColumnSumSpan];
  const __m128 toUnitLanes = _mm_set1_ps(toUnit);
  const __m128 limitLanes = _mm_set1_ps(limit);
  const __m128 toValueLanes = _mm_set1_ps(toValue);
  // The lanes pack to bytes with saturation where the scalar road wraps:
  // the same only while every clamped colour lands on 0..255.
  const bool wordLanes = toValue >= 0.0f && limit * toValue < 256.0f;
#endif
  for (int32_t t = 0; t < across; ++t) {
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
#if MENDARIS_SSE2_FILL
      // Every weight fits 16 bits signed.
      weightPairs[k][0] = (uint32_t(w[1]) << 16) | (uint32_t(w[0]) & 0xffffu);
      weightPairs[k][1] = (uint32_t(w[3]) << 16) | (uint32_t(w[2]) & 0xffffu);
      weightPairs[k][2] = uint32_t(w[4]) & 0xffffu;
#endif
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
            columnSumsU8(rows, weightsY, stop - c, sums + 4 * (c - lowest));
            c = stop;
          }
#if MENDARIS_SSE2_FILL
          splitColumnSums(sums, highest - lowest + 1, lowHalves, highHalves);
#endif
        }
#if MENDARIS_SSE2_FILL
        if (wordLanes) {
          storeWord(p, broughtDownWord(weighColumns(lowHalves, highHalves, columns[k], weightPairs[k]), toUnitLanes,
                                       limitLanes, toValueLanes, full));
          continue;
        }
#endif
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

// Kinds 4 and 9 on a level read of 5 by 5 pixels or more with clamped
// edges. Their kernels sum each of the five rows first (the 16-bit one
// divides each row's sum by 32768, the float one rounds as it adds), so the
// order of the double sum stays as it is; but a row's sum at a column owes
// nothing to the row of the hole. So the row sums of the level above are kept
// for the last rows read, and each row of the level above is summed once for
// all the rows of holes that read it.

// Rows of sums kept: the five a row of holes reads and one more.
constexpr int32_t kRowSumSlots = 6;
constexpr int32_t kRowSumRun = kTileWidth / 2;

// One row's sums for a run of columns: five pixels weighed for each, as
// the kernel of the kind weighs them; four channels each.
template <int32_t kKind>
struct RowSumOf;
template <>
struct RowSumOf<kKindRgba16> {
  typedef uint32_t Type;
  static void weigh(const uint8_t* const pixels[5], const uint32_t w[5], uint32_t out[4]) {
    for (int32_t c = 0; c < 4; ++c) {
      const uint32_t sum = load16(pixels[0] + 2 * c) * w[0] + load16(pixels[1] + 2 * c) * w[1] +
                           load16(pixels[2] + 2 * c) * w[2] + load16(pixels[3] + 2 * c) * w[3] +
                           load16(pixels[4] + 2 * c) * w[4];
      // Divided by 32768 with truncation toward zero, as the 16-bit kernel
      // keeps its double sum inside 32 bits.
      out[c] = uint32_t(int32_t(sum) / 32768);
    }
  }
  static void total(const uint32_t* const rows[5], const uint32_t w[5], float out[4]) {
    for (int32_t c = 0; c < 4; ++c) {
      const uint32_t t = rows[0][c] * w[0] + rows[1][c] * w[1] + rows[2][c] * w[2] + rows[3][c] * w[3] +
                         rows[4][c] * w[4];
      out[c] = float(int32_t(t)) * 0x1p-15f;
    }
  }
};
template <>
struct RowSumOf<kKindRgbaFloat> {
  typedef float Type;
  // Added from the left (top), each step in single precision; a lane a channel.
  static void weigh(const uint8_t* const pixels[5], const float w[5], float out[4]) {
#if MENDARIS_SSE2_FILL
    __m128 s = _mm_mul_ps(_mm_loadu_ps(reinterpret_cast<const float*>(pixels[0])), _mm_set1_ps(w[0]));
    for (int32_t m = 1; m < 5; ++m) {
      s = _mm_add_ps(s, _mm_mul_ps(_mm_loadu_ps(reinterpret_cast<const float*>(pixels[m])), _mm_set1_ps(w[m])));
    }
    _mm_storeu_ps(out, s);
#else
    for (int32_t c = 0; c < 4; ++c) {
      float s = loadFloat(pixels[0] + 4 * c) * w[0];
      for (int32_t m = 1; m < 5; ++m) s = s + loadFloat(pixels[m] + 4 * c) * w[m];
      out[c] = s;
    }
#endif
  }
  static void total(const float* const rows[5], const float w[5], float out[4]) {
#if MENDARIS_SSE2_FILL
    __m128 s = _mm_mul_ps(_mm_loadu_ps(rows[0]), _mm_set1_ps(w[0]));
    for (int32_t m = 1; m < 5; ++m) s = _mm_add_ps(s, _mm_mul_ps(_mm_loadu_ps(rows[m]), _mm_set1_ps(w[m])));
    _mm_storeu_ps(out, s);
#else
    for (int32_t c = 0; c < 4; ++c) {
      float s = rows[0][c] * w[0];
      for (int32_t m = 1; m < 5; ++m) s = s + rows[m][c] * w[m];
      out[c] = s;
    }
#endif
  }
};

// The weights of one axis in pixel order for the kind's kernel.
inline void kindWeights(const PixelStore* store, int32_t phase, uint32_t w[5]) {
  const int32_t(*taps)[kKernelPhases] = store->kernelTable.weights32768;
  for (int32_t m = 0; m < 5; ++m) w[m] = uint32_t(taps[4 - m][phase]);
}

inline void kindWeights(const PixelStore* store, int32_t phase, float w[5]) {
  const float(*taps)[kKernelPhases] = store->kernelTable.weightsFloat;
  for (int32_t m = 0; m < 5; ++m) w[m] = taps[4 - m][phase];
}

template <int32_t kKind>
void expandIntoByRowSums(PixelStore* store, int32_t level, int32_t readLevel, float limit) {
  typedef RowSumOf<kKind> Kernel;
  typedef typename Kernel::Type Sum;
  constexpr int32_t kBytes = KindBytes<kKind>::kValue;
  const int32_t width = store->levelWidth[level];
  const int32_t height = store->levelHeight[level];
  const int32_t maxX = store->levelMaxX[readLevel];
  const int32_t maxY = store->levelMaxY[readLevel];
  const float toUnit = store->valueToUnit;
  const float toValue = store->unitToValue;
  const float inverseX = store->invInnerWidth[level + 1];
  const float inverseY = store->invInnerHeight[level + 1];
  const float scaleX = store->levelScaleX[readLevel];
  const float scaleY = store->levelScaleY[readLevel];
  const uint32_t holeValue =
      kKind == kKindRgbaFloat ? 0u : uint32_t(firstValueAbove(kHoleAlpha, toUnit, maxStoredValue<kKind>()));
  const uint32_t full = kKind == kKindRgbaFloat ? 0u : fullStoredAlpha(store);

  // Half a tile's columns at a time, which keeps the kept sums to 24 KB.
  int32_t columns[kRowSumRun][5];
  Sum weightsX[kRowSumRun][5];
  Sum sums[kRowSumSlots][kRowSumRun][4];
  int32_t slotRow[kRowSumSlots];
  for (int32_t x0 = 0; x0 < width; x0 += kRowSumRun) {
    const int32_t count = width - x0 < kRowSumRun ? width - x0 : kRowSumRun;
    for (int32_t k = 0; k < count; ++k) {
      int32_t phase;
      const int32_t i = kernelBase(positionAbove(x0 + k, inverseX, scaleX), &phase);
      kindWeights(store, phase, weightsX[k]);
      for (int32_t m = 0; m < 5; ++m) columns[k][m] = clampToLevel(int32_t(uint32_t(i) - 2u + uint32_t(m)), maxX);
    }
    for (int32_t slot = 0; slot < kRowSumSlots; ++slot) slotRow[slot] = -1;

    for (int32_t y = 0; y < height; ++y) {
      // A run never crosses a tile: tiles are a whole number of runs wide.
      uint8_t* run = pixelIn<kBytes>(rowRef(store, level, y, kBytes), x0);
      bool rowReady = false;
      int32_t slots[5] = {0, 0, 0, 0, 0};
      Sum weightsY[5];
      for (int32_t k = 0; k < count; ++k) {
        uint8_t* p = run + k * kBytes;
        if (!isHole<kKind>(p, holeValue)) {
          setFullAlpha<kKind>(p, full);
          continue;
        }
        if (!rowReady) {
          // The first hole of the row: the five rows above it, summed where
          // they are not kept yet.
          rowReady = true;
          int32_t phaseY;
          const int32_t j = kernelBase(positionAbove(y, inverseY, scaleY), &phaseY);
          kindWeights(store, phaseY, weightsY);
          int32_t wanted[5];
          for (int32_t r = 0; r < 5; ++r) wanted[r] = clampToLevel(int32_t(uint32_t(j) - 2u + uint32_t(r)), maxY);
          for (int32_t r = 0; r < 5; ++r) {
            int32_t found = -1;
            for (int32_t slot = 0; slot < kRowSumSlots; ++slot) {
              if (slotRow[slot] == wanted[r]) found = slot;
            }
            if (found < 0) {
              // The slot of a row that none of the five needs, the farthest back.
              for (int32_t slot = 0; slot < kRowSumSlots; ++slot) {
                bool needed = false;
                for (int32_t q = 0; q < 5; ++q) needed = needed || slotRow[slot] == wanted[q];
                if (needed) continue;
                if (found < 0 || slotRow[slot] < slotRow[found]) found = slot;
              }
              slotRow[found] = wanted[r];
              const RowRef source = rowRef(store, readLevel, wanted[r], kBytes);
              for (int32_t c = 0; c < count; ++c) {
                const uint8_t* pixels[5];
                for (int32_t m = 0; m < 5; ++m) pixels[m] = pixelIn<kBytes>(source, columns[c][m]);
                Kernel::weigh(pixels, weightsX[c], sums[found][c]);
              }
            }
            slots[r] = found;
          }
        }
        const Sum* rows[5];
        for (int32_t r = 0; r < 5; ++r) rows[r] = sums[slots[r]][k];
        float value[4];
        Kernel::total(rows, weightsY, value);
        storeBroughtDown<kKind>(p, value[0], value[1], value[2], toUnit, toValue, limit);
      }
    }
  }
}

// ---- roads by kind -------------------------------------------------------------------------------

inline bool rowRoadKind(int32_t kind) { return kind == kKindRgba8 || kind == kKindRgba16 || kind == kKindRgbaFloat; }

}  // namespace

void diffuseLevel(PixelStore* store, int32_t level, int32_t passes) {
  if (passes < 1) return;
  if (rowRoadKind(store->kind) && unitTripKeepsValues(store)) {
    switch (store->kind) {
      case kKindRgba8: diffuseLevelByRow<kKindRgba8>(store, level, passes); return;
      case kKindRgba16: diffuseLevelByRow<kKindRgba16>(store, level, passes); return;
      default: diffuseLevelByRow<kKindRgbaFloat>(store, level, passes); return;
    }
  }
  switch (store->kind) {
    case kKindRgba8: diffuseLevelByPixel<kKindRgba8>(store, level, passes); return;
    case kKindRgba16: diffuseLevelByPixel<kKindRgba16>(store, level, passes); return;
    case kKindRgbaFloat: diffuseLevelByPixel<kKindRgbaFloat>(store, level, passes); return;
    default: diffuseLevelByPixel<-1>(store, level, passes); return;
  }
}

void reduceColours(PixelStore* store, int32_t level) {
  if (rowRoadKind(store->kind)) {
    switch (store->kind) {
      case kKindRgba8: reduceColoursByRow<kKindRgba8>(store, level); return;
      case kKindRgba16: reduceColoursByRow<kKindRgba16>(store, level); return;
      default: reduceColoursByRow<kKindRgbaFloat>(store, level); return;
    }
  }
  reduceColoursByPixel<-1>(store, level);
}

void expandInto(PixelStore* store, int32_t level) {
  const int32_t kind = store->kind;
  const bool integerKind = kind == kKindRgba8 || kind == kKindRgba16 || kind == kKindGray8 || kind == kKindGray16;
  const float limit = integerKind ? 1.0f : kFloatColourLimit;
  // The level read: level + 1, held below the top. Where that is the level
  // itself, the pixels read are the ones being rewritten and the order of
  // the pixel road is part of the result. Elsewhere nothing written is read
  // again, and the row road takes the pixels a run of columns at a time.
  int32_t readLevel = level + 1 < 0 ? 0 : level + 1;
  if (readLevel > store->topLevel - 1) readLevel = store->topLevel - 1;
  if (readLevel != level && rowRoadKind(kind) && unitTripKeepsValues(store)) {
    switch (kind) {
      case kKindRgba8:
        if (columnSumsApply(store, readLevel)) {
          expandIntoByColumnSums(store, level, readLevel, limit);
        } else {
          expandIntoByKernelCall<kKindRgba8>(store, level, readLevel, limit);
        }
        return;
      case kKindRgba16:
        if (columnSumsApply(store, readLevel)) {
          expandIntoByRowSums<kKindRgba16>(store, level, readLevel, limit);
        } else {
          expandIntoByKernelCall<kKindRgba16>(store, level, readLevel, limit);
        }
        return;
      default:
        if (columnSumsApply(store, readLevel)) {
          expandIntoByRowSums<kKindRgbaFloat>(store, level, readLevel, limit);
        } else {
          expandIntoByKernelCall<kKindRgbaFloat>(store, level, readLevel, limit);
        }
        return;
    }
  }
  switch (kind) {
    case kKindRgba8: expandIntoByPixel<kKindRgba8>(store, level, limit); return;
    case kKindRgba16: expandIntoByPixel<kKindRgba16>(store, level, limit); return;
    case kKindRgbaFloat: expandIntoByPixel<kKindRgbaFloat>(store, level, limit); return;
    default: expandIntoByPixel<-1>(store, level, limit); return;
  }
}

void fillLevels(PixelStore* store, int32_t passes) {
  // A source that could not be loaded holds no pixels to fill.
  if (store == nullptr || store->tiles == nullptr) return;
  const int32_t top = store->topLevel;
  if (top == 0) return;
  for (int32_t level = 0; level < top; ++level) {
    diffuseLevel(store, level, passes);
    reduceColours(store, level);
  }
  for (int32_t level = top - 1; level >= 0; --level) expandInto(store, level);
}

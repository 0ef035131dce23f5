// PixelStore: the plug-in's own image object, one image at up to 20 pyramid
// levels, each level cut into tiles 512 pixels wide and up to 512 rows high.
// All pixel access goes through the accessors declared here: reads clamp at the
// level's edges, writes outside the level are dropped.
#pragma once

#include <stdint.h>
#include <string.h>

#include "host/host_record.h"
#include "store/portable_math.h"
#include "store/resample_table.h"

constexpr int kStoreLevels = 20;
constexpr int kTileWidth = 512;
constexpr int kTileShift = 9;
constexpr int kTileMask = 511;
// Spare rows past each tile's `rows`, zero-filled, so that the kernels' one-tile
// path on a level of width or height 4 or less reads defined memory.
constexpr int kTileSpareRows = 4;

// Pixel kinds. 0, 3, 4, 5 and 9 are live; 1, 2 and 7 are carried by the dispatch tables only.
typedef int32_t PixelStoreKind;
enum : int32_t {
  kKindGray8 = 0,
  kKindGray16 = 1,
  kKindRaw16 = 2,
  kKindRgba8 = 3,
  kKindRgba16 = 4,
  kKindFloat = 5,
  kKindSigned16x3 = 7,
  kKindRgbaFloat = 9,
};

struct StoreTile {
  int32_t bufferId;  // -1 once memory is attached or released; 0 in a fresh table
  uint8_t* pixels;   // rows * 512 pixels, row stride 512 pixels, plus the spare rows
  int32_t top;       // first row in its level; -1 in a fresh table
  int32_t left;      // first column in its level; -1 in a fresh table
  int32_t rows;      // rows held; -1 in a fresh table
};

struct PixelStore {
  int32_t levelWidth[kStoreLevels];
  int32_t levelHeight[kStoreLevels];
  int32_t refWidth[kStoreLevels];
  int32_t refHeight[kStoreLevels];
  int32_t aspectBaseWidth;
  int32_t aspectBaseHeight;
  float levelSpanX[kStoreLevels];
  float levelSpanY[kStoreLevels];
  int32_t levelMaxX[kStoreLevels];
  int32_t levelMaxY[kStoreLevels];
  float innerWidthF[kStoreLevels];
  float innerHeightF[kStoreLevels];
  int32_t topLevel;
  int32_t coarseLevel;
  int32_t totalBytes;
  int32_t pixelBytes;
  int32_t planes;
  int32_t planeBytes;
  int32_t kind;
  int32_t tileCount;
  StoreTile* tiles;
  int32_t tileTableId;
  int32_t tilesReleased;
  int32_t firstTile[kStoreLevels];
  int32_t lastTile[kStoreLevels];
  int32_t tilesAcross[kStoreLevels];
  void* hostBufferProcs;
  float invInnerWidth[kStoreLevels];
  float invInnerHeight[kStoreLevels];
  float heightOverWidth;
  float widthOverHeight;
  float halfPixelU;
  float halfPixelV;
  float levelPitchX[kStoreLevels];
  float levelPitchY[kStoreLevels];
  float levelScaleX[kStoreLevels];
  float levelScaleY[kStoreLevels];
  int32_t edgeMode;
  int32_t coordMode;
  double noiseBase;
  int32_t loadState;
  float aspectX;
  float aspectY;
  float valueToUnit;
  float unitToValue;
  float lastSample;
  int32_t releaseMark;
  bool bordered;
  int32_t loadGeneration;
  int32_t initMark;
  bool ownsItself;
  int32_t kernelRoad;  // the KernelRoad of the integer kernels (store/resample.h)
  ResampleKernelTable kernelTable;
};

struct InstanceBlock;

// ---- kind table ---------------------------------------------------------------------------------
// Per-kind sizes and scales. Kinds outside the table (6, 8, anything else) have
// pixelBytes 0, planes 1, planeBytes 0 and scales of 1.
struct PixelKindInfo {
  int32_t pixelBytes;
  int32_t planes;
  int32_t planeBytes;
  float valueToUnit;  // stored value to unit range: 1/255, 1/32768 or 1
  float unitToValue;  // the inverse scale: 255, 32768 or 1
};
PixelKindInfo pixelKindInfo(int32_t kind);

// ---- whole rows --------------------------------------------------------------------------
// For code that walks a level row by row: the bytes of a pixel of each
// four-channel kind, and where a row's pixels lie in its tiles.
template <int32_t kKind>
struct KindBytes;
template <>
struct KindBytes<kKindRgba8> {
  static constexpr int32_t kValue = 4;
};
template <>
struct KindBytes<kKindRgba16> {
  static constexpr int32_t kValue = 8;
};
template <>
struct KindBytes<kKindRgbaFloat> {
  static constexpr int32_t kValue = 16;
};

// Row y of a level: the tiles of its tile row, and the byte offset of its
// column 0 inside each of them.
struct RowRef {
  const StoreTile* tiles;
  size_t offset;
};

inline RowRef rowRef(const PixelStore* store, int32_t level, int32_t y, int32_t bytes) {
  RowRef row;
  row.tiles = store->tiles + store->firstTile[level] + (y >> kTileShift) * store->tilesAcross[level];
  row.offset = size_t(y & kTileMask) * kTileWidth * size_t(bytes);
  return row;
}

template <int32_t kBytes>
inline uint8_t* pixelIn(const RowRef& row, int32_t x) {
  return row.tiles[x >> kTileShift].pixels + row.offset + size_t(x & kTileMask) * kBytes;
}

// ---- creation and release ----------------------------------------------------------
// Records the host's buffer procs, computes the kernel table and leaves the store
// empty (no tiles, tileCount 0). Touches no other field.
void pixelStoreInit(PixelStore* store);
// A store on the heap, initialised and built; ownsItself is set. Null when the
// object or any tile could not be allocated, or the size is not positive.
// `levelsWithMemory` as for pixelStoreBuild.
PixelStore* pixelStoreCreate(int32_t width, int32_t height, int32_t kind, int32_t edgeMode, bool bordered,
                             int32_t levelsWithMemory = kStoreLevels);
// Builds instance->sourceStore at the source kind of the document; false on failure.
bool pixelStoreBuildEmbedded(int32_t width, int32_t height, InstanceBlock* instance);
// Allocates the tiles of the first `levelsWithMemory` levels (zero-filled, with
// kTileSpareRows spare rows each) and fills the level tables of all of them.
// The tiles of the levels above keep their places in the table with null
// pixels: a store whose readers never go past level 0 (the fill's opaque map
// and distance field) takes 1. A store that still holds tiles is released
// first. False for a null store, a width or height of 0 or less, or when
// memory ran out; whatever was allocated before the failure is released again.
bool pixelStoreBuild(PixelStore* store, int32_t width, int32_t height, int32_t kind, int32_t edgeMode,
                     bool bordered, int32_t levelsWithMemory = kStoreLevels);
// Frees all tiles and the tile table; the object stays. Harmless on an empty store.
void pixelStoreRelease(PixelStore* store);
// Has the system make the pages of a level's tiles ready for their first
// write (platformPrefault), from the last tile back; the contents stay.
void prefaultLevel(const PixelStore* store, int32_t level);
// Frees tiles and table, the object too when it owns itself, and nulls *store.
// A null pointer or a null *store is ignored, so destroying twice is harmless.
void pixelStoreDestroy(PixelStore** store);

// ---- geometry ------------------------------------------------------------------------
// Size of `level` of an image of width x height: level 0 is the size itself;
// each next level halves each dimension rounding up, and a result of 3 or more
// that is odd grows by one, so that above 2 all sizes are even and every pixel
// of level L + 1 covers exactly 2 x 2 pixels of level L. The chain ends after
// the first level (counting from 1) that is 1 x 1; later levels are 0 x 0.
void levelSize(int32_t width, int32_t height, int32_t level, int32_t* outWidth, int32_t* outHeight);
// Highest level below kStoreLevels with a non-zero area (0 when even level 0 is empty).
int32_t lastLevel(int32_t width, int32_t height);
// (0, 0, levelHeight, levelWidth); the empty rect for a null store or a level
// outside 0..topLevel.
VRect levelRect(const PixelStore* store, int32_t level);
// The tile's rectangle in its level. The right edge is always left + 512, also
// for a last tile that the level does not fill: callers clip.
VRect tileRect(const PixelStore* store, int32_t tileIndex);

// True when x or y, taken as unsigned, is at or past the level's width or
// height: negative coordinates count as outside.
inline bool pointOutside(int32_t x, int32_t y, const PixelStore* store, int32_t level) {
  return uint32_t(x) >= uint32_t(store->levelWidth[level]) || uint32_t(y) >= uint32_t(store->levelHeight[level]);
}

// ---- addressing ----------------------------------------------------------------------------
// The tile of (x, y) is a row of tilesAcross tiles down and one across per 512
// pixels; inside it the pixel lies at (y & 511) * 512 + (x & 511). No clamp,
// no test: (x, y) must lie in the level (or in the spare memory of its tile).
inline const StoreTile& storeTileAt(const PixelStore* store, int32_t level, int32_t x, int32_t y) {
  return store->tiles[(y >> kTileShift) * store->tilesAcross[level] + store->firstTile[level] + (x >> kTileShift)];
}

// Address of pixel (x, y), counted in units of T (the kind's pixel or channel type).
template <class T>
inline T* storePixel(const PixelStore* store, int32_t level, int32_t x, int32_t y, int32_t unitsPerPixel = 1) {
  T* base = reinterpret_cast<T*>(storeTileAt(store, level, x, y).pixels);
  return base + ((y & kTileMask) * kTileWidth + (x & kTileMask)) * unitsPerPixel;
}

inline int32_t clampToLevel(int32_t value, int32_t max) { return value < 0 ? 0 : (value > max ? max : value); }

// True when a write to (x, y) must be dropped: outside the level, negative included.
inline bool writeOutside(int32_t x, int32_t y, const PixelStore* store, int32_t level) {
  return uint32_t(x) > uint32_t(store->levelMaxX[level]) || uint32_t(y) > uint32_t(store->levelMaxY[level]);
}

// 32-bit pixels are read and written through memcpy: the same word is a float
// to some accessors and raw bits to others, and the host's bytes are copied in
// as bytes. The compiler makes plain loads and stores of these.
inline uint32_t loadWord(const void* p) {
  uint32_t w;
  memcpy(&w, p, sizeof w);
  return w;
}
inline float loadFloat(const void* p) {
  float f;
  memcpy(&f, p, sizeof f);
  return f;
}
inline void storeWord(void* p, uint32_t w) { memcpy(p, &w, sizeof w); }
inline void storeFloat(void* p, float f) { memcpy(p, &f, sizeof f); }

// ---- readers ---------------------------------------------------------------------------
// Every reader clamps x to 0..levelMaxX[level] and y to 0..levelMaxY[level]: the
// store behaves as if its edge pixels ran on for ever. Those marked so give 0
// for a store without tiles; the others must not be called on one.

// Kind 0: the byte, unsigned. (On a kind 3 store this would read single bytes of
// the words; nothing does that.)
inline int32_t readU8(int32_t x, int32_t y, const PixelStore* store, int32_t level) {
  if (store->tiles == nullptr) return 0;
  x = clampToLevel(x, store->levelMaxX[level]);
  y = clampToLevel(y, store->levelMaxY[level]);
  return *storePixel<const uint8_t>(store, level, x, y);
}

// Kinds 1 and 2: the 16-bit value.
inline int32_t readU16(int32_t x, int32_t y, const PixelStore* store, int32_t level) {
  if (store->tiles == nullptr) return 0;
  x = clampToLevel(x, store->levelMaxX[level]);
  y = clampToLevel(y, store->levelMaxY[level]);
  return *storePixel<const uint16_t>(store, level, x, y);
}

// The same as readU16; the pyramid passes take it as a separate entry and use
// only the low 16 bits of the result.
inline int32_t readU16Again(int32_t x, int32_t y, const PixelStore* store, int32_t level) {
  return readU16(x, y, store, level);
}

// Kind 5 (or any 4-byte pixel): the word, bits unchanged. 0 without tiles.
inline uint32_t readRaw32(int32_t x, int32_t y, const PixelStore* store, int32_t level) {
  if (store->tiles == nullptr) return 0;
  x = clampToLevel(x, store->levelMaxX[level]);
  y = clampToLevel(y, store->levelMaxY[level]);
  return loadWord(storePixel<const uint32_t>(store, level, x, y));
}

// Kind 5 float. Needs tiles.
inline float readFloat(int32_t x, int32_t y, const PixelStore* store, int32_t level) {
  x = clampToLevel(x, store->levelMaxX[level]);
  y = clampToLevel(y, store->levelMaxY[level]);
  return loadFloat(storePixel<const uint32_t>(store, level, x, y));
}

// Kind 5 float with neither clamp nor check: the caller keeps (x, y) in the level.
inline float readFloatUnclamped(int32_t x, int32_t y, const PixelStore* store, int32_t level) {
  return loadFloat(storePixel<const uint32_t>(store, level, x, y));
}

// Kind 9: the four words as stored. Needs tiles.
inline void readWord4(int32_t x, int32_t y, const PixelStore* store, int32_t level, uint32_t out[4]) {
  x = clampToLevel(x, store->levelMaxX[level]);
  y = clampToLevel(y, store->levelMaxY[level]);
  memcpy(out, storePixel<const uint32_t>(store, level, x, y, 4), 4 * sizeof(uint32_t));
}

// Kind 3: channels 0..3 (top byte first) as integers 0..255. Needs tiles.
inline void readU8x4(int32_t x, int32_t y, const PixelStore* store, int32_t level, int32_t out[4]) {
  x = clampToLevel(x, store->levelMaxX[level]);
  y = clampToLevel(y, store->levelMaxY[level]);
  uint32_t w = loadWord(storePixel<const uint32_t>(store, level, x, y));
  out[0] = int32_t(w >> 24);
  out[1] = int32_t((w >> 16) & 0xff);
  out[2] = int32_t((w >> 8) & 0xff);
  out[3] = int32_t(w & 0xff);
}

// Kind 4: channels 0..3 as integers. Needs tiles.
inline void readU16x4(int32_t x, int32_t y, const PixelStore* store, int32_t level, int32_t out[4]) {
  x = clampToLevel(x, store->levelMaxX[level]);
  y = clampToLevel(y, store->levelMaxY[level]);
  const uint16_t* p = storePixel<const uint16_t>(store, level, x, y, 4);
  out[0] = p[0];
  out[1] = p[1];
  out[2] = p[2];
  out[3] = p[3];
}

// Kind 7: channels 0..2, sign-extended. Needs tiles.
inline void readI16x3(int32_t x, int32_t y, const PixelStore* store, int32_t level, int32_t out[3]) {
  x = clampToLevel(x, store->levelMaxX[level]);
  y = clampToLevel(y, store->levelMaxY[level]);
  const int16_t* p = storePixel<const int16_t>(store, level, x, y, 3);
  out[0] = p[0];
  out[1] = p[1];
  out[2] = p[2];
}

// Dispatch on kind: 0 and 3 read as kind 3, 1 and 4 as kind 4, 5 and 9 as kind
// 9 (words), 7 as kind 7 with out[3] left alone; any other kind gives four zeros.
// The routing of 0, 1 and 5 to the four-channel readers is how the engine has
// it; those readers step 4 or 16 bytes a pixel, so no caller may use this on a
// store of kind 0, 1 or 5, and none does.
inline void readChannels(int32_t x, int32_t y, const PixelStore* store, int32_t level, int32_t out[4]) {
  switch (store->kind) {
    case kKindGray8:
    case kKindRgba8: readU8x4(x, y, store, level, out); return;
    case kKindGray16:
    case kKindRgba16: readU16x4(x, y, store, level, out); return;
    case kKindFloat:
    case kKindRgbaFloat: readWord4(x, y, store, level, reinterpret_cast<uint32_t*>(out)); return;
    case kKindSigned16x3: readI16x3(x, y, store, level, out); return;
    default: out[0] = out[1] = out[2] = out[3] = 0; return;
  }
}

// Dispatch on kind: 0 and 3 as readU8, 5 and 9 as readRaw32, else readU16.
inline uint32_t readScalar(int32_t x, int32_t y, const PixelStore* store, int32_t level) {
  switch (store->kind) {
    case kKindGray8:
    case kKindRgba8: return uint32_t(readU8(x, y, store, level));
    case kKindFloat:
    case kKindRgbaFloat: return readRaw32(x, y, store, level);
    default: return uint32_t(readU16(x, y, store, level));
  }
}

// One value in unit range: bytes times 1/255 (in double), 16-bit values times
// 2^-15, floats as stored.
inline float readUnitScalar(int32_t x, int32_t y, const PixelStore* store, int32_t level) {
  switch (store->kind) {
    case kKindGray8:
    case kKindRgba8: return float(double(readU8(x, y, store, level)) * 0.003921568627451);
    case kKindFloat:
    case kKindRgbaFloat: return readFloat(x, y, store, level);
    default: return float(double(readU16(x, y, store, level)) * 3.0517578125e-5);
  }
}

// Four floats r, g, b, a: kinds 3 and 4 each channel times valueToUnit, kind 9
// the floats as stored; one-value kinds give the value three times with alpha
// 1.0 (kind 5 the float unscaled, the others times valueToUnit).
inline void readUnitPixel(int32_t x, int32_t y, const PixelStore* store, int32_t level, float out[4]) {
  int32_t kind = store->kind;
  if (kind == kKindRgba8 || kind == kKindRgba16) {
    int32_t c[4] = {0, 0, 0, 0};
    readChannels(x, y, store, level, c);
    float scale = store->valueToUnit;
    out[0] = float(c[0]) * scale;
    out[1] = float(c[1]) * scale;
    out[2] = float(c[2]) * scale;
    out[3] = float(c[3]) * scale;
  } else if (kind == kKindRgbaFloat) {
    uint32_t w[4];
    readWord4(x, y, store, level, w);
    memcpy(out, w, sizeof w);
  } else {
    uint32_t v = readScalar(x, y, store, level);
    float f = kind == kKindFloat ? bitsToFloat(v) : float(v) * store->valueToUnit;
    out[0] = f;
    out[1] = f;
    out[2] = f;
    out[3] = 1.0f;
  }
}

// Kind 5 at a fractional point: bilinear between the four neighbours, each
// clamped to the level. The base pixel is floor-like but takes an exact negative
// integer one below itself (fraction 1.0): ix = trunc(fx) for fx >= 0, else trunc(fx - 1).
inline float readBilinear(float fx, float fy, const PixelStore* store, int32_t level) {
  int32_t ix = fx >= 0.0f ? truncToInt32(fx) : truncToInt32(fx - 1.0f);
  int32_t iy = fy >= 0.0f ? truncToInt32(fy) : truncToInt32(fy - 1.0f);
  float tx = fx - float(ix);
  float ty = fy - float(iy);
  const int32_t maxX = store->levelMaxX[level];
  const int32_t maxY = store->levelMaxY[level];
  float a;
  float b;
  float c;
  float d;
  if (uint32_t(ix) < uint32_t(maxX) && uint32_t(iy) < uint32_t(maxY) && (ix & kTileMask) != kTileMask &&
      (iy & kTileMask) != kTileMask) {
    // All four neighbours inside the level and inside one tile: one address.
    const uint32_t* p = storePixel<const uint32_t>(store, level, ix, iy);
    a = loadFloat(p);
    b = loadFloat(p + 1);
    c = loadFloat(p + kTileWidth);
    d = loadFloat(p + kTileWidth + 1);
  } else {
    const int32_t x0 = clampToLevel(ix, maxX);
    const int32_t x1 = clampToLevel(int32_t(uint32_t(ix) + 1u), maxX);
    const int32_t y0 = clampToLevel(iy, maxY);
    const int32_t y1 = clampToLevel(int32_t(uint32_t(iy) + 1u), maxY);
    a = readFloatUnclamped(x0, y0, store, level);
    b = readFloatUnclamped(x1, y0, store, level);
    c = readFloatUnclamped(x0, y1, store, level);
    d = readFloatUnclamped(x1, y1, store, level);
  }
  float top = a + (b - a) * tx;
  float bottom = c + (d - c) * tx;
  return top + (bottom - top) * ty;
}

// ---- writers ---------------------------------------------------------------------------
// Writes to a pixel outside the level (compared unsigned, so negative
// coordinates too) are dropped, but for the two Unchecked writers. Those marked
// so do nothing on a store without tiles; the others must not be called on one.
// Nothing clamps values: conversions truncate, and an 8-bit value of 256 wraps.

inline void writeU8(int32_t x, int32_t y, PixelStore* store, int32_t level, int32_t value) {
  if (store->tiles == nullptr || writeOutside(x, y, store, level)) return;
  *storePixel<uint8_t>(store, level, x, y) = uint8_t(value);
}

inline void writeU16(int32_t x, int32_t y, PixelStore* store, int32_t level, int32_t value) {
  if (store->tiles == nullptr || writeOutside(x, y, store, level)) return;
  *storePixel<uint16_t>(store, level, x, y) = uint16_t(value);
}

inline void writeU16Again(int32_t x, int32_t y, PixelStore* store, int32_t level, int32_t value) {
  writeU16(x, y, store, level, value);
}

inline void writeFloat(int32_t x, int32_t y, PixelStore* store, int32_t level, float value) {
  if (store->tiles == nullptr || writeOutside(x, y, store, level)) return;
  storeFloat(storePixel<uint32_t>(store, level, x, y), value);
}

// Like writeFloat without the test for a store without tiles.
inline void writeFloatNoCheck(int32_t x, int32_t y, PixelStore* store, int32_t level, float value) {
  if (writeOutside(x, y, store, level)) return;
  storeFloat(storePixel<uint32_t>(store, level, x, y), value);
}

inline void writeRaw32(int32_t x, int32_t y, PixelStore* store, int32_t level, uint32_t value) {
  if (store->tiles == nullptr || writeOutside(x, y, store, level)) return;
  storeWord(storePixel<uint32_t>(store, level, x, y), value);
}

// Kind 3 word from four channels: channel 0 in the top byte; only the low 8
// bits of each channel reach the word.
inline uint32_t packU8x4(const int32_t value[4]) {
  return (uint32_t(value[0]) << 24) | ((uint32_t(value[1]) & 0xffu) << 16) | ((uint32_t(value[2]) & 0xffu) << 8) |
         (uint32_t(value[3]) & 0xffu);
}

inline void writeU8x4Unchecked(int32_t x, int32_t y, PixelStore* store, int32_t level, const int32_t value[4]) {
  storeWord(storePixel<uint32_t>(store, level, x, y), packU8x4(value));
}

inline void writeU8x4(int32_t x, int32_t y, PixelStore* store, int32_t level, const int32_t value[4]) {
  if (writeOutside(x, y, store, level)) return;
  writeU8x4Unchecked(x, y, store, level, value);
}

inline void writeU16x4Unchecked(int32_t x, int32_t y, PixelStore* store, int32_t level, const int32_t value[4]) {
  uint16_t* p = storePixel<uint16_t>(store, level, x, y, 4);
  p[0] = uint16_t(value[0]);
  p[1] = uint16_t(value[1]);
  p[2] = uint16_t(value[2]);
  p[3] = uint16_t(value[3]);
}

inline void writeU16x4(int32_t x, int32_t y, PixelStore* store, int32_t level, const int32_t value[4]) {
  if (writeOutside(x, y, store, level)) return;
  writeU16x4Unchecked(x, y, store, level, value);
}

inline void writeI16x3(int32_t x, int32_t y, PixelStore* store, int32_t level, const int32_t value[3]) {
  if (writeOutside(x, y, store, level)) return;
  int16_t* p = storePixel<int16_t>(store, level, x, y, 3);
  p[0] = int16_t(uint16_t(value[0]));
  p[1] = int16_t(uint16_t(value[1]));
  p[2] = int16_t(uint16_t(value[2]));
}

inline void writeWord4(int32_t x, int32_t y, PixelStore* store, int32_t level, const uint32_t value[4]) {
  if (writeOutside(x, y, store, level)) return;
  memcpy(storePixel<uint32_t>(store, level, x, y, 4), value, 4 * sizeof(uint32_t));
}

// Dispatch on kind: 3 as kind 3, 0 the byte, 4 as kind 4, 5 the word, 9 four
// words, anything else the 16-bit value. One-value kinds take value[0].
inline void writeChannels(int32_t x, int32_t y, PixelStore* store, int32_t level, const int32_t value[4]) {
  switch (store->kind) {
    case kKindRgba8: writeU8x4(x, y, store, level, value); return;
    case kKindGray8: writeU8(x, y, store, level, value[0]); return;
    case kKindRgba16: writeU16x4(x, y, store, level, value); return;
    case kKindFloat: writeRaw32(x, y, store, level, uint32_t(value[0])); return;
    case kKindRgbaFloat: writeWord4(x, y, store, level, reinterpret_cast<const uint32_t*>(value)); return;
    default: writeU16(x, y, store, level, value[0]); return;
  }
}

// One value from unit range: bytes take trunc(value * 255.0), floats the value,
// 16-bit kinds trunc(value * 32768.0); the products in double.
inline void writeUnitScalar(int32_t x, int32_t y, PixelStore* store, int32_t level, float value) {
  switch (store->kind) {
    case kKindGray8:
    case kKindRgba8: writeU8(x, y, store, level, truncToInt32(double(value) * 255.0)); return;
    case kKindFloat:
    case kKindRgbaFloat: writeFloatNoCheck(x, y, store, level, value); return;
    default: writeU16(x, y, store, level, truncToInt32(double(value) * 32768.0)); return;
  }
}

// Four floats r, g, b, a: kinds 3 and 4 take each times unitToValue (single
// precision), truncated; kind 9 the floats' bits; one-value kinds rgba[0].
inline void writeUnitPixel(int32_t x, int32_t y, PixelStore* store, int32_t level, const float rgba[4]) {
  int32_t kind = store->kind;
  if (kind == kKindRgba8 || kind == kKindRgba16) {
    float scale = store->unitToValue;
    int32_t c[4] = {truncToInt32(rgba[0] * scale), truncToInt32(rgba[1] * scale), truncToInt32(rgba[2] * scale),
                    truncToInt32(rgba[3] * scale)};
    writeChannels(x, y, store, level, c);
  } else if (kind == kKindRgbaFloat) {
    int32_t c[4];
    memcpy(c, rgba, sizeof c);
    writeChannels(x, y, store, level, c);
  } else {
    writeUnitScalar(x, y, store, level, rgba[0]);
  }
}

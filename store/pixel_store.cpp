#include "store/pixel_store.h"

#include <math.h>
#include <stdlib.h>
#include <string.h>

#include "host/blocks.h"
#include "platform/platform.h"
#include "store/memory_blocks.h"
#include "store/resample.h"

namespace {

// Indexed by kind; keep in step with the kind constants in pixel_store.h.
// Kinds 6 and 8 are unknown and take the unknown row.
const PixelKindInfo kUnknownKind = {0, 1, 0, 1.0f, 1.0f};
const PixelKindInfo kKindTable[10] = {
    {1, 1, 1, float(1.0 / 255.0), 255.0f},      // 0: one byte
    {2, 1, 2, float(1.0 / 32768.0), 32768.0f},  // 1: one 16-bit value
    {2, 1, 2, 1.0f, 1.0f},                      // 2: one 16-bit value, unscaled
    {4, 4, 1, float(1.0 / 255.0), 255.0f},      // 3: four bytes in one word
    {8, 4, 2, float(1.0 / 32768.0), 32768.0f},  // 4: four 16-bit values
    {4, 1, 4, 1.0f, 1.0f},                      // 5: one float
    {0, 1, 0, 1.0f, 1.0f},                      // 6: unknown
    {6, 3, 2, 1.0f, 1.0f},                      // 7: three signed 16-bit values
    {0, 1, 0, 1.0f, 1.0f},                      // 8: unknown
    {16, 4, 4, 1.0f, 1.0f},                     // 9: four floats
};

// One step of the level chain for one dimension, in float as the pyramid has
// always computed it: halve rounding up, and make a result of 3 or more even.
int32_t nextLevelLength(int32_t n) {
  int32_t half = truncToInt32(ceilf(float(n) / 2.0f));
  if (half >= 3 && (half & 1) != 0) half += 1;
  return half;
}

}  // namespace

PixelKindInfo pixelKindInfo(int32_t kind) {
  if (kind < 0 || kind >= 10) return kUnknownKind;
  return kKindTable[kind];
}

// ---- geometry ---------------------------------------------------------------------------------------

void levelSize(int32_t width, int32_t height, int32_t level, int32_t* outWidth, int32_t* outHeight) {
  int32_t w = width;
  int32_t h = height;
  for (int32_t l = 1; l <= level; ++l) {
    if (l >= 2 && w == 1 && h == 1) {
      // The previous level was the chain's last one.
      w = 0;
      h = 0;
      break;
    }
    w = nextLevelLength(w);
    h = nextLevelLength(h);
  }
  *outWidth = w;
  *outHeight = h;
}

int32_t lastLevel(int32_t width, int32_t height) {
  int32_t last = 0;
  for (int32_t level = 0; level < kStoreLevels; ++level) {
    int32_t w;
    int32_t h;
    levelSize(width, height, level, &w, &h);
    if (w <= 0 || h <= 0) break;
    last = level;
  }
  return last;
}

VRect levelRect(const PixelStore* store, int32_t level) {
  VRect r = {0, 0, 0, 0};
  if (store == nullptr || level < 0 || level > store->topLevel) return r;
  r.bottom = store->levelHeight[level];
  r.right = store->levelWidth[level];
  return r;
}

VRect tileRect(const PixelStore* store, int32_t tileIndex) {
  const StoreTile& tile = store->tiles[tileIndex];
  VRect r;
  r.top = tile.top;
  r.left = tile.left;
  r.bottom = tile.top + tile.rows;
  r.right = tile.left + kTileWidth;
  return r;
}

// ---- creation and release ---------------------------------------------------------------------

void pixelStoreInit(PixelStore* store) {
  store->hostBufferProcs = getBufferProcs();
  fillResampleKernelTable(&store->kernelTable);
  store->kernelRoad = kernelRoadFor();
  store->tileCount = 0;
  store->tiles = nullptr;
  store->tileTableId = 0;
  store->tilesReleased = 0;
  store->initMark = -99;
}

PixelStore* pixelStoreCreate(int32_t width, int32_t height, int32_t kind, int32_t edgeMode, bool bordered,
                             int32_t levelsWithMemory) {
  PixelStore* store = static_cast<PixelStore*>(blockAllocPlain(int32_t(sizeof(PixelStore))));
  if (store == nullptr) return nullptr;
  // The heap gives the object unzeroed; start every field from a known value.
  memset(store, 0, sizeof *store);
  pixelStoreInit(store);
  if (!pixelStoreBuild(store, width, height, kind, edgeMode, bordered, levelsWithMemory)) {
    blockFreePlain(&store);
    return nullptr;
  }
  store->ownsItself = true;
  return store;
}

bool pixelStoreBuildEmbedded(int32_t width, int32_t height, InstanceBlock* instance) {
  return pixelStoreBuild(&instance->sourceStore, width, height, sourceStoreKind(), 0, false);
}

bool pixelStoreBuild(PixelStore* store, int32_t width, int32_t height, int32_t kind, int32_t edgeMode,
                     bool bordered, int32_t levelsWithMemory) {
  if (store == nullptr || width <= 0 || height <= 0) return false;
  // A store built again would otherwise lose its old tiles.
  if (store->tiles != nullptr) pixelStoreRelease(store);

  const PixelKindInfo info = pixelKindInfo(kind);
  const int32_t border = bordered ? 2 : 0;
  const int32_t top = lastLevel(width, height);

  // Inner and stored (inner plus border) sizes of every level; 0 past the top.
  int32_t innerW[kStoreLevels];
  int32_t innerH[kStoreLevels];
  int32_t storedW[kStoreLevels];
  int32_t storedH[kStoreLevels];
  for (int32_t level = 0; level < kStoreLevels; ++level) {
    innerW[level] = innerH[level] = storedW[level] = storedH[level] = 0;
    if (level > top) continue;
    levelSize(width, height, level, &innerW[level], &innerH[level]);
    storedW[level] = innerW[level] + border;
    storedH[level] = innerH[level] + border;
  }

  store->pixelBytes = bordered ? 4 : info.pixelBytes;
  // Nothing reads the byte total; unsigned arithmetic lets a huge one wrap harmlessly.
  uint32_t totalBytes = 0;
  int32_t tileCount = 0;
  for (int32_t level = 0; level <= top; ++level) {
    totalBytes += uint32_t(storedW[level]) * uint32_t(storedH[level]) * uint32_t(store->pixelBytes);
    tileCount += tilesForArea(storedW[level], storedH[level], kTileWidth);
  }
  store->totalBytes = int32_t(totalBytes);

  store->tiles = static_cast<StoreTile*>(blockAlloc(tileCount * int32_t(sizeof(StoreTile)), &store->tileTableId));
  if (store->tiles == nullptr) {
    store->tileCount = 0;
    return false;
  }
  store->tileCount = tileCount;
  store->tilesReleased = 0;
  for (int32_t i = 0; i < tileCount; ++i) {
    StoreTile& tile = store->tiles[i];
    tile.bufferId = 0;
    tile.pixels = nullptr;
    tile.top = -1;
    tile.left = -1;
    tile.rows = -1;
  }
  store->topLevel = top;
  store->coarseLevel = top - 3 > 0 ? top - 3 : 0;

  // Tile memory: 512 pixels wide at the kind's own size, plus kTileSpareRows
  // zero rows, so that the kernels' one-tile path on a level of 4 pixels or
  // less reads defined memory past the last row.
  int32_t index = 0;
  for (int32_t level = 0; level < kStoreLevels; ++level) {
    store->firstTile[level] = 0;
    store->lastTile[level] = 0;
    store->tilesAcross[level] = 0;
  }
  for (int32_t level = 0; level <= top; ++level) {
    const int32_t across = tilesFor(storedW[level], kTileWidth);
    const int32_t down = tilesFor(storedH[level], kTileWidth);
    store->firstTile[level] = index;
    store->tilesAcross[level] = across;
    for (int32_t r = 0; r < down; ++r) {
      const int32_t rows = tileExtent(r, storedH[level], kTileWidth);
      const int32_t bytes = (rows + kTileSpareRows) * kTileWidth * info.pixelBytes;
      for (int32_t c = 0; c < across; ++c) {
        StoreTile& tile = store->tiles[index];
        tile.top = r * kTileWidth;
        tile.left = c * kTileWidth;
        tile.rows = rows;
        if (level < levelsWithMemory) {
          tile.pixels = static_cast<uint8_t*>(blockAllocZeroed(bytes, &tile.bufferId));
          if (tile.pixels == nullptr) {
            pixelStoreRelease(store);
            return false;
          }
        }
        store->lastTile[level] = index;
        ++index;
      }
    }
  }

  store->kind = kind;
  store->planes = info.planes;
  store->planeBytes = info.planeBytes;

  // Level tables. The scale that takes unit coordinates to a level's pixels is
  // exactly levelWidth[0] / 2^L (a power-of-two scaling, exact in float): the
  // even rounding of the sizes only appends padding at the right and bottom,
  // and a unit coordinate lands on the same image point at every level. The
  // pitch is derived from that scale, never the other way round, since
  // single-precision steps through the pitch can land one unit in the last
  // place off.
  for (int32_t level = 0; level < kStoreLevels; ++level) {
    const int32_t w = storedW[level];
    const int32_t h = storedH[level];
    const bool live = level <= top;
    store->levelWidth[level] = w;
    store->levelHeight[level] = h;
    store->refWidth[level] = w;
    store->refHeight[level] = h;
    store->levelMaxX[level] = live ? w - 1 : 0;
    store->levelMaxY[level] = live ? h - 1 : 0;
    store->levelSpanX[level] = live ? float(w - 1) : 0.0f;
    store->levelSpanY[level] = live ? float(h - 1) : 0.0f;
    store->innerWidthF[level] = float(innerW[level]);
    store->innerHeightF[level] = float(innerH[level]);
    store->invInnerWidth[level] = live ? 1.0f / float(innerW[level]) : 0.0f;
    store->invInnerHeight[level] = live ? 1.0f / float(innerH[level]) : 0.0f;
    if (live) {
      const float c = ldexpf(1.0f, -level);
      store->levelScaleX[level] = float(storedW[0]) * c;
      store->levelScaleY[level] = float(storedH[0]) * c;
      store->levelPitchX[level] = store->levelScaleX[level] / float(w);
      store->levelPitchY[level] = store->levelScaleY[level] / float(h);
    } else {
      store->levelScaleX[level] = store->levelScaleY[level] = 0.0f;
      store->levelPitchX[level] = store->levelPitchY[level] = 0.0f;
    }
  }

  const int32_t w0 = storedW[0];
  const int32_t h0 = storedH[0];
  store->aspectBaseWidth = w0;
  store->aspectBaseHeight = h0;
  store->aspectX = h0 < w0 ? float(w0) / float(h0) : 1.0f;
  store->aspectY = w0 < h0 ? float(h0) / float(w0) : 1.0f;
  // Nothing reads it, but the draw advances the C library's random sequence as it always has.
  store->noiseBase = double(rand()) * 37.3453297;
  store->heightOverWidth = float(h0) / float(w0);
  store->widthOverHeight = float(w0) / float(h0);
  store->halfPixelU = 0.5f / float(w0);
  store->halfPixelV = 0.5f / float(h0);

  store->edgeMode = edgeMode;
  store->coordMode = 3;
  store->loadState = 0;
  store->loadGeneration = 0;
  store->valueToUnit = info.valueToUnit;
  store->unitToValue = info.unitToValue;
  store->lastSample = -1.0f;
  store->releaseMark = 0;
  store->bordered = bordered;
  store->ownsItself = false;
  return true;
}

void prefaultLevel(const PixelStore* store, int32_t level) {
  if (store == nullptr || store->tiles == nullptr || level < 0 || level > store->topLevel) return;
  for (int32_t i = store->lastTile[level]; i >= store->firstTile[level]; --i) {
    const StoreTile& tile = store->tiles[i];
    if (tile.pixels == nullptr) continue;
    // The tile's own rows: the spare rows below them may never be written.
    platformPrefault(tile.pixels, size_t(tile.rows) * kTileWidth * size_t(store->pixelBytes));
  }
}

void pixelStoreRelease(PixelStore* store) {
  if (store == nullptr) return;
  if (store->tiles != nullptr) {
    for (int32_t i = 0; i < store->tileCount; ++i) {
      blockFree(&store->tiles[i].pixels, &store->tiles[i].bufferId);
    }
  }
  blockFree(&store->tiles, &store->tileTableId);
  store->tileCount = 0;
  store->tilesReleased = 1;
  store->releaseMark = 0;
}

void pixelStoreDestroy(PixelStore** store) {
  if (store == nullptr || *store == nullptr) return;
  pixelStoreRelease(*store);
  if ((*store)->ownsItself) {
    blockFreePlain(store);
  } else {
    *store = nullptr;
  }
}

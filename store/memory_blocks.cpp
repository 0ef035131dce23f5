#include "store/memory_blocks.h"

int32_t tilesFor(int32_t n, int32_t size) { return (n + size - 1) / size; }

int32_t tilesForArea(int32_t w, int32_t h, int32_t size) { return tilesFor(w, size) * tilesFor(h, size); }

int32_t tileExtent(int32_t index, int32_t n, int32_t size) {
  int32_t count = tilesFor(n, size);
  if (index >= count - 1) return n - (count - 1) * size;
  return size;
}

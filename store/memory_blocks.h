// Small helpers of the memory-block family: how many tiles of `size` cover a
// length, and how long each of them is. Signed integer arithmetic with
// truncating division; the allocation operations themselves sit with the
// other process operations in host/host_record.h.
#pragma once

#include <stdint.h>

// Tiles of `size` needed for `n`: (n + size - 1) / size. `size` must be positive.
int32_t tilesFor(int32_t n, int32_t size);

// tilesFor(w, size) * tilesFor(h, size).
int32_t tilesForArea(int32_t w, int32_t h, int32_t size);

// Length of tile `index` along `n`: `size`, but for the last tile (index at or
// past tilesFor(n, size) - 1) what remains of `n`.
int32_t tileExtent(int32_t index, int32_t n, int32_t size);

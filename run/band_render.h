// The render: every pixel of the run rectangle gets its colour in tiles of
// 128 by 128. Workers fill the cells of each unit's grid; the host's thread
// writes them into the host's output tile.
#pragma once

#include <stdint.h>

struct JobUnit;

void renderImage(uint32_t tag);
// The host's half: each cell's colour through the pixel finishing into the tile.
void writeUnit(JobUnit* unit);

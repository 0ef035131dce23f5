// The layer comes in from the host in tiles of 512 by 512, each read exactly
// once; the result goes back in tiles of at most 128 by 128. Every rectangle
// ever shown to the host passes through setHostTile.
#pragma once

#include <stdint.h>

#include "host/host_record.h"

struct PixelStore;
struct InstanceBlock;

// What a run must give back to the host.
struct HostStateSnapshot {
  VRect inRect;
  VRect outRect;
  VRect maskRect;
  int32_t sampleRate;
  int32_t runTop;
  int32_t loadIndex;
  int32_t tileShiftH;
  int32_t tileShiftV;
  int32_t runStage;
};

void setHostTile(VRect rect);
void readSource(PixelStore* store);
void copyHostTileToStore(PixelStore* store, int32_t tileIndex);
void snapshotHostState(HostStateSnapshot* snapshot, InstanceBlock* instance);
void restoreHostState(HostStateSnapshot* snapshot, InstanceBlock* instance);

#include "host/blocks.h"

#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "host/plugin_main.h"
#include "platform/dialogs.h"
#include "platform/platform.h"

namespace {

ParamBlock* params() { return hostContext.paramBlock; }

// Which entry of scratchSizes sizes each scratch block.
constexpr int kScratchSizeEntry[kScratchBlocks] = {2, 1, 3, 4};
constexpr int kWorkTablesId = 4;

}  // namespace

void resetViewState() {
  InstanceBlock* instance = hostContext.instanceBlock;
  if (instance == nullptr) return;
  instance->previewRect = VRect{0, 0, 0, 0};
  instance->viewZoom = 1.0f;
  instance->parametersPending = true;
}

void clearScratchPointers(InstanceBlock* instance) {
  for (int i = 0; i < kScratchBlocks; ++i) instance->scratch[i] = nullptr;
  instance->workTables = nullptr;
  for (int i = 0; i < 5; ++i) instance->scratchIds[i] = 0;
  pixelStoreInit(&instance->sourceStore);
}

void applyPrepareDefaults() {
  InstanceBlock* instance = hostContext.instanceBlock;
  ParamBlock* p = params();
  clearScratchPointers(instance);
  p->previewAllowed = false;
  p->viewMode = 1;
  p->previewDisabled = false;
  p->instanceLink = instance;
  instance->viewFlagB = 0;
  p->lastPointV = -1;
  p->lastPointH = -1;
  p->sampleRate = 1;
  p->runStage = kRunStageWhole;
  p->progressSwitch = 1;
  p->rerunRequested = false;
  for (int i = 0; i < 3; ++i) instance->runFlagWords[i] = 0;
  p->guardB = -999;
  p->blendMode = kFilterBlendMode;
  instance->viewFlagA = 0;
}

void setRunGeometry(InstanceBlock* instance, VRect rect, int32_t rate) {
  setRunRect(rect);
  if (params() != nullptr) params()->sampleRate = rate;
  instance->runCols = rect.right - rect.left;
  instance->runRows = rect.bottom - rect.top;
  instance->runRect = VRect{0, 0, instance->runRows - 1, instance->runCols - 1};
}

void measureFilterRect(InstanceBlock* instance) {
  setBufferSpace(0);
  VRect filter = getFilterRect();
  instance->wholeFilterRect = filter;
  setRunGeometry(instance, filter, 1);
  instance->lineStride = instance->runCols + 3;
  instance->lineStrideDouble = 2 * instance->lineStride;
  instance->rowsPadded = instance->runRows + 3;
  int32_t across = instance->runCols + 4;
  int32_t down = instance->runRows + 4;
  int32_t capacity = (across > down ? across : down) * 2;
  int32_t wide = (instance->runCols + 728) * 3;
  if (wide > capacity) capacity = wide;
  if (capacity < 4) capacity = 4;
  instance->cellCapacity = capacity;
  instance->scratchEstimate = instance->runCols + 2178;
}

void initScratchSizes(InstanceBlock* instance) {
  static const int32_t kSizes[kScratchSizeEntries] = {49152, 16, 0, 16, 16, 16, 16, 16};
  for (int i = 0; i < kScratchSizeEntries; ++i) instance->scratchSizes[i] = kSizes[i];
  instance->scratchSizes[2] = instance->cellCapacity * kCellBytes;
  setBufferSpace(0);
}

void clearRunFlags(InstanceBlock* instance) {
  for (int i = 0; i < 3; ++i) instance->runFlagWords[i] = 0;
  for (int i = 0; i < 2; ++i) instance->runFlagWordsB[i] = 0;
  for (int i = 0; i < 2; ++i) instance->runFlagBytes[i] = 0;
  instance->loadActive = 0;
  instance->loadStepped = 0;
  instance->loadDone = 0;
  aboutBoxUp = false;
  instance->workerCount = 1;
  if (params() != nullptr) params()->rerunRequested = false;
  // The only draw of the filter is a store's noise base, which nothing reads.
  srand(unsigned(time(nullptr)));
}

void freeScratch(InstanceBlock* instance) {
  for (int i = 0; i < kScratchBlocks; ++i) blockFree(&instance->scratch[i], &instance->scratchIds[i]);
  blockFree(&instance->workTables, &instance->scratchIds[kWorkTablesId]);
  pixelStoreRelease(&instance->sourceStore);
}

void releaseScratch(InstanceBlock* instance) {
  if (instance == nullptr) return;
  freeScratch(instance);
}

bool allocateScratch(InstanceBlock* instance) {
  clearScratchPointers(instance);
  for (int i = 0; i < kScratchBlocks; ++i) {
    instance->scratch[i] = blockAlloc(instance->scratchSizes[kScratchSizeEntry[i]], &instance->scratchIds[i]);
  }
  instance->workTables = static_cast<WorkTables*>(
      blockAlloc(int32_t(sizeof(WorkTables)), &instance->scratchIds[kWorkTablesId]));
  // Blocks 2 and 3 are never touched, so their absence is not a failure.
  if (instance->scratch[0] != nullptr && instance->scratch[1] != nullptr && instance->workTables != nullptr) {
    instance->workTables->mark = kWorkTablesMark;
    return true;
  }
  freeScratch(instance);
  setFailure(kErrScratchAlloc, kResultScratchFailed);
  emptyHostRects();
  return false;
}

void applyStartDefaults(InstanceBlock* instance) {
  WorkTables* tables = instance->workTables;
  if (tables != nullptr) {
    for (int i = 0; i < 9; ++i) tables->tableKeys[i] = kUncomputedKey;
  }
  (void)platformProcessorCount();
  pixelStoreInit(&instance->sourceStore);
  ParamBlock* p = params();
  p->guardA = -99;
  instance->runFlagBytes[0] = 0;
  instance->runFlagBytes[1] = 0;
  instance->unitRect = VRect{0, 0, 1, 1};
  if (instance->firstUseFlag) {
    instance->firstUseFlag = false;
    static const int32_t kFirstUse[5] = {0, 0, 1, 100, 100};
    memcpy(p->firstUseDefaults, kFirstUse, sizeof(kFirstUse));
  }
  p->textA[0] = 0;
  p->textB[0] = 0;
  p->textC[0] = 0;
  instance->runFlagWordsB[0] = 0;
  instance->runFlagWordsB[1] = 0;
  p->sourceLoaded = false;
  if (tables != nullptr) {
    for (int i = 0; i < 3; ++i) tables->startWords[i] = 0;
  }
  p->qualitySwitch = 3;
}

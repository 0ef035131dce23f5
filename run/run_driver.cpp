#include "run/run_driver.h"

#include "fill/coverage.h"
#include "fill/fill_schedule.h"
#include "fill/reduce.h"
#include "host/blocks.h"
#include "host/host_record.h"
#include "host/plugin_main.h"
#include "platform/platform.h"
#include "run/band_render.h"
#include "run/job_pool.h"
#include "run/tile_transfer.h"
#include "store/pixel_store.h"

namespace {

ParamBlock* params() { return hostContext.paramBlock; }

}  // namespace

namespace {

struct SweepShare {
  PixelStore* field;
  PlatformEvent done;
};

void sweepShareEntry(void* argument) {
  SweepShare* share = static_cast<SweepShare*>(argument);
  sweepFillField(share->field);
  platformSetEvent(share->done);
}

// The sweeps keep a few rows of bookkeeping on the stack.
constexpr uint32_t kSweepStackBytes = 256 * 1024;

}  // namespace

void fillBesideSweeps(PixelStore* source) {
  PixelStore* field = seedFillFields(source);
  // The sweeps touch the field alone and the fill the source alone: with a
  // second processor the sweeps run on a thread of their own meanwhile. Either
  // way every value is the same.
  SweepShare share = {field, nullptr};
  bool beside = false;
  if (field != nullptr && platformProcessorCount() >= 2) {
    share.done = platformCreateEvent();
    beside = share.done != nullptr && platformStartThread(sweepShareEntry, &share, kSweepStackBytes);
  }
  if (field != nullptr && !beside) sweepFillField(field);
  fillLevels(source, 3);
  if (beside) platformWaitEvent(share.done);
  if (share.done != nullptr) platformCloseEvent(share.done);
  if (field != nullptr) smoothFillField(field);
}

void fillOddsTable() {
  InstanceBlock* instance = hostContext.instanceBlock;
  if (instance == nullptr || instance->workTables == nullptr) return;
  float* odds = instance->workTables->fillOdds;
  odds[0] = 0.0f;
  for (int i = 1; i <= 254; ++i) {
    float x = float(double(i) * 0.003921568627451);
    odds[i] = 1.0f / (1.0f / x - 1.0f);
  }
  odds[255] = 1e8f;
}

void loadSource(InstanceBlock* instance) {
  ParamBlock* p = params();
  if (p->sourceLoaded) return;
  VRect whole = instance->wholeFilterRect;
  if (!pixelStoreBuildEmbedded(whole.right - whole.left, whole.bottom - whole.top, instance)) {
    setFailure(kErrSourceStore, kResultSourceFailed);
    return;
  }
  instance->loadIndex = 0;
  instance->loadStep = 1;
  instance->loadActive = 1;
  instance->loadDone = 1;
  instance->tileCount = instance->runRows;
  instance->loadCursor = 0;
  PixelStore* store = &instance->sourceStore;
  // The tiles come in first, and only then are the levels reduced.
  readSource(store);
  if (store->edgeMode != -1) buildLevels(store, 0);
  p->sourceLoaded = true;
}

void prepareHostFrameAt(InstanceBlock* instance, int32_t rate) {
  VRect r = getRunRect();
  setRunGeometry(instance, r, rate);
  setInRect(r);
  setOutRect(r);
  VRect filter = getFilterRect();
  VRect corner = VRect{filter.top, filter.left, filter.top + 1, filter.left + 1};
  setMaskRect(corner);
  if (getHaveMask()) setMaskRect(r);
  if (instance->loadDone == 0) setMaskRect(corner);
  hostPlanesAllRate(rate, plugInWantsEdgeReplication);
  VRect mask = getMaskRect();
  VRect in = getInRect();
  instance->maskRowBase = mask.top - r.top;
  instance->maskRowEnd = mask.bottom - r.top - 1;
  instance->inRowBase = in.top - r.top;
  instance->inRowEnd = in.bottom - r.top - 1;
}

void prepareHostFrame(InstanceBlock* instance) {
  setRunRect(getFilterRect());
  params()->sampleRate = 1;
  prepareHostFrameAt(instance, 1);
}

void beginRunProgress(InstanceBlock* instance) {
  setProgressTotal(1);
  setProgressDone(1);
  setRunGeometry(instance, getRunRect(), 1);
  params()->tileShiftV = 0;
  params()->tileShiftH = 0;
}

void prepareRunScratch(InstanceBlock* instance) {
  prepareHostFrame(instance);
  VRect r = getRunRect();
  instance->runColsCopy = r.right - r.left;
  instance->runRowsCopy = r.bottom - r.top;
  instance->cellCapacity = r.right - r.left + 4;
  int32_t need = instance->cellCapacity * kCellBytes;
  if (need > instance->scratchSizes[2]) {
    blockFree(&instance->scratch[0], &instance->scratchIds[0]);
    instance->scratchSizes[2] = need;
    instance->scratch[0] = blockAlloc(need, &instance->scratchIds[0]);
    // The run goes on without the block: nothing of this filter touches its bytes.
    if (instance->scratch[0] == nullptr) setFailure(kErrCellScratch, userCanceledErr);
  }
}

void runFill(InstanceBlock* instance) {
  prepareRunScratch(instance);
  instance->loadIndex = 0;
  instance->tileCount = instance->runRows + 1;
  instance->loadActive = 1;
  instance->loadStepped = 0;
  instance->loadDone = 0;
  instance->loadCursor = 0;
  // The fields are seeded first: the fill destroys alpha.
  fillBesideSweeps(&instance->sourceStore);
  instance->loadIndex = 0;
  instance->loadStep = 1;
  instance->loadStepped = 0;
  instance->loadDone = 1;
  VRect r = getRunRect();
  instance->tileCount = ceilDiv(r.right - r.left, kRenderTileSide) * ceilDiv(r.bottom - r.top, kRenderTileSide);
}

void freeFillStores() {
  ParamBlock* p = params();
  pixelStoreDestroy(&p->distanceStore);
  pixelStoreDestroy(&p->opaqueStore);
}

// The whole of a run. No step tests the result word: a failure or a cancel
// leaves the later steps to run on what exists, and the work stops in the job
// pool, which alone looks at the cancel.
void runFilter() {
  InstanceBlock* instance = hostContext.instanceBlock;
  ParamBlock* p = params();
  p->runStage = kRunStageWhole;
  loadSource(instance);
  p->runStage = kRunStageWhole;
  HostStateSnapshot snapshot;
  snapshotHostState(&snapshot, instance);
  VRect saved = exchangeRunRect(getFilterRect());
  prepareHostFrame(instance);
  if (instance->workTables != nullptr) instance->workTables->runWord = 0;
  beginRunProgress(instance);
  fillOddsTable();
  runFill(instance);
  renderImage(0);
  p->progressDone = -1;
  freeFillStores();
  setRunRect(saved);
  restoreHostState(&snapshot, instance);
}

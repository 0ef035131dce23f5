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

// The coverage fields of a run, from the moment its source is read to the
// fill. With a second processor a thread of their own seeds and sweeps them
// while the host's thread reduces the levels and then fills the source; the
// fill waits for the seeding, since it destroys the alpha the seeds come from.
struct FieldWork {
  PixelStore* source;
  PixelStore* opaque;
  PixelStore* field;
  bool made;
  bool beside;
  PlatformEvent seeded;
  PlatformEvent swept;
};

// One run at a time per process, started and ended on the host's thread.
FieldWork fieldWork;

void fieldWorkEntry(void* argument) {
  FieldWork* work = static_cast<FieldWork*>(argument);
  seedFillFields(work->source, work->opaque, work->field);
  platformSetEvent(work->seeded);
  sweepFillField(work->field);
  platformSetEvent(work->swept);
}

// The sweeps keep a few rows of bookkeeping on the stack.
constexpr uint32_t kFieldStackBytes = 256 * 1024;

void closeFieldEvents(FieldWork* work) {
  if (work->seeded != nullptr) platformCloseEvent(work->seeded);
  if (work->swept != nullptr) platformCloseEvent(work->swept);
  work->seeded = nullptr;
  work->swept = nullptr;
}

// The source's pages are cleared by the system as the copy from the host
// first writes them, which is most of a deep layer's read. With a second
// processor a thread of its own has them made ready from the last tile back
// while the host's thread copies from the first; it writes nothing.
struct Prefault {
  const PixelStore* store;
  PlatformEvent done;
};

void prefaultEntry(void* argument) {
  Prefault* prefault = static_cast<Prefault*>(argument);
  prefaultLevel(prefault->store, 0);
  platformSetEvent(prefault->done);
}

constexpr uint32_t kPrefaultStackBytes = 64 * 1024;

void readSourceBesidePrefault(PixelStore* store) {
  Prefault prefault{store, nullptr};
  if (store != nullptr && platformProcessorCount() >= 2) prefault.done = platformCreateEvent();
  const bool beside =
      prefault.done != nullptr && platformStartThread(prefaultEntry, &prefault, kPrefaultStackBytes);
  readSource(store);
  if (beside) platformWaitEvent(prefault.done);
  if (prefault.done != nullptr) platformCloseEvent(prefault.done);
}

}  // namespace

void startFillFields(PixelStore* source) {
  FieldWork& work = fieldWork;
  work = FieldWork{};
  work.source = source;
  work.field = makeFillFields(source);
  work.opaque = params() != nullptr ? params()->opaqueStore : nullptr;
  work.made = true;
  if (work.field == nullptr || platformProcessorCount() < 2) return;
  work.seeded = platformCreateEvent();
  work.swept = platformCreateEvent();
  work.beside = work.seeded != nullptr && work.swept != nullptr &&
                platformStartThread(fieldWorkEntry, &work, kFieldStackBytes);
  if (!work.beside) closeFieldEvents(&work);
}

void fillBesideSweeps(PixelStore* source) {
  if (!fieldWork.made || fieldWork.source != source) startFillFields(source);
  FieldWork& work = fieldWork;
  if (work.beside) {
    platformWaitEvent(work.seeded);
  } else if (source != nullptr && source->tiles != nullptr) {
    seedFillFields(source, work.opaque, work.field);
    if (work.field != nullptr) sweepFillField(work.field);
  }
  fillLevels(source, 3);
  if (work.beside) platformWaitEvent(work.swept);
  closeFieldEvents(&work);
  if (work.field != nullptr) smoothFillField(work.field);
  work = FieldWork{};
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
  // The tiles come in first, and only then are the levels reduced; level 0
  // is complete, and the coverage fields start from it meanwhile.
  readSourceBesidePrefault(store);
  startFillFields(store);
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

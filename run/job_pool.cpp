#include "run/job_pool.h"

#include <string.h>
#include <time.h>

#include "fill/line_smooth.h"
#include "fill/reduce.h"
#include "grid/sample_grid.h"
#include "host/blocks.h"
#include "host/plugin_main.h"
#include "run/band_render.h"
#include "run/tile_transfer.h"
#include "store/pixel_store.h"

int32_t cancelLatch = 0;

namespace {

// The plan of the job at hand; the next job overwrites it.
TileCursor tileCursor;

// State of the one job that runs at a time, touched by the host's thread alone.
int32_t jobUnitCount = 0;
int32_t jobThreadCount = 0;
int32_t nextUnit = 0;
int32_t finishedUnits = 0;
bool jobRunning = false;
// The slots of the job at hand, runJob's own array.
JobUnit** jobSlots = nullptr;
// Whole seconds of the C library's clock.
int64_t lastProgressTime = 0;

int64_t nowSeconds() { return int64_t(time(nullptr)); }

bool isBoxPass(JobKind kind) {
  return kind == kJobBoxRows || kind == kJobBoxColumns || kind == kJobBoxColumnsAgain;
}


ParamBlock* params() { return hostContext.paramBlock; }

RunStage runStage() { return params() != nullptr ? params()->runStage : kRunStageWhole; }

}  // namespace

void resetProgressClock() { lastProgressTime = int64_t(double(nowSeconds()) - 0.5); }

const TileCursor& currentTileCursor() { return tileCursor; }
int32_t currentThreadCount() { return jobThreadCount; }

JobRequest makeJobRequest(uint32_t tag) {
  JobRequest request;
  memset(&request, 0, sizeof(request));
  request.store = nullptr;
  request.level = -1;
  request.rect = VRect{0, 0, 0, 0};
  request.passStore = nullptr;
  request.passCount = 1;
  request.scale = 1.0f;
  request.tag = tag;
  return request;
}

int32_t ceilDiv(int32_t a, int32_t b) { return (a + b - 1) / b; }

bool isStoreJob(JobKind kind) {
  switch (kind) {
    case kJobReduceLevel:
    case kJobReduceWeighted:
    case kJobBoxRows:
    case kJobBoxColumns:
    case kJobBoxColumnsAgain:
    case kJobGaussRows:
    case kJobGaussColumns:
    case kJobHistogram:
      return true;
    default:
      return false;
  }
}

VRect jobRectFor(JobKind kind, const JobRequest& request) {
  if ((kind <= kJobReduceLevel && kind >= kJobGaussColumns) || kind == kJobHistogram) return request.rect;
  return getRunRect();
}

void planTiles(TileCursor* cursor, VRect rect, int32_t tiling) {
  cursor->tileSide = kRenderTileSide;
  cursor->width = rect.right - rect.left;
  cursor->height = rect.bottom - rect.top;
  cursor->jobRect = rect;
  cursor->tiling = tiling;
  cursor->gridCols = -1;
  cursor->gridRows = -1;
  cursor->unitIndex = 0;
  cursor->unitRect = VRect{-1, -1, -1, -1};
  switch (tiling) {
    case kTilingSquares:
      cursor->unitsAcross = ceilDiv(cursor->width, kRenderTileSide);
      cursor->unitCount = cursor->unitsAcross * ceilDiv(cursor->height, kRenderTileSide);
      break;
    case kTilingColumns:
      cursor->unitsAcross = cursor->width;
      cursor->unitCount = cursor->width;
      break;
    case kTilingRowBands:
    case kTilingRowBandsSerial:
      cursor->unitsAcross = 1;
      cursor->unitCount = ceilDiv(cursor->height, kBandSide);
      break;
    case kTilingColumnBands:
      cursor->unitsAcross = ceilDiv(cursor->width, kBandSide);
      cursor->unitCount = cursor->unitsAcross;
      break;
    default:  // one row a unit
      cursor->unitsAcross = 1;
      cursor->unitCount = cursor->height;
      break;
  }
}

void nextUnitRect(TileCursor* cursor) {
  int32_t i = cursor->unitIndex;
  VRect& r = cursor->unitRect;
  switch (cursor->tiling) {
    case kTilingSquares: {
      int32_t column = i % cursor->unitsAcross;
      int32_t row = i / cursor->unitsAcross;
      r.left = column * kRenderTileSide;
      r.top = row * kRenderTileSide;
      int32_t w = cursor->width - r.left;
      int32_t h = cursor->height - r.top;
      r.right = r.left + (w < kRenderTileSide ? w : kRenderTileSide);
      r.bottom = r.top + (h < kRenderTileSide ? h : kRenderTileSide);
      break;
    }
    case kTilingColumns:
      r = VRect{0, i, cursor->height, i + 1};
      break;
    case kTilingRowBands:
    case kTilingRowBandsSerial: {
      int32_t end = kBandSide * i + kBandSide;
      r = VRect{kBandSide * i, 0, end < cursor->height ? end : cursor->height, cursor->width};
      break;
    }
    case kTilingColumnBands: {
      int32_t end = kBandSide * i + kBandSide;
      r = VRect{0, kBandSide * i, cursor->height, end < cursor->width ? end : cursor->width};
      break;
    }
    default:
      r = VRect{i, 0, i + 1, cursor->width};
      break;
  }
}

void chooseThreadCount() {
  int32_t n = platformProcessorCount();
  if (n < 1) n = 1;
  int32_t count = n < tileCursor.unitCount ? n : tileCursor.unitCount;
  if (count > kMaxJobThreads) count = kMaxJobThreads;
  int32_t tiling = tileCursor.tiling;
  if (tiling == kTilingRows || tiling == 2 || tiling == kTilingRowBandsSerial) count = 1;
  jobThreadCount = count;
}

void releaseUnit(JobUnit* unit) {
  if (unit->grids != nullptr) gridRelease(unit->grids, unit->gridCount);
  blockFreePlain(&unit->grids);
  blockFreePlain(&unit);
}

namespace {

// The number of a slot of the job at hand, or -1 for any other slot.
int32_t slotNumber(JobUnit* const* slot) {
  for (int32_t i = 0; jobSlots != nullptr && i < jobThreadCount; ++i) {
    if (slot == &jobSlots[i]) return i;
  }
  return -1;
}

}  // namespace

bool startUnit(int32_t unitIndex, JobKind kind, const JobRequest& request, PlatformEvent startEvent,
               PlatformEvent doneEvent, JobUnit** slot) {
  JobUnit* unit = static_cast<JobUnit*>(blockAllocPlain(int32_t(sizeof(JobUnit))));
  if (unit == nullptr) return false;
  memset(unit, 0, sizeof(JobUnit));
  unit->cursor = tileCursor;
  unit->cursor.unitIndex = unitIndex;
  nextUnitRect(&unit->cursor);
  unit->kind = kind;
  if (kind == kJobEmpty) {
    blockFreePlain(&unit);
    return false;
  }
  // The request travels with every unit, whatever else it got: the slot's
  // next unit is started from this copy.
  InstanceBlock* instance = hostContext.instanceBlock;
  unit->instance = instance;
  unit->jobFlag = -1;
  unit->sourceStore = instance != nullptr ? &instance->sourceStore : nullptr;
  unit->request = request;
  // Only the render reads grids and cells; store jobs go without them.
  if (kind == kJobRender) {
    int32_t count = gridsPerUnit();
    unit->grids = static_cast<SampleGrid*>(blockAllocPlain(count * int32_t(sizeof(SampleGrid))));
    if (unit->grids != nullptr) {
      memset(unit->grids, 0, size_t(count) * sizeof(SampleGrid));
      unit->gridCount = count;
      gridAllocate(unit, unit->grids, count);
    }
  }
  unit->status = -1;
  nextUnit += 1;
  unit->startEvent = startEvent;
  unit->doneEvent = doneEvent;
  platformResetEvent(doneEvent);
  unit->status = 0;
  *slot = unit;
  bool signalled = platformSetEvent(startEvent);
  if (!signalled) unit->status = -2;
  // Each slot's workers start on a processor of their own, the slot's number
  // among them. Left to itself the system may queue the new thread behind
  // the other slot's running worker and let the processor this unit's last
  // worker left stand idle, for up to a millisecond. Once running, the
  // thread may move as the system likes.
  if (signalled && platformStartThreadOn(workerMain, slot, kWorkerStackBytes, slotNumber(slot))) return true;
  // No thread or no start signal: the unit runs here, with the same result,
  // and runJob collects it without waiting for an event.
  if (signalled) platformWaitEvent(startEvent);
  runUnitWork(unit);
  unit->ranHere = true;
  return true;
}

void runUnitWork(JobUnit* unit) {
  if (unit->kind == kJobEmpty || doStoreJob(unit, unit->kind)) return;
  // A render unit that got no grids array has no set-up at all: it does nothing.
  if (unit->kind == kJobRender && unit->grids != nullptr) renderUnit(unit);
}

void workerMain(void* rawSlot) {
  JobUnit** slot = static_cast<JobUnit**>(rawSlot);
  platformWaitEvent((*slot)->startEvent);
  JobUnit* unit = *slot;
  PlatformEvent done = unit->doneEvent;
  runUnitWork(unit);
  platformSetEvent(done);
}

bool doStoreJob(JobUnit* unit, JobKind kind) {
  const JobRequest& request = unit->request;
  VRect r = offsetRect(unit->cursor.unitRect, unit->cursor.jobRect.left, unit->cursor.jobRect.top);
  PassContext context;
  memset(&context, 0, sizeof(context));
  switch (kind) {
    case kJobReduceLevel:
      reduceLevelUnit(request.store, request.level, r);
      return true;
    case kJobReduceWeighted:
      reduceLevelWeightedUnit(request.store, request.level, r);
      return true;
    case kJobBoxRows:
      if (!makeLineBuffer(&context, request.passStore)) break;
      filterRows(request.passStore, &context, r.top, r.bottom, r.left, r.right, request.passLevel, request.radiusA,
                 request.radiusB);
      break;
    case kJobBoxColumns:
    case kJobBoxColumnsAgain:
      if (!makeLineBuffer(&context, request.passStore)) break;
      filterColumns(request.passStore, &context, r.left, r.right, r.top, r.bottom, request.passLevel, request.radiusA,
                    request.radiusB);
      break;
    case kJobGaussRows:
    case kJobGaussColumns:
    case kJobHistogram:
      // Kernels of other filters of the engine; this filter starts no such job.
      break;
    default:
      return false;
  }
  // A pass with a store but no line buffer did nothing: the host's thread reports it.
  if (request.passStore != nullptr && context.lineBuffer == nullptr && isBoxPass(kind)) unit->shortOfMemory = true;
  freeLineBuffer(&context);
  return true;
}

void collectUnit(JobUnit* unit, JobUnit** slot) {
  if (unit == nullptr) return;
  JobKind kind = unit->kind;
  JobRequest request = unit->request;
  PlatformEvent startEvent = unit->startEvent;
  PlatformEvent doneEvent = unit->doneEvent;
  if (unit->shortOfMemory) reportShortfall(kErrUnitMemory, memFullErr);

  if (runStage() == kRunStageWhole) {
    if (testAbort()) {
      cancelLatch = 1;
      setFailure(kErrUserAbort, userCanceledErr);
    }
    // A -128 from any other source, as from advanceState, cancels as well.
    if (getResult() == userCanceledErr) cancelLatch = 1;
  }

  if (kind == kJobRender && cancelLatch == 0) {
    setHostTile(unit->cursor.unitRect);
    // The answer is not looked at here: a -128 is seen at the next unit.
    advance();
    writeUnit(unit);
  }

  releaseUnit(unit);
  *slot = nullptr;

  if (nextUnit < jobUnitCount && cancelLatch == 0) startUnit(nextUnit, kind, request, startEvent, doneEvent, slot);

  finishedUnits += 1;
  if (finishedUnits >= jobUnitCount) jobRunning = false;
  if (cancelLatch != 0 && finishedUnits >= nextUnit) jobRunning = false;

  ParamBlock* p = params();
  if (p != nullptr && p->progressDone >= 1) {
    int64_t now = nowSeconds();
    if (double(now - lastProgressTime) >= 0.5) {
      lastProgressTime = now;
      float fraction = float((p->progressDone - 1) * jobUnitCount + finishedUnits) /
                       float(p->progressTotal * jobUnitCount);
      if (p->runStage == kRunStageWhole) updateProgress(int32_t(fraction * 1000.0f), 1000);
    }
  }
}

void runJob(JobKind kind, int32_t tiling, JobRequest request) {
  lastProgressTime = int64_t(double(nowSeconds()) - 0.5);
  finishedUnits = 0;
  nextUnit = 0;
  planTiles(&tileCursor, jobRectFor(kind, request), tiling);
  chooseThreadCount();
  jobUnitCount = tileCursor.unitCount;

  PlatformEvent startEvents[kMaxJobThreads];
  PlatformEvent doneEvents[kMaxJobThreads];
  JobUnit* slots[kMaxJobThreads];
  jobSlots = slots;
  // A slot needs both its events; the job runs on the slots that have them,
  // with the same result, since no output depends on the number of threads.
  int32_t slotCount = 0;
  for (int32_t i = 0; i < jobThreadCount; ++i) {
    startEvents[i] = platformCreateEvent();
    doneEvents[i] = platformCreateEvent();
    slots[i] = nullptr;
    if (startEvents[i] == nullptr || doneEvents[i] == nullptr) {
      platformCloseEvent(startEvents[i]);
      platformCloseEvent(doneEvents[i]);
      break;
    }
    ++slotCount;
  }
  jobThreadCount = slotCount;
  // The first round numbers its units as the later ones do: a slot whose unit
  // record could not be had leaves that unit to the next slot.
  for (int32_t i = 0; i < jobThreadCount && nextUnit < jobUnitCount; ++i) {
    startUnit(nextUnit, kind, request, startEvents[i], doneEvents[i], &slots[i]);
  }

  jobRunning = jobUnitCount > 0;
  while (jobRunning) {
    // Units done on this thread are collected first, without an event.
    bool collected = false;
    for (int32_t i = 0; i < jobThreadCount && jobRunning; ++i) {
      if (slots[i] != nullptr && slots[i]->ranHere) {
        collectUnit(slots[i], &slots[i]);
        collected = true;
      }
    }
    if (!jobRunning || collected) continue;
    // A slot whose unit could not be allocated stays empty and signals nothing:
    // when no slot holds a unit, the job is given up rather than waited on.
    bool anyBusy = false;
    for (int32_t i = 0; i < jobThreadCount; ++i) anyBusy = anyBusy || slots[i] != nullptr;
    if (!anyBusy) {
      if (cancelLatch == 0) reportShortfall(kErrJobGivenUp, memFullErr);
      break;
    }
    int i = platformWaitAnyEvent(doneEvents, jobThreadCount);
    if (i >= 0 && i < jobThreadCount && slots[i] != nullptr) collectUnit(slots[i], &slots[i]);
  }

  // Units still out (none, after a job that ended as it should) are waited
  // for, so that no worker outlives its events.
  for (int32_t i = 0; i < jobThreadCount; ++i) {
    if (slots[i] != nullptr) {
      if (!slots[i]->ranHere) platformWaitEvent(doneEvents[i]);
      releaseUnit(slots[i]);
      slots[i] = nullptr;
    }
  }
  for (int32_t i = 0; i < jobThreadCount; ++i) {
    platformCloseEvent(startEvents[i]);
    platformCloseEvent(doneEvents[i]);
  }
  jobSlots = nullptr;
}

// The job pool: one job over a rectangle, cut into work units that run each on
// a thread of its own, at most as many at a time as the process has
// processors, while the host's thread collects them: it polls for cancel,
// reports progress and, for the render, has the host present each tile.
//
// There is no lock and no atomic operation: auto-reset events are the only
// ordering. A start event publishes a unit to its worker, a done event
// publishes the unit's results back to the host's thread.
#pragma once

#include <stdint.h>

#include "finish/host_tile_view.h"
#include "host/host_record.h"
#include "platform/platform.h"

struct PixelStore;
struct SampleGrid;
struct InstanceBlock;

typedef int32_t JobKind;
enum : int32_t {
  kJobRender = 2,
  kJobEmpty = 999,
  kJobReduceLevel = -1000,
  kJobReduceWeighted = -1001,
  kJobBoxRows = -1002,
  kJobBoxColumns = -1003,
  kJobBoxColumnsAgain = -1004,
  kJobGaussRows = -1005,
  kJobGaussColumns = -1006,
  kJobHistogram = -1010,
};

// Tiling modes of planTiles.
enum : int32_t {
  kTilingSquares = 0,  // 128 by 128
  kTilingRows = 1,
  kTilingRowsAgain = 3,
  kTilingColumns = 4,
  kTilingRowBands = 5,     // bands of 64 rows
  kTilingColumnBands = 6,  // bands of 64 columns
  kTilingRowBandsSerial = 7,
};

constexpr int32_t kRenderTileSide = 128;
constexpr int32_t kBandSide = 64;
constexpr int kMaxJobThreads = 100;
constexpr uint32_t kWorkerStackBytes = 200000;

struct JobRequest {
  PixelStore* store;       // reduce jobs: the store
  int32_t level;           // reduce jobs: the source level
  VRect rect;              // the job's rectangle
  PixelStore* passStore;   // box jobs: the store
  int32_t passCount;
  int32_t passLevel;       // box jobs: the level
  int32_t radiusA;         // box jobs: reach of the window
  int32_t radiusB;
  float scale;
  uint32_t tag;            // the caller's word, handed on to the pixel finishing
};

struct TileCursor {
  int32_t width;
  int32_t height;
  int32_t unitsAcross;
  int32_t unitCount;
  int32_t unitIndex;
  int32_t gridCols;
  int32_t gridRows;
  int32_t tiling;
  VRect jobRect;
  VRect unitRect;  // relative to the top-left corner of jobRect
  int32_t tileSide;
  HostTileView view;  // written by the render's writer; measured against unitRect
};

struct JobUnit {
  int32_t kind;
  int32_t status;  // -1 while being set up, 0 started, -2 the start signal failed
  TileCursor cursor;
  InstanceBlock* instance;
  int32_t jobFlag;
  PlatformEvent startEvent;
  PlatformEvent doneEvent;
  PixelStore* sourceStore;
  SampleGrid* grids;
  int32_t gridCount;
  JobRequest request;
  bool ranHere;        // no thread or start signal to be had: done on the host's thread, collected without an event
  bool shortOfMemory;  // a store unit that could not get its line buffer and did nothing
};

// Set when the user cancels; process-wide and never cleared while the module
// stays loaded, so that a later run starts its jobs and writes nothing back.
extern int32_t cancelLatch;

JobRequest makeJobRequest(uint32_t tag);
int32_t ceilDiv(int32_t a, int32_t b);
bool isStoreJob(JobKind kind);

void planTiles(TileCursor* cursor, VRect rect, int32_t tiling);
void nextUnitRect(TileCursor* cursor);
void chooseThreadCount();

// Blocking: returns when the job is done or given up.
void runJob(JobKind kind, int32_t tiling, JobRequest request);

// False when no unit record could be had: nothing was counted or started.
bool startUnit(int32_t unitIndex, JobKind kind, const JobRequest& request, PlatformEvent startEvent,
               PlatformEvent doneEvent, JobUnit** slot);
void workerMain(void* slot);
// The unit's work, on whichever thread runs it.
void runUnitWork(JobUnit* unit);
bool doStoreJob(JobUnit* unit, JobKind kind);
void collectUnit(JobUnit* unit, JobUnit** slot);
void releaseUnit(JobUnit* unit);

// The job's rectangle: the request's for store jobs, the run rectangle otherwise.
VRect jobRectFor(JobKind kind, const JobRequest& request);

// Progress is reported at most once a second; this restarts the clock so that
// the next finished unit reports at once.
void resetProgressClock();

// The plan of the job at hand and its counters, for tests.
const TileCursor& currentTileCursor();
int32_t currentThreadCount();

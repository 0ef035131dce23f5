// The job pool on the engine itself: plans, thread counts, the collecting loop
// with a host of our own, cancel and its latch. Every case runs in its own
// process, which matters: the cancel latch is process-wide and never cleared.
#include <gtest/gtest.h>
#include <sched.h>
#include <stdlib.h>
#include <unistd.h>
#include <string.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <vector>

#include "fill/line_smooth.h"
#include "fill/reduce.h"
#include "host/blocks.h"
#include "host/plugin_main.h"
#include "platform/platform.h"
#include "run/band_render.h"
#include "run/job_pool.h"
#include "store/pixel_store.h"
#include "tests/support/test_support.h"

using testing_support::availableCpus;
using testing_support::pinToCpus;

namespace {

int abortPolls = 0;
int abortFrom = 0;  // abortProc says stop from this poll on; 0 never
int advanceCalls = 0;
int advanceFailAt = 0;
OSErr advanceFailure = noErr;
std::vector<VRect> advancedRects;

PIBoolean PI_CALL countingAbort() {
  ++abortPolls;
  return abortFrom != 0 && abortPolls >= abortFrom ? 1 : 0;
}

OSErr PI_CALL countingAdvance() {
  ++advanceCalls;
  advancedRects.push_back(getOutRect());
  return advanceCalls == advanceFailAt ? advanceFailure : OSErr(noErr);
}

// The fixture's host with an instance block and a host that counts its polls and tiles.
struct PoolFixture : testing_support::EngineFixture {
  InstanceBlock* instance = nullptr;

  void SetUp() override {
    EngineFixture::SetUp();
    record.abortProc = countingAbort;
    record.advanceState = countingAdvance;
    record.planes = 4;
    record.imageMode = plugInModeRGBColor;
    record.depth = 8;
    record.filterCase = filterCaseEditableTransparencyNoSelection;
    instance = static_cast<InstanceBlock*>(calloc(1, sizeof(InstanceBlock)));
    hostContext.instanceBlock = instance;
    abortPolls = advanceCalls = 0;
    abortFrom = advanceFailAt = 0;
    advancedRects.clear();
  }
  // The stores a render unit reads: a bare source and its fields.
  void prepareStores(int32_t width, int32_t height) {
    pixelStoreInit(&instance->sourceStore);
    ASSERT_TRUE(pixelStoreBuild(&instance->sourceStore, width, height, kKindRgba8, 0, false));
    params.opaqueStore = pixelStoreCreate(width, height, kKindGray8, 0, false);
    params.distanceStore = pixelStoreCreate(width + 18, height + 18, kKindFloat, 0, true);
    instance->wholeFilterRect = VRect{0, 0, height, width};
    instance->runCols = width;
    instance->runRows = height;
    // As the render sets it on the host's thread before its job.
    int32_t processors = platformProcessorCount();
    instance->workerCount = processors < width + 1 ? processors : width + 1;
    setRunRect(VRect{0, 0, height, width});
  }

  void TearDown() override {
    pixelStoreDestroy(&params.opaqueStore);
    pixelStoreDestroy(&params.distanceStore);
    pixelStoreRelease(&instance->sourceStore);
    EngineFixture::TearDown();
    hostContext.instanceBlock = nullptr;
    free(instance);
  }
};

VRect unitRectOf(TileCursor cursor, int32_t index) {
  cursor.unitIndex = index;
  nextUnitRect(&cursor);
  return cursor.unitRect;
}

}  // namespace

using JobPoolPlan = PoolFixture;
using JobPoolRun = PoolFixture;

// Unit rectangles are relative to the job's corner; the last column and row
// of units take what is left.
TEST_F(JobPoolPlan, UnitCountsAndRectanglesOfEveryTiling) {
  struct Case {
    VRect job;
    int32_t tiling, units, index;
    VRect unit;
  };
  const Case cases[] = {
      {{0, 0, 1000, 1000}, kTilingSquares, 64, 0, {0, 0, 128, 128}},
      {{0, 0, 1000, 1000}, kTilingSquares, 64, 7, {0, 896, 128, 1000}},
      {{0, 0, 1000, 1000}, kTilingSquares, 64, 63, {896, 896, 1000, 1000}},
      {{10, 20, 74, 120}, kTilingRowBands, 1, 0, {0, 0, 64, 100}},
      {{10, 20, 75, 120}, kTilingRowBands, 2, 1, {64, 0, 65, 100}},
      {{0, 0, 50, 130}, kTilingColumnBands, 3, 2, {0, 128, 50, 130}},
      {{0, 0, 50, 130}, kTilingColumns, 130, 5, {0, 5, 50, 6}},
      {{0, 0, 50, 130}, kTilingRows, 50, 5, {5, 0, 6, 130}},
  };
  for (const Case& c : cases) {
    TileCursor cursor;
    planTiles(&cursor, c.job, c.tiling);
    EXPECT_EQ(cursor.unitCount, c.units) << c.tiling;
    const VRect r = unitRectOf(cursor, c.index);
    EXPECT_TRUE(r.top == c.unit.top && r.left == c.unit.left && r.bottom == c.unit.bottom && r.right == c.unit.right)
        << "tiling " << c.tiling << " unit " << c.index << ": " << r.top << "," << r.left << " " << r.bottom << ","
        << r.right;
  }
}

// Through the render's own entry, which sets the worker count on the host's
// thread for the processors of the moment, as the units then find it.
TEST_F(JobPoolPlan, ThreadCountFollowsProcessorsUnitsAndMode) {
  pinToCpus(1);
  prepareStores(1000, 1000);
  renderImage(0);
  EXPECT_EQ(currentThreadCount(), 1);
  pinToCpus(availableCpus());
  if (availableCpus() >= 2) {
    renderImage(0);
    EXPECT_EQ(currentThreadCount(), std::min(availableCpus(), 64));
    // Fewer units than processors: one thread a unit.
    setRunRect(VRect{0, 0, 1, 1});
    renderImage(0);
    EXPECT_EQ(currentThreadCount(), 1);
  }
}

TEST_F(JobPoolRun, CancelStopsNewUnitsAndTheLatchHolds) {
  pinToCpus(1);
  prepareStores(512, 512);  // 16 units, one at a time
  abortFrom = 3;
  runJob(kJobRender, kTilingSquares, makeJobRequest(0));
  // Units 1 and 2 were written; the third poll cancelled and started nothing more.
  EXPECT_EQ(advanceCalls, 2);
  EXPECT_EQ(abortPolls, 3);
  EXPECT_EQ(cancelLatch, 1);
  EXPECT_EQ(result, userCanceledErr);
  EXPECT_EQ(hostContext.lastErrorCode, kErrUserAbort);
  // The next job, and any later run in this process, runs its first round and writes nothing.
  abortFrom = 0;
  result = 0;
  runJob(kJobRender, kTilingSquares, makeJobRequest(0));
  EXPECT_EQ(advanceCalls, 2);
  EXPECT_EQ(cancelLatch, 1);
}

TEST_F(JobPoolRun, MinusOneTwentyEightFromTheHostCancelsToo) {
  pinToCpus(1);
  prepareStores(512, 256);  // 8 units
  advanceFailAt = 2;
  advanceFailure = userCanceledErr;
  runJob(kJobRender, kTilingSquares, makeJobRequest(0));
  // The second tile was still written (its answer is seen at the next unit).
  EXPECT_EQ(advanceCalls, 2);
  EXPECT_EQ(cancelLatch, 1);
  EXPECT_EQ(result, userCanceledErr);
}

TEST_F(JobPoolRun, OtherHostErrorsDoNotStopTheJob) {
  prepareStores(512, 256);
  advanceFailAt = 2;
  advanceFailure = memFullErr;
  runJob(kJobRender, kTilingSquares, makeJobRequest(0));
  EXPECT_EQ(advanceCalls, 8);
  EXPECT_EQ(cancelLatch, 0);
}

namespace {

// A float store with a fixed pattern, smoothed along its rows and its columns
// in bands of 64 (five and six units).
std::vector<float> smoothedStore() {
  PixelStore* store = pixelStoreCreate(333, 271, kKindFloat, 0, true);
  if (store == nullptr) return {};
  for (int32_t y = 0; y < store->levelHeight[0]; ++y)
    for (int32_t x = 0; x < store->levelWidth[0]; ++x) writeFloat(x, y, store, 0, float((x * 7 + y * 13) % 97));
  JobRequest rows = makeJobRequest(0);
  rows.passStore = store;
  rows.passLevel = 0;
  rows.radiusA = rows.radiusB = 3;
  rows.rect = VRect{0, 0, store->levelHeight[0], store->levelWidth[0]};
  runJob(kJobBoxRows, kTilingRowBands, rows);
  runJob(kJobBoxColumns, kTilingColumnBands, rows);
  std::vector<float> out;
  for (int32_t y = 0; y < store->levelHeight[0]; ++y)
    for (int32_t x = 0; x < store->levelWidth[0]; ++x) out.push_back(readFloat(x, y, store, 0));
  pixelStoreDestroy(&store);
  return out;
}

}  // namespace

// A box pass over a float store: the same bytes whatever the number of processors.
TEST_F(JobPoolRun, StoreJobsGiveTheSameBytesOnOneAndAllProcessors) {
  pinToCpus(1);
  std::vector<float> one = smoothedStore();
  pinToCpus(availableCpus());
  std::vector<float> all = smoothedStore();
  ASSERT_FALSE(one.empty());
  EXPECT_EQ(memcmp(one.data(), all.data(), one.size() * sizeof(float)), 0);
}

// A thread started on a processor runs there first, then may run on every
// processor its starter may: the start places the thread and binds nothing.
TEST(PlatformThreads, AStartOnAProcessorPlacesOnlyTheFirstRun) {
  const int count = availableCpus();
  if (count < 2) GTEST_SKIP() << "one processor: nothing to place";
  cpu_set_t allowed;
  ASSERT_EQ(sched_getaffinity(0, sizeof allowed, &allowed), 0);
  std::vector<int> cpus;
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (CPU_ISSET(cpu, &allowed)) cpus.push_back(cpu);
  }
  struct Seen {
    int cpu;
    int count;
    PlatformEvent done;
  };
  for (int32_t processor : {0, 1, count + 1}) {
    Seen seen = {-1, 0, platformCreateEvent()};
    const PlatformThreadEntry look = [](void* raw) {
      Seen* s = static_cast<Seen*>(raw);
      s->cpu = sched_getcpu();
      cpu_set_t own;
      if (sched_getaffinity(0, sizeof own, &own) == 0) s->count = CPU_COUNT(&own);
      platformSetEvent(s->done);
    };
    ASSERT_TRUE(platformStartThreadOn(look, &seen, 1u << 16, processor));
    platformWaitEvent(seen.done);
    platformCloseEvent(seen.done);
    EXPECT_EQ(seen.cpu, cpus[size_t(processor % count)]) << "processor " << processor;
    EXPECT_EQ(seen.count, count) << "processor " << processor;
  }
}

// ---- failure roads ------------------------------------------------------------------------------
// Each resource the pool takes (a unit record or grids array, a cell array, an
// event, a thread) fails at each of its calls in turn. Every unit must then
// run exactly once, or the job must end with memFullErr and its code; nothing
// may hang (the alarm) or be written twice.

namespace {

// Counted from the host's thread and the workers (their line buffers).
std::atomic<int> faultCalls[kFaultSiteCount];
int faultAt[kFaultSiteCount];

bool countingFault(PlatformFaultSite site, size_t) { return ++faultCalls[site] == faultAt[site]; }

void armFault(PlatformFaultSite site, int at) {
  for (std::atomic<int>& c : faultCalls) c = 0;
  memset(faultAt, 0, sizeof(faultAt));
  faultAt[site] = at;
  platformFaultHook = countingFault;
}

}  // namespace

TEST_F(JobPoolRun, EveryResourceFailingAtEveryCallRunsEachUnitOnceOrFails) {
  alarm(240);  // a hang fails the test
  prepareStores(300, 200);  // six render units
  const std::vector<float> reference = smoothedStore();
  ASSERT_FALSE(reference.empty());
  const char* const kSiteNames[kFaultSiteCount] = {"block", "global block", "event", "thread start"};
  int injected = 0;
  for (int site = 0; site < kFaultSiteCount; ++site) {
    for (int job = 0; job < 2; ++job) {
      // The reference count of this resource's calls in this job.
      armFault(PlatformFaultSite(site), 0);
      if (job == 0) runJob(kJobRender, kTilingSquares, makeJobRequest(0)); else smoothedStore();
      const int calls = faultCalls[site];
      for (int n = 1; n <= calls; ++n) {
        SCOPED_TRACE(std::string(kSiteNames[site]) + " call " + std::to_string(n) + (job == 0 ? " render" : " smoothing"));
        armFault(PlatformFaultSite(site), n);
        result = 0;
        hostContext.lastErrorCode = 0;
        advancedRects.clear();
        ++injected;
        bool failed;
        if (job == 0) {
          runJob(kJobRender, kTilingSquares, makeJobRequest(0));
          std::vector<int> seen(6, 0);
          for (const VRect& r : advancedRects) ++seen[size_t((r.top / 128) * 3 + r.left / 128)];
          for (int s : seen) EXPECT_LE(s, 1) << "a tile written twice";
          failed = std::count(seen.begin(), seen.end(), 1) != 6;
        } else {
          std::vector<float> out = smoothedStore();
          failed = out != reference;
          // The store itself failing is not the pool's concern.
          if (out.empty()) continue;
        }
        if (failed || result != 0) {
          EXPECT_EQ(result, memFullErr);
          EXPECT_TRUE(hostContext.lastErrorCode == kErrJobGivenUp || hostContext.lastErrorCode == kErrUnitMemory)
              << hostContext.lastErrorCode;
        }
      }
    }
  }
  platformFaultHook = nullptr;
  EXPECT_GT(injected, 20);
}

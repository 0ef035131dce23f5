// Every host fault at every call: a reference run records the host calls,
// then each newProc, lockProc and advanceState call in turn fails (and each
// advanceState also answers -128), and abortProc says stop at each poll, each
// in a fresh process. Every run must end, without a crash or a hang, with a
// result the filter can give, and with the document unchanged outside the
// tiles the filter wrote. Under the sanitizer build the child's leak check
// counts as well: a leak makes the child exit non-zero.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <set>

#include "grid/sample_grid.h"
#include "host/plugin_main.h"
#include "platform/platform.h"
#include "tests/support/test_support.h"

using standin::Document;
using standin::Host;
using standin::HostCall;
using standin::HostOptions;
using standin::Rect;
using standin::RunOutcome;
using testing_support::countCalls;
using testing_support::linkedModule;
using testing_support::nativeModule;

namespace {

Document faultDocument() {
  Document d = standin::makeIslandDocument(300, 200, 8, 3, 99);
  standin::addDiscMask(d, 99);
  return d;
}

HostOptions faultOptions() {
  HostOptions o;
  // The filter rectangle is smaller than the document, so there are pixels
  // the filter has no business writing.
  o.filterRect = Rect{20, 30, 180, 250};
  return o;
}

// Results the filter can leave, by the table of its failures and the host's own answers.
const std::set<int> kPossibleResults = {0, 1, 3, 999, memFullErr, userCanceledErr, filterBadParameters};

bool insideAny(const std::vector<Rect>& rects, int32_t x, int32_t y) {
  for (const Rect& r : rects)
    if (x >= r.left && x < r.right && y >= r.top && y < r.bottom) return true;
  return false;
}

// The engine's own allocations, failed one call at a time (in the module linked
// into this test, whose fault hook the test can reach).
// Counted from the host's thread and the workers (their line buffers).
PlatformFaultSite memorySite = kFaultBlock;
std::atomic<int> memoryCalls{0};
int memoryFailAt = 0;
size_t memoryFailedSize = 0;
bool countMemory(PlatformFaultSite site, size_t size) {
  if (site != memorySite || ++memoryCalls != memoryFailAt) return false;
  memoryFailedSize = size;
  return true;
}

// Runs one injected fault in a child process; returns a description of the
// failure, or an empty string when the run survived as it should. With
// `memoryAt`, the engine's allocation of that number fails, and a run that
// says 0 must give the reference output, but where the failed block was a
// render unit's grids or cells, which end in a tile of zeros, unreported.
std::string survive(const HostOptions& options, const std::string& what, int memoryAt = 0,
                    const std::string& reference = "") {
  pid_t child = fork();
  if (child == 0) {
    alarm(60);  // a hang becomes a signal
    Document d = faultDocument();
    Document before = d;
    memoryFailAt = memoryAt;
    memoryCalls = 0;
    if (memoryAt != 0) platformFaultHook = countMemory;
    Host host(memoryAt != 0 ? linkedModule() : nativeModule(), d, options);
    RunOutcome run = host.run();
    platformFaultHook = nullptr;
    int code = 0;
    if (!kPossibleResults.count(run.result)) code = 10;
    bool unreported = memorySite == kFaultGlobalBlock || memoryFailedSize == sizeof(SampleGrid);
    if (memoryAt != 0 && run.result == 0 && !unreported && standin::documentDigest(d) != reference) code = 13;
    std::vector<Rect> written;
    for (const HostCall& c : host.log())
      if (c.name == "advanceState" && c.value == 0) written.push_back(c.outRect);
    for (int32_t y = 0; y < d.height && code == 0; ++y)
      for (int32_t x = 0; x < d.width && code == 0; ++x)
        if (!insideAny(written, x, y) && memcmp(d.at(x, y), before.at(x, y), d.pixelBytes()) != 0) code = 11;
    if (host.lockedHandles() != 0) code = 12;
    exit(code);
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFSIGNALED(status)) return what + ": killed by signal " + std::to_string(WTERMSIG(status));
  if (WEXITSTATUS(status) == 10) return what + ": a result the filter cannot give";
  if (WEXITSTATUS(status) == 11) return what + ": pixels changed outside the written tiles";
  if (WEXITSTATUS(status) == 12) return what + ": a handle left locked";
  if (WEXITSTATUS(status) == 13) return what + ": another output with result 0";
  if (WEXITSTATUS(status) != 0) return what + ": exit status " + std::to_string(WEXITSTATUS(status));
  return "";
}

}  // namespace

TEST(FaultMatrix, EveryHostFaultAtEveryCallIsSurvived) {
  Document d = faultDocument();
  Host reference(nativeModule(), d, faultOptions());
  RunOutcome run = reference.run();
  ASSERT_EQ(run.result, 0);
  int newCalls = countCalls(run.calls, "newProc");
  int lockCalls = countCalls(run.calls, "lockProc");
  int advanceCalls = countCalls(run.calls, "advanceState");
  int abortPolls = countCalls(run.calls, "abortProc");
  ASSERT_GT(advanceCalls, 1);
  ASSERT_GT(abortPolls, 1);

  std::vector<std::string> failures;
  int injected = 0;
  auto inject = [&](HostOptions o, const std::string& what) {
    ++injected;
    std::string failure = survive(o, what);
    if (!failure.empty()) failures.push_back(failure);
  };
  for (int n = 1; n <= newCalls; ++n) {
    HostOptions o = faultOptions();
    o.failNewProcAt = n;
    inject(o, "newProc #" + std::to_string(n));
  }
  for (int n = 1; n <= lockCalls; ++n) {
    HostOptions o = faultOptions();
    o.failLockProcAt = n;
    inject(o, "lockProc #" + std::to_string(n));
  }
  for (int n = 1; n <= advanceCalls; ++n) {
    for (OSErr error : {OSErr(memFullErr), OSErr(userCanceledErr)}) {
      HostOptions o = faultOptions();
      o.failAdvanceAt = n;
      o.advanceError = error;
      inject(o, "advanceState #" + std::to_string(n) + " answering " + std::to_string(error));
    }
  }
  for (int n = 1; n <= abortPolls; ++n) {
    HostOptions o = faultOptions();
    o.abortAtPoll = n;
    inject(o, "abortProc stop at poll #" + std::to_string(n));
  }
  printf("fault matrix: %d faults injected (%d newProc, %d lockProc, %d advanceState, %d abortProc), %d survived\n",
         injected, newCalls, lockCalls, 2 * advanceCalls, abortPolls, injected - int(failures.size()));
  for (const std::string& f : failures) ADD_FAILURE() << f;
}

// Each block and tile the engine allocates, and each cell array, fails in turn.
TEST(FaultMatrix, EveryEngineAllocationFailingIsSurvived) {
  int calls[2] = {0, 0};
  std::string referenceDigest;
  for (PlatformFaultSite site : {kFaultBlock, kFaultGlobalBlock}) {
    Document d = faultDocument();
    memorySite = site;
    memoryCalls = 0;
    memoryFailAt = 0;
    platformFaultHook = countMemory;
    Host reference(linkedModule(), d, faultOptions());
    ASSERT_EQ(reference.run().result, 0);
    platformFaultHook = nullptr;
    calls[site] = memoryCalls;
    referenceDigest = standin::documentDigest(d);
  }
  ASSERT_GT(calls[kFaultBlock], 20);
  ASSERT_GT(calls[kFaultGlobalBlock], 1);
  std::vector<std::string> failures;
  for (PlatformFaultSite site : {kFaultBlock, kFaultGlobalBlock}) {
    memorySite = site;
    for (int n = 1; n <= calls[site]; ++n) {
      std::string what = std::string(site == kFaultBlock ? "block #" : "cell array #") + std::to_string(n);
      std::string failure = survive(faultOptions(), what, n, referenceDigest);
      if (!failure.empty()) failures.push_back(failure);
    }
  }
  printf("memory faults: %d blocks, %d cell arrays\n", calls[kFaultBlock], calls[kFaultGlobalBlock]);
  for (const std::string& f : failures) ADD_FAILURE() << f;
}

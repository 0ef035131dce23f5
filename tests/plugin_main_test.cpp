// The entry point as a host drives it: selector sequences, the refusals, the
// failures of the host's handle procedures, and the memory budget.
#include <gtest/gtest.h>

#include "host/plugin_main.h"
#include "tests/support/test_support.h"

using standin::Document;
using standin::Host;
using standin::HostCall;
using standin::HostOptions;
using standin::RunOutcome;
using testing_support::countCalls;
using testing_support::instanceBlockOf;
using testing_support::linkedModule;
using testing_support::nativeModule;
using testing_support::paramBlockOf;

namespace {

Document smallLayer(int32_t w = 40, int32_t h = 30) { return standin::makeIslandDocument(w, h, 8, 3, 42); }

// Unlocks answer locks one for one within every selector.
void expectBalancedLocks(const std::vector<HostCall>& calls) {
  int locks = 0;
  for (const HostCall& c : calls) {
    if (c.name == "lockProc" && c.value == 0) ++locks;
    if (c.name == "unlockProc") --locks;
    if (c.name == "Parameters" || c.name == "Prepare" || c.name == "Start" || c.name == "Finish") {
      EXPECT_EQ(locks, 0) << "after " << c.name;
    }
  }
}

}  // namespace

TEST(SelectorSequence, FirstRunThroughTheModule) {
  Document d = smallLayer();
  Host host(nativeModule(), d);
  RunOutcome run = host.run();
  EXPECT_EQ(run.result, 0);
  EXPECT_EQ(countCalls(run.calls, "Parameters"), 1);
  EXPECT_EQ(countCalls(run.calls, "Prepare"), 1);
  EXPECT_EQ(countCalls(run.calls, "Start"), 1);
  EXPECT_EQ(countCalls(run.calls, "Finish"), 1);
  // Two handles: ParamBlock and InstanceBlock, both left with the host.
  EXPECT_EQ(countCalls(run.calls, "newProc"), 2);
  EXPECT_EQ(host.liveHandles(), 2);
  EXPECT_EQ(host.lockedHandles(), 0);
  expectBalancedLocks(run.calls);
  // The run leaves the host's rectangles empty.
  EXPECT_TRUE(host.record().inRect.left >= host.record().inRect.right);
}

TEST(SelectorSequence, RepeatRunSkipsParametersAndKeepsFirstUseDefaults) {
  Document d = smallLayer();
  Host host(linkedModule(), d);
  ASSERT_EQ(host.run().result, 0);
  ParamBlock* params = paramBlockOf(host);
  ASSERT_NE(params, nullptr);
  EXPECT_EQ(params->firstUseDefaults[3], 100);
  // A value that only the first-use defaults would overwrite.
  params->firstUseDefaults[3] = 7;
  RunOutcome repeat = host.run(true);
  EXPECT_EQ(repeat.result, 0);
  EXPECT_EQ(countCalls(repeat.calls, "Parameters"), 0);
  EXPECT_EQ(countCalls(repeat.calls, "newProc"), 0);
  EXPECT_EQ(paramBlockOf(host)->firstUseDefaults[3], 7);
  EXPECT_FALSE(instanceBlockOf(host)->firstUseFlag);
  expectBalancedLocks(repeat.calls);
  // A new Parameters call brings the defaults back.
  EXPECT_EQ(host.run().result, 0);
  EXPECT_EQ(paramBlockOf(host)->firstUseDefaults[3], 100);
}

TEST(SelectorSequence, UnknownSelectorUnlocksBothHandlesOnce) {
  Document d = smallLayer();
  Host host(nativeModule(), d);
  ASSERT_EQ(host.run().result, 0);
  host.clearLog();
  EXPECT_EQ(host.call(6), 0);
  EXPECT_EQ(countCalls(host.log(), "unlockProc"), 2);
  EXPECT_EQ(countCalls(host.log(), "lockProc"), 0);
}

TEST(SelectorSequence, ContinueEmptiesTheRectanglesWithoutLocking) {
  Document d = smallLayer();
  HostOptions sixteenBit;  // the record's own rectangles, which the test sets
  sixteenBit.bigDocument = 0;
  Host host(nativeModule(), d, sixteenBit);
  ASSERT_EQ(host.run().result, 0);
  host.record().inRect = PIRect{0, 0, 10, 10};
  host.record().outRect = PIRect{0, 0, 10, 10};
  host.record().maskRect = PIRect{0, 0, 10, 10};
  host.clearLog();
  EXPECT_EQ(host.call(filterSelectorContinue), 0);
  EXPECT_EQ(host.record().inRect.right, 0);
  EXPECT_EQ(host.record().outRect.bottom, 0);
  EXPECT_EQ(host.record().maskRect.right, 0);
  EXPECT_EQ(countCalls(host.log(), "lockProc"), 0);
  // The closing step unlocks both handles all the same.
  EXPECT_EQ(countCalls(host.log(), "unlockProc"), 2);
}

TEST(SelectorSequence, FinishSkippedAfterAnErrorThenANewRun) {
  Document d = smallLayer();
  HostOptions o;
  o.failAdvanceAt = 0;
  Host host(linkedModule(), d, o);
  // Start fails on its lock: the host calls no Finish.
  host.options().failLockProcAt = 5;  // Parameters: 2 locks; Prepare: 2; Start's first
  RunOutcome failed = host.run();
  EXPECT_EQ(failed.startResult, memFullErr);
  EXPECT_EQ(countCalls(failed.calls, "Finish"), 0);
  EXPECT_EQ(hostContext.lastErrorCode, kErrLockFailed);
  host.options().failLockProcAt = 0;
  RunOutcome next = host.run(true);
  EXPECT_EQ(next.result, 0);
  EXPECT_EQ(host.lockedHandles(), 0);
  InstanceBlock* instance = instanceBlockOf(host);
  ASSERT_NE(instance, nullptr);
  // Finish released the scratch of the successful run.
  for (int i = 0; i < kScratchBlocks; ++i) EXPECT_EQ(instance->scratch[i], nullptr);
  EXPECT_EQ(instance->workTables, nullptr);
}

TEST(SelectorSequence, ScratchIsInPlaceDuringStartAndGoneAfterFinish) {
  Document d = smallLayer(1, 1);
  Host host(linkedModule(), d);
  host.call(filterSelectorParameters);
  host.call(filterSelectorPrepare);
  InstanceBlock* instance = instanceBlockOf(host);
  // A 1 by 1 filter rectangle: cellCapacity = max(10, 2187).
  EXPECT_EQ(instance->cellCapacity, 2187);
  EXPECT_EQ(instance->scratchSizes[2], 157464);
  EXPECT_EQ(instance->scratchEstimate, 2179);
  EXPECT_TRUE(instance->firstUseFlag);
  ASSERT_EQ(host.call(filterSelectorStart), 0);
  instance = instanceBlockOf(host);
  EXPECT_EQ(instance->scratchIds[0], -1);
  EXPECT_EQ(instance->scratchIds[4], -1);
  ASSERT_NE(instance->workTables, nullptr);
  EXPECT_EQ(instance->workTables->mark, 123456);
  EXPECT_EQ(instance->workTables->tableKeys[8], 111111111);
  // The first-use defaults ran once, at this Start after Parameters.
  EXPECT_FALSE(instance->firstUseFlag);
  EXPECT_EQ(paramBlockOf(host)->firstUseDefaults[4], 100);
  EXPECT_EQ(paramBlockOf(host)->guardA, -99);
  EXPECT_EQ(paramBlockOf(host)->blendMode, 1);
  EXPECT_FALSE(paramBlockOf(host)->previewDisabled);
  EXPECT_TRUE(paramBlockOf(host)->previewAllowed);
  // The run's own stores are gone; the source stays until Finish.
  EXPECT_EQ(paramBlockOf(host)->opaqueStore, nullptr);
  EXPECT_EQ(paramBlockOf(host)->distanceStore, nullptr);
  EXPECT_NE(instance->sourceStore.tiles, nullptr);
  host.call(filterSelectorFinish);
  EXPECT_EQ(instance->workTables, nullptr);
  // Finish twice is harmless.
  host.call(filterSelectorFinish);
  EXPECT_EQ(instance->scratch[0], nullptr);
}

// ---- refusals --------------------------------------------------------------------------

struct RefusalCase {
  const char* name;
  int16_t filterCase;
  int16_t imageMode;
  bool advanceState;
  uint16_t code;
};

void PrintTo(const RefusalCase& c, std::ostream* os) { *os << c.name; }

class Refusal : public ::testing::TestWithParam<RefusalCase> {};

TEST_P(Refusal, ResultOneEmptyRectanglesNoPixelRead) {
  const RefusalCase& c = GetParam();
  Document d = smallLayer();
  HostOptions o;
  o.filterCase = c.filterCase;
  o.imageMode = c.imageMode;
  o.advanceState = c.advanceState;
  Host host(linkedModule(), d, o);
  std::vector<uint8_t> before = d.pixels;
  RunOutcome run = host.run();
  EXPECT_EQ(run.startResult, 1);
  EXPECT_EQ(hostContext.lastErrorCode, c.code);
  EXPECT_EQ(host.advanceCalls(), 0);
  EXPECT_EQ(countCalls(run.calls, "Finish"), 0);
  const FilterRecord& r = host.record();
  EXPECT_EQ(r.inRect.right, 0);
  EXPECT_EQ(r.outRect.right, 0);
  EXPECT_EQ(r.maskRect.right, 0);
  EXPECT_EQ(d.pixels, before);
  // A refused run releases the scratch it allocated.
  InstanceBlock* instance = instanceBlockOf(host);
  EXPECT_EQ(instance->scratch[0], nullptr);
  EXPECT_EQ(instance->workTables, nullptr);
  EXPECT_EQ(host.lockedHandles(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Start, Refusal,
    ::testing::Values(RefusalCase{"flat", filterCaseFlatImageNoSelection, -1, true, kErrRefusedCase},
                      RefusalCase{"flatWithSelection", filterCaseFlatImageWithSelection, -1, true, kErrRefusedCase},
                      RefusalCase{"protected", filterCaseProtectedTransparencyNoSelection, -1, true, kErrRefusedCase},
                      RefusalCase{"protectedWithSelection", filterCaseProtectedTransparencyWithSelection, -1, true,
                                  kErrRefusedCase},
                      RefusalCase{"noAdvanceState", -1, -1, false, kErrRefusedNoAdvance},
                      // Both: the later refusal's code stands.
                      RefusalCase{"flatAndNoAdvanceState", filterCaseFlatImageNoSelection, -1, false,
                                  kErrRefusedNoAdvance},
                      RefusalCase{"multichannel", -1, plugInModeMultichannel, true, kErrRefusedMultichannel}),
    [](const ::testing::TestParamInfo<RefusalCase>& info) { return std::string(info.param.name); });

TEST(Refusal, FlatImageThroughTheModule) {
  Document d = standin::Document::make(20, 20, 8, 3, false);
  Host host(nativeModule(), d);
  RunOutcome run = host.run();
  EXPECT_EQ(run.startResult, 1);
  EXPECT_EQ(host.advanceCalls(), 0);
}

// ---- host failures ---------------------------------------------------------------------------

TEST(HostFailure, ParamBlockAllocationFails) {
  Document d = smallLayer();
  HostOptions o;
  o.failNewProcAt = 1;
  Host host(linkedModule(), d, o);
  RunOutcome run = host.run();
  EXPECT_EQ(run.result, memFullErr);
  EXPECT_EQ(hostContext.lastErrorCode, kErrParamBlockAlloc);
  EXPECT_EQ(countCalls(run.calls, "Prepare"), 0);
}

TEST(HostFailure, InstanceBlockAllocationFails) {
  Document d = smallLayer();
  HostOptions o;
  o.failNewProcAt = 2;
  Host host(linkedModule(), d, o);
  RunOutcome run = host.run();
  EXPECT_EQ(run.result, memFullErr);
  EXPECT_EQ(hostContext.lastErrorCode, kErrInstanceBlockAlloc);
  EXPECT_EQ(host.dataWord(), 0);
  EXPECT_EQ(host.lockedHandles(), 0);
}

TEST(HostFailure, LockFailsInParameters) {
  Document d = smallLayer();
  HostOptions o;
  o.failLockProcAt = 2;  // the InstanceBlock's lock
  Host host(linkedModule(), d, o);
  RunOutcome run = host.run();
  EXPECT_EQ(run.result, memFullErr);
  EXPECT_EQ(hostContext.lastErrorCode, kErrLockFailed);
  EXPECT_EQ(host.lockedHandles(), 0);
}

TEST(HostFailure, MissingHandleAtStart) {
  Document d = smallLayer();
  Host host(linkedModule(), d);
  ASSERT_EQ(host.run().result, 0);
  // A host that keeps no parameters between runs and skips Prepare's creation.
  host.record().parameters = nullptr;
  EXPECT_EQ(host.call(filterSelectorStart), filterBadParameters);
  EXPECT_EQ(hostContext.lastErrorCode, kErrHandleMissing);
}

TEST(HostFailure, HostThatKeepsNoBlocksBetweenRuns) {
  Document d = smallLayer();
  Host host(nativeModule(), d);
  ASSERT_EQ(host.run().result, 0);
  // The host forgets both words; a repeat run starts at Prepare and makes them again.
  host.record().parameters = nullptr;
  RunOutcome repeat = host.run(true);
  EXPECT_EQ(repeat.result, 0);
  EXPECT_EQ(countCalls(repeat.calls, "newProc"), 1);
}

// ---- memory budget ------------------------------------------------------------------------------

TEST(MaxSpace, LimitedToTwoBytesPerSampleOfA256Tile) {
  Document d = standin::makeIslandDocument(300, 10, 8, 3, 1);
  HostOptions o;
  o.maxSpace = 1 << 30;
  Host host(nativeModule(), d, o);
  host.call(filterSelectorParameters);
  host.call(filterSelectorPrepare);
  EXPECT_EQ(host.record().maxSpace, 4 * 256 * 10 * 2);
  EXPECT_EQ(host.record().bufferSpace, 0);
}

TEST(MaxSpace, LowerValueIsLeftAsItIs) {
  Document d = standin::makeIslandDocument(300, 10, 8, 3, 1);
  HostOptions o;
  o.maxSpace = 20479;
  Host host(nativeModule(), d, o);
  host.call(filterSelectorParameters);
  host.call(filterSelectorPrepare);
  EXPECT_EQ(host.record().maxSpace, 20479);
}

TEST(MaxSpace, MaskCountsAsAPlane) {
  Document d = standin::makeIslandDocument(100, 300, 8, 1, 1);
  standin::addDiscMask(d, 1);
  Host host(nativeModule(), d);
  host.call(filterSelectorParameters);
  // The host presents a mask buffer before Prepare.
  uint8_t maskByte = 255;
  host.record().maskData = &maskByte;
  host.call(filterSelectorPrepare);
  EXPECT_EQ(host.record().maxSpace, (2 + 1) * 256 * 100 * 2);
}

// ---- About ------------------------------------------------------------------------------------------

TEST(About, TouchesNoHandle) {
  Document d = smallLayer();
  Host host(nativeModule(), d);
  EXPECT_EQ(host.about(), 0);
  EXPECT_EQ(countCalls(host.log(), "unlockProc"), 0);
  EXPECT_EQ(host.liveHandles(), 0);
}

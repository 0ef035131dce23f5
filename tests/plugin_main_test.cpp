// The entry point as a host drives it: selector sequences, the refusals and
// the dialogs they ask for, the failures of the host's handle procedures, the
// memory budget, progress, and the strict host's own answers to requests.
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

// Unlocks answer locks one for one within every selector that locks.
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

TEST(SelectorSequence, FirstRunThenRepeatThroughTheModule) {
  Document d = smallLayer();
  Host host(linkedModule(), d);
  RunOutcome run = host.run();
  EXPECT_EQ(run.result, 0);
  // Start leaves the rectangles empty: the host calls no Continue.
  for (const char* selector : {"Parameters", "Prepare", "Start", "Continue", "Finish"})
    EXPECT_EQ(countCalls(run.calls, selector), std::string(selector) == "Continue" ? 0 : 1) << selector;
  // Two handles, ParamBlock and InstanceBlock, both left with the host.
  EXPECT_EQ(countCalls(run.calls, "newProc"), 2);
  EXPECT_EQ(host.liveHandles(), 2);
  expectBalancedLocks(run.calls);
  ParamBlock* params = paramBlockOf(host);
  EXPECT_EQ(params->firstUseDefaults[3], 100);
  // A value only the first-use defaults would overwrite survives a repeat.
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
  EXPECT_EQ(host.unbalancedUnlocks(), 0);
}

TEST(SelectorSequence, ContinueAndUnknownSelectorsUnlockBothHandlesWithoutLocking) {
  Document d = smallLayer();
  HostOptions sixteenBit;  // the record's own rectangles, which the test sets
  sixteenBit.bigDocument = 0;
  Host host(nativeModule(), d, sixteenBit);
  ASSERT_EQ(host.run().result, 0);
  for (int16_t selector : {int16_t(filterSelectorContinue), int16_t(6)}) {
    host.record().inRect = host.record().outRect = host.record().maskRect = PIRect{0, 0, 10, 10};
    host.clearLog();
    EXPECT_EQ(host.call(selector), 0);
    EXPECT_EQ(countCalls(host.log(), "lockProc"), 0);
    EXPECT_EQ(countCalls(host.log(), "unlockProc"), 2);
  }
  // Continue emptied the rectangles; the unknown selector touched nothing.
  EXPECT_EQ(host.record().inRect.right, 10);
  EXPECT_EQ(host.unbalancedUnlocks(), 4);
}

TEST(SelectorSequence, FinishSkippedAfterAnErrorThenANewRun) {
  Document d = smallLayer();
  Host host(linkedModule(), d);
  // Start fails on its lock: the host calls no Finish.
  host.options().failLockProcAt = 5;  // Parameters: 2 locks; Prepare: 2; Start's first
  RunOutcome failed = host.run();
  EXPECT_EQ(failed.startResult, memFullErr);
  EXPECT_EQ(countCalls(failed.calls, "Finish"), 0);
  EXPECT_EQ(hostContext.lastErrorCode, kErrLockFailed);
  host.options().failLockProcAt = 0;
  EXPECT_EQ(host.run(true).result, 0);
  InstanceBlock* instance = instanceBlockOf(host);
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
  EXPECT_FALSE(instance->firstUseFlag);
  ParamBlock* params = paramBlockOf(host);
  // The run's own stores are gone; the source stays until Finish.
  EXPECT_EQ(params->opaqueStore, nullptr);
  EXPECT_EQ(params->distanceStore, nullptr);
  EXPECT_NE(instance->sourceStore.tiles, nullptr);
  host.call(filterSelectorFinish);
  EXPECT_EQ(instance->workTables, nullptr);
  host.call(filterSelectorFinish);  // twice is harmless
  EXPECT_EQ(instance->scratch[0], nullptr);
}

// ---- refusals --------------------------------------------------------------------------

struct RefusalCase {
  const char* name;
  int16_t filterCase;
  int16_t imageMode;
  bool advanceState;
  uint16_t code;
  std::vector<std::string> dialogs;  // asked for, in order
};

void PrintTo(const RefusalCase& c, std::ostream* os) { *os << c.name; }

class Refusal : public ::testing::TestWithParam<RefusalCase> {};

TEST_P(Refusal, ResultOneEmptyRectanglesNoPixelReadItsDialogs) {
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
  EXPECT_EQ(host.dialogs(), c.dialogs);
  EXPECT_EQ(host.advanceCalls(), 0);
  EXPECT_EQ(countCalls(run.calls, "Finish"), 0);
  const FilterRecord& r = host.record();
  EXPECT_EQ(r.inRect.right, 0);
  EXPECT_EQ(r.outRect.right, 0);
  EXPECT_EQ(r.maskRect.right, 0);
  EXPECT_EQ(d.pixels, before);
  // A refused run releases the scratch it allocated.
  EXPECT_EQ(instanceBlockOf(host)->scratch[0], nullptr);
  EXPECT_EQ(instanceBlockOf(host)->workTables, nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Start, Refusal,
    ::testing::Values(
        RefusalCase{"flat", filterCaseFlatImageNoSelection, -1, true, kErrRefusedCase, {"REFUSAL1"}},
        RefusalCase{"flatWithSelection", filterCaseFlatImageWithSelection, -1, true, kErrRefusedCase, {"REFUSAL1"}},
        RefusalCase{"protected", filterCaseProtectedTransparencyNoSelection, -1, true, kErrRefusedCase, {"REFUSAL1"}},
        RefusalCase{"protectedWithSelection", filterCaseProtectedTransparencyWithSelection, -1, true,
                    kErrRefusedCase, {"REFUSAL1"}},
        RefusalCase{"noAdvanceState", -1, -1, false, kErrRefusedNoAdvance, {"REFUSAL2"}},
        // Both: two dialogs, and the later refusal's code stands.
        RefusalCase{"flatAndNoAdvanceState", filterCaseFlatImageNoSelection, -1, false, kErrRefusedNoAdvance,
                    {"REFUSAL1", "REFUSAL2"}},
        RefusalCase{"multichannel", -1, plugInModeMultichannel, true, kErrRefusedMultichannel, {"REFUSAL3"}}),
    [](const ::testing::TestParamInfo<RefusalCase>& info) { return std::string(info.param.name); });

TEST(Refusal, FlatImageThroughTheModuleAsksForTheTransparencyDialogOnly) {
  Document d = standin::Document::make(20, 20, 8, 3, false);
  Host host(nativeModule(), d);
  EXPECT_EQ(host.run().startResult, 1);
  EXPECT_EQ(host.advanceCalls(), 0);
  EXPECT_EQ(host.dialogs(), std::vector<std::string>{"REFUSAL1"});
  // A layer it takes asks for none.
  Document layer = smallLayer();
  Host second(nativeModule(), layer);
  EXPECT_EQ(second.run().result, 0);
  EXPECT_TRUE(second.dialogs().empty());
}

// ---- host failures ---------------------------------------------------------------------------

TEST(HostFailure, EachHandleProcedureFailureEndsWithItsCode) {
  struct Case {
    int failNewProcAt, failLockProcAt;
    uint16_t code;
  };
  for (Case c : {Case{1, 0, kErrParamBlockAlloc}, Case{2, 0, kErrInstanceBlockAlloc}, Case{0, 2, kErrLockFailed}}) {
    Document d = smallLayer();
    HostOptions o;
    o.failNewProcAt = c.failNewProcAt;
    o.failLockProcAt = c.failLockProcAt;
    Host host(linkedModule(), d, o);
    RunOutcome run = host.run();
    EXPECT_EQ(run.result, memFullErr) << c.code;
    EXPECT_EQ(hostContext.lastErrorCode, c.code);
    EXPECT_EQ(countCalls(run.calls, "Prepare"), 0);
    EXPECT_EQ(host.lockedHandles(), 0);
  }
}

TEST(HostFailure, MissingHandlesAtStart) {
  Document d = smallLayer();
  Host host(linkedModule(), d);
  ASSERT_EQ(host.run().result, 0);
  // A host that kept no parameters and skips Prepare's creation.
  host.record().parameters = nullptr;
  EXPECT_EQ(host.call(filterSelectorStart), filterBadParameters);
  EXPECT_EQ(hostContext.lastErrorCode, kErrHandleMissing);
  // A repeat run starts at Prepare and makes the block again.
  RunOutcome repeat = host.run(true);
  EXPECT_EQ(repeat.result, 0);
  EXPECT_EQ(countCalls(repeat.calls, "newProc"), 1);
}

// ---- memory budget ------------------------------------------------------------------------------

TEST(MaxSpace, TwoBytesPerSampleOfA256TileALowerValueKeptTheMaskAPlane) {
  struct Case {
    int32_t width, height, colourPlanes, maxSpace;
    bool mask;
    int32_t expected;
  };
  for (Case c : {Case{300, 10, 3, 1 << 30, false, 4 * 256 * 10 * 2}, Case{300, 10, 3, 20479, false, 20479},
                 Case{100, 300, 1, 1 << 30, true, (2 + 1) * 256 * 100 * 2}}) {
    Document d = standin::makeIslandDocument(c.width, c.height, 8, c.colourPlanes, 1);
    if (c.mask) standin::addDiscMask(d, 1);
    HostOptions o;
    o.maxSpace = c.maxSpace;
    Host host(nativeModule(), d, o);
    host.call(filterSelectorParameters);
    uint8_t maskByte = 255;  // the host presents a mask buffer before Prepare
    if (c.mask) host.record().maskData = &maskByte;
    host.call(filterSelectorPrepare);
    EXPECT_EQ(host.record().maxSpace, c.expected);
    EXPECT_EQ(host.record().bufferSpace, 0);
  }
}

TEST(About, TouchesNoHandle) {
  Document d = smallLayer();
  Host host(nativeModule(), d);
  EXPECT_EQ(host.about(), 0);
  EXPECT_EQ(countCalls(host.log(), "unlockProc"), 0);
  EXPECT_EQ(host.liveHandles(), 0);
}

// ---- progress ---------------------------------------------------------------------------------

// The host's progress bar for a small layer. The pool reports at most once a
// clock second, so a run that straddles a second may show one report more:
// the sequence must come out exact in one of three runs.
TEST(Progress, SequenceOfASmallLayer) {
  const std::vector<std::pair<int32_t, int32_t>> expected = {{2, 100},    {501, 1000}, {501, 1000}, {501, 1000},
                                                              {501, 1000}, {501, 1000}, {501, 1000}, {1001, 1000}};
  std::vector<std::pair<int32_t, int32_t>> seen;
  for (int attempt = 0; attempt < 3 && (attempt == 0 || seen != expected); ++attempt) {
    Document d = smallLayer(64, 48);
    Host host(nativeModule(), d);
    ASSERT_EQ(host.run().result, 0);
    seen = host.progressLog();
  }
  EXPECT_EQ(seen, expected);
}

// ---- the strict host's answers --------------------------------------------------------------

namespace {

// A plug-in of the test's own that asks for one input row and keeps its bytes.
struct Request {
  int16_t padding;
  Fixed rate;
  int16_t left, right, hiPlane;
  OSErr answer;
  std::vector<int> row;  // plane 0 of each pixel
};
Request request;

void PI_CALL requestOneRow(int16_t selector, void* record, intptr_t*, int16_t*) {
  if (selector != filterSelectorStart) return;
  FilterRecord* r = static_cast<FilterRecord*>(record);
  r->inRect = PIRect{0, request.left, 1, request.right};
  r->inLoPlane = 0;
  r->inHiPlane = request.hiPlane;
  r->inputRate = request.rate;
  r->inputPadding = request.padding;
  request.answer = r->advanceState();
  const uint8_t* data = static_cast<const uint8_t*>(r->inData);
  for (int x = 0; data != nullptr && x < request.right - request.left; ++x)
    request.row.push_back(data[x * (request.hiPlane + 1)]);
  r->inRect = PIRect{};
}

}  // namespace

// Padding codes past the image, whole rates sampled, and what a host refuses:
// the bounds error, a rate of a part pixel, a plane the layer has not.
TEST(StrictHost, PaddingRateAndPlanesAsPhotoshopAnswersThem) {
  const int x = 0xEE;  // undefined: what the buffer held
  const Request cases[] = {
      {plugInWantsEdgeReplication, 0x10000, -1, 6, 1, noErr, {1, 1, 2, 3, 4, 4, 4}},
      {7, 0x10000, -1, 6, 1, noErr, {7, 1, 2, 3, 4, 7, 7}},
      {plugInDoesNotWantPadding, 0x10000, -1, 6, 1, noErr, {x, 1, 2, 3, 4, x, x}},
      {plugInWantsErrorOnBoundsException, 0x10000, 0, 4, 1, noErr, {1, 2, 3, 4}},
      {plugInWantsErrorOnBoundsException, 0x10000, 0, 5, 1, paramErr, {}},
      {plugInWantsEdgeReplication, 0x20000, -1, 3, 1, noErr, {1, 1, 3, 3}},
      {plugInWantsErrorOnBoundsException, 0x20000, 0, 3, 1, paramErr, {}},
      {plugInWantsEdgeReplication, 0x18000, 0, 2, 1, paramErr, {}},
      {plugInWantsEdgeReplication, 0x10000, 0, 4, 2, paramErr, {}},
  };
  standin::setViolationObserver(nullptr);
  standin::Module fake;
  fake.pluginMain = requestOneRow;
  for (const Request& c : cases) {
    Document d = Document::make(4, 2, 8, 1, true);
    for (int i = 0; i < 4; ++i) d.setSample(i, 0, 0, i + 1), d.setSample(i, 1, 0, 9);
    HostOptions sixteenBit;  // the fake asks through the record's own rectangles
    sixteenBit.bigDocument = 0;
    Host host(fake, d, sixteenBit);
    request = Request{c.padding, c.rate, c.left, c.right, c.hiPlane, 1, {}};
    host.run();
    SCOPED_TRACE(testing::Message() << "padding " << c.padding << " rate " << c.rate << " planes " << c.hiPlane);
    EXPECT_EQ(request.answer, c.answer);
    EXPECT_EQ(request.row, c.row);
    EXPECT_EQ(host.violations().size(), c.answer == noErr ? 0u : 1u);
  }
}

// The output has a row step of its own, and a missing unlock is a violation.
TEST(StrictHost, OutputRowsOfTheirOwnAndEveryLockAnswered) {
  Document d = smallLayer();
  Host host(linkedModule(), d);
  ASSERT_EQ(host.run().result, 0);
  EXPECT_NE(host.record().outRowBytes, host.record().inRowBytes);
  standin::setViolationObserver(nullptr);
  host.call(filterSelectorParameters);
  host.record().handleProcs->lockProc(host.record().parameters, 1);
  host.call(filterSelectorPrepare);
  EXPECT_EQ(host.violations(), std::vector<std::string>{"a handle stays locked after Prepare"});
}

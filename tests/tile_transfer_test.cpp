// The layer coming in from the host: the rectangles asked, the tiles copied,
// hosts that fall short, and reads the host breaks off.
#include <gtest/gtest.h>

#include "host/plugin_main.h"
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

// The advanceState calls of the reading: those before the first render tile,
// which is at most 128 wide.
std::vector<HostCall> readCalls(const RunOutcome& run) {
  std::vector<HostCall> reads;
  for (const HostCall& c : run.calls) {
    if (c.name != "advanceState") continue;
    if (c.inRect.width() != 512) break;
    reads.push_back(c);
  }
  return reads;
}

std::vector<HostCall> advanceCalls(const RunOutcome& run) {
  std::vector<HostCall> calls;
  for (const HostCall& c : run.calls)
    if (c.name == "advanceState") calls.push_back(c);
  return calls;
}

}  // namespace

TEST(TileTransfer, A513WideLayerReadsTwoTileColumns) {
  Document d = standin::makeIslandDocument(513, 40, 8, 3, 3);
  Host host(nativeModule(), d);
  RunOutcome run = host.run();
  ASSERT_EQ(run.result, 0);
  std::vector<HostCall> reads = readCalls(run);
  ASSERT_EQ(reads.size(), 2u);
  EXPECT_EQ(reads[0].inRect, (Rect{0, 0, 40, 512}));
  EXPECT_EQ(reads[1].inRect, (Rect{0, 512, 40, 1024}));
  // During the reading the output and the mask are the filter rectangle's corner.
  EXPECT_EQ(reads[0].outRect, (Rect{0, 0, 1, 1}));
  EXPECT_EQ(reads[0].maskRect, (Rect{0, 0, 1, 1}));
}

TEST(TileTransfer, A512SquareIsOneTileAndOneAdvance) {
  Document d = standin::makeIslandDocument(512, 512, 8, 1, 4);
  Host host(nativeModule(), d);
  RunOutcome run = host.run();
  ASSERT_EQ(run.result, 0);
  EXPECT_EQ(readCalls(run).size(), 1u);
  // Then 16 render tiles of 128 by 128.
  EXPECT_EQ(advanceCalls(run).size(), 1u + 16u);
}

TEST(TileTransfer, RectanglesInEveryPhaseOfARun) {
  Document d = standin::makeIslandDocument(300, 140, 16, 3, 5);
  standin::addDiscMask(d, 5);
  Host host(nativeModule(), d);
  RunOutcome run = host.run();
  ASSERT_EQ(run.result, 0);
  std::vector<HostCall> calls = advanceCalls(run);
  ASSERT_EQ(calls.size(), 1u + 3u * 2u);
  // Reading: 512 wide, up to 512 high, the mask at the corner.
  EXPECT_EQ(calls[0].inRect, (Rect{0, 0, 140, 512}));
  EXPECT_EQ(calls[0].maskRect, (Rect{0, 0, 1, 1}));
  // Rendering: in, out and mask all the unit's rectangle.
  for (size_t i = 1; i < calls.size(); ++i) {
    EXPECT_EQ(calls[i].inRect, calls[i].outRect);
    EXPECT_EQ(calls[i].maskRect, calls[i].outRect);
    EXPECT_LE(calls[i].outRect.width(), 128);
    EXPECT_LE(calls[i].outRect.height(), 128);
  }
  // At the end the host's rectangles are given back (empty, as the host left them).
  EXPECT_EQ(host.record().inRect.right, 0);
  EXPECT_EQ(host.record().outRect.right, 0);
}

TEST(TileTransfer, FloatCoordOffsetsEveryRectangleAsked) {
  Document plain = standin::makeIslandDocument(150, 150, 8, 3, 8);
  Document shifted = plain;
  HostOptions o;
  o.floatCoordH = 50;
  o.floatCoordV = 100;
  // The host's document is larger: the layer's origin sits at (100, 50) in it.
  Host host(nativeModule(), shifted, o);
  RunOutcome run = host.run();
  ASSERT_EQ(run.result, 0);
  std::vector<HostCall> reads = readCalls(run);
  ASSERT_EQ(reads.size(), 1u);
  EXPECT_EQ(reads[0].inRect, (Rect{100, 50, 250, 562}));
}

TEST(TileTransfer, FilterRectangleOffTheOriginStillReadsFromTheOrigin) {
  Document d = standin::makeIslandDocument(200, 100, 8, 3, 9);
  HostOptions o;
  o.filterRect = Rect{10, 20, 90, 180};
  Host host(nativeModule(), d, o);
  RunOutcome run = host.run();
  ASSERT_EQ(run.result, 0);
  std::vector<HostCall> reads = readCalls(run);
  ASSERT_EQ(reads.size(), 1u);
  EXPECT_EQ(reads[0].inRect, (Rect{0, 0, 80, 512}));
  EXPECT_EQ(reads[0].outRect, (Rect{10, 20, 11, 21}));
}

TEST(TileTransfer, HostThatCannotPadGivesTheSameOutput) {
  for (int depth : {8, 16, 32}) {
    SCOPED_TRACE(depth);
    Document padded = standin::makeIslandDocument(530, 70, depth, depth == 16 ? 1 : 3, 10 + depth);
    Document clipped = padded;
    Host a(nativeModule(), padded);
    ASSERT_EQ(a.run().result, 0);
    HostOptions o;
    o.supportsPadding = false;
    Host b(nativeModule(), clipped, o);
    ASSERT_EQ(b.run().result, 0);
    EXPECT_EQ(standin::documentDigest(padded), standin::documentDigest(clipped));
  }
}

TEST(TileTransfer, NullBuffersAreSkippedNotAddressed) {
  Document d = standin::makeIslandDocument(140, 90, 8, 3, 11);
  std::vector<uint8_t> before = d.pixels;
  HostOptions o;
  o.nullBuffers = true;
  Host host(nativeModule(), d, o);
  RunOutcome run = host.run();
  EXPECT_EQ(run.result, 0);
  // Nothing could be written, and nothing was.
  EXPECT_EQ(d.pixels, before);
}

TEST(TileTransfer, ReadBrokenOffByTheHostLeavesItsCodeAndTheRunGoesOn) {
  Document d = standin::makeIslandDocument(600, 50, 8, 3, 12);
  HostOptions o;
  o.failAdvanceAt = 2;  // the second tile of the reading
  o.advanceError = memFullErr;
  Host host(linkedModule(), d, o);
  RunOutcome run = host.run();
  // The steps go on: the render asks for its tiles, and their answers stand.
  EXPECT_GT(host.advanceCalls(), 2);
  EXPECT_EQ(hostContext.lastErrorCode, kErrReadAdvance);
  EXPECT_EQ(run.startResult, 0);
}

TEST(TileTransfer, TwoRunsInARowReadTheImageTwice) {
  Document d = standin::makeIslandDocument(100, 100, 8, 3, 13);
  Host host(nativeModule(), d);
  RunOutcome first = host.run();
  ASSERT_EQ(first.result, 0);
  RunOutcome second = host.run(true);
  ASSERT_EQ(second.result, 0);
  EXPECT_EQ(readCalls(first).size(), 1u);
  EXPECT_EQ(readCalls(second).size(), 1u);
}

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

// The reading's tiles: 512 wide, up to 512 high, offset by floatCoord (the
// layer's origin in a larger document), from the origin whatever the filter
// rectangle; meanwhile output and mask ask for the filter rectangle's corner.
TEST(TileTransfer, ReadTilesAsked) {
  struct Case {
    int32_t w, h, colourPlanes;
    int32_t floatH, floatV;
    Rect filter;
    std::vector<Rect> reads;
    Rect corner;
    size_t advances;  // reads and then render tiles of 128 by 128
  };
  const Case cases[] = {
      {513, 40, 3, 0, 0, Rect{}, {Rect{0, 0, 40, 512}, Rect{0, 512, 40, 1024}}, Rect{0, 0, 1, 1}, 2 + 5},
      {512, 512, 1, 0, 0, Rect{}, {Rect{0, 0, 512, 512}}, Rect{0, 0, 1, 1}, 1 + 16},
      {150, 150, 3, 50, 100, Rect{}, {Rect{100, 50, 250, 562}}, Rect{0, 0, 1, 1}, 1 + 4},
      {200, 100, 3, 0, 0, Rect{10, 20, 90, 180}, {Rect{0, 0, 80, 512}}, Rect{10, 20, 11, 21}, 1 + 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.w << " x " << c.h);
    Document d = standin::makeIslandDocument(c.w, c.h, 8, c.colourPlanes, uint64_t(c.w));
    HostOptions o;
    o.floatCoordH = c.floatH;
    o.floatCoordV = c.floatV;
    o.filterRect = c.filter;
    Host host(nativeModule(), d, o);
    RunOutcome run = host.run();
    ASSERT_EQ(run.result, 0);
    std::vector<HostCall> reads = readCalls(run);
    ASSERT_EQ(reads.size(), c.reads.size());
    for (size_t i = 0; i < reads.size(); ++i) {
      EXPECT_EQ(reads[i].inRect, c.reads[i]) << standin::describe(reads[i].inRect);
      EXPECT_EQ(reads[i].outRect, c.corner) << standin::describe(reads[i].outRect);
      EXPECT_EQ(reads[i].maskRect, c.corner) << standin::describe(reads[i].maskRect);
    }
    EXPECT_EQ(advanceCalls(run).size(), c.advances);
  }
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

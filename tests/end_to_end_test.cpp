// The filter from end to end through the stand-in host and the native module:
// every depth and plane count, selections, host coordinate forms, odd sizes,
// cancel, thread counts, and the pinned digests of the standard scenarios.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>

#include "tests/support/test_support.h"

using standin::Document;
using standin::Host;
using standin::HostOptions;
using standin::RunOutcome;
using testing_support::countCalls;
using testing_support::availableCpus;
using testing_support::nativeModule;
using testing_support::pinToCpus;

namespace {

double fullScale(const Document& d) { return d.depth == 8 ? 255.0 : d.depth == 16 ? 32768.0 : 1.0; }

// Every pixel's alpha is full scale.
int countNotOpaque(const Document& d) {
  int n = 0;
  for (int32_t y = 0; y < d.height; ++y)
    for (int32_t x = 0; x < d.width; ++x) n += d.sample(x, y, d.colourPlanes) != fullScale(d) ? 1 : 0;
  return n;
}

std::string runDigest(Document d, HostOptions o = HostOptions()) {
  Host host(nativeModule(), d, o);
  RunOutcome run = host.run();
  EXPECT_EQ(run.result, 0);
  return standin::documentDigest(d);
}

struct Layout {
  int depth;
  int colourPlanes;
  bool mask;
};

std::string layoutName(const ::testing::TestParamInfo<Layout>& info) {
  const Layout& l = info.param;
  return std::string(l.colourPlanes == 3 ? "rgb" : "gray") + std::to_string(l.depth) + (l.mask ? "_mask" : "");
}

class EveryLayout : public ::testing::TestWithParam<Layout> {};

}  // namespace

TEST_P(EveryLayout, HolesComeBackFilledAndOpaque) {
  const Layout& l = GetParam();
  Document d = standin::makeIslandDocument(211, 143, l.depth, l.colourPlanes, 77);
  if (l.mask) standin::addDiscMask(d, 77);
  Document before = d;
  Host host(nativeModule(), d);
  RunOutcome run = host.run();
  ASSERT_EQ(run.result, 0);
  // 2 by 2 render tiles, one read tile.
  EXPECT_EQ(host.advanceCalls(), 1 + 4);
  if (!l.mask) {
    EXPECT_EQ(countNotOpaque(d), 0);
    return;
  }
  // Unselected pixels come back as they were; fully selected ones opaque.
  for (int32_t y = 0; y < d.height; ++y) {
    for (int32_t x = 0; x < d.width; ++x) {
      uint8_t m = d.mask[size_t(y) * size_t(d.width) + size_t(x)];
      if (m == 0) {
        ASSERT_EQ(memcmp(d.at(x, y), before.at(x, y), d.pixelBytes()), 0) << x << "," << y;
      } else if (m == 255) {
        ASSERT_EQ(d.sample(x, y, d.colourPlanes), fullScale(d)) << x << "," << y;
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Filter, EveryLayout,
                         ::testing::Values(Layout{8, 3, false}, Layout{8, 1, false}, Layout{16, 3, false},
                                           Layout{16, 1, false}, Layout{32, 3, false}, Layout{32, 1, false},
                                           Layout{8, 3, true}, Layout{16, 1, true}, Layout{32, 3, true}),
                         layoutName);

TEST(Filter, FlatOpaqueIslandKeepsItsColourExactly) {
  for (int depth : {8, 16}) {
    Document d = Document::make(200, 200, depth, 3, true);
    double full = depth == 8 ? 255.0 : 32768.0;
    double colour[3] = {depth == 8 ? 200.0 : 25000.0, depth == 8 ? 17.0 : 1234.0, depth == 8 ? 99.0 : 32768.0};
    for (int32_t y = 60; y < 140; ++y)
      for (int32_t x = 60; x < 140; ++x) {
        for (int c = 0; c < 3; ++c) d.setSample(x, y, c, colour[c]);
        d.setSample(x, y, 3, full);
      }
    Host host(nativeModule(), d);
    ASSERT_EQ(host.run().result, 0);
    // The island's colour continues over the whole layer.
    for (int32_t y = 0; y < 200; y += 7)
      for (int32_t x = 0; x < 200; x += 7)
        for (int c = 0; c < 3; ++c) ASSERT_EQ(d.sample(x, y, c), colour[c]) << depth << " " << x << "," << y;
    EXPECT_EQ(countNotOpaque(d), 0);
  }
}

TEST(Filter, WhollyOpaqueLayerRunsEveryStepAndWritesEveryTile) {
  Document d = Document::make(300, 130, 8, 3, true);
  const double colour[4] = {90, 140, 230, 255};
  for (int32_t y = 0; y < d.height; ++y)
    for (int32_t x = 0; x < d.width; ++x)
      for (int c = 0; c < 4; ++c) d.setSample(x, y, c, colour[c]);
  Document before = d;
  Host host(nativeModule(), d);
  ASSERT_EQ(host.run().result, 0);
  EXPECT_EQ(host.advanceCalls(), 1 + 3 * 2);
  EXPECT_EQ(d.pixels, before.pixels);
}

TEST(Filter, ZeroSelectionLeavesEveryValueAsItWas) {
  for (int depth : {8, 16}) {
    Document d = standin::makeIslandDocument(120, 90, depth, 3, 5);
    d.mask.assign(size_t(d.width) * size_t(d.height), 0);
    Document before = d;
    Host host(nativeModule(), d);
    ASSERT_EQ(host.run().result, 0);
    EXPECT_EQ(d.pixels, before.pixels) << depth;
  }
}

TEST(Filter, FullMaskByteIsTheSameAsNoSelection) {
  Document plain = standin::makeIslandDocument(150, 100, 8, 3, 6);
  Document masked = plain;
  masked.mask.assign(size_t(masked.width) * size_t(masked.height), 255);
  EXPECT_EQ(runDigest(plain), runDigest(masked));
}

TEST(Filter, OddRectangles) {
  struct Size {
    int32_t w, h;
    int renderTiles;
  };
  for (Size s : {Size{1, 1, 1}, Size{130, 1, 2}, Size{1, 130, 2}, Size{513, 20, 5}, Size{2, 2, 1}, Size{1, 5000, 40},
                 Size{5000, 1, 40}}) {
    SCOPED_TRACE(testing::Message() << s.w << "x" << s.h);
    Document d = standin::makeIslandDocument(s.w, s.h, 8, 3, 21);
    Host host(nativeModule(), d);
    ASSERT_EQ(host.run().result, 0);
    int readTiles = (s.w + 511) / 512 * ((s.h + 511) / 512);
    EXPECT_EQ(host.advanceCalls(), readTiles + s.renderTiles);
    EXPECT_EQ(countNotOpaque(d), 0);
  }
}

TEST(Filter, LayerWithNoCoverAtAll) {
  Document d = Document::make(64, 64, 8, 3, true);  // every alpha 0
  Host host(nativeModule(), d);
  ASSERT_EQ(host.run().result, 0);
  EXPECT_EQ(countNotOpaque(d), 0);
}

TEST(Filter, SameOutputOnOneAndOnAllProcessors) {
  Document d = standin::makeIslandDocument(400, 300, 8, 3, 31);
  pinToCpus(1);
  std::string one = runDigest(d);
  pinToCpus(availableCpus());
  std::string all = runDigest(d);
  EXPECT_EQ(one, all);
}

TEST(Filter, RunCancelledAtItsLastUnitLeavesThatTileUnwritten) {
  Document reference = standin::makeIslandDocument(300, 200, 8, 3, 41);
  Document input = reference;
  Host full(nativeModule(), reference);
  RunOutcome run = full.run();
  ASSERT_EQ(run.result, 0);
  int polls = countCalls(run.calls, "abortProc");
  ASSERT_GT(polls, 6);
  // Stop at the last poll of the run: the last unit to be collected.
  Document cancelled = input;
  HostOptions o;
  o.abortAtPoll = polls;
  Host host(nativeModule(), cancelled, o);
  RunOutcome stopped = host.run();
  EXPECT_EQ(stopped.startResult, userCanceledErr);
  // Exactly one render tile kept the input's pixels; the rest is as in the full run.
  int differingTiles = 0;
  for (int32_t ty = 0; ty < 2; ++ty)
    for (int32_t tx = 0; tx < 3; ++tx) {
      bool same = true, asInput = true;
      for (int32_t y = ty * 128; y < std::min(200, ty * 128 + 128); ++y)
        for (int32_t x = tx * 128; x < std::min(300, tx * 128 + 128); ++x) {
          same = same && memcmp(cancelled.at(x, y), reference.at(x, y), 4) == 0;
          asInput = asInput && memcmp(cancelled.at(x, y), input.at(x, y), 4) == 0;
        }
      if (!same) {
        ++differingTiles;
        EXPECT_TRUE(asInput) << "tile " << tx << "," << ty;
      }
    }
  EXPECT_EQ(differingTiles, 1);
  // The latch holds: a later run in this process writes nothing.
  Document again = input;
  Host later(nativeModule(), again);
  later.run();
  EXPECT_EQ(again.pixels, input.pixels);
}

namespace {

std::map<std::string, std::string> goldenDigests() {
  std::ifstream file(testing_support::sourcePath("tests/golden_digests.txt"));
  EXPECT_TRUE(file.good());
  std::map<std::string, std::string> expected;
  std::string line;
  while (std::getline(file, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream fields(line);
    std::string name, result, digest;
    fields >> name >> result >> digest;
    expected[name] = result + " " + digest;
  }
  return expected;
}

// Every standard scenario against its pinned digest, through a host that
// copies its tiles or one that lends its rows to be read; the number of
// tiles lent.
int checkScenarios(bool lend) {
  std::map<std::string, std::string> expected = goldenDigests();
  int checked = 0;
  int lent = 0;
  for (standin::Scenario& s : standin::standardScenarios()) {
    s.options.lendInputRows = lend;
    Host host(nativeModule(), s.document, s.options);
    RunOutcome run = host.run();
    lent += host.lentInputTiles();
    std::string got = std::to_string(run.result) + " " + standin::documentDigest(s.document);
    EXPECT_TRUE(expected.count(s.name)) << "no golden digest for " << s.name << ": " << got;
    EXPECT_EQ(got, expected[s.name]) << s.name;
    ++checked;
  }
  EXPECT_EQ(checked, int(expected.size()));
  return lent;
}

}  // namespace

// The standard scenarios' output digests are pinned. A change of output shows
// here; update tests/golden_digests.txt only with a stated reason.
TEST(Golden, StandardScenarioDigests) { EXPECT_EQ(checkScenarios(false), 0); }

// The command-line tool's host lends the document's rows instead of copying
// them; the filter must give the same bytes.
TEST(Golden, AHostThatLendsItsRowsGivesTheSameDigests) { EXPECT_GT(checkScenarios(true), 0); }

// Box smoothing of lines: the float box with its running sum, the integer
// boxes, moving lines in and out of stores, and whole passes over a store.
#include <gtest/gtest.h>

#include <string.h>

#include <random>
#include <vector>

#include "fill/line_smooth.h"
#include "store/pixel_store.h"
#include "tests/support/test_support.h"

namespace {

using testing_support::OwnedStore;

struct ContextHolder {
  PassContext context;
  ContextHolder() { memset(&context, 0, sizeof context); }
  ~ContextHolder() { freeLineBuffer(&context); }
};

float norm(int32_t cells) { return float(1.0 / double(cells)); }

// ---- the float box ----------------------------------------------------------------------------------

TEST(BoxLineFloat, WorkedLines) {
  struct Case {
    std::vector<float> in;
    int32_t back, forward;
    std::vector<float> sums;  // each output is its window's sum times the norm
  };
  const Case cases[] = {
      // A constant slides exactly: 6 * 7.25 = 43.5; only the norm rounds.
      {std::vector<float>(12, 7.25f), 2, 3, std::vector<float>(12, 43.5f)},
      // Centred, ends repeated: 1+1+2, 6, 9, 12, 4+5+5.
      {{1, 2, 3, 4, 5}, 1, 1, {4, 6, 9, 12, 14}},
      {{1, 2, 3, 4, 5}, 0, 3, {10, 14, 17, 19, 20}},  // ahead only
      {{8, 0, 0, 4}, 1, 0, {16, 8, 0, 4}},            // behind only
      {{3}, 2, 3, {18}},                              // one cell, back + forward + 1 times
      // Far cells of a distance field hold millions; the sum keeps what
      // rounding did on the way: 27e6; 18000000.5 rounds to 18e6; 9000000.5
      // to 9e6 (ties to even), losing the 0.5 of cell 3; then 0.5 where a sum
      // made afresh has 1.5.
      {{9e6f, 9e6f, 0.5f, 0.5f, 0.5f, 0.5f}, 1, 1, {27e6f, 18e6f, 9e6f, 0.5f, 0.5f, 0.5f}},
  };
  for (const Case& c : cases) {
    std::vector<float> out(c.in.size(), -1.0f);
    boxLineFloat(c.in.data(), out.data(), 0, int32_t(c.in.size()), c.back, c.forward);
    for (size_t i = 0; i < out.size(); ++i)
      EXPECT_EQ(out[i], c.sums[i] * norm(c.back + c.forward + 1)) << c.back << "/" << c.forward << " at " << i;
  }
  EXPECT_NEAR(43.5f * norm(6), 7.25f, 1e-5f);
}

// ---- the integer boxes ----------------------------------------------------------------------------------

TEST(BoxLineInteger, ReciprocalDividesExactly) {
  // Windows of many lengths over random bytes and 16-bit values: every output
  // is the window's sum divided by its length, truncated.
  ContextHolder c;
  std::mt19937 rng(7);
  std::vector<uint8_t> bytes(700);
  std::vector<uint16_t> words(4 * 700);
  for (auto& b : bytes) b = uint8_t(rng() & 255);
  for (auto& w : words) w = uint16_t(rng() % 32769);
  for (int32_t back = 0; back < 40; back += 3) {
    for (int32_t forward = 0; forward < 300; forward += 37) {
      if (back == 0 && forward == 0) continue;
      const int32_t n = int32_t(bytes.size());
      std::vector<uint8_t> out(bytes.size());
      boxLineU8(&c.context, bytes.data(), out.data(), n, back, forward);
      std::vector<uint16_t> out16(words.size());
      boxLineU16x4(&c.context, words.data(), out16.data(), n, back, forward);
      for (int32_t i = 0; i < n; ++i) {
        uint32_t sum = 0;
        uint32_t sums[3] = {0, 0, 0};
        for (int32_t k = i - back; k <= i + forward; ++k) {
          const int32_t j = k < 0 ? 0 : (k > n - 1 ? n - 1 : k);
          sum += bytes[size_t(j)];
          for (int ch = 0; ch < 3; ++ch) sums[ch] += words[size_t(4 * j + ch)];
        }
        const uint32_t cells = uint32_t(back + forward + 1);
        ASSERT_EQ(out[size_t(i)], sum / cells) << back << "/" << forward << " at " << i;
        for (int ch = 0; ch < 3; ++ch) ASSERT_EQ(out16[size_t(4 * i + ch)], sums[ch] / cells);
        ASSERT_EQ(out16[size_t(4 * i + 3)], words[size_t(4 * i + 3)]);  // the fourth channel passes
      }
    }
  }
}

TEST(BoxLineInteger, FourBytesSmoothThreeAndSetTheFourth) {
  ContextHolder c;
  const uint32_t in[4] = {0x10203000u, 0x10203011u, 0x40506022u, 0x40506033u};
  uint32_t out[4];
  boxLineU8x4(&c.context, in, out, 4, 0, 1);
  // Channel 0: (16+16)/2, (16+64)/2, (64+64)/2, 64; channels 1, 2 likewise; channel 3 255.
  EXPECT_EQ(out[0], 0x102030ffu);
  EXPECT_EQ(out[1], 0x283848ffu);
  EXPECT_EQ(out[2], 0x405060ffu);
  EXPECT_EQ(out[3], 0x405060ffu);
}

TEST(BoxLineInteger, WorkedLines) {
  ContextHolder c;
  const uint8_t bytes[3] = {0, 10, 20};
  uint8_t out[3];
  boxLineU8(&c.context, bytes, out, 3, 1, 1);
  EXPECT_EQ(std::vector<uint8_t>(out, out + 3), (std::vector<uint8_t>{3, 10, 16}));  // 10, 30, 50 over 3
  const uint16_t words[3] = {32768, 0, 1};
  uint16_t out16[3];
  boxLineU16(words, out16, 3, 1, 1);
  EXPECT_EQ(std::vector<uint16_t>(out16, out16 + 3), (std::vector<uint16_t>{21845, 10923, 0}));
  std::vector<uint8_t> flat(100, 201), flatOut(100);
  boxLineU8(&c.context, flat.data(), flatOut.data(), 100, 2, 3);
  EXPECT_EQ(flatOut, flat);
}

// ---- lines of a store ---------------------------------------------------------------------------------

TEST(CopyLine, RowsAndColumnsAcrossTiles) {
  OwnedStore s(600, 530, kKindFloat);
  for (int32_t y = 0; y < 530; ++y)
    for (int32_t x = 0; x < 600; ++x) writeFloat(x, y, s.store, 0, float(y * 1000 + x));
  std::vector<float> line(700, -1.0f);
  copyLine(s.store, 0, 520, 500, 530, line.data(), false, false);
  for (int32_t i = 0; i < 30; ++i) EXPECT_EQ(line[size_t(i)], float(520 * 1000 + 500 + i));
  EXPECT_EQ(line[30], -1.0f);

  copyLine(s.store, 0, 513, -20, 900, line.data(), false, true);  // clipped to 0..530
  for (int32_t i = 0; i < 530; ++i) ASSERT_EQ(line[size_t(i)], float(i * 1000 + 513));
  EXPECT_EQ(line[530], -1.0f);

  // Back into the store, in another column.
  copyLine(s.store, 0, 2, 0, 530, line.data(), true, true);
  for (int32_t y = 0; y < 530; ++y) ASSERT_EQ(readFloat(2, y, s.store, 0), float(y * 1000 + 513));
  EXPECT_EQ(readFloat(3, 7, s.store, 0), float(7003));
}

TEST(CopyLine, SmallKindsMoveWholePixels) {
  OwnedStore s(700, 3, kKindRgba16);
  for (int32_t x = 0; x < 700; ++x) {
    const int32_t v[4] = {x, x + 1, x + 2, 9};
    writeU16x4(x, 1, s.store, 0, v);
  }
  std::vector<uint16_t> line(4 * 700);
  copyLine(s.store, 0, 1, 0, 700, line.data(), false, false);
  for (int32_t x = 0; x < 700; ++x) {
    ASSERT_EQ(line[size_t(4 * x)], x);
    ASSERT_EQ(line[size_t(4 * x + 3)], 9);
  }
}

TEST(SmoothPasses, PartOfARowLeavesTheRestAlone) {
  OwnedStore s(20, 2, kKindFloat);
  for (int32_t x = 0; x < 20; ++x) writeFloat(x, 0, s.store, 0, float(x));
  ContextHolder c;
  ASSERT_TRUE(makeLineBuffer(&c.context, s.store));
  filterRow(s.store, 0, &c.context, 5, 10, 0, 1, 1);
  for (int32_t x = 0; x < 5; ++x) EXPECT_EQ(readFloat(x, 0, s.store, 0), float(x));
  for (int32_t x = 10; x < 20; ++x) EXPECT_EQ(readFloat(x, 0, s.store, 0), float(x));
  // Inside, the line is 5..9 alone, its ends repeated: (5+5+6)/3, ...
  EXPECT_EQ(readFloat(5, 0, s.store, 0), 16.0f * norm(3));
  EXPECT_EQ(readFloat(7, 0, s.store, 0), 21.0f * norm(3));
  EXPECT_EQ(readFloat(9, 0, s.store, 0), 26.0f * norm(3));  // 8 + 9 + 9
}

TEST(SmoothPasses, IntegerKindsThroughTheStore) {
  OwnedStore s(6, 4, kKindRgba8);
  for (int32_t x = 0; x < 6; ++x) {
    const int32_t v[4] = {30 * x, 60, 255 - 30 * x, 7};
    writeU8x4(x, 2, s.store, 0, v);
  }
  ContextHolder c;
  ASSERT_TRUE(makeLineBuffer(&c.context, s.store));
  filterRow(s.store, 2, &c.context, 0, 6, 0, 1, 1);
  int32_t v[4];
  readU8x4(0, 2, s.store, 0, v);
  EXPECT_EQ(v[0], 10);   // (0 + 0 + 30) / 3
  EXPECT_EQ(v[1], 60);
  EXPECT_EQ(v[2], 245);  // (255 + 255 + 225) / 3
  EXPECT_EQ(v[3], 255);
  readU8x4(5, 2, s.store, 0, v);
  EXPECT_EQ(v[0], 140);  // (120 + 150 + 150) / 3
  // Row 1 was not touched.
  readU8x4(0, 1, s.store, 0, v);
  EXPECT_EQ(v[3], 0);
}

TEST(SmoothPasses, ColumnOfAOneRowStore) {
  OwnedStore s(3, 1, kKindFloat);
  writeFloat(1, 0, s.store, 0, 5.0f);
  ContextHolder c;
  ASSERT_TRUE(makeLineBuffer(&c.context, s.store));
  filterColumn(s.store, 1, &c.context, 0, 1, 0, 2, 3);
  EXPECT_EQ(readFloat(1, 0, s.store, 0), 30.0f * norm(6));
}

}  // namespace

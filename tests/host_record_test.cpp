// The host record layer on a record of our own: 16- and 32-bit rectangles,
// the format tests, the memory operations.
#include <gtest/gtest.h>
#include <string.h>

#include "host/blocks.h"
#include "host/host_record.h"
#include "host/plugin_main.h"
#include "store/pixel_store.h"

namespace {

struct RecordFixture : ::testing::Test {
  FilterRecord record;
  BigDocumentRecord big;
  void SetUp() override {
    memset(&record, 0, sizeof(record));
    memset(&big, 0, sizeof(big));
    hostContext.filterRecord = &record;
    hostContext.paramBlock = nullptr;
    hostContext.instanceBlock = nullptr;
  }
  void TearDown() override { hostContext.filterRecord = nullptr; }
};

}  // namespace

using HostRecord = RecordFixture;

TEST_F(HostRecord, SixteenBitRectanglesAreSignExtendedAndCut) {
  record.filterRect = PIRect{-5, 10, 300, 32767};
  const VRect r = getFilterRect();
  EXPECT_TRUE(r.top == -5 && r.left == 10 && r.bottom == 300 && r.right == 32767);
  setInRect(VRect{1, 2, 70000, 4});
  const PIRect& in = record.inRect;
  EXPECT_TRUE(in.top == 1 && in.left == 2 && in.bottom == int16_t(70000 & 0xFFFF) && in.right == 4);
}

// The big-document record is read and written only while its flag is set.
TEST_F(HostRecord, BigDocumentRecordOnlyWithItsFlag) {
  record.bigDocumentData = &big;
  big.PluginUsing32BitCoordinates = 0;
  big.filterRect32 = PIVRect{0, 0, 100000, 100000};
  record.filterRect = PIRect{0, 0, 50, 60};
  EXPECT_FALSE(usesBigDocument());
  EXPECT_EQ(getFilterRect().right, 60);
  setOutRect(VRect{1, 2, 3, 4});
  EXPECT_EQ(record.outRect.right, 4);
  EXPECT_EQ(big.outRect32.right, 0);
  big.PluginUsing32BitCoordinates = 1;
  big.filterRect32 = PIVRect{0, 0, 100000, 70000};
  big.floatCoord32 = PIVPoint{40000, -3};
  EXPECT_EQ(getFilterRect().bottom, 100000);
  EXPECT_EQ(getFloatCoord().v, 40000);
  EXPECT_EQ(getFloatCoord().h, -3);
  setMaskRect(VRect{65536, 1, 65537, 2});
  EXPECT_EQ(big.maskRect32.top, 65536);
  EXPECT_EQ(record.maskRect.top, 0);
  emptyHostRects();
  EXPECT_EQ(big.inRect32.right, 0);
  EXPECT_EQ(big.maskRect32.top, 0);
}

TEST_F(HostRecord, FormatTests) {
  struct Case {
    int16_t mode;
    int32_t depth;
    bool is8, is16, is32, gray, rgb;
    int32_t kind;
  };
  const Case cases[] = {
      {plugInModeRGBColor, 8, true, false, false, false, true, 3},
      {plugInModeGrayScale, 8, true, false, false, true, false, 3},
      {plugInModeRGB48, 16, false, true, false, false, true, 4},
      {plugInModeGray16, 16, false, true, false, true, false, 4},
      {plugInModeRGB96, 32, false, false, true, false, true, 9},
      {plugInModeGray32, 32, false, false, true, true, false, 9},
      // depth 32 with an 8-bit mode is 32-bit, not 8-bit
      {plugInModeRGBColor, 32, false, false, true, false, true, 9},
      // a pair that matches no conversion
      {plugInModeGrayScale, 16, false, false, false, true, false, 3},
  };
  for (const Case& c : cases) {
    record.imageMode = c.mode;
    record.depth = c.depth;
    SCOPED_TRACE(testing::Message() << "mode " << c.mode << " depth " << c.depth);
    EXPECT_EQ(is8Bit(), c.is8);
    EXPECT_EQ(is16Bit(), c.is16);
    EXPECT_EQ(is32Bit(), c.is32);
    EXPECT_EQ(isGrayMode(), c.gray);
    EXPECT_EQ(isRgbMode(), c.rgb);
    EXPECT_EQ(sourceStoreKind(), c.kind);
  }
}

TEST(MemoryBlocks, IdSlotsAndDoubleFree) {
  int32_t id = 0;
  void* block = blockAlloc(64, &id);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(id, -1);
  id = 0;
  blockFree(&block, &id);
  EXPECT_EQ(block, nullptr);
  EXPECT_EQ(id, -1);
  // Freeing the emptied slot again frees nothing and still marks the id.
  id = 0;
  blockFree(&block, &id);
  EXPECT_EQ(id, -1);
  id = 0;
  blockFree<void>(nullptr, &id);
  EXPECT_EQ(id, -1);
  uint8_t* cells = static_cast<uint8_t*>(globalBlockAlloc(4096));
  ASSERT_NE(cells, nullptr);
  for (int i = 0; i < 4096; ++i) ASSERT_EQ(cells[i], 0);
  globalBlockFree(&cells);
  EXPECT_EQ(cells, nullptr);
  globalBlockFree(&cells);
}

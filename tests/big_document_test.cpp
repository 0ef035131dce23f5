// Layers at the edge of the host's 16-bit coordinates. Bands 700 pixels wide
// alternate opaque and bare, the opaque ones a colour ramp; the filter must
// give every opaque pixel back (within the one step its sampling may move a
// ramp) and leave no pixel transparent, on the road of 32-bit coordinates (the
// stand-in host's default) and, where its rectangles fit, on the 16-bit road;
// the two outputs are equal bit for bit.
#include <gtest/gtest.h>
#include <stdlib.h>

#include "tests/support/test_support.h"

using standin::Document;
using standin::Host;
using standin::HostOptions;
using testing_support::nativeModule;

namespace {

constexpr int32_t kBand = 700;

Document bandLayer(int32_t width, int32_t height) {
  Document d = Document::make(width, height, 8, 3, true);
  for (int32_t y = 0; y < height; ++y)
    for (int32_t x = 0; x < width; ++x) {
      int32_t along = x;
      if ((along / kBand) % 2 != 0) continue;  // bare: all zero
      // A ramp that climbs across the band, so that a fill in its place shows.
      int32_t r = (along % kBand) * 255 / kBand;
      uint8_t* p = d.at(x, y);
      p[0] = uint8_t(r);
      p[1] = uint8_t(255 - r);
      p[2] = uint8_t(along / kBand * 5);
      p[3] = 255;
    }
  return d;
}

}  // namespace

TEST(BigDocument, BandLayersComeBackWholeOnEveryRoadAndEqual) {
  struct Size {
    int32_t width, height;
    bool sixteenBitFits;  // every read tile's edge below 32768
  };
  // The widest layer whose read tiles fit in 16 bits; the first whose last
  // tile reaches 32768 (only 32-bit coordinates can give it whole).
  const Size kSizes[] = {{32256, 6, true}, {32257, 6, false}};
  for (const Size& size : kSizes) {
    const Document input = bandLayer(size.width, size.height);
    std::string firstDigest;
    // -1: the host's default (32-bit coordinates); 0: no record, 16-bit coordinates.
    for (int road : {-1, 0}) {
      if (road == 0 && !size.sixteenBitFits) continue;
      SCOPED_TRACE(std::to_string(size.width) + " x " + std::to_string(size.height) + ", road " +
                   std::to_string(road));
      Document d = input;
      HostOptions options;
      if (road >= 0) options.bigDocument = road;
      Host host(nativeModule(), d, options);
      ASSERT_EQ(host.run().result, 0);
      int32_t changedOpaque = 0, transparent = 0;
      for (int32_t y = 0; y < d.height; ++y)
        for (int32_t x = 0; x < d.width; ++x) {
          const uint8_t* before = input.at(x, y);
          const uint8_t* after = d.at(x, y);
          if (before[3] == 255 && (abs(before[0] - after[0]) > 1 || abs(before[1] - after[1]) > 1 ||
                                   abs(before[2] - after[2]) > 1 || after[3] != 255))
            ++changedOpaque;
          if (d.at(x, y)[3] != 255) ++transparent;
        }
      EXPECT_EQ(changedOpaque, 0);
      EXPECT_EQ(transparent, 0);
      std::string digest = standin::documentDigest(d);
      if (firstDigest.empty()) firstDigest = digest;
      EXPECT_EQ(digest, firstDigest);
    }
  }
}

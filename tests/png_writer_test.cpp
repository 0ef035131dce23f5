// The band-parallel PNG writer: every kind of layer it writes, at every
// compression, decodes through OpenImageIO (libpng beneath) to exactly the
// samples given, 16-bit ones mapped from the host's range, and the tool's own
// reader gives the layer back; a stop asked for by the progress callback
// writes nothing.
#include <stdio.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <OpenImageIO/imageio.h>
#include <gtest/gtest.h>

#include "cli/depth_mapping.h"
#include "cli/png_reader.h"
#include "cli/png_unfilter.h"
#include "cli/png_writer.h"

namespace {

using mendaris_cli::writePng;

uint32_t noise(uint32_t i) {
  i ^= i >> 16;
  i *= 0x7feb352du;
  i ^= i >> 15;
  i *= 0x846ca68bu;
  return i ^ (i >> 16);
}

// Busy samples with smooth stretches (so that every row filter wins somewhere)
// and a transparent run in each row.
standin::Document layer(int32_t width, int32_t height, int depth, int colourPlanes) {
  standin::Document d = standin::Document::make(width, height, depth, colourPlanes, true);
  size_t samples = size_t(width) * size_t(height) * size_t(d.planes());
  for (size_t i = 0; i < samples; ++i) {
    uint32_t v = (i / size_t(d.planes())) % 97 < 40 ? uint32_t(i * 3) : noise(uint32_t(i));
    if (depth == 8) {
      d.pixels[i] = uint8_t(v);
    } else {
      uint16_t h = uint16_t(v % 32769u);
      memcpy(d.pixels.data() + i * 2, &h, 2);
    }
  }
  return d;
}

std::string writeToFile(const standin::Document& d, bool withAlpha, int compression) {
  std::string path = "/tmp/png_writer_test_" + std::to_string(getpid()) + ".png";
  FILE* file = fopen(path.c_str(), "wb");
  bool stopped = false;
  std::string problem;
  bool ok = writePng(file, d, withAlpha, compression, {{"tEXt", {'K', 0, 'v'}}}, nullptr, nullptr, stopped, problem);
  fclose(file);
  EXPECT_TRUE(ok) << problem;
  return path;
}

TEST(PngWriter, DecodesToTheSamplesGivenForEveryKindAndCompression) {
  struct Kind {
    int32_t width, height;
    int depth, colourPlanes;
    bool withAlpha;
  };
  const Kind kinds[] = {
      {1, 1, 8, 3, true},      {7, 5, 8, 1, true},     {13, 3, 16, 3, true},  {9, 4, 16, 1, false},
      {3001, 1, 8, 3, false},  {700, 420, 8, 3, true}, {301, 530, 16, 3, true},  // several bands
  };
  for (const Kind& k : kinds) {
    standin::Document d = layer(k.width, k.height, k.depth, k.colourPlanes);
    for (int compression : {mendaris_cli::kCompressionFast, mendaris_cli::kCompressionDefault, 1, 6,
                            mendaris_cli::kCompressionSmallest}) {
      SCOPED_TRACE(std::to_string(k.width) + "x" + std::to_string(k.height) + " depth " + std::to_string(k.depth) +
                   " planes " + std::to_string(k.colourPlanes) + " compression " + std::to_string(compression));
      std::string path = writeToFile(d, k.withAlpha, compression);
      OIIO::ImageSpec straight;
      straight.attribute("oiio:UnassociatedAlpha", 1);
      auto in = OIIO::ImageInput::open(path, &straight);
      ASSERT_TRUE(in) << OIIO::geterror();
      int channels = k.colourPlanes + (k.withAlpha ? 1 : 0);
      ASSERT_EQ(in->spec().nchannels, channels);
      ASSERT_EQ(in->spec().format.size(), size_t(k.depth / 8));
      std::vector<uint16_t> got(size_t(k.width) * size_t(k.height) * size_t(channels));
      ASSERT_TRUE(in->read_image(0, 0, 0, channels, OIIO::TypeDesc::UINT16, got.data())) << in->geterror();
      in->close();
      standin::Document back = standin::Document::make(k.width, k.height, k.depth, k.colourPlanes, k.withAlpha);
      EXPECT_TRUE(mendaris_cli::readPlainPng(path, back));
      if (k.withAlpha) {
        EXPECT_TRUE(back.pixels == d.pixels);
      }
      unlink(path.c_str());
      size_t mismatches = 0;
      for (size_t p = 0; p < size_t(k.width) * size_t(k.height); ++p) {
        for (int c = 0; c < channels; ++c) {
          size_t at = p * size_t(d.planes()) + size_t(c);
          uint16_t want;
          if (k.depth == 8) {
            want = uint16_t(d.pixels[at] * 257);  // the library widens 8-bit samples so
          } else {
            uint16_t h;
            memcpy(&h, d.pixels.data() + at * 2, 2);
            want = mendaris_cli::hostToFile16(h);
          }
          mismatches += got[p * size_t(channels) + size_t(c)] != want ? 1 : 0;
        }
      }
      EXPECT_EQ(mismatches, 0u);
    }
  }
}

TEST(PngWriter, AStopFromTheProgressCallbackWritesNothing) {
  standin::Document d = layer(1000, 1200, 8, 3);
  FILE* file = tmpfile();
  bool stopped = false;
  std::string problem;
  auto stop = [](void*, float) { return true; };
  EXPECT_FALSE(writePng(file, d, true, mendaris_cli::kCompressionDefault, {}, stop, nullptr, stopped, problem));
  EXPECT_TRUE(stopped);
  EXPECT_EQ(ftell(file), 0L);
  fclose(file);
}

}  // namespace

// The pixel lanes against the byte road, on random rows of every filter and
// pixel size, the row above random too.
TEST(PngUnfilter, PixelLanesGiveTheBytesOfTheByteRoad) {
  using mendaris_cli::UnfilterRoad;
  uint32_t seed = 12345;
  auto next = [&]() {
    seed = seed * 1664525u + 1013904223u;
    return uint8_t(seed >> 24);
  };
  for (size_t bpp : {1, 2, 3, 4, 6, 8}) {
    for (uint8_t filter = 0; filter <= 4; ++filter) {
      const size_t n = bpp * 61;
      std::vector<uint8_t> prior(n), row(n);
      for (uint8_t& v : prior) v = next();
      for (uint8_t& v : row) v = next();
      std::vector<uint8_t> bytes = row, lanes = row;
      ASSERT_TRUE(mendaris_cli::unfilterRowOn(UnfilterRoad::kBytes, filter, bytes.data(), prior.data(), n, bpp));
      ASSERT_TRUE(mendaris_cli::unfilterRowOn(UnfilterRoad::kPixelLanes, filter, lanes.data(), prior.data(), n, bpp));
      EXPECT_EQ(bytes, lanes) << "filter " << int(filter) << ", " << bpp << " bytes a pixel";
    }
  }
}

#include "cli/png_reader.h"

#include <stdio.h>
#include <string.h>

#include <memory>
#include <vector>

#include <libdeflate.h>

#include "cli/depth_mapping.h"
#include "cli/progress.h"

namespace mendaris_cli {

namespace {

uint32_t big32(const uint8_t* p) { return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]; }

bool readWhole(const std::string& path, std::vector<uint8_t>& bytes) {
  std::unique_ptr<FILE, int (*)(FILE*)> file(fopen(path.c_str(), "rb"), fclose);
  if (!file || fseek(file.get(), 0, SEEK_END) != 0) return false;
  long size = ftell(file.get());
  if (size < 0 || fseek(file.get(), 0, SEEK_SET) != 0) return false;
  bytes.resize(size_t(size));
  return fread(bytes.data(), 1, bytes.size(), file.get()) == bytes.size();
}

// Undoes one row's filter in place; `prior` is the row above, unfiltered (zeros for the first).
bool unfilterRow(uint8_t filter, uint8_t* row, const uint8_t* prior, size_t n, size_t bpp) {
  switch (filter) {
    case 0:
      return true;
    case 1:
      for (size_t i = bpp; i < n; ++i) row[i] = uint8_t(row[i] + row[i - bpp]);
      return true;
    case 2:
      for (size_t i = 0; i < n; ++i) row[i] = uint8_t(row[i] + prior[i]);
      return true;
    case 3:
      for (size_t i = 0; i < bpp; ++i) row[i] = uint8_t(row[i] + (prior[i] >> 1));
      for (size_t i = bpp; i < n; ++i) row[i] = uint8_t(row[i] + ((row[i - bpp] + prior[i]) >> 1));
      return true;
    case 4:
      for (size_t i = 0; i < bpp; ++i) row[i] = uint8_t(row[i] + prior[i]);
      for (size_t i = bpp; i < n; ++i) {
        int a = row[i - bpp], b = prior[i], c = prior[i - bpp];
        int pa = abs(b - c), pb = abs(a - c), pc = abs(a + b - 2 * c);
        row[i] = uint8_t(row[i] + (pa <= pb && pa <= pc ? a : pb <= pc ? b : c));
      }
      return true;
    default:
      return false;
  }
}

}  // namespace

bool readPlainPng(const std::string& path, standin::Document& document) {
  std::vector<uint8_t> file;
  if (!readWhole(path, file) || file.size() < 8 || memcmp(file.data(), "\x89PNG\r\n\x1a\n", 8) != 0) return false;
  static const int kPlanesOfColourType[] = {1, 0, 3, 0, 2, 0, 4};
  // The IDAT payloads are moved down to the front of the file's own buffer,
  // into one stream: no second copy of it is held.
  size_t streamSize = 0;
  bool header = false, ended = false;
  for (size_t at = 8; at + 12 <= file.size() && !ended;) {
    uint32_t size = big32(&file[at]);
    if (size > file.size() - at - 12) return false;
    const uint8_t* type = &file[at + 4];
    const uint8_t* data = type + 4;
    if (libdeflate_crc32(libdeflate_crc32(0, type, 4), data, size) != big32(data + size)) return false;
    if (memcmp(type, "IHDR", 4) == 0) {
      if (size != 13 || big32(data) != uint32_t(document.width) || big32(data + 4) != uint32_t(document.height) ||
          data[8] != document.depth || data[9] > 6 || kPlanesOfColourType[data[9]] != document.planes() ||
          data[10] != 0 || data[11] != 0 || data[12] != 0)
        return false;
      header = true;
    } else if (memcmp(type, "IDAT", 4) == 0) {
      memmove(file.data() + streamSize, data, size);
      streamSize += size;
    } else if (memcmp(type, "IEND", 4) == 0) {
      ended = true;
    } else if (memcmp(type, "PLTE", 4) == 0 || memcmp(type, "tRNS", 4) == 0) {
      return false;
    }
    at += size + 12;
  }
  if (!header || !ended) return false;

  size_t sampleBytes = size_t(document.depth / 8);
  size_t rowBytes = size_t(document.width) * size_t(document.planes()) * sampleBytes;
  size_t rows = size_t(document.height);
  std::vector<uint8_t> raw(rows * (rowBytes + 1));
  libdeflate_decompressor* inflater = libdeflate_alloc_decompressor();
  if (inflater == nullptr) return false;
  size_t produced = 0;
  libdeflate_result result =
      libdeflate_zlib_decompress(inflater, file.data(), streamSize, raw.data(), raw.size(), &produced);
  libdeflate_free_decompressor(inflater);
  if (result != LIBDEFLATE_SUCCESS || produced != raw.size()) return false;
  std::vector<uint8_t>().swap(file);

  std::vector<uint8_t> zeros(rowBytes, 0);
  size_t bpp = size_t(document.planes()) * sampleBytes;
  for (size_t y = 0; y < rows; ++y) {
    uint8_t* row = raw.data() + y * (rowBytes + 1) + 1;
    const uint8_t* prior = y == 0 ? zeros.data() : row - (rowBytes + 1);
    if (!unfilterRow(row[-1], row, prior, rowBytes, bpp)) return false;
    uint8_t* to = document.pixels.data() + y * rowBytes;
    if (sampleBytes == 1) {
      memcpy(to, row, rowBytes);
    } else {
      for (size_t i = 0; i < rowBytes; i += 2) {
        uint16_t h = fileToHost16(uint16_t(row[i] << 8 | row[i + 1]));
        memcpy(to + i, &h, 2);
      }
    }
    if (y % 256 == 255 && imageProgress(const_cast<char*>("reading"), float(y) / float(rows))) return false;
  }
  return true;
}

}  // namespace mendaris_cli

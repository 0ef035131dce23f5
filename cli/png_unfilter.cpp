#include "cli/png_unfilter.h"

#include <stdlib.h>

namespace mendaris_cli {

namespace {

bool unfilterRowBytes(uint8_t filter, uint8_t* row, const uint8_t* prior, size_t n, size_t bpp) {
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

bool unfilterRowOn(UnfilterRoad road, uint8_t filter, uint8_t* row, const uint8_t* prior, size_t n, size_t bpp) {
  if (road == UnfilterRoad::kPixelLanes && unfilterRowLanes(filter, row, prior, n, bpp)) return true;
  return unfilterRowBytes(filter, row, prior, n, bpp);
}

bool unfilterRow(uint8_t filter, uint8_t* row, const uint8_t* prior, size_t n, size_t bpp) {
  return unfilterRowOn(UnfilterRoad::kPixelLanes, filter, row, prior, n, bpp);
}

}  // namespace mendaris_cli

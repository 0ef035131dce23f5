#include "fill/line_smooth.h"

#include <string.h>

#include "fill/line_smooth_lanes.h"
#include "host/host_record.h"
#include "store/pixel_store.h"

namespace {

// Bytes of one pixel of `kind` in a line, 0 for the kinds that have no box
// kernel (2, 7, 9 and unknown kinds). The store's tiles hold pixels at the
// kind's own size, so the line buffer does as well.
int32_t lineKindBytes(int32_t kind) {
  if (kind == kKindRaw16 || kind < 0 || kind > kKindFloat) return 0;
  return pixelKindInfo(kind).pixelBytes;
}

// Window cell i of a line whose last cell is `last`: the end cells repeat.
inline int64_t clampCell(int64_t i, int64_t last) { return i < 0 ? 0 : (i < last ? i : last); }

bool windowRuns(int32_t back, int32_t forward) { return back >= 0 && forward >= 0 && (back > 0 || forward > 0); }

// The integer kernels keep the window's length in 32 bits.
bool integerWindowRuns(int32_t back, int32_t forward) {
  return windowRuns(back, forward) && int64_t(back) + int64_t(forward) + 1 <= INT32_MAX;
}

// ---- integer division through the window ------------------------------------------------------------
// The integer boxes divide the window's sum by its length through a
// fixed-point reciprocal, made once per length, with one step of carry
// correction: the reciprocal undershoots by less than one unit for sums below
// 2^32, so the quotient is exact. Larger sums divide plainly.

void prepareReciprocal(PassContext* context, int32_t length) {
  if (context->windowLength == length) return;
  context->windowLength = length;
  context->windowReciprocal = (uint64_t(1) << 32) / uint64_t(length);
}

inline uint64_t divideByWindow(const PassContext* context, uint64_t sum) {
  const uint64_t length = uint64_t(context->windowLength);
  if ((sum >> 32) != 0) return sum / length;
  uint64_t q = (sum * context->windowReciprocal) >> 32;
  if (sum - q * length >= length) ++q;
  return q;
}

// One channel of an integer box, every `stride` values of in and out; the
// running sum is exact. Kinds 0, 3 and 4 divide through the reciprocal, kind 1
// plainly: the quotients agree.
template <class T, class Divide>
void boxChannel(const T* in, T* out, int32_t length, int32_t stride, int32_t back, int32_t forward,
                Divide divide) {
  const int64_t last = int64_t(length) - 1;
  uint64_t sum = 0;
  for (int64_t i = -int64_t(back); i <= int64_t(forward); ++i) sum += in[clampCell(i, last) * stride];
  out[0] = T(divide(sum));
  for (int64_t i = 1; i < length; ++i) {
    sum -= in[clampCell(i - 1 - back, last) * stride];
    sum += in[clampCell(i + forward, last) * stride];
    out[i * stride] = T(divide(sum));
  }
}

// ---- moving lines --------------------------------------------------------------------------------------

// Row `line`, pixels first..end - 1, one tile's run at a time.
void copyRow(PixelStore* store, int32_t level, int32_t line, int32_t first, int32_t end, uint8_t* buffer,
             bool toStore, int32_t bytes) {
  const StoreTile* rowTiles =
      store->tiles + (line >> kTileShift) * store->tilesAcross[level] + store->firstTile[level];
  const size_t rowOffset = size_t(line & kTileMask) * kTileWidth;
  int32_t x = first;
  while (x < end) {
    const int32_t tileEnd = (x | kTileMask) + 1;
    const int32_t stop = end < tileEnd ? end : tileEnd;
    uint8_t* pixels = rowTiles[x >> kTileShift].pixels + (rowOffset + size_t(x & kTileMask)) * size_t(bytes);
    const size_t count = size_t(stop - x) * size_t(bytes);
    if (toStore) {
      memcpy(pixels, buffer, count);
    } else {
      memcpy(buffer, pixels, count);
    }
    buffer += count;
    x = stop;
  }
}

// Column `line`, pixels first..end - 1: a tile row at a time, stepping a tile
// row's width of pixels.
void copyColumn(PixelStore* store, int32_t level, int32_t line, int32_t first, int32_t end, uint8_t* buffer,
                bool toStore, int32_t bytes) {
  const size_t stride = size_t(kTileWidth) * size_t(bytes);
  const int32_t across = store->tilesAcross[level];
  const StoreTile* columnTiles = store->tiles + store->firstTile[level] + (line >> kTileShift);
  const size_t columnOffset = size_t(line & kTileMask) * size_t(bytes);
  int32_t y = first;
  while (y < end) {
    const int32_t tileEnd = (y | kTileMask) + 1;
    const int32_t stop = end < tileEnd ? end : tileEnd;
    uint8_t* pixels = columnTiles[(y >> kTileShift) * across].pixels + size_t(y & kTileMask) * stride + columnOffset;
    if (bytes == 4) {
      // The distance field's case, word by word.
      if (toStore) {
        for (int32_t i = y; i < stop; ++i, pixels += stride, buffer += 4) memcpy(pixels, buffer, 4);
      } else {
        for (int32_t i = y; i < stop; ++i, pixels += stride, buffer += 4) memcpy(buffer, pixels, 4);
      }
    } else {
      for (int32_t i = y; i < stop; ++i, pixels += stride, buffer += bytes) {
        if (toStore) {
          memcpy(pixels, buffer, size_t(bytes));
        } else {
          memcpy(buffer, pixels, size_t(bytes));
        }
      }
    }
    y = stop;
  }
}

// A walk down one column of a level, cell after cell, a tile row at a time.
struct ColumnWalk {
  const StoreTile* tiles;  // the column's tile in the level's first tile row
  int32_t across;
  size_t columnOffset;
  uint8_t* cell;    // the next cell
  int32_t y;        // its row
  int32_t tileEnd;  // the first row past its tile

  void begin(const PixelStore* store, int32_t level, int32_t line, int32_t first) {
    tiles = store->tiles + store->firstTile[level] + (line >> kTileShift);
    across = store->tilesAcross[level];
    columnOffset = size_t(line & kTileMask) * 4;
    cell = nullptr;
    y = first;
    tileEnd = y;
  }
  // The next cell's address.
  uint8_t* next() {
    if (y == tileEnd) {
      cell = tiles[(y >> kTileShift) * across].pixels + size_t(y & kTileMask) * kTileWidth * 4 + columnOffset;
      tileEnd = (y | kTileMask) + 1;
    }
    uint8_t* here = cell;
    cell += size_t(kTileWidth) * 4;
    ++y;
    return here;
  }
};

// Kind 5 along a column in one trip. The column's cells are taken out into
// `in` as the window needs them, and each mean goes back to its cell as soon
// as the window is complete, a few cells behind the reading: its cache line
// was met a moment before. The sums are boxLineFloat's, in its order; a cell
// is written only after it was read, and nothing reads it again.
void smoothColumnFloat(PixelStore* store, int32_t level, int32_t line, int32_t first, int32_t n, float* in,
                       int32_t back, int32_t forward) {
  ColumnWalk reading;
  ColumnWalk writing;
  reading.begin(store, level, line, first);
  writing.begin(store, level, line, first);
  const int64_t last = int64_t(n) - 1;
  int64_t taken = 0;
  const auto takeUpTo = [&](int64_t i) {
    const int64_t stop = i < last ? i : last;
    for (; taken <= stop; ++taken) in[taken] = loadFloat(reading.next());
  };
  const float norm = float(1.0 / double(int64_t(forward) + 1 + int64_t(back)));
  takeUpTo(forward);
  float sum = 0.0f;
  for (int64_t i = -int64_t(back); i <= int64_t(forward); ++i) sum += in[clampCell(i, last)];
  storeFloat(writing.next(), sum * norm);
  for (int64_t i = 1; i < n; ++i) {
    takeUpTo(i + forward);
    sum = (sum - in[clampCell(i - 1 - back, last)]) + in[clampCell(i + forward, last)];
    storeFloat(writing.next(), sum * norm);
  }
}

}  // namespace

// ---- line buffer ---------------------------------------------------------------------------------------

bool makeLineBuffer(PassContext* context, const PixelStore* store) {
  if (context == nullptr) return false;
  freeLineBuffer(context);
  if (store == nullptr) return false;
  const int64_t longest = store->levelWidth[0] > store->levelHeight[0] ? store->levelWidth[0] : store->levelHeight[0];
  // A bordered store has 4-byte pixels whatever its kind; the lines hold the
  // kind's own pixels. Take the larger, so that any kind fits.
  const int32_t kindBytes = pixelKindInfo(store->kind).pixelBytes;
  const int64_t bytes = store->pixelBytes > kindBytes ? store->pixelBytes : kindBytes;
  const int64_t size = 2 * (longest + 1) * bytes;
  if (size <= 0 || size > INT32_MAX) return false;
  context->lineBuffer = static_cast<uint8_t*>(blockAllocPlain(int32_t(size)));
  context->lineBufferBytes = context->lineBuffer != nullptr ? int32_t(size) : 0;
  return context->lineBuffer != nullptr;
}

void freeLineBuffer(PassContext* context) {
  if (context == nullptr) return;
  blockFreePlain(&context->lineBuffer);
  context->lineBufferBytes = 0;
}

// ---- jobs ----------------------------------------------------------------------------------------------

void filterRow(PixelStore* store, int32_t row, PassContext* context, int32_t left, int32_t right, int32_t level,
               int32_t radiusA, int32_t radiusB) {
  if (radiusA < 1 && radiusB < 1) return;
  smoothLine(store, row, context, left, right, level, radiusA, radiusB, false);
}

void filterColumn(PixelStore* store, int32_t column, PassContext* context, int32_t top, int32_t bottom,
                  int32_t level, int32_t radiusA, int32_t radiusB) {
  if (radiusA < 1 && radiusB < 1) return;
  smoothLine(store, column, context, top, bottom, level, radiusA, radiusB, true);
}

namespace {

// Where smoothLine would take lines of `length` cells between first and end
// down the float road, the cells of each line that it smooths (first raised
// to 0, the count n); n is 0 where it would not. The same tests, in the same
// terms, so that the groups go exactly where the lines would.
int32_t floatLineCells(const PixelStore* store, const PassContext* context, int32_t level, int32_t radiusA,
                       int32_t radiusB, bool vertical, int32_t* first, int32_t end) {
  if (radiusA < 1 && radiusB < 1) return 0;
  if (store == nullptr || store->tiles == nullptr || context == nullptr || context->lineBuffer == nullptr) return 0;
  if (!windowRuns(radiusA, radiusB) || level < 0 || level > store->topLevel || store->kind != kKindFloat) return 0;
  const int32_t limit = vertical ? store->levelHeight[level] : store->levelWidth[level];
  if (*first < 0) *first = 0;
  if (end > limit) end = limit;
  const int32_t n = end - *first;
  if (n <= 0 || (int64_t(n) + 1) * 2 * 4 > context->lineBufferBytes) return 0;
  return n;
}

}  // namespace

void filterRows(PixelStore* store, PassContext* context, int32_t top, int32_t bottom, int32_t left, int32_t right,
                int32_t level, int32_t radiusA, int32_t radiusB) {
  int32_t first = left;
  const int32_t n = floatLineCells(store, context, level, radiusA, radiusB, false, &first, right);
  const int32_t height = n > 0 ? store->levelHeight[level] : 0;
  for (int32_t row = top; row < bottom;) {
    if (n > 0 && row >= 0 && row + kRowGroup <= bottom && row + kRowGroup <= height &&
        smoothRowGroupFloat(store, level, row, first, n, radiusA, radiusB)) {
      row += kRowGroup;
      continue;
    }
    filterRow(store, row, context, left, right, level, radiusA, radiusB);
    ++row;
  }
}

void filterColumns(PixelStore* store, PassContext* context, int32_t left, int32_t right, int32_t top, int32_t bottom,
                   int32_t level, int32_t radiusA, int32_t radiusB) {
  int32_t first = top;
  const int32_t n = floatLineCells(store, context, level, radiusA, radiusB, true, &first, bottom);
  const int32_t width = n > 0 ? store->levelWidth[level] : 0;
  for (int32_t column = left; column < right;) {
    if (n > 0 && column >= 0 && column % kColumnGroup == 0 && column + kColumnGroup <= right &&
        column + kColumnGroup <= width && smoothColumnGroupFloat(store, level, column, first, n, radiusA, radiusB)) {
      column += kColumnGroup;
      continue;
    }
    filterColumn(store, column, context, top, bottom, level, radiusA, radiusB);
    ++column;
  }
}

void smoothLine(PixelStore* store, int32_t line, PassContext* context, int32_t first, int32_t end, int32_t level,
                int32_t back, int32_t forward, bool vertical) {
  if (store == nullptr || store->tiles == nullptr || context == nullptr || context->lineBuffer == nullptr) return;
  if (!windowRuns(back, forward)) return;
  if (level < 0 || level > store->topLevel) return;
  const int32_t bytes = lineKindBytes(store->kind);
  if (bytes == 0) return;
  // The same clipping as copyLine's, so that the kernel runs over exactly the
  // cells that were copied in.
  const int32_t limit = vertical ? store->levelHeight[level] : store->levelWidth[level];
  if (first < 0) first = 0;
  if (end > limit) end = limit;
  const int32_t n = end - first;
  if (n <= 0) return;
  if ((int64_t(n) + 1) * 2 * bytes > context->lineBufferBytes) return;

  uint8_t* in = context->lineBuffer;
  uint8_t* out = in + size_t(n + 1) * size_t(bytes);
  if (vertical && store->kind == kKindFloat) {
    if (line < 0 || line >= store->levelWidth[level]) return;
    smoothColumnFloat(store, level, line, first, n, reinterpret_cast<float*>(in), back, forward);
    return;
  }
  copyLine(store, level, line, first, end, in, false, vertical);
  switch (store->kind) {
    case kKindFloat:
      boxLineFloat(reinterpret_cast<const float*>(in), reinterpret_cast<float*>(out), 0, n, back, forward);
      break;
    case kKindGray8: boxLineU8(context, in, out, n, back, forward); break;
    case kKindGray16:
      boxLineU16(reinterpret_cast<const uint16_t*>(in), reinterpret_cast<uint16_t*>(out), n, back, forward);
      break;
    case kKindRgba8:
      boxLineU8x4(context, reinterpret_cast<const uint32_t*>(in), reinterpret_cast<uint32_t*>(out), n, back,
                  forward);
      break;
    case kKindRgba16:
      boxLineU16x4(context, reinterpret_cast<const uint16_t*>(in), reinterpret_cast<uint16_t*>(out), n, back,
                   forward);
      break;
    default: return;
  }
  copyLine(store, level, line, first, end, out, true, vertical);
}

void copyLine(PixelStore* store, int32_t level, int32_t line, int32_t first, int32_t end, void* buffer, bool toStore,
              bool vertical) {
  if (store == nullptr || store->tiles == nullptr || buffer == nullptr) return;
  if (level < 0 || level > store->topLevel) return;
  const int32_t bytes = lineKindBytes(store->kind);
  if (bytes == 0) return;
  const int32_t length = vertical ? store->levelHeight[level] : store->levelWidth[level];
  const int32_t across = vertical ? store->levelWidth[level] : store->levelHeight[level];
  if (line < 0 || line >= across) return;
  if (first < 0) first = 0;
  if (end > length) end = length;
  if (end - first <= 0) return;
  uint8_t* bufferBytes = static_cast<uint8_t*>(buffer);
  if (vertical) {
    copyColumn(store, level, line, first, end, bufferBytes, toStore, bytes);
  } else {
    copyRow(store, level, line, first, end, bufferBytes, toStore, bytes);
  }
}

// ---- kernels ---------------------------------------------------------------------------------------------

void boxLineFloat(const float* in, float* out, int32_t start, int32_t length, int32_t back, int32_t forward) {
  if (in == nullptr || !windowRuns(back, forward)) return;
  // No cell to write (and none to read: the clamp would point before the line).
  if (start < 0 || length <= start) return;
  const int64_t last = int64_t(length) - start - 1;
  const float norm = float(1.0 / double(int64_t(forward) + 1 + int64_t(back)));
  float sum = 0.0f;
  for (int64_t i = int64_t(start) - back; i <= int64_t(start) + forward; ++i) sum += in[clampCell(i, last)];
  out[start] = sum * norm;
  // The sum slides: the cell that leaves the window is taken off before the one
  // that enters is added, each step rounded in single precision.
  for (int64_t i = int64_t(start) + 1; i < length; ++i) {
    sum = (sum - in[clampCell(i - 1 - back, last)]) + in[clampCell(i + forward, last)];
    out[i] = sum * norm;
  }
}

void boxLineU8(PassContext* context, const uint8_t* in, uint8_t* out, int32_t length, int32_t back,
               int32_t forward) {
  if (in == nullptr || !integerWindowRuns(back, forward) || length <= 0) return;
  prepareReciprocal(context, back + forward + 1);
  boxChannel(in, out, length, 1, back, forward, [context](uint64_t s) { return divideByWindow(context, s); });
}

void boxLineU16(const uint16_t* in, uint16_t* out, int32_t length, int32_t back, int32_t forward) {
  if (in == nullptr || !integerWindowRuns(back, forward) || length <= 0) return;
  const uint64_t window = uint64_t(back) + uint64_t(forward) + 1;
  boxChannel(in, out, length, 1, back, forward, [window](uint64_t s) { return s / window; });
}

void boxLineU8x4(PassContext* context, const uint32_t* in, uint32_t* out, int32_t length, int32_t back,
                 int32_t forward) {
  if (in == nullptr || !integerWindowRuns(back, forward) || length <= 0) return;
  prepareReciprocal(context, back + forward + 1);
  // The channels are the bytes of the words, channel 0 in the top byte; each
  // slides its own sum. The first pass lays down the words with channel 3 at
  // 255, the next two add their bytes.
  const int64_t last = int64_t(length) - 1;
  for (int32_t ch = 0; ch < 3; ++ch) {
    const int32_t shift = 24 - 8 * ch;
    uint64_t sum = 0;
    for (int64_t i = -int64_t(back); i <= int64_t(forward); ++i) sum += (in[clampCell(i, last)] >> shift) & 0xffu;
    for (int64_t i = 0; i < length; ++i) {
      if (i > 0) {
        sum -= (in[clampCell(i - 1 - back, last)] >> shift) & 0xffu;
        sum += (in[clampCell(i + forward, last)] >> shift) & 0xffu;
      }
      const uint32_t byte = (uint32_t(divideByWindow(context, sum)) & 0xffu) << shift;
      out[i] = ch == 0 ? (byte | 0xffu) : (out[i] | byte);
    }
  }
}

void boxLineU16x4(PassContext* context, const uint16_t* in, uint16_t* out, int32_t length, int32_t back,
                  int32_t forward) {
  if (in == nullptr || !integerWindowRuns(back, forward) || length <= 0) return;
  prepareReciprocal(context, back + forward + 1);
  const auto divide = [context](uint64_t s) { return divideByWindow(context, s); };
  for (int32_t ch = 0; ch < 3; ++ch) boxChannel(in + ch, out + ch, length, 4, back, forward, divide);
  for (int64_t i = 0; i < length; ++i) out[4 * i + 3] = in[4 * i + 3];
}

#include "cli/png_writer.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include <isa-l/igzip_lib.h>
#include <libdeflate.h>
#include <zlib.h>

#include "cli/depth_mapping.h"
#include "cli/processors.h"

namespace mendaris_cli {

namespace {

// Rows go into bands of about this many filtered bytes: enough for deflate to
// find its matches within the band, small enough to keep every core busy.
constexpr size_t kBandBytes = size_t(1) << 20;
constexpr size_t kIdatBytes = size_t(1) << 20;

enum Filter : uint8_t { kNone = 0, kSub = 1, kUp = 2, kAverage = 3, kPaeth = 4 };

// The image's rows as the file holds them.
struct RowSource {
  const standin::Document* document;
  int channels;   // written per pixel
  size_t rowBytes;
  const uint16_t* alpha16;  // 16-bit alpha as the file had it, or null

  // Row y in file order (16-bit samples big-endian, in the file's range).
  void row(int32_t y, uint8_t* to) const {
    const standin::Document& d = *document;
    int planes = d.planes();
    const uint8_t* from = d.pixels.data() + size_t(y) * size_t(d.width) * d.pixelBytes();
    if (d.depth == 8) {
      if (channels == planes) {
        memcpy(to, from, rowBytes);
        return;
      }
      for (int32_t x = 0; x < d.width; ++x)
        for (int c = 0; c < channels; ++c) *to++ = from[size_t(x) * size_t(planes) + size_t(c)];
      return;
    }
    if (channels == planes) {
      // Every sample in turn: a loop the compiler runs on vectors.
      const size_t count = size_t(d.width) * size_t(planes);
      for (size_t i = 0; i < count; ++i) {
        uint16_t h;
        memcpy(&h, from + i * 2, 2);
        const uint16_t v = hostToFile16(h);
        to[2 * i] = uint8_t(v >> 8);
        to[2 * i + 1] = uint8_t(v & 0xff);
      }
    } else {
      uint8_t* out = to;
      for (int32_t x = 0; x < d.width; ++x) {
        for (int c = 0; c < channels; ++c) {
          uint16_t h;
          memcpy(&h, from + (size_t(x) * size_t(planes) + size_t(c)) * 2, 2);
          const uint16_t v = hostToFile16(h);
          *out++ = uint8_t(v >> 8);
          *out++ = uint8_t(v & 0xff);
        }
      }
    }
    if (alpha16 != nullptr && channels > d.colourPlanes) {
      // The file's own alpha goes back as it was.
      const uint16_t* alpha = alpha16 + size_t(y) * size_t(d.width);
      for (int32_t x = 0; x < d.width; ++x) {
        uint8_t* sample = to + (size_t(x) * size_t(channels) + size_t(d.colourPlanes)) * 2;
        sample[0] = uint8_t(alpha[x] >> 8);
        sample[1] = uint8_t(alpha[x] & 0xff);
      }
    }
  }
};

// A Paeth row, written branch-free in 16-bit lanes so that the compiler runs
// it on vectors (a third of the time of the usual branching form).
void paethRow(const uint8_t* __restrict row, const uint8_t* __restrict prior, size_t n, size_t bpp,
              uint8_t* __restrict out) {
  out[0] = kPaeth;
  uint8_t* o = out + 1;
  for (size_t i = 0; i < bpp && i < n; ++i) o[i] = uint8_t(row[i] - prior[i]);
  for (size_t i = bpp; i < n; ++i) {
    const int16_t a = row[i - bpp], b = prior[i], c = prior[i - bpp];
    int16_t pa = int16_t(b - c);
    pa = pa < 0 ? int16_t(-pa) : pa;
    int16_t pb = int16_t(a - c);
    pb = pb < 0 ? int16_t(-pb) : pb;
    int16_t pc = int16_t(a + b - 2 * c);
    pc = pc < 0 ? int16_t(-pc) : pc;
    int16_t predicted = pb <= pc ? b : c;
    predicted = pa <= pb && pa <= pc ? a : predicted;
    o[i] = uint8_t(row[i] - predicted);
  }
}

// One filtered row: `out` holds the filter byte, then the row.
void filterRow(Filter filter, const uint8_t* row, const uint8_t* prior, size_t n, size_t bpp, uint8_t* out) {
  out[0] = filter;
  uint8_t* o = out + 1;
  switch (filter) {
    case kNone:
      memcpy(o, row, n);
      break;
    case kSub:
      for (size_t i = 0; i < bpp && i < n; ++i) o[i] = row[i];
      for (size_t i = bpp; i < n; ++i) o[i] = uint8_t(row[i] - row[i - bpp]);
      break;
    case kUp:
      for (size_t i = 0; i < n; ++i) o[i] = uint8_t(row[i] - prior[i]);
      break;
    case kAverage:
      for (size_t i = 0; i < bpp && i < n; ++i) o[i] = uint8_t(row[i] - (prior[i] >> 1));
      for (size_t i = bpp; i < n; ++i) o[i] = uint8_t(row[i] - ((row[i - bpp] + prior[i]) >> 1));
      break;
    case kPaeth:
      paethRow(row, prior, n, bpp, out);
      break;
  }
}

uint64_t magnitude(const uint8_t* o, size_t n) {
  uint64_t sum = 0;
  for (size_t i = 0; i < n; ++i) sum += uint64_t(abs(int(int8_t(o[i]))));
  return sum;
}

struct Band {
  int32_t firstRow = 0, rows = 0;
  std::vector<uint8_t> deflated;  // raw deflate, ending byte-aligned (the last band: the final block)
  uint32_t adler = 1;             // of the filtered bytes
  size_t filteredBytes = 0;
  bool ok = true;
};

// How the rows of a band are filtered.
enum class RowFilters { kUp, kPaeth, kBestOfFive };

// Filters the band's rows into `filtered`.
void filterBand(const RowSource& source, const Band& band, RowFilters filters, std::vector<uint8_t>& filtered) {
  size_t n = source.rowBytes;
  size_t bpp = size_t(source.channels) * size_t(source.document->depth / 8);
  std::vector<uint8_t> prior(n, 0), row(n), trial(n + 1);
  if (band.firstRow > 0) source.row(band.firstRow - 1, prior.data());
  filtered.resize(size_t(band.rows) * (n + 1));
  for (int32_t r = 0; r < band.rows; ++r) {
    source.row(band.firstRow + r, row.data());
    uint8_t* out = filtered.data() + size_t(r) * (n + 1);
    if (filters != RowFilters::kBestOfFive) {
      filterRow(filters == RowFilters::kUp ? kUp : kPaeth, row.data(), prior.data(), n, bpp, out);
    } else {
      uint64_t best = UINT64_MAX;
      for (Filter f : {kNone, kSub, kUp, kAverage, kPaeth}) {
        filterRow(f, row.data(), prior.data(), n, bpp, trial.data());
        uint64_t m = magnitude(trial.data() + 1, n);
        if (m < best) {
          best = m;
          memcpy(out, trial.data(), n + 1);
        }
      }
    }
    prior.swap(row);
  }
}

// ISA-L: a sync flush leaves the band byte-aligned behind an empty stored block.
// The stream starts from zeros, so that nothing left on the stack can reach
// the encoder: once in many runs a file came out with one byte of its stream
// encoded otherwise (the same rows, decoding alike), and the same rows must
// give the same bytes.
bool deflateIsal(const std::vector<uint8_t>& in, bool last, std::vector<uint8_t>& out) {
  isal_zstream stream;
  memset(&stream, 0, sizeof stream);
  isal_deflate_init(&stream);
  std::vector<uint8_t> levelBuffer(ISAL_DEF_LVL1_DEFAULT);
  stream.level = 1;
  stream.level_buf = levelBuffer.data();
  stream.level_buf_size = uint32_t(levelBuffer.size());
  stream.end_of_stream = last ? 1 : 0;
  stream.flush = last ? NO_FLUSH : SYNC_FLUSH;
  stream.next_in = const_cast<uint8_t*>(in.data());
  stream.avail_in = uint32_t(in.size());
  out.resize(in.size() + in.size() / 8 + 4096);
  for (;;) {
    stream.next_out = out.data() + stream.total_out;
    stream.avail_out = uint32_t(out.size() - stream.total_out);
    if (isal_deflate(&stream) != COMP_OK) return false;
    bool finished = stream.avail_in == 0 && stream.avail_out > 0 &&
                    (!last || stream.internal_state.state == ZSTATE_END);
    if (finished) break;
    out.resize(out.size() * 2);
  }
  out.resize(stream.total_out);
  return true;
}

// libdeflate writes whole streams only: its last block is marked final. zlib's
// inflate, stopping at each block boundary, finds where that block starts and
// where the stream ends, to the bit; the final mark is cleared and an empty
// stored block brings the band to a byte boundary, as a sync flush would.
// The inflate also proves the band decodes to the bytes given.
bool deflateLibdeflate(const std::vector<uint8_t>& in, bool last, int level, std::vector<uint8_t>& out) {
  libdeflate_compressor* compressor = libdeflate_alloc_compressor(level);
  if (compressor == nullptr) return false;
  out.resize(libdeflate_deflate_compress_bound(compressor, in.size()) + 8);
  size_t size = libdeflate_deflate_compress(compressor, in.data(), in.size(), out.data(), out.size());
  libdeflate_free_compressor(compressor);
  if (size == 0) return false;
  out.resize(size);
  if (last) return true;

  z_stream z;
  memset(&z, 0, sizeof(z));
  if (inflateInit2(&z, -15) != Z_OK) return false;
  z.next_in = out.data();
  z.avail_in = uInt(out.size());
  std::vector<uint8_t> sink(size_t(1) << 16);
  size_t lastBlockBit = 0, endBit = 0;
  bool ended = false;
  while (!ended) {
    z.next_out = sink.data();
    z.avail_out = uInt(sink.size());
    int result = inflate(&z, Z_BLOCK);
    if (result == Z_STREAM_END) {
      ended = true;
    } else if (result != Z_OK) {
      break;
    } else if ((z.data_type & 128) != 0) {
      // At a block boundary: before the next block's header, or just past the final block.
      size_t bit = size_t(z.total_in) * 8 - size_t(z.data_type & 63);
      ((z.data_type & 64) != 0 ? endBit : lastBlockBit) = bit;
    }
  }
  bool whole = ended && z.total_out == in.size() && z.total_in == out.size();
  inflateEnd(&z);
  if (!whole) return false;
  out[lastBlockBit / 8] &= uint8_t(~(1u << (lastBlockBit % 8)));
  if (endBit % 8 != 0) out[endBit / 8] &= uint8_t((1u << (endBit % 8)) - 1);
  out.resize((endBit + 3 + 7) / 8, 0);  // the stored block's header, 000, and the pad to the byte
  const uint8_t lengths[] = {0x00, 0x00, 0xff, 0xff};
  out.insert(out.end(), lengths, lengths + 4);
  return true;
}

void put32(std::vector<uint8_t>& to, uint32_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) to.push_back(uint8_t(v >> shift));
}

struct ChunkWriter {
  FILE* file;
  bool ok = true;

  void chunk(const char* type, const uint8_t* data, size_t size) {
    std::vector<uint8_t> head;
    put32(head, uint32_t(size));
    head.insert(head.end(), type, type + 4);
    uint32_t crc = libdeflate_crc32(0, head.data() + 4, 4);
    if (size > 0) crc = libdeflate_crc32(crc, data, size);  // a null buffer would restart it
    std::vector<uint8_t> tail;
    put32(tail, crc);
    ok = ok && fwrite(head.data(), 1, head.size(), file) == head.size() &&
         (size == 0 || fwrite(data, 1, size, file) == size) && fwrite(tail.data(), 1, 4, file) == 4;
  }
};

// The zlib stream cut into IDAT chunks of kIdatBytes.
struct IdatWriter {
  ChunkWriter& chunks;
  std::vector<uint8_t> pending;

  void add(const uint8_t* data, size_t size) {
    while (size > 0) {
      size_t take = std::min(size, kIdatBytes - pending.size());
      pending.insert(pending.end(), data, data + take);
      data += take;
      size -= take;
      if (pending.size() == kIdatBytes) flush();
    }
  }
  void flush() {
    if (!pending.empty()) chunks.chunk("IDAT", pending.data(), pending.size());
    pending.clear();
  }
};

}  // namespace

bool parseCompression(const std::string& text, int& level) {
  if (text == "fast") {
    level = kCompressionFast;
  } else if (text == "default") {
    level = kCompressionDefault;
  } else if (text == "smallest") {
    level = kCompressionSmallest;
  } else {
    char* end = nullptr;
    long n = strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || n < 1 || n > 12) return false;
    level = int(n);
  }
  return true;
}

bool writePng(FILE* file, const standin::Document& document, bool withAlpha, int compression,
              const std::vector<PngChunk>& chunks, bool (*progress)(void*, float), void* progressData,
              bool& stopped, std::string& problem, const uint16_t* alpha16) {
  stopped = false;
  RowSource source{&document, document.colourPlanes + (withAlpha ? 1 : 0), 0, alpha16};
  source.rowBytes = size_t(document.width) * size_t(source.channels) * size_t(document.depth / 8);
  int32_t rowsPerBand = int32_t(std::max<size_t>(1, kBandBytes / (source.rowBytes + 1)));
  std::vector<Band> bands;
  for (int32_t y = 0; y < document.height; y += rowsPerBand) {
    Band band;
    band.firstRow = y;
    band.rows = std::min(rowsPerBand, document.height - y);
    bands.push_back(std::move(band));
  }

  std::atomic<size_t> next{0}, done{0};
  std::atomic<bool> stop{false};
  // Every thread takes the next band; the calling thread, between its bands,
  // shows how far all have come and hears a stop.
  auto work = [&](bool reporting) {
    std::vector<uint8_t> filtered;
    for (size_t i = next++; i < bands.size() && !stop; i = next++) {
      Band& band = bands[i];
      bool last = i + 1 == bands.size();
      const RowFilters filters = compression == kCompressionFast      ? RowFilters::kUp
                                 : compression == kCompressionDefault ? RowFilters::kPaeth
                                                                      : RowFilters::kBestOfFive;
      filterBand(source, band, filters, filtered);
      band.filteredBytes = filtered.size();
      band.adler = libdeflate_adler32(1, filtered.data(), filtered.size());
      band.ok = compression <= kCompressionDefault ? deflateIsal(filtered, last, band.deflated)
                                                   : deflateLibdeflate(filtered, last, compression, band.deflated);
      ++done;
      if (reporting && progress != nullptr && progress(progressData, float(done) / float(bands.size()))) stop = true;
    }
  };
  size_t workers = std::min<size_t>(bands.size(), size_t(processorCount()));
  std::vector<std::thread> threads;
  for (size_t w = 1; w < workers; ++w) threads.emplace_back(work, false);
  work(true);
  for (std::thread& t : threads) t.join();
  if (stop) {
    stopped = true;
    return false;
  }

  ChunkWriter writer{file};
  static const uint8_t kSignature[] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
  writer.ok = fwrite(kSignature, 1, 8, file) == 8;
  std::vector<uint8_t> header;
  put32(header, uint32_t(document.width));
  put32(header, uint32_t(document.height));
  header.push_back(uint8_t(document.depth == 8 ? 8 : 16));
  header.push_back(uint8_t((document.colourPlanes == 3 ? 2 : 0) | (withAlpha ? 4 : 0)));
  header.push_back(0);  // deflate
  header.push_back(0);  // adaptive filtering
  header.push_back(0);  // not interlaced
  writer.chunk("IHDR", header.data(), header.size());
  for (const PngChunk& c : chunks) writer.chunk(c.type.c_str(), c.data.data(), c.data.size());

  IdatWriter idat{writer, {}};
  // zlib header: deflate with a 32 KiB window; the level field is a hint only.
  const uint8_t zlibHeader[] = {0x78, uint8_t(compression >= 10 ? 0xda : compression > 1 ? 0x9c : 0x01)};
  idat.add(zlibHeader, 2);
  uint32_t adler = 1;
  for (Band& band : bands) {
    if (!band.ok) {
      problem = "the compressor failed";
      return false;
    }
    idat.add(band.deflated.data(), band.deflated.size());
    adler = uint32_t(adler32_combine(adler, band.adler, z_off_t(band.filteredBytes)));
    std::vector<uint8_t>().swap(band.deflated);
  }
  std::vector<uint8_t> trailer;
  put32(trailer, adler);
  idat.add(trailer.data(), trailer.size());
  idat.flush();
  writer.chunk("IEND", nullptr, 0);
  if (!writer.ok || fflush(file) != 0) {
    problem = strerror(errno);
    return false;
  }
  return true;
}

}  // namespace mendaris_cli

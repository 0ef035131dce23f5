#include "cli/png_reader.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <isa-l/igzip_lib.h>
#include <libdeflate.h>

#include "cli/depth_mapping.h"
#include "cli/png_unfilter.h"
#include "cli/progress.h"

namespace mendaris_cli {

namespace {

uint32_t big32(const uint8_t* p) { return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]; }

// Whole-file and whole-image buffers are mapped, not allocated: a large block
// taken from and given back to malloc would raise its mapping threshold and
// leave the filter's later allocations fragmenting the heap (tens of MiB more
// at the peak).
struct Mapping {
  uint8_t* data = nullptr;
  size_t size = 0;
  Mapping() = default;
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;
  ~Mapping() {
    if (data != nullptr) munmap(data, size);
  }
  bool map(size_t bytes, int fd) {
    void* p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, fd < 0 ? MAP_PRIVATE | MAP_ANONYMOUS : MAP_PRIVATE, fd, 0);
    if (p == MAP_FAILED) return false;
    data = static_cast<uint8_t*>(p);
    size = bytes;
    return true;
  }
};

// The file, writable in this process only (its IDAT payloads are joined in place).
bool mapFile(const std::string& path, Mapping& file) {
  int fd = open(path.c_str(), O_RDONLY);
  if (fd < 0) return false;
  struct stat info;
  bool ok = fstat(fd, &info) == 0 && info.st_size > 0 && file.map(size_t(info.st_size), fd);
  close(fd);
  return ok;
}

// A text chunk (tEXt, zTXt or iTXt) whose keyword is "Software".
bool isSoftwareText(const uint8_t* type, const uint8_t* data, uint32_t size) {
  if (memcmp(type, "tEXt", 4) != 0 && memcmp(type, "zTXt", 4) != 0 && memcmp(type, "iTXt", 4) != 0) return false;
  return size >= 9 && memcmp(data, "Software", 9) == 0;
}

// The zlib stream inflated by ISA-L on a thread of its own, a piece at a
// time, while the reading thread unfilters the rows already out. The stream
// must fill the buffer exactly, end there, and carry the right checksum.
class PipedInflate {
 public:
  PipedInflate(const uint8_t* stream, size_t streamSize, uint8_t* out, size_t outSize)
      : stream_(stream), streamSize_(streamSize), out_(out), outSize_(outSize), worker_([this] { run(); }) {}
  PipedInflate(const PipedInflate&) = delete;
  PipedInflate& operator=(const PipedInflate&) = delete;
  ~PipedInflate() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
    }
    worker_.join();
  }

  // Waits until the first `bytes` are out; false when the stream failed first.
  bool waitFor(size_t bytes) {
    std::unique_lock<std::mutex> lock(mutex_);
    ready_.wait(lock, [&] { return out_ready_ >= bytes || state_ != kRunning; });
    return out_ready_ >= bytes;
  }

  // Waits for the end: true when the whole stream was right.
  bool succeeded() {
    std::unique_lock<std::mutex> lock(mutex_);
    ready_.wait(lock, [&] { return state_ != kRunning; });
    return state_ == kSucceeded;
  }

 private:
  enum State { kRunning, kSucceeded, kFailed };
  // Output is handed over in pieces of this size.
  static constexpr size_t kPiece = size_t(1) << 20;

  void run() {
    inflate_state s;
    isal_inflate_init(&s);
    s.crc_flag = ISAL_ZLIB;
    size_t fed = 0;
    size_t done = 0;
    State end = kFailed;
    uint8_t spare[64];
    for (;;) {
      {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stop_) break;
      }
      // Once the buffer is full, the rest may only close the stream.
      const bool full = done == outSize_;
      const size_t want = full ? sizeof spare : std::min(kPiece, outSize_ - done);
      s.next_out = full ? spare : out_ + done;
      s.avail_out = uint32_t(want);
      if (s.avail_in == 0 && fed < streamSize_) {
        // The stream goes in a gibibyte at a time: avail_in counts 32 bits.
        s.next_in = const_cast<uint8_t*>(stream_) + fed;
        s.avail_in = uint32_t(std::min(streamSize_ - fed, size_t(1) << 30));
        fed += s.avail_in;
      }
      const uint32_t inBefore = s.avail_in;
      if (isal_inflate(&s) != ISAL_DECOMP_OK) break;
      const size_t produced = want - s.avail_out;
      if (full && produced > 0) break;
      done += produced;
      if (s.block_state == ISAL_BLOCK_FINISH) {
        if (done == outSize_) end = kSucceeded;
        break;
      }
      if (produced == 0 && s.avail_in == inBefore && fed == streamSize_) break;
      if (!full) {
        std::lock_guard<std::mutex> lock(mutex_);
        out_ready_ = done;
        ready_.notify_all();
      }
    }
    std::lock_guard<std::mutex> lock(mutex_);
    out_ready_ = end == kSucceeded ? done : out_ready_;
    state_ = end;
    ready_.notify_all();
  }

  const uint8_t* stream_;
  size_t streamSize_;
  uint8_t* out_;
  size_t outSize_;
  std::mutex mutex_;
  std::condition_variable ready_;
  size_t out_ready_ = 0;
  State state_ = kRunning;
  bool stop_ = false;
  std::thread worker_;
};

}  // namespace

bool readPlainPng(const std::string& path, standin::Document& document) {
  std::vector<PngChunk> metadata;
  return readPlainPng(path, document, metadata, [&](const PngHeader& h) {
    return h.width == document.width && h.height == document.height && h.depth == document.depth &&
           h.planes == document.planes();
  });
}

bool readPlainPng(const std::string& path, standin::Document& document, std::vector<PngChunk>& metadata,
                  const std::function<bool(const PngHeader&)>& makeDocument) {
  Mapping file;
  if (!mapFile(path, file) || file.size < 8 || memcmp(file.data, "\x89PNG\r\n\x1a\n", 8) != 0) return false;
  static const int kPlanesOfColourType[] = {1, 0, 3, 0, 2, 0, 4};
  static const char* const kKeptChunks[] = {"gAMA", "cHRM", "sRGB", "iCCP", "pHYs", "tEXt", "zTXt", "iTXt"};
  // The IDAT payloads are moved down to the front of the file's own buffer,
  // into one stream: no second copy of it is held.
  size_t streamSize = 0;
  bool ended = false;
  PngHeader header;
  metadata.clear();
  for (size_t at = 8; at + 12 <= file.size && !ended;) {
    uint32_t size = big32(file.data + at);
    if (size > file.size - at - 12) return false;
    const uint8_t* type = file.data + at + 4;
    const uint8_t* data = type + 4;
    if (libdeflate_crc32(libdeflate_crc32(0, type, 4), data, size) != big32(data + size)) return false;
    bool first = at == 8;
    if (first != (memcmp(type, "IHDR", 4) == 0)) return false;
    if (first) {
      if (size != 13 || big32(data) == 0 || big32(data) > 0x7fffffffu || big32(data + 4) == 0 ||
          big32(data + 4) > 0x7fffffffu || (data[8] != 8 && data[8] != 16) || data[9] > 6 ||
          kPlanesOfColourType[data[9]] == 0 || data[10] != 0 || data[11] != 0 || data[12] != 0)
        return false;
      header.width = int32_t(big32(data));
      header.height = int32_t(big32(data + 4));
      header.depth = data[8];
      header.planes = kPlanesOfColourType[data[9]];
    } else if (memcmp(type, "IDAT", 4) == 0) {
      memmove(file.data + streamSize, data, size);
      streamSize += size;
    } else if (memcmp(type, "IEND", 4) == 0) {
      ended = true;
    } else if (memcmp(type, "PLTE", 4) == 0 || memcmp(type, "tRNS", 4) == 0) {
      return false;
    } else if (!isSoftwareText(type, data, size)) {
      for (const char* kept : kKeptChunks)
        if (memcmp(type, kept, 4) == 0) metadata.push_back(PngChunk{kept, std::vector<uint8_t>(data, data + size)});
    }
    at += size + 12;
  }
  if (!ended) return false;

  // The inflate starts before the document is made: making it zeroes its
  // pixels, which now overlaps the inflate.
  size_t sampleBytes = size_t(header.depth / 8);
  size_t rowBytes = size_t(header.width) * size_t(header.planes) * sampleBytes;
  size_t rows = size_t(header.height);
  Mapping raw;
  if (!raw.map(rows * (rowBytes + 1), -1)) return false;
  PipedInflate inflate(file.data, streamSize, raw.data, raw.size);
  if (!makeDocument(header) || document.width != header.width || document.height != header.height ||
      document.depth != header.depth || document.planes() != header.planes)
    return false;

  std::vector<uint8_t> zeros(rowBytes, 0);
  size_t bpp = size_t(document.planes()) * sampleBytes;
  for (size_t y = 0; y < rows; ++y) {
    if (!inflate.waitFor((y + 1) * (rowBytes + 1))) return false;
    uint8_t* row = raw.data + y * (rowBytes + 1) + 1;
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
  return inflate.succeeded();
}

}  // namespace mendaris_cli

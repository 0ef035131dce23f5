// The tool's reading and writing alone, on one image file: reading it as a
// layer (and through OpenImageIO alone, as the tool did), then writing that layer as PNG at each compression (beside
// OpenImageIO's own PNG writer at its default level), and as TIFF and EXR with
// the library on one thread and on all. The best of RUNS runs, and the sizes.
//
//   file_io_times IN.png [RUNS]
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>

#include <OpenImageIO/imageio.h>

#include "cli/depth_mapping.h"
#include "cli/image_files.h"
#include "cli/png_writer.h"

using namespace mendaris_cli;

namespace {

double secondsNow(clockid_t clock) {
  struct timespec t;
  clock_gettime(clock, &t);
  return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

// The least wall time and the least processor time (all threads) of the runs:
// on a busy machine the second says more.
struct Times {
  double wall = 1e30, processor = 1e30;
};

Times best(int runs, const std::function<bool()>& step) {
  Times fastest;
  for (int i = 0; i < runs; ++i) {
    double wall = secondsNow(CLOCK_MONOTONIC), processor = secondsNow(CLOCK_PROCESS_CPUTIME_ID);
    if (!step()) {
      fprintf(stderr, "file_io_times: a step failed\n");
      exit(1);
    }
    fastest.wall = std::min(fastest.wall, secondsNow(CLOCK_MONOTONIC) - wall);
    fastest.processor = std::min(fastest.processor, secondsNow(CLOCK_PROCESS_CPUTIME_ID) - processor);
  }
  return fastest;
}

double mebibytes(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 ? double(info.st_size) / 1048576.0 : 0.0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: file_io_times IN.png [RUNS]\n");
    return 2;
  }
  std::string in = argv[1];
  int runs = argc > 2 ? atoi(argv[2]) : 3;
  std::string folder = "/tmp/mendaris-io-" + std::to_string(getpid());
  mkdir(folder.c_str(), 0777);
  standin::Document document;
  LayerSource source;
  std::string problem;
  Times read = best(runs, [&]() { return readLayer(in, document, source, problem) == IoResult::done; });
  printf("%s: %dx%d %d-bit\n", in.c_str(), document.width, document.height, document.depth);
  printf("  %-34s %7s  %9s  %8s\n", "", "wall", "processor", "size");
  printf("  %-34s %7.3f s %7.3f s\n", "read as the tool does", read.wall, read.processor);
  {
    std::vector<uint8_t> samples(document.pixels.size());
    Times library = best(runs, [&]() {
      OIIO::ImageSpec straight;
      straight.attribute("oiio:UnassociatedAlpha", 1);
      auto file = OIIO::ImageInput::open(in, &straight);
      return file && file->read_image(0, 0, 0, file->spec().nchannels, file->spec().format, samples.data());
    });
    printf("  %-34s %7.3f s %7.3f s\n", "read, OpenImageIO alone", library.wall, library.processor);
  }

  auto line = [&](const char* what, const std::string& out, Times t) {
    printf("  %-34s %7.3f s %7.3f s %7.1f MiB\n", what, t.wall, t.processor, mebibytes(out));
  };
  for (const char* level : {"fast", "default", "6", "9", "smallest"}) {
    int compression = 0;
    parseCompression(level, compression);
    std::string out = folder + "/out.png";
    Times t = best(runs, [&]() { return writeLayer(out, document, source, problem, compression) == IoResult::done; });
    line(("write PNG --compression " + std::string(level)).c_str(), out, t);
  }
  {
    // OpenImageIO's own PNG writer at its default level, on the same samples.
    std::string out = folder + "/oiio.png";
    OIIO::TypeDesc type = document.depth == 8 ? OIIO::TypeDesc::UINT8 : OIIO::TypeDesc::UINT16;
    std::vector<uint16_t> wide;
    if (document.depth == 16) {
      wide.resize(document.pixels.size() / 2);
      for (size_t i = 0; i < wide.size(); ++i) {
        uint16_t h;
        memcpy(&h, document.pixels.data() + i * 2, 2);
        wide[i] = hostToFile16(h);
      }
    }
    const void* data = document.depth == 8 ? static_cast<const void*>(document.pixels.data()) : wide.data();
    Times t = best(runs, [&]() {
      OIIO::ImageSpec spec(document.width, document.height, document.planes(), type);
      spec.attribute("oiio:UnassociatedAlpha", 1);
      auto out_ = OIIO::ImageOutput::create(out);
      return out_ && out_->open(out, spec) && out_->write_image(type, data) && out_->close();
    });
    line("write PNG, OpenImageIO default", out, t);
  }
  for (const char* ext : {"tif", "exr"}) {
    for (int threads : {1, 0}) {
      OIIO::attribute("threads", threads);
      OIIO::attribute("exr_threads", threads);
      std::string out = folder + "/out." + ext;
      Times t = best(runs, [&]() { return writeLayer(out, document, source, problem) == IoResult::done; });
      line((std::string("write ") + ext + (threads == 1 ? ", library on 1 thread" : ", library on all")).c_str(), out,
           t);
    }
  }
  std::string cleanup = "rm -rf " + folder;
  return system(cleanup.c_str()) == 0 ? 0 : 1;
}

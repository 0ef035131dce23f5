// One whole run of the filter on a generated atlas, timed through the
// stand-in host: total seconds, peak memory, and the phases as the host sees
// them (reading, the work between reading and the first written tile, the
// render with its write-back).
//
// The host lends its rows to be read, as the command-line tool's does; with
// `copy` it copies every tile as Photoshop does.
//
//   end_to_end_timing SIZE DEPTH [RUNS] [copy]
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>

#include <algorithm>
#include <string>
#include <vector>

#include "plugin_host/scenarios.h"

int main(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: end_to_end_timing SIZE DEPTH [RUNS] [copy]\n");
    return 2;
  }
  int size = atoi(argv[1]);
  int depth = atoi(argv[2]);
  int runs = argc > 3 ? atoi(argv[3]) : 1;
  standin::HostOptions options;
  options.lendInputRows = !(argc > 4 && std::string(argv[4]) == "copy");
  standin::Module module;
  if (!standin::loadModule(module, MENDARIS_MODULE_PATH)) {
    fprintf(stderr, "%s\n", module.error.c_str());
    return 1;
  }
  const standin::Document original = standin::makeAtlasDocument(size, size, depth, 3, 2024);
  size_t bare = 0;
  for (int32_t y = 0; y < size; ++y)
    for (int32_t x = 0; x < size; ++x) bare += original.sample(x, y, 3) == 0.0 ? 1 : 0;
  // Each run's total and phases; the median run is reported.
  struct Timing {
    double total, read, middle, render;
  };
  std::vector<Timing> timings;
  std::string digest;
  for (int i = 0; i < runs; ++i) {
    standin::Document d = original;
    standin::Host host(module, d, options);
    double start = host.secondsSinceStart();
    standin::RunOutcome outcome = host.run();
    double end = host.secondsSinceStart();
    if (outcome.result != 0) {
      fprintf(stderr, "run failed: %d\n", outcome.result);
      return 1;
    }
    const std::vector<double>& t = host.advanceTimes();
    size_t readTiles = size_t((size + 511) / 512) * size_t((size + 511) / 512);
    double lastRead = t[readTiles - 1];
    double firstRender = t[readTiles];
    timings.push_back(Timing{end - start, lastRead - start, firstRender - lastRead, end - firstRender});
    digest = standin::documentDigest(d);
  }
  std::sort(timings.begin(), timings.end(), [](const Timing& a, const Timing& b) { return a.total < b.total; });
  const Timing& median = timings[timings.size() / 2];
  double total = median.total, read = median.read, middle = median.middle, render = median.render;
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  printf("%dx%d %2d-bit  %.0f%% bare  total %.3f s  (read %.0f%%, levels+fields+fill %.0f%%, render+write %.0f%%)"
         "  peak %.0f MiB  digest %s\n",
         size, size, depth, 100.0 * double(bare) / (double(size) * size), total, 100.0 * read / total,
         100.0 * middle / total, 100.0 * render / total, usage.ru_maxrss / 1024.0, digest.c_str());
  return 0;
}

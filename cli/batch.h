// Several files at once. The filter's state lives once per process, so each
// file runs in a worker process of its own: this very program, started as
// `mendaris --quiet [OPTIONS] IN OUT`, with its stderr piped back here. One
// progress line stands for all of them; the workers' messages are printed
// whole, each when its worker ends. On a stopping signal no new worker starts
// and the running ones are sent the same signal: each removes its own
// unfinished output, as the tool does for one file.
#pragma once

#include <string>
#include <vector>

namespace mendaris_cli {

struct BatchFile {
  std::string input;
  std::string output;
};

struct BatchResult {
  int failures = 0;
  bool stopped = false;
};

// Runs every file in up to `parallel` workers, each started with
// `workerOptions` before IN and OUT.
BatchResult runBatch(const std::vector<BatchFile>& files, const std::vector<std::string>& workerOptions,
                     int parallel);

// The number of workers when none is asked for: one per processor.
int defaultJobs();

}  // namespace mendaris_cli

// Several files at once. The filter's state lives once per process, so each
// file runs in a worker process of its own, forked from this one once the
// plug-in is loaded, with its stderr piped back here. One
// progress line stands for all of them; the workers' messages are printed
// whole, each when its worker ends. On a stopping signal no new worker starts
// and the running ones are sent the same signal: each removes its own
// unfinished output, as the tool does for one file.
//
// While files enough remain to keep every worker busy, each worker runs on a
// share of the processors of its own (with two workers on two processors,
// one each): no worker's threads then wait behind another's, and none moves
// between processors. The last files, fewer than the workers, run on all.
#pragma once

#include <functional>
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

// Runs every file in up to `parallel` workers; in each, `runOne` does the
// file and answers the worker's exit status (0 done, 1 failed, 128 + the
// signal when stopped).
BatchResult runBatch(const std::vector<BatchFile>& files, const std::function<int(const BatchFile&)>& runOne,
                     int parallel);

// The number of workers when none is asked for: one per processor of the
// process's CPU affinity.
int defaultJobs();

}  // namespace mendaris_cli

// How many processors the tool's own work may use: the processors of this
// process's CPU affinity (what `taskset` or a container grants), at least 1.
// std::thread::hardware_concurrency counts every processor of the machine.
#pragma once

#include <sched.h>

namespace mendaris_cli {

inline int processorCount() {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (sched_getaffinity(0, sizeof(set), &set) != 0) return 1;
  int n = CPU_COUNT(&set);
  return n < 1 ? 1 : n;
}

}  // namespace mendaris_cli

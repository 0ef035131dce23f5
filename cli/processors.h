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

// Narrows this process to share `share` of `shares` of its processors: every
// shares-th one of them, from the share-th on. Nothing when it has fewer
// processors than shares, or they cannot be read or set.
inline void keepProcessorShare(int share, int shares) {
  cpu_set_t all;
  CPU_ZERO(&all);
  if (share < 0 || shares < 2 || sched_getaffinity(0, sizeof(all), &all) != 0 || CPU_COUNT(&all) < shares) return;
  cpu_set_t mine;
  CPU_ZERO(&mine);
  int index = 0;
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (!CPU_ISSET(cpu, &all)) continue;
    if (index % shares == share) CPU_SET(cpu, &mine);
    ++index;
  }
  sched_setaffinity(0, sizeof(mine), &mine);
}

}  // namespace mendaris_cli

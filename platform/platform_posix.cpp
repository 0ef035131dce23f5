// POSIX threads, events and memory behind platform.h.
#include <pthread.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include "platform/platform.h"

// One lock and one condition serve every event of the process: waits are few
// and long (a unit of work each), and a wait for any one of several events
// needs a condition shared by all of them.
struct PlatformEventRecord {
  bool signalled;
};

namespace {

pthread_mutex_t eventLock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t eventChanged = PTHREAD_COND_INITIALIZER;

struct ThreadStart {
  PlatformThreadEntry entry;
  void* argument;
#if defined(__linux__)
  // The processors given back once the thread runs, when it started on one.
  bool placed;
  cpu_set_t allowed;
#endif
};

void* threadMain(void* raw) {
  ThreadStart start = *static_cast<ThreadStart*>(raw);
  free(raw);
#if defined(__linux__)
  if (start.placed) pthread_setaffinity_np(pthread_self(), sizeof start.allowed, &start.allowed);
#endif
  start.entry(start.argument);
  return nullptr;
}

#if defined(__linux__)
// Has the thread of `attributes` start on processor number `processor` of
// those the calling thread may use, and keeps those in `start` for the
// thread to take back. Nothing when there is only one, or they cannot be
// read.
void placeFirstRun(pthread_attr_t* attributes, int32_t processor, ThreadStart* start) {
  start->placed = false;
  if (processor < 0 || sched_getaffinity(0, sizeof start->allowed, &start->allowed) != 0) return;
  const int count = CPU_COUNT(&start->allowed);
  if (count < 2) return;
  int wanted = processor % count;
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (!CPU_ISSET(cpu, &start->allowed) || wanted-- > 0) continue;
    cpu_set_t first;
    CPU_ZERO(&first);
    CPU_SET(cpu, &first);
    start->placed = pthread_attr_setaffinity_np(attributes, sizeof first, &first) == 0;
    return;
  }
}
#endif

}  // namespace

PlatformFaultHook platformFaultHook = nullptr;

bool platformStartThread(PlatformThreadEntry entry, void* argument, uint32_t stackBytes) {
  return platformStartThreadOn(entry, argument, stackBytes, -1);
}

bool platformStartThreadOn(PlatformThreadEntry entry, void* argument, uint32_t stackBytes, int32_t processor) {
  if (platformFaultInjected(kFaultThreadStart, stackBytes)) return false;
  ThreadStart* start = static_cast<ThreadStart*>(malloc(sizeof(ThreadStart)));
  if (start == nullptr) return false;
  start->entry = entry;
  start->argument = argument;
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  // The sanitizers' own frames need more room than the work does.
  stackBytes *= 8;
#endif
  size_t size = size_t(stackBytes) < size_t(PTHREAD_STACK_MIN) ? size_t(PTHREAD_STACK_MIN) : size_t(stackBytes);
  pthread_attr_setstacksize(&attributes, size);
#if defined(__linux__)
  placeFirstRun(&attributes, processor, start);
#else
  (void)processor;
#endif
  pthread_t thread;
  int failed = pthread_create(&thread, &attributes, threadMain, start);
  pthread_attr_destroy(&attributes);
  if (failed != 0) {
    free(start);
    return false;
  }
  return true;
}

PlatformEvent platformCreateEvent() {
  if (platformFaultInjected(kFaultEventCreate, 0)) return nullptr;
  PlatformEvent event = static_cast<PlatformEvent>(malloc(sizeof(PlatformEventRecord)));
  if (event != nullptr) event->signalled = false;
  return event;
}

void platformCloseEvent(PlatformEvent event) { free(event); }

bool platformSetEvent(PlatformEvent event) {
  if (event == nullptr) return false;
  pthread_mutex_lock(&eventLock);
  event->signalled = true;
  pthread_cond_broadcast(&eventChanged);
  pthread_mutex_unlock(&eventLock);
  return true;
}

void platformResetEvent(PlatformEvent event) {
  if (event == nullptr) return;
  pthread_mutex_lock(&eventLock);
  event->signalled = false;
  pthread_mutex_unlock(&eventLock);
}

void platformWaitEvent(PlatformEvent event) { platformWaitAnyEvent(&event, 1); }

int platformWaitAnyEvent(PlatformEvent* events, int count) {
  pthread_mutex_lock(&eventLock);
  for (;;) {
    for (int i = 0; i < count; ++i) {
      if (events[i] != nullptr && events[i]->signalled) {
        events[i]->signalled = false;
        pthread_mutex_unlock(&eventLock);
        return i;
      }
    }
    pthread_cond_wait(&eventChanged, &eventLock);
  }
}

int platformProcessorCount() {
#if defined(__linux__)
  cpu_set_t set;
  CPU_ZERO(&set);
  if (sched_getaffinity(0, sizeof(set), &set) == 0) {
    int n = CPU_COUNT(&set);
    if (n > 0) return n;
  }
#endif
  return 1;
}

void platformPrefault(void* block, size_t bytes) {
#if defined(MADV_POPULATE_WRITE)
  const long pageSize = sysconf(_SC_PAGESIZE);
  if (block == nullptr || pageSize <= 0) return;
  const uintptr_t page = uintptr_t(pageSize);
  const uintptr_t start = (uintptr_t(block) + page - 1) & ~(page - 1);
  const uintptr_t end = (uintptr_t(block) + bytes) & ~(page - 1);
  // Older systems refuse the advice; the pages then come as they are written.
  if (end > start) madvise(reinterpret_cast<void*>(start), end - start, MADV_POPULATE_WRITE);
#else
  (void)block;
  (void)bytes;
#endif
}

void* platformGlobalAlloc(size_t size) {
  if (platformFaultInjected(kFaultGlobalBlock, size)) return nullptr;
  return calloc(1, size == 0 ? 1 : size);
}

void platformGlobalFree(void* block) { free(block); }

void* platformModuleHandle() {
  static int anchor;
  return &anchor;
}

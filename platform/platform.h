// The only operating-system code of the engine sits behind this header:
// threads, auto-reset events, processor count, zero-filled global memory and
// the module handle. One implementation for Win32, one for POSIX.
#pragma once

#include <stddef.h>
#include <stdint.h>

typedef struct PlatformEventRecord* PlatformEvent;
typedef void (*PlatformThreadEntry)(void* argument);

// Starts a detached thread with the stated stack size; false if it could not start.
bool platformStartThread(PlatformThreadEntry entry, void* argument, uint32_t stackBytes);

// The same, with the thread's first run on one processor: number `processor`
// (taken modulo their count) of those the starting thread may run on. Once
// running, the thread may run on all of them again, and the system moves it
// as it likes. A negative number, a single processor, or a system that offers
// no such start (Windows, here) starts it as platformStartThread does.
bool platformStartThreadOn(PlatformThreadEntry entry, void* argument, uint32_t stackBytes, int32_t processor);

// Auto-reset events: a wait that returns resets the event it returns on.
PlatformEvent platformCreateEvent();
void platformCloseEvent(PlatformEvent event);
bool platformSetEvent(PlatformEvent event);
void platformResetEvent(PlatformEvent event);
void platformWaitEvent(PlatformEvent event);
// Waits without a time limit until one of the events is set; returns its index.
int platformWaitAnyEvent(PlatformEvent* events, int count);

// Processors this process may run on (its CPU affinity), at least 1.
int platformProcessorCount();

// Has the system make the whole pages inside [block, block + bytes) ready
// for writing, cleared, as a first write would, without touching their
// contents; any thread may write them meanwhile. Where the system cannot,
// nothing happens.
void platformPrefault(void* block, size_t bytes);

// Zero-filled memory from the system's global allocator.
void* platformGlobalAlloc(size_t size);
void platformGlobalFree(void* block);

// The handle of this module (HINSTANCE on Windows), for loading resources.
void* platformModuleHandle();

// Fault injection for the tests of the failure roads. Nothing in the module
// sets the hook; when a test does, it is asked before each operation that can
// fail for want of a resource, and a true answer makes that operation fail as
// the system would: null memory, no event, no thread.
enum PlatformFaultSite : int {
  kFaultBlock = 0,        // a block of the process heap (blockAlloc)
  kFaultGlobalBlock = 1,  // zero-filled global memory (the cell arrays)
  kFaultEventCreate = 2,
  kFaultThreadStart = 3,
  kFaultSiteCount = 4,
};
typedef bool (*PlatformFaultHook)(PlatformFaultSite site, size_t size);
extern PlatformFaultHook platformFaultHook;
inline bool platformFaultInjected(PlatformFaultSite site, size_t size) {
  return platformFaultHook != nullptr && platformFaultHook(site, size);
}

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

// Zero-filled memory from the system's global allocator.
void* platformGlobalAlloc(size_t size);
void platformGlobalFree(void* block);

// The handle of this module (HINSTANCE on Windows), for loading resources.
void* platformModuleHandle();

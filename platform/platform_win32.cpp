// Win32 threads, events and memory behind platform.h.
#include <windows.h>

#include "plugin_api/plugin_api.h"
#include "platform/platform.h"

struct PlatformEventRecord;  // a Win32 event HANDLE, cast

namespace {

HANDLE handleOf(PlatformEvent event) { return reinterpret_cast<HANDLE>(event); }

struct ThreadStart {
  PlatformThreadEntry entry;
  void* argument;
};

PI_HOST_CALLED DWORD WINAPI threadMain(LPVOID raw) {
  ThreadStart start = *static_cast<ThreadStart*>(raw);
  HeapFree(GetProcessHeap(), 0, raw);
  start.entry(start.argument);
  return 0;
}

}  // namespace

PlatformFaultHook platformFaultHook = nullptr;

bool platformStartThreadOn(PlatformThreadEntry entry, void* argument, uint32_t stackBytes, int32_t) {
  return platformStartThread(entry, argument, stackBytes);
}

bool platformStartThread(PlatformThreadEntry entry, void* argument, uint32_t stackBytes) {
  if (platformFaultInjected(kFaultThreadStart, stackBytes)) return false;
  ThreadStart* start = static_cast<ThreadStart*>(HeapAlloc(GetProcessHeap(), 0, sizeof(ThreadStart)));
  if (start == nullptr) return false;
  start->entry = entry;
  start->argument = argument;
  HANDLE thread = CreateThread(nullptr, stackBytes, threadMain, start, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
  if (thread == nullptr) {
    HeapFree(GetProcessHeap(), 0, start);
    return false;
  }
  CloseHandle(thread);
  return true;
}

PlatformEvent platformCreateEvent() {
  if (platformFaultInjected(kFaultEventCreate, 0)) return nullptr;
  return reinterpret_cast<PlatformEvent>(CreateEventA(nullptr, FALSE, FALSE, nullptr));
}

void platformCloseEvent(PlatformEvent event) {
  if (event != nullptr) CloseHandle(handleOf(event));
}

bool platformSetEvent(PlatformEvent event) { return event != nullptr && SetEvent(handleOf(event)) != 0; }

void platformResetEvent(PlatformEvent event) {
  if (event != nullptr) ResetEvent(handleOf(event));
}

void platformWaitEvent(PlatformEvent event) { WaitForSingleObject(handleOf(event), INFINITE); }

int platformWaitAnyEvent(PlatformEvent* events, int count) {
  if (count <= MAXIMUM_WAIT_OBJECTS) {
    DWORD answer = WaitForMultipleObjects(DWORD(count), reinterpret_cast<HANDLE*>(events), FALSE, INFINITE);
    return answer >= WAIT_OBJECT_0 && answer < WAIT_OBJECT_0 + DWORD(count) ? int(answer - WAIT_OBJECT_0) : -1;
  }
  // More slots than one wait can watch: poll the groups in turn.
  for (;;) {
    for (int first = 0; first < count; first += MAXIMUM_WAIT_OBJECTS) {
      int n = count - first < MAXIMUM_WAIT_OBJECTS ? count - first : MAXIMUM_WAIT_OBJECTS;
      DWORD answer = WaitForMultipleObjects(DWORD(n), reinterpret_cast<HANDLE*>(events + first), FALSE, 1);
      if (answer >= WAIT_OBJECT_0 && answer < WAIT_OBJECT_0 + DWORD(n)) return first + int(answer - WAIT_OBJECT_0);
    }
  }
}

int platformProcessorCount() {
  DWORD_PTR processMask = 0;
  DWORD_PTR systemMask = 0;
  if (GetProcessAffinityMask(GetCurrentProcess(), &processMask, &systemMask) && processMask != 0) {
    int n = 0;
    for (DWORD_PTR m = processMask; m != 0; m &= m - 1) ++n;
    return n;
  }
  SYSTEM_INFO info;
  GetSystemInfo(&info);
  return info.dwNumberOfProcessors > 0 ? int(info.dwNumberOfProcessors) : 1;
}

// Windows clears a page at its first write as well, but has no advice that
// makes private pages ready without writing them: the pages come as written.
void platformPrefault(void*, size_t) {}

// Moveable, zero-filled, and locked for its whole life.
void* platformGlobalAlloc(size_t size) {
  if (platformFaultInjected(kFaultGlobalBlock, size)) return nullptr;
  HGLOBAL block = GlobalAlloc(GMEM_MOVEABLE | GMEM_ZEROINIT, size == 0 ? 1 : size);
  if (block == nullptr) return nullptr;
  void* pointer = GlobalLock(block);
  if (pointer == nullptr) GlobalFree(block);
  return pointer;
}

void platformGlobalFree(void* pointer) {
  if (pointer == nullptr) return;
  HGLOBAL block = GlobalHandle(pointer);
  if (block == nullptr) return;
  GlobalUnlock(block);
  GlobalFree(block);
}

void* platformModuleHandle() {
  HMODULE module = nullptr;
  GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                     reinterpret_cast<LPCSTR>(&platformModuleHandle), &module);
  return module;
}

// The module's entry point and the process-wide words through which the
// engine reaches the host and the two long-lived blocks.
#pragma once

#include <stdint.h>

#include "plugin_api/plugin_api.h"

struct ParamBlock;
struct InstanceBlock;

// Written by PluginMain at the top of every call (and by lockBlocks), read
// everywhere else: the engine's functions do not take the host record as an
// argument. Workers read only paramBlock and instanceBlock.
struct HostContext {
  FilterRecord* filterRecord;  // for the About selector this points at an AboutRecord
  intptr_t* dataWord;          // the host's data word: the InstanceBlock handle between calls
  int16_t* resultWord;
  void* moduleInstance;
  void* basicSuite;
  ParamBlock* paramBlock;
  InstanceBlock* instanceBlock;
  uint16_t lastErrorCode;  // diagnostic only: the latest failure, never read, never reset
};

extern HostContext hostContext;

// Internal failure codes, kept in lastErrorCode.
enum : uint16_t {
  kErrParamBlockAlloc = 198,
  kErrRefusedCase = 201,
  kErrRefusedNoAdvance = 202,
  kErrRefusedMultichannel = 203,
  kErrInstanceBlockAlloc = 205,
  kErrHandleMissing = 206,
  kErrLockFailed = 207,
  kErrCellScratch = 225,
  kErrSourceStore = 226,
  kErrScratchAlloc = 227,
  kErrUserAbort = 228,
  kErrReadAdvance = 231,
  kErrJobGivenUp = 232,    // a job stopped with units left: no unit record, event or thread to be had
  kErrUnitMemory = 233,    // a store unit could not get its line buffer
};

// The module's own positive result values: no message goes with them.
constexpr int16_t kResultRefused = 1;
constexpr int16_t kResultScratchFailed = 3;
constexpr int16_t kResultSourceFailed = 999;

// A failure for want of memory (or of an event or a thread) inside a run:
// reported at once, like any failure, and once more as the run ends, so that a
// later advanceState's answer cannot hide it: the output is not whole.
void reportShortfall(uint16_t code, int16_t result);
// The result of the last shortfall of the present run, 0 when none.
extern int16_t runShortfall;

int16_t getResult();
void setResult(int16_t value);
// Records a failure: the diagnostic code and the host's result word.
void setFailure(uint16_t code, int16_t result);

PI_EXPORT void PI_CALL PluginMain(int16_t selector, void* record, intptr_t* data, int16_t* result);

// Selector handlers (doAbout lives with the dialogs).
void doParameters();
void doPrepare();
void doStart();
void doContinue();
void doFinish();

void createParamBlock();
void createInstanceBlock();
void lockBlocks();

#include "host/plugin_main.h"

#include <string.h>

#include "host/blocks.h"
#include "host/host_record.h"
#include "platform/dialogs.h"
#include "platform/platform.h"
#include "run/job_pool.h"
#include "run/run_driver.h"

HostContext hostContext = {};

int16_t getResult() { return hostContext.resultWord != nullptr ? *hostContext.resultWord : 0; }

void setResult(int16_t value) {
  if (hostContext.resultWord != nullptr) *hostContext.resultWord = value;
}

void setFailure(uint16_t code, int16_t result) {
  hostContext.lastErrorCode = code;
  setResult(result);
}

int16_t runShortfall = 0;

void reportShortfall(uint16_t code, int16_t result) {
  runShortfall = result;
  setFailure(code, result);
}

namespace {

FilterRecord* record() { return hostContext.filterRecord; }

// Set when this call made the InstanceBlock: a host's new handle may hold
// anything, and the first-use flag must read as clear on the road of Prepare
// without Parameters.
bool instanceIsNew = false;
// Likewise for a ParamBlock made in this call: the job pool reads its progress
// words from the first job of the first run on, before the run sets them.
bool paramsAreNew = false;

Handle instanceHandle() {
  return hostContext.dataWord != nullptr ? reinterpret_cast<Handle>(*hostContext.dataWord) : nullptr;
}

// Both blocks stay locked for the whole of a selector; this is the only unlock.
void unlockBlocks() {
  HandleProcs* procs = getHandleProcs();
  if (procs == nullptr || procs->unlockProc == nullptr) return;
  Handle instance = instanceHandle();
  if (instance != nullptr) procs->unlockProc(instance);
  if (record()->parameters != nullptr) procs->unlockProc(record()->parameters);
}

// Clears the first byte of ParamBlock and the view state of a freshly prepared block.
void prepareFreshBlocks() {
  lockBlocks();
  ParamBlock* params = hostContext.paramBlock;
  if (params != nullptr) params->blockHeader = 0;
  if (paramsAreNew && params != nullptr) {
    params->progressDone = -1;  // no progress shown until a run sets it
    params->progressTotal = 1;
  }
  paramsAreNew = false;
  if (instanceIsNew && hostContext.instanceBlock != nullptr) hostContext.instanceBlock->firstUseFlag = false;
  instanceIsNew = false;
  resetViewState();
}

// Creates whichever block the host does not hold yet.
void createMissingBlocks() {
  if (record()->parameters == nullptr) createParamBlock();
  if (instanceHandle() == nullptr) createInstanceBlock();
}

// The filter asks the host's pool for no more than two bytes per sample of a
// 256 by 256 tile: its own memory comes from the process heap.
void limitMaxSpace() {
  VRect filter = getFilterRect();
  int32_t rows = filter.bottom - filter.top;
  int32_t cols = filter.right - filter.left;
  if (rows > 256) rows = 256;
  if (cols > 256) cols = 256;
  int32_t planes = getPlanes() + (getMaskData() != nullptr ? 1 : 0);
  int32_t need = planes * rows * cols * 2;
  if (getMaxSpace() > need) setMaxSpace(need);
}

}  // namespace

void createParamBlock() {
  HandleProcs* procs = getHandleProcs();
  Handle h = procs != nullptr && procs->newProc != nullptr ? procs->newProc(int32_t(sizeof(ParamBlock))) : nullptr;
  record()->parameters = h;
  if (h == nullptr) setFailure(kErrParamBlockAlloc, memFullErr);
  paramsAreNew = h != nullptr;
}

void createInstanceBlock() {
  HandleProcs* procs = getHandleProcs();
  Handle h =
      procs != nullptr && procs->newProc != nullptr ? procs->newProc(int32_t(sizeof(InstanceBlock))) : nullptr;
  if (h == nullptr) {
    setFailure(kErrInstanceBlockAlloc, memFullErr);
    return;
  }
  *hostContext.dataWord = reinterpret_cast<intptr_t>(h);
  instanceIsNew = true;
}

void lockBlocks() {
  Handle params = record()->parameters;
  Handle instance = instanceHandle();
  if (params == nullptr || instance == nullptr) {
    setFailure(kErrHandleMissing, filterBadParameters);
    return;
  }
  HandleProcs* procs = getHandleProcs();
  // Both locks are asked for before either answer is tested.
  hostContext.paramBlock = reinterpret_cast<ParamBlock*>(procs->lockProc(params, 1));
  hostContext.instanceBlock = reinterpret_cast<InstanceBlock*>(procs->lockProc(instance, 1));
  if (hostContext.paramBlock == nullptr || hostContext.instanceBlock == nullptr) {
    setFailure(kErrLockFailed, memFullErr);
  }
}

void doParameters() {
  createMissingBlocks();
  if (getResult() == 0) prepareFreshBlocks();
  // Also after a failure above: whatever block exists learns that Parameters ran.
  InstanceBlock* instance = hostContext.instanceBlock;
  if (instance != nullptr && instanceHandle() != nullptr) {
    instance->parametersPending = true;
    instance->firstUseFlag = true;
  }
}

void doPrepare() {
  if (record()->parameters != nullptr && instanceHandle() != nullptr) {
    lockBlocks();
  } else {
    // A repeat run whose blocks the host has let go: the first-use flag is not set here.
    createMissingBlocks();
    if (getResult() == 0) prepareFreshBlocks();
  }
  setBufferSpace(0);
  limitMaxSpace();
  if (hostContext.paramBlock == nullptr || hostContext.instanceBlock == nullptr) return;
  applyPrepareDefaults();
  measureFilterRect(hostContext.instanceBlock);
  initScratchSizes(hostContext.instanceBlock);
  clearRunFlags(hostContext.instanceBlock);
}

void doStart() {
  lockBlocks();
  ParamBlock* params = hostContext.paramBlock;
  if (params == nullptr) return;
  params->previewAllowed = hasAdvanceState() && hasDisplayPixels() && !params->previewDisabled;

  InstanceBlock* instance = hostContext.instanceBlock;
  if (instance != nullptr) {
    // The scratch comes first, so that a refused run also allocates and releases it.
    allocateScratch(instance);
    applyStartDefaults(instance);
  }

  // Each refusal by itself: a host that fails two of them shows two dialogs.
  if (!hasEditableTransparency()) {
    showRefusal("REFUSAL1");
    setFailure(kErrRefusedCase, kResultRefused);
  }
  if (!hasAdvanceState()) {
    showRefusal("REFUSAL2");
    setFailure(kErrRefusedNoAdvance, kResultRefused);
  }
  if (getImageMode() == plugInModeMultichannel) {
    // There is no such dialog in the module: multichannel images are refused silently.
    showRefusal("REFUSAL3");
    setFailure(kErrRefusedMultichannel, kResultRefused);
  }

  if (getResult() != 0) {
    if (instance != nullptr) releaseScratch(instance);
    emptyHostRects();
    return;
  }
  if (instance != nullptr) {
    instance->parametersPending = false;
    runShortfall = 0;
    runFilter();
    // A source store that could not be made leaves no tiles behind.
    if (instance->sourceStore.tiles == nullptr && runShortfall == 0) runShortfall = kResultSourceFailed;
    // A store, a job or a unit that memory denied fails the run, whatever a
    // later advanceState answered: the output is not whole.
    if (runShortfall != 0 && getResult() == 0) setResult(runShortfall);
    // A host calls no Finish after a Start that failed or was cancelled: the
    // run's memory goes now rather than never. Finish would release it again,
    // which is harmless.
    if (getResult() != 0) releaseScratch(instance);
  }
}

void doContinue() {
  // The whole image was done inside Start: empty rectangles end the host's loop.
  emptyHostRects();
}

void doFinish() {
  lockBlocks();
  if (hostContext.instanceBlock != nullptr) releaseScratch(hostContext.instanceBlock);
}

PI_EXPORT PI_HOST_CALLED void PI_CALL PluginMain(int16_t selector, void* record, intptr_t* data, int16_t* result) {
  hostContext.filterRecord = static_cast<FilterRecord*>(record);
  hostContext.dataWord = data;
  hostContext.resultWord = result;
  hostContext.moduleInstance = platformModuleHandle();
  // Pointers locked in an earlier call are stale by now.
  hostContext.paramBlock = nullptr;
  hostContext.instanceBlock = nullptr;
  instanceIsNew = false;
  paramsAreNew = false;

  if (selector == filterSelectorAbout) {
    AboutRecord* about = static_cast<AboutRecord*>(record);
    hostContext.basicSuite = about != nullptr ? about->sSPBasic : nullptr;
    doAbout();
    return;  // an AboutRecord carries no handles of ours
  }
  if (record == nullptr) return;
  hostContext.basicSuite = hostContext.filterRecord->sSPBasic;

  switch (selector) {
    case filterSelectorParameters: doParameters(); break;
    case filterSelectorPrepare: doPrepare(); break;
    case filterSelectorStart: doStart(); break;
    case filterSelectorContinue: doContinue(); break;
    case filterSelectorFinish: doFinish(); break;
    default: break;
  }
  unlockBlocks();
}

#include "host/host_record.h"

#include <stdlib.h>
#include <time.h>

#include "host/blocks.h"
#include "host/plugin_main.h"
#include "platform/platform.h"
#include "finish/host_tile_view.h"
#include "run/job_pool.h"

namespace {

VRect runRect = {0, 0, 0, 0};

FilterRecord* record() { return hostContext.filterRecord; }

BigDocumentRecord* bigDocument() {
  FilterRecord* r = record();
  return r != nullptr ? r->bigDocumentData : nullptr;
}

VRect fromRect16(const PIRect& r) { return VRect{r.top, r.left, r.bottom, r.right}; }

// Cut to 16 bits on writing: the host offers 32-bit rectangles when it needs them.
PIRect toRect16(VRect r) {
  PIRect out;
  out.top = int16_t(r.top);
  out.left = int16_t(r.left);
  out.bottom = int16_t(r.bottom);
  out.right = int16_t(r.right);
  return out;
}

VRect fromRect32(const PIVRect& r) { return VRect{r.top, r.left, r.bottom, r.right}; }
PIVRect toRect32(VRect r) { return PIVRect{r.top, r.left, r.bottom, r.right}; }

}  // namespace

// ---- rectangle helpers ------------------------------------------------------------------

VRect makeRect(int32_t left, int32_t top, int32_t right, int32_t bottom) {
  return VRect{top, left, bottom, right};
}

VRect offsetRect(VRect r, int32_t dh, int32_t dv) {
  return VRect{r.top + dv, r.left + dh, r.bottom + dv, r.right + dh};
}

bool rectIsEmpty(VRect r) { return r.left >= r.right || r.top >= r.bottom; }

bool rectsEqual(VRect a, VRect b) {
  return a.top == b.top && a.left == b.left && a.bottom == b.bottom && a.right == b.right;
}

VRect getRunRect() { return runRect; }
void setRunRect(VRect r) { runRect = r; }
VRect exchangeRunRect(VRect r) {
  VRect old = runRect;
  runRect = r;
  return old;
}

// ---- host rectangles ------------------------------------------------------------------------

bool usesBigDocument() {
  BigDocumentRecord* big = bigDocument();
  return big != nullptr && big->PluginUsing32BitCoordinates != 0;
}

VRect getFilterRect() {
  if (usesBigDocument()) return fromRect32(bigDocument()->filterRect32);
  return fromRect16(record()->filterRect);
}

VRect getInRect() {
  if (usesBigDocument()) return fromRect32(bigDocument()->inRect32);
  return fromRect16(record()->inRect);
}

VRect getOutRect() {
  if (usesBigDocument()) return fromRect32(bigDocument()->outRect32);
  return fromRect16(record()->outRect);
}

VRect getMaskRect() {
  if (usesBigDocument()) return fromRect32(bigDocument()->maskRect32);
  return fromRect16(record()->maskRect);
}

VPoint getFloatCoord() {
  if (usesBigDocument()) {
    PIVPoint p = bigDocument()->floatCoord32;
    return VPoint{p.v, p.h};
  }
  PIPoint p = record()->floatCoord;
  return VPoint{p.v, p.h};
}

void setInRect(VRect r) {
  if (usesBigDocument())
    bigDocument()->inRect32 = toRect32(r);
  else
    record()->inRect = toRect16(r);
}

void setOutRect(VRect r) {
  if (usesBigDocument())
    bigDocument()->outRect32 = toRect32(r);
  else
    record()->outRect = toRect16(r);
}

void setMaskRect(VRect r) {
  if (usesBigDocument())
    bigDocument()->maskRect32 = toRect32(r);
  else
    record()->maskRect = toRect16(r);
}

void emptyHostRects() {
  VRect empty = {0, 0, 0, 0};
  setInRect(empty);
  setOutRect(empty);
  setMaskRect(empty);
}

// ---- single fields ------------------------------------------------------------------------------

int32_t getPlanes() { return record()->planes; }
void* getInData() { return record()->inData; }
int32_t getInRowBytes() { return record()->inRowBytes; }
void* getOutData() { return record()->outData; }
int32_t getOutRowBytes() { return record()->outRowBytes; }
void* getMaskData() { return record()->maskData; }
int32_t getMaskRowBytes() { return record()->maskRowBytes; }
int32_t getInLoPlane() { return record()->inLoPlane; }
int32_t getInHiPlane() { return record()->inHiPlane; }
int32_t getInLayerPlanes() { return record()->inLayerPlanes; }
int32_t getOutLayerPlanes() { return record()->outLayerPlanes; }
bool getHaveMask() { return record()->haveMask != 0; }
uint32_t getHostSig() { return record()->hostSig; }
int32_t getFilterCase() { return record()->filterCase; }
int32_t getImageMode() { return record()->imageMode; }
int32_t getMaxSpace() { return record()->maxSpace; }
void setMaxSpace(int32_t value) { record()->maxSpace = value; }
void setBufferSpace(int32_t value) { record()->bufferSpace = value; }
void setAutoMask(bool value) { record()->autoMask = value ? 1 : 0; }
bool hasAdvanceState() { return record()->advanceState != nullptr; }
bool hasDisplayPixels() { return record()->displayPixels != nullptr; }
HandleProcs* getHandleProcs() { return record()->handleProcs; }
void* getBufferProcs() { return record() != nullptr ? record()->bufferProcs : nullptr; }

void hostPlanesAllRate(int32_t rate, int16_t padding) {
  FilterRecord* r = record();
  r->outLoPlane = 0;
  r->inLoPlane = 0;
  r->outHiPlane = int16_t(r->planes - 1);
  r->inHiPlane = int16_t(r->planes - 1);
  r->inputRate = rate << 16;
  r->maskRate = rate << 16;
  r->inputPadding = padding;
  r->outputPadding = padding;
  r->maskPadding = padding;
}

void takeHostTileView(TileCursor* cursor) {
  HostTileView& v = cursor->view;
  v.hasTransparency = hasEditableTransparency();
  v.planes = int16_t(getPlanes());
  v.inHiPlane = int16_t(getInHiPlane());
  v.inLoPlane = int16_t(getInLoPlane());
  v.inData = getInData();
  v.outData = getOutData();
  v.inLayerPlanes = int16_t(getInLayerPlanes());
  v.outLayerPlanes = int16_t(getOutLayerPlanes());
  v.inRowBytes = getInRowBytes();
  v.outRowBytes = getOutRowBytes();
  v.isGrayPlanes = isGrayPlanes();
  v.isColorPlanes = isColorPlanes();
  v.isGrayMode = isGrayMode();
  v.isRgbMode = isRgbMode();
  v.is8Bit = is8Bit();
  v.haveMask = getHaveMask();
  v.is16Bit = is16Bit();
  v.is32Bit = is32Bit();
  v.floatMath = floatMath();
  VRect out = getOutRect();
  v.outRect[0] = out.top;
  v.outRect[1] = out.left;
  v.outRect[2] = out.bottom;
  v.outRect[3] = out.right;
  v.maskData = getMaskData();
  v.maskRowBytes = getMaskRowBytes();
  v.hostSig = getHostSig();
  v.outPixelStride = int16_t(getPlanes());
  v.channelMaxInt = v.is8Bit ? 255 : v.is16Bit ? 32768 : 65535;
  v.alphaScaleInt = v.is8Bit ? 255 : v.is16Bit ? 32768 : 1;
  v.colourScale = v.is8Bit ? 255.0f : v.is16Bit ? 32768.0f : 1.0f;
  v.channelMax = float(v.channelMaxInt);
  v.channelMaxWide = double(v.channelMaxInt);
  v.channelMidInt = v.is8Bit ? 128 : v.is16Bit ? 16384 : 32767;
  v.invChannelMax = float(1.0 / double(v.channelMax));
  v.invAlphaScale = float(1.0 / double(v.alphaScaleInt));
  v.invColourScale = float(1.0 / double(v.colourScale));
  v.levelStep = v.is8Bit ? 1 : 128;
  VRect in = getInRect();
  v.inRect[0] = in.top;
  v.inRect[1] = in.left;
  v.inRect[2] = in.bottom;
  v.inRect[3] = in.right;
  VRect mask = getMaskRect();
  v.maskRect[0] = mask.top;
  v.maskRect[1] = mask.left;
  v.maskRect[2] = mask.bottom;
  v.maskRect[3] = mask.right;
}

// ---- format tests ----------------------------------------------------------------------------------

bool hasEditableTransparency() {
  int32_t c = getFilterCase();
  return c == filterCaseEditableTransparencyNoSelection || c == filterCaseEditableTransparencyWithSelection;
}

bool is8Bit() {
  int32_t mode = getImageMode();
  return (mode == plugInModeGrayScale || mode == plugInModeRGBColor) && record()->depth < 9;
}

bool is16Bit() {
  int32_t mode = getImageMode();
  return (mode == plugInModeGray16 || mode == plugInModeRGB48) && record()->depth == 16;
}

bool is32Bit() {
  int32_t mode = getImageMode();
  return mode == plugInModeRGB96 || mode == plugInModeGray32 || record()->depth == 32;
}

bool isGrayMode() {
  int32_t mode = getImageMode();
  return mode == plugInModeGrayScale || mode == plugInModeGray16 || mode == plugInModeGray32;
}

bool isRgbMode() {
  int32_t mode = getImageMode();
  return mode == plugInModeRGBColor || mode == plugInModeRGB48 || mode == plugInModeRGB96;
}

bool isGrayPlanes() { return getPlanes() < 3; }
bool isColorPlanes() { return getPlanes() >= 3; }

// Only the whole-image stage runs in this filter; the other stages answer as
// the engine defines them.
bool floatMath() {
  ParamBlock* params = hostContext.paramBlock;
  RunStage stage = params != nullptr ? params->runStage : kRunStageWhole;
  if (stage == 0) return is32Bit();
  if (stage == 1) return false;
  InstanceBlock* instance = hostContext.instanceBlock;
  if (instance == nullptr || instance->workTables == nullptr) return false;
  int32_t format = instance->workTables->stageFormat;
  return format == 5 || format == 9;
}

int32_t sourceStoreKind() {
  if (is32Bit()) return kKindRgbaFloat;
  if (is16Bit()) return kKindRgba16;
  return kKindRgba8;
}

// ---- host calls ---------------------------------------------------------------------------------------

int16_t advance() {
  int16_t answer = record()->advanceState();
  setResult(answer);
  return answer;
}

bool testAbort() {
  TestAbortProc proc = record()->abortProc;
  return proc != nullptr && proc() != 0;
}

void updateProgress(int32_t done, int32_t total) {
  ProgressProc proc = record()->progressProc;
  if (proc != nullptr) proc(done + 1, total);
}

// ---- progress words ------------------------------------------------------------------------------------

void setProgressTotal(int32_t n) {
  ParamBlock* params = hostContext.paramBlock;
  if (params == nullptr) return;
  params->progressTotal = n > 1 ? n : 1;
  if (params->runStage == kRunStageWhole) {
    updateProgress(1, 100);
    resetProgressClock();
  }
}

void setProgressDone(int32_t n) {
  ParamBlock* params = hostContext.paramBlock;
  if (params == nullptr) return;
  if (n < 1)
    params->progressDone = 1;
  else
    params->progressDone = n < params->progressTotal ? n : params->progressTotal;
}

void clearProgress() {
  ParamBlock* params = hostContext.paramBlock;
  if (params != nullptr) params->progressDone = -1;
}

// ---- memory ---------------------------------------------------------------------------------------------

void* blockAlloc(int32_t size, int32_t* idSlot) {
  if (idSlot != nullptr) *idSlot = -1;
  if (size <= 0 || platformFaultInjected(kFaultBlock, size_t(size))) return nullptr;
  return malloc(size_t(size));
}

void* blockAllocPlain(int32_t size) { return blockAlloc(size, nullptr); }

void* blockAllocZeroed(int32_t size, int32_t* idSlot) {
  if (idSlot != nullptr) *idSlot = -1;
  if (size <= 0 || platformFaultInjected(kFaultBlock, size_t(size))) return nullptr;
  return calloc(1, size_t(size));
}

void blockFreeRaw(void* block, int32_t* idSlot) {
  if (idSlot != nullptr) *idSlot = -1;
  free(block);
}

void* globalBlockAlloc(uint32_t size) { return platformGlobalAlloc(size); }

void globalBlockFreeRaw(void* block) { platformGlobalFree(block); }

// The engine's only way to the host and to the process's memory. Nothing else
// touches FilterRecord: every field goes through one of these operations, so
// that anything providing a FilterRecord with these fields and a working
// advanceState can run all of the logic.
//
// Everything here runs on the host's thread, except the memory operations,
// which are thread-safe.
#pragma once

#include <stdint.h>

#include "plugin_api/plugin_api.h"

// top, left, bottom, right; bottom and right lie one past the last row and column.
struct VRect {
  int32_t top;
  int32_t left;
  int32_t bottom;
  int32_t right;
};

struct VPoint {
  int32_t v;
  int32_t h;
};

// ---- rectangle helpers ----------------------------------------------------------
VRect makeRect(int32_t left, int32_t top, int32_t right, int32_t bottom);  // note the order
VRect offsetRect(VRect r, int32_t dh, int32_t dv);
bool rectIsEmpty(VRect r);
bool rectsEqual(VRect a, VRect b);

// The run rectangle: the frame of the present run. Engine coordinates are local to it.
VRect getRunRect();
void setRunRect(VRect r);
VRect exchangeRunRect(VRect r);

// ---- host rectangles: 32-bit fields when the host uses big documents ------------
bool usesBigDocument();
VRect getFilterRect();
VRect getInRect();
VRect getOutRect();
VRect getMaskRect();
VPoint getFloatCoord();
void setInRect(VRect r);
void setOutRect(VRect r);
void setMaskRect(VRect r);
void emptyHostRects();

// ---- single fields ------------------------------------------------------------------
int32_t getPlanes();
void* getInData();
int32_t getInRowBytes();
void* getOutData();
int32_t getOutRowBytes();
void* getMaskData();
int32_t getMaskRowBytes();
int32_t getInLoPlane();
int32_t getInHiPlane();
int32_t getInLayerPlanes();
int32_t getOutLayerPlanes();
bool getHaveMask();
uint32_t getHostSig();
int32_t getFilterCase();
int32_t getImageMode();
int32_t getMaxSpace();
void setMaxSpace(int32_t value);
void setBufferSpace(int32_t value);
void setAutoMask(bool value);
bool hasAdvanceState();
bool hasDisplayPixels();
HandleProcs* getHandleProcs();
void* getBufferProcs();

// Fills the HostTileView in a unit's cursor from the record as the host now presents it.
struct TileCursor;
void takeHostTileView(TileCursor* cursor);

// Plane span, rates and padding for a whole-image request.
void hostPlanesAllRate(int32_t rate, int16_t padding);

// ---- format tests ----------------------------------------------------------------------
bool hasEditableTransparency();
bool is8Bit();
bool is16Bit();
bool is32Bit();
bool isGrayMode();
bool isRgbMode();
bool isGrayPlanes();
bool isColorPlanes();
bool floatMath();
// PixelStore kind of the source: 9 for 32-bit documents, 4 for 16-bit, else 3.
int32_t sourceStoreKind();

// ---- host calls -----------------------------------------------------------------------------
// Calls advanceState and leaves its answer in the result word: the only place
// where the result word takes a host value.
int16_t advance();
bool testAbort();
void updateProgress(int32_t done, int32_t total);

// ---- progress words of ParamBlock -------------------------------------------------------
void setProgressTotal(int32_t n);
void setProgressDone(int32_t n);
void clearProgress();

// ---- memory -------------------------------------------------------------------------------
// Process heap, unzeroed; every id slot becomes -1 (our memory never comes from
// the host's buffer pool). Freeing null is harmless.
void* blockAlloc(int32_t size, int32_t* idSlot);
void* blockAllocPlain(int32_t size);
// blockAlloc with every byte zero: the same block as blockAlloc and memset
// give, from calloc, which skips the zeroing where the system's fresh pages
// are zero already.
void* blockAllocZeroed(int32_t size, int32_t* idSlot);
void blockFreeRaw(void* block, int32_t* idSlot);
// Zero-filled system memory, held locked for its whole life (the cell arrays).
void* globalBlockAlloc(uint32_t size);
void globalBlockFreeRaw(void* block);

// The slot forms: free the block the slot names and null the slot.
template <class T>
inline void blockFree(T** blockSlot, int32_t* idSlot) {
  if (blockSlot != nullptr && *blockSlot != nullptr) {
    blockFreeRaw(*blockSlot, nullptr);
    *blockSlot = nullptr;
  }
  if (idSlot != nullptr) *idSlot = -1;
}
template <class T>
inline void blockFreePlain(T** blockSlot) {
  blockFree(blockSlot, nullptr);
}
template <class T>
inline void globalBlockFree(T** blockSlot) {
  if (blockSlot != nullptr && *blockSlot != nullptr) {
    globalBlockFreeRaw(*blockSlot);
    *blockSlot = nullptr;
  }
}

// Our declarations of the host's filter plug-in interface: the records a host
// hands to PluginMain, the callback types, and the constants we use.
//
// The layouts must match real hosts byte for byte. FilterRecord and
// BigDocumentRecord are packed to 4 bytes (so on x64 the pointers sit at
// 4-byte offsets); the suites and AboutRecord keep natural alignment. The
// static_asserts at the end pin every offset that the filter or the stand-in
// host touches, for 32-bit x86 and for 64-bit builds (Win64 and Linux x86-64
// give the same offsets here, since no field is a `long`).
#pragma once

#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32)
#define PI_CALL __cdecl
#else
#define PI_CALL
#endif

// Functions a host calls directly. On 32-bit x86 Windows hosts call with only
// 4-byte stack alignment, while GCC assumes 16: realign on entry.
#if defined(__i386__)
#define PI_HOST_CALLED __attribute__((force_align_arg_pointer))
#else
#define PI_HOST_CALLED
#endif

#if defined(_WIN32)
#define PI_EXPORT extern "C" __declspec(dllexport)
#else
#define PI_EXPORT extern "C" __attribute__((visibility("default")))
#endif

typedef int16_t OSErr;
typedef uint8_t PIBoolean;
typedef int32_t Fixed;
typedef uint32_t OSType;
typedef char* Ptr;
typedef char** Handle;

struct PIPoint {
  int16_t v;
  int16_t h;
};

struct PIRect {
  int16_t top;
  int16_t left;
  int16_t bottom;
  int16_t right;
};

struct PIVPoint {
  int32_t v;
  int32_t h;
};

struct PIVRect {
  int32_t top;
  int32_t left;
  int32_t bottom;
  int32_t right;
};

struct PIRGBColor {
  uint16_t red;
  uint16_t green;
  uint16_t blue;
};

struct PIMonitor {
  Fixed gamma, redX, redY, greenX, greenY, blueX, blueY, whiteX, whiteY, ambient;
};

struct PIPlatformData {
  intptr_t hwnd;
};

// Callbacks.
typedef PIBoolean(PI_CALL* TestAbortProc)(void);
typedef void(PI_CALL* ProgressProc)(int32_t done, int32_t total);
typedef OSErr(PI_CALL* AdvanceStateProc)(void);
typedef void(PI_CALL* HostProc)(int16_t selector, intptr_t* data);
typedef void(PI_CALL* ProcessEventProc)(void* event);
typedef OSErr(PI_CALL* DisplayPixelsProc)(const void* source, const PIVRect* srcRect, int32_t dstRow,
                                          int32_t dstCol, void* platformContext);
typedef OSErr(PI_CALL* ColorServicesProc)(void* info);
typedef OSErr(PI_CALL* GetPropertyProc)(OSType signature, OSType key, int32_t index, intptr_t* simple,
                                        Handle* complex);

typedef Handle(PI_CALL* NewPIHandleProc)(int32_t size);
typedef void(PI_CALL* DisposePIHandleProc)(Handle h);
typedef int32_t(PI_CALL* GetPIHandleSizeProc)(Handle h);
typedef OSErr(PI_CALL* SetPIHandleSizeProc)(Handle h, int32_t newSize);
typedef Ptr(PI_CALL* LockPIHandleProc)(Handle h, PIBoolean moveHigh);
typedef void(PI_CALL* UnlockPIHandleProc)(Handle h);
typedef void(PI_CALL* RecoverSpaceProc)(int32_t size);
typedef void(PI_CALL* DisposeRegularHandleProc)(Handle h);

// Natural alignment, as hosts declare it.
struct HandleProcs {
  int16_t handleProcsVersion;
  int16_t numHandleProcs;
  NewPIHandleProc newProc;
  DisposePIHandleProc disposeProc;
  GetPIHandleSizeProc getSizeProc;
  SetPIHandleSizeProc setSizeProc;
  LockPIHandleProc lockProc;
  UnlockPIHandleProc unlockProc;
  RecoverSpaceProc recoverSpaceProc;
  DisposeRegularHandleProc disposeRegularHandleProc;
};

// Selector 0 passes this record in the place of the FilterRecord.
struct AboutRecord {
  void* platformData;
  void* sSPBasic;
  void* plugInRef;
  char reserved[244];
};

#pragma pack(push, 4)

struct BigDocumentRecord {
  int32_t PluginUsing32BitCoordinates;
  PIVPoint imageSize32;
  PIVRect filterRect32;
  PIVRect inRect32;
  PIVRect outRect32;
  PIVRect maskRect32;
  PIVPoint floatCoord32;
  PIVPoint wholeSize32;
};

struct FilterRecord {
  int32_t serialNumber;
  TestAbortProc abortProc;
  ProgressProc progressProc;
  Handle parameters;
  PIPoint imageSize;
  int16_t planes;
  PIRect filterRect;
  PIRGBColor background;
  PIRGBColor foreground;
  int32_t maxSpace;
  int32_t bufferSpace;
  PIRect inRect;
  int16_t inLoPlane;
  int16_t inHiPlane;
  PIRect outRect;
  int16_t outLoPlane;
  int16_t outHiPlane;
  void* inData;
  int32_t inRowBytes;
  void* outData;
  int32_t outRowBytes;
  PIBoolean isFloating;
  PIBoolean haveMask;
  PIBoolean autoMask;
  PIRect maskRect;
  void* maskData;
  int32_t maskRowBytes;
  uint8_t backColor[4];
  uint8_t foreColor[4];
  OSType hostSig;
  HostProc hostProc;
  int16_t imageMode;
  Fixed imageHRes;
  Fixed imageVRes;
  PIPoint floatCoord;
  PIPoint wholeSize;
  PIMonitor monitor;
  PIPlatformData* platformData;
  void* bufferProcs;
  void* resourceProcs;
  ProcessEventProc processEvent;
  DisplayPixelsProc displayPixels;
  HandleProcs* handleProcs;
  PIBoolean supportsDummyChannels;
  PIBoolean supportsAlternateLayouts;
  int16_t wantLayout;
  int16_t filterCase;
  int16_t dummyPlaneValue;
  void* premiereHook;
  AdvanceStateProc advanceState;
  PIBoolean supportsAbsolute;
  PIBoolean wantsAbsolute;
  GetPropertyProc getPropertyObsolete;
  PIBoolean cannotUndo;
  PIBoolean supportsPadding;
  int16_t inputPadding;
  int16_t outputPadding;
  int16_t maskPadding;
  char samplingSupport;
  char reservedByte;
  Fixed inputRate;
  Fixed maskRate;
  ColorServicesProc colorServices;
  int16_t inLayerPlanes;
  int16_t inTransparencyMask;
  int16_t inLayerMasks;
  int16_t inInvertedLayerMasks;
  int16_t inNonLayerPlanes;
  int16_t outLayerPlanes;
  int16_t outTransparencyMask;
  int16_t outLayerMasks;
  int16_t outInvertedLayerMasks;
  int16_t outNonLayerPlanes;
  int16_t absLayerPlanes;
  int16_t absTransparencyMask;
  int16_t absLayerMasks;
  int16_t absInvertedLayerMasks;
  int16_t absNonLayerPlanes;
  int16_t inPreDummyPlanes;
  int16_t inPostDummyPlanes;
  int16_t outPreDummyPlanes;
  int16_t outPostDummyPlanes;
  int32_t inColumnBytes;
  int32_t inPlaneBytes;
  int32_t outColumnBytes;
  int32_t outPlaneBytes;
  void* imageServicesProcs;
  void* propertyProcs;
  int16_t inTileHeight;
  int16_t inTileWidth;
  PIPoint inTileOrigin;
  int16_t absTileHeight;
  int16_t absTileWidth;
  PIPoint absTileOrigin;
  int16_t outTileHeight;
  int16_t outTileWidth;
  PIPoint outTileOrigin;
  int16_t maskTileHeight;
  int16_t maskTileWidth;
  PIPoint maskTileOrigin;
  void* descriptorParameters;
  void* errorString;
  void* channelPortProcs;
  void* documentInfo;
  void* sSPBasic;
  void* plugInRef;
  int32_t depth;
  Handle iCCprofileData;
  int32_t iCCprofileSize;
  int32_t canUseICCProfiles;
  int32_t hasImageScrap;
  BigDocumentRecord* bigDocumentData;
  void* input3DScene;
  void* output3DScene;
  PIBoolean createNewLayer;
  Handle iCCWorkingProfileData;
  int32_t iCCWorkingProfileSize;
  int64_t bufferSpace64;
  int64_t maxSpace64;
  char reserved[46];
};

#pragma pack(pop)

// Selectors.
enum : int16_t {
  filterSelectorAbout = 0,
  filterSelectorParameters = 1,
  filterSelectorPrepare = 2,
  filterSelectorStart = 3,
  filterSelectorContinue = 4,
  filterSelectorFinish = 5,
};

// filterCase values.
enum : int16_t {
  filterCaseUnsupported = -1,
  filterCaseNotSet = 0,
  filterCaseFlatImageNoSelection = 1,
  filterCaseFlatImageWithSelection = 2,
  filterCaseFloatingSelection = 3,
  filterCaseEditableTransparencyNoSelection = 4,
  filterCaseEditableTransparencyWithSelection = 5,
  filterCaseProtectedTransparencyNoSelection = 6,
  filterCaseProtectedTransparencyWithSelection = 7,
};

// imageMode values.
enum : int16_t {
  plugInModeBitmap = 0,
  plugInModeGrayScale = 1,
  plugInModeIndexedColor = 2,
  plugInModeRGBColor = 3,
  plugInModeCMYKColor = 4,
  plugInModeHSLColor = 5,
  plugInModeHSBColor = 6,
  plugInModeMultichannel = 7,
  plugInModeDuotone = 8,
  plugInModeLabColor = 9,
  plugInModeGray16 = 10,
  plugInModeRGB48 = 11,
  plugInModeLab48 = 12,
  plugInModeCMYK64 = 13,
  plugInModeDeepMultichannel = 14,
  plugInModeDuotone16 = 15,
  plugInModeRGB96 = 16,
  plugInModeGray32 = 17,
};

// Result values.
enum : int16_t {
  noErr = 0,
  userCanceledErr = -128,
  memFullErr = -108,
  nilHandleErr = -109,
  paramErr = -50,
  filterBadParameters = -30100,
  filterBadMode = -30101,
};

enum : int16_t {
  plugInWantsEdgeReplication = -1,
  plugInDoesNotWantPadding = -2,
  plugInWantsErrorOnBoundsException = -3,
};

constexpr OSType fourCharCode(char a, char b, char c, char d) {
  return (uint32_t(uint8_t(a)) << 24) | (uint32_t(uint8_t(b)) << 16) | (uint32_t(uint8_t(c)) << 8) |
         uint32_t(uint8_t(d));
}

constexpr OSType kHostSigPhotoshop = fourCharCode('8', 'B', 'I', 'M');
constexpr OSType kHostSigAffinity = fourCharCode('A', 'f', 'f', 'P');

// The entry point.
typedef void(PI_CALL* PluginMainProc)(int16_t selector, void* record, intptr_t* data, int16_t* result);

// ---- layout checks ----------------------------------------------------------------

#define PI_CHECK_OFFSET(type, field, x86, x64) \
  static_assert(offsetof(type, field) == (sizeof(void*) == 8 ? (x64) : (x86)), #type "." #field)

PI_CHECK_OFFSET(FilterRecord, abortProc, 4, 4);
PI_CHECK_OFFSET(FilterRecord, progressProc, 8, 12);
PI_CHECK_OFFSET(FilterRecord, parameters, 12, 20);
PI_CHECK_OFFSET(FilterRecord, imageSize, 16, 28);
PI_CHECK_OFFSET(FilterRecord, planes, 20, 32);
PI_CHECK_OFFSET(FilterRecord, filterRect, 22, 34);
PI_CHECK_OFFSET(FilterRecord, maxSpace, 44, 56);
PI_CHECK_OFFSET(FilterRecord, bufferSpace, 48, 60);
PI_CHECK_OFFSET(FilterRecord, inRect, 52, 64);
PI_CHECK_OFFSET(FilterRecord, inLoPlane, 60, 72);
PI_CHECK_OFFSET(FilterRecord, inHiPlane, 62, 74);
PI_CHECK_OFFSET(FilterRecord, outRect, 64, 76);
PI_CHECK_OFFSET(FilterRecord, outLoPlane, 72, 84);
PI_CHECK_OFFSET(FilterRecord, outHiPlane, 74, 86);
PI_CHECK_OFFSET(FilterRecord, inData, 76, 88);
PI_CHECK_OFFSET(FilterRecord, inRowBytes, 80, 96);
PI_CHECK_OFFSET(FilterRecord, outData, 84, 100);
PI_CHECK_OFFSET(FilterRecord, outRowBytes, 88, 108);
PI_CHECK_OFFSET(FilterRecord, isFloating, 92, 112);
PI_CHECK_OFFSET(FilterRecord, haveMask, 93, 113);
PI_CHECK_OFFSET(FilterRecord, autoMask, 94, 114);
PI_CHECK_OFFSET(FilterRecord, maskRect, 96, 116);
PI_CHECK_OFFSET(FilterRecord, maskData, 104, 124);
PI_CHECK_OFFSET(FilterRecord, maskRowBytes, 108, 132);
PI_CHECK_OFFSET(FilterRecord, hostSig, 120, 144);
PI_CHECK_OFFSET(FilterRecord, imageMode, 128, 156);
PI_CHECK_OFFSET(FilterRecord, floatCoord, 140, 168);
PI_CHECK_OFFSET(FilterRecord, wholeSize, 144, 172);
PI_CHECK_OFFSET(FilterRecord, platformData, 188, 216);
PI_CHECK_OFFSET(FilterRecord, bufferProcs, 192, 224);
PI_CHECK_OFFSET(FilterRecord, displayPixels, 204, 248);
PI_CHECK_OFFSET(FilterRecord, handleProcs, 208, 256);
PI_CHECK_OFFSET(FilterRecord, supportsDummyChannels, 212, 264);
PI_CHECK_OFFSET(FilterRecord, wantLayout, 214, 266);
PI_CHECK_OFFSET(FilterRecord, filterCase, 216, 268);
PI_CHECK_OFFSET(FilterRecord, advanceState, 224, 280);
PI_CHECK_OFFSET(FilterRecord, supportsPadding, 237, 301);
PI_CHECK_OFFSET(FilterRecord, inputPadding, 238, 302);
PI_CHECK_OFFSET(FilterRecord, outputPadding, 240, 304);
PI_CHECK_OFFSET(FilterRecord, maskPadding, 242, 306);
PI_CHECK_OFFSET(FilterRecord, inputRate, 248, 312);
PI_CHECK_OFFSET(FilterRecord, maskRate, 252, 316);
PI_CHECK_OFFSET(FilterRecord, inLayerPlanes, 260, 328);
PI_CHECK_OFFSET(FilterRecord, inTransparencyMask, 262, 330);
PI_CHECK_OFFSET(FilterRecord, inNonLayerPlanes, 268, 336);
PI_CHECK_OFFSET(FilterRecord, outLayerPlanes, 270, 338);
PI_CHECK_OFFSET(FilterRecord, outTransparencyMask, 272, 340);
PI_CHECK_OFFSET(FilterRecord, inPreDummyPlanes, 290, 358);
PI_CHECK_OFFSET(FilterRecord, inPostDummyPlanes, 292, 360);
PI_CHECK_OFFSET(FilterRecord, outPreDummyPlanes, 294, 362);
PI_CHECK_OFFSET(FilterRecord, outPostDummyPlanes, 296, 364);
PI_CHECK_OFFSET(FilterRecord, inColumnBytes, 300, 368);
PI_CHECK_OFFSET(FilterRecord, outPlaneBytes, 312, 380);
PI_CHECK_OFFSET(FilterRecord, sSPBasic, 372, 464);
PI_CHECK_OFFSET(FilterRecord, depth, 380, 480);
PI_CHECK_OFFSET(FilterRecord, bigDocumentData, 400, 504);
PI_CHECK_OFFSET(FilterRecord, createNewLayer, 412, 528);
PI_CHECK_OFFSET(FilterRecord, bufferSpace64, 424, 544);
PI_CHECK_OFFSET(FilterRecord, maxSpace64, 432, 552);
PI_CHECK_OFFSET(FilterRecord, reserved, 440, 560);
static_assert(sizeof(FilterRecord) == (sizeof(void*) == 8 ? 608 : 488), "FilterRecord size");

PI_CHECK_OFFSET(BigDocumentRecord, imageSize32, 4, 4);
PI_CHECK_OFFSET(BigDocumentRecord, filterRect32, 12, 12);
PI_CHECK_OFFSET(BigDocumentRecord, inRect32, 28, 28);
PI_CHECK_OFFSET(BigDocumentRecord, outRect32, 44, 44);
PI_CHECK_OFFSET(BigDocumentRecord, maskRect32, 60, 60);
PI_CHECK_OFFSET(BigDocumentRecord, floatCoord32, 76, 76);
PI_CHECK_OFFSET(BigDocumentRecord, wholeSize32, 84, 84);
static_assert(sizeof(BigDocumentRecord) == 92, "BigDocumentRecord size");

PI_CHECK_OFFSET(HandleProcs, newProc, 4, 8);
PI_CHECK_OFFSET(HandleProcs, disposeProc, 8, 16);
PI_CHECK_OFFSET(HandleProcs, getSizeProc, 12, 24);
PI_CHECK_OFFSET(HandleProcs, setSizeProc, 16, 32);
PI_CHECK_OFFSET(HandleProcs, lockProc, 20, 40);
PI_CHECK_OFFSET(HandleProcs, unlockProc, 24, 48);
PI_CHECK_OFFSET(HandleProcs, recoverSpaceProc, 28, 56);
PI_CHECK_OFFSET(HandleProcs, disposeRegularHandleProc, 32, 64);
static_assert(sizeof(HandleProcs) == (sizeof(void*) == 8 ? 72 : 36), "HandleProcs size");

PI_CHECK_OFFSET(AboutRecord, sSPBasic, 4, 8);
PI_CHECK_OFFSET(AboutRecord, plugInRef, 8, 16);
PI_CHECK_OFFSET(AboutRecord, reserved, 12, 24);
static_assert(sizeof(AboutRecord) == (sizeof(void*) == 8 ? 272 : 256), "AboutRecord size");

#undef PI_CHECK_OFFSET

// The two long-lived blocks and the tables block.
//
// ParamBlock hangs from FilterRecord.parameters and InstanceBlock from the
// host's data word; the host owns both handles and gives them back when the
// user repeats the filter. The engine they serve has many switches, which this
// filter fixes: most fields are constants, and fields that nothing reads are
// kept so that the reset sequences stay whole.
#pragma once

#include <stdint.h>

#include "host/host_record.h"
#include "store/pixel_store.h"

// Whole-image run; the preview and partial stages are never taken by this filter.
typedef int32_t RunStage;
constexpr RunStage kRunStageWhole = 0;

// The filter's blend mode: a plain copy of the computed colour.
constexpr int32_t kFilterBlendMode = 1;
constexpr int kScratchBlocks = 4;
constexpr int kScratchSizeEntries = 8;
constexpr int32_t kCellBytes = 72;
constexpr int32_t kWorkTablesMark = 123456;
constexpr int32_t kUncomputedKey = 111111111;

struct ParamBlock {
  uint8_t blockHeader;
  int16_t viewMode;
  void* instanceLink;
  bool previewAllowed;
  bool previewDisabled;
  bool rerunRequested;
  int32_t guardA;
  int32_t blendMode;
  int32_t sampleRate;
  RunStage runStage;
  int32_t progressTotal;
  int32_t progressDone;
  int32_t progressSwitch;
  int32_t tileShiftH;
  int32_t tileShiftV;
  int32_t lastPointV;
  int32_t lastPointH;
  int32_t guardB;
  int32_t firstUseDefaults[5];
  bool sourceLoaded;
  int32_t qualitySwitch;
  PixelStore* opaqueStore;
  PixelStore* distanceStore;
  PixelStore* spareStore;
  char textA[260];
  char textB[260];
  char textC[260];
};

struct WorkTables {
  int32_t mark;                // 123456 once the block is in place
  int32_t tableKeys[9];        // keys of tables not yet computed
  int32_t runWord;             // cleared at the head of every run
  int32_t startWords[3];       // cleared at every Start
  int32_t stageFormat;         // read only by the partial stage
  float fillOdds[256];         // alpha-to-odds, written at the head of every run
};

struct InstanceBlock {
  bool parametersPending;
  float viewZoom;
  VRect previewRect;
  VRect unitRect;
  int32_t workerCount;
  WorkTables* workTables;
  int32_t viewFlagA;
  uint8_t viewFlagB;
  VRect runRect;
  int32_t tileCount;
  int32_t loadCursor;
  int32_t loadStep;
  int32_t loadIndex;
  int32_t maskRowBase;
  int32_t maskRowEnd;
  int32_t inRowBase;
  int32_t inRowEnd;
  int32_t scratchEstimate;
  uint8_t loadActive;
  uint8_t loadStepped;
  uint8_t loadDone;
  VRect wholeFilterRect;
  int32_t lineStride;
  int32_t lineStrideDouble;
  int32_t rowsPadded;
  int32_t scratchSizes[kScratchSizeEntries];
  int32_t runColsCopy;
  int32_t runRowsCopy;
  int32_t runCols;
  int32_t runRows;
  int32_t cellCapacity;
  bool firstUseFlag;
  int32_t scratchIds[5];
  void* scratch[kScratchBlocks];
  PixelStore sourceStore;
  // Run flags: three words behind the source store, two more words, two bytes at the end.
  int32_t runFlagWords[3];
  int32_t runFlagWordsB[2];
  uint8_t runFlagBytes[2];
};

// ---- reset sequences ------------------------------------------------------------------
void resetViewState();
void applyPrepareDefaults();
void clearScratchPointers(InstanceBlock* instance);
void measureFilterRect(InstanceBlock* instance);
void setRunGeometry(InstanceBlock* instance, VRect rect, int32_t rate);
void initScratchSizes(InstanceBlock* instance);
void clearRunFlags(InstanceBlock* instance);
void applyStartDefaults(InstanceBlock* instance);

// ---- scratch blocks -------------------------------------------------------------------------
// Safe to call twice and over blocks that a failed run left behind.
bool allocateScratch(InstanceBlock* instance);
void freeScratch(InstanceBlock* instance);
void releaseScratch(InstanceBlock* instance);

// The stand-in host: what takes Photoshop's place on machines without it.
// It loads a plug-in module, holds a document, and drives the module's
// PluginMain through the selectors as a host does, delivering tiles through
// advanceState. It also injects faults and logs every host call, for tests.
//
// One host drives one module at a time in a process: the host's callbacks
// carry no context, so the active host is a process-wide pointer.
#pragma once

#include <stdint.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "plugin_api/plugin_api.h"

namespace standin {

struct Rect {
  int32_t top = 0, left = 0, bottom = 0, right = 0;
  int32_t width() const { return right - left; }
  int32_t height() const { return bottom - top; }
  bool empty() const { return left >= right || top >= bottom; }
  bool operator==(const Rect& o) const {
    return top == o.top && left == o.left && bottom == o.bottom && right == o.right;
  }
};

std::string describe(const Rect& r);

// A layer as the host holds it: interleaved samples, colour planes first, then
// the transparency plane when there is one. 8-bit samples are 0..255, 16-bit
// 0..32768 (the host's own range), 32-bit are floats.
struct Document {
  int32_t width = 0;
  int32_t height = 0;
  int depth = 8;              // 8, 16 or 32
  int colourPlanes = 3;       // 3 for RGB, 1 for gray
  bool transparency = true;   // a transparency plane follows the colour planes
  std::vector<uint8_t> pixels;
  std::vector<uint8_t> mask;  // the selection, one byte a pixel, 255 selected; empty when none

  int planes() const { return colourPlanes + (transparency ? 1 : 0); }
  int sampleBytes() const { return depth / 8; }
  size_t pixelBytes() const { return size_t(planes()) * size_t(sampleBytes()); }
  bool hasMask() const { return !mask.empty(); }

  static Document make(int32_t width, int32_t height, int depth, int colourPlanes, bool transparency);
  uint8_t* at(int32_t x, int32_t y) { return pixels.data() + (size_t(y) * size_t(width) + size_t(x)) * pixelBytes(); }
  const uint8_t* at(int32_t x, int32_t y) const {
    return pixels.data() + (size_t(y) * size_t(width) + size_t(x)) * pixelBytes();
  }
  // Sample access in the document's own numbers (floats carry 32-bit samples).
  double sample(int32_t x, int32_t y, int plane) const;
  void setSample(int32_t x, int32_t y, int plane, double value);
};

// How the host presents itself. Defaults are those of Photoshop with a layer.
struct HostOptions {
  int16_t filterCase = -1;          // -1: as Photoshop sets it for the document
  int16_t imageMode = -1;           // -1: from depth and colour planes
  int32_t depthField = -1;          // -1: the document's depth
  int32_t floatCoordH = 0;
  int32_t floatCoordV = 0;
  Rect filterRect;                  // empty: the whole document
  int bigDocument = 2;              // 0 none, 1 present but 16-bit coordinates, 2 32-bit coordinates (default)
  uint32_t hostSig = kHostSigPhotoshop;
  bool advanceState = true;
  bool displayPixels = true;
  bool supportsPadding = true;      // false: delivers only the pixels inside the document
  bool nullBuffers = false;         // delivers null inData/outData/maskData, with no error
  int32_t rowPadding = 24;          // bytes past the tight width in every delivered row
  int32_t maxSpace = 100000000;
  bool zeroNewHandles = false;      // hosts may hand out unzeroed handles; we fill a pattern
  bool finishAfterError = false;    // call Finish even when Start failed
  // Input rows that lie wholly inside the document, with all its planes at
  // full rate, are lent rather than copied: inData points into the document
  // and inRowBytes is its row step. The output and the mask are copied as
  // ever. Off, the host copies as Photoshop does and pads every row.
  bool lendInputRows = false;

  // Fault injection, counted from 1 over the whole life of the host; 0 means never.
  int failNewProcAt = 0;
  int failLockProcAt = 0;
  int failAdvanceAt = 0;
  int16_t advanceError = memFullErr;
  int abortAtPoll = 0;               // abortProc answers stop from this poll on

  // Strict: the host acts as Photoshop does where the stand-in would otherwise
  // be gentler. Padding codes and sample rates are honoured (a request past
  // the image under -3, or a rate that is not whole, is refused), the output
  // has a buffer and row step of its own, locks are counted per handle, and
  // the refusal dialogs asked for are recorded. Whatever a real host would
  // refuse or choke on is a violation.
  bool strict = true;
};

// Tells of every violation of a strict host as it happens (tests fail on it).
using ViolationObserver = void (*)(const std::string& what);
void setViolationObserver(ViolationObserver observer);

struct HostCall {
  std::string name;  // selector name or host procedure
  int16_t value = 0; // the selector's result, the procedure's answer
  Rect inRect, outRect, maskRect;
};

struct RunOutcome {
  int16_t result = 0;  // the first non-zero selector result, or 0
  int16_t startResult = 0;
  std::vector<HostCall> calls;  // this run's calls only
};

// A loaded plug-in module.
struct Module {
  void* library = nullptr;
  PluginMainProc pluginMain = nullptr;
  std::string path;
  std::string error;
};

bool loadModule(Module& module, const std::string& path);
void unloadModule(Module& module);

class Host {
 public:
  Host(Module& module, Document& document, HostOptions options = HostOptions());
  ~Host();
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  // About by itself.
  int16_t about();
  // One run: Parameters (unless repeat), Prepare, Start, Continue until the
  // rectangles are empty, Finish.
  RunOutcome run(bool repeat = false);
  // One selector call, with the host's data word and result word.
  int16_t call(int16_t selector);

  HostOptions& options() { return options_; }
  FilterRecord& record() { return *record_; }
  BigDocumentRecord& bigDocument() { return *bigDocument_; }
  const std::vector<HostCall>& log() const { return log_; }
  void clearLog() { log_.clear(); }
  intptr_t dataWord() const { return data_; }
  int liveHandles() const;
  int lockedHandles() const;
  // Unlocks that found their handle not locked (a strict host counts the
  // handle on below zero; the module unlocks both blocks after every selector).
  int unbalancedUnlocks() const { return unbalancedUnlocks_; }
  int progressCalls() const { return int(progressLog_.size()); }
  // Every progressProc call, as (done, total).
  const std::vector<std::pair<int32_t, int32_t>>& progressLog() const { return progressLog_; }
  // Strict mode: what a real host would have refused, and the names of the
  // refusal dialogs the module asked for, in order.
  const std::vector<std::string>& violations() const { return violations_; }
  const std::vector<std::string>& dialogs() const { return dialogs_; }
  int advanceCalls() const { return advanceCalls_; }
  // Input tiles handed out as lent document rows (lendInputRows).
  int lentInputTiles() const { return lentInputTiles_; }
  // Seconds since the host was made, at each advanceState: the phases of a run
  // as the host sees them.
  const std::vector<double>& advanceTimes() const { return advanceTimes_; }
  double secondsSinceStart() const;
  // Requests the stand-in answers abortProc with stop from now on (Ctrl-C).
  void requestAbort() { abortRequested_ = true; }

  // Called from the C callbacks.
  Handle newHandle(int32_t size);
  void disposeHandle(Handle h);
  int32_t handleSize(Handle h);
  OSErr setHandleSize(Handle h, int32_t size);
  Ptr lockHandle(Handle h);
  void unlockHandle(Handle h);
  OSErr advanceState();
  bool abortPoll();
  void progress(int32_t done, int32_t total);

 private:
  struct Buffer {
    Rect rect;
    int32_t loPlane = 0;
    int32_t hiPlane = -1;
    int32_t rowBytes = 0;
    std::vector<uint8_t> bytes;
    // Lent document rows in place of bytes, or null.
    uint8_t* lent = nullptr;
    uint8_t* data() { return lent != nullptr ? lent : bytes.empty() ? nullptr : bytes.data(); }
    void clear() {
      bytes.clear();
      lent = nullptr;
    }
  };
  struct HandleRecord;

  void setUpRecord();
  Rect readRect(int which) const;  // 0 filter, 1 in, 2 out, 3 mask
  void writeRect(int which, const Rect& r);
  bool deliver(Buffer& buffer, const Rect& asked, int32_t lo, int32_t hi, bool maskPlane, bool output = false);
  void commitOutput();
  void logCall(const std::string& name, int16_t value);
  // Strict mode.
  void violation(const std::string& what);
  bool strictRequestOk(const Rect& asked, int32_t lo, int32_t hi, bool maskPlane, bool output);
  int32_t strictRate(bool maskPlane) const;
  bool strictPad(uint8_t* target, int32_t x, int32_t y, int32_t width, int32_t height, int32_t planes, bool maskPlane,
                 bool output) const;
  std::map<const void*, int> lockSnapshot() const;
  void strictAfterSelector(const char* selector, const std::map<const void*, int>& locksBefore);
  void collectDialogs();

  Module& module_;
  Document& document_;
  HostOptions options_;
  std::unique_ptr<FilterRecord> record_;
  std::unique_ptr<BigDocumentRecord> bigDocument_;
  HandleProcs handleProcs_{};
  std::vector<uint8_t> bufferProcs_;
  PIPlatformData platformData_{};
  std::vector<HandleRecord*> handles_;
  intptr_t data_ = 0;
  int16_t result_ = 0;
  Buffer in_, out_, mask_;
  bool outPending_ = false;
  std::vector<HostCall> log_;
  int newCalls_ = 0, lockCalls_ = 0, advanceCalls_ = 0, abortPolls_ = 0, lentInputTiles_ = 0;
  std::vector<std::pair<int32_t, int32_t>> progressLog_;
  std::vector<std::string> violations_;
  int unbalancedUnlocks_ = 0;
  std::vector<std::string> dialogs_;
  std::string dialogLogPath_;
  bool abortRequested_ = false;
  std::vector<double> advanceTimes_;
  double startTime_ = 0.0;
};

// A stable 64-bit digest (FNV-1a) of bytes, printed as 16 hex digits.
uint64_t digestBytes(const void* data, size_t size, uint64_t seed = 1469598103934665603ull);
std::string digestHex(uint64_t digest);
std::string documentDigest(const Document& document);

}  // namespace standin

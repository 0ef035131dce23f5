#include "plugin_host/stand_in_host.h"

#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <chrono>

#if defined(_WIN32)
#include <windows.h>
#else
#include <dlfcn.h>
#include <unistd.h>
#endif

namespace standin {

// ---- documents ---------------------------------------------------------------------------

std::string describe(const Rect& r) {
  char text[96];
  snprintf(text, sizeof(text), "(%d,%d,%d,%d)", r.top, r.left, r.bottom, r.right);
  return text;
}

Document Document::make(int32_t width, int32_t height, int depth, int colourPlanes, bool transparency) {
  Document d;
  d.width = width;
  d.height = height;
  d.depth = depth;
  d.colourPlanes = colourPlanes;
  d.transparency = transparency;
  d.pixels.assign(size_t(width) * size_t(height) * d.pixelBytes(), 0);
  return d;
}

double Document::sample(int32_t x, int32_t y, int plane) const {
  const uint8_t* p = at(x, y) + size_t(plane) * size_t(sampleBytes());
  if (depth == 8) return *p;
  if (depth == 16) {
    uint16_t v;
    memcpy(&v, p, 2);
    return v;
  }
  float f;
  memcpy(&f, p, 4);
  return f;
}

void Document::setSample(int32_t x, int32_t y, int plane, double value) {
  uint8_t* p = at(x, y) + size_t(plane) * size_t(sampleBytes());
  if (depth == 8) {
    *p = uint8_t(value);
  } else if (depth == 16) {
    uint16_t v = uint16_t(value);
    memcpy(p, &v, 2);
  } else {
    float f = float(value);
    memcpy(p, &f, 4);
  }
}

// ---- the module -----------------------------------------------------------------------------

bool loadModule(Module& module, const std::string& path) {
  module.path = path;
#if defined(_WIN32)
  HMODULE library = LoadLibraryA(path.c_str());
  if (library == nullptr) {
    module.error = "cannot load " + path;
    return false;
  }
  module.library = library;
  module.pluginMain = reinterpret_cast<PluginMainProc>(reinterpret_cast<void*>(GetProcAddress(library, "PluginMain")));
#else
  void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    const char* why = dlerror();
    module.error = why != nullptr ? why : ("cannot load " + path);
    return false;
  }
  module.library = library;
  module.pluginMain = reinterpret_cast<PluginMainProc>(dlsym(library, "PluginMain"));
#endif
  if (module.pluginMain == nullptr) {
    module.error = path + " has no PluginMain";
    unloadModule(module);
    return false;
  }
  return true;
}

void unloadModule(Module& module) {
  if (module.library == nullptr) return;
#if defined(_WIN32)
  FreeLibrary(static_cast<HMODULE>(module.library));
#else
  dlclose(module.library);
#endif
  module.library = nullptr;
  module.pluginMain = nullptr;
}

// ---- callbacks: the active host answers them ---------------------------------------------------

namespace {

Host* activeHost = nullptr;

PI_HOST_CALLED Handle PI_CALL newProcThunk(int32_t size) { return activeHost->newHandle(size); }
PI_HOST_CALLED void PI_CALL disposeProcThunk(Handle h) { activeHost->disposeHandle(h); }
PI_HOST_CALLED int32_t PI_CALL getSizeProcThunk(Handle h) { return activeHost->handleSize(h); }
PI_HOST_CALLED OSErr PI_CALL setSizeProcThunk(Handle h, int32_t size) { return activeHost->setHandleSize(h, size); }
PI_HOST_CALLED Ptr PI_CALL lockProcThunk(Handle h, PIBoolean) { return activeHost->lockHandle(h); }
PI_HOST_CALLED void PI_CALL unlockProcThunk(Handle h) { activeHost->unlockHandle(h); }
PI_HOST_CALLED void PI_CALL recoverSpaceThunk(int32_t) {}
PI_HOST_CALLED OSErr PI_CALL advanceStateThunk() { return activeHost->advanceState(); }
PI_HOST_CALLED PIBoolean PI_CALL abortProcThunk() { return activeHost->abortPoll() ? 1 : 0; }
PI_HOST_CALLED void PI_CALL progressProcThunk(int32_t done, int32_t total) { activeHost->progress(done, total); }
PI_HOST_CALLED OSErr PI_CALL displayPixelsThunk(const void*, const PIVRect*, int32_t, int32_t, void*) {
  return noErr;
}

const char* selectorName(int16_t selector) {
  static const char* const kNames[] = {"About", "Parameters", "Prepare", "Start", "Continue", "Finish"};
  return selector >= 0 && selector <= 5 ? kNames[selector] : "Selector?";
}

}  // namespace

// ---- strict mode: the refusal dialogs asked for ---------------------------------------------------

namespace {

ViolationObserver violationObserver = nullptr;

// The module notes each dialog it asks for in the file the environment names
// (it may have no window system to show it in); a strict host reads it back.
const char kDialogLogVariable[] = "MENDARIS_DIALOG_LOG";

void openDialogLog(std::string& path) {
  char name[64];
  static int serial = 0;
#if defined(_WIN32)
  snprintf(name, sizeof(name), "mendaris-dialogs-%lu-%d.txt", static_cast<unsigned long>(GetCurrentProcessId()), ++serial);
  char folder[MAX_PATH];
  DWORD n = GetTempPathA(MAX_PATH, folder);
  path = std::string(n > 0 && n < MAX_PATH ? folder : ".\\") + name;
  SetEnvironmentVariableA(kDialogLogVariable, path.c_str());
#else
  snprintf(name, sizeof(name), "/tmp/mendaris-dialogs-%ld-%d.txt", static_cast<long>(getpid()), ++serial);
  path = name;
  setenv(kDialogLogVariable, path.c_str(), 1);
#endif
  remove(path.c_str());
}

void closeDialogLog(const std::string& path) {
  remove(path.c_str());
#if defined(_WIN32)
  SetEnvironmentVariableA(kDialogLogVariable, nullptr);
#else
  unsetenv(kDialogLogVariable);
#endif
}

}  // namespace

void setViolationObserver(ViolationObserver observer) { violationObserver = observer; }

// The first member is the master pointer, as hosts lay a handle out.
struct Host::HandleRecord {
  char* data;
  int32_t size;
  int locks;
};

Host::Host(Module& module, Document& document, HostOptions options)
    : module_(module), document_(document), options_(options) {
  activeHost = this;
  record_.reset(new FilterRecord);
  bigDocument_.reset(new BigDocumentRecord);
  memset(record_.get(), 0, sizeof(FilterRecord));
  memset(bigDocument_.get(), 0, sizeof(BigDocumentRecord));
  handleProcs_.handleProcsVersion = 1;
  handleProcs_.numHandleProcs = 8;
  handleProcs_.newProc = newProcThunk;
  handleProcs_.disposeProc = disposeProcThunk;
  handleProcs_.getSizeProc = getSizeProcThunk;
  handleProcs_.setSizeProc = setSizeProcThunk;
  handleProcs_.lockProc = lockProcThunk;
  handleProcs_.unlockProc = unlockProcThunk;
  handleProcs_.recoverSpaceProc = recoverSpaceThunk;
  handleProcs_.disposeRegularHandleProc = disposeProcThunk;
  bufferProcs_.assign(64, 0);
  startTime_ = secondsSinceStart();
  setUpRecord();
  if (options_.strict) openDialogLog(dialogLogPath_);
}

Host::~Host() {
  for (HandleRecord* h : handles_) {
    delete[] h->data;
    delete h;
  }
  if (activeHost == this) activeHost = nullptr;
  if (!dialogLogPath_.empty()) closeDialogLog(dialogLogPath_);
}

int Host::liveHandles() const { return int(handles_.size()); }

int Host::lockedHandles() const {
  int n = 0;
  for (const HandleRecord* h : handles_) n += h->locks > 0 ? 1 : 0;
  return n;
}

void Host::logCall(const std::string& name, int16_t value) {
  HostCall c;
  c.name = name;
  c.value = value;
  c.inRect = readRect(1);
  c.outRect = readRect(2);
  c.maskRect = readRect(3);
  log_.push_back(c);
}

// ---- handles ------------------------------------------------------------------------------------

Handle Host::newHandle(int32_t size) {
  ++newCalls_;
  bool fail = options_.failNewProcAt != 0 && newCalls_ == options_.failNewProcAt;
  logCall("newProc", fail ? 1 : 0);
  if (fail || size < 0) return nullptr;
  HandleRecord* h = new HandleRecord;
  h->size = size;
  h->locks = 0;
  h->data = new char[size_t(size) + 1];
  // Hosts may hand out memory that holds anything.
  memset(h->data, options_.zeroNewHandles ? 0 : 0xA5, size_t(size) + 1);
  handles_.push_back(h);
  return &h->data;
}

void Host::disposeHandle(Handle handle) {
  logCall("disposeProc", 0);
  for (size_t i = 0; i < handles_.size(); ++i) {
    if (&handles_[i]->data == handle) {
      delete[] handles_[i]->data;
      delete handles_[i];
      handles_.erase(handles_.begin() + long(i));
      return;
    }
  }
}

int32_t Host::handleSize(Handle handle) {
  for (HandleRecord* h : handles_)
    if (&h->data == handle) return h->size;
  return 0;
}

OSErr Host::setHandleSize(Handle handle, int32_t size) {
  for (HandleRecord* h : handles_) {
    if (&h->data == handle) {
      char* grown = new char[size_t(size) + 1];
      memset(grown, 0xA5, size_t(size) + 1);
      memcpy(grown, h->data, size_t(std::min(size, h->size)));
      delete[] h->data;
      h->data = grown;
      h->size = size;
      return noErr;
    }
  }
  return nilHandleErr;
}

Ptr Host::lockHandle(Handle handle) {
  ++lockCalls_;
  bool fail = options_.failLockProcAt != 0 && lockCalls_ == options_.failLockProcAt;
  logCall("lockProc", fail ? 1 : 0);
  if (fail) return nullptr;
  for (HandleRecord* h : handles_) {
    if (&h->data == handle) {
      ++h->locks;
      return h->data;
    }
  }
  return nullptr;
}

void Host::unlockHandle(Handle handle) {
  logCall("unlockProc", 0);
  for (HandleRecord* h : handles_) {
    if (&h->data != handle) continue;
    // A strict host counts on below zero; the module unlocks both blocks on
    // its way out of every selector, also where it locked nothing.
    if (h->locks <= 0) ++unbalancedUnlocks_;
    h->locks = options_.strict ? h->locks - 1 : std::max(h->locks - 1, 0);
    return;
  }
  if (options_.strict) violation("unlockProc on a handle the host never gave out");
}

// ---- the record ----------------------------------------------------------------------------------

void Host::setUpRecord() {
  FilterRecord& r = *record_;
  const Document& d = document_;
  r.serialNumber = 0;
  r.abortProc = abortProcThunk;
  r.progressProc = progressProcThunk;
  r.imageSize.v = int16_t(d.height);
  r.imageSize.h = int16_t(d.width);
  r.wholeSize = r.imageSize;
  r.planes = int16_t(d.planes());
  Rect filter = options_.filterRect.empty() ? Rect{0, 0, d.height, d.width} : options_.filterRect;
  r.filterRect = PIRect{int16_t(filter.top), int16_t(filter.left), int16_t(filter.bottom), int16_t(filter.right)};
  r.maxSpace = options_.maxSpace;
  r.isFloating = 0;
  r.haveMask = d.hasMask() ? 1 : 0;
  r.autoMask = 1;
  r.hostSig = options_.hostSig;
  int16_t mode;
  if (d.depth == 8)
    mode = d.colourPlanes >= 3 ? plugInModeRGBColor : plugInModeGrayScale;
  else if (d.depth == 16)
    mode = d.colourPlanes >= 3 ? plugInModeRGB48 : plugInModeGray16;
  else
    mode = d.colourPlanes >= 3 ? plugInModeRGB96 : plugInModeGray32;
  r.imageMode = options_.imageMode >= 0 ? options_.imageMode : mode;
  r.depth = options_.depthField >= 0 ? options_.depthField : d.depth;
  r.floatCoord.v = int16_t(options_.floatCoordV);
  r.floatCoord.h = int16_t(options_.floatCoordH);
  r.platformData = &platformData_;
  r.bufferProcs = bufferProcs_.data();
  r.displayPixels = options_.displayPixels ? displayPixelsThunk : nullptr;
  r.handleProcs = &handleProcs_;
  r.supportsDummyChannels = 0;
  int16_t filterCase = d.transparency ? (d.hasMask() ? filterCaseEditableTransparencyWithSelection
                                                     : filterCaseEditableTransparencyNoSelection)
                                      : (d.hasMask() ? filterCaseFlatImageWithSelection : filterCaseFlatImageNoSelection);
  r.filterCase = options_.filterCase >= 0 ? options_.filterCase : filterCase;
  r.advanceState = options_.advanceState ? advanceStateThunk : nullptr;
  r.supportsPadding = options_.supportsPadding ? 1 : 0;
  r.samplingSupport = 1;
  int16_t layerPlanes = int16_t(d.transparency ? d.colourPlanes : 0);
  r.inLayerPlanes = layerPlanes;
  r.inTransparencyMask = int16_t(d.transparency ? 1 : 0);
  r.inNonLayerPlanes = int16_t(d.transparency ? 0 : d.colourPlanes);
  r.outLayerPlanes = layerPlanes;
  r.outTransparencyMask = r.inTransparencyMask;
  r.outNonLayerPlanes = r.inNonLayerPlanes;
  r.inColumnBytes = int32_t(d.pixelBytes());
  r.outColumnBytes = r.inColumnBytes;
  r.inPlaneBytes = d.sampleBytes();
  r.outPlaneBytes = d.sampleBytes();
  if (options_.bigDocument > 0) {
    BigDocumentRecord& b = *bigDocument_;
    b.PluginUsing32BitCoordinates = options_.bigDocument == 2 ? 1 : 0;
    b.imageSize32 = PIVPoint{d.height, d.width};
    b.wholeSize32 = b.imageSize32;
    b.filterRect32 = PIVRect{filter.top, filter.left, filter.bottom, filter.right};
    b.floatCoord32 = PIVPoint{options_.floatCoordV, options_.floatCoordH};
    r.bigDocumentData = bigDocument_.get();
  } else {
    r.bigDocumentData = nullptr;
  }
}

Rect Host::readRect(int which) const {
  const FilterRecord& r = *record_;
  if (r.bigDocumentData != nullptr && r.bigDocumentData->PluginUsing32BitCoordinates != 0) {
    const BigDocumentRecord& b = *r.bigDocumentData;
    const PIVRect& v = which == 0 ? b.filterRect32 : which == 1 ? b.inRect32 : which == 2 ? b.outRect32 : b.maskRect32;
    return Rect{v.top, v.left, v.bottom, v.right};
  }
  const PIRect& v = which == 0 ? r.filterRect : which == 1 ? r.inRect : which == 2 ? r.outRect : r.maskRect;
  return Rect{v.top, v.left, v.bottom, v.right};
}

void Host::writeRect(int which, const Rect& rect) {
  FilterRecord& r = *record_;
  if (r.bigDocumentData != nullptr && r.bigDocumentData->PluginUsing32BitCoordinates != 0) {
    BigDocumentRecord& b = *r.bigDocumentData;
    PIVRect& v = which == 1 ? b.inRect32 : which == 2 ? b.outRect32 : b.maskRect32;
    v = PIVRect{rect.top, rect.left, rect.bottom, rect.right};
    return;
  }
  PIRect& v = which == 1 ? r.inRect : which == 2 ? r.outRect : r.maskRect;
  v = PIRect{int16_t(rect.top), int16_t(rect.left), int16_t(rect.bottom), int16_t(rect.right)};
}

// ---- tiles ------------------------------------------------------------------------------------------

// Fills a buffer for the rectangle asked: the document's pixels with their
// edges replicated past the document (padding -1), or, for a host that cannot
// pad, only the part inside the document. A strict host pads as the padding
// code says and samples at the rate asked; false when it refuses the request.
bool Host::deliver(Buffer& buffer, const Rect& asked, int32_t lo, int32_t hi, bool maskPlane, bool output) {
  const Document& d = document_;
  bool strict = options_.strict && options_.supportsPadding;
  if (strict && !strictRequestOk(asked, lo, hi, maskPlane, output)) {
    buffer = Buffer{};
    return false;
  }
  int32_t rate = strict ? strictRate(maskPlane) : 1;
  int32_t width = (d.width + rate - 1) / rate, height = (d.height + rate - 1) / rate;
  Rect rect = asked;
  if (!options_.supportsPadding) {
    rect.top = std::max(rect.top, 0);
    rect.left = std::max(rect.left, 0);
    rect.bottom = std::min(rect.bottom, d.height);
    rect.right = std::min(rect.right, d.width);
  }
  buffer.rect = rect;
  buffer.loPlane = lo;
  buffer.hiPlane = hi;
  buffer.lent = nullptr;
  if (rect.empty() || d.width <= 0 || d.height <= 0 || (!maskPlane && hi < lo)) {
    buffer.bytes.clear();
    buffer.rowBytes = 0;
    return true;
  }
  int32_t sampleBytes = maskPlane ? 1 : d.sampleBytes();
  int32_t planes = maskPlane ? 1 : hi - lo + 1;
  const bool inside = rect.left >= 0 && rect.top >= 0 && rect.right <= d.width && rect.bottom <= d.height;
  if (options_.lendInputRows && !output && !maskPlane && rate == 1 && inside && lo == 0 &&
      size_t(planes * sampleBytes) == d.pixelBytes()) {
    buffer.bytes.clear();
    buffer.lent = document_.at(rect.left, rect.top);
    buffer.rowBytes = int32_t(size_t(d.width) * d.pixelBytes());
    ++lentInputTiles_;
    return true;
  }
  int32_t tight = rect.width() * planes * sampleBytes;
  // Rows are longer than the pixels they carry, so that a wrong row step
  // shows; a strict host gives the output rows a step of their own.
  int32_t rowPadding = options_.rowPadding + (options_.strict && output ? 40 : 0);
  buffer.rowBytes = (tight + rowPadding + 3) & ~3;
  // Every byte the host does not write reads as 0xEE: the rows' padding, the
  // buffer's tail, and pixels past the document that a module asked to get
  // without padding. Rows that are written whole get their padding alone.
  const size_t bufferBytes = size_t(buffer.rowBytes) * size_t(rect.height()) + 16;
  buffer.bytes.resize(bufferBytes);
  memset(buffer.bytes.data() + bufferBytes - 16, 0xEE, 16);
  const size_t pixelBytes = size_t(planes * sampleBytes);
  // Where whole pixels of a row at rate 1 lie inside the document, that part
  // of the row is one copy; the rest (the padding, other rates, some planes)
  // goes pixel by pixel.
  const bool wholePixels = rate == 1 && (maskPlane || pixelBytes == d.pixelBytes());
  const int32_t innerLeft = std::max(rect.left, 0);
  const int32_t innerRight = std::min(rect.right, width);
  for (int32_t y = rect.top; y < rect.bottom; ++y) {
    int32_t sy = std::min(std::max(y, 0), height - 1) * rate;
    uint8_t* row = buffer.bytes.data() + size_t(y - rect.top) * size_t(buffer.rowBytes);
    const bool rowInside = y >= 0 && y < height && rect.left >= 0 && rect.right <= width;
    memset(rowInside ? row + tight : row, 0xEE, size_t(buffer.rowBytes) - (rowInside ? size_t(tight) : 0));
    auto onePixel = [&](int32_t x) {
      int32_t sx = std::min(std::max(x, 0), width - 1) * rate;
      uint8_t* target = row + size_t(x - rect.left) * pixelBytes;
      if (strict && strictPad(target, x, y, width, height, planes, maskPlane, output)) return;
      if (maskPlane) {
        *target = d.mask[size_t(sy) * size_t(d.width) + size_t(sx)];
      } else {
        memcpy(target, d.at(sx, sy) + size_t(lo) * size_t(sampleBytes), pixelBytes);
      }
    };
    if (!wholePixels || y < 0 || y >= height || innerLeft >= innerRight) {
      for (int32_t x = rect.left; x < rect.right; ++x) onePixel(x);
      continue;
    }
    for (int32_t x = rect.left; x < innerLeft; ++x) onePixel(x);
    const uint8_t* from = maskPlane ? &d.mask[size_t(y) * size_t(d.width) + size_t(innerLeft)] : d.at(innerLeft, y);
    memcpy(row + size_t(innerLeft - rect.left) * pixelBytes, from, size_t(innerRight - innerLeft) * pixelBytes);
    for (int32_t x = innerRight; x < rect.right; ++x) onePixel(x);
  }
  return true;
}

// Writes the output buffer of the last advanceState into the document; only
// pixels inside the document are kept. With autoMask the host applies the
// selection itself.
void Host::commitOutput() {
  if (!outPending_) return;
  outPending_ = false;
  Document& d = document_;
  if (out_.bytes.empty()) return;
  int32_t sampleBytes = d.sampleBytes();
  int32_t planes = out_.hiPlane - out_.loPlane + 1;
  bool hostMasks = record_->autoMask != 0 && d.hasMask();
  const int32_t left = std::max(out_.rect.left, 0);
  const int32_t right = std::min(out_.rect.right, d.width);
  const bool wholePixels = size_t(planes * sampleBytes) == d.pixelBytes();
  for (int32_t y = std::max(out_.rect.top, 0); y < std::min(out_.rect.bottom, d.height); ++y) {
    const uint8_t* row = out_.bytes.data() + size_t(y - out_.rect.top) * size_t(out_.rowBytes);
    if (!hostMasks && wholePixels && left < right) {
      const size_t pixelBytes = d.pixelBytes();
      memcpy(d.at(left, y), row + size_t(left - out_.rect.left) * pixelBytes, size_t(right - left) * pixelBytes);
      continue;
    }
    for (int32_t x = left; x < right; ++x) {
      const uint8_t* source = row + size_t(x - out_.rect.left) * size_t(planes * sampleBytes);
      uint8_t* target = d.at(x, y) + size_t(out_.loPlane) * size_t(sampleBytes);
      if (!hostMasks) {
        memcpy(target, source, size_t(planes * sampleBytes));
        continue;
      }
      double m = d.mask[size_t(y) * size_t(d.width) + size_t(x)] / 255.0;
      for (int p = 0; p < planes; ++p) {
        int plane = out_.loPlane + p;
        double before = d.sample(x, y, plane);
        double after;
        if (d.depth == 8) {
          after = source[p];
        } else if (d.depth == 16) {
          uint16_t v;
          memcpy(&v, source + 2 * p, 2);
          after = v;
        } else {
          float f;
          memcpy(&f, source + 4 * p, 4);
          after = f;
        }
        double mixed = before + (after - before) * m;
        d.setSample(x, y, plane, d.depth == 32 ? mixed : mixed + 0.5);
      }
    }
  }
}

double Host::secondsSinceStart() const {
  using namespace std::chrono;
  return duration<double>(steady_clock::now().time_since_epoch()).count() - startTime_;
}

OSErr Host::advanceState() {
  ++advanceCalls_;
  advanceTimes_.push_back(secondsSinceStart());
  bool fail = options_.failAdvanceAt != 0 && advanceCalls_ == options_.failAdvanceAt;
  OSErr answer = fail ? options_.advanceError : OSErr(noErr);
  if (fail) {
    // The tile already written is kept; the host hands out no buffers after
    // refusing, so a filter that writes on anyway finds null pointers.
    commitOutput();
    FilterRecord& r = *record_;
    r.inData = r.outData = r.maskData = nullptr;
    in_.clear();
    out_.clear();
    mask_.clear();
    logCall("advanceState", answer);
    return answer;
  }
  commitOutput();
  FilterRecord& r = *record_;
  bool haveMask = document_.hasMask() && r.haveMask != 0;
  bool delivered = deliver(in_, readRect(1), r.inLoPlane, r.inHiPlane, false);
  delivered = deliver(out_, readRect(2), r.outLoPlane, r.outHiPlane, false, true) && delivered;
  if (haveMask)
    delivered = deliver(mask_, readRect(3), 0, 0, true) && delivered;
  else
    mask_.clear();
  // What a host refuses it answers with an error and no buffers.
  if (!delivered) answer = paramErr;
  if (!options_.supportsPadding) {
    // The host hands back the rectangles it could fill.
    writeRect(1, in_.rect);
    writeRect(2, out_.rect);
    if (haveMask) writeRect(3, mask_.rect);
  }
  outPending_ = !out_.bytes.empty();
  bool none = options_.nullBuffers || answer != noErr;
  r.inData = none ? nullptr : in_.data();
  r.inRowBytes = in_.rowBytes;
  r.outData = none ? nullptr : out_.data();
  r.outRowBytes = out_.rowBytes;
  r.maskData = none ? nullptr : mask_.data();
  r.maskRowBytes = mask_.rowBytes;
  if (none) outPending_ = false;
  logCall("advanceState", answer);
  return answer;
}

bool Host::abortPoll() {
  ++abortPolls_;
  bool stop = abortRequested_ || (options_.abortAtPoll != 0 && abortPolls_ >= options_.abortAtPoll);
  logCall("abortProc", stop ? 1 : 0);
  return stop;
}

void Host::progress(int32_t done, int32_t total) { progressLog_.emplace_back(done, total); }

// ---- selectors ----------------------------------------------------------------------------------------

int16_t Host::about() {
  activeHost = this;
  AboutRecord about;
  memset(&about, 0, sizeof(about));
  int16_t result = 0;
  module_.pluginMain(filterSelectorAbout, &about, &data_, &result);
  logCall("About", result);
  if (options_.strict) strictAfterSelector("About", lockSnapshot());
  return result;
}

int16_t Host::call(int16_t selector) {
  activeHost = this;
  result_ = 0;
  std::map<const void*, int> locksBefore = lockSnapshot();
  module_.pluginMain(selector, record_.get(), &data_, &result_);
  logCall(selectorName(selector), result_);
  if (options_.strict) strictAfterSelector(selectorName(selector), locksBefore);
  return result_;
}

RunOutcome Host::run(bool repeat) {
  activeHost = this;
  size_t first = log_.size();
  RunOutcome outcome;
  setUpRecord();
  // The host starts a run with no rectangles and no buffers.
  for (int which = 1; which <= 3; ++which) writeRect(which, Rect{});
  record_->inData = record_->outData = record_->maskData = nullptr;
  outPending_ = false;

  auto finishRun = [&]() {
    outcome.calls.assign(log_.begin() + long(first), log_.end());
    return outcome;
  };
  if (!repeat) {
    int16_t r = call(filterSelectorParameters);
    if (r != 0) {
      outcome.result = r;
      return finishRun();
    }
  }
  int16_t r = call(filterSelectorPrepare);
  if (r != 0) {
    outcome.result = r;
    return finishRun();
  }
  outcome.startResult = call(filterSelectorStart);
  if (outcome.startResult == 0) {
    for (int guard = 0; guard < 100000; ++guard) {
      if (readRect(1).empty() && readRect(2).empty() && readRect(3).empty()) break;
      advanceState();
      if (call(filterSelectorContinue) != 0) break;
    }
  }
  commitOutput();
  outcome.result = outcome.startResult != 0 ? outcome.startResult : result_;
  if (outcome.startResult == 0 || options_.finishAfterError) {
    int16_t f = call(filterSelectorFinish);
    if (outcome.result == 0) outcome.result = f;
  }
  return finishRun();
}

// ---- strict mode ----------------------------------------------------------------------------------------

void Host::violation(const std::string& what) {
  violations_.push_back(what);
  if (violationObserver != nullptr) violationObserver(what);
}

// The rate of the plane asked for, whole pixels (1 when the rate is refused).
int32_t Host::strictRate(bool maskPlane) const {
  Fixed rate = maskPlane ? record_->maskRate : record_->inputRate;
  return rate >= 0x10000 && (rate & 0xFFFF) == 0 ? rate >> 16 : 1;
}

// Photoshop's checks of one buffer request: whole sampling rates only, planes
// the layer has, no dummy planes (the host offers none), and nothing past the
// image under the bounds-error padding code.
bool Host::strictRequestOk(const Rect& asked, int32_t lo, int32_t hi, bool maskPlane, bool output) {
  const FilterRecord& r = *record_;
  std::string what = maskPlane ? "mask" : output ? "output" : "input";
  if (asked.empty()) return true;
  if (!output) {
    Fixed rate = maskPlane ? r.maskRate : r.inputRate;
    if (rate < 0x10000 || (rate & 0xFFFF) != 0) {
      violation(what + " rate " + std::to_string(rate) + " is not a whole number of pixels");
      return false;
    }
  }
  if (!maskPlane) {
    int32_t planes = output ? r.outLayerPlanes + r.outTransparencyMask + r.outLayerMasks + r.outInvertedLayerMasks +
                                  r.outNonLayerPlanes
                            : r.inLayerPlanes + r.inTransparencyMask + r.inLayerMasks + r.inInvertedLayerMasks +
                                  r.inNonLayerPlanes;
    if (lo < 0 || hi < lo || hi >= planes) {
      violation(what + " planes " + std::to_string(lo) + ".." + std::to_string(hi) + " of " + std::to_string(planes));
      return false;
    }
    int32_t dummies = output ? r.outPreDummyPlanes + r.outPostDummyPlanes : r.inPreDummyPlanes + r.inPostDummyPlanes;
    if (dummies != 0 && r.supportsDummyChannels == 0) {
      violation(what + " asks for dummy planes the host does not offer");
      return false;
    }
  }
  int16_t padding = maskPlane ? r.maskPadding : output ? r.outputPadding : r.inputPadding;
  int32_t rate = output ? 1 : strictRate(maskPlane);
  int32_t width = (document_.width + rate - 1) / rate, height = (document_.height + rate - 1) / rate;
  bool past = asked.top < 0 || asked.left < 0 || asked.bottom > height || asked.right > width;
  if (padding < plugInWantsErrorOnBoundsException || padding > 255) {
    violation(what + " padding code " + std::to_string(padding));
    return false;
  }
  if (past && padding == plugInWantsErrorOnBoundsException) {
    violation(what + " rectangle " + describe(asked) + " lies past the image");
    return false;
  }
  return true;
}

// Pads one pixel past the image as its padding code says; false inside the
// image or where the edge is replicated.
bool Host::strictPad(uint8_t* target, int32_t x, int32_t y, int32_t width, int32_t height, int32_t planes,
                     bool maskPlane, bool output) const {
  if (x >= 0 && y >= 0 && x < width && y < height) return false;
  const FilterRecord& r = *record_;
  int16_t padding = maskPlane ? r.maskPadding : output ? r.outputPadding : r.inputPadding;
  if (padding == plugInWantsEdgeReplication) return false;
  if (padding == plugInDoesNotWantPadding) return true;  // left as the buffer was: undefined
  int depth = maskPlane ? 8 : document_.depth;
  for (int32_t p = 0; p < planes; ++p) {
    if (depth == 8) {
      target[p] = uint8_t(padding);
    } else if (depth == 16) {
      uint16_t v = uint16_t((padding * 32768 + 127) / 255);
      memcpy(target + 2 * p, &v, 2);
    } else {
      float f = float(padding) / 255.0f;
      memcpy(target + 4 * p, &f, 4);
    }
  }
  return true;
}

// After every selector: no handle stays locked past the call that locked it,
// and the dialogs the module asked for are collected.
void Host::strictAfterSelector(const char* selector, const std::map<const void*, int>& locksBefore) {
  for (const HandleRecord* h : handles_) {
    auto before = locksBefore.find(h);
    if (h->locks > std::min(before != locksBefore.end() ? before->second : 0, 0))
      violation("a handle stays locked after " + std::string(selector));
  }
  collectDialogs();
}

std::map<const void*, int> Host::lockSnapshot() const {
  std::map<const void*, int> locks;
  for (const HandleRecord* h : handles_) locks[h] = h->locks;
  return locks;
}

void Host::collectDialogs() {
  FILE* file = fopen(dialogLogPath_.c_str(), "r");
  if (file == nullptr) return;
  char line[256];
  while (fgets(line, sizeof(line), file) != nullptr) {
    std::string name(line);
    while (!name.empty() && (name.back() == '\n' || name.back() == '\r')) name.pop_back();
    dialogs_.push_back(name);
  }
  fclose(file);
  remove(dialogLogPath_.c_str());
}

// ---- digests -----------------------------------------------------------------------------------------

uint64_t digestBytes(const void* data, size_t size, uint64_t seed) {
  const uint8_t* p = static_cast<const uint8_t*>(data);
  uint64_t h = seed;
  for (size_t i = 0; i < size; ++i) {
    h ^= p[i];
    h *= 1099511628211ull;
  }
  return h;
}

std::string digestHex(uint64_t digest) {
  char text[17];
  snprintf(text, sizeof(text), "%016llx", static_cast<unsigned long long>(digest));
  return text;
}

std::string documentDigest(const Document& document) {
  return digestHex(digestBytes(document.pixels.data(), document.pixels.size()));
}

}  // namespace standin

#include "gimp/layer_run.h"

#include <unistd.h>

#include <thread>

#include "cli/depth_mapping.h"

namespace mendaris_gimp {

namespace {

// One module, one host and one run per plug-in process: the host's callbacks
// carry no context, so neither do these.
PluginMainProc innerEntry = nullptr;
ProgressProc hostProgress = nullptr;
ProgressSink sink = nullptr;
std::thread::id runningThread;

PI_HOST_CALLED void PI_CALL progressToSink(int32_t done, int32_t total) {
  if (hostProgress != nullptr) hostProgress(done, total);
  // GIMP's library is for one thread only: a report from any other is dropped.
  if (sink != nullptr && total > 0 && std::this_thread::get_id() == runningThread) sink(double(done) / double(total));
}

// Outside the tool's own interposer: the host's progressProc is taken once,
// before anything else has replaced it, and ours goes in before every
// selector (the tool's then wraps ours).
void PI_CALL entryWithProgress(int16_t selector, void* record, intptr_t* data, int16_t* result) {
  if (selector != filterSelectorAbout && record != nullptr) {
    FilterRecord* r = static_cast<FilterRecord*>(record);
    if (hostProgress == nullptr) hostProgress = r->progressProc;
    r->progressProc = progressToSink;
  }
  innerEntry(selector, record, data, result);
}

void mapSixteenBit(standin::Document& document, uint16_t (*map)(uint16_t)) {
  if (document.depth != 16) return;
  uint16_t* samples = reinterpret_cast<uint16_t*>(document.pixels.data());
  for (size_t i = 0, n = document.pixels.size() / 2; i < n; ++i) samples[i] = map(samples[i]);
}

}  // namespace

std::string checkLayerSize(int width, int height) {
  if (width <= kLargestSide && height <= kLargestSide) return "";
  return "the layer is " + std::to_string(width) + " by " + std::to_string(height) +
         " pixels; the filter takes at most " + std::to_string(kLargestSide) + " in either direction";
}

std::string moduleBesideProgram() {
  char self[4096];
  ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
  if (n <= 0) return "MendarisK.so";
  std::string path(self, size_t(n));
  return path.substr(0, path.find_last_of('/') + 1) + "MendarisK.so";
}

std::string filterLayer(mendaris_cli::FilterSession& session, ProgressSink progress) {
  std::string modulePath = moduleBesideProgram();
  std::string problem;
  if (!mendaris_cli::openFilter(session, modulePath, problem)) {
    return "cannot load the plug-in module " + modulePath + ": " + problem;
  }
  innerEntry = session.module.pluginMain;
  session.module.pluginMain = entryWithProgress;
  sink = progress;
  runningThread = std::this_thread::get_id();

  mapSixteenBit(session.document, mendaris_cli::fileToHost16);
  standin::RunOutcome outcome = mendaris_cli::filterDocument(session);
  if (outcome.startResult == mendaris_cli::kRefused) return mendaris_cli::kRefusalText;
  if (outcome.result == mendaris_cli::kUserCancelled) return "the filter was cancelled";
  if (outcome.result != 0) return mendaris_cli::describeResult(outcome.result);
  mapSixteenBit(session.document, mendaris_cli::hostToFile16);
  return "";
}

}  // namespace mendaris_gimp

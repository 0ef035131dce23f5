#include "cli/filter_session.h"

#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "cli/interrupt.h"
#include "cli/progress.h"

namespace mendaris_cli {

// The module's folder as seen from the program's, set by the build from the
// installation layout (bin and lib/mendaris under one prefix).
#ifndef MENDARIS_MODULE_DIR_FROM_BIN
#define MENDARIS_MODULE_DIR_FROM_BIN "../lib/mendaris"
#endif

const char kRefusalText[] =
    "This filter cannot operate on the image's background. Use it on a layer with transparent regions.";

namespace {

// One module and one host per process: the host's callbacks carry no
// context, so neither do these.
PluginMainProc moduleEntry = nullptr;
standin::Host* drivingHost = nullptr;
TestAbortProc hostAbort = nullptr;
ProgressProc hostProgress = nullptr;

PI_HOST_CALLED PIBoolean PI_CALL abortWhenInterrupted() {
  // The signal handler only raised a flag; the host hears of it here, on its
  // own thread, and answers the module as it would for any cancel.
  if (interrupted() && drivingHost != nullptr) drivingHost->requestAbort();
  if (hostAbort != nullptr) return hostAbort();
  return interrupted() ? 1 : 0;
}

PI_HOST_CALLED void PI_CALL progressWithLine(int32_t done, int32_t total) {
  if (hostProgress != nullptr) hostProgress(done, total);
  if (total > 0) progressShow("filtering", double(done) / double(total));
}

// Sits in the module's place: before every selector but About it puts the
// two callbacks above into the record, keeping the host's own behind them.
void PI_CALL interposedEntry(int16_t selector, void* record, intptr_t* data, int16_t* result) {
  if (selector != filterSelectorAbout && record != nullptr) {
    FilterRecord* r = static_cast<FilterRecord*>(record);
    if (r->abortProc != abortWhenInterrupted) {
      hostAbort = r->abortProc;
      r->abortProc = abortWhenInterrupted;
    }
    if (r->progressProc != progressWithLine) {
      hostProgress = r->progressProc;
      r->progressProc = progressWithLine;
    }
  }
  moduleEntry(selector, record, data, result);
}

}  // namespace

std::vector<std::string> besideTool(const std::string& name) {
  std::filesystem::path folder = ".";
  char self[4096];
  ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
  if (n > 0) folder = std::filesystem::path(std::string(self, size_t(n))).parent_path();
  return {(folder / name).string(), (folder / MENDARIS_MODULE_DIR_FROM_BIN / name).lexically_normal().string()};
}

std::string firstPresent(const std::vector<std::string>& places) {
  struct stat info;
  for (const std::string& place : places)
    if (stat(place.c_str(), &info) == 0) return place;
  return places.back();
}

std::vector<std::string> moduleSearchPath() { return besideTool("MendarisK.so"); }

std::string defaultModule() { return firstPresent(moduleSearchPath()); }

std::vector<uint8_t> copyAlpha(const standin::Document& d) {
  size_t sample = size_t(d.sampleBytes()), pixels = size_t(d.width) * size_t(d.height);
  std::vector<uint8_t> alpha(d.transparency ? pixels * sample : 0);
  for (size_t i = 0; i < alpha.size() / sample; ++i)
    memcpy(&alpha[i * sample], d.pixels.data() + i * d.pixelBytes() + size_t(d.colourPlanes) * sample, sample);
  return alpha;
}

void restoreAlpha(standin::Document& d, const std::vector<uint8_t>& alpha) {
  size_t sample = size_t(d.sampleBytes());
  for (size_t i = 0; i < alpha.size() / sample; ++i)
    memcpy(d.pixels.data() + i * d.pixelBytes() + size_t(d.colourPlanes) * sample, &alpha[i * sample], sample);
}

bool openFilter(FilterSession& session, const std::string& path, std::string& problem) {
  // A bare name would send the loader through the library search path; the
  // user means the file here.
  std::string where = path.find('/') == std::string::npos ? "./" + path : path;
  if (!standin::loadModule(session.module, where)) {
    problem = session.module.error;
    return false;
  }
  moduleEntry = session.module.pluginMain;
  session.module.pluginMain = interposedEntry;
  // The tool's host lends the document's rows to be read rather than copy
  // them: the filter only reads them, and each read tile is a copy saved.
  standin::HostOptions options;
  options.lendInputRows = true;
  session.host.reset(new standin::Host(session.module, session.document, options));
  drivingHost = session.host.get();
  return true;
}

int16_t aboutFilter(FilterSession& session) { return session.host->about(); }

standin::RunOutcome filterDocument(FilterSession& session) {
  standin::RunOutcome outcome = session.host->run(session.ranBefore);
  session.ranBefore = true;
  // The host logs every call; a long batch needs none of it.
  session.host->clearLog();
  return outcome;
}

std::string describeResult(int16_t result) {
  char text[96];
  switch (result) {
    case -108:
      return "the filter ran out of memory";
    case 3:
    case 999:
      snprintf(text, sizeof(text), "the filter could not set up its working memory (result %d)", int(result));
      return text;
    case -30100:
      return "the filter lost its parameters (result -30100)";
    default:
      snprintf(text, sizeof(text), "the filter stopped with result %d", int(result));
      return text;
  }
}

int32_t renderedTiles(const standin::RunOutcome& outcome) {
  int32_t n = 0;
  for (const standin::HostCall& call : outcome.calls) n += call.name == "advanceState" && call.value == 0 ? 1 : 0;
  return n;
}

int32_t expectedTiles(const standin::Document& d) {
  auto tiles = [](int32_t n, int32_t side) { return (n + side - 1) / side; };
  return tiles(d.width, 512) * tiles(d.height, 512) + tiles(d.width, 128) * tiles(d.height, 128);
}

}  // namespace mendaris_cli

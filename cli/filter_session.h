// The plug-in module, loaded once, and the stand-in host that drives it over
// one layer after another. The first layer is a fresh run (Parameters first);
// every later one repeats the filter as a host's "last filter" command does.
//
// The tool stands between the host's callbacks and the module: abortProc
// also answers "stop" once Ctrl-C has raised the interrupt flag (through the
// host's own requestAbort, on the host's thread), and progressProc also
// draws the progress line.
#pragma once

#include <stdint.h>

#include <memory>
#include <string>
#include <vector>

#include "plugin_host/stand_in_host.h"

namespace mendaris_cli {

// The largest side of a layer the filter takes. The host hands it 32-bit
// coordinates, but the filter's render counts rows and columns in 16 bits,
// corners included: a side of 32767 has a corner at 32767, past which the
// count never ends.
constexpr int32_t kLargestSide = 32766;

struct FilterSession {
  standin::Module module;
  standin::Document document;  // the layer of the present run; the host holds it by reference
  std::unique_ptr<standin::Host> host;
  bool ranBefore = false;
};

// Where the tool looks for a module of its own named `name`, in order:
// beside the program (as a build leaves them), then in the module folder of
// an installation, found from the program's own folder; never a build path.
std::vector<std::string> besideTool(const std::string& name);

// The first of `places` that exists, else the last (the installed one, for
// its message).
std::string firstPresent(const std::vector<std::string>& places);

// Where the tool looks for the plug-in module when --module is not given.
std::vector<std::string> moduleSearchPath();

// The first of those that exists, else the installed one.
std::string defaultModule();

// --keep-alpha: the layer's transparency plane, copied out before a run and
// put back after it, so that only the colour comes from the filter.
std::vector<uint8_t> copyAlpha(const standin::Document& document);
void restoreAlpha(standin::Document& document, const std::vector<uint8_t>& alpha);

// Loads the module at `path`. False with `problem` set when it cannot be loaded.
bool openFilter(FilterSession& session, const std::string& path, std::string& problem);

// Sends the About selector, as a host does when its user asks.
int16_t aboutFilter(FilterSession& session);

// Runs the filter over session.document, in place.
standin::RunOutcome filterDocument(FilterSession& session);

// One line for a run's non-zero result, other than a refusal or a cancel.
std::string describeResult(int16_t result);

// Start's answer when the filter refuses the layer.
constexpr int16_t kRefused = 1;
constexpr int16_t kUserCancelled = -128;

// The text of the filter's refusal of a layer with no transparency.
extern const char kRefusalText[];

// Tiles the host was asked to present during a run, and those a whole run of
// a layer of this size asks for: one per 512 by 512 read, one per 128 by 128 written.
int32_t renderedTiles(const standin::RunOutcome& outcome);
int32_t expectedTiles(const standin::Document& document);

}  // namespace mendaris_cli

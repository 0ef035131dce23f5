// The GIMP plug-in's work that owes nothing to GIMP: finding the module
// installed beside the plug-in, running it over a layer in the host's ranges,
// passing its progress on, and the words for what went wrong. The pixels
// come and go through gimp_plugin.cpp, the one file that speaks to GIMP.
#pragma once

#include <string>

#include "cli/filter_session.h"

namespace mendaris_gimp {

// Told how far the filter is, 0..1, on the thread that runs the plug-in.
using ProgressSink = void (*)(double fraction);

// The largest side the filter takes: the tool's.
using mendaris_cli::kLargestSide;

// Empty when the filter takes a layer of this size, otherwise why not.
std::string checkLayerSize(int width, int height);

// The module's file: MendarisK.so in the plug-in program's own folder.
std::string moduleBesideProgram();

// Loads the module and runs it once over session.document, in place. The
// document's 16-bit samples are in a file's range, 0..65535, both on the way
// in and on the way out, mapped to the host's range as the tool maps them.
// Returns an empty string when the layer was filtered, otherwise the one
// line to show the user (the filter's own words when it refuses the layer),
// and the document is not to be written back.
std::string filterLayer(mendaris_cli::FilterSession& session, ProgressSink progress);

}  // namespace mendaris_gimp

// The common kind of PNG read straight into a layer: 8- or 16-bit gray, gray
// and alpha, RGB or RGBA, not interlaced, no palette or transparency chunk.
// libdeflate inflates the whole stream at once (about half zlib's time), and
// the rows are unfiltered into the document's own buffer.
#pragma once

#include <string>

#include "plugin_host/stand_in_host.h"

namespace mendaris_cli {

// Fills `document` (already made to the file's size, depth and planes) from
// the PNG at `path`. False when the file is not of that kind, or anything in
// it is amiss (a bad checksum, a short stream): the caller then reads it
// through the image library, which says what is wrong.
bool readPlainPng(const std::string& path, standin::Document& document);

}  // namespace mendaris_cli

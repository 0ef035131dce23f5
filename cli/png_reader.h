// The common kind of PNG read straight into a layer: 8- or 16-bit gray, gray
// and alpha, RGB or RGBA, not interlaced, no palette or transparency chunk.
// ISA-L inflates the stream (about half zlib's time) on a thread of its own,
// while the rows already out are unfiltered into the document's own buffer.
#pragma once

#include <stdint.h>

#include <functional>
#include <string>
#include <vector>

#include "cli/png_writer.h"
#include "plugin_host/stand_in_host.h"

namespace mendaris_cli {

// Fills `document` (already made to the file's size, depth and planes) from
// the PNG at `path`. False when the file is not of that kind, or anything in
// it is amiss (a bad checksum, a short stream): the caller then reads it
// through the image library, which says what is wrong.
bool readPlainPng(const std::string& path, standin::Document& document);

// What a plain PNG's header says.
struct PngHeader {
  int32_t width = 0;
  int32_t height = 0;
  int depth = 0;   // 8 or 16
  int planes = 0;  // 1 gray, 2 gray and alpha, 3 RGB, 4 RGBA
};

// Reads the PNG at `path` when it is of the plain kind, the header first:
// `makeDocument` then makes `document` to it, or answers false to leave the
// file alone. `metadata` gets the file's colour (gAMA, cHRM, sRGB, iCCP),
// resolution (pHYs) and text chunks as they stand, but for its Software text.
bool readPlainPng(const std::string& path, standin::Document& document, std::vector<PngChunk>& metadata,
                  const std::function<bool(const PngHeader&)>& makeDocument);

}  // namespace mendaris_cli

// The tool's own PNG writer: the rows are cut into bands of about a mebibyte,
// each band is filtered and deflated on its own core, and the bands are joined
// into the one zlib stream PNG asks for (each band but the last ends on a byte
// boundary with an empty stored block, as a sync flush leaves it; one Adler-32
// over all). The bands depend on the image alone, so the file is the same
// whatever the number of processors.
//
//   level     rows filtered with        deflate
//   fast      Up                        ISA-L level 1
//   default   Paeth                     ISA-L level 1
//   1..12     the best of the five      libdeflate at that level
//   smallest  the best of the five      libdeflate level 12
//
// "The best of the five" is the usual heuristic: the filter whose output has
// the smallest sum of magnitudes, taken as signed bytes. On filled textures
// Paeth alone comes within about 1% of it, and below it at 16 bits, for a
// fifth of the filtering.
#pragma once

#include <stdint.h>
#include <stdio.h>

#include <string>
#include <vector>

#include "plugin_host/stand_in_host.h"

namespace mendaris_cli {

constexpr int kCompressionFast = -1;
constexpr int kCompressionDefault = 0;
constexpr int kCompressionSmallest = 12;

// "fast", "default", "smallest" or a level 1..12; false for anything else.
bool parseCompression(const std::string& text, int& level);

// Ancillary chunks to write before the pixels, each as PNG has it: the
// four-letter type and the chunk's data.
struct PngChunk {
  std::string type;
  std::vector<uint8_t> data;
};

// Writes the document's planes as a PNG (colour, then alpha when `withAlpha`),
// 8-bit as they are, 16-bit mapped from the host's range to the file's.
// `progress` is called from the calling thread with the fraction done and
// answers true to stop. False with `problem` set on a write error; `stopped`
// tells a stop asked by `progress`. `alpha16`, when given, is a 16-bit
// layer's alpha as the file had it, written in place of the host's.
bool writePng(FILE* file, const standin::Document& document, bool withAlpha, int compression,
              const std::vector<PngChunk>& chunks, bool (*progress)(void*, float), void* progressData,
              bool& stopped, std::string& problem, const uint16_t* alpha16 = nullptr);

}  // namespace mendaris_cli

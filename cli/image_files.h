// Image files in and out of the tool, through OpenImageIO. A file becomes a
// standin::Document as Photoshop would present such a layer, and a document
// goes back into a file of the kind its name asks for, at the depth it came in.
//
//   8-bit samples          8-bit document, unchanged
//   16-bit samples         16-bit document, 0..65535 mapped to the host's 0..32768
//   half and float         32-bit document, unchanged
//   1 or 2 channels        gray; 3 or 4 channels RGB; of 2 or 4 the last is alpha
//
// The filter sees straight colour, also under fully transparent pixels: files
// that keep colour straight (PNG, TIFF, TGA, PSD...) are read without the
// library's usual multiplication by alpha, and files that hold it multiplied
// (EXR, TIFF marked so) are divided on reading and multiplied again on writing.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include <OpenImageIO/imageio.h>

#include "cli/filter_session.h"
#include "plugin_host/stand_in_host.h"

namespace mendaris_cli {


// Bytes a run of the filter holds at its peak for a layer of this size, with
// `planes` samples of `depth` bits a pixel: the layer itself (the file's
// pixels, which the host presents as its document), the filter's copy with
// its reduced levels, its opaque map and its distance field, and its scratch.
double filterPeakBytes(int32_t width, int32_t height, int planes, int depth);

// What the tool keeps of the file a layer came from, to write the result the same way.
struct LayerSource {
  OIIO::ImageSpec spec;        // the file's own description: sample type, origin, metadata
  std::string formatName;      // the reader's name: "png", "openexr", ...
  bool premultiplied = false;  // the file held colour multiplied by alpha
  // Set before reading for --keep-alpha. The host's 16-bit range cannot hold
  // every 16-bit file value, so a 16-bit file's alpha is then kept here as
  // read, and written back in place of the layer's.
  bool keepAlpha = false;
  std::vector<uint16_t> alpha16;
};

enum class IoResult { done, failed, interrupted };

// Reads an image file as a layer. On failure `problem` holds one line that
// says what is wrong (without the file's name); `interrupted` when a stopping
// signal came during the read.
IoResult readLayer(const std::string& path, standin::Document& document, LayerSource& source,
                   std::string& problem);

// Reads a selection: the first channel of an image of exactly width by height
// pixels, as one byte a pixel, 255 selected.
IoResult readSelection(const std::string& path, int32_t width, int32_t height, std::vector<uint8_t>& mask,
                       std::string& problem);

// Checks, before any work, that `path` names a kind of file the library
// writes, in a folder that exists.
bool checkOutput(const std::string& path, std::string& problem);

// Writes the document into a temporary file beside `path` and renames it to
// `path` only once it is complete: on any failure or signal nothing is left.
// PNG at 8 and 16 bits goes through the tool's own writer (cli/png_writer.h)
// at the given compression; every other kind through the library.
IoResult writeLayer(const std::string& path, const standin::Document& document, const LayerSource& source,
                    std::string& problem, int compression = 0);

// True when both names lead to the same existing file.
bool sameFile(const std::string& a, const std::string& b);

}  // namespace mendaris_cli

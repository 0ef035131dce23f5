// Image files in and out of the tool. A file becomes a
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
//
// Plain PNGs in and 8- and 16-bit PNGs out take the tool's own road
// (cli/png_reader.h, cli/png_writer.h); every other file goes through
// OpenImageIO, in a module loaded the first time a file needs it
// (cli/image_library.h).
#pragma once

#include <stdint.h>

#include <memory>
#include <string>
#include <vector>

#include "cli/filter_session.h"
#include "cli/png_writer.h"
#include "plugin_host/stand_in_host.h"

namespace mendaris_cli {


// What the tool keeps of the file a layer came from, to write the result the same way.
struct LayerSource {
  std::string path;                 // the file read
  std::vector<PngChunk> pngChunks;  // its metadata, as the tool's PNG writer writes it
  // The library's own description of the file (an OIIO::ImageSpec: sample
  // type, origin, metadata) when the library read it; else the library reads
  // it again from `path` should it write the result.
  std::shared_ptr<const void> fileSpec;
  bool premultiplied = false;  // the file held colour multiplied by alpha
  // Set before reading for --keep-alpha. The host's 16-bit range cannot hold
  // every 16-bit file value, so a 16-bit file's alpha is then kept here as
  // read, and written back in place of the layer's.
  bool keepAlpha = false;
  std::vector<uint16_t> alpha16;
};

enum class IoResult { done, failed, interrupted };

// Bytes a run of the filter holds at its peak for a layer of this size, with
// `planes` samples of `depth` bits a pixel: the layer itself (the file's
// pixels, which the host presents as its document), the filter's copy with
// its reduced levels, its opaque map and its distance field, and its scratch.
double filterPeakBytes(int32_t width, int32_t height, int planes, int depth);

// Makes the document for a layer of this size (`planes` counting alpha when
// there is one), or says in `problem` why the filter cannot take it: more
// than kLargestSide a side, or more memory than the machine has.
bool makeLayer(standin::Document& document, int32_t width, int32_t height, int depth, int planes, bool alpha,
               std::string& problem);

// Reads an image file as a layer. On failure `problem` holds one line that
// says what is wrong (without the file's name); `interrupted` when a stopping
// signal came during the read.
IoResult readLayer(const std::string& path, standin::Document& document, LayerSource& source,
                   std::string& problem);

// Reads a selection: the first channel of an image of exactly width by height
// pixels, as one byte a pixel, 255 selected.
IoResult readSelection(const std::string& path, int32_t width, int32_t height, std::vector<uint8_t>& mask,
                       std::string& problem);

// Checks, before any work, that `path` names a kind of file the tool or the
// library writes, in a folder that exists.
bool checkOutput(const std::string& path, std::string& problem);

// Writes the document into a temporary file beside `path` and renames it to
// `path` only once it is complete: on any failure or signal nothing is left.
// PNG at 8 and 16 bits goes through the tool's own writer (cli/png_writer.h)
// at the given compression; every other kind through the library.
IoResult writeLayer(const std::string& path, const standin::Document& document, const LayerSource& source,
                    std::string& problem, int compression = 0);

// True when both names lead to the same existing file.
bool sameFile(const std::string& a, const std::string& b);

// Where the image library's module is looked for, in order: beside the
// program, then in the module folder of an installation.
std::vector<std::string> imageLibrarySearchPath();

}  // namespace mendaris_cli

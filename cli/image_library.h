// The image library's side of the tool: every file the tool's own PNG road
// does not take is read and written through OpenImageIO, which lives in a
// module of its own (mendaris_images.so) and is loaded only when a file needs
// it: linking it would cost every run, --version included, the resolving of
// some 260 shared libraries.
//
// The module hands the tool one table of functions, from its one entry
// mendarisImageLibrary(). Both sides are built together, from these headers.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "cli/image_files.h"

namespace mendaris_cli {

// What the module calls back into the tool for.
struct ImageHooks {
  bool (*progress)(void* what, float done);  // true to stop
  bool (*interrupted)();
  bool (*makeLayer)(standin::Document& document, int32_t width, int32_t height, int depth, int planes, bool alpha,
                    std::string& problem);
};

struct ImageLibrary {
  // readLayer, readSelection and checkOutput as image_files.h has them.
  IoResult (*readLayer)(const std::string& path, standin::Document& document, LayerSource& source,
                        std::string& problem, const ImageHooks& hooks);
  IoResult (*readSelection)(const std::string& path, int32_t width, int32_t height, std::vector<uint8_t>& mask,
                            std::string& problem, const ImageHooks& hooks);
  // Whether the library writes the kind of file `path` names.
  bool (*writes)(const std::string& path);
  // Writes the document to `temporary`, in the format `path` names, with the
  // metadata of `source`'s file. The caller renames it once done.
  IoResult (*writeLayer)(const std::string& path, const std::string& temporary, const standin::Document& document,
                         const LayerSource& source, std::string& problem, const ImageHooks& hooks);
};

}  // namespace mendaris_cli

extern "C" const mendaris_cli::ImageLibrary* mendarisImageLibrary();

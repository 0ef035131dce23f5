// libFuzzer target: the command-line tool's image reading path on damaged
// files. The first byte picks the kind of file the bytes pretend to be.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <unistd.h>

#include <memory>
#include <string>

#include <OpenImageIO/imageio.h>

#include "cli/image_files.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  static const char* const kExtensions[] = {".png", ".tif", ".exr", ".tga", ".psd", ".bmp"};
  std::string path = std::string("/tmp/mendaris_fuzz_") + std::to_string(getpid()) + kExtensions[data[0] % 6];
  FILE* file = fopen(path.c_str(), "wb");
  if (file == nullptr) return 0;
  fwrite(data + 1, 1, size - 1, file);
  fclose(file);
  // A damaged header may claim any size; the reader would then allocate it
  // honestly. Keep to layers this process can hold many times over.
  {
    std::unique_ptr<OIIO::ImageInput> probe = OIIO::ImageInput::open(path);
    if (probe && int64_t(probe->spec().width) * probe->spec().height * probe->spec().nchannels > (int64_t(1) << 24)) {
      unlink(path.c_str());
      return 0;
    }
  }
  standin::Document document;
  mendaris_cli::LayerSource source;
  std::string problem;
  mendaris_cli::IoResult result = mendaris_cli::readLayer(path, document, source, problem);
  if (result == mendaris_cli::IoResult::done) {
    // A layer that was read must be whole.
    if (document.pixels.size() != size_t(document.width) * size_t(document.height) * document.pixelBytes())
      __builtin_trap();
  }
  unlink(path.c_str());
  return 0;
}

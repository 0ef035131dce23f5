// libFuzzer target: the filter itself through the stand-in host, on documents
// whose size (1 to 700 each way), planes, depth, selection, floating origin,
// coordinate width and pixels come from the input bytes.
//
// The engine is linked in; one process runs many documents, as a host does.
// No cancel is injected: the cancel latch would hold for every later input.
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "host/plugin_main.h"
#include "plugin_host/stand_in_host.h"

namespace {

struct ByteReader {
  const uint8_t* data;
  size_t size;
  size_t at = 0;
  uint32_t next(uint32_t limit) {
    uint32_t v = 0;
    for (int i = 0; i < 3; ++i) v = (v << 8) | (at < size ? data[at++] : 0);
    return limit == 0 ? v : v % limit;
  }
};

standin::Module& linkedModule() {
  static standin::Module module;
  module.pluginMain = &PluginMain;
  return module;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 12) return 0;
  ByteReader in{data, size};
  int32_t width = int32_t(1 + in.next(700));
  int32_t height = int32_t(1 + in.next(700));
  // Keep each input quick: at most about 60000 pixels.
  while (int64_t(width) * height > 60000) {
    width = (width + 1) / 2;
    height = (height + 1) / 2;
  }
  static const int kDepths[3] = {8, 16, 32};
  int depth = kDepths[in.next(3)];
  int colourPlanes = in.next(2) == 0 ? 1 : 3;
  uint32_t flags = in.next(256);
  standin::Document d = standin::Document::make(width, height, depth, colourPlanes, true);
  // The pixels: the rest of the input, repeated; alphas pushed toward the
  // interesting grades (bare, soft, solid).
  size_t body = in.at < size ? size - in.at : 0;
  for (size_t i = 0; i < d.pixels.size(); ++i) d.pixels[i] = body ? data[in.at + i % body] : 0;
  if (depth == 16) {
    uint16_t* s = reinterpret_cast<uint16_t*>(d.pixels.data());
    for (size_t i = 0; i < d.pixels.size() / 2; ++i) s[i] = uint16_t(s[i] % 32769);
  }
  if (depth == 32 && (flags & 1)) {
    // Plain numbers in 0..2 rather than arbitrary bit patterns.
    float* f = reinterpret_cast<float*>(d.pixels.data());
    for (size_t i = 0; i < d.pixels.size() / 4; ++i) f[i] = float(reinterpret_cast<uint32_t*>(f)[i] % 2001) / 1000.0f;
  }
  for (int32_t y = 0; y < height; ++y)
    for (int32_t x = 0; x < width; ++x) {
      double a = d.sample(x, y, colourPlanes);
      double full = depth == 8 ? 255.0 : depth == 16 ? 32768.0 : 1.0;
      if (depth != 32 || (flags & 1)) d.setSample(x, y, colourPlanes, int(a) % 3 == 0 ? 0.0 : a > full ? full : a);
    }
  if (flags & 2) {
    d.mask.resize(size_t(width) * size_t(height));
    for (size_t i = 0; i < d.mask.size(); ++i) d.mask[i] = body ? data[in.at + (i * 7) % body] : 255;
  }
  standin::HostOptions o;
  if (flags & 4) {
    o.floatCoordH = int32_t(flags >> 4) % 37;
    o.floatCoordV = int32_t(flags >> 5) % 29;
  }
  o.bigDocument = (flags & 8) ? 2 : 0;
  o.supportsPadding = (flags & 64) == 0;
  standin::Host host(linkedModule(), d, o);
  standin::RunOutcome run = host.run();
  if (run.result != 0) __builtin_trap();
  return 0;
}

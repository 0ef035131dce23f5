// The image library's module (cli/image_library.h): files in and out through
// OpenImageIO, for everything the tool's own PNG road does not take.
#include "cli/image_library.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <new>

#include <OpenImageIO/imageio.h>
#include <zlib.h>

#include "cli/depth_mapping.h"

namespace mendaris_cli {

namespace {

using OIIO::ImageInput;
using OIIO::ImageOutput;
using OIIO::ImageSpec;
using OIIO::TypeDesc;

// Image libraries beneath OpenImageIO (libpng above all) print their own
// complaints on stderr besides returning them; the tool says the same thing
// in one line of its own, so stderr is muted around their calls.
struct QuietStderr {
  int saved = -1;
  QuietStderr() {
    fflush(stderr);
    saved = dup(STDERR_FILENO);
    int none = open("/dev/null", O_WRONLY);
    if (none >= 0) {
      dup2(none, STDERR_FILENO);
      close(none);
    }
  }
  ~QuietStderr() {
    if (saved < 0) return;
    fflush(stderr);
    dup2(saved, STDERR_FILENO);
    close(saved);
  }
  QuietStderr(const QuietStderr&) = delete;
  QuietStderr& operator=(const QuietStderr&) = delete;
};

// The library's messages run over several lines; the first says it.
std::string firstLine(const std::string& text) {
  size_t start = text.find_first_not_of(" \n\r\t");
  if (start == std::string::npos) return "unknown error";
  size_t end = text.find_first_of("\r\n", start);
  return text.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

// The document depth for a file's sample type; 0 for types the filter does not take.
int documentDepth(TypeDesc type) {
  switch (type.basetype) {
    case TypeDesc::UINT8:
      return 8;
    case TypeDesc::UINT16:
      return 16;
    case TypeDesc::HALF:
    case TypeDesc::FLOAT:
    case TypeDesc::DOUBLE:
      return 32;
    default:
      return 0;
  }
}

// For each plane of the document (colour first, alpha last) the file channel
// it comes from. The file's own alpha channel is honoured where the reader
// names one; otherwise the last of two or four channels is alpha.
std::vector<int> planeOrder(const ImageSpec& spec) {
  int channels = spec.nchannels;
  std::vector<int> order;
  if (channels != 2 && channels != 4) {
    for (int c = 0; c < channels; ++c) order.push_back(c);
    return order;
  }
  int alpha = spec.alpha_channel >= 0 && spec.alpha_channel < channels ? spec.alpha_channel : channels - 1;
  for (int c = 0; c < channels; ++c)
    if (c != alpha) order.push_back(c);
  order.push_back(alpha);
  return order;
}

bool identityOrder(const std::vector<int>& order) {
  for (size_t i = 0; i < order.size(); ++i)
    if (order[i] != int(i)) return false;
  return true;
}

// Formats whose files hold colour multiplied by alpha. The others are read
// with the library's "keep it straight" hint. A TIFF says which it holds: an
// alpha marked associated is multiplied, one marked unassociated is not, and
// an extra channel marked neither is taken as straight.
bool holdsPremultiplied(const std::string& format, const ImageSpec& spec) {
  if (format == "openexr") return true;
  if (format == "tiff")
    return spec.alpha_channel >= 0 && spec.get_int_attribute("oiio:UnassociatedAlpha", 0) == 0;
  return false;
}

// Formats whose files hold float samples.
bool holdsFloats(const std::string& format) {
  return format == "openexr" || format == "tiff" || format == "hdr" || format == "fits";
}

uint8_t floatTo8(float v) {
  double scaled = std::floor(double(v) * 255.0 + 0.5);
  return uint8_t(scaled < 0.0 ? 0.0 : scaled > 255.0 ? 255.0 : scaled);
}

uint16_t floatTo16(float v) {
  double scaled = std::floor(double(v) * 65535.0 + 0.5);
  return uint16_t(scaled < 0.0 ? 0.0 : scaled > 65535.0 ? 65535.0 : scaled);
}

// Metadata worth carrying from the input to the output; the rest (compression,
// the reader's own notes) belongs to the input's format alone.
const char* const kKeptMetadata[] = {
    "ICCProfile", "XResolution", "YResolution", "ResolutionUnit", "PixelAspectRatio", "Orientation",
    "oiio:ColorSpace", "oiio:Gamma", "DocumentName", "ImageDescription", "Artist", "Copyright", "DateTime",
};

void putBig32(std::vector<uint8_t>& to, uint32_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) to.push_back(uint8_t(v >> shift));
}

// The PNG chunks that carry the metadata the tool keeps, as OpenImageIO's own
// PNG writer spells them (so that it reads them back under the same names);
// the tool adds its own Software text.
std::vector<PngChunk> pngMetadata(const ImageSpec& source) {
  std::vector<PngChunk> chunks;
  std::string space = source.get_string_attribute("oiio:ColorSpace");
  if (space == "sRGB") {
    PngChunk gamma{"gAMA", {}};
    putBig32(gamma.data, 45455);
    chunks.push_back(gamma);
    chunks.push_back(PngChunk{"sRGB", {3}});
    PngChunk white{"cHRM", {}};
    for (uint32_t v : {31270u, 32900u, 64000u, 33000u, 30000u, 60000u, 15000u, 6000u}) putBig32(white.data, v);
    chunks.push_back(white);
  } else if (space == "GammaCorrected" && source.get_float_attribute("oiio:Gamma") > 0.0f) {
    PngChunk gamma{"gAMA", {}};
    putBig32(gamma.data, uint32_t(std::lround(100000.0 / source.get_float_attribute("oiio:Gamma"))));
    chunks.push_back(gamma);
  }
  const OIIO::ParamValue* icc = source.find_attribute("ICCProfile");
  if (icc != nullptr && icc->type().basetype == TypeDesc::UINT8) {
    const uint8_t* profile = static_cast<const uint8_t*>(icc->data());
    std::vector<uint8_t> packed(compressBound(uLong(icc->type().numelements())));
    uLongf size = uLongf(packed.size());
    if (compress2(packed.data(), &size, profile, uLong(icc->type().numelements()), 9) == Z_OK) {
      PngChunk chunk{"iCCP", {}};
      const char name[] = "ICC Profile";
      chunk.data.assign(name, name + sizeof(name));  // with its terminating zero
      chunk.data.push_back(0);                       // deflate
      chunk.data.insert(chunk.data.end(), packed.begin(), packed.begin() + long(size));
      chunks.push_back(chunk);
    }
  }
  float xres = source.get_float_attribute("XResolution"), yres = source.get_float_attribute("YResolution");
  if (xres > 0.0f && yres > 0.0f) {
    std::string unit = source.get_string_attribute("ResolutionUnit");
    double perMetre = unit == "cm" ? 100.0 : unit == "in" || unit == "inch" ? 1.0 / 0.0254 : 0.0;
    PngChunk chunk{"pHYs", {}};
    putBig32(chunk.data, uint32_t(std::lround(xres * (perMetre > 0.0 ? perMetre : 1.0))));
    putBig32(chunk.data, uint32_t(std::lround(yres * (perMetre > 0.0 ? perMetre : 1.0))));
    chunk.data.push_back(perMetre > 0.0 ? 1 : 0);
    chunks.push_back(chunk);
  }
  const char* const kTextKeys[][2] = {{"ImageDescription", "Description"}, {"Artist", "Author"},
                                      {"Copyright", "Copyright"},         {"DocumentName", "Title"}};
  for (const auto& key : kTextKeys) {
    std::string value = source.get_string_attribute(key[0]);
    if (value.empty()) continue;
    PngChunk chunk{"tEXt", {}};
    chunk.data.assign(key[1], key[1] + strlen(key[1]) + 1);
    chunk.data.insert(chunk.data.end(), value.begin(), value.end());
    chunks.push_back(chunk);
  }
  return chunks;
}

// Opens a file to be read with its colour kept straight; null with
// `problem` set when the library cannot read it.
std::unique_ptr<ImageInput> openStraight(const std::string& path, std::string& problem) {
  ImageSpec config;
  config.attribute("oiio:UnassociatedAlpha", 1);
  std::unique_ptr<ImageInput> in;
  {
    QuietStderr quiet;
    in = ImageInput::open(path, &config);
  }
  if (!in) problem = "cannot read: " + firstLine(OIIO::geterror());
  return in;
}

// The file's description, as the library read it or reads it again.
const ImageSpec& fileSpecOf(const LayerSource& source, ImageSpec& reread) {
  if (source.fileSpec) return *static_cast<const ImageSpec*>(source.fileSpec.get());
  std::string problem;
  std::unique_ptr<ImageInput> in = openStraight(source.path, problem);
  if (in) reread = in->spec();
  return reread;
}

IoResult readLayer(const std::string& path, standin::Document& document, LayerSource& source,
                   std::string& problem, const ImageHooks& hooks) {
  std::unique_ptr<ImageInput> in = openStraight(path, problem);
  if (!in) return IoResult::failed;
  const ImageSpec& spec = in->spec();
  char text[200];
  if (spec.deep) {
    problem = "holds deep data, which the filter does not take";
    return IoResult::failed;
  }
  if (spec.depth > 1) {
    problem = "is a volume, not a flat image";
    return IoResult::failed;
  }
  if (spec.nchannels < 1 || spec.nchannels > 4) {
    snprintf(text, sizeof(text), "has %d channels; the filter takes gray, gray and alpha, RGB or RGBA",
             spec.nchannels);
    problem = text;
    return IoResult::failed;
  }
  int depth = documentDepth(spec.format);
  if (depth == 0) {
    problem = std::string("holds samples of type ") + spec.format.c_str() +
              "; the filter takes 8- and 16-bit integers, half and float";
    return IoResult::failed;
  }

  int channels = spec.nchannels;
  bool alpha = channels == 2 || channels == 4;
  std::string formatName = in->format_name();
  source.premultiplied = alpha && holdsPremultiplied(formatName, spec);
  if (!hooks.makeLayer(document, spec.width, spec.height, depth, channels, alpha, problem)) return IoResult::failed;
  source.fileSpec = std::make_shared<const ImageSpec>(spec);
  source.pngChunks = pngMetadata(spec);

  std::vector<int> order = planeOrder(spec);
  // Premultiplied files are read as floats, to be divided before any rounding.
  TypeDesc readType = source.premultiplied ? TypeDesc::FLOAT
                      : depth == 8         ? TypeDesc::UINT8
                      : depth == 16        ? TypeDesc::UINT16
                                           : TypeDesc::FLOAT;
  bool direct = identityOrder(order) && !source.premultiplied && depth != 16;
  size_t samples = size_t(spec.width) * size_t(spec.height) * size_t(channels);
  std::vector<uint8_t> staging;
  try {
    if (!direct) staging.resize(samples * readType.size());
  } catch (const std::bad_alloc&) {
    problem = "there is not enough memory to read it";
    return IoResult::failed;
  }
  uint8_t* target = direct ? document.pixels.data() : staging.data();
  bool ok;
  {
    QuietStderr quiet;
    ok = in->read_image(0, 0, 0, channels, readType, target, OIIO::AutoStride, OIIO::AutoStride, OIIO::AutoStride,
                        hooks.progress, const_cast<char*>("reading"));
  }
  if (hooks.interrupted()) return IoResult::interrupted;
  if (!ok) {
    problem = "cannot read: " + firstLine(in->geterror());
    return IoResult::failed;
  }
  if (direct) return IoResult::done;

  size_t pixels = size_t(spec.width) * size_t(spec.height);
  int planes = channels;
  int colourPlanes = document.colourPlanes;
  if (source.keepAlpha && alpha && depth == 16) source.alpha16.resize(pixels);
  if (source.premultiplied) {
    const float* from = reinterpret_cast<const float*>(staging.data());
    for (size_t i = 0; i < pixels; ++i) {
      const float* pixel = from + i * size_t(planes);
      float a = pixel[order[size_t(planes - 1)]];
      for (int p = 0; p < planes; ++p) {
        float v = pixel[order[size_t(p)]];
        // Where nothing covers the pixel there is nothing to divide by: the
        // colour stays as the file has it.
        if (p < colourPlanes && a > 0.0f) v = v / a;
        size_t at = i * size_t(planes) + size_t(p);
        if (depth == 32) {
          memcpy(document.pixels.data() + at * 4, &v, 4);
        } else if (depth == 16) {
          uint16_t h = fileToHost16(floatTo16(v));
          memcpy(document.pixels.data() + at * 2, &h, 2);
          if (p == colourPlanes && !source.alpha16.empty()) source.alpha16[i] = floatTo16(v);
        } else {
          document.pixels[at] = floatTo8(v);
        }
      }
    }
    return IoResult::done;
  }
  size_t sampleBytes = readType.size();
  for (size_t i = 0; i < pixels; ++i) {
    for (int p = 0; p < planes; ++p) {
      size_t from = (i * size_t(planes) + size_t(order[size_t(p)])) * sampleBytes;
      size_t at = (i * size_t(planes) + size_t(p)) * sampleBytes;
      if (depth == 16) {
        uint16_t v;
        memcpy(&v, staging.data() + from, 2);
        uint16_t h = fileToHost16(v);
        memcpy(document.pixels.data() + at, &h, 2);
        if (p == colourPlanes && !source.alpha16.empty()) source.alpha16[i] = v;
      } else {
        memcpy(document.pixels.data() + at, staging.data() + from, sampleBytes);
      }
    }
  }
  return IoResult::done;
}

IoResult readSelection(const std::string& path, int32_t width, int32_t height, std::vector<uint8_t>& mask,
                       std::string& problem, const ImageHooks& hooks) {
  std::unique_ptr<ImageInput> in = openStraight(path, problem);
  if (!in) return IoResult::failed;
  const ImageSpec& spec = in->spec();
  if (spec.width != width || spec.height != height || spec.depth > 1 || spec.deep) {
    char text[160];
    snprintf(text, sizeof(text), "the selection is %d by %d pixels, the image %d by %d", spec.width, spec.height,
             int(width), int(height));
    problem = text;
    return IoResult::failed;
  }
  mask.assign(size_t(width) * size_t(height), 0);
  bool ok;
  {
    QuietStderr quiet;
    ok = in->read_image(0, 0, 0, 1, TypeDesc::UINT8, mask.data(), OIIO::AutoStride, OIIO::AutoStride,
                        OIIO::AutoStride, hooks.progress, const_cast<char*>("selection"));
  }
  if (hooks.interrupted()) return IoResult::interrupted;
  if (!ok) {
    problem = "cannot read: " + firstLine(in->geterror());
    return IoResult::failed;
  }
  return IoResult::done;
}

bool writes(const std::string& path) {
  std::unique_ptr<ImageOutput> out;
  {
    QuietStderr quiet;
    out = ImageOutput::create(path);
  }
  OIIO::geterror();  // the library keeps its message until asked
  return out != nullptr;
}

IoResult writeLayer(const std::string& path, const std::string& temporary, const standin::Document& document,
                    const LayerSource& source, std::string& problem, const ImageHooks& hooks) {
  ImageSpec reread;
  const ImageSpec& sourceSpec = fileSpecOf(source, reread);
  std::unique_ptr<ImageOutput> out;
  {
    QuietStderr quiet;
    out = ImageOutput::create(path);
  }
  if (!out) {
    problem = "cannot write: " + firstLine(OIIO::geterror());
    return IoResult::failed;
  }
  std::string format = out->format_name();
  // A format with no alpha (JPEG, PNM) gets the colour planes alone.
  bool keepAlpha = document.transparency && out->supports("alpha");
  int colourPlanes = document.colourPlanes;
  int channels = colourPlanes + (keepAlpha ? 1 : 0);
  int depth = document.depth;

  TypeDesc type = depth == 8 ? TypeDesc::UINT8 : depth == 16 ? TypeDesc::UINT16 : TypeDesc::FLOAT;
  if (depth == 32 && sourceSpec.format.basetype == TypeDesc::HALF) type = TypeDesc::HALF;
  // Float samples into a format of integers only: 16 bits where it has them
  // (the writers would otherwise fall back to 8).
  if (depth == 32 && !holdsFloats(format)) type = TypeDesc::UINT16;
  // EXR has no 16-bit integers, and half would lose the low bits of 16-bit samples.
  if (depth == 16 && format == "openexr") type = TypeDesc::FLOAT;
  ImageSpec spec(document.width, document.height, channels, type);
  if (sourceSpec.width == document.width && sourceSpec.height == document.height) {
    spec.x = sourceSpec.x;
    spec.y = sourceSpec.y;
    spec.full_x = sourceSpec.full_x;
    spec.full_y = sourceSpec.full_y;
    spec.full_width = sourceSpec.full_width;
    spec.full_height = sourceSpec.full_height;
  }
  static const char* const kGrayNames[] = {"Y", "A"};
  static const char* const kRgbNames[] = {"R", "G", "B", "A"};
  spec.channelnames.clear();
  for (int c = 0; c < colourPlanes; ++c) spec.channelnames.push_back(colourPlanes == 1 ? kGrayNames[0] : kRgbNames[c]);
  if (keepAlpha) spec.channelnames.push_back("A");
  spec.alpha_channel = keepAlpha ? channels - 1 : -1;
  for (const char* name : kKeptMetadata) {
    const OIIO::ParamValue* value = sourceSpec.find_attribute(name);
    if (value != nullptr) spec.attribute(value->name(), value->type(), value->data());
  }
  spec.attribute("Software", "Mendaris K 1.0.0");
  bool premultiply = keepAlpha && format == "openexr";
  // Straight colour goes out as it is: without the hint the writers would
  // divide it by alpha, taking it for multiplied.
  if (!premultiply) spec.attribute("oiio:UnassociatedAlpha", 1);

  size_t pixels = size_t(document.width) * size_t(document.height);
  int planes = document.planes();
  TypeDesc bufferType = depth == 8 ? TypeDesc::UINT8 : depth == 16 ? TypeDesc::UINT16 : TypeDesc::FLOAT;
  std::vector<uint8_t> staging;
  const void* data = document.pixels.data();
  if (premultiply) {
    // Normalised floats, colour multiplied by alpha, whatever the depth.
    bufferType = TypeDesc::FLOAT;
    staging.resize(pixels * size_t(channels) * 4);
    float* to = reinterpret_cast<float*>(staging.data());
    for (size_t i = 0; i < pixels; ++i) {
      float values[4];
      for (int p = 0; p < planes; ++p) {
        size_t at = i * size_t(planes) + size_t(p);
        if (depth == 8) {
          values[p] = float(document.pixels[at]) / 255.0f;
        } else if (depth == 16) {
          uint16_t h;
          memcpy(&h, document.pixels.data() + at * 2, 2);
          bool kept = p == colourPlanes && !source.alpha16.empty();
          values[p] = float(kept ? source.alpha16[i] : hostToFile16(h)) / 65535.0f;
        } else {
          memcpy(&values[p], document.pixels.data() + at * 4, 4);
        }
      }
      // As on reading, colour under alpha 0 is left as it is: dividing and
      // multiplying by alpha are then each other's inverse for every pixel.
      float a = values[planes - 1];
      for (int p = 0; p < planes; ++p)
        to[i * size_t(planes) + size_t(p)] = p < colourPlanes && a > 0.0f ? values[p] * a : values[p];
    }
    data = staging.data();
  } else if (depth == 16 || channels != planes) {
    size_t sampleBytes = bufferType.size();
    staging.resize(pixels * size_t(channels) * sampleBytes);
    for (size_t i = 0; i < pixels; ++i) {
      for (int p = 0; p < channels; ++p) {
        const uint8_t* from = document.pixels.data() + (i * size_t(planes) + size_t(p)) * sampleBytes;
        uint8_t* to = staging.data() + (i * size_t(channels) + size_t(p)) * sampleBytes;
        if (depth == 16) {
          uint16_t h;
          memcpy(&h, from, 2);
          uint16_t v = p == colourPlanes && !source.alpha16.empty() ? source.alpha16[i] : hostToFile16(h);
          memcpy(to, &v, 2);
        } else {
          memcpy(to, from, sampleBytes);
        }
      }
    }
    data = staging.data();
  }

  bool ok;
  {
    QuietStderr quiet;
    ok = out->open(temporary, spec);
    if (ok)
      ok = out->write_image(bufferType, data, OIIO::AutoStride, OIIO::AutoStride, OIIO::AutoStride, hooks.progress,
                            const_cast<char*>("writing"));
    ok = out->close() && ok;
  }
  if (hooks.interrupted()) return IoResult::interrupted;
  if (!ok) {
    problem = "cannot write: " + firstLine(out->geterror());
    return IoResult::failed;
  }
  return IoResult::done;
}

const ImageLibrary kImageLibrary = {readLayer, readSelection, writes, writeLayer};

}  // namespace
}  // namespace mendaris_cli

extern "C" __attribute__((visibility("default"))) const mendaris_cli::ImageLibrary* mendarisImageLibrary() {
  return &mendaris_cli::kImageLibrary;
}

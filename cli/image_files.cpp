#include "cli/image_files.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <new>

#include <zlib.h>

#include "cli/depth_mapping.h"
#include "cli/interrupt.h"
#include "cli/png_reader.h"
#include "cli/png_writer.h"
#include "cli/progress.h"

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

// Says what keeps a path from being read, before the library gives its
// vaguer account of it.
bool checkReadable(const std::string& path, std::string& problem) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0) {
    problem = strerror(errno);
    return false;
  }
  if (S_ISDIR(info.st_mode)) {
    problem = "is a folder, not an image";
    return false;
  }
  if (access(path.c_str(), R_OK) != 0) {
    problem = strerror(errno);
    return false;
  }
  return true;
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

std::string folderOf(const std::string& path) {
  size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

// A hidden name in the same folder (so that the rename cannot cross file
// systems), unique to this process, ending in the output's own extension.
std::string temporaryBeside(const std::string& path) {
  static int serial = 0;
  size_t slash = path.find_last_of('/');
  std::string folder = slash == std::string::npos ? "" : path.substr(0, slash + 1);
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  size_t dot = name.find_last_of('.');
  std::string stem = dot == std::string::npos || dot == 0 ? name : name.substr(0, dot);
  std::string extension = dot == std::string::npos || dot == 0 ? "" : name.substr(dot);
  char tag[48];
  snprintf(tag, sizeof(tag), ".part%ld-%d", long(getpid()), ++serial);
  return folder + "." + stem + tag + extension;
}


void putBig32(std::vector<uint8_t>& to, uint32_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) to.push_back(uint8_t(v >> shift));
}

// The PNG chunks that carry the metadata the tool keeps, as OpenImageIO's own
// PNG writer spells them (so that it reads them back under the same names).
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
                                      {"Copyright", "Copyright"},         {"DocumentName", "Title"},
                                      {"Software", "Software"}};
  for (const auto& key : kTextKeys) {
    std::string value = key[0] == std::string("Software") ? "Mendaris K 1.0.0" : source.get_string_attribute(key[0]);
    if (value.empty()) continue;
    PngChunk chunk{"tEXt", {}};
    chunk.data.assign(key[1], key[1] + strlen(key[1]) + 1);
    chunk.data.insert(chunk.data.end(), value.begin(), value.end());
    chunks.push_back(chunk);
  }
  return chunks;
}

// PNG through the tool's own writer, into an open temporary file.
IoResult writePngFile(const std::string& temporary, const standin::Document& document, bool keepAlpha,
                      const LayerSource& source, int compression, std::string& problem) {
  FILE* file = fopen(temporary.c_str(), "wb");
  if (file == nullptr) {
    problem = std::string("cannot write: ") + strerror(errno);
    return IoResult::failed;
  }
  bool stopped = false;
  bool ok = writePng(file, document, keepAlpha, compression, pngMetadata(source.spec), imageProgress,
                     const_cast<char*>("writing"), stopped, problem,
                     source.alpha16.empty() ? nullptr : source.alpha16.data());
  if (fclose(file) != 0 && ok) {
    ok = false;
    problem = strerror(errno);
  }
  if (ok) return IoResult::done;
  if (stopped || interrupted()) return IoResult::interrupted;
  problem = "cannot write: " + problem;
  return IoResult::failed;
}

}  // namespace

double filterPeakBytes(int32_t width, int32_t height, int planes, int depth) {
  // Stores keep tiles 512 pixels wide with 4 spare rows each.
  auto storeBytes = [](double w, double h, double pixelBytes) {
    double across = std::ceil(w / 512.0);
    double down = std::ceil(h / 512.0);
    return across * 512.0 * (h + 4.0 * down) * pixelBytes;
  };
  double layer = double(width) * double(height) * double(planes) * double(depth / 8);
  // The filter's copy: four samples a pixel at the layer's depth, with every
  // reduced level (each about half the size of the one below, rounded up even).
  double source = 0.0;
  double w = width, h = height;
  for (int level = 0; level < 20 && (w > 1.0 || h > 1.0 || level == 0); ++level) {
    source += storeBytes(w, h, 4.0 * double(depth / 8));
    w = std::ceil(w / 2.0);
    h = std::ceil(h / 2.0);
  }
  double opaque = storeBytes(width, height, 1.0);
  double distance = storeBytes(double(width) + 20.0, double(height) + 20.0, 4.0);
  double longest = width > height ? width : height;
  double cells = std::max(2.0 * (longest + 4.0), 3.0 * (double(width) + 728.0)) * 72.0;
  // The program, its libraries and the render's cell arrays.
  const double kFixed = 64.0 * 1048576.0;
  return layer + source + opaque + distance + cells + kFixed;
}

bool sameFile(const std::string& a, const std::string& b) {
  struct stat sa, sb;
  if (stat(a.c_str(), &sa) != 0 || stat(b.c_str(), &sb) != 0) return false;
  return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

IoResult readLayer(const std::string& path, standin::Document& document, LayerSource& source,
                   std::string& problem) {
  if (!checkReadable(path, problem)) return IoResult::failed;
  ImageSpec config;
  config.attribute("oiio:UnassociatedAlpha", 1);
  std::unique_ptr<ImageInput> in;
  {
    QuietStderr quiet;
    in = ImageInput::open(path, &config);
  }
  if (!in) {
    problem = "cannot read: " + firstLine(OIIO::geterror());
    return IoResult::failed;
  }
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
  if (spec.width > kLargestSide || spec.height > kLargestSide) {
    snprintf(text, sizeof(text), "is %d by %d pixels; the filter takes at most %d in either direction",
             spec.width, spec.height, int(kLargestSide));
    problem = text;
    return IoResult::failed;
  }
  if (spec.width < 1 || spec.height < 1) {
    problem = "holds no pixels";
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
  source.spec = spec;
  source.formatName = in->format_name();
  source.premultiplied = alpha && holdsPremultiplied(source.formatName, spec);
  // A layer that needs more memory than the machine has (or a damaged header
  // that claims one) is refused before any of it is allocated.
  double needed = filterPeakBytes(spec.width, spec.height, alpha ? channels : channels + 1, depth);
  double machineBytes = double(sysconf(_SC_PHYS_PAGES)) * double(sysconf(_SC_PAGE_SIZE));
  if (machineBytes > 0 && needed > machineBytes) {
    snprintf(text, sizeof(text), "is %d by %d pixels: filtering it needs about %.1f GiB of memory, and this machine has %.1f GiB",
             spec.width, spec.height, needed / 1073741824.0, machineBytes / 1073741824.0);
    problem = text;
    return IoResult::failed;
  }
  try {
    document = standin::Document::make(spec.width, spec.height, depth, alpha ? channels - 1 : channels, alpha);
  } catch (const std::bad_alloc&) {
    snprintf(text, sizeof(text), "is %d by %d pixels: there is not enough memory to hold it", spec.width, spec.height);
    problem = text;
    return IoResult::failed;
  }

  std::vector<int> order = planeOrder(spec);
  // Premultiplied files are read as floats, to be divided before any rounding.
  TypeDesc readType = source.premultiplied ? TypeDesc::FLOAT
                      : depth == 8         ? TypeDesc::UINT8
                      : depth == 16        ? TypeDesc::UINT16
                                           : TypeDesc::FLOAT;
  bool direct = identityOrder(order) && !source.premultiplied && depth != 16;
  // The common kind of PNG is read past the library, faster; anything else
  // about it (and any damage) is left to the library.
  // (Not where a 16-bit file's own alpha is kept: the library's road keeps it.)
  if (source.formatName == "png" && identityOrder(order) && !source.premultiplied && depth != 32 &&
      !(source.keepAlpha && depth == 16)) {
    if (readPlainPng(path, document)) return IoResult::done;
    if (interrupted()) return IoResult::interrupted;
  }
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
                        imageProgress, const_cast<char*>("reading"));
  }
  if (interrupted()) return IoResult::interrupted;
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
                       std::string& problem) {
  if (!checkReadable(path, problem)) return IoResult::failed;
  ImageSpec config;
  config.attribute("oiio:UnassociatedAlpha", 1);
  std::unique_ptr<ImageInput> in;
  {
    QuietStderr quiet;
    in = ImageInput::open(path, &config);
  }
  if (!in) {
    problem = "cannot read: " + firstLine(OIIO::geterror());
    return IoResult::failed;
  }
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
                        OIIO::AutoStride, imageProgress, const_cast<char*>("selection"));
  }
  if (interrupted()) return IoResult::interrupted;
  if (!ok) {
    problem = "cannot read: " + firstLine(in->geterror());
    return IoResult::failed;
  }
  return IoResult::done;
}

bool checkOutput(const std::string& path, std::string& problem) {
  std::unique_ptr<ImageOutput> out;
  {
    QuietStderr quiet;
    out = ImageOutput::create(path);
  }
  if (!out) {
    size_t slash = path.find_last_of('/');
    size_t dot = path.find_last_of('.');
    bool hasExtension = dot != std::string::npos && (slash == std::string::npos || dot > slash + 1);
    problem = hasExtension ? "cannot write: no image format goes by the extension " + path.substr(dot)
                           : "cannot write: the name has no extension to tell the image format";
    OIIO::geterror();  // the library keeps its message until asked
    return false;
  }
  struct stat info;
  if (stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
    problem = "is a folder";
    return false;
  }
  std::string folder = folderOf(path);
  if (stat(folder.c_str(), &info) != 0) {
    problem = "cannot write: " + folder + ": " + strerror(errno);
    return false;
  }
  if (!S_ISDIR(info.st_mode)) {
    problem = "cannot write: " + folder + " is not a folder";
    return false;
  }
  if (access(folder.c_str(), W_OK) != 0) {
    problem = "cannot write: " + folder + ": " + strerror(errno);
    return false;
  }
  return true;
}

IoResult writeLayer(const std::string& path, const standin::Document& document, const LayerSource& source,
                    std::string& problem, int compression) {
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
  if (depth == 32 && source.spec.format.basetype == TypeDesc::HALF) type = TypeDesc::HALF;
  // Float samples into a format of integers only: 16 bits where it has them
  // (the writers would otherwise fall back to 8).
  if (depth == 32 && !holdsFloats(format)) type = TypeDesc::UINT16;
  // EXR has no 16-bit integers, and half would lose the low bits of 16-bit samples.
  if (depth == 16 && format == "openexr") type = TypeDesc::FLOAT;
  ImageSpec spec(document.width, document.height, channels, type);
  if (source.spec.width == document.width && source.spec.height == document.height) {
    spec.x = source.spec.x;
    spec.y = source.spec.y;
    spec.full_x = source.spec.full_x;
    spec.full_y = source.spec.full_y;
    spec.full_width = source.spec.full_width;
    spec.full_height = source.spec.full_height;
  }
  static const char* const kGrayNames[] = {"Y", "A"};
  static const char* const kRgbNames[] = {"R", "G", "B", "A"};
  spec.channelnames.clear();
  for (int c = 0; c < colourPlanes; ++c) spec.channelnames.push_back(colourPlanes == 1 ? kGrayNames[0] : kRgbNames[c]);
  if (keepAlpha) spec.channelnames.push_back("A");
  spec.alpha_channel = keepAlpha ? channels - 1 : -1;
  for (const char* name : kKeptMetadata) {
    const OIIO::ParamValue* value = source.spec.find_attribute(name);
    if (value != nullptr) spec.attribute(value->name(), value->type(), value->data());
  }
  spec.attribute("Software", "Mendaris K 1.0.0");
  bool premultiply = keepAlpha && format == "openexr";
  if (format == "png" && depth != 32) {
    std::string temporary = temporaryBeside(path);
    setPendingFile(temporary);
    IoResult result = writePngFile(temporary, document, keepAlpha, source, compression, problem);
    if (result == IoResult::done && rename(temporary.c_str(), path.c_str()) != 0) {
      problem = std::string("cannot write: ") + strerror(errno);
      result = IoResult::failed;
    }
    if (result != IoResult::done) unlink(temporary.c_str());
    clearPendingFile();
    return result;
  }
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

  std::string temporary = temporaryBeside(path);
  setPendingFile(temporary);
  bool ok;
  {
    QuietStderr quiet;
    ok = out->open(temporary, spec);
    if (ok)
      ok = out->write_image(bufferType, data, OIIO::AutoStride, OIIO::AutoStride, OIIO::AutoStride, imageProgress,
                            const_cast<char*>("writing"));
    ok = out->close() && ok;
  }
  if (!ok || interrupted()) {
    unlink(temporary.c_str());
    clearPendingFile();
    if (interrupted()) return IoResult::interrupted;
    problem = "cannot write: " + firstLine(out->geterror());
    return IoResult::failed;
  }
  if (rename(temporary.c_str(), path.c_str()) != 0) {
    problem = std::string("cannot write: ") + strerror(errno);
    unlink(temporary.c_str());
    clearPendingFile();
    return IoResult::failed;
  }
  clearPendingFile();
  return IoResult::done;
}

}  // namespace mendaris_cli

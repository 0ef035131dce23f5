#include "cli/image_files.h"

#include <dlfcn.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <new>

#include "cli/image_library.h"
#include "cli/interrupt.h"
#include "cli/png_reader.h"
#include "cli/png_writer.h"
#include "cli/progress.h"

namespace mendaris_cli {

namespace {

const char kImageLibraryName[] = "mendaris_images.so";

const ImageHooks kHooks = {imageProgress, interrupted, makeLayer};

// The image library's table, loaded on first need; null with `problem` set
// when it cannot be loaded.
const ImageLibrary* imageLibrary(std::string& problem) {
  static const ImageLibrary* table = nullptr;
  static std::string failure;
  if (table != nullptr) return table;
  if (!failure.empty()) {
    problem = failure;
    return nullptr;
  }
#ifdef MENDARIS_IMAGES_LINKED
  table = mendarisImageLibrary();
#else
  const std::string place = firstPresent(imageLibrarySearchPath());
  void* handle = dlopen(place.c_str(), RTLD_NOW | RTLD_LOCAL);
  auto entry = handle == nullptr ? nullptr
                                 : reinterpret_cast<const ImageLibrary* (*)()>(dlsym(handle, "mendarisImageLibrary"));
  if (entry != nullptr) table = entry();
  if (table == nullptr) {
    const char* why = dlerror();
    failure = "the image library cannot be loaded: " + std::string(why != nullptr ? why : place);
    problem = failure;
  }
#endif
  return table;
}

// Says what keeps a path from being read, before a reader gives its vaguer
// account of it.
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

// The tool's own PNG writer takes names ending in .png, as the library does.
bool namesPng(const std::string& path) {
  size_t slash = path.find_last_of('/');
  size_t dot = path.find_last_of('.');
  return dot != std::string::npos && (slash == std::string::npos || dot > slash + 1) &&
         strcasecmp(path.c_str() + dot, ".png") == 0;
}

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

// The metadata chunks with this tool named as the file's software.
std::vector<PngChunk> withSoftware(std::vector<PngChunk> chunks) {
  static const char kSoftware[] = "Software\0Mendaris K 1.0.0";
  chunks.push_back(PngChunk{"tEXt", std::vector<uint8_t>(kSoftware, kSoftware + sizeof(kSoftware) - 1)});
  return chunks;
}

// PNG through the tool's own writer, into the temporary file.
IoResult writePngFile(const std::string& temporary, const standin::Document& document, const LayerSource& source,
                      int compression, std::string& problem) {
  FILE* file = fopen(temporary.c_str(), "wb");
  if (file == nullptr) {
    problem = std::string("cannot write: ") + strerror(errno);
    return IoResult::failed;
  }
  bool stopped = false;
  bool ok = writePng(file, document, document.transparency, compression, withSoftware(source.pngChunks),
                     imageProgress, const_cast<char*>("writing"), stopped, problem,
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

bool makeLayer(standin::Document& document, int32_t width, int32_t height, int depth, int planes, bool alpha,
                      std::string& problem) {
  char text[200];
  if (width > kLargestSide || height > kLargestSide) {
    snprintf(text, sizeof(text), "is %d by %d pixels; the filter takes at most %d in either direction", width,
             height, int(kLargestSide));
    problem = text;
    return false;
  }
  if (width < 1 || height < 1) {
    problem = "holds no pixels";
    return false;
  }
  // A layer that needs more memory than the machine has (or a damaged header
  // that claims one) is refused before any of it is allocated.
  double needed = filterPeakBytes(width, height, alpha ? planes : planes + 1, depth);
  double machineBytes = double(sysconf(_SC_PHYS_PAGES)) * double(sysconf(_SC_PAGE_SIZE));
  if (machineBytes > 0 && needed > machineBytes) {
    snprintf(text, sizeof(text),
             "is %d by %d pixels: filtering it needs about %.1f GiB of memory, and this machine has %.1f GiB", width,
             height, needed / 1073741824.0, machineBytes / 1073741824.0);
    problem = text;
    return false;
  }
  try {
    document = standin::Document::make(width, height, depth, alpha ? planes - 1 : planes, alpha);
  } catch (const std::bad_alloc&) {
    snprintf(text, sizeof(text), "is %d by %d pixels: there is not enough memory to hold it", width, height);
    problem = text;
    return false;
  }
  return true;
}

std::vector<std::string> imageLibrarySearchPath() { return besideTool(kImageLibraryName); }

bool sameFile(const std::string& a, const std::string& b) {
  struct stat sa, sb;
  if (stat(a.c_str(), &sa) != 0 || stat(b.c_str(), &sb) != 0) return false;
  return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

IoResult readLayer(const std::string& path, standin::Document& document, LayerSource& source,
                   std::string& problem) {
  if (!checkReadable(path, problem)) return IoResult::failed;
  source.path = path;
  // The common kind of PNG is read by the tool itself; any other file (and
  // any damage, which the library then names) is left to the library. So is
  // a 16-bit file whose own alpha is kept: the library's road keeps it.
  bool refused = false;
  bool plain = readPlainPng(path, document, source.pngChunks, [&](const PngHeader& header) {
    bool alpha = header.planes == 2 || header.planes == 4;
    if (source.keepAlpha && alpha && header.depth == 16) return false;
    refused = !makeLayer(document, header.width, header.height, header.depth, header.planes, alpha, problem);
    return !refused;
  });
  if (plain) return IoResult::done;
  if (refused) return IoResult::failed;
  if (interrupted()) return IoResult::interrupted;
  source.pngChunks.clear();
  const ImageLibrary* library = imageLibrary(problem);
  if (library == nullptr) return IoResult::failed;
  return library->readLayer(path, document, source, problem, kHooks);
}

IoResult readSelection(const std::string& path, int32_t width, int32_t height, std::vector<uint8_t>& mask,
                       std::string& problem) {
  if (!checkReadable(path, problem)) return IoResult::failed;
  const ImageLibrary* library = imageLibrary(problem);
  if (library == nullptr) return IoResult::failed;
  return library->readSelection(path, width, height, mask, problem, kHooks);
}

bool checkOutput(const std::string& path, std::string& problem) {
  if (!namesPng(path)) {
    const ImageLibrary* library = imageLibrary(problem);
    if (library == nullptr) return false;
    if (!library->writes(path)) {
      size_t slash = path.find_last_of('/');
      size_t dot = path.find_last_of('.');
      bool hasExtension = dot != std::string::npos && (slash == std::string::npos || dot > slash + 1);
      problem = hasExtension ? "cannot write: no image format goes by the extension " + path.substr(dot)
                             : "cannot write: the name has no extension to tell the image format";
      return false;
    }
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
  // 8- and 16-bit PNG through the tool's own writer; the rest through the library.
  bool own = namesPng(path) && document.depth != 32;
  const ImageLibrary* library = own ? nullptr : imageLibrary(problem);
  if (!own && library == nullptr) return IoResult::failed;
  std::string temporary = temporaryBeside(path);
  setPendingFile(temporary);
  IoResult result = own ? writePngFile(temporary, document, source, compression, problem)
                        : library->writeLayer(path, temporary, document, source, problem, kHooks);
  if (result == IoResult::done && rename(temporary.c_str(), path.c_str()) != 0) {
    problem = std::string("cannot write: ") + strerror(errno);
    result = IoResult::failed;
  }
  if (result != IoResult::done) unlink(temporary.c_str());
  clearPendingFile();
  return result;
}

}  // namespace mendaris_cli

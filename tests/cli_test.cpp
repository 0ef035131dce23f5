// The command-line tool `mendaris`, run as a child process on real files:
// formats, depths and channel counts; the 16-bit mapping; straight colour;
// refusals and every kind of bad input, each with one line and no output
// file left behind; batches with bad files among good ones; Ctrl-C; and
// output identical to a direct run of the stand-in host on the same layer.
//
// Tests that make or read image files need OpenImageIO linked in
// (MENDARIS_CLI_TEST_IMAGES); the others need only the built tool, and skip
// where it was not built.
#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "cli/depth_mapping.h"
#include "tests/support/test_support.h"

#if defined(MENDARIS_CLI_TEST_IMAGES)
#include <OpenImageIO/half.h>
#include <OpenImageIO/imageio.h>
#endif

using mendaris_cli::fileToHost16;
using mendaris_cli::hostToFile16;
namespace fs = std::filesystem;

namespace {

const char kRefusal[] =
    "This filter cannot operate on the image's background. Use it on a layer with transparent regions.";

// ---- the child process -------------------------------------------------------------------

std::string toolPath() { return std::string(MENDARIS_BINARY_DIR) + "/mendaris"; }

bool toolBuilt() { return access(toolPath().c_str(), X_OK) == 0; }

#define REQUIRE_TOOL()                                                    \
  do {                                                                    \
    if (!toolBuilt()) GTEST_SKIP() << "the tool is not built in this build"; \
  } while (0)

std::string readWhole(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

void writeWhole(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary);
  out << bytes;
}

struct ToolRun {
  int status = -1;  // the exit status, or -1 when a signal ended the process
  int signal = 0;   // the signal that ended it, if one did
  std::string out, err;
};

struct RunSettings {
  bool stderrTerminal = false;  // stderr on a pseudo-terminal, as at a shell
  // > 0: send SIGINT this many seconds after the tool has loaded the module,
  // or, when `interruptOnText` is set, after its terminal has shown that text.
  double interruptAfter = 0.0;
  std::string interruptOnText;
  bool finishedBeforeSignal = false;  // set when the tool was done before the signal could go
};

double now() {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

// True once the process has the plug-in module mapped: it is past start-up
// (where the dynamic loader spends its time) and its signal handlers are in place.
bool moduleLoaded(pid_t pid) {
  std::string maps = readWhole("/proc/" + std::to_string(pid) + "/maps");
  return maps.find("MendarisK") != std::string::npos;
}

ToolRun runTool(const std::vector<std::string>& args, const std::string& scratch,
                RunSettings* settings = nullptr) {
  std::string outPath = scratch + "/.tool_stdout", errPath = scratch + "/.tool_stderr";
  int terminal = -1;
  std::string terminalName;
  if (settings != nullptr && settings->stderrTerminal) {
    terminal = posix_openpt(O_RDWR | O_NOCTTY);
    if (terminal < 0 || grantpt(terminal) != 0 || unlockpt(terminal) != 0) return ToolRun();
    terminalName = ptsname(terminal);
  }
  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    int in = open("/dev/null", O_RDONLY);
    int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int err = terminal >= 0 ? open(terminalName.c_str(), O_RDWR) : open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    std::vector<char*> argv;
    std::string tool = toolPath();
    argv.push_back(const_cast<char*>(tool.c_str()));
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(tool.c_str(), argv.data());
    _exit(127);
  }
  ToolRun run;
  int status = 0;
  std::string terminalText;
  auto drainTerminal = [&]() {
    if (terminal < 0) return;
    char buffer[4096];
    for (;;) {
      fd_set set;
      FD_ZERO(&set);
      FD_SET(terminal, &set);
      struct timeval wait = {0, 0};
      if (select(terminal + 1, &set, nullptr, nullptr, &wait) <= 0) return;
      ssize_t n = read(terminal, buffer, sizeof(buffer));
      if (n <= 0) return;
      terminalText.append(buffer, size_t(n));
    }
  };
  bool done = false;
  if (settings != nullptr && settings->interruptAfter > 0.0) {
    double deadline = now() + 120.0;
    for (;;) {
      drainTerminal();
      bool ready = settings->interruptOnText.empty() ? moduleLoaded(pid)
                                                     : terminalText.find(settings->interruptOnText) != std::string::npos;
      if (ready || now() > deadline) break;
      if (waitpid(pid, &status, WNOHANG) == pid) {
        done = true;
        break;
      }
      usleep(5000);
    }
    double fire = now() + settings->interruptAfter;
    while (!done && now() < fire) {
      drainTerminal();
      if (waitpid(pid, &status, WNOHANG) == pid) done = true;
      usleep(5000);
    }
    if (done)
      settings->finishedBeforeSignal = true;
    else
      kill(pid, SIGINT);
  }
  while (!done) {
    drainTerminal();
    pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid) break;
    if (r < 0 && errno != EINTR) break;
    usleep(2000);
  }
  drainTerminal();
  if (terminal >= 0) close(terminal);
  if (WIFEXITED(status)) run.status = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) run.signal = WTERMSIG(status);
  run.out = readWhole(outPath);
  run.err = terminal >= 0 ? terminalText : readWhole(errPath);
  unlink(outPath.c_str());
  unlink(errPath.c_str());
  return run;
}

int lineCount(const std::string& text) { return int(std::count(text.begin(), text.end(), '\n')); }

// A folder of its own for each test, removed afterwards.
class ToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/mendaris-cli-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir = pattern;
  }
  void TearDown() override {
    std::error_code ignored;
    fs::permissions(dir, fs::perms::owner_all, fs::perm_options::add, ignored);
    fs::remove_all(dir, ignored);
  }
  std::string path(const std::string& name) const { return dir + "/" + name; }
  ToolRun tool(const std::vector<std::string>& args, RunSettings* settings = nullptr) {
    return runTool(args, dir, settings);
  }
  // The names in the folder, the tool's own capture files aside.
  std::vector<std::string> listing(const std::string& folder = "") const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder.empty() ? dir : folder)) {
      std::string name = entry.path().filename().string();
      if (name != ".tool_stdout" && name != ".tool_stderr") names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
  }
  std::string dir;
};

// A binary PGM or PPM (8-bit): files without transparency that any build of
// the image library reads, made without it.
void writePnm(const std::string& path, int width, int height, int channels) {
  std::string bytes = std::string(channels == 1 ? "P5" : "P6") + "\n" + std::to_string(width) + " " +
                      std::to_string(height) + "\n255\n";
  for (int i = 0; i < width * height * channels; ++i) bytes.push_back(char((i * 37) & 255));
  writeWhole(path, bytes);
}

}  // namespace

// ---- the 16-bit mapping ----------------------------------------------------------------------

// 65536 file values fall on 32769 host values: every host value survives the
// trip through a file; a file value moves by at most one, and a value that
// has made the trip once stays where it is.
TEST(CliDepthMapping, RoundTripsBothWays) {
  for (uint32_t h = 0; h <= 32768; ++h) ASSERT_EQ(fileToHost16(hostToFile16(uint16_t(h))), h) << h;
  int moved = 0;
  uint16_t previousHost = 0;
  for (uint32_t v = 0; v <= 65535; ++v) {
    uint16_t h = fileToHost16(uint16_t(v));
    ASSERT_LE(h, 32768u);
    ASSERT_GE(h, previousHost) << "not monotonic at " << v;
    previousHost = h;
    uint16_t back = hostToFile16(h);
    ASSERT_LE(std::abs(int(back) - int(v)), 1) << v;
    ASSERT_EQ(hostToFile16(fileToHost16(back)), back) << v;
    moved += back != v ? 1 : 0;
  }
  EXPECT_EQ(moved, 65536 - 32769);
}

TEST(CliDepthMapping, ValuesWorkedByHand) {
  // (v * 32768 + 32767) / 65535 and (h * 65535 + 16384) / 32768, truncated;
  // a host value past full scale is held there.
  const uint16_t toHost[][2] = {{0, 0}, {1, 1}, {2, 1}, {3, 2}, {32768, 16384}, {65534, 32767}, {65535, 32768}};
  for (const auto& c : toHost) EXPECT_EQ(fileToHost16(c[0]), c[1]) << c[0];
  const uint16_t toFile[][2] = {{0, 0},         {1, 2},         {16384, 32768}, {32767, 65533},
                                {32768, 65535}, {40000, 65535}, {65535, 65535}};
  for (const auto& c : toFile) EXPECT_EQ(hostToFile16(c[0]), c[1]) << c[0];
}

// ---- the tool without image files --------------------------------------------------------------

TEST_F(ToolTest, VersionHelpAndAbout) {
  REQUIRE_TOOL();
  ToolRun v = tool({"--version"});
  EXPECT_EQ(v.status, 0);
  EXPECT_NE(v.out.find("1.0.0"), std::string::npos) << v.out;
  ToolRun h = tool({"--help"});
  EXPECT_EQ(h.status, 0);
  EXPECT_EQ(h.out.rfind("Usage: mendaris", 0), 0u) << h.out;
  for (const char* option : {"--output-dir", "--suffix", "--mask", "--module", "--quiet", "--about"})
    EXPECT_NE(h.out.find(option), std::string::npos) << option;
  EXPECT_TRUE(h.err.empty());
  ToolRun a = tool({"--about"});
  EXPECT_EQ(a.status, 0) << a.err;
  EXPECT_EQ(a.out, "Mendaris K\nFills in transparent areas\nTawny Quince\n");
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {}, {"only.png"}, {"a.png", "b.png", "c.png"}, {"--frobnicate", "a.png", "b.png"}, {"a.png", "-o"}}) {
    ToolRun r = tool(args);
    EXPECT_EQ(r.status, 2) << (args.empty() ? "(none)" : args[0]);
    EXPECT_EQ(r.err.rfind("mendaris: ", 0), 0u) << r.err;
  }
  EXPECT_TRUE(listing().empty());
}

// Every problem is one line naming the file, status 1, no output left behind
// and the inputs as they were.
TEST_F(ToolTest, EachProblemIsOneLineAndLeavesNothingBehind) {
  REQUIRE_TOOL();
  writeWhole(path("not_a_module.so"), "nothing here");
  writeWhole(path("garbage.png"), "this is not a picture at all\n");
  writeWhole(path("empty.png"), "");
  fs::create_directory(path("folder.png"));
  writePnm(path("gray.pgm"), 40, 30, 1);
  writePnm(path("colour.ppm"), 40, 30, 3);
  // Flat images too: the size is checked before the filter sees the layer.
  writePnm(path("tall.pgm"), 2, 40000, 1);
  writePnm(path("widest_allowed.pgm"), 32766, 1, 1);
  writeWhole(path("plain_file"), "x");
  ASSERT_EQ(symlink(path("colour.ppm").c_str(), path("link.ppm").c_str()), 0);
  const std::vector<std::string> files = listing();
  std::vector<std::string> before;
  for (const std::string& f : files) before.push_back(fs::is_regular_file(path(f)) ? readWhole(path(f)) : "");
  const std::string refusal = std::string(": ") + kRefusal + "\n";
  struct Case {
    std::vector<std::string> args;
    std::string names, says;  // the file the line begins with, and what it says
  };
  const Case cases[] = {
      {{"--module", path("not_a_module.so"), "--about"}, path("not_a_module.so"), ": cannot load the plug-in"},
      {{path("missing.png"), path("out.png")}, path("missing.png"), "No such file or directory"},
      {{path("garbage.png"), path("out.png")}, path("garbage.png"), "cannot read"},
      {{path("empty.png"), path("out.png")}, path("empty.png"), "cannot read"},
      {{path("folder.png"), path("out.png")}, path("folder.png"), "is a folder"},
      {{path("gray.pgm"), path("out.tif")}, path("gray.pgm"), refusal},
      {{path("colour.ppm"), path("out.tif")}, path("colour.ppm"), refusal},
      {{path("tall.pgm"), path("out.png")}, path("tall.pgm"), "at most 32766"},
      // One pixel less passes the size check and meets the filter's refusal.
      {{path("widest_allowed.pgm"), path("out.png")}, path("widest_allowed.pgm"), refusal},
      {{path("gray.pgm"), path("no_such_folder/out.png")}, path("no_such_folder/out.png"), "No such file or directory"},
      {{path("gray.pgm"), path("plain_file/out.png")}, path("plain_file/out.png"), "not a folder"},
      {{path("gray.pgm"), path("out.unknownformat")}, path("out.unknownformat"), "no image format"},
      {{path("gray.pgm"), path("out")}, path("out"), "no extension"},
      // Never over its input: itself, through a link, by another spelling,
      // or in a batch whose output folder is the input's own.
      {{path("colour.ppm"), path("colour.ppm")}, "", "is the input file"},
      {{path("colour.ppm"), path("link.ppm")}, "", "is the input file"},
      {{path("colour.ppm"), dir + "/./colour.ppm"}, "", "is the input file"},
      {{path("colour.ppm"), "-o", dir}, "", "is the input file"},
  };
  for (const Case& c : cases) {
    ToolRun r = tool(c.args);
    SCOPED_TRACE(c.args[0] + " " + c.args[1]);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(lineCount(r.err), 1) << r.err;
    EXPECT_EQ(r.err.rfind("mendaris: " + c.names, 0), 0u) << r.err;
    EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
    if (c.says == refusal) {
      EXPECT_EQ(r.err, "mendaris: " + c.names + refusal);
    }
  }
  EXPECT_EQ(listing(), files);
  for (size_t i = 0; i < files.size(); ++i)
    if (fs::is_regular_file(path(files[i]))) {
      EXPECT_EQ(readWhole(path(files[i])), before[i]) << files[i];
    }
}

// ---- the tool on image files --------------------------------------------------------------------

#if defined(MENDARIS_CLI_TEST_IMAGES)

namespace {

using OIIO::ImageSpec;
using OIIO::TypeDesc;
using standin::Document;

// An image file's samples as numbers: 0..255, 0..65535, or the floats.
struct FileImage {
  int width = 0, height = 0, channels = 0;
  TypeDesc type;
  std::vector<double> values;
  std::string format;
};

bool isPremultipliedFormat(const std::string& extension) { return extension == "exr"; }

std::string extensionOf(const std::string& path) { return path.substr(path.find_last_of('.') + 1); }

void writeFile(const std::string& path, const FileImage& image) {
  auto out = OIIO::ImageOutput::create(path);
  ASSERT_TRUE(out) << path;
  ImageSpec spec(image.width, image.height, image.channels, image.type);
  if (image.channels == 2 || image.channels == 4) spec.alpha_channel = image.channels - 1;
  if (image.channels <= 2) spec.channelnames = image.channels == 1 ? std::vector<std::string>{"Y"}
                                                                    : std::vector<std::string>{"Y", "A"};
  // The values go into the file as they stand.
  if (!isPremultipliedFormat(extensionOf(path))) spec.attribute("oiio:UnassociatedAlpha", 1);
  std::vector<float> samples(image.values.size());
  double scale = image.type == TypeDesc::UINT8 ? 255.0 : image.type == TypeDesc::UINT16 ? 65535.0 : 1.0;
  for (size_t i = 0; i < samples.size(); ++i) samples[i] = float(image.values[i] / scale);
  ASSERT_TRUE(out->open(path, spec)) << out->geterror();
  ASSERT_TRUE(out->write_image(TypeDesc::FLOAT, samples.data())) << out->geterror();
  ASSERT_TRUE(out->close());
}

// Reads as the tool reads: colour as the file holds it, never multiplied on the way.
bool readFile(const std::string& path, FileImage& image) {
  ImageSpec config;
  config.attribute("oiio:UnassociatedAlpha", 1);
  auto in = OIIO::ImageInput::open(path, &config);
  if (!in) return false;
  const ImageSpec& spec = in->spec();
  image.width = spec.width;
  image.height = spec.height;
  image.channels = spec.nchannels;
  image.type = spec.format;
  image.format = in->format_name();
  std::vector<float> samples(size_t(spec.width) * size_t(spec.height) * size_t(spec.nchannels));
  if (!in->read_image(0, 0, 0, spec.nchannels, TypeDesc::FLOAT, samples.data())) return false;
  double scale = spec.format == TypeDesc::UINT8 ? 255.0 : spec.format == TypeDesc::UINT16 ? 65535.0 : 1.0;
  image.values.resize(samples.size());
  for (size_t i = 0; i < samples.size(); ++i)
    image.values[i] = scale == 1.0 ? double(samples[i]) : std::round(double(samples[i]) * scale);
  return true;
}

// The layer a host would present for a file, by the tool's rules: 16-bit
// values mapped into 0..32768, multiplied colour divided by alpha.
Document documentFromFile(const FileImage& f, bool premultiplied) {
  int depth = f.type == TypeDesc::UINT8 ? 8 : f.type == TypeDesc::UINT16 ? 16 : 32;
  bool alpha = f.channels == 2 || f.channels == 4;
  Document d = Document::make(f.width, f.height, depth, alpha ? f.channels - 1 : f.channels, alpha);
  for (int32_t y = 0; y < f.height; ++y) {
    for (int32_t x = 0; x < f.width; ++x) {
      const double* pixel = &f.values[(size_t(y) * size_t(f.width) + size_t(x)) * size_t(f.channels)];
      float a = float(pixel[f.channels - 1]);
      for (int c = 0; c < f.channels; ++c) {
        double v = pixel[c];
        if (depth == 16) v = fileToHost16(uint16_t(v));
        if (depth == 32 && premultiplied && alpha && c < f.channels - 1 && a > 0.0f) v = float(v) / a;
        d.setSample(x, y, c, v);
      }
    }
  }
  return d;
}

// The file values the tool writes for a layer, by the same rules the other way.
FileImage fileFromDocument(const Document& d, TypeDesc type, bool premultiply) {
  FileImage f;
  f.width = d.width;
  f.height = d.height;
  f.channels = d.planes();
  f.type = type;
  f.values.resize(size_t(d.width) * size_t(d.height) * size_t(f.channels));
  for (int32_t y = 0; y < d.height; ++y) {
    for (int32_t x = 0; x < d.width; ++x) {
      double* pixel = &f.values[(size_t(y) * size_t(d.width) + size_t(x)) * size_t(f.channels)];
      float a = float(d.sample(x, y, f.channels - 1));
      for (int c = 0; c < f.channels; ++c) {
        double v = d.sample(x, y, c);
        if (d.depth == 16) v = hostToFile16(uint16_t(v));
        if (d.depth == 32 && premultiply && c < f.channels - 1 && a > 0.0f) v = float(v) * a;
        if (type == TypeDesc::HALF) v = float(half(float(v)));
        pixel[c] = v;
      }
    }
  }
  return f;
}

// A layer of islands over colour noise (alpha 0 with colour under it, soft
// edges, opaque insides), as the file of the given type holds it.
FileImage islandFile(int width, int height, int colourPlanes, TypeDesc type, bool premultiply, uint64_t seed) {
  int depth = type == TypeDesc::UINT8 ? 8 : type == TypeDesc::UINT16 ? 16 : 32;
  Document d = standin::makeIslandDocument(width, height, depth, colourPlanes, seed);
  return fileFromDocument(d, type, premultiply);
}

// A one-channel 8-bit image: a selection mask.
FileImage grayImage(int width, int height, std::vector<double> values) {
  FileImage f;
  f.width = width;
  f.height = height;
  f.channels = 1;
  f.type = TypeDesc::UINT8;
  f.values = std::move(values);
  return f;
}

struct FormatCase {
  const char* name;
  const char* extension;
  int colourPlanes;
  TypeDesc type;
  bool masked = false;  // with a selection of every grade
};

std::ostream& operator<<(std::ostream& o, const FormatCase& c) { return o << c.name; }

const FormatCase kFormatCases[] = {
    {"png8_gray_alpha", "png", 1, TypeDesc::UINT8},   {"png8_rgba", "png", 3, TypeDesc::UINT8},
    {"png16_rgba", "png", 3, TypeDesc::UINT16},       {"png16_gray_alpha", "png", 1, TypeDesc::UINT16},
    {"tiff16_rgba", "tif", 3, TypeDesc::UINT16},      {"tiff16_gray_alpha", "tif", 1, TypeDesc::UINT16},
    {"tiff8_rgba", "tif", 3, TypeDesc::UINT8},        {"tiff_float_rgba", "tif", 3, TypeDesc::FLOAT},
    {"exr_half_rgba", "exr", 3, TypeDesc::HALF},      {"exr_float_rgba", "exr", 3, TypeDesc::FLOAT},
    {"exr_half_gray_alpha", "exr", 1, TypeDesc::HALF}, {"tga8_rgba", "tga", 3, TypeDesc::UINT8},
    {"png8_rgba_masked", "png", 3, TypeDesc::UINT8, true},
};

class FormatTest : public ToolTest, public ::testing::WithParamInterface<FormatCase> {};

void expectSameValues(const FileImage& got, const FileImage& expected, const std::string& what) {
  ASSERT_EQ(got.values.size(), expected.values.size()) << what;
  size_t differ = 0, first = 0;
  for (size_t i = 0; i < got.values.size(); ++i) {
    if (got.values[i] != expected.values[i]) {
      if (differ++ == 0) first = i;
    }
  }
  EXPECT_EQ(differ, 0u) << what << ": first at sample " << first << ": " << got.values[first] << " against "
                        << expected.values[first];
}

}  // namespace

// The file comes back with its size, channels and depth, and its samples are
// those of a direct run of the stand-in host over the same layer (and the
// same selection, where there is one).
TEST_P(FormatTest, OutputMatchesADirectRunOfTheHost) {
  REQUIRE_TOOL();
  const FormatCase& c = GetParam();
  bool premultiplied = isPremultipliedFormat(c.extension);
  std::string in = path(std::string("in.") + c.extension), out = path(std::string("out.") + c.extension);
  writeFile(in, islandFile(97, 61, c.colourPlanes, c.type, premultiplied, 11));
  std::string before = readWhole(in);
  FileImage input;
  ASSERT_TRUE(readFile(in, input));

  std::vector<std::string> args = {in, out};
  std::vector<std::string> files = {"in." + std::string(c.extension), "out." + std::string(c.extension)};
  FileImage mask = grayImage(97, 61, {});
  if (c.masked) {
    for (int i = 0; i < 97 * 61; ++i) mask.values.push_back(double((i * 7) % 256));
    writeFile(path("mask.png"), mask);
    args.insert(args.end(), {"--mask", path("mask.png")});
    files.insert(files.begin() + 1, "mask.png");
  }
  ToolRun r = tool(args);
  EXPECT_EQ(r.status, 0) << r.err;
  // Not a terminal: no progress, and nothing else on success.
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(readWhole(in), before);
  FileImage output;
  ASSERT_TRUE(readFile(out, output));
  EXPECT_EQ(output.width, 97);
  EXPECT_EQ(output.height, 61);
  EXPECT_EQ(output.channels, c.colourPlanes + 1);
  EXPECT_EQ(output.type, c.type) << output.type.c_str();
  EXPECT_EQ(output.format, input.format);

  Document direct = documentFromFile(input, premultiplied);
  for (double m : mask.values) direct.mask.push_back(uint8_t(m));
  standin::Host host(testing_support::nativeModule(), direct);
  ASSERT_EQ(host.run().result, 0);
  expectSameValues(output, fileFromDocument(direct, c.type, premultiplied), c.name);
  EXPECT_EQ(listing(), files);
}

// With nothing selected the host keeps every sample, whatever the filter
// does: the file comes back as it went in, the colour under fully
// transparent pixels included. Here reading and writing alone are seen.
TEST_P(FormatTest, NothingSelectedGivesTheFileBackUnchanged) {
  REQUIRE_TOOL();
  const FormatCase& c = GetParam();
  bool premultiplied = isPremultipliedFormat(c.extension);
  std::string in = path(std::string("in.") + c.extension), out = path(std::string("out.") + c.extension);
  FileImage input = islandFile(64, 48, c.colourPlanes, c.type, premultiplied, 12);
  writeFile(in, input);
  writeFile(path("none.png"), grayImage(64, 48, std::vector<double>(64 * 48, 0.0)));

  ToolRun r = tool({in, out, "--mask", path("none.png")});
  ASSERT_EQ(r.status, 0) << r.err;
  FileImage written, output;
  ASSERT_TRUE(readFile(in, written));
  ASSERT_TRUE(readFile(out, output));
  expectSameValues(output, written, c.name);
  // Colour under alpha 0 was there to survive (for the non-multiplied formats).
  if (!premultiplied) {
    int hidden = 0;
    for (size_t i = 0; i < input.values.size(); i += size_t(input.channels))
      hidden += input.values[i + size_t(input.channels) - 1] == 0.0 && input.values[i] != 0.0 ? 1 : 0;
    EXPECT_GT(hidden, 100);
  }
}

INSTANTIATE_TEST_SUITE_P(Formats, FormatTest, ::testing::ValuesIn(kFormatCases),
                         [](const ::testing::TestParamInfo<FormatCase>& info) { return std::string(info.param.name); });

// Straight colour from a PNG (the formats' own tests keep it through a PNG)
// is stored multiplied in an EXR, as that format has it; a TIFF written
// without the "straight" mark holds multiplied colour and is divided on reading.
TEST_F(ToolTest, ColourIsMultipliedOrDividedAsEachFormatHoldsIt) {
  REQUIRE_TOOL();
  // One pixel each: colour under alpha 0, colour under half alpha, opaque.
  FileImage f;
  f.width = 3;
  f.height = 1;
  f.channels = 4;
  f.type = TypeDesc::UINT8;
  f.values = {200, 100, 50, 0, 200, 100, 50, 128, 200, 100, 50, 255};
  writeFile(path("in.png"), f);
  auto out = OIIO::ImageOutput::create(path("in.tif"));
  ImageSpec spec(3, 1, 4, TypeDesc::UINT8);
  spec.alpha_channel = 3;
  const uint8_t samples[] = {0, 0, 0, 0, 100, 50, 25, 128, 10, 20, 30, 255};
  ASSERT_TRUE(out->open(path("in.tif"), spec));
  ASSERT_TRUE(out->write_image(TypeDesc::UINT8, samples));
  ASSERT_TRUE(out->close());
  writeFile(path("none.png"), grayImage(3, 1, {0, 0, 0}));
  ToolRun r = tool({path("in.png"), path("out.exr"), "-m", path("none.png")});
  ASSERT_EQ(r.status, 0) << r.err;
  FileImage result;
  ASSERT_TRUE(readFile(path("out.exr"), result));
  EXPECT_EQ(result.type, TypeDesc::HALF);
  EXPECT_NEAR(result.values[4], 200.0 / 255.0 * 128.0 / 255.0, 1e-3);
  EXPECT_NEAR(result.values[7], 128.0 / 255.0, 1e-3);
  EXPECT_NEAR(result.values[8], 200.0 / 255.0, 1e-3);
  // Under alpha 0 there is nothing to multiply by: the colour stays.
  EXPECT_NEAR(result.values[0], 200.0 / 255.0, 1e-3);
  r = tool({path("in.tif"), path("out.png"), "-m", path("none.png")});
  ASSERT_EQ(r.status, 0) << r.err;
  ASSERT_TRUE(readFile(path("out.png"), result));
  // 100 / (128 / 255) = 199.2; 50 -> 99.6; 25 -> 49.8.
  EXPECT_EQ(result.values, (std::vector<double>{0, 0, 0, 0, 199, 100, 50, 128, 10, 20, 30, 255}));
}

TEST_F(ToolTest, BadImagesAreOneLineAndLeaveNothingBehind) {
  REQUIRE_TOOL();
  writeFile(path("whole.png"), islandFile(200, 150, 3, TypeDesc::UINT8, false, 3));
  writeFile(path("in.png"), islandFile(40, 30, 3, TypeDesc::UINT8, false, 4));
  writeFile(path("mask.png"), grayImage(30, 40, std::vector<double>(30 * 40, 255.0)));
  for (auto layout : {std::make_pair("five.tif", 5), std::make_pair("wide_integers.tif", 4)}) {
    auto out = OIIO::ImageOutput::create(path(layout.first));
    ImageSpec spec(8, 8, layout.second, layout.second == 5 ? TypeDesc::UINT8 : TypeDesc::UINT32);
    std::vector<float> samples(size_t(8 * 8 * layout.second), 0.5f);
    ASSERT_TRUE(out->open(path(layout.first), spec));
    ASSERT_TRUE(out->write_image(TypeDesc::FLOAT, samples.data()));
    ASSERT_TRUE(out->close());
  }
  std::string bytes = readWhole(path("whole.png"));
  // A PNG cut in the header, in the pixel data, and just before the end chunk.
  for (size_t keep : {size_t(30), bytes.size() / 2, bytes.size() - 13}) {
    writeWhole(path("cut.png"), bytes.substr(0, keep));
    ToolRun r = tool({path("cut.png"), path("out.png")});
    EXPECT_EQ(r.status, 1) << keep;
    EXPECT_EQ(r.err.rfind("mendaris: " + path("cut.png") + ": cannot read", 0), 0u) << r.err;
    EXPECT_EQ(lineCount(r.err), 1) << r.err;
  }
  ToolRun r = tool({path("in.png"), path("out.png"), "--mask", path("mask.png")});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "mendaris: " + path("mask.png") + ": the selection is 30 by 40 pixels, the image 40 by 30\n");
  for (auto layout : {std::make_pair("five.tif", "has 5 channels"),
                      std::make_pair("wide_integers.tif", "holds samples of type uint")}) {
    r = tool({path(layout.first), path("out.png")});
    EXPECT_EQ(r.status, 1) << layout.first;
    EXPECT_EQ(r.err.rfind("mendaris: " + path(layout.first) + ": " + layout.second, 0), 0u) << r.err;
    EXPECT_EQ(lineCount(r.err), 1);
  }
  EXPECT_EQ(listing(), (std::vector<std::string>{"cut.png", "five.tif", "in.png", "mask.png", "whole.png",
                                                 "wide_integers.tif"}));
}

TEST_F(ToolTest, DepthsAFormatCannotHoldGoToTheNearestItCan) {
  REQUIRE_TOOL();
  writeFile(path("float.exr"), islandFile(24, 16, 3, TypeDesc::FLOAT, true, 7));
  writeFile(path("sixteen.png"), islandFile(24, 16, 3, TypeDesc::UINT16, false, 8));
  struct Case {
    const char* in;
    const char* out;
    TypeDesc type;
    int channels;
  } cases[] = {
      {"sixteen.png", "sixteen.ppm", TypeDesc::UINT8, 3},  // a format without alpha: the colour alone
      {"float.exr", "float.png", TypeDesc::UINT16, 4},  // not the writer's own fall-back to 8 bits
      {"float.exr", "float.tga", TypeDesc::UINT8, 4},
      {"sixteen.png", "sixteen.exr", TypeDesc::FLOAT, 4},  // half would lose bits
      {"sixteen.png", "sixteen.tga", TypeDesc::UINT8, 4},
  };
  for (const Case& c : cases) {
    ToolRun r = tool({path(c.in), path(c.out)});
    ASSERT_EQ(r.status, 0) << r.err;
    FileImage out;
    ASSERT_TRUE(readFile(path(c.out), out));
    EXPECT_EQ(out.type, c.type) << c.out << ": " << out.type.c_str();
    EXPECT_EQ(out.channels, c.channels) << c.out;
  }
}

TEST_F(ToolTest, BatchGoesOnPastBadFiles) {
  REQUIRE_TOOL();
  writeFile(path("a.png"), islandFile(60, 40, 3, TypeDesc::UINT8, false, 21));
  writeFile(path("b.tif"), islandFile(50, 30, 1, TypeDesc::UINT16, false, 22));
  writeWhole(path("c.png"), "not an image");
  writePnm(path("d.ppm"), 20, 20, 3);
  writeFile(path("e.exr"), islandFile(30, 20, 3, TypeDesc::HALF, true, 23));
  std::vector<std::string> inputs = {path("a.png"), path("b.tif"), path("c.png"), path("d.ppm"), path("e.exr")};
  std::vector<std::string> args = inputs;
  args.insert(args.end(), {"-o", path("out"), "--suffix", "_padded"});
  ToolRun r = tool(args);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(lineCount(r.err), 2) << r.err;
  EXPECT_NE(r.err.find("mendaris: " + path("c.png") + ": cannot read"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("mendaris: " + path("d.ppm") + ": " + kRefusal), std::string::npos) << r.err;
  EXPECT_EQ(listing(path("out")),
            (std::vector<std::string>{"a_padded.png", "b_padded.tif", "e_padded.exr"}));
  // Each as a run by itself would have made it: later files are repeat runs.
  for (const char* name : {"a", "b", "e"}) {
    std::string ext = name[0] == 'a' ? "png" : name[0] == 'b' ? "tif" : "exr";
    ToolRun single = tool({path(std::string(name) + "." + ext), path(std::string("single.") + ext)});
    ASSERT_EQ(single.status, 0) << single.err;
    FileImage one, batch;
    ASSERT_TRUE(readFile(path(std::string("single.") + ext), one));
    ASSERT_TRUE(readFile(path("out/" + std::string(name) + "_padded." + ext), batch));
    expectSameValues(batch, one, name);
  }
}

TEST_F(ToolTest, SuffixWithoutFolderWritesBesideEachInput) {
  REQUIRE_TOOL();
  fs::create_directory(path("sub"));
  writeFile(path("a.png"), islandFile(20, 20, 3, TypeDesc::UINT8, false, 31));
  writeFile(path("sub/b.png"), islandFile(20, 20, 3, TypeDesc::UINT8, false, 32));
  ToolRun r = tool({path("a.png"), path("sub/b.png"), "--suffix=_filled"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(fs::exists(path("a_filled.png")));
  EXPECT_TRUE(fs::exists(path("sub/b_filled.png")));
  // The same input twice would write one output twice: the second is refused.
  r = tool({path("a.png"), path("a.png"), "-o", path("twice")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("already the output of an earlier file"), std::string::npos) << r.err;
  EXPECT_EQ(listing(path("twice")), std::vector<std::string>{"a.png"});
}

TEST_F(ToolTest, ProgressOnATerminalAndNowhereElse) {
  REQUIRE_TOOL();
  writeFile(path("in.png"), islandFile(300, 200, 3, TypeDesc::UINT8, false, 41));
  RunSettings terminal;
  terminal.stderrTerminal = true;
  ToolRun shown = tool({path("in.png"), path("out.png")}, &terminal);
  EXPECT_EQ(shown.status, 0) << shown.err;
  EXPECT_NE(shown.err.find("\x1b[K"), std::string::npos) << shown.err;
  EXPECT_NE(shown.err.find("reading"), std::string::npos) << shown.err;
  EXPECT_NE(shown.err.find("%"), std::string::npos) << shown.err;
  EXPECT_NE(shown.err.find("-> " + path("out.png")), std::string::npos) << shown.err;
  ToolRun quiet = tool({"--quiet", path("in.png"), path("out2.png")}, &terminal);
  EXPECT_EQ(quiet.status, 0);
  EXPECT_EQ(quiet.err, "");
  // Errors still show when quiet, on one clean line.
  ToolRun error = tool({"-q", path("missing.png"), path("out3.png")}, &terminal);
  EXPECT_EQ(error.status, 1);
  EXPECT_NE(error.err.find("mendaris: " + path("missing.png") + ": No such file"), std::string::npos);
}

namespace {

// Squares on a transparent ground, with a little texture: quick to write for
// the test, and a real amount of work for the tool.
void writeLargeLayer(const std::string& path, int side) {
  std::vector<uint8_t> pixels(size_t(side) * size_t(side) * 4);
  for (int y = 0; y < side; ++y) {
    for (int x = 0; x < side; ++x) {
      uint8_t* p = &pixels[(size_t(y) * size_t(side) + size_t(x)) * 4];
      p[0] = uint8_t((x * 3 + y) & 255);
      p[1] = uint8_t((x + y * 5) & 255);
      p[2] = 90;
      p[3] = (x / 250 + y / 250) % 2 == 0 ? 255 : 0;
    }
  }
  auto out = OIIO::ImageOutput::create(path);
  ImageSpec spec(side, side, 4, TypeDesc::UINT8);
  spec.alpha_channel = 3;
  spec.attribute("oiio:UnassociatedAlpha", 1);
  spec.attribute("png:compressionLevel", 1);
  ASSERT_TRUE(out->open(path, spec));
  ASSERT_TRUE(out->write_image(TypeDesc::UINT8, pixels.data()));
  ASSERT_TRUE(out->close());
}

// Runs the tool on ever larger layers until the signal lands before it is
// done; then it must have left with 130, no output and no temporary file.
void expectCleanInterrupt(const std::string& scratch, const std::string& in, const std::string& out, RunSettings settings,
                          std::vector<std::string> options = {}) {
  bool landed = false;
  for (int side : {4000, 8000}) {
    writeLargeLayer(in, side);
    std::string before = readWhole(in);
    RunSettings s = settings;
    options.insert(options.end(), {in, out});
    ToolRun r = runTool(options, scratch, &s);
    options.resize(options.size() - 2);
    if (s.finishedBeforeSignal && r.status == 0) {
      fs::remove(out);
      continue;  // a fast machine: try a larger image
    }
    landed = true;
    EXPECT_EQ(r.signal, 0);
    EXPECT_EQ(r.status, 130) << r.err;
    EXPECT_FALSE(fs::exists(out));
    EXPECT_EQ(readWhole(in), before);
    break;
  }
  EXPECT_TRUE(landed) << "the tool finished before the signal on every size tried";
}

}  // namespace

// Ctrl-C in the middle of a large image, while reading and while the filter
// runs (the host's abortProc carries it): no output, no temporary file, 130.
TEST_F(ToolTest, InterruptLeavesNoOutputAndExits130) {
  REQUIRE_TOOL();
  RunSettings reading;
  reading.interruptAfter = 0.3;
  RunSettings filtering = reading;
  filtering.stderrTerminal = true;
  filtering.interruptOnText = "filtering";
  for (const RunSettings& settings : {reading, filtering}) {
    expectCleanInterrupt(dir, path("big.png"), path("big_out.png"), settings);
    EXPECT_EQ(listing(), std::vector<std::string>{"big.png"});
  }
}

#endif  // MENDARIS_CLI_TEST_IMAGES

#if defined(MENDARIS_CLI_TEST_IMAGES)
#include "cli/filter_session.h"
#include "plugin_host/scenarios.h"

// A cancel holds in the plug-in while it stays loaded: a later run in the same
// process reads the layer and writes nothing back. The tool's session sees
// that the tiles were never written, rather than taking the unchanged layer
// for a result.
TEST(CliSession, RunsAfterACancelAreSeenToWriteNothing) {
  mendaris_cli::FilterSession session;
  std::string problem;
  ASSERT_TRUE(mendaris_cli::openFilter(session, MENDARIS_MODULE_PATH, problem)) << problem;
  session.document = standin::makeIslandDocument(300, 200, 8, 3, 5);
  standin::RunOutcome whole = mendaris_cli::filterDocument(session);
  ASSERT_EQ(whole.result, 0);
  EXPECT_EQ(mendaris_cli::renderedTiles(whole), mendaris_cli::expectedTiles(session.document));

  session.document = standin::makeIslandDocument(300, 200, 8, 3, 6);
  session.host->options().abortAtPoll = 1;
  standin::RunOutcome cancelled = mendaris_cli::filterDocument(session);
  EXPECT_EQ(cancelled.result, -128);

  session.host->options().abortAtPoll = 0;
  session.document = standin::makeIslandDocument(300, 200, 8, 3, 7);
  standin::Document before = session.document;
  standin::RunOutcome later = mendaris_cli::filterDocument(session);
  EXPECT_LT(mendaris_cli::renderedTiles(later), mendaris_cli::expectedTiles(session.document));
  EXPECT_EQ(session.document.pixels, before.pixels);
}
#endif

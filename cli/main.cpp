// mendaris: the Mendaris K filter on image files, through the stand-in host.
//
//   mendaris [OPTIONS] IN OUT
//   mendaris [OPTIONS] IN... -o DIR [--suffix TEXT]
//   mendaris [OPTIONS] IN... --suffix TEXT
//
// Every problem is one line on stderr, "mendaris: FILE: what is wrong"; the
// files that can be done are done. Exit status: 0 all done, 1 some file
// failed or was refused, 2 wrong usage, 128 + the signal when stopped
// (130 for Ctrl-C). An output file appears only whole, and never in place of
// its input.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <new>
#include <set>
#include <string>
#include <vector>

#include "cli/batch.h"
#include "cli/filter_session.h"
#include "cli/image_files.h"
#include "cli/interrupt.h"
#include "cli/png_writer.h"
#include "cli/progress.h"

namespace mendaris_cli {
namespace {

const char kVersion[] = "1.0.0";

const char kUsage[] =
    "Usage: mendaris [OPTION]... IN OUT\n"
    "       mendaris [OPTION]... IN... -o DIR [--suffix TEXT]\n"
    "       mendaris [OPTION]... IN... --suffix TEXT\n"
    "Fill in the transparent areas of image files with the Mendaris K filter:\n"
    "every transparent pixel gets a colour that continues the opaque part of\n"
    "the image, and the image comes back opaque (within the selection).\n"
    "\n"
    "IN is read as a layer with transparency (gray and alpha, or RGBA) at 8 or\n"
    "16 bits, half or float; OUT is written in the format its extension names,\n"
    "at IN's bit depth. Several inputs are done in parallel (see -j).\n"
    "\n"
    "Options:\n"
    "  -o, --output-dir DIR   write each result into DIR, under its input's name\n"
    "  -s, --suffix TEXT      add TEXT to each output's name, before the extension;\n"
    "                         without -o the outputs go beside their inputs\n"
    "  -m, --mask MASK        the selection: a gray image of the same size, white\n"
    "                         selected; the filter changes only what is selected\n"
    "      --keep-alpha       write the file's own alpha back unchanged: only the\n"
    "                         colour is filled (sprites, cut-outs, decals)\n"
    "      --compression HOW  PNG output: fast, default (about as small as common\n"
    "                         tools make it, at a fraction of their time),\n"
    "                         smallest (for archives: slower), or a level 1..12\n"
    "  -j, --jobs N           do up to N files at once, each in a process of its\n"
    "                         own (default: one per processor)\n"
    "      --module PATH      run this build of the plug-in module instead of the\n"
    "                         first found of those listed below\n"
    "  -q, --quiet            no progress line (none is drawn when stderr is not\n"
    "                         a terminal)\n"
    "      --about            print the plug-in's About box and exit\n"
    "      --version          print the version and exit\n"
    "  -h, --help             print this help and exit\n"
    "\n"
    "Exit status: 0 when every file was done; 1 when a file failed or the filter\n"
    "refused it; 2 for wrong usage; 130 when stopped with Ctrl-C, which leaves no\n"
    "output file for the image being done.\n";

struct Options {
  std::vector<std::string> inputs;
  std::string output;  // OUT for a single input
  std::string outputDir;
  std::string suffix;
  bool haveOutputDir = false;
  bool haveSuffix = false;
  std::string mask;
  std::string module;
  std::string compressionText;
  int compression = kCompressionDefault;
  std::string jobsText;
  int jobs = 0;  // 0: one per processor
  bool quiet = false;
  bool keepAlpha = false;
  bool about = false;
  bool version = false;
  bool help = false;
};

int usageError(const std::string& message) {
  fprintf(stderr, "mendaris: %s\nTry 'mendaris --help' for more information.\n", message.c_str());
  return 2;
}

// Parses the command line; returns -1 to go on, or the exit status.
int parseArguments(int argc, char** argv, Options& options) {
  struct ValueOption {
    const char* shortName;
    const char* longName;
    std::string* value;
    bool* seen;
  };
  bool maskSeen = false, moduleSeen = false, compressionSeen = false, jobsSeen = false;
  const ValueOption valueOptions[] = {
      {"-o", "--output-dir", &options.outputDir, &options.haveOutputDir},
      {"-s", "--suffix", &options.suffix, &options.haveSuffix},
      {"-m", "--mask", &options.mask, &maskSeen},
      {nullptr, "--module", &options.module, &moduleSeen},
      {nullptr, "--compression", &options.compressionText, &compressionSeen},
      {"-j", "--jobs", &options.jobsText, &jobsSeen},
  };
  struct FlagOption {
    const char* shortName;
    const char* longName;
    bool* flag;
  };
  const FlagOption flagOptions[] = {
      {"-q", "--quiet", &options.quiet},
      {nullptr, "--keep-alpha", &options.keepAlpha},
      {nullptr, "--about", &options.about},
      {nullptr, "--version", &options.version},
      {"-h", "--help", &options.help},
  };
  std::vector<std::string> positional;
  bool optionsEnded = false;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (optionsEnded || arg.size() < 2 || arg[0] != '-') {
      positional.push_back(arg);
      continue;
    }
    if (arg == "--") {
      optionsEnded = true;
      continue;
    }
    bool matched = false;
    for (const FlagOption& f : flagOptions) {
      if ((f.shortName != nullptr && arg == f.shortName) || arg == f.longName) {
        *f.flag = true;
        matched = true;
      }
    }
    if (matched) continue;
    for (const ValueOption& v : valueOptions) {
      std::string longName = v.longName;
      std::string value;
      if ((v.shortName != nullptr && arg == v.shortName) || arg == longName) {
        if (i + 1 >= argc) return usageError("option '" + arg + "' needs a value");
        value = argv[++i];
      } else if (arg.compare(0, longName.size() + 1, longName + "=") == 0) {
        value = arg.substr(longName.size() + 1);
      } else {
        continue;
      }
      if (*v.seen) return usageError("option '" + longName + "' is given twice");
      *v.value = value;
      *v.seen = true;
      matched = true;
      break;
    }
    if (!matched) return usageError("unknown option '" + arg + "'");
  }
  if (options.help || options.version || options.about) return -1;
  if (compressionSeen && !parseCompression(options.compressionText, options.compression))
    return usageError("--compression takes fast, default, smallest or a level from 1 to 12");
  if (jobsSeen) {
    char* end = nullptr;
    long n = strtol(options.jobsText.c_str(), &end, 10);
    if (options.jobsText.empty() || *end != '\0' || n < 1 || n > 1024) return usageError("--jobs takes a number from 1 up");
    options.jobs = int(n);
  }
  if (options.haveOutputDir && options.outputDir.empty()) return usageError("-o needs a folder name");
  if (options.haveOutputDir || options.haveSuffix) {
    if (positional.empty()) return usageError("no input files");
    options.inputs = positional;
    return -1;
  }
  if (positional.size() < 2) return usageError(positional.empty() ? "no input file" : "no output file");
  if (positional.size() > 2)
    return usageError("several inputs need -o DIR or --suffix TEXT; with neither, the last name would be the output");
  options.inputs.push_back(positional[0]);
  options.output = positional[1];
  return -1;
}

std::string baseName(const std::string& path) {
  size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// DIR/name or, with no DIR, the input's own folder; the suffix goes before the extension.
std::string batchOutputName(const Options& options, const std::string& input) {
  std::string name = baseName(input);
  size_t dot = name.find_last_of('.');
  std::string stem = dot == std::string::npos || dot == 0 ? name : name.substr(0, dot);
  std::string extension = dot == std::string::npos || dot == 0 ? "" : name.substr(dot);
  std::string folder;
  if (options.haveOutputDir) {
    folder = options.outputDir;
  } else {
    size_t slash = input.find_last_of('/');
    folder = slash == std::string::npos ? "" : input.substr(0, slash);
  }
  if (!folder.empty() && folder.back() != '/') folder += '/';
  return folder + stem + options.suffix + extension;
}

double secondsNow() {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

void report(const std::string& file, const std::string& problem) {
  progressClear();
  fprintf(stderr, "mendaris: %s: %s\n", file.c_str(), problem.c_str());
}

enum class FileResult { done, failed, interrupted };

FileResult processFile(FilterSession& session, const Options& options, const std::string& input,
                       const std::string& output, const std::string& label) {
  std::string problem;
  if (sameFile(input, output)) {
    report(output, "is the input file; the tool never writes over its input");
    return FileResult::failed;
  }
  if (!options.mask.empty() && sameFile(options.mask, output)) {
    report(output, "is the selection file; the tool never writes over its input");
    return FileResult::failed;
  }
  if (!checkOutput(output, problem)) {
    report(output, problem);
    return FileResult::failed;
  }

  double start = secondsNow();
  progressBegin(label);
  progressShow("reading", 0.0);
  LayerSource source;
  source.keepAlpha = options.keepAlpha;
  IoResult read = readLayer(input, session.document, source, problem);
  if (read == IoResult::interrupted) return FileResult::interrupted;
  if (read == IoResult::failed) {
    report(input, problem);
    return FileResult::failed;
  }
  session.document.mask.clear();
  if (!options.mask.empty()) {
    IoResult selection = readSelection(options.mask, session.document.width, session.document.height,
                                       session.document.mask, problem);
    if (selection == IoResult::interrupted) return FileResult::interrupted;
    if (selection == IoResult::failed) {
      report(options.mask, problem);
      return FileResult::failed;
    }
  }

  progressShow("filtering", 0.0);
  std::vector<uint8_t> alpha = options.keepAlpha ? copyAlpha(session.document) : std::vector<uint8_t>();
  standin::RunOutcome outcome = filterDocument(session);
  if (interrupted()) return FileResult::interrupted;
  if (outcome.startResult == kRefused) {
    report(input, kRefusalText);
    return FileResult::failed;
  }
  if (outcome.result == kUserCancelled) {
    report(input, "the filter was cancelled");
    return FileResult::failed;
  }
  if (outcome.result != 0) {
    report(input, describeResult(outcome.result));
    return FileResult::failed;
  }
  // A cancel holds in the plug-in for as long as it stays loaded: later runs
  // read the layer and write none of it back. Say so rather than write the
  // layer out unchanged.
  if (renderedTiles(outcome) < expectedTiles(session.document)) {
    report(input, "the filter wrote nothing back: it was cancelled earlier in this process; nothing written");
    return FileResult::failed;
  }

  restoreAlpha(session.document, alpha);
  progressShow("writing", 0.0);
  IoResult written = writeLayer(output, session.document, source, problem, options.compression);
  if (written == IoResult::interrupted) return FileResult::interrupted;
  if (written == IoResult::failed) {
    report(output, problem);
    return FileResult::failed;
  }
  if (progressShown()) {
    progressClear();
    fprintf(stderr, "mendaris: %s -> %s (%.1f s)\n", input.c_str(), output.c_str(), secondsNow() - start);
  }
  return FileResult::done;
}

// Several files at once, each in a worker process (cli/batch.h).
int runInWorkers(FilterSession& session, const Options& options, int jobs) {
  std::vector<BatchFile> files;
  std::set<std::string> outputsTaken;
  int failures = 0;
  for (const std::string& input : options.inputs) {
    std::string output = batchOutputName(options, input);
    if (!outputsTaken.insert(output).second) {
      report(input, "its output " + output + " is already the output of an earlier file");
      ++failures;
      continue;
    }
    files.push_back(BatchFile{input, output});
  }
  auto runOne = [&](const BatchFile& file) {
    FileResult result;
    try {
      result = processFile(session, options, file.input, file.output, baseName(file.input));
    } catch (const std::bad_alloc&) {
      report(file.input, "not enough memory");
      result = FileResult::failed;
    }
    if (result == FileResult::interrupted) report(file.input, "stopped; " + file.output + " was not written");
    return result == FileResult::done ? 0 : result == FileResult::failed ? 1 : interruptStatus();
  };
  BatchResult result = runBatch(files, runOne, jobs);
  if (result.stopped || interrupted()) {
    fprintf(stderr, "mendaris: stopped\n");
    return interrupted() ? interruptStatus() : 130;
  }
  return failures + result.failures == 0 ? 0 : 1;
}

int runTool(int argc, char** argv) {
  Options options;
  int parsed = parseArguments(argc, argv, options);
  if (parsed >= 0) return parsed;
  if (options.help) {
    fputs(kUsage, stdout);
    printf("\nThe plug-in module is looked for at:\n");
    for (const std::string& place : moduleSearchPath()) printf("  %s\n", place.c_str());
    printf("\nThe image library's module (for files other than plain PNG) at:\n");
    for (const std::string& place : imageLibrarySearchPath()) printf("  %s\n", place.c_str());
    return 0;
  }
  if (options.version) {
    printf("mendaris %s (Mendaris K filter)\n", kVersion);
    return 0;
  }

  progressSetUp(options.quiet);
  installInterruptHandlers();
  FilterSession session;
  std::string modulePath = options.module.empty() ? defaultModule() : options.module;
  std::string problem;
  if (!openFilter(session, modulePath, problem)) {
    fprintf(stderr, "mendaris: %s: cannot load the plug-in: %s\n", modulePath.c_str(), problem.c_str());
    return 1;
  }
  if (options.about) {
    aboutFilter(session);
    // The box's own words, as its dialog shows them.
    printf("Mendaris K\nFills in transparent areas\nTawny Quince\n");
    return 0;
  }

  if (options.haveOutputDir) {
    struct stat info;
    if (stat(options.outputDir.c_str(), &info) != 0) {
      if (mkdir(options.outputDir.c_str(), 0777) != 0) {
        fprintf(stderr, "mendaris: %s: cannot make the folder: %s\n", options.outputDir.c_str(), strerror(errno));
        return 1;
      }
    } else if (!S_ISDIR(info.st_mode)) {
      fprintf(stderr, "mendaris: %s: is not a folder\n", options.outputDir.c_str());
      return 1;
    }
  }

  int failures = 0;
  bool stopReported = false;
  std::set<std::string> outputsTaken;
  size_t count = options.inputs.size();
  int jobs = options.jobs > 0 ? options.jobs : defaultJobs();
  if (jobs > 1 && count > 1) return runInWorkers(session, options, jobs);
  for (size_t i = 0; i < count && !interrupted(); ++i) {
    const std::string& input = options.inputs[i];
    std::string output = options.output.empty() ? batchOutputName(options, input) : options.output;
    if (!outputsTaken.insert(output).second) {
      report(input, "its output " + output + " is already the output of an earlier file");
      ++failures;
      continue;
    }
    // The progress line names the file by its last part; messages give the whole path.
    std::string label = baseName(input);
    if (count > 1) label = "[" + std::to_string(i + 1) + "/" + std::to_string(count) + "] " + label;
    FileResult result;
    try {
      result = processFile(session, options, input, output, label);
    } catch (const std::bad_alloc&) {
      report(input, "not enough memory");
      result = FileResult::failed;
    }
    if (result == FileResult::interrupted) {
      report(input, "stopped; " + output + " was not written");
      stopReported = true;
      break;
    }
    if (result == FileResult::failed) ++failures;
  }
  progressClear();
  if (interrupted()) {
    if (!stopReported) fprintf(stderr, "mendaris: stopped\n");
    return interruptStatus();
  }
  return failures == 0 ? 0 : 1;
}

}  // namespace
}  // namespace mendaris_cli

int main(int argc, char** argv) { return mendaris_cli::runTool(argc, argv); }

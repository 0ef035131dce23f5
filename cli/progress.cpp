#include "cli/progress.h"

#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>

#include "cli/interrupt.h"

namespace mendaris_cli {

namespace {

int lineFd = -1;           // the terminal, or -1 when no line is drawn
bool lineDrawn = false;    // something stands on the line now
std::string label;
std::string shownStage;
int shownPermille = -1;

int terminalWidth() {
  struct winsize size;
  if (ioctl(lineFd, TIOCGWINSZ, &size) == 0 && size.ws_col >= 20) return size.ws_col;
  return 80;
}

void writeAll(const std::string& text) {
  const char* p = text.data();
  size_t left = text.size();
  while (left > 0) {
    ssize_t n = write(lineFd, p, left);
    if (n <= 0) return;  // a terminal gone away is not worth a failure
    p += n;
    left -= size_t(n);
  }
}

}  // namespace

void progressSetUp(bool quiet) {
  if (lineFd >= 0) close(lineFd);  // set up again, as in a worker process
  lineFd = !quiet && isatty(STDERR_FILENO) ? dup(STDERR_FILENO) : -1;
  lineDrawn = false;
}

bool progressShown() { return lineFd >= 0; }

void progressBegin(const std::string& text) {
  progressClear();
  label = text;
  shownStage.clear();
  shownPermille = -1;
}

void progressShow(const char* stage, double fraction) {
  if (lineFd < 0) return;
  if (!(fraction >= 0.0)) fraction = 0.0;  // NaN too
  if (fraction > 1.0) fraction = 1.0;
  int permille = int(fraction * 1000.0);
  if (stage == shownStage && permille / 5 == shownPermille / 5) return;
  shownStage = stage;
  shownPermille = permille;

  // Never the last column: some terminals wrap there.
  int width = terminalWidth() - 1;
  char tail[64];
  snprintf(tail, sizeof(tail), " %-9s %3d%%", stage, permille / 10);
  int tailLength = int(strlen(tail));
  // The bar gives way first on a narrow terminal, keeping 16 columns for the name.
  int barWidth = std::min(30, std::max(0, width - tailLength - 3 - 16));
  int nameRoom = std::max(4, width - tailLength - (barWidth > 0 ? barWidth + 3 : 1));
  std::string name = label;
  if (int(name.size()) > nameRoom) name = "..." + name.substr(name.size() - size_t(nameRoom - 3));
  std::string line = "\r" + name + " ";
  if (barWidth > 0) {
    int filled = int(fraction * barWidth);
    line += "[" + std::string(size_t(filled), '#') + std::string(size_t(barWidth - filled), '.') + "]";
  }
  line += tail;
  line += "\x1b[K";  // wipe what a longer earlier line left
  writeAll(line);
  lineDrawn = true;
}

void progressClear() {
  if (lineFd < 0 || !lineDrawn) return;
  writeAll("\r\x1b[K");
  lineDrawn = false;
  shownStage.clear();
  shownPermille = -1;
}

bool imageProgress(void* opaque, float done) {
  progressShow(static_cast<const char*>(opaque), double(done));
  return interrupted();
}

}  // namespace mendaris_cli

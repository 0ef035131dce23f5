// Ctrl-C and its kin. A signal only raises a flag; the tool polls it between
// steps, in OpenImageIO's progress callbacks and in the host's abortProc, and
// stops cleanly with no output file. A second signal leaves at once, after
// removing the half-written file, should the first not be heard soon enough.
#pragma once

#include <signal.h>

#include <string>

namespace mendaris_cli {

// 0, or the number of the first stopping signal received.
extern volatile sig_atomic_t interruptSignal;

// Catches SIGINT, SIGTERM and SIGHUP.
void installInterruptHandlers();
bool interrupted();
// The exit status for the signal received: 128 + its number (130 for SIGINT).
int interruptStatus();

// The file being written, removed by a second signal before the process
// leaves; empty the name again once the file is complete or gone.
void setPendingFile(const std::string& path);
void clearPendingFile();

}  // namespace mendaris_cli

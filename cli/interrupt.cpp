#include "cli/interrupt.h"

#include <string.h>
#include <unistd.h>

namespace mendaris_cli {

volatile sig_atomic_t interruptSignal = 0;

namespace {

// Written only outside the handler, and only while pendingSet is 0, so the
// handler never sees a name half copied.
char pendingName[4096];
volatile sig_atomic_t pendingSet = 0;

void onStopSignal(int signal) {
  if (interruptSignal != 0) {
    // Asked twice: the first request is still on its way through a long step.
    if (pendingSet != 0) unlink(pendingName);
    _exit(128 + interruptSignal);
  }
  interruptSignal = signal;
}

}  // namespace

void installInterruptHandlers() {
  struct sigaction action;
  memset(&action, 0, sizeof(action));
  action.sa_handler = onStopSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  const int signals[] = {SIGINT, SIGTERM, SIGHUP};
  for (int s : signals) sigaction(s, &action, nullptr);
}

bool interrupted() { return interruptSignal != 0; }

int interruptStatus() { return 128 + int(interruptSignal); }

void setPendingFile(const std::string& path) {
  pendingSet = 0;
  size_t n = path.size() < sizeof(pendingName) - 1 ? path.size() : sizeof(pendingName) - 1;
  memcpy(pendingName, path.data(), n);
  pendingName[n] = '\0';
  pendingSet = n == path.size() ? 1 : 0;
}

void clearPendingFile() { pendingSet = 0; }

}  // namespace mendaris_cli

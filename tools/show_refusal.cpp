// Calls showRefusal the way Start does, with the module's resources linked
// into this program: a Windows console program, run under Wine by
// tests/scripts/wine_about_box.sh together with the module's dialog code
// (platform/dialogs_win32.cpp, host/dialog_layout.cpp) and its resource script.
//
//   show_refusal.exe NAME TITLE [PICTURE.png]   the dialog NAME must open with that
//                                               caption; it is checked and closed
//   show_refusal.exe NAME -                     no dialog may open, and the call
//                                               must return at once
//
// Exit status 0 when it went as expected; 1 bad arguments, 3 no dialog
// appeared, 4 a check failed, 5 a dialog appeared or the call did not return
// at once where none was expected.
#include <windows.h>

#include <cstdio>
#include <cstring>

#include "platform/dialogs.h"
#include "platform/platform.h"
#include "tools/dialog_watch.h"

// Here the resources are this program's own.
void* platformModuleHandle() { return GetModuleHandleA(nullptr); }

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: show_refusal NAME TITLE|- [PICTURE.png]\n");
    return 1;
  }
  const char* name = argv[1];
  bool expectNone = std::strcmp(argv[2], "-") == 0;

  DialogWatch watch;
  // Where none is expected, any dialog at all is a fault.
  watch.title = expectNone ? "" : argv[2];
  if (argc > 3) watch.shotPath = argv[3];
  watch.waitMilliseconds = expectNone ? 3000 : 15000;
  HANDLE watcher = startDialogWatch(&watch);

  DWORD start = GetTickCount();
  showRefusal(name);
  DWORD elapsed = GetTickCount() - start;
  if (expectNone) Sleep(500);  // a box that would open late still gets seen
  finishDialogWatch(&watch, watcher);

  std::printf("%s", watch.report.c_str());
  std::printf("showRefusal(\"%s\") returned after %lu ms\n", name, elapsed);
  if (expectNone) {
    bool ok = !watch.found && elapsed < 2000;
    std::printf(ok ? "no dialog, as expected\n" : "FAIL: expected no dialog and an immediate return\n");
    return ok ? 0 : 5;
  }
  if (!watch.found) {
    std::printf("FAIL: no dialog \"%s\" appeared\n", watch.title.c_str());
    return 3;
  }
  bool ok = watch.placedAsDesigned && (watch.shotPath.empty() || watch.shotWritten);
  if (!watch.placedAsDesigned) std::printf("FAIL: the dialog is not where it should stand\n");
  std::printf(ok ? "dialog opened, checked and closed\n" : "dialog opened and closed, with faults\n");
  return ok ? 0 : 4;
}

// Opens a filter module's About box the way a host does, checks it, and
// closes it again: a Windows console program, run under Wine by
// tests/scripts/wine_about_box.sh.
//
//   show_about.exe MODULE.8bf [PICTURE.png]
//
// It loads the module, calls PluginMain(0, &aboutRecord, &data, &result) on
// the main thread, and meanwhile a watcher thread waits for the box, checks
// that it stands where it should, that its background is white and that the
// title image is drawn, writes a picture of it, and presses its button 1.
// Exit status 0 when the box opened, passed the checks and closed; 1 bad
// arguments, 2 the module or its entry did not load, 3 no box appeared,
// 4 a check failed.
#include <windows.h>

#include <cstdio>
#include <cstring>

#include "plugin_api/plugin_api.h"
#include "tools/dialog_watch.h"

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: show_about MODULE.8bf [PICTURE.png]\n");
    return 1;
  }
  HMODULE module = LoadLibraryA(argv[1]);
  if (!module) {
    std::fprintf(stderr, "cannot load %s (error %lu)\n", argv[1], GetLastError());
    return 2;
  }
  FARPROC found = GetProcAddress(module, "PluginMain");
  PluginMainProc entry = reinterpret_cast<PluginMainProc>(reinterpret_cast<void*>(found));
  if (!entry) {
    std::fprintf(stderr, "%s exports no PluginMain\n", argv[1]);
    return 2;
  }

  DialogWatch watch;
  watch.title = "About";
  watch.imageItem = 223;
  if (argc > 2) watch.shotPath = argv[2];
  HANDLE watcher = startDialogWatch(&watch);

  AboutRecord about;
  std::memset(&about, 0, sizeof about);
  intptr_t data = 0;
  int16_t result = noErr;  // hosts clear it; the module writes it only on a failure
  DWORD start = GetTickCount();
  entry(filterSelectorAbout, &about, &data, &result);
  DWORD elapsed = GetTickCount() - start;
  finishDialogWatch(&watch, watcher);

  std::printf("%s", watch.report.c_str());
  std::printf("PluginMain returned after %lu ms with result %d\n", elapsed, int(result));
  if (!watch.found) {
    std::printf("FAIL: no About box appeared\n");
    return 3;
  }
  bool ok = true;
  if (result != noErr) {
    std::printf("FAIL: result %d\n", int(result));
    ok = false;
  }
  if (!watch.placedAsDesigned) {
    std::printf("FAIL: the box is not where it should stand\n");
    ok = false;
  }
  if (!watch.whiteBackground) {
    std::printf("FAIL: the background is not white\n");
    ok = false;
  }
  if (watch.imageArea == 0 || watch.imagePixels * 2 < watch.imageArea) {
    std::printf("FAIL: the title image is not drawn over its placeholder\n");
    ok = false;
  }
  if (!watch.shotPath.empty() && !watch.shotWritten) {
    std::printf("FAIL: no picture written\n");
    ok = false;
  }
  FreeLibrary(module);
  std::printf(ok ? "About box opened, checked and closed\n" : "About box opened and closed, with faults\n");
  return ok ? 0 : 4;
}

// Shared by the Windows dialog harnesses (show_about.cpp, show_refusal.cpp):
// a watcher thread that waits for a modal dialog of this process to appear,
// checks where it stands and what it shows, saves a picture of it as a PNG,
// and closes it by posting the command of control 1, as a click on the
// default button would. Windows only; built by tests/scripts/wine_about_box.sh.
#pragma once

#include <windows.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "host/dialog_layout.h"

struct DialogWatch {
  // Set by the caller.
  std::string title;     // the caption to wait for; empty: any dialog
  std::string shotPath;  // where to write the picture; empty for none
  int imageItem = 0;     // a control over which a picture is drawn (0: none)
  DWORD waitMilliseconds = 15000;
  volatile LONG stop = 0;  // set by the caller when the call under test has returned

  // Filled in by the watcher.
  bool found = false;
  bool placedAsDesigned = false;
  bool whiteBackground = false;
  int imagePixels = 0;  // pixels of the quince colour over imageItem
  int imageArea = 0;
  bool shotWritten = false;
  std::string report;
};

namespace dialog_watch {

inline void put32be(std::vector<uint8_t>& out, uint32_t v) {
  out.push_back(uint8_t(v >> 24));
  out.push_back(uint8_t(v >> 16));
  out.push_back(uint8_t(v >> 8));
  out.push_back(uint8_t(v));
}

inline uint32_t crc32(const uint8_t* data, size_t size, uint32_t crc = 0) {
  crc = ~crc;
  for (size_t i = 0; i < size; ++i) {
    crc ^= data[i];
    for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  return ~crc;
}

inline void chunk(std::vector<uint8_t>& png, const char* type, const std::vector<uint8_t>& data) {
  put32be(png, uint32_t(data.size()));
  std::vector<uint8_t> body(type, type + 4);
  body.insert(body.end(), data.begin(), data.end());
  png.insert(png.end(), body.begin(), body.end());
  put32be(png, crc32(body.data(), body.size()));
}

// An RGB PNG with stored (uncompressed) deflate blocks: no library needed,
// and a screenshot of a dialog is small enough for it.
inline bool writePng(const std::string& path, int width, int height, const std::vector<uint8_t>& rgb) {
  std::vector<uint8_t> raw;
  for (int y = 0; y < height; ++y) {
    raw.push_back(0);  // no row filter
    raw.insert(raw.end(), rgb.begin() + size_t(y) * size_t(width) * 3,
               rgb.begin() + size_t(y + 1) * size_t(width) * 3);
  }
  std::vector<uint8_t> z = {0x78, 0x01};
  size_t at = 0;
  do {
    size_t n = raw.size() - at < 65535 ? raw.size() - at : 65535;
    z.push_back(at + n == raw.size() ? 1 : 0);
    z.push_back(uint8_t(n));
    z.push_back(uint8_t(n >> 8));
    z.push_back(uint8_t(~n));
    z.push_back(uint8_t(~n >> 8));
    z.insert(z.end(), raw.begin() + long(at), raw.begin() + long(at + n));
    at += n;
  } while (at < raw.size());
  uint32_t a = 1, b = 0;
  for (uint8_t byte : raw) {
    a = (a + byte) % 65521;
    b = (b + a) % 65521;
  }
  put32be(z, (b << 16) | a);

  std::vector<uint8_t> png = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
  std::vector<uint8_t> header;
  put32be(header, uint32_t(width));
  put32be(header, uint32_t(height));
  header.insert(header.end(), {8, 2, 0, 0, 0});  // 8 bits, RGB
  chunk(png, "IHDR", header);
  chunk(png, "IDAT", z);
  chunk(png, "IEND", {});
  FILE* file = std::fopen(path.c_str(), "wb");
  if (!file) return false;
  bool ok = std::fwrite(png.data(), 1, png.size(), file) == png.size();
  return std::fclose(file) == 0 && ok;
}

// The screen's pixels under a rectangle, as RGB rows from the top.
inline std::vector<uint8_t> grabScreen(const RECT& r) {
  int width = r.right - r.left, height = r.bottom - r.top;
  std::vector<uint8_t> rgb(size_t(width) * size_t(height) * 3, 0);
  HDC screen = GetDC(nullptr);
  HDC memory = CreateCompatibleDC(screen);
  HBITMAP bitmap = CreateCompatibleBitmap(screen, width, height);
  HGDIOBJ previous = SelectObject(memory, bitmap);
  BitBlt(memory, 0, 0, width, height, screen, r.left, r.top, SRCCOPY);
  SelectObject(memory, previous);
  BITMAPINFO info = {};
  info.bmiHeader.biSize = sizeof info.bmiHeader;
  info.bmiHeader.biWidth = width;
  info.bmiHeader.biHeight = -height;  // top row first
  info.bmiHeader.biPlanes = 1;
  info.bmiHeader.biBitCount = 32;
  info.bmiHeader.biCompression = BI_RGB;
  std::vector<uint8_t> bgra(size_t(width) * size_t(height) * 4);
  GetDIBits(memory, bitmap, 0, UINT(height), bgra.data(), &info, DIB_RGB_COLORS);
  for (size_t i = 0; i < size_t(width) * size_t(height); ++i) {
    rgb[i * 3 + 0] = bgra[i * 4 + 2];
    rgb[i * 3 + 1] = bgra[i * 4 + 1];
    rgb[i * 3 + 2] = bgra[i * 4 + 0];
  }
  DeleteObject(bitmap);
  DeleteDC(memory);
  ReleaseDC(nullptr, screen);
  return rgb;
}

struct DialogSearch {
  const std::string* title;
  HWND found;
};

inline BOOL CALLBACK matchDialog(HWND window, LPARAM argument) {
  DialogSearch* search = reinterpret_cast<DialogSearch*>(argument);
  DWORD process = 0;
  GetWindowThreadProcessId(window, &process);
  char className[64] = {}, caption[256] = {};
  GetClassNameA(window, className, sizeof className);
  GetWindowTextA(window, caption, sizeof caption);
  if (process != GetCurrentProcessId() || std::strcmp(className, "#32770") != 0) return TRUE;
  if (!search->title->empty() && *search->title != caption) return TRUE;
  search->found = window;
  return FALSE;
}

// A dialog of this process with that caption, or with any caption when the
// title is empty.
inline HWND findDialog(const std::string& title) {
  DialogSearch search = {&title, nullptr};
  EnumWindows(matchDialog, reinterpret_cast<LPARAM>(&search));
  return search.found;
}

inline void append(DialogWatch* watch, const char* format, long a = 0, long b = 0, long c = 0, long d = 0) {
  char line[256];
  std::snprintf(line, sizeof line, format, a, b, c, d);
  watch->report += line;
}

inline void inspect(DialogWatch* watch, HWND dialog) {
  RECT windowRect;
  GetWindowRect(dialog, &windowRect);
  int width = windowRect.right - windowRect.left, height = windowRect.bottom - windowRect.top;
  append(watch, "dialog at %ld, %ld, size %ld x %ld\n", windowRect.left, windowRect.top, width, height);

  // No parent: the desktop's client area is the whole screen.
  int screenWidth = GetSystemMetrics(SM_CXSCREEN), screenHeight = GetSystemMetrics(SM_CYSCREEN);
  bool systemMenu = (GetWindowLongA(dialog, GWL_STYLE) & WS_SYSMENU) != 0;
  DialogPosition want = placeDialog(0, 0, screenWidth, screenHeight, width, height, screenWidth, screenHeight,
                                    GetSystemMetrics(SM_CXSIZE), systemMenu);
  watch->placedAsDesigned = windowRect.left == want.x && windowRect.top == want.y;
  append(watch, "expected at %ld, %ld on a %ld x %ld screen\n", want.x, want.y, screenWidth, screenHeight);

  std::vector<uint8_t> rgb = grabScreen(windowRect);
  auto pixel = [&](int x, int y) { return &rgb[(size_t(y) * size_t(width) + size_t(x)) * 3]; };

  // The client area's top-left corner, a few pixels in.
  POINT client = {4, 4};
  ClientToScreen(dialog, &client);
  const uint8_t* corner = pixel(client.x - windowRect.left, client.y - windowRect.top);
  watch->whiteBackground = corner[0] == 255 && corner[1] == 255 && corner[2] == 255;
  append(watch, "client corner colour %ld, %ld, %ld\n", corner[0], corner[1], corner[2]);

  HWND item = watch->imageItem ? GetDlgItem(dialog, watch->imageItem) : nullptr;
  if (item) {
    RECT r;
    GetWindowRect(item, &r);
    for (int y = r.top; y < r.bottom; ++y)
      for (int x = r.left; x < r.right; ++x) {
        if (x < windowRect.left || y < windowRect.top || x >= windowRect.right || y >= windowRect.bottom) continue;
        const uint8_t* p = pixel(x - windowRect.left, y - windowRect.top);
        ++watch->imageArea;
        // Quince yellow: strong red, middling green, little blue.
        if (p[0] > 200 && p[1] > 140 && p[1] < 240 && p[2] < 160) ++watch->imagePixels;
      }
    append(watch, "image item %ld: %ld of %ld pixels in the title colour\n", watch->imageItem, watch->imagePixels,
           watch->imageArea);
  }
  if (!watch->shotPath.empty()) {
    watch->shotWritten = writePng(watch->shotPath, width, height, rgb);
    watch->report += (watch->shotWritten ? "picture written to " : "could not write ") + watch->shotPath + "\n";
  }
}

inline DWORD WINAPI watchThread(void* argument) {
  DialogWatch* watch = static_cast<DialogWatch*>(argument);
  DWORD start = GetTickCount();
  while (!watch->stop && GetTickCount() - start < watch->waitMilliseconds) {
    HWND dialog = findDialog(watch->title);
    if (dialog && IsWindowVisible(dialog)) {
      watch->found = true;
      Sleep(1500);  // let it paint
      inspect(watch, dialog);
      PostMessageA(dialog, WM_COMMAND, MAKEWPARAM(IDOK, 0), 0);
      return 0;
    }
    Sleep(50);
  }
  return 0;
}

}  // namespace dialog_watch

inline HANDLE startDialogWatch(DialogWatch* watch) {
  return CreateThread(nullptr, 0, dialog_watch::watchThread, watch, 0, nullptr);
}

inline void finishDialogWatch(DialogWatch* watch, HANDLE thread) {
  InterlockedExchange(&watch->stop, 1);
  WaitForSingleObject(thread, INFINITE);
  CloseHandle(thread);
}

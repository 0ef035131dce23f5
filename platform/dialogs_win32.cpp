// The About box and the refusal messages on Windows: modal dialogs from the
// module's own resources, with no parent window, run inside the activation
// context of the module's manifest so that the common controls of version 6
// draw them.
#include <windows.h>
#include <shellapi.h>

#include "host/dialog_layout.h"
#include "platform/dialogs.h"
#include "platform/platform.h"
#include "plugin_api/plugin_api.h"

bool aboutBoxUp = false;
// The open About box, kept for inspection; nothing reads it.
HWND aboutWindow = nullptr;

namespace {

// The manifest the dialogs run under: 1 and 2 are the ids the system itself
// reads in programs and libraries, 123 is ours to activate.
const int kDialogManifestId = 123;

const int kAboutTitleItem = 223;
const int kAboutTitleBitmap = 270;
const int kAboutTitleBitmapDouble = 271;
const int kAboutWebsiteButton = 5;
const int kRefusalCancelButton = 1;

// The build's MENDARIS_MAKER_PAGE setting (CMakeLists.txt).
const char kMakerPage[] = MENDARIS_MAKER_PAGE;

HANDLE dialogContext = INVALID_HANDLE_VALUE;
bool dialogContextTaken = false;

// Made once, on the first dialog; a failure is not retried, and the dialogs
// then run in whatever context the host has active.
HANDLE moduleActivationContext() {
  if (dialogContextTaken) return dialogContext;
  dialogContextTaken = true;
  HMODULE module = static_cast<HMODULE>(platformModuleHandle());
  char path[MAX_PATH];
  DWORD length = GetModuleFileNameA(module, path, MAX_PATH);
  if (length == 0 || length >= MAX_PATH) return dialogContext;
  ACTCTXA request = {};
  request.cbSize = sizeof request;
  request.dwFlags = ACTCTX_FLAG_HMODULE_VALID | ACTCTX_FLAG_RESOURCE_NAME_VALID;
  request.lpSource = path;
  request.hModule = module;
  request.lpResourceName = MAKEINTRESOURCEA(kDialogManifestId);
  dialogContext = CreateActCtxA(&request);
  return dialogContext;
}

void runDialog(const char* name, DLGPROC procedure) {
  HANDLE context = moduleActivationContext();
  ULONG_PTR cookie = 0;
  bool active = context != INVALID_HANDLE_VALUE && ActivateActCtx(context, &cookie);
  // A dialog that cannot be made (a missing resource among them) returns -1
  // at once, without a message; the result is of no use to the caller.
  DialogBoxParamA(static_cast<HINSTANCE>(platformModuleHandle()), name, nullptr, procedure, 0);
  if (active) DeactivateActCtx(0, cookie);
}

void centreDialog(HWND window) {
  HWND parent = GetParent(window);
  if (!parent) parent = GetDesktopWindow();
  RECT parentRect;
  GetClientRect(parent, &parentRect);
  POINT parentOrigin = {parentRect.left, parentRect.top};
  ClientToScreen(parent, &parentOrigin);
  OffsetRect(&parentRect, parentOrigin.x - parentRect.left, parentOrigin.y - parentRect.top);

  int titleButtonWidth = GetSystemMetrics(SM_CXSIZE);
  bool hasSystemMenu = (GetWindowLongA(window, GWL_STYLE) & WS_SYSMENU) != 0;
  RECT own;
  GetWindowRect(window, &own);
  DialogPosition position =
      placeDialog(parentRect.left, parentRect.top, parentRect.right, parentRect.bottom, own.right - own.left,
                  own.bottom - own.top, GetSystemMetrics(SM_CXSCREEN), GetSystemMetrics(SM_CYSCREEN),
                  titleButtonWidth, hasSystemMenu);
  SetWindowPos(window, nullptr, position.x, position.y, 0, 0, SWP_NOSIZE | SWP_NOZORDER);
}

// Draws bitmapA or bitmapB (whichever is nearer in width) stretched over the
// rectangle of the control `item`, which only marks the place.
void drawDialogImage(HWND window, int item, int bitmapA, int bitmapB) {
  RECT rect;
  HWND control = GetDlgItem(window, item);
  if (control && GetWindowRect(control, &rect)) {
    POINT origin = {0, 0};
    ScreenToClient(window, &origin);
    OffsetRect(&rect, origin.x, origin.y);
  } else {
    SetRect(&rect, -1, -1, -1, -1);
  }
  if (rect.left == rect.right) return;

  HINSTANCE module = static_cast<HINSTANCE>(platformModuleHandle());
  HBITMAP bitmap = LoadBitmapA(module, MAKEINTRESOURCEA(bitmapA));
  BITMAP size = {};
  if (bitmap) GetObjectA(bitmap, sizeof size, &size);
  int chosen = chooseDialogBitmap(size.bmWidth, rect.right - rect.left, bitmapA, bitmapB);
  if (chosen != bitmapA) {
    if (bitmap) DeleteObject(bitmap);
    bitmap = LoadBitmapA(module, MAKEINTRESOURCEA(chosen));
    size = BITMAP{};
    if (bitmap) GetObjectA(bitmap, sizeof size, &size);
  }
  if (!bitmap) return;

  // The window's context is not given back here: the system reclaims a
  // window's contexts when the dialog is destroyed, and the box paints only a
  // handful of times while it is up.
  HDC target = GetDC(window);
  HDC source = CreateCompatibleDC(target);
  HGDIOBJ previousBitmap = SelectObject(source, bitmap);
  int previousMode = SetStretchBltMode(target, COLORONCOLOR);
  StretchBlt(target, rect.left, rect.top, rect.right - rect.left, rect.bottom - rect.top, source, 0, 0,
             size.bmWidth, size.bmHeight, SRCCOPY);
  SetStretchBltMode(target, previousMode);
  SelectObject(source, previousBitmap);
  DeleteDC(source);
  DeleteObject(bitmap);
}

void paintAboutTitle(HWND window) {
  PAINTSTRUCT paint;
  BeginPaint(window, &paint);
  drawDialogImage(window, kAboutTitleItem, kAboutTitleBitmap, kAboutTitleBitmapDouble);
  EndPaint(window, &paint);
}

// The shell's answer is dropped: there is nothing better to offer than the link.
void openMakerPage() { ShellExecuteA(nullptr, "open", kMakerPage, nullptr, nullptr, SW_SHOWNORMAL); }

PI_HOST_CALLED INT_PTR CALLBACK refusalDialogProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
  (void)lParam;
  switch (message) {
    case WM_PAINT:
      return FALSE;
    case WM_INITDIALOG:
      centreDialog(window);
      return FALSE;
    case WM_COMMAND: {
      int id = LOWORD(wParam);
      int notification = HIWORD(wParam);
      if (id == kRefusalCancelButton) {
        if (notification == 0) EndDialog(window, 1);
      } else if (notification == 0) {
        EndDialog(window, id);
      }
      return TRUE;
    }
    default:
      return FALSE;
  }
}

PI_HOST_CALLED INT_PTR CALLBACK aboutDialogProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
  (void)lParam;
  switch (message) {
    case WM_INITDIALOG:
      centreDialog(window);
      aboutWindow = window;
      aboutBoxUp = true;
      paintAboutTitle(window);
      return FALSE;
    case WM_ERASEBKGND: {
      // The whole box is white, so that the title image sits on its own colour.
      RECT rect;
      GetWindowRect(window, &rect);
      POINT origin = {0, 0};
      ClientToScreen(window, &origin);
      OffsetRect(&rect, -origin.x, -origin.y);
      FillRect(reinterpret_cast<HDC>(wParam), &rect, static_cast<HBRUSH>(GetStockObject(WHITE_BRUSH)));
      return TRUE;
    }
    case WM_PAINT:
      paintAboutTitle(window);
      return FALSE;
    case WM_CLOSE:
      EndDialog(window, 1);
      aboutBoxUp = false;
      return TRUE;
    case WM_COMMAND: {
      int id = LOWORD(wParam);
      int notification = HIWORD(wParam);
      if (id == kAboutWebsiteButton) {
        if (notification == 0) {
          openMakerPage();
          EndDialog(window, kAboutWebsiteButton);
          aboutBoxUp = false;
        }
      } else if (notification == 0) {
        EndDialog(window, id);
        aboutBoxUp = false;
      } else {
        // A notification from any other control drops the flag while the box
        // stays up; About is then no longer refused until the box is closed.
        aboutBoxUp = false;
      }
      return TRUE;
    }
    default:
      return FALSE;
  }
}

}  // namespace

void doAbout() {
  if (aboutBoxUp) return;
  runDialog("ABOUTBOX", aboutDialogProc);
}

// Where the environment names a file, the name of each refusal dialog is also
// added to it as a line, for a host that wants to know what was asked for.
void showRefusal(const char* name) {
  char path[MAX_PATH];
  DWORD length = GetEnvironmentVariableA("MENDARIS_DIALOG_LOG", path, MAX_PATH);
  if (length > 0 && length < MAX_PATH) {
    HANDLE file = CreateFileA(path, FILE_APPEND_DATA, FILE_SHARE_READ, nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file != INVALID_HANDLE_VALUE) {
      DWORD written = 0;
      WriteFile(file, name, DWORD(strlen(name)), &written, nullptr);
      WriteFile(file, "\n", 1, &written, nullptr);
      CloseHandle(file);
    }
  }
  runDialog(name, refusalDialogProc);
}

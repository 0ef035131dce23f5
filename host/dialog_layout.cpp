#include "host/dialog_layout.h"

int chooseDialogBitmap(int bitmapAWidth, int rectWidth, int bitmapA, int bitmapB) {
  if (bitmapB < 1 || bitmapB == bitmapA) return bitmapA;
  // Ratios of image width to rectangle width, each turned to be at least 1, so
  // that the smaller one says which image needs the lesser stretch. Single
  // precision, so that near-ties fall the same way everywhere.
  float w = float(bitmapAWidth);
  float r = float(rectWidth);
  float a = w / r;
  float b = 2.0f * w / r;
  if (a < 1.0f) a = 1.0f / a;
  if (b < 1.0f) b = 1.0f / b;
  return b > a ? bitmapA : bitmapB;
}

DialogPosition placeDialog(int parentLeft, int parentTop, int parentRight, int parentBottom, int width,
                           int height, int screenWidth, int screenHeight, int titleButtonWidth,
                           bool hasSystemMenu) {
  int m = titleButtonWidth;
  // Without a system menu the caption has one button fewer to balance.
  if (!hasSystemMenu) m = m + m / -3;

  int spareX = parentRight - parentLeft - width;
  if (spareX < 0) spareX = 0;
  int x = spareX / 2 - m + parentLeft;
  if (x + width > screenWidth) {
    x = screenWidth - width;
    if (x < 0) x = 0;
  }

  // A third of the way down: the eye reads the upper part of a window first.
  int spareY = parentBottom - parentTop - height;
  if (spareY < 0) spareY = 0;
  int y = spareY / 3 + parentTop;
  if (y + height > screenHeight) {
    y = screenHeight - height;
    if (y < 0) y = 0;
  }
  return {x, y};
}

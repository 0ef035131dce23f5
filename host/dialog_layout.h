// The arithmetic of the dialogs, kept apart from the window system so that it
// can be checked on any platform: which title bitmap suits the placeholder's
// width, and where a dialog is placed over its parent.
#pragma once

// Picks bitmapA or bitmapB for a rectangle rectWidth pixels wide. bitmapB is
// taken to be twice as wide as bitmapA (whose width is bitmapAWidth), and the
// one nearer in width to the rectangle wins; a tie goes to bitmapB. With no
// usable bitmapB (below 1, or the same as bitmapA) the answer is bitmapA.
// The caller draws nothing for a rectangle of width 0, so rectWidth is never 0.
int chooseDialogBitmap(int bitmapAWidth, int rectWidth, int bitmapA, int bitmapB);

struct DialogPosition {
  int x;
  int y;
};

// Where a dialog of the given size goes over its parent's client rectangle
// (in screen coordinates): centred across, a third of the way down, shifted
// left by the width of a title-bar button (two thirds of it without a system
// menu), and kept on a screen of the given size where it fits.
DialogPosition placeDialog(int parentLeft, int parentTop, int parentRight, int parentBottom, int width,
                           int height, int screenWidth, int screenHeight, int titleButtonWidth,
                           bool hasSystemMenu);

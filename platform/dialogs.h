// The two kinds of window the filter shows: the About box and a refusal
// message. Both are modal dialogs from the module's resources. On a platform
// without a window system they return at once.
#pragma once

// True while the About box is open.
extern bool aboutBoxUp;

// Opens the About box unless it is already up; returns when it is closed.
void doAbout();
// Opens the dialog resource of that name and returns when it is closed. A
// missing resource fails silently and the call returns at once.
void showRefusal(const char* name);

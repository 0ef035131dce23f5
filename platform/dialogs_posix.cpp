// Without a window system there is nothing to show: both calls return at once,
// and the About box is never up.
#include "platform/dialogs.h"

bool aboutBoxUp = false;

void doAbout() {}

void showRefusal(const char* name) { (void)name; }

// Without a window system there is nothing to show: both calls return at once,
// and the About box is never up.
#include "platform/dialogs.h"

#include <stdio.h>
#include <stdlib.h>

bool aboutBoxUp = false;

void doAbout() {}

// A host may still want to know what was asked for: where the environment
// names a file, the name of each refusal dialog is added to it as a line.
void showRefusal(const char* name) {
  const char* path = getenv("MENDARIS_DIALOG_LOG");
  FILE* file = path != nullptr && path[0] != '\0' ? fopen(path, "a") : nullptr;
  if (file == nullptr) return;
  fprintf(file, "%s\n", name);
  fclose(file);
}

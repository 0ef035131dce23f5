// The progress line on a terminal: one line on stderr, redrawn in place, with
// the file, the stage (reading, filtering, writing) and a bar. Nothing at all
// is drawn when stderr is not a terminal or the user asked for quiet.
//
// The line goes to a copy of stderr taken at start-up, so that it still shows
// while stderr itself is muted around the image library's calls.
#pragma once

#include <string>

namespace mendaris_cli {

// Decides once whether a line is drawn; call before anything else here.
void progressSetUp(bool quiet);
bool progressShown();

// A new file: its label stays at the left of the line.
void progressBegin(const std::string& label);
// The stage and how far it is, 0..1; redraws only when something visible changed.
void progressShow(const char* stage, double fraction);
// Wipes the line, so that a message or the next file starts on a clean line.
void progressClear();

// OpenImageIO's progress callback: shows the stage named by `opaque` (a
// C string) and answers true (stop) once a stopping signal has come.
bool imageProgress(void* opaque, float done);

}  // namespace mendaris_cli

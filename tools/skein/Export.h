#pragma once

#include <functional>
#include <iosfwd>
#include <string>

#include "Recording.h"

// Each returns the exit status and writes one line on standard error where that is not 0.

// The JSON trace format: a slice for each command, a track for each thread, the depth of each
// queue as a counter, and every other record as an instant. "-" is standard output.
int exportPerfetto(const Recording& recording, const std::string& path);

// A picture, as SVG: a lane for each queue with a bar for each command, and how many waited. "-" is
// standard output.
int exportSvg(const Recording& recording, const std::string& path);

// A trace in the Common Trace Format in a new or empty folder: a stream for each thread, an event
// class for each site.
int exportCtf(const Recording& recording, const std::string& folder);

// Runs `write` on the file, or on standard output for "-". A regular file is replaced when all of
// it is written, so that whoever has the old one open keeps it whole.
int writeTo(const std::string& path, const std::function<void(std::ostream&)>& write);

#pragma once

#include <string>

#include "Recording.h"

// Each returns the exit status and writes one line on standard error where that is not 0.

// The JSON trace format: a slice for each command, a track for each thread, the depth of each
// queue as a counter, and every other record as an instant. "-" is standard output.
int exportPerfetto(const Recording& recording, const std::string& path);

// A trace in the Common Trace Format in a new or empty folder: a stream for each thread, an event
// class for each site.
int exportCtf(const Recording& recording, const std::string& folder);

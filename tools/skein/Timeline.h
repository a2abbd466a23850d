#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "CommandSlices.h"
#include "Recording.h"

// What a recording says of its commands, for a picture of them. Times are nanoseconds since
// 1970-01-01 UTC.
struct Timeline {
  std::vector<CommandSlice> served;         // what went to the daemon, in the order of the ends
  std::vector<CommandSlice> dropped;        // what did not; its end is when that was known
  std::map<std::string, U64> counts;        // commands by outcome
  std::vector<std::pair<U64, U64>> depths;  // since when how many were announced and not ended
  U64 beginNs = 0;
  U64 endNs = 0;
};

Timeline timelineOf(const Recording& recording);

// As in 2026-01-31 12:00:00 UTC.
std::string dateOf(U64 timeNs);

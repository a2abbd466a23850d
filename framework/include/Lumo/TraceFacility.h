#pragma once

#include <vector>

#include <Lumo/String.h>

namespace Lumo {

// A level of a facility. Levels are 0 to 9; 0 is for failures, 9 for the finest detail.
struct FacilityLevel {
  String facility;
  unsigned level;
};

// What the trace settings say about a facility, whether or not a handle for it exists. Any thread.
class TraceFacility {
 public:
  static constexpr unsigned levelCount = 10;

  // True when at least one level of the facility is on.
  static bool facilityEnabled(const String& facility);
  static bool levelEnabled(FacilityLevel facilityLevel);

  // The facilities for which a TraceHandle has been made in this process, oldest first.
  static std::vector<String> handleNames();
};

// Replaces the whole setting. Grammar: "FACILITY/LEVELS[,FACILITY/LEVELS...]" where LEVELS is `*`,
// a digit or a range `0-5`, and the facility `*` stands for all of them; the empty text turns
// everything off. The environment variable LUMO_TRACE, read once, gives the setting at start.
// A part that cannot be read is left out and the setting is reported once on stderr; the result is
// false then. Raises nothing but std::bad_alloc, with the setting as it was. Takes effect in every
// thread at its next trace point.
bool traceSettingIs(const String& setting);

// Turns one level of a facility on or off, all ten when `level` is -1. Levels outside -1..9 are
// ignored.
void traceLevelIs(const String& facility, int level, bool on);

}  // namespace Lumo

#pragma once

#include <atomic>
#include <iosfwd>

#include <Lumo/TraceFacility.h>
#include <Lumo/TraceHandle.h>
#include <Lumo/TraceHelper.h>
#include <Lumo/TraceSink.h>

namespace Lumo {

// While set, trace points run their text branch although the level is off, so that a coverage run
// executes the formatting. Nothing is written to the stream, and a level that is off yields no
// line.
extern std::atomic<std::ostream*> coverageStream_;

}  // namespace Lumo

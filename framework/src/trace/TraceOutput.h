#pragma once

#include <Lumo/TraceSink.h>

namespace Lumo {

// Hands the line to the process's sink, or writes it to standard error.
void deliverTraceLine(const TraceLine& line);

}  // namespace Lumo

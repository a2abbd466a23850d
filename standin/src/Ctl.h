#pragma once

#include <string>
#include <vector>

// `bessd-standin ctl`: tells a running stand-in what to do.

namespace Standin {

// Answers the exit status; throws std::runtime_error with what went wrong. `words`: the command and
// what belongs to it.
int control(const std::string& address, const std::vector<std::string>& words);

}  // namespace Standin

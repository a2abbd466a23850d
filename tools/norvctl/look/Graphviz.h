#pragma once

#include <string>

namespace Norvctl {

// What graphviz's dot makes of it; throws std::runtime_error, with advice, when it cannot be run.
std::string svgOf(const std::string& dot);

}  // namespace Norvctl

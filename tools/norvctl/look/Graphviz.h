#pragma once

#include <string>

namespace Norvctl {

// Text of a switch as it may stand between the quotes of a name or a label there.
std::string dotText(const std::string& text);

// What graphviz's dot makes of it; throws std::runtime_error, with advice, when it cannot be run.
std::string svgOf(const std::string& dot);

}  // namespace Norvctl

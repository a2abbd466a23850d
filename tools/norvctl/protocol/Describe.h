#pragma once

#include <string>
#include <vector>

namespace Norvctl {

// What there is to say about a request type, message, class, driver or hook of this name, for a
// person; the overview for the empty name. False, and `text` names the nearest ones, when there is
// none.
bool describe(const std::string& name, std::string& text);
// Every name that `describe` knows.
std::vector<std::string> describedNames();

}  // namespace Norvctl

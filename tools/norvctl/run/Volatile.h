#pragma once

#include <nlohmann/json.hpp>
#include <string_view>

namespace Norvctl {

// Takes those fields out of a response that differ from one answer to the next although nothing
// has changed, or from one daemon to another: counters, times, random addresses.
void removeVolatile(std::string_view type, const nlohmann::json& request, nlohmann::json& response);

}  // namespace Norvctl

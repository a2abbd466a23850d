#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "../text/Table.h"
#include "Direct.h"

namespace Norvctl {

// A thing that `show` knows, as a table for people and as JSON.
struct Shown {
  const char* name;
  const char* what;
  Table (*table)(Direct& direct);
  nlohmann::ordered_json (*json)(Direct& direct);
  const char* none;  // what to say of an empty table
};
const std::vector<Shown>& shownThings();

}  // namespace Norvctl

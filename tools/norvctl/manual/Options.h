#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

// The options of the program and its verbs, as manual and completion list them.
namespace Norvctl {

struct OptionText {
  std::vector<std::string> names;  // as "--host"; none for a positional one
  std::string value;               // as "HOST"; empty for a flag
  std::string about;
  std::string usual;  // the value it has if it is not given; empty: none
  bool required = false;
  bool repeated = false;
  std::vector<std::string> words;  // what its value may be, where there is a list
};
// In the order of definition, --help first.
std::vector<OptionText> optionsOf(const CLI::App& command);

}  // namespace Norvctl

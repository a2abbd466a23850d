#include "Options.h"

#include <CLI/CLI.hpp>

#include "../Verb.h"

namespace Norvctl {

std::vector<OptionText> optionsOf(const CLI::App& command) {
  std::vector<OptionText> all;
  for (const CLI::Option* option : command.get_options()) {
    OptionText text;
    for (const std::string& name : option->get_snames()) text.names.push_back("-" + name);
    for (const std::string& name : option->get_lnames()) text.names.push_back("--" + name);
    if (option->get_positional()) {
      text.names.clear();
      text.value = option->get_name(true);
    } else if (option->get_items_expected_max() != 0) {
      text.value = option->get_type_name();
      if (text.value.empty()) text.value = "VALUE";
    }
    text.about = option->get_description();
    text.usual = option->get_default_str();
    text.required = option->get_required();
    text.repeated = option->get_items_expected_max() > 1;
    text.words = completionsOf(option);
    all.push_back(text);
  }
  return all;
}

}  // namespace Norvctl

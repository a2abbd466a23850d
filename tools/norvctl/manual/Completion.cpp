// The verb completion: scripts for bash and zsh, from the table of verbs and their options.

#include <CLI/CLI.hpp>
#include <iostream>

#include "../Verb.h"
#include "../text/Terminal.h"
#include "Options.h"

namespace Norvctl {

namespace {

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
  return text;
}

// What completes a value: its words, files, or nothing.
std::string bashValue(const OptionText& option) {
  if (!option.words.empty()) {
    return "COMPREPLY=($(compgen -W '" + joined(option.words) + "' -- \"$cur\"))";
  }
  if (option.value == "FILE" || option.value == "FOLDER" || option.value == "JSON") {
    return "COMPREPLY=($(compgen -f -- \"$cur\"))";
  }
  return "COMPREPLY=()";
}

std::string bashScript(const CLI::App& app) {
  std::string verbWords;
  std::string cases;
  for (const Verb& one : verbs()) {
    verbWords += (verbWords.empty() ? "" : " ") + one.name;
    std::string names;
    std::string values;
    std::string positional = "COMPREPLY=()";
    bool positionalSeen = false;
    for (const OptionText& option : optionsOf(*app.get_subcommand(one.name))) {
      for (const std::string& name : option.names) {
        names += (names.empty() ? "" : " ") + name;
        if (!option.value.empty()) {
          values += "        " + name + ") " + bashValue(option) + "; return ;;\n";
        }
      }
      if (option.names.empty() && !positionalSeen) {
        positional = bashValue(option);
        positionalSeen = true;
      }
    }
    cases += "    " + one.name + ")\n      case \"$prev\" in\n" + values +
             "      esac\n      if [[ $cur == -* ]]; then\n        COMPREPLY=($(compgen -W '" +
             names + "' -- \"$cur\"))\n      else\n        " + positional + "\n      fi ;;\n";
  }
  return "# bash completion for norvctl; source it, or install it as completions/norvctl.\n"
         "_norvctl() {\n"
         "  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}\n"
         "  if ((COMP_CWORD == 1)); then\n"
         "    COMPREPLY=($(compgen -W '" +
         verbWords +
         " --help --version' -- \"$cur\"))\n"
         "    return\n"
         "  fi\n"
         "  case ${COMP_WORDS[1]} in\n" +
         cases +
         "  esac\n"
         "}\n"
         "complete -o default -F _norvctl norvctl\n";
}

// For zsh's _arguments: quotes, brackets and colons are its own.
std::string zshText(const std::string& text) {
  std::string out;
  for (const char c : text) {
    if (c == '\'') {
      out += "'\\''";
    } else if (c == '[' || c == ']' || c == ':') {
      out += std::string("\\") + c;
    } else {
      out += c;
    }
  }
  return out;
}

std::string zshValue(const OptionText& option) {
  if (!option.words.empty()) return "(" + joined(option.words) + ")";
  const bool file = option.value == "FILE" || option.value == "JSON";
  return file ? "_files" : option.value == "FOLDER" ? "_files -/" : " ";
}

std::string zshScript(const CLI::App& app) {
  std::string verbLines;
  std::string cases;
  for (const Verb& one : verbs()) {
    verbLines += "    '" + one.name + ":" + zshText(one.summary) + "'\n";
    cases += "    " + one.name + ")\n      _arguments -s";
    for (const OptionText& option : optionsOf(*app.get_subcommand(one.name))) {
      const std::string value =
          option.value.empty() ? "" : ":" + zshText(option.value) + ":" + zshValue(option);
      for (const std::string& name : option.names) {
        cases += " \\\n        '" + name + "[" + zshText(option.about) + "]" + value + "'";
      }
      if (option.names.empty()) {
        cases += std::string(" \\\n        '") + (option.repeated ? "*" : "") + value + "'";
      }
    }
    cases += " ;;\n";
  }
  return "#compdef norvctl\n"
         "_norvctl() {\n"
         "  local -a verbs\n"
         "  verbs=(\n" +
         verbLines +
         "  )\n"
         "  if ((CURRENT == 2)); then\n"
         "    _describe verb verbs\n"
         "    return\n"
         "  fi\n"
         "  local verb=$words[2]\n"
         "  shift words\n"
         "  ((CURRENT--))\n"
         "  case $verb in\n" +
         cases +
         "  esac\n"
         "}\n"
         "_norvctl \"$@\"\n";
}

Action defineCompletion(CLI::App& command) {
  const auto shell = std::make_shared<std::string>();
  completes(command.add_option("SHELL", *shell, "bash or zsh"), {"bash", "zsh"})
      ->required()
      ->check(CLI::IsMember({"bash", "zsh"}))
      ->type_name("");
  return [shell] {
    std::map<std::string, Action> actions;
    const auto app = makeApp(actions);
    print(*shell == "bash" ? bashScript(*app) : zshScript(*app));
    return allOk;
  };
}

}  // namespace

Verb completionVerb() {
  return {
      "completion",
      "print a completion script",
      {"Prints a script that completes verbs, options, files, and the names of types, classes and "
       "drivers in a shell; an installation has them where the shells look. What a daemon has is "
       "completed by `norvctl shell`."},
      {{"source <(norvctl completion bash)", "for this bash"},
       {"norvctl completion zsh > ~/.zfunc/_norvctl", "for zsh, with ~/.zfunc in fpath"}},
      &defineCompletion};
}

}  // namespace Norvctl

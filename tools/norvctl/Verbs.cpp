#include <CLI/CLI.hpp>
#include <algorithm>

#include "Verb.h"
#include "Version.h"

namespace Norvctl {

const char* const exitStatusText =
    "Exit status: 0 all ok; 1 bad usage or bad input, or the output could not be written; 2 a "
    "command was refused; 3 one failed, was undecodable or dropped, the time ran out, or the "
    "daemon could not be asked; 128 + N ended by signal N.";

namespace {

std::map<const CLI::Option*, std::vector<std::string>>& completions() {
  static std::map<const CLI::Option*, std::vector<std::string>> all;
  return all;
}

}  // namespace

const std::vector<Verb>& verbs() {
  static const std::vector<Verb> all{runVerb(),    checkVerb(),    replayVerb(),    exportVerb(),
                                     planVerb(),   applyVerb(),    statusVerb(),    retryVerb(),
                                     callVerb(),   showVerb(),     watchVerb(),     shellVerb(),
                                     doctorVerb(), describeVerb(), typesVerb(),     templateVerb(),
                                     helpVerb(),   manVerb(),      completionVerb()};
  return all;
}

const Verb* verb(std::string_view name) {
  const auto found = std::find_if(verbs().begin(), verbs().end(),
                                  [&](const Verb& one) { return one.name == name; });
  return found == verbs().end() ? nullptr : &*found;
}

std::unique_ptr<CLI::App> makeApp(std::map<std::string, Action>& actions) {
  auto app = std::make_unique<CLI::App>(
      "Drives and looks at a switch daemon, through the library's queues, manager and client, or "
      "beside them.",
      "norvctl");
  app->require_subcommand(1);
  app->set_version_flag("--version", "norvctl " + std::string(version));
  app->footer(exitStatusText);
  for (const Verb& one : verbs()) {
    CLI::App* command = app->add_subcommand(one.name, one.summary);
    std::string footer;
    for (const Example& example : one.examples) {
      footer += (footer.empty() ? "Examples:\n" : "\n") + std::string("  ") + example.command +
                "\n      " + example.what;
    }
    command->footer(footer);
    actions[one.name] = one.define(*command);
  }
  return app;
}

CLI::Option* completes(CLI::Option* option, std::vector<std::string> words) {
  completions()[option] = std::move(words);
  return option;
}

const std::vector<std::string>& completionsOf(const CLI::Option* option) {
  return completions()[option];
}

}  // namespace Norvctl

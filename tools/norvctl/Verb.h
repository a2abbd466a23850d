#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

// The verbs of norvctl. One table; --help, completion, man pages and the shell come from it and
// from the options that the verbs define.
namespace Norvctl {

// Carries the verb out with the options as parsed; returns the exit status.
using Action = std::function<int()>;

struct Example {
  std::string command;  // a command line
  std::string what;
};

struct Verb {
  std::string name;
  std::string summary;                   // a line
  std::vector<std::string> description;  // paragraphs
  std::vector<Example> examples;
  Action (*define)(CLI::App& command);
};
const std::vector<Verb>& verbs();
const Verb* verb(std::string_view name);

enum ExitStatus { allOk = 0, badInput = 1, refused = 2, lost = 3, somethingToDo = 4 };
extern const char* const exitStatusText;

// The program with all verbs; `actions` gets theirs by name.
std::unique_ptr<CLI::App> makeApp(std::map<std::string, Action>& actions);

// What an argument may be, for completion: adds to the option, and gives it back.
CLI::Option* completes(CLI::Option* option, std::vector<std::string> words);
// The words of an option, none if it has no such list.
const std::vector<std::string>& completionsOf(const CLI::Option* option);

// Each in the file of its name.
Verb applyVerb();
Verb callVerb();
Verb checkVerb();
Verb completionVerb();
Verb describeVerb();
Verb doctorVerb();
Verb exportVerb();
Verb helpVerb();
Verb manVerb();
Verb planVerb();
Verb replayVerb();
Verb retryVerb();
Verb runVerb();
Verb shellVerb();
Verb showVerb();
Verb statusVerb();
Verb templateVerb();
Verb typesVerb();
Verb watchVerb();

}  // namespace Norvctl

#include <signal.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>

#include "Verb.h"
#include "look/Direct.h"
#include "run/Fleet.h"
#include "run/Session.h"
#include "text/Terminal.h"
#include "text/Text.h"

using namespace Norvctl;

namespace {

// The parser would only say that a verb is missing.
bool isUnknownVerb(const char* word) {
  return word && *word != '-' && !verb(word);
}

int tellUnknownVerb(const char* word) {
  std::vector<std::string> names;
  for (const Verb& one : verbs()) names.push_back(one.name);
  std::cerr << "norvctl: unknown verb \"" << escaped(word) << "\"; the nearest is \""
            << nearest(word, names) << "\" (`norvctl help` lists all)\n";
  return badInput;
}

int carryOut(CLI::App& app, std::map<std::string, Action>& actions, int argc, char** argv) {
  if (argc > 1 && isUnknownVerb(argv[1])) return tellUnknownVerb(argv[1]);
  try {
    app.parse(argc, argv);
    return actions.at(app.get_subcommands().front()->get_name())();
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? allOk : badInput;
  } catch (const DirectError& error) {
    if (endingSignal()) return 128 + endingSignal();
    std::cerr << "norvctl: " << error.what() << '\n';
    return lost;
  } catch (const std::exception& error) {
    std::cerr << "norvctl: " << escaped(error.what()) << '\n';
    return badInput;
  }
}

// Ahead of the initialisers of libraries, which open files of their own: those would get the
// numbers of the missing ones.
[[gnu::section(".preinit_array"), gnu::used]] void (*const first)() = fillStandardFiles;

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);  // told where the output is written
  commandLineIs(argc, argv);
  std::map<std::string, Action> actions;
  const auto app = makeApp(actions);
  const int status = carryOut(*app, actions, argc, argv);
  return flushOutput() ? status : badInput;
}

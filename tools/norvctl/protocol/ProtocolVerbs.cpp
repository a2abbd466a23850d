// The verbs that need no daemon: types, template and describe.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>

#include <Bess/Facts.h>

#include "../Verb.h"
#include "../text/Terminal.h"
#include "../text/Text.h"
#include "Describe.h"
#include "Requests.h"
#include "Template.h"

namespace Norvctl {

namespace {

Action defineTypes(CLI::App&) {
  return [] {
    std::printf("%3s  %-27s %-25s %s\n", "", "type", "request", "response");
    for (const RequestInfo& info : requestInfos()) {
      std::printf("%3u  %-27s %-25s %s\n", static_cast<unsigned>(info.type), info.name.data(),
                  info.requestMessage.data(), info.responseMessage.data());
    }
    return allOk;
  };
}

Action defineTemplate(CLI::App& command) {
  struct Arguments {
    std::string type;
    TemplateChoice choice;
    bool comments = false;
  };
  const auto arguments = std::make_shared<Arguments>();
  completes(command.add_option("TYPE", arguments->type, "a request type"), requestNames())
      ->required();
  completes(command.add_option("--class", arguments->choice.moduleClass,
                               "fill in the argument of this module class"),
            namesOf(Bess::moduleClasses()))
      ->type_name("CLASS");
  command
      .add_option("--command", arguments->choice.command,
                  "fill in the argument of this command of the class")
      ->type_name("COMMAND");
  completes(command.add_option("--driver", arguments->choice.driver,
                               "fill in the argument of this port driver"),
            namesOf(Bess::portDrivers()))
      ->type_name("DRIVER");
  completes(command.add_option("--hook", arguments->choice.hook,
                               "fill in the argument of this gate hook"),
            namesOf(Bess::gateHooks()))
      ->type_name("HOOK");
  command.add_flag("--comments", arguments->comments,
                   "as YAML, with each field's type and comment, and what may be given instead");
  return [arguments] {
    const RequestInfo* info = requestInfo(arguments->type);
    const std::string wrong =
        info ? checkChoice(*info, arguments->choice) : unknownType(arguments->type);
    if (!wrong.empty()) {
      std::cerr << "norvctl: " << escaped(wrong) << '\n';
      return badInput;
    }
    print(arguments->comments ? templateYaml(*info, arguments->choice)
                              : templateJson(*info, arguments->choice));
    return allOk;
  };
}

Action defineDescribe(CLI::App& command) {
  const auto name = std::make_shared<std::string>();
  completes(command.add_option("NAME", *name,
                               "a request type, message, module class, port driver or gate hook"),
            describedNames());
  return [name] {
    std::string text;
    const bool known = describe(*name, text);
    if (known) {
      print(text);
    } else {
      std::cerr << "norvctl: " << text;
    }
    return known ? allOk : badInput;
  };
}

}  // namespace

Verb typesVerb() {
  return {"types",
          "list the request types with their messages",
          {"Lists the requests of the daemon's protocol: number, type, request message and "
           "response message."},
          {{"norvctl types", "all of them"}},
          &defineTypes};
}

Verb templateVerb() {
  return {
      "template",
      "print a request body to fill in",
      {"Prints a body in JSON with every field of the request present, as `call` and `run` take "
       "it. Of fields of which only one may be given, the first is there; --comments shows the "
       "others too. Where a request carries an argument, say what it is for, and its fields are "
       "filled in as well."},
      {{"norvctl template connectModules", "a body to fill in"},
       {"norvctl template createModule --class Queue", "with the argument of a Queue"},
       {"norvctl template createPort --driver PMDPort --comments",
        "with types, comments and what may be given instead"},
       {"norvctl template moduleCommand --class ExactMatch --command add",
        "with the argument of a command"}},
      &defineTemplate};
}

Verb describeVerb() {
  return {
      "describe",
      "tell what a type, message, class or driver is",
      {"Shows the fields with their types and the comments of the protocol's files, which class "
       "takes which argument and which commands it has. Without a NAME it lists all names; for "
       "one that is misspelled it tells the nearest."},
      {{"norvctl describe createPort", "a request with its response"},
       {"norvctl describe ExactMatch", "a module class with its commands"},
       {"norvctl describe PMDPort", "a port driver"}},
      &defineDescribe};
}

}  // namespace Norvctl

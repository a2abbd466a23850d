// The verbs export and plan.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <iostream>

#include "../Verb.h"
#include "../text/Terminal.h"
#include "../text/Text.h"
#include "Wanted.h"

namespace Norvctl {

namespace {

struct DocumentArguments : WantedOptions {
  bool check = false;
  bool schema = false;
};

int exportSwitch(const DocumentArguments& arguments) {
  const Target target(arguments.target);
  KnownSwitch known(arguments, target);
  const Norv::State::LiveSwitch live = known.read();
  const Norv::State::Switch now = described(live);
  std::vector<std::string> notTold;
  const std::string document = yaml(now, &notTold, besideDocument(live));
  if (!live.connections.empty() && !live.tellsHooks) {
    notTold.emplace_back(
        "hooks: no gate tells of any; what there is beside the usual Track of a connection is "
        "missing here");
  }
  print(arguments.json ? Norv::State::json(now) : document);
  if (!arguments.quiet) {
    for (const std::string& what : notTold) std::cerr << "norvctl: " << escaped(what) << '\n';
  }
  return allOk;
}

Action defineExport(CLI::App& command) {
  const auto arguments = std::make_shared<DocumentArguments>();
  addTarget(command, arguments->target);
  addTimeout(command, arguments->timeoutSeconds,
             "give up when an answer takes so many SECONDS (5)");
  command.add_flag("--json", arguments->json, "JSON instead of YAML");
  command.add_flag("--quiet", arguments->quiet, "say nothing of what the daemon does not tell");
  addStateDir(command, *arguments);
  return [arguments] { return exportSwitch(*arguments); };
}

int check(const DocumentArguments& arguments) {
  const auto document = usableDocument(arguments, nullptr);
  if (!document) return badInput;
  for (const std::string& what : gateWarnings(document->wanted)) {
    std::cerr << "norvctl: " << escaped(what) << '\n';
  }
  const std::size_t objects = document->wanted.objects();
  print(grouped(objects) + (objects == 1 ? " object" : " objects") + ", all good\n");
  return allOk;
}

int plan(const DocumentArguments& arguments) {
  if (arguments.schema) {
    print(Norv::State::jsonSchema());
    return allOk;
  }
  if (arguments.files.empty()) {
    std::cerr << "norvctl: plan needs a FILE\n";
    return badInput;
  }
  if (arguments.check) return check(arguments);
  const Target target(arguments.target);
  KnownSwitch known(arguments, target);
  const Norv::State::LiveSwitch live = known.read();
  const auto document = usableDocument(arguments, &live);
  if (!document) return badInput;
  const Norv::State::Plan plan = makePlan(live, document->wanted, arguments.plan);
  if (arguments.json) {
    print(planCommands(plan));
  } else if (!arguments.quiet) {
    print(planText(plan, coloursAt(STDOUT_FILENO)));
  }
  return plan.empty() ? allOk : somethingToDo;
}

Action definePlan(CLI::App& command) {
  const auto arguments = std::make_shared<DocumentArguments>();
  addWanted(command, *arguments);
  addTarget(command, arguments->target);
  addTimeout(command, arguments->timeoutSeconds,
             "give up when an answer takes so many SECONDS (5)");
  command.get_option("FILE")->required(false);
  command.add_flag("--schema", arguments->schema, "print the JSON schema of documents");
  command.add_flag("--check", arguments->check, "check the document alone; needs no switch");
  command.add_flag("--json", arguments->json, "print the commands, as `norvctl run` takes them");
  command.add_flag("--quiet", arguments->quiet, "tell by the exit status alone");
  addStateDir(command, *arguments);
  return [arguments] { return plan(*arguments); };
}

}  // namespace

Verb exportVerb() {
  return {"export",
          "write the live switch as a document",
          {"Reads plugins, workers, ports, modules, connections, traffic classes and hooks, and "
           "writes them in the form that `norvctl plan` and `norvctl apply` take. Two exports of "
           "the same switch are the same bytes. What the daemon does not tell is said in a comment "
           "beside its object and on standard error."},
          {{"norvctl export --standin", "an empty switch"},
           {"norvctl export --host switch1 > switch1.yaml", "a switch as a file"}},
          &defineExport};
}

Verb planVerb() {
  return {
      "plan",
      "show what would make the switch as wanted",
      {"Compares the document with the live switch, and shows a line for each object: + create, "
       "~ change in place, -/+ recreate and why, - delete (with --prune alone). Nothing is sent. "
       "docs/wanted-state.md describes the document.",
       "Exit status: 0 nothing to do; 4 there is."},
      {{"norvctl plan --standin examples/first-light.yaml", "onto an empty switch"},
       {"norvctl plan --check examples/first-light.yaml", "needs no switch"},
       {"norvctl plan --standin --json examples/first-light.yaml", "the commands"}},
      &definePlan};
}

}  // namespace Norvctl

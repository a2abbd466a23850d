#pragma once

#include <span>
#include <string>
#include <string_view>

#include <bess/pb/service.pb.h>

#include "ModuleState.h"

namespace Standin {

// One command of a module class.
struct ModuleCommand {
  using Handler = void (*)(ModuleState&, const google::protobuf::Any&, bess::pb::CommandResponse&);
  const char* name;
  const char* argument;  // Name of the argument message.
  bool threadSafe;       // May run while a running worker reaches the module.
  Handler handler;
};

// A row of the table of module classes.
struct ModuleClass {
  const char* name;
  const char* nameTemplate;  // Null: derived from the class name.
  unsigned inputGates;
  unsigned outputGates;
  int tasks;
  int maxWorkers;  // Workers that may reach one module at a time; 0 for any number.
  ModuleStateFactory create;
  std::span<const ModuleCommand> commands;
  const char* help;

  // What automatic names start with.
  std::string namePrefix() const;
  const ModuleCommand* command(std::string_view commandName) const;
};

// All classes, sorted by name.
std::span<const ModuleClass> moduleClasses();
// Null when there is none of that name.
const ModuleClass* findModuleClass(std::string_view name);

}  // namespace Standin

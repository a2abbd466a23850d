#pragma once

#include <google/protobuf/descriptor.h>

#include <string>
#include <string_view>
#include <vector>

// Facts of the daemon's protocol that its messages alone do not tell: which argument belongs into
// which `Any`, and what the comments of the .proto files say. All of it is constant; any thread.
namespace Bess {

// Something that takes an argument: a class, a command, a driver or a hook.
struct Taker {
  std::string_view name;
  std::string_view argument;  // a message of bess.pb; empty: none that this protocol has
};

struct ModuleClass : Taker {
  std::vector<Taker> commands;
};

// Each in the order of Arguments.def.
const std::vector<ModuleClass>& moduleClasses();
const std::vector<Taker>& portDrivers();
const std::vector<Taker>& gateHooks();

// Null when there is none of this name.
const ModuleClass* moduleClass(std::string_view name);
const Taker* portDriver(std::string_view name);
const Taker* gateHook(std::string_view name);
const Taker* command(const ModuleClass& moduleClass, std::string_view name);

// The message by its name with or without the package, Outer.Inner for an inner one; null when
// there is none.
const google::protobuf::Descriptor* message(std::string_view name);
// All messages of bess.pb, inner ones too, sorted by name.
const std::vector<const google::protobuf::Descriptor*>& messages();
// Its name without the package.
std::string shortName(const google::protobuf::Descriptor& message);

// The comment before or behind the declaration in its .proto file, on one line; empty if there is
// none.
std::string comment(const google::protobuf::Descriptor& message);
std::string comment(const google::protobuf::FieldDescriptor& field);
// Of an RPC of the service, by its name there.
std::string rpcComment(std::string_view rpc);

}  // namespace Bess

#pragma once

#include <google/protobuf/any.pb.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Standin {

class Ports;

// Output gates are numbered below this, whatever the class.
constexpr std::uint16_t gateLimit = 8192;
// Stands for dropping where a gate is named.
constexpr std::uint16_t dropGate = gateLimit;
// Packets that a task handles in one run, at most.
constexpr std::uint64_t burstLimit = 64;

// Metadata that a module reads or writes. `offset` is assigned by the pipeline.
struct Attribute {
  enum class Mode { Read, Write, Update };
  std::string name;
  std::uint64_t size;  // Bytes.
  Mode mode;
  std::int64_t offset = 0;
};

// What a module of one class remembers. Constructors and commands throw Refusal, and a command
// that throws leaves the state as it was unless it says otherwise.
class ModuleState {
 public:
  virtual ~ModuleState() = default;
  // The line that listModules shows.
  virtual std::string description() const { return {}; }
  // Tasks of this module; -1 leaves it to the class.
  virtual int tasks() const { return -1; }
  // Whether a command may give this module other attributes.
  virtual bool commandsChangeAttributes() const { return false; }

  std::vector<Attribute> attributes;
  // The argument of the creating request; set by the pipeline.
  google::protobuf::Any initialArg;
};

// The module's number of tasks and gates are data of its class; see ModuleClass.
using ModuleStateFactory = std::unique_ptr<ModuleState> (*)(const google::protobuf::Any& arg,
                                                            Ports& ports);

// The value of a gate number as the daemon keeps it.
inline std::uint16_t gateCut(std::uint64_t gate) {
  return static_cast<std::uint16_t>(gate);
}

}  // namespace Standin

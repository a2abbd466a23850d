#pragma once

#include <list>
#include <string>
#include <string_view>
#include <unordered_map>

#include "AutomaticNames.h"

namespace Standin {

// A hook that watches the packets of a gate.
struct GateHook {
  std::string className;
  std::string name;  // Unique at its gate.
};

// The hooks of one gate, in the order in which they were put on.
class HookList {
 public:
  HookList() = default;
  HookList(const HookList&) = delete;
  HookList& operator=(const HookList&) = delete;

  bool has(std::string_view name) const { return byName_.count(name) > 0; }
  // The prefix and the lowest number from 0 that is free here.
  std::string freeName(const std::string& prefix);
  // There must be none of that name.
  void add(const std::string& className, const std::string& name);
  // Takes off the hook of that name, if there is one.
  void remove(std::string_view name);
  // Takes off the first of the class, if there is one.
  void removeFirst(std::string_view className);

  auto begin() const { return hooks_.begin(); }
  auto end() const { return hooks_.end(); }

 private:
  std::list<GateHook> hooks_;
  std::unordered_map<std::string_view, std::list<GateHook>::iterator> byName_;
  AutomaticNames names_;
};

}  // namespace Standin

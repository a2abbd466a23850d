#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>

namespace Standin {

// Names made of a prefix and the lowest number from 0 that is free. Remembers below which number
// none is, so that a thousand names do not look at each other.
class AutomaticNames {
 public:
  // `taken`: whether there is something of that name.
  std::string next(const std::string& prefix, const std::function<bool(const std::string&)>& taken);
  // To be told of every name that is free again.
  void freed(const std::string& name);

 private:
  std::unordered_map<std::string, std::uint64_t> lowest_;  // By prefix: none below it is free.
};

}  // namespace Standin

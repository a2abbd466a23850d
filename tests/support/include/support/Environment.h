#pragma once

#include <cstdlib>
#include <optional>
#include <string>

namespace support {

// Sets (or, with no value, unsets) an environment variable for the length of a scope.
class Environment {
 public:
  Environment(const char* name, std::optional<std::string> value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    set(value);
  }
  ~Environment() { set(old_); }
  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;

 private:
  void set(const std::optional<std::string>& value) {
    value ? setenv(name_, value->c_str(), 1) : unsetenv(name_);
  }

  const char* name_;
  std::optional<std::string> old_;
};

}  // namespace support

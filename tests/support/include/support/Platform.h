#pragma once

#include <functional>
#include <optional>

namespace support {

// Stands between the whole program and the platform while it lives: calls of the mutex and
// condition functions of POSIX threads, and of getenv, are told to an observer first. For programs
// that link test_platform, which sanitized builds do not have, as a sanitizer stands in the same
// place.
class Platform {
 public:
  // `function` is its name; `object` the mutex, condition or attributes it is about, or the name of
  // a variable; `argument` its second argument where that is a number. A result stands for that of
  // the function, which is then not called (getenv always is). Called on every thread that makes
  // such a call, but not for calls that the observer itself makes.
  using Observer =
      std::function<std::optional<int>(const char* function, const void* object, int argument)>;

  explicit Platform(Observer observer);
  ~Platform();
  Platform(const Platform&) = delete;
  Platform& operator=(const Platform&) = delete;
};

}  // namespace support

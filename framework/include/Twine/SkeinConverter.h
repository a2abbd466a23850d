#pragma once

#include <ostream>
#include <string_view>

#include <Lumo/String.h>
#include <Skein/Argument.h>

namespace Lumo {
class LineStream;
}

namespace Twine {

// Makes the text of a line whose point also writes a ring record: arguments read exactly as the
// reader of the ring shows them. Used by one thread, within one scope.
class SkeinConverter {
 public:
  SkeinConverter();
  ~SkeinConverter();
  SkeinConverter(const SkeinConverter&) = delete;
  SkeinConverter& operator=(const SkeinConverter&) = delete;

  // The stream for the text itself.
  std::ostream& fixed();
  template <class V>
  SkeinConverter& operator<<(const V& value) {
    static_cast<void>(Skein::codeOf<V>());  // says which types are possible
    Skein::render(value, [this](const char* text, std::size_t length) { append(text, length); });
    return *this;
  }
  // The text so far: a copy, or a view that lasts until the next addition.
  Lumo::String traceString() const;
  std::string_view text() const;

 private:
  void append(const char* text, std::size_t length);

  Lumo::LineStream* const stream_;
};

}  // namespace Twine

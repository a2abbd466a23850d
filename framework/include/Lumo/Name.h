#pragma once

#include <Lumo/String.h>

namespace Lumo {

class LumoType;

// The name of an entity or the key of a collection. As cheap to copy as a String, and as safe
// between threads.
class Name {
 public:
  static const LumoType _lumoType;

  Name() = default;  // the empty name
  Name(const char* text) : text_(text) {}
  Name(const String& text) : text_(text) {}
  Name(const std::string& text) : text_(text) {}

  String stringValue() const { return text_; }
  const char* charPtr() const { return text_.charPtr(); }
  U32 hash() const { return text_.hash(); }
  bool empty() const { return text_.empty(); }

  bool operator==(const Name& other) const { return text_ == other.text_; }
  bool operator!=(const Name& other) const { return text_ != other.text_; }
  bool operator<(const Name& other) const { return text_ < other.text_; }

 private:
  String text_;
};

std::ostream& operator<<(std::ostream& out, const Name& name);

}  // namespace Lumo

template <>
struct std::hash<Lumo::Name> {
  std::size_t operator()(const Lumo::Name& name) const { return name.hash(); }
};

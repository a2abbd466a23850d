#pragma once

#include <iosfwd>
#include <memory>
#include <string>

#include <Lumo/Types.h>

namespace Lumo {

// Immutable reference-counted text: a copy shares the characters. Any thread may copy and read
// any String; assigning to one String object from two threads needs a lock of the caller's.
class String {
 public:
  class IteratorConst;

  String() = default;
  String(const char* text);  // null is the empty text
  String(const std::string& text);

  // Null-terminated; valid as long as this String, or a copy of it, lives.
  const char* charPtr() const { return text_ ? text_->c_str() : ""; }
  std::string stdString() const { return text_ ? *text_ : std::string(); }
  U32 hash() const;

  bool empty() const { return length() == 0; }
  U32 length() const { return text_ ? static_cast<U32>(text_->size()) : 0; }

  // A range over the characters, for parsing. The String must outlive its iterators.
  IteratorConst iteratorConst() const;
  IteratorConst endConst() const;

  bool operator==(const String& other) const;
  bool operator!=(const String& other) const { return !(*this == other); }
  bool operator<(const String& other) const;
  String operator+(const String& other) const;

 private:
  std::shared_ptr<const std::string> text_;  // null for the empty text
};

class String::IteratorConst {
 public:
  IteratorConst() = default;
  IteratorConst(const char* position, const char* end) : position_(position), end_(end) {}

  char operator*() const { return *position_; }
  IteratorConst& operator++() {
    ++position_;
    return *this;
  }
  bool operator==(const IteratorConst& other) const { return position_ == other.position_; }
  bool operator!=(const IteratorConst& other) const { return position_ != other.position_; }
  // True while characters are left in the String that the iterator came from.
  explicit operator bool() const { return position_ != end_; }

 private:
  const char* position_ = nullptr;
  const char* end_ = nullptr;
};

std::ostream& operator<<(std::ostream& out, const String& text);

}  // namespace Lumo

template <>
struct std::hash<Lumo::String> {
  std::size_t operator()(const Lumo::String& text) const { return text.hash(); }
};

#include <functional>
#include <ostream>
#include <string_view>

#include <Lumo/Name.h>
#include <Lumo/String.h>

namespace Lumo {

namespace {

std::shared_ptr<const std::string> shared(std::string text) {
  if (text.empty()) return nullptr;
  return std::make_shared<const std::string>(std::move(text));
}

std::string_view view(const std::shared_ptr<const std::string>& text) {
  return text ? std::string_view(*text) : std::string_view();
}

}  // namespace

String::String(const char* text) : text_(shared(text ? text : "")) {}

String::String(const std::string& text) : text_(shared(text)) {}

U32 String::hash() const {
  return static_cast<U32>(std::hash<std::string_view>()(view(text_)));
}

String::IteratorConst String::iteratorConst() const {
  return IteratorConst(charPtr(), charPtr() + length());
}

String::IteratorConst String::endConst() const {
  return IteratorConst(charPtr() + length(), charPtr() + length());
}

bool String::operator==(const String& other) const {
  return text_ == other.text_ || view(text_) == view(other.text_);
}

bool String::operator<(const String& other) const {
  return view(text_) < view(other.text_);
}

String String::operator+(const String& other) const {
  return String(stdString() + other.stdString());
}

std::ostream& operator<<(std::ostream& out, const String& text) {
  return out << std::string_view(text.charPtr(), text.length());
}

std::ostream& operator<<(std::ostream& out, const Name& name) {
  return out << name.stringValue();
}

}  // namespace Lumo

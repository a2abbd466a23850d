#include <ostream>

#include <Lumo/EnumType.h>
#include <Lumo/Exception.h>

namespace Lumo {

namespace {

const EnumRow* rowOf(const EnumLumoType& type, U32 number) {
  for (const EnumRow& row : type.rows()) {
    if (row.number == number) return &row;
  }
  return nullptr;
}

// In ASCII, whatever the locale calls a letter.
bool inName(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

}  // namespace

template <class W>
W EnumType<W>::instance(const EnumLumoType& type, const String& name) {
  for (const EnumRow& row : type.rows()) {
    if (name == row.name) return row.number;
  }
  throwRangeException(String("\"") + name + "\" is not a value of " + type.typeName());
}

template <class W>
W EnumType<W>::instance(const EnumLumoType& type, W value) {
  if (!rowOf(type, value)) {
    throwRangeException(String(std::to_string(value)) + " is not a value of " + type.typeName());
  }
  return value;
}

template <class W>
String EnumType<W>::stringValue(const EnumLumoType& type, W value) {
  const EnumRow* row = rowOf(type, value);
  return row ? String(row->name) : String(std::to_string(value));
}

template <class W>
String EnumType<W>::valueToStrep(const EnumLumoType& type, W value) {
  return stringValue(type, value);
}

template <class W>
void EnumType<W>::sequenceToValue(const EnumLumoType& type, String::IteratorConst& begin,
                                  const String::IteratorConst& end, W* out) {
  std::string name;
  String::IteratorConst position = begin;
  while (position != end && inName(*position)) {
    name += *position;
    ++position;
  }
  *out = instance(type, String(name));
  begin = position;
}

template <class W>
std::ostream& EnumType<W>::operatorLessLess(const EnumLumoType& type, std::ostream& out, W value) {
  return out << stringValue(type, value);
}

template struct EnumType<unsigned int>;

}  // namespace Lumo

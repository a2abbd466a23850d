#pragma once

#include <iosfwd>

#include <Lumo/Exception.h>
#include <Lumo/TypeRegistry.h>

namespace Lumo {

// One value of an enumeration: its name and its number.
struct EnumRow {
  const char* name;
  U32 number;
};

// The descriptor of an enumeration: a type with the table of its values.
class EnumLumoType : public LumoType {
 public:
  constexpr EnumLumoType(const char* typeName, std::span<const EnumRow> rows)
      : LumoType(typeName), rows_(rows) {}
  std::span<const EnumRow> rows() const { return rows_; }

 private:
  std::span<const EnumRow> rows_;
};

// The services on an enumeration with values of type W, all working from its descriptor. Parsing
// raises RangeException for what is not in the table; printing a number that is not prints the
// number, and never raises.
template <class W>
struct EnumType {
  static W instance(const EnumLumoType& type, const String& name);
  static W instance(const EnumLumoType& type, W value);
  static String stringValue(const EnumLumoType& type, W value);
  static String valueToStrep(const EnumLumoType& type, W value);
  // Takes the longest run of ASCII letters, digits and underscores at `begin` for a name. On
  // success sets *out and moves `begin` behind the name; otherwise both stay as they were.
  static void sequenceToValue(const EnumLumoType& type, String::IteratorConst& begin,
                              const String::IteratorConst& end, W* out);
  static std::ostream& operatorLessLess(const EnumLumoType& type, std::ostream& out, W value);
};

extern template struct EnumType<unsigned int>;

}  // namespace Lumo

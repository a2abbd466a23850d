#pragma once

#include <type_traits>
#include <variant>

#include <Lumo/EnumType.h>
#include <Lumo/Exception.h>
#include <Lumo/Name.h>
#include <Lumo/PtrInterface.h>
#include <Lumo/TypeRegistry.h>

namespace Lumo {

// A value of any type that the generic interface carries: nothing, a built-in value, a text or
// name, an enumeration value, a framework object (held counted; may be null), or a pointer that the
// framework knows by type name only (not owned).
class GenericValue {
 public:
  struct Enum {
    const EnumLumoType* type;
    U32 value;
  };
  struct Object {
    Ptr<PtrInterface const> object;
    bool isConst;
  };
  struct Opaque {
    void* pointer;
    const char* typeName;
  };
  using Storage =
      std::variant<std::monostate, bool, int, U16, U32, U64, String, Name, Enum, Object, Opaque>;

  GenericValue() = default;
  GenericValue(bool value) : storage_(value) {}
  GenericValue(int value) : storage_(value) {}
  GenericValue(U16 value) : storage_(value) {}
  GenericValue(U32 value) : storage_(value) {}
  GenericValue(U64 value) : storage_(value) {}
  GenericValue(const char* value) : storage_(String(value)) {}
  GenericValue(const std::string& value) : storage_(String(value)) {}
  GenericValue(const String& value) : storage_(value) {}
  GenericValue(const Name& value) : storage_(value) {}
  GenericValue(Enum value) : storage_(value) {}
  GenericValue(Opaque value) : storage_(value) {}
  GenericValue(std::nullptr_t) : storage_(Object{nullptr, false}) {}
  // A plain pointer would pass for a bool: objects go in as Ptr, anything else as Opaque.
  template <class T>
  requires(!std::is_same_v<std::remove_const_t<T>, char>) GenericValue(T* pointer)
  = delete;
  template <class T>
  GenericValue(const Ptr<T>& object) : storage_(Object{object, std::is_const_v<T>}) {}
  template <class T>
  GenericValue(const ValidPtr<T>& object) : storage_(Object{object, std::is_const_v<T>}) {}

  bool isVoid() const { return std::holds_alternative<std::monostate>(storage_); }
  const Storage& storage() const { return storage_; }
  // The name of the type of what is held; of a non-null object, the object's own type.
  const char* typeName() const;
  // Any integer from 0 on or enumeration value as a number; RangeException for anything else.
  U64 number() const;
  // A String or a Name as text; RangeException for anything else.
  String text() const;
  // The object held, null included; RangeException for anything else.
  const Object& object() const;
  // How a person reads it: numbers, texts and names as they are, objects as in objectStrep.
  String strep() const;

 private:
  Storage storage_;
};

// The text rendering of an object: type, name if it has one, address, as in
// Norv::CmdConfigGroup("ports")@0x55d0c0de. A null pointer is "(null)".
String objectStrep(const PtrInterface* object);

// How values of type T enter and leave a GenericValue. `type` is the descriptor that an attribute
// of this type shows. Leaving raises RangeException when the value held does not fit: numbers must
// be in T's range, objects of T's class, and const objects stay const.
template <class T, class = void>
struct GenericTraits;

template <class T>
struct GenericTraits<T, std::enable_if_t<std::is_same_v<T, int> || std::is_same_v<T, U16> ||
                                         std::is_same_v<T, U32> || std::is_same_v<T, U64>>> {
  static constexpr const LumoType* type = &Builtin<T>::_lumoType;
  static GenericValue wrap(T value) { return GenericValue(value); }
  static T unwrap(const GenericValue& value) {
    if (const T* exact = std::get_if<T>(&value.storage())) return *exact;
    const U64 wide = value.number();
    if (static_cast<U64>(static_cast<T>(wide)) != wide || static_cast<T>(wide) < T(0)) {
      throwRangeException(String(std::to_string(wide)) + " is out of range for " +
                          type->typeName());
    }
    return static_cast<T>(wide);
  }
};

template <>
struct GenericTraits<bool> {
  static constexpr const LumoType* type = &Builtin<bool>::_lumoType;
  static GenericValue wrap(bool value) { return GenericValue(value); }
  static bool unwrap(const GenericValue& value);
};

template <>
struct GenericTraits<String> {
  static constexpr const LumoType* type = &Builtin<String>::_lumoType;
  static GenericValue wrap(const String& value) { return GenericValue(value); }
  static String unwrap(const GenericValue& value) { return value.text(); }
};

template <>
struct GenericTraits<Name> {
  static constexpr const LumoType* type = &Name::_lumoType;
  static GenericValue wrap(const Name& value) { return GenericValue(value); }
  static Name unwrap(const GenericValue& value) { return Name(value.text()); }
};

// The object held as a T, null if it is null; RangeException if it is of another class, or const
// where T is not.
template <class T>
inline T* unwrapObject(const GenericValue& value) {
  const GenericValue::Object& held = value.object();
  if (!held.object) return nullptr;
  if constexpr (!std::is_const_v<T>) {
    if (held.isConst) throwRangeException("a const object cannot be changed through this argument");
  }
  T* object = dynamic_cast<T*>(const_cast<PtrInterface*>(held.object.ptr()));
  if (!object) {
    throwRangeException(String("expected an object of type ") + T::_lumoType.typeName() + ", got " +
                        value.strep());
  }
  return object;
}

template <class T>
struct GenericTraits<Ptr<T>> {
  static constexpr const LumoType* type = &T::_lumoType;
  static GenericValue wrap(const Ptr<T>& object) { return GenericValue(object); }
  static Ptr<T> unwrap(const GenericValue& value) { return Ptr<T>(unwrapObject<T>(value)); }
};

template <class T>
struct GenericTraits<ValidPtr<T>> {
  static constexpr const LumoType* type = &T::_lumoType;
  static GenericValue wrap(const ValidPtr<T>& object) { return GenericValue(object); }
};

// A plain back pointer to a framework object. The value holds a reference while it lives.
template <class T>
struct GenericTraits<T*, std::enable_if_t<std::is_base_of_v<PtrInterface, T>>> {
  static constexpr const LumoType* type = &T::_lumoType;
  static GenericValue wrap(T* object) { return GenericValue(Ptr<T>(object)); }
  static T* unwrap(const GenericValue& value) { return unwrapObject<T>(value); }
};

}  // namespace Lumo

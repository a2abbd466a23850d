#pragma once

#include <charconv>
#include <string>
#include <string_view>
#include <type_traits>

#include <Lumo/Name.h>
#include <Skein/QNull.h>

// The argument types of records: their codes in a descriptor and how they read as text. The text
// sink and the reader share this, so that both write the same.
namespace Skein {

enum class Code : char {
  boolean = 'b',
  character = 'c',
  integer = 'i',
  unsignedInteger = 'u',
  longInteger = 'l',
  unsignedLongInteger = 'U',
  pointer = 'p',
  text = 's',
  null = 'n',
};

template <class T>
inline constexpr bool isText =
    std::is_same_v<T, Lumo::Name> || std::is_same_v<T, Lumo::String> ||
    std::is_same_v<T, std::string> || std::is_same_v<T, std::string_view> ||
    std::is_same_v<std::decay_t<T>, char*> || std::is_same_v<std::decay_t<T>, const char*>;

template <class T>
inline constexpr bool isObjectPointer =
    std::is_pointer_v<T> && !std::is_function_v<std::remove_pointer_t<T>> && !isText<T>;

template <class T>
inline constexpr bool isLong = std::is_same_v<T, long> || std::is_same_v<T, long long>;

template <class T>
inline constexpr bool isUnsignedLong =
    std::is_same_v<T, unsigned long> || std::is_same_v<T, unsigned long long>;

template <class T>
inline constexpr bool isUnsigned =
    std::is_same_v<T, unsigned char> || std::is_same_v<T, unsigned short> ||
    std::is_same_v<T, unsigned int>;

// True for every type that a record can carry.
template <class T>
inline constexpr bool isArgument =
    std::is_same_v<T, bool> || std::is_same_v<T, char> || std::is_same_v<T, int> || isUnsigned<T> ||
    isLong<T> || isUnsignedLong<T> || isText<T> || isObjectPointer<T> ||
    std::is_same_v<T, std::nullptr_t> || std::is_same_v<T, QNull>;

template <class T>
constexpr Code codeOf() {
  static_assert(isArgument<T>,
                "a record carries Name, String, std::string, character and integer types, bool, "
                "object pointers and QNull: convert the argument to one of them");
  if constexpr (std::is_same_v<T, bool>) return Code::boolean;
  if constexpr (std::is_same_v<T, char>) return Code::character;
  if constexpr (std::is_same_v<T, int>) return Code::integer;
  if constexpr (isUnsigned<T>) return Code::unsignedInteger;
  if constexpr (isLong<T>) return Code::longInteger;
  if constexpr (isUnsignedLong<T>) return Code::unsignedLongInteger;
  if constexpr (isText<T>) return Code::text;
  if constexpr (isObjectPointer<T> || std::is_same_v<T, std::nullptr_t>) return Code::pointer;
  return Code::null;
}

inline std::string_view textOf(std::string_view text) {
  return text;
}
inline std::string_view textOf(const std::string& text) {
  return text;
}
inline std::string_view textOf(const Lumo::String& text) {
  return std::string_view(text.charPtr(), text.length());
}
inline std::string_view textOf(const char* text) {
  return text ? std::string_view(text) : "(null)";
}
// The characters stay valid as long as the name does.
inline std::string_view textOf(const Lumo::Name& name) {
  return std::string_view(name.charPtr());
}

// The text of an argument, into `put(const char*, std::size_t)`.
template <class T, class Put>
void render(const T& value, Put&& put) {
  if constexpr (std::is_same_v<T, bool>) {
    value ? put("true", 4) : put("false", 5);
  } else if constexpr (std::is_same_v<T, char>) {
    put(&value, 1);
  } else if constexpr (isText<T>) {
    const std::string_view text = textOf(value);
    put(text.data(), text.size());
  } else if constexpr (std::is_same_v<T, QNull>) {
    put("(null)", 6);
  } else if constexpr (std::is_integral_v<T>) {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    put(digits, static_cast<std::size_t>(end - digits));
  } else {
    char digits[24] = {'0', 'x'};
    const auto address = reinterpret_cast<std::uintptr_t>(static_cast<const void*>(value));
    const auto end = std::to_chars(digits + 2, digits + sizeof digits, address, 16).ptr;
    put(digits, static_cast<std::size_t>(end - digits));
  }
}

// How many places for arguments a text has.
constexpr std::size_t placesIn(std::string_view text) {
  std::size_t count = 0;
  for (std::size_t at = text.find("%s"); at != text.npos; at = text.find("%s", at + 2)) ++count;
  return count;
}

// Where a text has no places its arguments follow it, each after a blank unless there is one.
constexpr bool blankBeforeArgument(std::string_view text, std::size_t index) {
  return index > 0 || (!text.empty() && text.back() != ' ');
}

}  // namespace Skein

#pragma once

#include <cstring>

#include <Skein/Reader.h>

namespace Skein {

// Takes the arguments of a record out of its raw bytes, `take(value)` for each. False when the
// bytes end too early or a code is unknown.
template <class Take>
class Decoder {
 public:
  Decoder(std::string_view raw, Take& take) : raw_(raw), take_(take) {}

  bool operator()(char code) {
    switch (static_cast<Code>(code)) {
      case Code::boolean: {
        char value;
        return get(value) && give(value != 0);
      }
      case Code::character:
        return number<char>();
      case Code::integer:
        return number<int>();
      case Code::unsignedInteger:
        return number<unsigned int>();
      case Code::longInteger:
        return number<long long>();
      case Code::unsignedLongInteger:
        return number<unsigned long long>();
      case Code::pointer: {
        U64 value;
        return get(value) && give(Address{value});
      }
      case Code::text:
        return text();
      case Code::null:
        return give(QNull{});
    }
    return false;
  }

 private:
  template <class T>
  bool get(T& value) {
    if (raw_.size() < sizeof value) return false;
    std::memcpy(&value, raw_.data(), sizeof value);
    raw_.remove_prefix(sizeof value);
    return true;
  }
  template <class T>
  bool number() {
    T value;
    return get(value) && give(value);
  }
  bool text() {
    U32 length;
    if (!get(length)) return false;
    const bool clipped = (length & clippedText) != 0;
    length &= ~clippedText;
    if (raw_.size() < length) return false;
    const std::string_view value = raw_.substr(0, length);
    raw_.remove_prefix(length);
    take_(value, clipped);
    return true;
  }
  template <class T>
  bool give(const T& value) {
    take_(value, false);
    return true;
  }

  std::string_view raw_;
  Take& take_;
};

template <class Take>
bool decode(const std::string& codes, std::string_view raw, Take&& take) {
  Decoder decoder(raw, take);
  for (char code : codes) {
    if (!decoder(code)) return false;
  }
  return true;
}

}  // namespace Skein

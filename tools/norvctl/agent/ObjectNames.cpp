#include "ObjectNames.h"

#include <cstdio>
#include <functional>

#include "../text/Text.h"

namespace Norvctl {

using Norv::State::Kind;
using Norv::State::Object;

std::vector<Object> objectsMeant(const std::string& words) {
  std::vector<Object> objects;
  for (int kind = 0; kind <= static_cast<int>(Kind::trafficClass); ++kind) {
    Object object{static_cast<Kind>(kind), ""};
    const std::string head = text(object);  // "module "
    object.name = words;
    objects.push_back(object);
    if (!words.starts_with(head)) continue;
    object.name = words.substr(head.size());
    objects.push_back(object);
  }
  return objects;
}

std::string deathKey(const Object& object) {
  constexpr std::size_t longest = 500, kept = 200;
  std::string key = escaped(text(object));
  if (key.size() <= longest) return key;
  std::size_t end = kept;
  while ((key[end] & 0xc0) == 0x80) --end;  // between two characters
  return key.substr(0, end) + "..." + fingerprint(key);
}

std::string fingerprint(std::string_view text) {
  char digits[17];
  std::snprintf(digits, sizeof digits, "%016zx", std::hash<std::string_view>()(text));
  return digits;
}

}  // namespace Norvctl

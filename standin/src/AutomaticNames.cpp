#include "AutomaticNames.h"

#include <algorithm>
#include <charconv>

namespace Standin {

std::string AutomaticNames::next(const std::string& prefix,
                                 const std::function<bool(const std::string&)>& taken) {
  std::uint64_t& number = lowest_[prefix];
  while (taken(prefix + std::to_string(number))) ++number;
  return prefix + std::to_string(number);
}

void AutomaticNames::freed(const std::string& name) {
  const std::size_t digits = name.find_last_not_of("0123456789") + 1;
  const auto prefix = lowest_.find(name.substr(0, digits));
  std::uint64_t number = 0;
  if (prefix == lowest_.end()) return;
  const auto [end, error] =
      std::from_chars(name.data() + digits, name.data() + name.size(), number);
  if (error == std::errc()) prefix->second = std::min(prefix->second, number);
}

}  // namespace Standin

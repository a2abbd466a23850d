#include "PageAddress.h"

#include <sys/un.h>

#include <algorithm>
#include <charconv>

namespace Norvctl {

namespace {

constexpr int usualPort = 9514;

}  // namespace

std::optional<PageAddress> pageAddress(const std::string& text) {
  if (text.starts_with("unix:")) {
    const std::string path = text.substr(5);
    if (path.empty() || path.size() >= sizeof sockaddr_un{}.sun_path) return {};
    return PageAddress{path, 0, true};
  }
  const bool bracketed = text.starts_with('[');
  const auto end = bracketed ? text.find(']') : text.find(':');
  if (bracketed && end == std::string::npos) return {};
  PageAddress address{bracketed ? text.substr(1, end - 1) : text.substr(0, end), usualPort, false};
  const auto colon = bracketed ? end + 1 : std::min(end, text.size());
  if (address.host.empty() || address.host.find_first_of(" /[]") != std::string::npos) return {};
  if (colon == text.size()) return address;
  const char* const last = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data() + colon + 1, last, address.port);
  const bool number = text[colon] == ':' && error == std::errc() && rest == last;
  if (!number || address.port < 0 || address.port > 65535) return {};
  return address;
}

std::string text(const PageAddress& address) {
  if (address.local) return "unix:" + address.host;
  const bool v6 = address.host.find(':') != std::string::npos;
  return (v6 ? "[" + address.host + "]" : address.host) + ":" + std::to_string(address.port);
}

}  // namespace Norvctl

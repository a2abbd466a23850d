#pragma once

#include <optional>
#include <string>

namespace Norvctl {

// Where norvd serves its pages.
struct PageAddress {
  std::string host;    // without the brackets of IPv6; or the path of a unix socket
  int port = 0;        // 0: any that is free
  bool local = false;  // a unix socket
};

// HOST:PORT, HOST, [IPV6]:PORT or unix:PATH; nullopt: it is none of these. Whether there is such a
// host is not looked at.
std::optional<PageAddress> pageAddress(const std::string& text);
// The same as text, with the usual port where there was none.
std::string text(const PageAddress& address);

}  // namespace Norvctl

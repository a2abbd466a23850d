#pragma once

#include <functional>
#include <memory>
#include <string>

#include "Metrics.h"
#include "Status.h"

namespace Norvd {

// The pages, on threads of their own. No request changes anything, and none holds up the main
// thread: they show what is on the board. An address that is taken is tried again.
class Web {
 public:
  // `address`: HOST:PORT, [IPV6]:PORT or unix:PATH; empty: no pages. `notice` is told why they
  // cannot be served, and with an empty text that they are; on any thread.
  Web(const std::string& address, const Board& board, const Metrics& metrics,
      std::function<void(const std::string&)> notice);
  ~Web();
  Web(const Web&) = delete;
  Web& operator=(const Web&) = delete;

 private:
  class Server;
  const std::unique_ptr<Server> server_;
};

}  // namespace Norvd

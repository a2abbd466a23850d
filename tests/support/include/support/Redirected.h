#pragma once

#include <fcntl.h>
#include <unistd.h>

namespace support {

// While it lives, a standard stream (STDIN_FILENO to STDERR_FILENO) leads to where `to` does, which
// it takes over, or is closed.
class Redirected {
 public:
  explicit Redirected(int stream, int to = -1)
      : stream_(stream), before_(::fcntl(stream, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)) {
    if (to < 0) {
      ::close(stream);
    } else {
      ::dup2(to, stream);
      ::close(to);
    }
  }
  ~Redirected() {
    ::dup2(before_, stream_);
    ::close(before_);
  }
  Redirected(const Redirected&) = delete;
  Redirected& operator=(const Redirected&) = delete;

 private:
  const int stream_;
  const int before_;
};

}  // namespace support

#pragma once

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace support {

// While it lives, what this thread allocates may be given up: the leak sanitizer does not report
// it.
class ExpectedLeak {
 public:
#if defined(__SANITIZE_ADDRESS__)
  ExpectedLeak() {
    __lsan_disable();
  }
  ~ExpectedLeak() {
    __lsan_enable();
  }
#else
  ExpectedLeak() {}
  ~ExpectedLeak() {}
#endif
  ExpectedLeak(const ExpectedLeak&) = delete;
  ExpectedLeak& operator=(const ExpectedLeak&) = delete;
};

}  // namespace support

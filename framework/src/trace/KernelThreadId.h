#pragma once

namespace Lumo {

namespace detail {
// 0 until the thread asks for the first time. In the library's own part of each thread's memory,
// where one instruction reads it.
extern thread_local constinit int keptThreadId
    __attribute__((tls_model("initial-exec"), visibility("hidden")));
__attribute__((visibility("hidden"))) int askThreadId();
}  // namespace detail

// The kernel's id of the calling thread, kept per thread; right in a forked child too.
inline int kernelThreadId() {
  return detail::keptThreadId ? detail::keptThreadId : detail::askThreadId();
}

}  // namespace Lumo

#pragma once

#include <cxxabi.h>

namespace Lumo {

// Calls `call`, and for what it throws `handle`, inside the exception's handler. The cancellation
// of the thread goes on its way; what is caught of it is no object, which a sanitizer would mind.
template <class Call, class Handle>
__attribute__((no_sanitize("null"))) void catching(Call&& call, Handle&& handle) {
  try {
    call();
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    handle();
  }
}

}  // namespace Lumo

#pragma once

#include <stdexcept>
#include <string>

namespace Standin {

// A request that the daemon refuses in band. Thrown by the state, turned into the response's
// `error` by the service; `code` is an errno, or one of the daemon's few negative numbers.
struct Refusal : std::runtime_error {
  Refusal(int refusalCode, const std::string& text) : std::runtime_error(text), code(refusalCode) {}
  int code;
};

// A request on which the daemon's handler fails: the call itself ends with status UNKNOWN.
struct HandlerFailure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// A request that the daemon does not have: the call itself ends with status UNIMPLEMENTED.
struct Unimplemented : std::runtime_error {
  using std::runtime_error::runtime_error;
};

}  // namespace Standin

#pragma once

#include <optional>
#include <string>

namespace Norv::Agent {

// The status of an RPC that failed.
struct RpcFailure {
  int code = 0;
  std::string text;
};

// Makes the client's failures known here, as nothing but its trace tells them: a sink of the text
// trace that stands before the one there was and passes everything on to it. It stays for the
// process, until somebody puts another one in its place.
void followRpcFailures();

// What the client traced on this thread since the last call, if it was followed.
std::optional<RpcFailure> takeRpcFailure();

}  // namespace Norv::Agent

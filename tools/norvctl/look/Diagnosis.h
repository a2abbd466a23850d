#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include <Lumo/Types.h>

namespace Norvctl {

// What a look at a host beside the library finds: it resolves the name, connects once and asks for
// the first words of HTTP/2.
struct Diagnosis {
  // One of: unknown_name, refused, no_route, time_out, no_http2, silent, proxy, answers.
  std::string reason;
  std::string text;  // for a person: what it is and what to do
};

// May take as long as `patience` for each step, and longer where the system's resolver does.
Diagnosis diagnose(const std::string& host, U16 port, std::chrono::milliseconds patience);

// The same on a thread of its own, which is left behind if it takes too long.
class DiagnosisUnderWay {
 public:
  DiagnosisUnderWay(const std::string& host, U16 port, std::chrono::milliseconds patience);
  // What was found, once it is; waits for it as long as told.
  std::optional<Diagnosis> result(std::chrono::milliseconds wait = {}) const;

 private:
  struct Shared;
  const std::shared_ptr<Shared> shared_;
};

// The proxy that calls to the host go through, as the environment says; empty: none.
std::string proxyFor(const std::string& host);
// Takes the loopback out of what goes through a proxy, for the channels of this process: its usual
// names, and the host if it is another. Call it before there are threads.
void exemptLoopbackFromProxies(const std::string& host);

}  // namespace Norvctl

#include "RpcFailures.h"

#include <charconv>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include <Lumo/Trace.h>
#include <Norv/ClientTrace.h>

namespace Norv::Agent {

namespace {

constexpr const char* client = "GrpcClient";

thread_local std::optional<RpcFailure> lastOfThisThread;

// "... error_code: 14 error_message: Socket closed"
std::optional<RpcFailure> parse(std::string_view text) {
  constexpr std::string_view codeMark = "error_code: ";
  constexpr std::string_view textMark = " error_message: ";
  const std::size_t code = text.find(codeMark);
  const std::size_t message = text.find(textMark);
  if (code == std::string_view::npos || message == std::string_view::npos) return std::nullopt;
  RpcFailure failure;
  std::from_chars(text.data() + code + codeMark.size(), text.data() + message, failure.code);
  failure.text = text.substr(message + textMark.size());
  return failure;
}

class FailureSink : public Lumo::TraceSink {
 public:
  FailureSink()
      : previous_(Lumo::traceSink()), wanted_(Lumo::TraceFacility::levelEnabled({client, 0})) {
    Lumo::traceLevelIs(client, 0, true);
  }

  void lineIs(const Lumo::TraceLine& line) override {
    const bool failure = line.level == 0 && line.facility == client;
    if (failure) lastOfThisThread = parse(line.text);
    if (failure && !wanted_) return;
    if (previous_) {
      previous_->lineIs(line);
      return;
    }
    Lumo::writeToStandardError(line);
  }

 private:
  Lumo::TraceSink* const previous_;
  const bool wanted_;  // by whoever reads the trace
};

}  // namespace

void followRpcFailures() {
  static std::mutex once;
  // They stay: the worker may be inside one as the process ends.
  static auto& sinks = *new std::vector<std::unique_ptr<FailureSink>>;
  const std::lock_guard guard(once);
  if (!sinks.empty() && Lumo::traceSink() == sinks.back().get()) {
    Lumo::traceLevelIs(client, 0, true);
    return;
  }
  Lumo::traceSinkIs(sinks.emplace_back(std::make_unique<FailureSink>()).get());
}

std::optional<RpcFailure> takeRpcFailure() {
  return std::exchange(lastOfThisThread, std::nullopt);
}

}  // namespace Norv::Agent

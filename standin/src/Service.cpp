#include "Service.h"

#include <fcntl.h>
#include <google/protobuf/unknown_field_set.h>
#include <google/protobuf/util/json_util.h>
#include <google/protobuf/wrappers.pb.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>

#include <Lumo/PrivateFile.h>

#include "Connections.h"
#include "RequestText.h"

namespace Standin {

namespace {

constexpr std::size_t tooLarge = (4u << 20) + 1;  // More bytes than a client of gRPC takes.
constexpr int unknownField = 1000;                // No message has it.
constexpr auto glance =
    std::chrono::milliseconds(20);  // Between looks at whether a client is there.

// One call of a dump or a recording.
nlohmann::json parsed(const std::string& line) {
  nlohmann::json call = nlohmann::json::parse(line, nullptr, false);
  if (!call.is_object()) throw std::invalid_argument("is no object of JSON");
  if (!call.contains("type") || !call["type"].is_string())
    throw std::invalid_argument("has no type, the request's name");
  if (call.contains("response") && !call["response"].is_object())
    throw std::invalid_argument("has a response that is no object");
  if (call.contains("status") && !call["status"].is_object())
    throw std::invalid_argument(
        "is of a log, which tells no state; write one with `bessd-standin ctl ADDRESS dump FILE`");
  return call;
}

// Whether the line is of a recording and its call did not come to the daemon: one that could not be
// decoded, or that it did not have.
bool neverArrived(const nlohmann::json& call) {
  if (!call.contains("status") || !call["status"].contains("code")) return false;
  const nlohmann::json& code = call["status"]["code"];
  return code == static_cast<int>(grpc::StatusCode::INTERNAL) ||
         code == static_cast<int>(grpc::StatusCode::UNIMPLEMENTED);
}

// Refuses what ends otherwise than it did where it was dumped. A recording, whose lines have a
// status, is of another daemon, and nothing in it must be so here.
void checkEnd(const nlohmann::json& call, const grpc::Status& status,
              const bess::pb::Error& error) {
  if (call.contains("status") || !call.contains("response")) return;
  const nlohmann::json& response = call["response"];
  const nlohmann::json::json_pointer path("/error/code");
  if (response.contains(path) && !response[path].is_number_integer())
    throw std::invalid_argument("has a code that is no number");
  const int expected = response.contains(path) ? response[path].get<int>() : 0;
  const bool unimplemented = status.error_code() == grpc::StatusCode::UNIMPLEMENTED;
  if (expected == error.code() && !unimplemented) return;
  const auto shown = [](int code) {
    return code == 0 ? std::string("taken") : "refused with " + std::to_string(code);
  };
  throw std::invalid_argument(
      "was " + shown(expected) + " where it was dumped and is " +
      (unimplemented ? "not implemented" : shown(error.code())) + " here" +
      (error.errmsg().empty() ? "" : " (" + error.errmsg() + ")") +
      "; start this stand-in with the options of that one, such as --cores, and where its files "
      "are");
}

template <class Message>
void fromLine(const nlohmann::json& line, Message& message) {
  if (line.contains("request_raw")) {
    google::protobuf::BytesValue bytes;
    if (google::protobuf::util::JsonStringToMessage(line["request_raw"].dump(), &bytes).ok() &&
        message.ParseFromString(bytes.value()))
      return;
  } else if (!line.contains("request")) {
    return;
  } else {
    google::protobuf::util::JsonParseOptions options;
    options.ignore_unknown_fields = true;
    if (google::protobuf::util::JsonStringToMessage(line["request"].dump(), &message, options).ok())
      return;
  }
  throw std::invalid_argument("has a request that is not one of its type");
}

}  // namespace

Service::Service(const Options& options) : options_(options), state_(stateFrom(options.state)) {
  for (const std::string& rule : options.faults) faults_.add(Fault::parse(rule));
  paceIs(options.pace);
  if (options.log.empty()) return;
  if (options.log == "-") {
    log_ = stderr;
    return;
  }
  try {
    log_ = ::fdopen(Lumo::openPrivately(options.log, O_WRONLY | O_APPEND), "a");
  } catch (const Lumo::PathError& error) {
    throw std::runtime_error("cannot write the log to " + options.log + ": " + error.what() +
                             "; choose another file, or - for stderr");
  }
}

Service::~Service() {
  if (log_ != nullptr && log_ != stderr) std::fclose(log_);
}

std::string Service::dump() const {
  const std::lock_guard lock(mutex_);
  return state_.journal.lines();
}

void Service::playLine(State& state, const std::string& line) const {
  const nlohmann::json call = parsed(line);
  if (neverArrived(call)) return;
  const std::string type = call["type"];
  bool known = false;
#define NORV_REQUEST(number, name, rpc, request, response)                        \
  if (type == #name) {                                                            \
    bess::pb::request in;                                                         \
    bess::pb::response out;                                                       \
    fromLine(call, in);                                                           \
    known = true;                                                                 \
    if (std::strcmp(#name, "killBess") != 0) {                                    \
      const grpc::Status status = apply(state, number, &Requests::name, in, out); \
      checkEnd(call, status, out.error());                                        \
    }                                                                             \
  }
#include <Norv/GrpcRequests.def>
  if (!known) throw std::invalid_argument("has the type '" + type + "', which no request has");
}

Service::State Service::stateFrom(const std::string& text) const {
  State state{std::make_unique<Daemon>(options_), {}};
  std::istringstream lines(text);
  std::string line;
  for (int at = 1; std::getline(lines, line); ++at) {
    if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
    try {
      playLine(state, line);
    } catch (const std::invalid_argument& error) {
      throw std::invalid_argument("line " + std::to_string(at) + " of the state " + error.what());
    }
  }
  return state;
}

void Service::load(const std::string& lines) {
  State state = stateFrom(lines);
  const std::lock_guard lock(mutex_);
  std::swap(state_, state);
}

void Service::stopWaiting() {
  const std::lock_guard lock(waitMutex_);
  stopping_ = true;
  waitCondition_.notify_all();
}

void Service::waitUntil(std::chrono::steady_clock::time_point end, grpc::ServerContext& context,
                        const std::function<bool()>& over) {
  std::unique_lock lock(waitMutex_);
  while (!stopping_ && !over() && std::chrono::steady_clock::now() < end && !context.IsCancelled())
    waitCondition_.wait_until(lock, std::min(end, std::chrono::steady_clock::now() + glance));
}

Pace Service::pace() const {
  const std::lock_guard lock(waitMutex_);
  return pace_;
}

void Service::paceIs(const Pace& pace) {
  const std::lock_guard lock(waitMutex_);
  pace_ = pace;
  paced_.store(pace.rate > 0 || pace.latencyMs > 0 || pace.maxLatencyMs > 0,
               std::memory_order_relaxed);
  nextTurn_ = {};
  ++paces_;
  waitCondition_.notify_all();
}

void Service::keepPace(grpc::ServerContext& context) {
  if (!paced_.load(std::memory_order_relaxed)) return;
  const auto now = std::chrono::steady_clock::now();
  auto end = now;
  int set = 0;
  {
    const std::lock_guard lock(waitMutex_);
    set = paces_;
    if (pace_.rate > 0) {
      end = std::max(now, nextTurn_);
      nextTurn_ = end + std::chrono::nanoseconds(static_cast<std::int64_t>(1e9 / pace_.rate));
    }
    const std::uint32_t most = std::max(pace_.latencyMs, pace_.maxLatencyMs);
    end += std::chrono::milliseconds(
        std::uniform_int_distribution<std::uint32_t>(pace_.latencyMs, most)(random_));
  }
  waitUntil(end, context, [&] { return set != paces_; });
}

void Service::hangUp(grpc::ServerContext& context) {
  if (!Standin::hangUp(context.peer(), address())) context.TryCancel();
}

void Service::exit() {
  if (!options_.onExit) std::_Exit(1);
  options_.onExit();
}

bool Service::strikesBefore(const Faults::Strike& strike, grpc::ServerContext& context) {
  switch (strike.fault.kind) {
    case Fault::Kind::Delay:
      waitUntil(std::chrono::steady_clock::now() + std::chrono::milliseconds(strike.ms), context);
      return false;
    case Fault::Kind::HangUp:
      hangUp(context);
      return true;
    case Fault::Kind::StopAccepting:
      stopListening(address());
      return false;
    case Fault::Kind::Exit:  // Once it is logged.
    case Fault::Kind::Status:
    case Fault::Kind::Error:
      return true;
    default:
      return false;
  }
}

grpc::Status Service::spoil(const Fault& fault, grpc::ServerContext& context,
                            google::protobuf::Message& out, const grpc::Status& status) {
  google::protobuf::UnknownFieldSet& extra = *out.GetReflection()->MutableUnknownFields(&out);
  if (fault.kind == Fault::Kind::Undecodable) {
    extra.AddLengthDelimited(1,
                             "\xff\xff");  // Every response has a message there, and no such one.
  } else if (fault.kind == Fault::Kind::TooLarge) {
    extra.AddLengthDelimited(unknownField, std::string(tooLarge, 'x'));
  } else if (fault.kind == Fault::Kind::NoReply) {
    waitUntil(std::chrono::steady_clock::time_point::max(), context);
    return {grpc::StatusCode::UNAVAILABLE, "no reply, on demand"};
  } else if (fault.kind == Fault::Kind::HangUpAfter) {
    hangUp(context);
    return {grpc::StatusCode::UNAVAILABLE, "hung up, on demand"};
  }
  return status;
}

void Service::log(const char* rpc, const google::protobuf::Message& in,
                  const bess::pb::Error& error, const grpc::Status& status,
                  const std::optional<Faults::Strike>& strike,
                  std::chrono::steady_clock::time_point begin) {
  using std::chrono::duration;
  nlohmann::ordered_json line;
  line["time"] = duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  line["type"] = rpc;
  line.update(nlohmann::ordered_json::parse("{" + requestText(in) + "}"));
  line["status"] = static_cast<int>(status.error_code());
  if (error.code() != 0) line["error"] = {{"code", error.code()}, {"errmsg", error.errmsg()}};
  if (strike) line["fault"] = strike->fault.toString();
  line["us"] = duration<double, std::micro>(std::chrono::steady_clock::now() - begin).count();
  // Texts of a client may be any bytes.
  const std::string text =
      line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
  const std::lock_guard lock(logMutex_);
  std::fwrite(text.data(), 1, text.size(), log_);
  std::fflush(log_);
}

}  // namespace Standin

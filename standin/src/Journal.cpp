#include "Journal.h"

#include <algorithm>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string_view>

#include <bess/pb/service.pb.h>

#include "RequestText.h"

namespace Standin {

namespace {

constexpr std::size_t limit = 256u << 20;  // Bytes kept.

// Requests that leave everything as it is.
constexpr std::string_view passive[] = {
    "getVersion",    "listPlugins", "listWorkers",   "listTcs",      "getTcStats",    "listDrivers",
    "getDriverInfo", "listPorts",   "getPortConf",   "getPortStats", "getLinkStatus", "listMclass",
    "getMclassInfo", "listModules", "getModuleInfo", "dumpMempool",  "killBess",
};

enum Number {
#define NORV_REQUEST(number, name, rpc, request, response) name = number,
#include <Norv/GrpcRequests.def>
};

struct Request {
  const char* name;
  bool changes;
  std::unique_ptr<google::protobuf::Message> (*make)();
};

constexpr bool changes(std::string_view name) {
  return std::find(std::begin(passive), std::end(passive), name) == std::end(passive);
}

template <class Message>
std::unique_ptr<google::protobuf::Message> make() {
  return std::make_unique<Message>();
}

// By number, which begins with 1.
constexpr Request byNumber[] = {
    {"", false, nullptr},
#define NORV_REQUEST(number, name, rpc, request, response) \
  {#name, changes(#name), make<bess::pb::request>},
#include <Norv/GrpcRequests.def>
};

// Whether a module command only asks for something, as one does that a program repeats for ever.
bool asks(const google::protobuf::Message& request) {
  const std::string& command = static_cast<const bess::pb::CommandRequest&>(request).cmd();
  return command.starts_with("get_") || command == "lookup";
}

}  // namespace

void Journal::note(int number, const google::protobuf::Message& request, int code) {
  if (number == Number::resetAll) {
    // What goes on beyond a reset is little: plugins, and whose turn it is. It is kept so long as
    // there is room.
    if (full_) *this = Journal();
  } else if (full_ || !byNumber[number].changes ||
             (number == Number::moduleCommand && asks(request))) {
    return;
  }
  calls_.push_back({number, code, request.SerializeAsString()});
  bytes_ += sizeof(Call) + calls_.back().request.size();
  if (bytes_ <= limit) return;
  full_ = true;
  calls_.clear();
}

std::string Journal::lines() const {
  if (full_)
    throw std::runtime_error(
        "more has happened than can be dumped (256 MiB); the next resetAll begins anew");
  std::string lines;
  for (const Call& call : calls_) {
    const auto request = byNumber[call.number].make();
    request->ParseFromString(call.request);
    // As a recording has it, cut down to what a load compares.
    const std::string error =
        call.code == 0 ? "" : "\"error\":{\"code\":" + std::to_string(call.code) + "}";
    lines += std::string("{\"type\":\"") + byNumber[call.number].name + "\"," +
             requestText(*request) + ",\"response\":{" + error + "}}\n";
  }
  return lines;
}

}  // namespace Standin

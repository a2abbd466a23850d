#include "Journal.h"

#include <google/protobuf/util/json_util.h>
#include <google/protobuf/wrappers.pb.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <memory>
#include <stdexcept>

#include <bess/pb/service.pb.h>

namespace Standin {

namespace {

constexpr std::size_t limit = 256u << 20;  // Bytes kept.

// Requests that leave everything as it is.
constexpr const char* passive[] = {
    "getVersion",    "listPlugins", "listWorkers",   "listTcs",      "getTcStats",    "listDrivers",
    "getDriverInfo", "listPorts",   "getPortConf",   "getPortStats", "getLinkStatus", "listMclass",
    "getMclassInfo", "listModules", "getModuleInfo", "dumpMempool",  "killBess",
};

bool changes(const char* rpc) {
  return std::none_of(std::begin(passive), std::end(passive),
                      [rpc](const char* name) { return std::strcmp(name, rpc) == 0; });
}

std::unique_ptr<google::protobuf::Message> emptyRequest(const char* rpcName) {
#define NORV_REQUEST(number, name, rpc, request, response) \
  if (std::strcmp(rpcName, #name) == 0) return std::make_unique<bess::pb::request>();
#include <Norv/GrpcRequests.def>
  return nullptr;
}

std::string json(const google::protobuf::Message& message) {
  std::string text;
  return google::protobuf::util::MessageToJsonString(message, &text).ok() ? text : "";
}

}  // namespace

void Journal::note(const char* rpc, const google::protobuf::Message& request) {
  if (std::strcmp(rpc, "resetAll") == 0) {
    // What goes on beyond a reset is little: plugins, and whose turn it is. It is kept so long as
    // there is room.
    if (full_) *this = Journal();
  } else if (full_ || !changes(rpc)) {
    return;
  }
  calls_.push_back({rpc, request.SerializeAsString()});
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
    const auto request = emptyRequest(call.rpc);
    request->ParseFromString(call.request);
    const std::string text = json(*request);
    lines += std::string("{\"type\":\"") + call.rpc + "\",";
    if (!text.empty()) {
      lines += "\"request\":" + text + "}\n";
    } else {  // An argument that JSON cannot show.
      google::protobuf::BytesValue bytes;
      bytes.set_value(call.request);
      lines += "\"request_raw\":" + json(bytes) + "}\n";
    }
  }
  return lines;
}

}  // namespace Standin

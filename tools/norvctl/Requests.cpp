#include "Requests.h"

#include <google/protobuf/any.pb.h>
#include <google/protobuf/util/json_util.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <numeric>

#include <bess/pb/module_arg.pb.h>
#include <bess/pb/port_arg.pb.h>
#include <bess/pb/service.pb.h>

namespace Norvctl {

namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;

// How many letters to insert, delete or exchange to make one name of the other.
std::size_t editDistance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = row[0]++;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t exchange = diagonal + (a[i - 1] != b[j - 1]);
      diagonal = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, exchange});
    }
  }
  return row.back();
}

// Makes every field present, one element in each list; messages inside messages to a small depth.
void fill(Message* message, int depth) {
  if (auto* any = dynamic_cast<google::protobuf::Any*>(message)) {
    any->PackFrom(bess::pb::EmptyArg());
    return;
  }
  const auto* reflection = message->GetReflection();
  for (int i = 0; i < message->GetDescriptor()->field_count(); ++i) {
    const FieldDescriptor* field = message->GetDescriptor()->field(i);
    const bool isMessage = field->cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE;
    const bool later =
        field->real_containing_oneof() && field->real_containing_oneof()->field(0) != field;
    if (!isMessage || field->is_map() || later || depth == 0) continue;
    fill(field->is_repeated() ? reflection->AddMessage(message, field)
                              : reflection->MutableMessage(message, field),
         depth - 1);
  }
}

}  // namespace

const std::vector<RequestInfo>& requestInfos() {
  static const std::vector<RequestInfo> infos{
#define NORV_REQUEST(number, name, Rpc, Request, Response) \
  {Norv::name, #name, #Rpc, #Request, #Response},
#include <Norv/GrpcRequests.def>
  };
  return infos;
}

const RequestInfo* requestInfo(std::string_view name) {
  for (const RequestInfo& info : requestInfos()) {
    if (info.name == name) return &info;
  }
  return nullptr;
}

const RequestInfo& nearestRequest(std::string_view name) {
  return *std::min_element(requestInfos().begin(), requestInfos().end(),
                           [&](const RequestInfo& a, const RequestInfo& b) {
                             return editDistance(name, a.name) < editDistance(name, b.name);
                           });
}

std::string unknownType(std::string_view name) {
  return "unknown type \"" + std::string(name) + "\"; the nearest is \"" +
         std::string(nearestRequest(name).name) + "\" (`norvctl types` lists all)";
}

std::unique_ptr<Message> newRequest(Norv::GrpcRequestType type) {
  switch (type) {
#define NORV_REQUEST(number, name, Rpc, Request, Response) \
  case Norv::name:                                         \
    return std::make_unique<bess::pb::Request>();
#include <Norv/GrpcRequests.def>
    default:
      return nullptr;
  }
}

std::string parseRequest(const std::string& json, Message* message) {
  const auto status = google::protobuf::util::JsonStringToMessage(json, message);
  return status.ok() ? std::string() : std::string(status.message());
}

std::string requestTemplate(Norv::GrpcRequestType type) {
  const std::unique_ptr<Message> message = newRequest(type);
  fill(message.get(), 3);
  google::protobuf::util::JsonPrintOptions options;
  options.add_whitespace = true;
  options.always_print_primitive_fields = true;
  std::string json;
  const auto status = google::protobuf::util::MessageToJsonString(*message, &json, options);
  return status.ok() ? json : "{}\n";
}

std::string messageJson(const Message& message) {
  std::string json;
  if (google::protobuf::util::MessageToJsonString(message, &json).ok()) return json;
  return nlohmann::json(message.ShortDebugString())
      .dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace Norvctl

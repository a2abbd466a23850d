#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <google/protobuf/util/json_util.h>

#include <Norv/Agent/Tracked.h>
#include <bess/pb/common.pb.h>

namespace Norv::Agent {

// Every response of the daemon has an optional message `error` of one type; it is found by name, so
// that this works for all of them.
ResponseError responseError(const google::protobuf::Message& response) {
  const google::protobuf::FieldDescriptor* field =
      response.GetDescriptor()->FindFieldByName("error");
  if (!field || field->message_type() != bess::pb::Error::descriptor()) return {};
  if (!response.GetReflection()->HasField(response, field)) return {};
  const auto& error =
      static_cast<const bess::pb::Error&>(response.GetReflection()->GetMessage(response, field));
  return {error.code(), error.errmsg()};
}

std::string jsonOf(const google::protobuf::Message* message, std::size_t mostBytes) {
  if (!message) return "the command has none any more";
  const std::size_t bytes = message->ByteSizeLong();
  if (bytes > mostBytes) return "too large to be shown: " + std::to_string(bytes) + " bytes";
  std::string json;
  const auto status = google::protobuf::util::MessageToJsonString(*message, &json);
  return status.ok() ? json : "not to be shown as JSON: " + status.ToString();
}

}  // namespace Norv::Agent

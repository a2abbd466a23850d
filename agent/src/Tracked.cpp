#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

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

}  // namespace Norv::Agent

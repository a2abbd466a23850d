#include "RequestText.h"

#include <google/protobuf/util/json_util.h>
#include <google/protobuf/wrappers.pb.h>

#include <memory>

namespace Standin {

namespace {

std::string json(const google::protobuf::Message& message) {
  std::string text;
  return google::protobuf::util::MessageToJsonString(message, &text).ok() ? text : "";
}

}  // namespace

std::string requestText(const google::protobuf::Message& request) {
  const std::string text = json(request);
  const std::unique_ptr<google::protobuf::Message> again(request.New());
  if (google::protobuf::util::JsonStringToMessage(text, again.get()).ok() &&
      again->SerializeAsString() == request.SerializeAsString())
    return "\"request\":" + text;
  google::protobuf::BytesValue bytes;
  bytes.set_value(request.SerializeAsString());
  return "\"request_raw\":" + json(bytes);
}

}  // namespace Standin

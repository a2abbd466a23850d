#pragma once

#include <google/protobuf/message.h>

#include <string>

namespace Standin {

// A request as a field of a line of JSON: "request":{...}, or "request_raw":"..." with its bytes
// when there is something in it that JSON cannot show.
std::string requestText(const google::protobuf::Message& request);

}  // namespace Standin

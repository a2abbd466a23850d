#pragma once

#include <google/protobuf/any.pb.h>

namespace Standin {

// The argument in `any`, or an argument with defaults when it holds another type, an unknown type
// or bytes that do not decode: the daemon checks none of it.
template <class Message>
Message unpack(const google::protobuf::Any& any) {
  Message message;
  if (!any.UnpackTo(&message)) message.Clear();
  return message;
}

}  // namespace Standin

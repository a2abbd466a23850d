#pragma once

#include <google/protobuf/message.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <Norv/GrpcRequestType.h>

// The daemon's requests as a person names and writes them.
namespace Norvctl {

struct RequestInfo {
  Norv::GrpcRequestType type;
  std::string_view name;
  std::string_view rpc;
  std::string_view requestMessage;   // without the package
  std::string_view responseMessage;  // without the package
};
const std::vector<RequestInfo>& requestInfos();  // by number

// Null when there is no such request.
const RequestInfo* requestInfo(std::string_view name);
// The request whose name is spelled most like `name`.
const RequestInfo& nearestRequest(std::string_view name);
// What to say about a name that is no request's.
std::string unknownType(std::string_view name);

// An empty request message of the type.
std::unique_ptr<google::protobuf::Message> newRequest(Norv::GrpcRequestType type);
// Fills `message` from proto3 JSON; the empty text on success, else what is wrong with it.
std::string parseRequest(const std::string& json, google::protobuf::Message* message);
// A body with every field of the request present, to be filled in.
std::string requestTemplate(Norv::GrpcRequestType type);
// One line of proto3 JSON; where an Any in it cannot be shown, a JSON string with a rendering.
std::string messageJson(const google::protobuf::Message& message);

}  // namespace Norvctl

#pragma once

#include <google/protobuf/message.h>

#include <memory>
#include <nlohmann/json_fwd.hpp>
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
std::vector<std::string> requestNames();
// What to say about a name that is no request's.
std::string unknownType(std::string_view name);

// An empty message of the type.
std::unique_ptr<google::protobuf::Message> newRequest(Norv::GrpcRequestType type);
std::unique_ptr<google::protobuf::Message> newResponse(Norv::GrpcRequestType type);
// Fills `message` from proto3 JSON; the empty text on success, else what is wrong with it.
std::string parseRequest(const std::string& json, google::protobuf::Message* message);
// A field that stands in an object under both its names, as in "num_inc_q" and "numIncQ", of which
// the parser would take the last: what to say about it; empty when there is none.
std::string fieldNamedTwice(const nlohmann::json& body,
                            const google::protobuf::Descriptor& message);
// What to say about a body that is no request, with advice where its fields are shown.
std::string badRequest(const RequestInfo& info, const std::string& body, const std::string& error);

// One line of proto3 JSON; where an Any in it cannot be shown, its type and its bytes in base64.
std::string messageJson(const google::protobuf::Message& message, bool emitDefaults = false);
// The same for a person: indented JSON, or YAML.
std::string indentedJson(const google::protobuf::Message& message, bool emitDefaults = false);
std::string messageYaml(const google::protobuf::Message& message, bool emitDefaults = false);

}  // namespace Norvctl

#include "Requests.h"

#include <google/protobuf/any.pb.h>
#include <google/protobuf/util/json_util.h>
#include <google/protobuf/wrappers.pb.h>

#include <map>
#include <nlohmann/json.hpp>

#include <Bess/Facts.h>
#include <Bess/Text.h>
#include <bess/pb/service.pb.h>

#include "../text/Text.h"

namespace Norvctl {

namespace {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;
using nlohmann::ordered_json;

bool showable(const google::protobuf::Any& any) {
  std::string json;
  return google::protobuf::util::MessageToJsonString(any, &json).ok();
}

// Puts a text with its type and its bytes in base64 into the place of every Any that JSON cannot
// show; true if there was one.
bool removeUnshowable(Message* message, int depth = 0) {
  constexpr int deepest = 100;
  if (depth > deepest) return false;
  bool removed = false;
  const Reflection* reflection = message->GetReflection();
  std::vector<const FieldDescriptor*> fields;
  reflection->ListFields(*message, &fields);
  for (const FieldDescriptor* field : fields) {
    if (field->cpp_type() != FieldDescriptor::CPPTYPE_MESSAGE || field->is_map()) continue;
    const int count = field->is_repeated() ? reflection->FieldSize(*message, field) : 1;
    for (int i = 0; i < count; ++i) {
      Message* inner = field->is_repeated() ? reflection->MutableRepeatedMessage(message, field, i)
                                            : reflection->MutableMessage(message, field);
      auto* any = dynamic_cast<google::protobuf::Any*>(inner);
      if (any && !showable(*any)) {
        google::protobuf::StringValue shown;
        shown.set_value(any->type_url() + " " + Bess::base64(any->value()));
        any->PackFrom(shown);
        removed = true;
      } else {
        removed = removeUnshowable(inner, depth + 1) || removed;
      }
    }
  }
  return removed;
}

void writeYaml(const ordered_json& value, int indent, std::string& out) {
  const std::string blanks(static_cast<std::size_t>(indent), ' ');
  const auto isLeaf = [](const ordered_json& one) { return !one.is_structured() || one.empty(); };
  const auto child = [&](const ordered_json& one) {
    if (isLeaf(one)) {
      out += " " + oneLineJson(one) + "\n";
    } else {
      out += "\n";
      writeYaml(one, indent + 2, out);
    }
  };
  if (value.is_object()) {
    for (const auto& [key, one] : value.items()) {
      const bool plain =
          !key.empty() &&
          key.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_") ==
              std::string::npos;
      out += blanks + (plain ? key : jsonText(key)) + ":";
      child(one);
    }
  } else {
    for (const auto& one : value) {
      out += blanks + "-";
      if (isLeaf(one)) {
        child(one);
        continue;
      }
      std::string inner;
      writeYaml(one, indent + 2, inner);
      out += " " + inner.substr(static_cast<std::size_t>(indent) + 2);
    }
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

std::vector<std::string> requestNames() {
  std::vector<std::string> names;
  for (const RequestInfo& info : requestInfos()) names.emplace_back(info.name);
  return names;
}

std::string unknownType(std::string_view name) {
  return "unknown type \"" + std::string(name) + "\"; the nearest is \"" +
         nearest(name, requestNames()) + "\" (`norvctl types` lists all)";
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

std::unique_ptr<Message> newResponse(Norv::GrpcRequestType type) {
  switch (type) {
#define NORV_REQUEST(number, name, Rpc, Request, Response) \
  case Norv::name:                                         \
    return std::make_unique<bess::pb::Response>();
#include <Norv/GrpcRequests.def>
    default:
      return nullptr;
  }
}

std::string parseRequest(const std::string& json, Message* message) {
  const auto status = google::protobuf::util::JsonStringToMessage(json, message);
  if (status.ok()) return {};
  // Behind the first line the parser shows where in the text it stood.
  const std::string reason(status.message());
  return reason.substr(0, reason.find('\n'));
}

std::string fieldNamedTwice(const nlohmann::json& body, const Descriptor& message) {
  if (!body.is_object()) return {};
  const Descriptor* fields = &message;
  if (message.full_name() == "google.protobuf.Any") {
    const std::string type = body.value("@type", "");
    fields = google::protobuf::DescriptorPool::generated_pool()->FindMessageTypeByName(
        type.substr(type.rfind('/') + 1));
  }
  if (!fields) return {};
  std::map<const FieldDescriptor*, std::string> seen;
  for (const auto& [key, value] : body.items()) {
    const FieldDescriptor* field = fields->FindFieldByName(key);
    if (!field) field = fields->FindFieldByCamelcaseName(key);
    if (!field) continue;
    const auto [other, first] = seen.emplace(field, key);
    if (!first) {
      return "\"" + other->second + "\" and \"" + key + "\" are the same field; leave one out";
    }
    if (field->cpp_type() != FieldDescriptor::CPPTYPE_MESSAGE || field->is_map()) continue;
    const Descriptor& inner = *field->message_type();
    std::string wrong = field->is_repeated() ? "" : fieldNamedTwice(value, inner);
    for (std::size_t i = 0; field->is_repeated() && i < value.size() && wrong.empty(); ++i) {
      wrong = fieldNamedTwice(value[i], inner);
    }
    if (!wrong.empty()) return wrong;
  }
  return {};
}

std::string badRequest(const RequestInfo& info, const std::string& body, const std::string& error) {
  std::string advice = "norvctl template " + std::string(info.name);
  const auto given = nlohmann::json::parse(body, nullptr, false);
  const auto word = [&](const char* key) {
    const bool there = given.is_object() && given.contains(key) && given[key].is_string();
    return there ? given[key].get<std::string>() : std::string();
  };
  if (Bess::moduleClass(word("mclass"))) advice += " --class " + word("mclass");
  if (Bess::portDriver(word("driver"))) advice += " --driver " + word("driver");
  return "request of " + std::string(info.name) + " (" + std::string(info.requestMessage) +
         "): " + error + "; `" + advice + "` shows its fields";
}

std::string messageJson(const Message& message, bool emitDefaults) {
  google::protobuf::util::JsonPrintOptions options;
  options.always_print_primitive_fields = emitDefaults;
  std::string json;
  if (google::protobuf::util::MessageToJsonString(message, &json, options).ok()) {
    return withoutCommands(json);
  }
  const std::unique_ptr<Message> copy(message.New());
  copy->CopyFrom(message);
  json.clear();
  if (removeUnshowable(copy.get()) &&
      google::protobuf::util::MessageToJsonString(*copy, &json, options).ok()) {
    return withoutCommands(json);
  }
  return jsonText(message.ShortDebugString());
}

std::string indentedJson(const Message& message, bool emitDefaults) {
  return jsonForPerson(ordered_json::parse(messageJson(message, emitDefaults)));
}

std::string messageYaml(const Message& message, bool emitDefaults) {
  const auto json = ordered_json::parse(messageJson(message, emitDefaults));
  if (!json.is_structured() || json.empty()) return oneLineJson(json) + "\n";
  std::string out;
  writeYaml(json, 0, out);
  return out;
}

}  // namespace Norvctl

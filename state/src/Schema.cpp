#include <nlohmann/json.hpp>

#include <Bess/Facts.h>
#include <Norv/State/ClassTable.h>
#include <Norv/State/Document.h>

#include "Modules.h"

// The schema of documents, from the tables of classes and the protocol's messages.

namespace Norv::State {

namespace {

using Json = nlohmann::ordered_json;
using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;

const Json integer = {{"type", {"integer", "string"}}};
const Json anyText = {{"type", "string"}};
const Json truth = {{"type", "boolean"}};

Json object(Json properties, const std::vector<std::string>& required = {}) {
  Json schema = {
      {"type", "object"}, {"additionalProperties", false}, {"properties", std::move(properties)}};
  if (!required.empty()) schema["required"] = required;
  return schema;
}

Json named(Json value) {
  return {{"type", "object"}, {"additionalProperties", std::move(value)}};
}

Json list(Json item) {
  return {{"type", "array"}, {"items", std::move(item)}};
}

Json messageSchema(const Descriptor& type);

Json valueSchema(const FieldDescriptor& field) {
  switch (field.cpp_type()) {
    case FieldDescriptor::CPPTYPE_MESSAGE:
      // A plain value stands for a FieldData.
      if (field.message_type()->name() == "FieldData") return Json::object();
      return messageSchema(*field.message_type());
    case FieldDescriptor::CPPTYPE_BOOL:
      return truth;
    case FieldDescriptor::CPPTYPE_DOUBLE:
      return {{"type", "number"}};
    case FieldDescriptor::CPPTYPE_STRING:
      if (const auto allowed = wordsFor(field); !allowed.empty()) return {{"enum", allowed}};
      if (field.type() == FieldDescriptor::TYPE_STRING) return anyText;
      return {{"type", {"string", "integer"}}};
    default:
      return integer;
  }
}

Json messageSchema(const Descriptor& type) {
  Json properties = Json::object();
  for (int i = 0; i < type.field_count(); ++i) {
    const FieldDescriptor& field = *type.field(i);
    Json schema;
    if (field.is_map()) {
      schema = named(valueSchema(*field.message_type()->map_value()));
    } else {
      schema = field.is_repeated() ? list(valueSchema(field)) : valueSchema(field);
    }
    if (const std::string comment = Bess::comment(field); !comment.empty()) {
      schema["description"] = comment;
    }
    properties[field.name()] = schema;
    if (field.json_name() != field.name()) properties[field.json_name()] = std::move(schema);
  }
  return object(std::move(properties));
}

Json argumentSchema(std::string_view type) {
  const auto* descriptor = type.empty() ? nullptr : Bess::message(type);
  if (descriptor == nullptr) return {{"const", "unknown"}};
  return {{"anyOf", {messageSchema(*descriptor), {{"const", "unknown"}}}}};
}

// Chosen by the value of `key`.
Json choice(const std::string& key, const std::string& value, Json properties) {
  properties[key] = {{"const", value}};
  return object(std::move(properties), {key});
}

Json placeSchema() {
  return {{"parent", anyText}, {"wid", integer}, {"priority", integer}, {"share", integer}};
}

Json moduleSchema() {
  Json classes = Json::array();
  Json choices = Json::array();
  const Json task = {{"anyOf", {anyText, object(placeSchema()), {{"type", "null"}}}}};
  for (const ClassRow& row : classRows()) {
    classes.push_back(row.name);
    Json properties = {{"class", {}},
                       {"arg", argumentSchema(Bess::moduleClass(row.name)->argument)}};
    if (row.tasks) properties["tasks"] = {{"anyOf", {task, list(task)}}};
    for (const Setting& setting : row.settings) {
      if (!setting.inArgument()) properties[std::string(setting.fields)] = integer;
    }
    if (row.entryTable != nullptr) {
      properties[std::string(row.entryTable->name)] = list(messageSchema(*entryOf(row)));
    }
    choices.push_back(choice("class", std::string(row.name), std::move(properties)));
  }
  choices.push_back({{"enum", std::move(classes)}});
  return {{"anyOf", std::move(choices)}};
}

Json portSchema() {
  Json drivers = Json::array();
  Json choices = Json::array();
  for (const Bess::Taker& driver : Bess::portDrivers()) {
    drivers.push_back(driver.name);
    choices.push_back(choice("driver", std::string(driver.name),
                             {{"driver", {}},
                              {"arg", argumentSchema(driver.argument)},
                              {"num_inc_q", integer},
                              {"num_out_q", integer},
                              {"size_inc_q", integer},
                              {"size_out_q", integer},
                              {"mac_addr", anyText},
                              {"mtu", integer},
                              {"admin_up", truth}}));
  }
  choices.push_back({{"enum", std::move(drivers)}});
  return {{"anyOf", std::move(choices)}};
}

Json hookSchema() {
  Json choices = Json::array();
  for (const Bess::Taker& hook : Bess::gateHooks()) {
    choices.push_back(choice("class", daemonHookName(hook.name),
                             {{"class", {}},
                              {"module", anyText},
                              {"igate", integer},
                              {"ogate", integer},
                              {"name", anyText},
                              {"arg", argumentSchema(hook.argument)}}));
  }
  return {{"anyOf", std::move(choices)}};
}

Json trafficClassSchema() {
  Json properties = placeSchema();
  const Json amount = {{"anyOf", {integer, named(integer)}}};
  const Json policies = {"priority", "weighted_fair", "round_robin", "rate_limit"};
  properties["policy"] = {{"enum", policies}};
  properties["resource"] = {{"enum", {"count", "cycle", "packet", "bit", "unknown"}}};
  properties["limit"] = amount;
  properties["max_burst"] = amount;
  return {{"anyOf", {object(std::move(properties), {"policy"}), {{"enum", policies}}}}};
}

}  // namespace

std::string jsonSchema() {
  const Json connection = object({{"from", anyText},
                                  {"ogate", integer},
                                  {"to", anyText},
                                  {"igate", integer},
                                  {"skip_default_hooks", truth}},
                                 {"from", "to"});
  const Json worker = object({{"core", integer}, {"scheduler", anyText}, {"running", truth}});
  Json schema = object({{"plugins", list(anyText)},
                        {"workers", named({{"anyOf", {worker, {{"type", "null"}}}}})},
                        {"ports", named(portSchema())},
                        {"modules", named(moduleSchema())},
                        {"connections", list({{"anyOf", {anyText, connection}}})},
                        {"traffic_classes", named(trafficClassSchema())},
                        {"hooks", list(hookSchema())}});
  Json whole = {{"$schema", "https://json-schema.org/draft/2020-12/schema"},
                {"title", "The wanted switch"}};
  whole.update(schema);
  return whole.dump(2) + "\n";
}

}  // namespace Norv::State

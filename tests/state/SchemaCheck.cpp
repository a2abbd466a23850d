#include "SchemaCheck.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>

#include <Norv/State/Document.h>

namespace Norv::State {

namespace {

using Json = nlohmann::json;

bool isOf(const std::string& type, const Json& value) {
  if (type == "object") return value.is_object();
  if (type == "array") return value.is_array();
  if (type == "string") return value.is_string();
  if (type == "integer") return value.is_number_integer();
  if (type == "number") return value.is_number();
  if (type == "boolean") return value.is_boolean();
  if (type == "null") return value.is_null();
  throw std::runtime_error("no type " + type);
}

std::string check(const Json& schema, const Json& value, const std::string& at);

bool fits(const Json& schema, const Json& value) {
  return check(schema, value, "").empty();
}

std::string checkObject(const Json& schema, const Json& value, const std::string& at) {
  for (const Json& key : schema.value("required", Json::array())) {
    const auto name = key.get<std::string>();
    if (!value.contains(name)) return at + ": no " + name;
  }
  const Json properties = schema.value("properties", Json::object());
  const Json others = schema.value("additionalProperties", Json(true));
  for (const auto& [key, inner] : value.items()) {
    const std::string place = at + "/" + key;
    const Json& wanted = properties.contains(key) ? properties.at(key) : others;
    if (wanted == Json(false)) return place + ": not known";
    if (wanted == Json(true)) continue;
    if (std::string why = check(wanted, inner, place); !why.empty()) return why;
  }
  return "";
}

std::string check(const Json& schema, const Json& value, const std::string& at) {
  static const std::set<std::string> known{"$schema",  "title", "description",         "type",
                                           "enum",     "const", "properties",          "anyOf",
                                           "required", "items", "additionalProperties"};
  for (const auto& [word, meaning] : schema.items()) {
    if (!known.contains(word)) throw std::runtime_error("no word " + word);
  }
  if (schema.contains("type")) {
    const Json& type = schema["type"];
    const Json types = type.is_array() ? type : Json::array({type});
    if (std::none_of(types.begin(), types.end(),
                     [&](const Json& one) { return isOf(one, value); })) {
      return at + ": not of type " + type.dump();
    }
  }
  if (schema.contains("const") && schema["const"] != value) return at + ": another value";
  if (schema.contains("enum")) {
    const Json& words = schema["enum"];
    if (std::find(words.begin(), words.end(), value) == words.end()) return at + ": none of those";
  }
  if (schema.contains("anyOf")) {
    const Json& choices = schema["anyOf"];
    if (std::none_of(choices.begin(), choices.end(),
                     [&](const Json& one) { return fits(one, value); })) {
      return at + ": fits nothing";
    }
  }
  if (schema.contains("items") && value.is_array()) {
    for (std::size_t i = 0; i < value.size(); ++i) {
      std::string why = check(schema["items"], value[i], at + "/" + std::to_string(i));
      if (!why.empty()) return why;
    }
  }
  return value.is_object() ? checkObject(schema, value, at) : "";
}

}  // namespace

std::string schemaProblem(const std::string& document) {
  static const Json schema = Json::parse(jsonSchema());
  return check(schema, Json::parse(document), "");
}

}  // namespace Norv::State

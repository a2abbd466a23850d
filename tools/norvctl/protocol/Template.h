#pragma once

#include <google/protobuf/descriptor.h>

#include <string>
#include <vector>

#include "Requests.h"

namespace Norvctl {

// The names of what Bess::Facts tells.
template <class Named>
std::vector<std::string> namesOf(const std::vector<Named>& all) {
  std::vector<std::string> names;
  names.reserve(all.size());
  for (const Named& one : all) names.emplace_back(one.name);
  return names;
}

// What the argument of a template is for; names of Bess::Facts, empty where none is given.
struct TemplateChoice {
  std::string moduleClass;
  std::string command;  // of the class
  std::string driver;
  std::string hook;
};

// What is wrong with the choice for this request, with the nearest right name; empty: nothing.
std::string checkChoice(const RequestInfo& info, const TemplateChoice& choice);

// A body with every field of the request present, to be filled in: of fields of which only one may
// be given, the first. JSON that `call` and `run` take.
std::string templateJson(const RequestInfo& info, const TemplateChoice& choice);
// The same as YAML with each field's type and comment, and what may be given instead.
std::string templateYaml(const RequestInfo& info, const TemplateChoice& choice);

// The type of a field as a person reads it, as in "repeated uint64" or "Field".
std::string typeText(const google::protobuf::FieldDescriptor& field);

}  // namespace Norvctl

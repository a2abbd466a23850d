#include "Template.h"

#include <google/protobuf/any.pb.h>

#include <memory>
#include <nlohmann/json.hpp>

#include <Bess/Facts.h>
#include <bess/pb/module_arg.pb.h>

#include "../text/Text.h"

namespace Norvctl {

namespace {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::MessageFactory;
using google::protobuf::Reflection;
using nlohmann::ordered_json;

constexpr int deepest = 4;

// Null where the choice names none: the argument stays empty.
const Descriptor* argumentOf(const TemplateChoice& choice) {
  std::string_view name;
  if (const Bess::ModuleClass* known = Bess::moduleClass(choice.moduleClass)) {
    const Bess::Taker* command = Bess::command(*known, choice.command);
    name = choice.command.empty() ? known->argument : command ? command->argument : name;
  } else if (const Bess::Taker* driver = Bess::portDriver(choice.driver)) {
    name = driver->argument;
  } else if (const Bess::Taker* hook = Bess::gateHook(choice.hook)) {
    name = hook->argument;
  }
  return name.empty() ? nullptr : Bess::message(name);
}

// Gives a field that only shows when it is set its usual value.
void present(Message* message, const FieldDescriptor* field) {
  const Reflection* reflection = message->GetReflection();
  switch (field->cpp_type()) {
    case FieldDescriptor::CPPTYPE_STRING:
      return reflection->SetString(message, field, "");
    case FieldDescriptor::CPPTYPE_INT32:
      return reflection->SetInt32(message, field, 0);
    case FieldDescriptor::CPPTYPE_INT64:
      return reflection->SetInt64(message, field, 0);
    case FieldDescriptor::CPPTYPE_UINT32:
      return reflection->SetUInt32(message, field, 0);
    case FieldDescriptor::CPPTYPE_UINT64:
      return reflection->SetUInt64(message, field, 0);
    case FieldDescriptor::CPPTYPE_DOUBLE:
      return reflection->SetDouble(message, field, 0);
    case FieldDescriptor::CPPTYPE_FLOAT:
      return reflection->SetFloat(message, field, 0);
    case FieldDescriptor::CPPTYPE_BOOL:
      return reflection->SetBool(message, field, false);
    case FieldDescriptor::CPPTYPE_ENUM:
      return reflection->SetEnumValue(message, field, 0);
    case FieldDescriptor::CPPTYPE_MESSAGE:
      return;
  }
}

bool laterOfOneof(const FieldDescriptor* field) {
  return field->real_containing_oneof() && field->real_containing_oneof()->field(0) != field;
}

// Makes every field present, one element in each list of messages.
void fill(Message* message, const Descriptor* argument, int depth) {
  if (auto* any = dynamic_cast<google::protobuf::Any*>(message)) {
    if (!argument) argument = bess::pb::EmptyArg::descriptor();
    const std::unique_ptr<Message> content(
        MessageFactory::generated_factory()->GetPrototype(argument)->New());
    fill(content.get(), nullptr, depth);
    any->PackFrom(*content);
    return;
  }
  const Reflection* reflection = message->GetReflection();
  for (int i = 0; i < message->GetDescriptor()->field_count(); ++i) {
    const FieldDescriptor* field = message->GetDescriptor()->field(i);
    if (field->is_map() || laterOfOneof(field)) continue;
    if (field->cpp_type() != FieldDescriptor::CPPTYPE_MESSAGE) {
      if (field->real_containing_oneof()) present(message, field);
    } else if (depth > 0) {
      fill(field->is_repeated() ? reflection->AddMessage(message, field)
                                : reflection->MutableMessage(message, field),
           argument, depth - 1);
    }
  }
}

std::unique_ptr<Message> filled(const Descriptor* message) {
  std::unique_ptr<Message> made(MessageFactory::generated_factory()->GetPrototype(message)->New());
  fill(made.get(), nullptr, deepest);
  return made;
}

void setIfThere(Message* message, const char* name, const std::string& value) {
  const FieldDescriptor* field = message->GetDescriptor()->FindFieldByName(name);
  if (field && !value.empty()) message->GetReflection()->SetString(message, field, value);
}

// The fields of a request that say what its argument is for.
void name(Message* request, const TemplateChoice& choice) {
  if (choice.command.empty()) setIfThere(request, "mclass", choice.moduleClass);
  setIfThere(request, "cmd", choice.command);
  setIfThere(request, "driver", choice.driver);
  const FieldDescriptor* hook = request->GetDescriptor()->FindFieldByName("hook");
  if (hook && !choice.hook.empty()) {
    setIfThere(request->GetReflection()->MutableMessage(request, hook), "class_name", choice.hook);
  }
}

std::string usualValue(const FieldDescriptor* field) {
  if (field->is_map()) return "{}";
  if (field->is_repeated()) return "[]";
  switch (field->cpp_type()) {
    case FieldDescriptor::CPPTYPE_STRING:
      return "\"\"";
    case FieldDescriptor::CPPTYPE_BOOL:
      return "false";
    case FieldDescriptor::CPPTYPE_MESSAGE:
      return "{}";
    default:
      return "0";
  }
}

// Writes YAML for the fields of a message; `given` has the values that are not the usual ones.
class YamlTemplate {
 public:
  YamlTemplate(const Descriptor* argument, const Message* given)
      : argument_(argument), given_(given) {}

  std::string text(const Descriptor* message) {
    fields(message, given_, 0, "", deepest);
    return std::move(out_);
  }

 private:
  void fields(const Descriptor* message, const Message* given, int indent,
              const std::string& firstLead, int depth) {
    const std::string blanks(static_cast<std::size_t>(indent), ' ');
    for (int i = 0; i < message->field_count(); ++i) {
      const FieldDescriptor* field = message->field(i);
      const std::string lead = i == 0 && !firstLead.empty() ? firstLead : blanks;
      const std::string comment = Bess::comment(*field);
      const bool instead = laterOfOneof(field);
      if (!comment.empty()) out_ += blanks + "# " + comment + "\n";
      out_ += (instead ? blanks + "# or instead: " : lead) + field->json_name() + ":";
      const bool isMessage =
          field->cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE && !field->is_map();
      if (instead || !isMessage || depth == 0) {
        out_ += " " + value(field, given) + "  # " + typeText(*field) + "\n";
        continue;
      }
      out_ += "  # " + typeText(*field) + "\n";
      inner(field, given, indent + 2, depth - 1);
    }
  }

  std::string value(const FieldDescriptor* field, const Message* given) const {
    const bool text =
        field->cpp_type() == FieldDescriptor::CPPTYPE_STRING && !field->is_repeated() && given;
    if (!text) return usualValue(field);
    return jsonText(given->GetReflection()->GetString(*given, field));
  }

  void inner(const FieldDescriptor* field, const Message* given, int indent, int depth) {
    const std::string blanks(static_cast<std::size_t>(indent), ' ');
    const Descriptor* message = field->message_type();
    const bool any = message->full_name() == "google.protobuf.Any";
    if (any) {
      message = argument_ ? argument_ : bess::pb::EmptyArg::descriptor();
      out_ += blanks + "\"@type\": \"type.googleapis.com/" + message->full_name() + "\"\n";
    }
    const Message* deeper = nullptr;
    if (given && !any && !field->is_repeated()) {
      deeper = &given->GetReflection()->GetMessage(*given, field);
    }
    if (message->field_count() == 0 && !any) {
      out_ += blanks + (field->is_repeated() ? "- {}\n" : "{}\n");
      return;
    }
    const bool listed = field->is_repeated();
    fields(message, deeper, listed ? indent + 2 : indent, listed ? blanks + "- " : "", depth);
  }

  const Descriptor* const argument_;
  const Message* const given_;
  std::string out_;
};

std::string unknown(const std::string& what, const std::string& given,
                    const std::vector<std::string>& names) {
  return "unknown " + what + " \"" + given + "\"; " +
         (names.empty() ? "there is none" : "the nearest is \"" + nearest(given, names) + "\"");
}

}  // namespace

std::string typeText(const FieldDescriptor& field) {
  if (field.is_map()) {
    return "map from " + typeText(*field.message_type()->field(0)) + " to " +
           typeText(*field.message_type()->field(1));
  }
  std::string text = field.is_repeated() ? "repeated " : "";
  if (field.cpp_type() != FieldDescriptor::CPPTYPE_MESSAGE) return text + field.type_name();
  const Descriptor& message = *field.message_type();
  return text + (message.full_name() == "google.protobuf.Any" ? "Any" : Bess::shortName(message));
}

std::string checkChoice(const RequestInfo& info, const TemplateChoice& choice) {
  const bool forClass = info.type == Norv::createModule || info.type == Norv::moduleCommand;
  const std::string request(info.name);
  if (!choice.moduleClass.empty() && !forClass) {
    return "--class is for createModule and moduleCommand, not for " + request;
  }
  if (!choice.driver.empty() && info.type != Norv::createPort) {
    return "--driver is for createPort, not for " + request;
  }
  if (!choice.hook.empty() && info.type != Norv::configureGateHook) {
    return "--hook is for configureGateHook, not for " + request;
  }
  if (!choice.command.empty() && (info.type != Norv::moduleCommand || choice.moduleClass.empty())) {
    return "--command is for moduleCommand, together with --class";
  }
  const Bess::ModuleClass* known = Bess::moduleClass(choice.moduleClass);
  if (!choice.moduleClass.empty() && !known) {
    return unknown("class", choice.moduleClass, namesOf(Bess::moduleClasses()));
  }
  if (info.type == Norv::moduleCommand && known && choice.command.empty()) {
    const std::vector<std::string> commands = namesOf(known->commands);
    return commands.empty() ? choice.moduleClass + " has no commands"
                            : "--class of moduleCommand needs --command; " + choice.moduleClass +
                                  " has " + listed(commands);
  }
  if (!choice.command.empty() && !Bess::command(*known, choice.command)) {
    return unknown("command of " + choice.moduleClass, choice.command, namesOf(known->commands));
  }
  if (!choice.driver.empty() && !Bess::portDriver(choice.driver)) {
    return unknown("driver", choice.driver, namesOf(Bess::portDrivers()));
  }
  if (!choice.hook.empty() && !Bess::gateHook(choice.hook)) {
    return unknown("hook", choice.hook, namesOf(Bess::gateHooks()));
  }
  return {};
}

std::string templateJson(const RequestInfo& info, const TemplateChoice& choice) {
  const std::unique_ptr<Message> message = newRequest(info.type);
  fill(message.get(), argumentOf(choice), deepest);
  name(message.get(), choice);
  auto body = ordered_json::parse(messageJson(*message, true));
  // Inside an Any, fields of the usual value are left out where there is no other.
  if (const Descriptor* argument = argumentOf(choice)) {
    ordered_json& arg = body.contains("hook") ? body["hook"]["arg"] : body["arg"];
    const std::unique_ptr<Message> content = filled(argument);
    arg = {{"@type", "type.googleapis.com/" + argument->full_name()}};
    arg.update(ordered_json::parse(messageJson(*content, true)));
  }
  return body.dump(2) + "\n";
}

std::string templateYaml(const RequestInfo& info, const TemplateChoice& choice) {
  const std::unique_ptr<Message> message = newRequest(info.type);
  name(message.get(), choice);
  const std::string about = Bess::rpcComment(info.rpc);
  const std::string text =
      YamlTemplate(argumentOf(choice), message.get()).text(message->GetDescriptor());
  return (about.empty() ? "" : "# " + about + "\n") + (text.empty() ? "{}\n" : text);
}

}  // namespace Norvctl

#include "Modules.h"

#include <arpa/inet.h>

#include <algorithm>

#include <bess/pb/module_arg.pb.h>

namespace Norv::State {

namespace {

using google::protobuf::FieldDescriptor;

bool allDigits(std::string_view text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

std::string trimmed(const std::string& text) {
  const std::size_t first = text.find_first_not_of(' ');
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

std::uint64_t gateOf(const std::string& digits) {
  return digits.size() > 6 ? 1000000 : std::stoull(digits);
}

// An entry has one value for each field that the module looks at.
std::string wrongCount(const Message& entry, std::size_t values) {
  const auto& type = *entry.GetDescriptor();
  for (int i = 0; values != 0 && i < type.field_count(); ++i) {
    const FieldDescriptor& list = *type.field(i);
    if (list.message_type() != bess::pb::FieldData::descriptor()) continue;
    const int size = entry.GetReflection()->FieldSize(entry, &list);
    if (static_cast<std::size_t>(size) == values) continue;
    return "\"" + list.name() + "\" has " + std::to_string(size) +
           (size == 1 ? " value" : " values") + ", and the module looks at " +
           std::to_string(values) + (values == 1 ? " field" : " fields");
  }
  return "";
}

std::string wrongPrefix(const Message& entry) {
  const auto* route = dynamic_cast<const bess::pb::IPLookupCommandAddArg*>(&entry);
  in_addr address{};
  if (route == nullptr || inet_pton(AF_INET, route->prefix().c_str(), &address) != 1) return "";
  if (route->prefix_len() > 32) {
    return "a prefix is at most 32 bits long, not " + std::to_string(route->prefix_len());
  }
  const std::uint64_t bits = ntohl(address.s_addr);
  if ((bits << route->prefix_len() & 0xffffffffu) == 0) return "";
  return route->prefix() + " has bits behind the first " + std::to_string(route->prefix_len());
}

std::int64_t numberIn(const Message& message, const FieldDescriptor& field, int index) {
  const auto& reflection = *message.GetReflection();
  const bool one = index < 0;
  switch (field.cpp_type()) {
    case FieldDescriptor::CPPTYPE_INT64:
      return one ? reflection.GetInt64(message, &field)
                 : reflection.GetRepeatedInt64(message, &field, index);
    case FieldDescriptor::CPPTYPE_UINT32:
      return one ? reflection.GetUInt32(message, &field)
                 : reflection.GetRepeatedUInt32(message, &field, index);
    default:
      return 0;
  }
}

void collectGates(const Message& message, std::set<std::int64_t>& gates) {
  const auto& reflection = *message.GetReflection();
  std::vector<const FieldDescriptor*> fields;
  reflection.ListFields(message, &fields);
  for (const FieldDescriptor* field : fields) {
    const int size = field->is_repeated() ? reflection.FieldSize(message, field) : 0;
    const bool named = field->name() == "gate" || field->name() == "gates";
    if (named && !field->is_repeated()) gates.insert(numberIn(message, *field, -1));
    for (int i = 0; i < size; ++i) {
      if (named) gates.insert(numberIn(message, *field, i));
      if (field->cpp_type() != FieldDescriptor::CPPTYPE_MESSAGE) continue;
      const Message& inner = reflection.GetRepeatedMessage(message, field, i);
      if (field->name() == "worker_gates") {
        gates.insert(numberIn(inner, *field->message_type()->map_value(), -1));
      } else if (!field->is_map()) {
        collectGates(inner, gates);
      }
    }
  }
}

// A name that needs no map around it.
bool simple(const std::string& name) {
  return !name.empty() && name.find(':') == std::string::npos &&
         name.find("->") == std::string::npos && trimmed(name) == name;
}

}  // namespace

std::unique_ptr<Message> newMessage(const google::protobuf::Descriptor& type) {
  return std::unique_ptr<Message>(
      google::protobuf::MessageFactory::generated_factory()->GetPrototype(&type)->New());
}

std::unique_ptr<Message> newEntry(const ClassRow& row) {
  return newMessage(*entryOf(row));
}

std::unique_ptr<Message> only(const std::vector<std::string>& fields, const Message& message) {
  std::unique_ptr<Message> copy(message.New());
  copy->CopyFrom(message);
  std::vector<const FieldDescriptor*> set;
  message.GetReflection()->ListFields(message, &set);
  for (const FieldDescriptor* field : set) {
    if (std::find(fields.begin(), fields.end(), field->name()) == fields.end()) {
      copy->GetReflection()->ClearField(copy.get(), field);
    }
  }
  return copy;
}

Widths entryWidths(const ClassRow& row, const Module& module) {
  if (row.entryTable->widths.empty() || !module.arg) return {};
  const auto argument = unpacked(*module.arg);
  return argument ? widthsIn(*argument) : Widths();
}

std::string entryKey(const ClassRow& row, const Message& entry) {
  return serialized(*only(words(row.entryTable->key), entry));
}

bool normaliseEntry(const ClassRow& row, Message& entry, std::size_t values,
                    std::string& complaint) {
  const auto& type = *entry.GetDescriptor();
  complaint = wrongCount(entry, values);
  if (complaint.empty()) complaint = wrongPrefix(entry);
  if (!complaint.empty()) return false;
  for (const char* name : {"addr", "mac_addr"}) {
    const FieldDescriptor* field = type.FindFieldByName(name);
    if (field == nullptr) continue;
    const std::string text = entry.GetReflection()->GetString(entry, field);
    const auto mac = macText(text);
    if (!mac) {
      complaint = "no MAC address: \"" + text + "\"";
      return false;
    }
    entry.GetReflection()->SetString(&entry, field, *mac);
  }
  for (const char* name : {"prefix", "ip"}) {
    const FieldDescriptor* field = type.FindFieldByName(name);
    if (field == nullptr) continue;
    const std::string text = entry.GetReflection()->GetString(entry, field);
    char address[4];
    if (inet_pton(AF_INET, text.c_str(), address) != 1) {
      complaint = "no IPv4 address: \"" + text + "\"";
      return false;
    }
  }
  if (const FieldDescriptor* gate = type.FindFieldByName("gate")) {
    const std::uint64_t number =
        gate->cpp_type() == FieldDescriptor::CPPTYPE_INT64
            ? static_cast<std::uint64_t>(entry.GetReflection()->GetInt64(entry, gate))
            : entry.GetReflection()->GetUInt64(entry, gate);
    if (number >= row.outputs && number != dropGate) {
      complaint = "gate " + std::to_string(number) + " is above the last of class " +
                  std::string(row.name) + ", " + std::to_string(row.outputs - 1);
      return false;
    }
  }
  return true;
}

std::set<std::int64_t> gatesBeyond(const Module& module) {
  const ClassRow* row = classRow(module.moduleClass);
  std::set<std::int64_t> gates;
  if (row == nullptr || !module.arg || module.arg->value().empty()) return gates;
  if (const auto argument = unpacked(*module.arg)) collectGates(*argument, gates);
  std::erase_if(gates, [&](std::int64_t gate) {
    return (gate >= 0 && gate < row->outputs) || gate == static_cast<std::int64_t>(dropGate);
  });
  return gates;
}

std::string portOf(const Module& module) {
  const ClassRow* row = classRow(module.moduleClass);
  if (row == nullptr || row->port.empty() || !module.arg) return "";
  const auto argument = unpacked(*module.arg);
  if (!argument) return "";
  const FieldDescriptor* field = argument->GetDescriptor()->FindFieldByName(std::string(row->port));
  return field == nullptr ? "" : argument->GetReflection()->GetString(*argument, field);
}

std::unique_ptr<Message> fullArgument(const Module& module) {
  const ClassRow* row = classRow(module.moduleClass);
  const auto* type = row == nullptr ? nullptr : argumentOf(*row);
  if (type == nullptr || !module.arg) return nullptr;
  std::unique_ptr<Message> argument = unpacked(*module.arg);
  if (!argument && module.arg->value().empty()) argument = newMessage(*type);
  if (!argument || argument->GetDescriptor() != type) return nullptr;
  makeCanonical(*argument);
  if (row->fillDefaults != nullptr) row->fillDefaults(*argument);
  return argument;
}

bool parseConnection(const std::string& text, Gate& from, Gate& to) {
  const std::size_t arrow = text.find("->");
  if (arrow == std::string::npos || text.find("->", arrow + 1) != std::string::npos) return false;
  const std::string left = trimmed(text.substr(0, arrow));
  const std::string right = trimmed(text.substr(arrow + 2));
  from = {left, 0};
  to = {right, 0};
  if (const std::size_t colon = left.rfind(':'); colon != std::string::npos) {
    const std::string gate = trimmed(left.substr(colon + 1));
    if (!allDigits(gate)) return false;
    from = {trimmed(left.substr(0, colon)), gateOf(gate)};
  }
  if (const std::size_t colon = right.find(':'); colon != std::string::npos) {
    const std::string gate = trimmed(right.substr(0, colon));
    if (!allDigits(gate)) return false;
    to = {trimmed(right.substr(colon + 1)), gateOf(gate)};
  }
  return simple(from.module) && simple(to.module);
}

std::string connectionText(const Gate& from, const Gate& to) {
  if (!simple(from.module) || !simple(to.module)) return "";
  return from.module + (from.number == 0 ? "" : ":" + std::to_string(from.number)) + " -> " +
         (to.number == 0 ? "" : std::to_string(to.number) + ":") + to.module;
}

const Bess::Taker* hookClass(const std::string& name) {
  for (const Bess::Taker& one : Bess::gateHooks()) {
    if (name == one.name || name == daemonHookName(one.name)) return &one;
  }
  return nullptr;
}

std::string daemonHookName(std::string_view name) {
  if (name == "Pcapng") return "PcapNg";
  if (name == "Tcpdump") return "TcpDump";
  return std::string(name);
}

}  // namespace Norv::State

#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/util/message_differencer.h>

#include <algorithm>

#include <Bess/Facts.h>
#include <Norv/State/Switch.h>

namespace Norv::State {

std::size_t Switch::objects() const {
  const auto ofConnections = std::count_if(hooks.begin(), hooks.end(), [&](const auto& one) {
    return one.first == defaultHook(one.first.gate) && connections.contains(one.first.gate);
  });
  return plugins.size() + workers.size() + ports.size() + modules.size() + connections.size() +
         hooks.size() - static_cast<std::size_t>(ofConnections) + trafficClasses.size();
}

HookPoint defaultHook(const Gate& output) {
  return {output, true, defaultHookClass, defaultHookName};
}

std::string lacking(const Place& place, const std::string& policy) {
  if (policy == "priority" && !place.priority) return "priority";
  if (policy == "weighted_fair" && place.share.value_or(0) < 1) return "share";
  return "";
}

const char* sectionName(Kind kind) {
  switch (kind) {
    case Kind::plugin:
      return "plugins";
    case Kind::worker:
      return "workers";
    case Kind::port:
      return "ports";
    case Kind::module:
      return "modules";
    case Kind::connection:
      return "connections";
    case Kind::hook:
      return "hooks";
    case Kind::trafficClass:
      return "traffic_classes";
  }
  return "";
}

std::string text(const Object& object) {
  static constexpr const char* kinds[] = {"plugin",     "worker", "port",         "module",
                                          "connection", "hook",   "traffic class"};
  return std::string(kinds[static_cast<int>(object.kind)]) + " " + object.name;
}

Object objectOf(const Gate& output) {
  return {Kind::connection, output.module + ":" + std::to_string(output.number)};
}

Object objectOf(const HookPoint& hook) {
  return {Kind::hook, hook.hookClass + (hook.name.empty() ? "" : " " + hook.name) + " at " +
                          (hook.output ? "output " : "input ") + hook.gate.module + ":" +
                          std::to_string(hook.gate.number)};
}

std::unique_ptr<google::protobuf::Message> unpacked(const Any& any) {
  const std::string& url = any.type_url();
  const auto* type = Bess::message(url.substr(url.rfind('/') + 1));
  if (type == nullptr) return nullptr;
  const auto* prototype = google::protobuf::MessageFactory::generated_factory()->GetPrototype(type);
  if (prototype == nullptr) return nullptr;
  std::unique_ptr<google::protobuf::Message> message(prototype->New());
  if (!message->ParseFromString(any.value())) return nullptr;
  return message;
}

bool same(const Any& one, const Any& other) {
  if (one.value().empty() && other.value().empty()) return true;
  if (one.value() == other.value() && one.type_url() == other.type_url()) return true;
  auto left = unpacked(one);
  auto right = unpacked(other);
  // Without a type there is nothing in it.
  if (left == nullptr && right != nullptr && one.value().empty()) left.reset(right->New());
  if (right == nullptr && left != nullptr && other.value().empty()) right.reset(left->New());
  if (left == nullptr || right == nullptr || left->GetDescriptor() != right->GetDescriptor()) {
    return false;
  }
  return google::protobuf::util::MessageDifferencer::Equals(*left, *right);
}

std::string serialized(const google::protobuf::Message& message) {
  std::string bytes;
  {
    google::protobuf::io::StringOutputStream stream(&bytes);
    google::protobuf::io::CodedOutputStream coded(&stream);
    coded.SetSerializationDeterministic(true);
    message.SerializeToCodedStream(&coded);
  }
  return bytes;
}

}  // namespace Norv::State

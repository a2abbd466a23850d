#include <google/protobuf/descriptor.pb.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

#include <Bess/Facts.h>
#include <bess/pb/service.pb.h>

#include "DescriptorSet.h"

namespace Bess {

namespace {

using google::protobuf::Descriptor;
using google::protobuf::DescriptorPool;
using google::protobuf::FieldDescriptor;
using google::protobuf::FileDescriptor;
using google::protobuf::SourceLocation;

constexpr const char* package = "bess.pb.";

// The descriptors of the build, with the comments that the compiled-in ones have lost.
const DescriptorPool& commented() {
  static const std::unique_ptr<DescriptorPool> pool = [] {
    google::protobuf::FileDescriptorSet set;
    if (!set.ParseFromArray(descriptorSet, static_cast<int>(descriptorSetSize))) {
      throw std::logic_error("the embedded descriptors do not decode");
    }
    auto made = std::make_unique<DescriptorPool>();
    for (const auto& file : set.file()) made->BuildFile(file);
    return made;
  }();
  return *pool;
}

// Comment lines as one line.
std::string joined(const std::string& comment) {
  std::string line;
  for (const char c : comment) {
    const bool blank = c == ' ' || c == '\n';
    if (!blank) {
      line += c;
    } else if (!line.empty() && line.back() != ' ') {
      line += ' ';
    }
  }
  while (!line.empty() && line.back() == ' ') line.pop_back();
  return line;
}

template <class Declared>
std::string commentOf(const Declared* declared) {
  SourceLocation place;
  if (!declared || !declared->GetSourceLocation(&place)) return {};
  return joined(place.leading_comments.empty() ? place.trailing_comments : place.leading_comments);
}

void collect(const Descriptor* message, std::vector<const Descriptor*>& all) {
  if (message->options().map_entry()) return;
  all.push_back(message);
  for (int i = 0; i < message->nested_type_count(); ++i) collect(message->nested_type(i), all);
}

void collect(const FileDescriptor* file, std::vector<const Descriptor*>& all) {
  if (file->package() != "bess.pb") return;
  for (int i = 0; i < file->message_type_count(); ++i) collect(file->message_type(i), all);
}

template <class Named>
const Named* find(const std::vector<Named>& all, std::string_view name) {
  const auto found =
      std::find_if(all.begin(), all.end(), [&](const Named& one) { return one.name == name; });
  return found == all.end() ? nullptr : &*found;
}

}  // namespace

const std::vector<ModuleClass>& moduleClasses() {
  static const std::vector<ModuleClass> classes{
#define BESS_MODULE_CLASS(name, argument, ...) {{#name, argument}, {__VA_ARGS__}},
#include <Bess/Arguments.def>
  };
  return classes;
}

const std::vector<Taker>& portDrivers() {
  static const std::vector<Taker> drivers{
#define BESS_PORT_DRIVER(name, argument) {#name, argument},
#include <Bess/Arguments.def>
  };
  return drivers;
}

const std::vector<Taker>& gateHooks() {
  static const std::vector<Taker> hooks{
#define BESS_GATE_HOOK(name, argument) {#name, argument},
#include <Bess/Arguments.def>
  };
  return hooks;
}

const ModuleClass* moduleClass(std::string_view name) {
  return find(moduleClasses(), name);
}

const Taker* portDriver(std::string_view name) {
  return find(portDrivers(), name);
}

const Taker* gateHook(std::string_view name) {
  return find(gateHooks(), name);
}

const Taker* command(const ModuleClass& moduleClass, std::string_view name) {
  return find(moduleClass.commands, name);
}

const Descriptor* message(std::string_view name) {
  const bool full = name.starts_with(package);
  return DescriptorPool::generated_pool()->FindMessageTypeByName((full ? "" : package) +
                                                                 std::string(name));
}

const std::vector<const Descriptor*>& messages() {
  static const std::vector<const Descriptor*> all = [] {
    std::vector<const Descriptor*> found;
    const FileDescriptor* service =
        bess::pb::EmptyRequest::descriptor()->file()->pool()->FindFileByName(
            "bess/pb/service.proto");
    for (int i = 0; i < service->dependency_count(); ++i) collect(service->dependency(i), found);
    std::sort(found.begin(), found.end(), [](const Descriptor* a, const Descriptor* b) {
      return a->full_name() < b->full_name();
    });
    return found;
  }();
  return all;
}

std::string shortName(const Descriptor& message) {
  const std::string& name = message.full_name();
  return name.starts_with(package) ? name.substr(std::string_view(package).size()) : name;
}

std::string comment(const Descriptor& message) {
  return commentOf(commented().FindMessageTypeByName(message.full_name()));
}

std::string comment(const FieldDescriptor& field) {
  return commentOf(commented().FindFieldByName(field.full_name()));
}

std::string rpcComment(std::string_view rpc) {
  return commentOf(commented().FindMethodByName("bess.pb.BESSControl." + std::string(rpc)));
}

}  // namespace Bess

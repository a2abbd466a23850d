#include "Faults.h"

#include <google/protobuf/descriptor.h>

namespace Standin {

namespace {

using google::protobuf::FieldDescriptor;

// Whether a text field of the request, or of a message in it that is no argument, is the name.
bool names(const google::protobuf::Message& request, const std::string& name) {
  const auto& reflection = *request.GetReflection();
  std::vector<const FieldDescriptor*> fields;
  reflection.ListFields(request, &fields);
  for (const FieldDescriptor* field : fields) {
    if (field->is_repeated()) continue;
    if (field->cpp_type() == FieldDescriptor::CPPTYPE_STRING &&
        reflection.GetString(request, field) == name)
      return true;
    if (field->cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE &&
        field->message_type()->full_name() != "google.protobuf.Any" &&
        names(reflection.GetMessage(request, field), name))
      return true;
  }
  return false;
}

}  // namespace

void Faults::add(const Fault& fault) {
  const std::lock_guard lock(mutex_);
  rules_.push_back({fault, 0, 0, std::mt19937_64(fault.seed)});
  any_ = true;
}

void Faults::clear() {
  const std::lock_guard lock(mutex_);
  rules_.clear();
  any_ = false;
}

std::vector<FaultCount> Faults::counts() const {
  const std::lock_guard lock(mutex_);
  std::vector<FaultCount> counts;
  for (const Rule& rule : rules_)
    counts.push_back({rule.fault.toString(), rule.matched, rule.injected});
  return counts;
}

std::optional<Faults::Strike> Faults::find(const char* rpc,
                                           const google::protobuf::Message& request) {
  const std::lock_guard lock(mutex_);
  std::optional<Strike> strike;
  for (Rule& rule : rules_) {
    const Fault& fault = rule.fault;
    if (fault.rpc != "*" && fault.rpc != rpc) continue;
    if (!fault.name.empty() && !names(request, fault.name)) continue;
    ++rule.matched;
    if (strike) continue;
    if (fault.nth != 0 && rule.matched != fault.nth) continue;
    if (fault.every != 0 && rule.matched % fault.every != 0) continue;
    if (std::uniform_real_distribution<>()(rule.random) >= fault.probability) continue;
    ++rule.injected;
    std::uint32_t ms = fault.ms;
    if (fault.maxMs > fault.ms)
      ms = std::uniform_int_distribution<std::uint32_t>(fault.ms, fault.maxMs)(rule.random);
    strike = Strike{fault, ms};
  }
  return strike;
}

}  // namespace Standin

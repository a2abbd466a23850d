#pragma once

#include <map>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include <bess/pb/service.pb.h>

#include "ModuleState.h"

// Modules that choose an output gate, or drop, by a table of rules.

namespace Standin {

// The fields of a matching module and the number of bytes of each.
class MatchFields {
 public:
  using Fields = google::protobuf::RepeatedPtrField<bess::pb::Field>;
  using Values = google::protobuf::RepeatedPtrField<bess::pb::FieldData>;
  // Whose words a refusal uses.
  enum class Wording { Exact, Wildcard };

  MatchFields() = default;
  // Adds the metadata that the fields read to `attributes`.
  MatchFields(const Fields& fields, std::vector<Attribute>& attributes, Wording wording);
  std::size_t size() const { return bytes_.size(); }
  // The values side by side, each as wide as its field. Refuses when they do not fit the fields.
  std::string key(const Values& values) const;
  // The same of values and masks; refuses values with bits that their masks leave out.
  std::string key(const Values& values, const Values& masks) const;

 private:
  void check(const bess::pb::Field& field, const std::string& where, Wording wording) const;
  std::string part(const Values& values, int field) const;

  std::vector<std::size_t> bytes_;
};

class ExactMatchState : public ModuleState {
 public:
  explicit ExactMatchState(const bess::pb::ExactMatchArg& arg);
  std::string description() const override;
  void add(const bess::pb::ExactMatchCommandAddArg& arg);
  void remove(const bess::pb::ExactMatchCommandDeleteArg& arg);
  void clear(const bess::pb::EmptyArg&) { rules_.clear(); }
  void setDefaultGate(const bess::pb::ExactMatchCommandSetDefaultGateArg& arg);
  bess::pb::ExactMatchConfig config() const;
  void setConfig(const bess::pb::ExactMatchConfig& config);

 private:
  MatchFields fields_;
  std::unordered_set<std::string> rules_;  // Their keys: nothing asks for a rule's gate.
  std::uint64_t defaultGate_ = gateLimit;
};

class WildcardMatchState : public ModuleState {
 public:
  explicit WildcardMatchState(const bess::pb::WildcardMatchArg& arg);
  std::string description() const override;
  void add(const bess::pb::WildcardMatchCommandAddArg& arg);
  void remove(const bess::pb::WildcardMatchCommandDeleteArg& arg);
  void clear(const bess::pb::EmptyArg&) { rules_.clear(); }
  void setDefaultGate(const bess::pb::WildcardMatchCommandSetDefaultGateArg& arg);
  bess::pb::WildcardMatchConfig config() const;
  void setConfig(const bess::pb::WildcardMatchConfig& config);

 private:
  MatchFields fields_;
  std::map<std::string, bess::pb::WildcardMatchCommandAddArg> rules_;
  std::uint64_t defaultGate_ = gateLimit;
};

class IpLookupState : public ModuleState {
 public:
  explicit IpLookupState(const bess::pb::IPLookupArg&) {}
  void add(const bess::pb::IPLookupCommandAddArg& arg);
  void remove(const bess::pb::IPLookupCommandDeleteArg& arg);
  void clear(const bess::pb::EmptyArg&) { routes_.clear(); }

 private:
  std::map<std::pair<std::uint32_t, std::uint64_t>, std::uint16_t> routes_;
};

class L2ForwardState : public ModuleState {
 public:
  explicit L2ForwardState(const bess::pb::L2ForwardArg& arg);
  // Entries before the refused one stay.
  void add(const bess::pb::L2ForwardCommandAddArg& arg);
  // Entries before the refused one are gone.
  void remove(const bess::pb::L2ForwardCommandDeleteArg& arg);
  // Any gate will do.
  void setDefaultGate(const bess::pb::L2ForwardCommandSetDefaultGateArg&) {}
  bess::pb::L2ForwardCommandLookupResponse lookup(
      const bess::pb::L2ForwardCommandLookupArg& arg) const;
  void populate(const bess::pb::L2ForwardCommandPopulateArg& arg);

 private:
  std::map<std::uint64_t, std::uint16_t> table_;
};

class QosState : public ModuleState {
 public:
  explicit QosState(const bess::pb::EmptyArg&) {}
  std::string description() const override { return "0 fields, 0 rules"; }
};

class BpfState : public ModuleState {
 public:
  explicit BpfState(const bess::pb::BPFArg& arg) { add(arg); }
  void add(const bess::pb::BPFArg& arg);
  void remove(const bess::pb::BPFArg& arg);
  void clear(const bess::pb::EmptyArg&) { filters_.clear(); }

 private:
  std::set<std::string> filters_;
};

// Takes any rule; a prefix that is none matches something or other.
class AclState : public ModuleState {
 public:
  explicit AclState(const bess::pb::ACLArg&) {}
  void add(const bess::pb::ACLArg&) {}
  void clear(const bess::pb::EmptyArg&) {}
};

class UrlFilterState : public ModuleState {
 public:
  explicit UrlFilterState(const bess::pb::UrlFilterArg& arg) { add(arg); }
  std::string description() const override;
  void add(const bess::pb::UrlFilterArg& arg);
  void clear(const bess::pb::EmptyArg&) { paths_.clear(); }
  bess::pb::UrlFilterConfig config() const;
  void setConfig(const bess::pb::UrlFilterConfig& config);

 private:
  std::map<std::string, std::set<std::string>> paths_;  // By host.
};

}  // namespace Standin

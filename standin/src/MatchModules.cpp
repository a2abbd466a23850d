#include "MatchModules.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>

#include "Checks.h"
#include "Refusal.h"

namespace Standin {

namespace {

constexpr std::size_t maxFields = 8;
constexpr std::uint32_t maxOffset = 1024;  // Bytes into the packet.
constexpr std::int64_t defaultTableSize = 4096;

void checkGate(std::uint64_t gate) {
  const std::uint16_t cut = gateCut(gate);
  if (!nameable(cut)) throw Refusal(EINVAL, "Invalid gate: " + std::to_string(cut));
}

std::uint64_t checkedMac(const std::string& text, const char* command) {
  if (text.empty())
    throw Refusal(EINVAL, std::string(command) + " list item map must contain addr as a string");
  const std::int64_t number = macNumber(text);
  if (number < 0) throw Refusal(EINVAL, text + " is not a proper mac address");
  return static_cast<std::uint64_t>(number);
}

std::pair<std::uint32_t, std::uint64_t> checkedPrefix(const std::string& prefix,
                                                      std::uint64_t length) {
  if (prefix.empty()) throw Refusal(EINVAL, "prefix' is missing");
  in_addr address;
  if (inet_pton(AF_INET, prefix.c_str(), &address) != 1)
    throw Refusal(EINVAL, "Invalid IP prefix: " + prefix);
  if (length > 32) throw Refusal(EINVAL, "Invalid prefix length: " + std::to_string(length));
  const std::uint32_t bits = ntohl(address.s_addr);
  const std::uint32_t mask =
      length == 0 ? 0 : static_cast<std::uint32_t>(0xffffffffu << (32 - length));
  if ((bits & ~mask) != 0) {
    char text[80];
    std::snprintf(text, sizeof text, "Invalid IP prefix %s/%u %x %x", prefix.c_str(),
                  static_cast<unsigned>(length), bits, mask);
    throw Refusal(EINVAL, text);
  }
  return {bits, length};
}

// The bytes as this machine reads them, the least significant first.
std::uint64_t machineNumber(const std::string& bytes) {
  std::uint64_t number = 0;
  for (std::size_t i = bytes.size(); i-- > 0;)
    number = number << 8 | static_cast<unsigned char>(bytes[i]);
  return number;
}

std::uint64_t reversedMac(std::uint64_t mac) {
  std::uint64_t reversed = 0;
  for (int i = 0; i < 6; ++i, mac >>= 8) reversed = reversed << 8 | (mac & 255);
  return reversed;
}

std::string ruleText(std::size_t fields, std::size_t rules) {
  return std::to_string(fields) + " fields, " + std::to_string(rules) + " rules";
}

}  // namespace

MatchFields::MatchFields(const Fields& fields, std::vector<Attribute>& attributes,
                         Wording wording) {
  if (static_cast<std::size_t>(fields.size()) > maxFields)
    throw Refusal(EINVAL, "Cannot add more than " + std::to_string(maxFields) + " fields");
  for (const bess::pb::Field& field : fields) {
    const std::string where = "idx " + std::to_string(bytes_.size()) + ": ";
    check(field, wording == Wording::Exact ? where : "", wording);
    if (field.position_case() == bess::pb::Field::kAttrName) {
      if (field.attr_name().empty()) throw Refusal(EINVAL, "add_metadata_attr() failed");
      attributes.push_back({field.attr_name(), field.num_bytes(), Attribute::Mode::Read});
    }
    bytes_.push_back(field.num_bytes());
  }
}

void MatchFields::check(const bess::pb::Field& field, const std::string& where,
                        Wording wording) const {
  const bool exact = wording == Wording::Exact;
  if (field.num_bytes() < 1 || field.num_bytes() > maxNumberSize)
    throw Refusal(EINVAL, where + (exact ? "'size' must be in [1,8]" : "'size' must be 1-8"));
  // An exact match reads a field without position as one at the beginning of the packet.
  if (!exact && field.position_case() == bess::pb::Field::POSITION_NOT_SET)
    throw Refusal(EINVAL, "specify 'offset' or 'attr'");
  if (field.position_case() == bess::pb::Field::kOffset && field.offset() > maxOffset)
    throw Refusal(EINVAL, where + (exact ? "invalid 'offset'" : "too small 'offset'"));
}

std::string MatchFields::part(const Values& values, int field) const {
  const std::size_t width = bytes_[static_cast<std::size_t>(field)];
  std::string part = valueBytes(values[field], width);
  if (part.empty())
    throw Refusal(EINVAL, "idx " + std::to_string(field) + ": not a correct " +
                              std::to_string(width) + "-byte value");
  return part;
}

std::string MatchFields::key(const Values& values) const {
  if (static_cast<std::size_t>(values.size()) != bytes_.size())
    throw Refusal(EINVAL, "rule should have " + std::to_string(bytes_.size()) + " fields (has " +
                              std::to_string(values.size()) + ")");
  std::string key;
  for (int i = 0; i < values.size(); ++i) key += part(values, i);
  return key;
}

std::string MatchFields::key(const Values& values, const Values& masks) const {
  if (static_cast<std::size_t>(values.size()) != bytes_.size())
    throw Refusal(EINVAL, "must specify " + std::to_string(bytes_.size()) + " values");
  if (static_cast<std::size_t>(masks.size()) != bytes_.size())
    throw Refusal(EINVAL, "must specify " + std::to_string(bytes_.size()) + " masks");
  std::string key;
  for (int i = 0; i < values.size(); ++i) {
    const std::string value = part(values, i), mask = part(masks, i);
    const std::uint64_t valueBits = machineNumber(value), maskBits = machineNumber(mask);
    if ((valueBits & ~maskBits) != 0) {
      char text[120];
      std::snprintf(text, sizeof text,
                    "idx %d: invalid pair of value 0x%" PRIx64 " and mask 0x%" PRIx64, i, valueBits,
                    maskBits);
      throw Refusal(EINVAL, text);
    }
    key += value + mask;
  }
  return key;
}

ExactMatchState::ExactMatchState(const bess::pb::ExactMatchArg& arg)
    : fields_(arg.fields(), attributes, MatchFields::Wording::Exact) {
  if (arg.masks_size() != 0) fields_.key(arg.masks());
}

std::string ExactMatchState::description() const {
  return ruleText(fields_.size(), rules_.size());
}

void ExactMatchState::add(const bess::pb::ExactMatchCommandAddArg& arg) {
  checkGate(arg.gate());
  if (arg.fields_size() == 0) throw Refusal(EINVAL, "'fields' must be a list");
  rules_.insert(fields_.key(arg.fields()));
}

void ExactMatchState::remove(const bess::pb::ExactMatchCommandDeleteArg& arg) {
  if (arg.fields_size() == 0) throw Refusal(EINVAL, "argument must be a list");
  if (rules_.erase(fields_.key(arg.fields())) == 0) throw Refusal(ENOENT, "rule doesn't exist");
}

void ExactMatchState::setDefaultGate(const bess::pb::ExactMatchCommandSetDefaultGateArg& arg) {
  defaultGate_ = gateCut(arg.gate());
}

bess::pb::ExactMatchConfig ExactMatchState::config() const {
  // Without the rules: the daemon leaves them out, too.
  bess::pb::ExactMatchConfig config;
  config.set_default_gate(defaultGate_);
  return config;
}

void ExactMatchState::setConfig(const bess::pb::ExactMatchConfig& config) {
  std::unordered_set<std::string> rules;
  for (const auto& rule : config.rules()) {
    checkGate(rule.gate());
    rules.insert(fields_.key(rule.fields()));
  }
  rules_ = std::move(rules);
  defaultGate_ = gateCut(config.default_gate());
}

WildcardMatchState::WildcardMatchState(const bess::pb::WildcardMatchArg& arg)
    : fields_(arg.fields(), attributes, MatchFields::Wording::Wildcard) {}

std::string WildcardMatchState::description() const {
  return ruleText(fields_.size(), rules_.size());
}

void WildcardMatchState::add(const bess::pb::WildcardMatchCommandAddArg& arg) {
  checkGate(arg.gate());
  rules_[fields_.key(arg.values(), arg.masks())] = arg;
}

void WildcardMatchState::remove(const bess::pb::WildcardMatchCommandDeleteArg& arg) {
  if (rules_.erase(fields_.key(arg.values(), arg.masks())) == 0)
    throw Refusal(ENOENT, "failed to delete a rule");
}

void WildcardMatchState::setDefaultGate(
    const bess::pb::WildcardMatchCommandSetDefaultGateArg& arg) {
  defaultGate_ = gateCut(arg.gate());
}

bess::pb::WildcardMatchConfig WildcardMatchState::config() const {
  bess::pb::WildcardMatchConfig config;
  config.set_default_gate(defaultGate_);
  for (const auto& entry : rules_) *config.add_rules() = entry.second;
  return config;
}

void WildcardMatchState::setConfig(const bess::pb::WildcardMatchConfig& config) {
  std::map<std::string, bess::pb::WildcardMatchCommandAddArg> rules;
  for (const auto& rule : config.rules()) {
    checkGate(rule.gate());
    rules[fields_.key(rule.values(), rule.masks())] = rule;
  }
  rules_ = std::move(rules);
  defaultGate_ = gateCut(config.default_gate());
}

void IpLookupState::add(const bess::pb::IPLookupCommandAddArg& arg) {
  const auto prefix = checkedPrefix(arg.prefix(), arg.prefix_len());
  checkGate(arg.gate());
  routes_[prefix] = gateCut(arg.gate());
}

void IpLookupState::remove(const bess::pb::IPLookupCommandDeleteArg& arg) {
  if (routes_.erase(checkedPrefix(arg.prefix(), arg.prefix_len())) == 0)
    throw Refusal(ENOENT, "rpm_lpm_delete() failed");
}

L2ForwardState::L2ForwardState(const bess::pb::L2ForwardArg& arg) {
  const std::int64_t size = arg.size() == 0 ? defaultTableSize : arg.size();
  const std::int64_t bucket = arg.bucket() == 0 ? 4 : arg.bucket();
  if (size < 1 || (size & (size - 1)) != 0 || (bucket != 1 && bucket != 2 && bucket != 4))
    throw Refusal(EINVAL, "initialization failed with argument size: '" + std::to_string(size) +
                              "' bucket: '" + std::to_string(bucket) + "'");
}

void L2ForwardState::add(const bess::pb::L2ForwardCommandAddArg& arg) {
  for (const auto& entry : arg.entries()) {
    const std::uint64_t mac = checkedMac(entry.addr(), "add");
    if (!table_.emplace(mac, gateCut(static_cast<std::uint64_t>(entry.gate()))).second)
      throw Refusal(EEXIST, "MAC address '" + entry.addr() + "' already exist");
  }
}

void L2ForwardState::remove(const bess::pb::L2ForwardCommandDeleteArg& arg) {
  for (const std::string& address : arg.addrs())
    if (table_.erase(checkedMac(address, "delete")) == 0)
      throw Refusal(ENOENT, "MAC address '" + address + "' does not exist");
}

bess::pb::L2ForwardCommandLookupResponse L2ForwardState::lookup(
    const bess::pb::L2ForwardCommandLookupArg& arg) const {
  bess::pb::L2ForwardCommandLookupResponse answer;
  for (const std::string& address : arg.addrs()) {
    const auto found = table_.find(checkedMac(address, "lookup"));
    if (found == table_.end())
      throw Refusal(ENOENT, "MAC address '" + address + "' does not exist");
    answer.add_gates(found->second);
  }
  return answer;
}

void L2ForwardState::populate(const bess::pb::L2ForwardCommandPopulateArg& arg) {
  if (arg.base().empty()) throw Refusal(EINVAL, "base must exist in gen, and must be string");
  const std::int64_t base = macNumber(arg.base());
  if (base < 0) throw Refusal(EINVAL, " is not a proper mac address");
  if (arg.count() < 0 || arg.count() > (1 << 20) || arg.gate_count() < 1)
    throw Refusal(EINVAL, "'count' or 'gate_count' is out of range");
  // Assumed from what a lookup then misses: it counts in the last byte of what it keeps the other
  // way round.
  for (std::int64_t i = 0; i < arg.count(); ++i)
    table_.emplace(reversedMac(static_cast<std::uint64_t>(base + i)),
                   gateCut(static_cast<std::uint64_t>(i % arg.gate_count())));
}

void BpfState::add(const bess::pb::BPFArg& arg) {
  for (const auto& filter : arg.filters())
    if (filter.gate() < 0 || filter.gate() >= gateLimit) throw Refusal(EINVAL, "Invalid gate");
  for (const auto& filter : arg.filters()) filters_.insert(filter.filter());
}

void BpfState::remove(const bess::pb::BPFArg& arg) {
  for (const auto& filter : arg.filters()) filters_.erase(filter.filter());
}

std::string UrlFilterState::description() const {
  return std::to_string(paths_.size()) + " hosts";
}

void UrlFilterState::add(const bess::pb::UrlFilterArg& arg) {
  for (const auto& url : arg.blacklist()) paths_[url.host()].insert(url.path());
}

bess::pb::UrlFilterConfig UrlFilterState::config() const {
  bess::pb::UrlFilterConfig config;
  for (const auto& [host, paths] : paths_)
    for (const std::string& path : paths) {
      auto* url = config.add_blacklist();
      url->set_host(host);
      url->set_path(path);
    }
  return config;
}

void UrlFilterState::setConfig(const bess::pb::UrlFilterConfig& config) {
  paths_.clear();
  for (const auto& url : config.blacklist()) paths_[url.host()].insert(url.path());
}

}  // namespace Standin

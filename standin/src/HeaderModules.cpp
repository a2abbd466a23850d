#include "HeaderModules.h"

#include <arpa/inet.h>

#include <cerrno>
#include <map>

#include "Refusal.h"

namespace Standin {

namespace {

constexpr std::size_t maxPacketSize = 2048;     // Bytes.
constexpr std::uint64_t maxAttributeSize = 32;  // Bytes.

std::uint32_t checkedAddress(const std::string& text) {
  in_addr address;
  if (inet_pton(AF_INET, text.c_str(), &address) != 1)
    throw Refusal(EINVAL, "invalid IP address " + text);
  return ntohl(address.s_addr);
}

void declare(std::vector<Attribute>& attributes, const std::string& name, std::uint64_t size,
             Attribute::Mode mode) {
  if (name.empty() || size < 1 || size > maxAttributeSize)
    throw Refusal(EINVAL, "add_metadata_attr() failed");
  attributes.push_back({name, size, mode});
}

}  // namespace

void UpdateState::add(const bess::pb::UpdateArg& arg) {
  for (const auto& field : arg.fields()) {
    if (field.offset() < 0) throw Refusal(EINVAL, "too small 'offset'");
    if (field.size() < 1 || field.size() > 8) throw Refusal(EINVAL, "'size' must be 1-8");
  }
}

void RandomUpdateState::add(const bess::pb::RandomUpdateArg& arg) {
  for (const auto& field : arg.fields()) {
    if (field.offset() < 0) throw Refusal(EINVAL, "too small 'offset'");
    if (field.size() != 1 && field.size() != 2 && field.size() != 4)
      throw Refusal(EINVAL, "'size' must be 1, 2, or 4");
    if (field.min() > field.max()) throw Refusal(EINVAL, "'min' should not be greater than 'max'");
  }
}

void RewriteState::add(const bess::pb::RewriteArg& arg) {
  for (const std::string& packet : arg.templates())
    if (packet.size() > maxPacketSize) throw Refusal(EINVAL, "template is too big");
}

std::string VlanPushState::description() const {
  return "PCP=" + std::to_string(tci_ >> 13 & 7) + " DEI=" + std::to_string(tci_ >> 12 & 1) +
         " VID=" + std::to_string(tci_ & 4095);
}

void VlanPushState::setTci(const bess::pb::VLANPushArg& arg) {
  if (arg.tci() > 0xffff) throw Refusal(EINVAL, "TCI value must be 0-65535");
  tci_ = arg.tci();
}

EtherEncapState::EtherEncapState(const bess::pb::EtherEncapArg&) {
  declare(attributes, "ether_src", 6, Attribute::Mode::Read);
  declare(attributes, "ether_dst", 6, Attribute::Mode::Read);
  declare(attributes, "ether_type", 2, Attribute::Mode::Read);
}

GenericEncapState::GenericEncapState(const bess::pb::GenericEncapArg& arg) {
  for (const auto& field : arg.fields()) {
    if (field.size() < 1 || field.size() > 8) throw Refusal(EINVAL, "'size' must be 1-8");
    if (field.insertion_case() == bess::pb::GenericEncapArg::EncapField::kAttribute)
      declare(attributes, field.attribute(), field.size(), Attribute::Mode::Read);
    else if (field.insertion_case() == bess::pb::GenericEncapArg::EncapField::INSERTION_NOT_SET)
      throw Refusal(EINVAL, "must specify 'value' or 'attribute'");
  }
}

GenericDecapState::GenericDecapState(const bess::pb::GenericDecapArg& arg) {
  if (arg.bytes() > 1024) throw Refusal(EINVAL, "invalid decap size");
}

VxlanEncapState::VxlanEncapState(const bess::pb::VXLANEncapArg& arg) {
  if (arg.dstport() >= 65536) throw Refusal(EINVAL, "invalid 'dstport' field");
}

SetMetadataState::SetMetadataState(const bess::pb::SetMetadataArg& arg) {
  for (const auto& attr : arg.attrs())
    declare(attributes, attr.name(), attr.size(), Attribute::Mode::Write);
}

MetadataTestState::MetadataTestState(const bess::pb::MetadataTestArg& arg) {
  const auto declareAll = [this](const auto& sizes, Attribute::Mode mode) {
    std::map<std::string, std::int64_t> byName;  // The message's own map has no order.
    for (const auto& entry : sizes) byName[entry.first] = entry.second;
    for (const auto& [name, size] : byName)
      declare(attributes, name, size < 0 ? 0 : static_cast<std::uint64_t>(size), mode);
  };
  declareAll(arg.read(), Attribute::Mode::Read);
  declareAll(arg.write(), Attribute::Mode::Write);
  declareAll(arg.update(), Attribute::Mode::Update);
}

NatState::NatState(const bess::pb::NATArg& arg) {
  if (arg.ext_addrs_size() == 0)
    throw Refusal(EINVAL, "at least one external IP address must be specified");
  for (const auto& external : arg.ext_addrs()) {
    checkedAddress(external.ext_addr());
    for (const auto& range : external.port_ranges())
      if (range.begin() >= range.end() || range.end() > 65535)
        throw Refusal(EINVAL, "Port range for address " + external.ext_addr() + " is malformed");
  }
}

StaticNatState::StaticNatState(const bess::pb::StaticNATArg& arg) {
  for (const auto& pair : arg.pairs()) {
    const std::uint32_t inner =
        checkedAddress(pair.int_range().end()) - checkedAddress(pair.int_range().start());
    const std::uint32_t outer =
        checkedAddress(pair.ext_range().end()) - checkedAddress(pair.ext_range().start());
    if (inner != outer) throw Refusal(EINVAL, "internal and external ranges differ in size");
  }
}

void ArpResponderState::add(const bess::pb::ArpResponderArg& arg) {
  if (arg.ip().empty()) throw Refusal(EINVAL, "IP address is not given");
  checkedAddress(arg.ip());
}

void DumpState::setInterval(const bess::pb::DumpArg& arg) {
  if (arg.interval() < 0) throw Refusal(EINVAL, "invalid interval, must be 0 or greater");
}

}  // namespace Standin

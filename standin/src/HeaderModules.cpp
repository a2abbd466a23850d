#include "HeaderModules.h"

#include <cerrno>
#include <map>

#include "Checks.h"
#include "Refusal.h"

namespace Standin {

namespace {

constexpr int maxChanges = 16;                 // Of one Update or RandomUpdate.
constexpr int maxTemplates = 64;               // Of one Rewrite.
constexpr std::uint64_t maxMetadataSize = 32;  // Bytes of one value.

void checkCount(int present, int added) {
  if (present + added > maxChanges)
    throw Refusal(EINVAL, "max " + std::to_string(maxChanges) + " variables can be specified");
}

// A negative offset wraps around, and so passes.
void checkReach(std::int64_t offset, std::uint64_t size) {
  if (static_cast<std::uint64_t>(offset) + size > packetRoom)
    throw Refusal(EINVAL, "too large 'offset'");
}

void checkNumberSize(std::uint64_t size, const std::string& where = "") {
  if (size < 1 || size > maxNumberSize) throw Refusal(EINVAL, where + "'size' must be 1-8");
}

std::string notCorrect(std::uint64_t bytes) {
  return "not a correct " + std::to_string(bytes) + "-byte value";
}

}  // namespace

void UpdateState::add(const bess::pb::UpdateArg& arg) {
  checkCount(fields_, arg.fields_size());
  for (const auto& field : arg.fields()) {
    checkNumberSize(field.size());
    checkReach(field.offset(), field.size());
  }
  fields_ += arg.fields_size();
}

void RandomUpdateState::add(const bess::pb::RandomUpdateArg& arg) {
  checkCount(fields_, arg.fields_size());
  for (const auto& field : arg.fields()) {
    if (field.size() != 1 && field.size() != 2 && field.size() != 4)
      throw Refusal(EINVAL, "'size' must be 1, 2, or 4");
    checkReach(field.offset(), field.size());
    if (field.min() > field.max()) throw Refusal(EINVAL, "'min' should not be greater than 'max'");
  }
  fields_ += arg.fields_size();
}

void RewriteState::add(const bess::pb::RewriteArg& arg) {
  if (templates_ + arg.templates_size() > maxTemplates)
    throw Refusal(EINVAL, "max " + std::to_string(maxTemplates) + " packet templates can be used " +
                              std::to_string(templates_) + " " +
                              std::to_string(arg.templates_size()));
  for (const std::string& packet : arg.templates())
    if (packet.size() > packetRoom) throw Refusal(EINVAL, "template is too big");
  templates_ += arg.templates_size();
}

std::string VlanPushState::description() const {
  return "PCP=" + std::to_string(tci_ >> 13 & 7) + " DEI=" + std::to_string(tci_ >> 12 & 1) +
         " VID=" + std::to_string(tci_ & 4095);
}

void VlanPushState::setTci(const bess::pb::VLANPushArg& arg) {
  tci_ = static_cast<std::uint16_t>(arg.tci());
}

EtherEncapState::EtherEncapState(const bess::pb::EtherEncapArg&) {
  declare(*this, "ether_src", 6, Attribute::Mode::Read);
  declare(*this, "ether_dst", 6, Attribute::Mode::Read);
  declare(*this, "ether_type", 2, Attribute::Mode::Read);
}

GenericEncapState::GenericEncapState(const bess::pb::GenericEncapArg& arg) {
  using Field = bess::pb::GenericEncapArg::EncapField;
  for (int i = 0; i < arg.fields_size(); ++i) {
    const Field& field = arg.fields(i);
    const std::string where = "idx " + std::to_string(i) + ": ";
    checkNumberSize(field.size(), where);
    if (field.insertion_case() == Field::kAttribute) {
      declare(*this, field.attribute(), field.size(), Attribute::Mode::Read, where);
    } else if (field.insertion_case() == Field::kValue) {
      if (valueBytes(field.value(), field.size()).empty())
        throw Refusal(EINVAL, where + notCorrect(field.size()));
    } else {
      throw Refusal(EINVAL, where + "must specify 'value' or 'attribute'");
    }
  }
}

GenericDecapState::GenericDecapState(const bess::pb::GenericDecapArg& arg) {
  if (arg.bytes() > 1024) throw Refusal(EINVAL, "invalid decap size");
}

IpEncapState::IpEncapState(const bess::pb::IPEncapArg&) {
  declare(*this, "ip_src", 4, Attribute::Mode::Read);
  declare(*this, "ip_dst", 4, Attribute::Mode::Read);
  declare(*this, "ip_proto", 1, Attribute::Mode::Read);
  declare(*this, "ip_nexthop", 4, Attribute::Mode::Write);
  declare(*this, "ether_type", 2, Attribute::Mode::Write);
}

VxlanDecapState::VxlanDecapState(const bess::pb::VXLANDecapArg&) {
  declare(*this, "tun_ip_src", 4, Attribute::Mode::Write);
  declare(*this, "tun_ip_dst", 4, Attribute::Mode::Write);
  declare(*this, "tun_id", 4, Attribute::Mode::Write);
}

VxlanEncapState::VxlanEncapState(const bess::pb::VXLANEncapArg& arg) {
  if (arg.dstport() >= 65536) throw Refusal(EINVAL, "invalid 'dstport' field");
  declare(*this, "tun_ip_src", 4, Attribute::Mode::Read);
  declare(*this, "tun_ip_dst", 4, Attribute::Mode::Read);
  declare(*this, "tun_id", 4, Attribute::Mode::Read);
  declare(*this, "ip_src", 4, Attribute::Mode::Write);
  declare(*this, "ip_dst", 4, Attribute::Mode::Write);
  declare(*this, "ip_proto", 1, Attribute::Mode::Write);
}

SetMetadataState::SetMetadataState(const bess::pb::SetMetadataArg& arg) {
  using Attr = bess::pb::SetMetadataArg::Attribute;
  if (arg.attrs_size() == 0) throw Refusal(EINVAL, "'attrs' must be specified");
  for (const Attr& attr : arg.attrs()) {
    if (attr.name().empty()) throw Refusal(EINVAL, "'name' field is missing");
    if (attr.size() < 1 || attr.size() > maxMetadataSize)
      throw Refusal(EINVAL, "'size' must be 1-" + std::to_string(maxMetadataSize));
    if (attr.value_case() == Attr::kValueInt) {
      if (numberBytes(attr.value_int(), attr.size()).empty())
        throw Refusal(EINVAL, "'value_int' field has " + notCorrect(attr.size()));
    } else if (attr.value_case() == Attr::kValueBin) {
      if (attr.value_bin().size() != attr.size())
        throw Refusal(EINVAL, "'value_bin' field has " + notCorrect(attr.size()));
    } else if (attr.offset() < 0 ||
               static_cast<std::uint64_t>(attr.offset()) + attr.size() > packetRoom) {
      throw Refusal(EINVAL, "invalid packet offset");
    }
    declare(*this, attr.name(), attr.size(), Attribute::Mode::Write);
  }
}

MetadataTestState::MetadataTestState(const bess::pb::MetadataTestArg& arg) {
  const auto declareAll = [this](const auto& sizes, Attribute::Mode mode) {
    std::map<std::string, std::int64_t> byName;  // The message's own map has no order.
    for (const auto& entry : sizes) byName[entry.first] = entry.second;
    for (const auto& [name, size] : byName)
      declare(*this, name, size < 0 ? 0 : static_cast<std::uint64_t>(size), mode);
  };
  declareAll(arg.read(), Attribute::Mode::Read);
  declareAll(arg.write(), Attribute::Mode::Write);
  declareAll(arg.update(), Attribute::Mode::Update);
}

GtpuEncapState::GtpuEncapState(const bess::pb::EmptyArg&) {
  declare(*this, "action", 1, Attribute::Mode::Read);
  declare(*this, "tunnel_out_src_ip4addr", 4, Attribute::Mode::Read);
  declare(*this, "tunnel_out_dst_ip4addr", 4, Attribute::Mode::Read);
  declare(*this, "tunnel_out_teid", 4, Attribute::Mode::Read);
  declare(*this, "tunnel_out_udp_port", 2, Attribute::Mode::Read);
  declare(*this, "qfi", 1, Attribute::Mode::Read);
}

GtpuParserState::GtpuParserState(const bess::pb::EmptyArg&) {
  declare(*this, "src_ip", 4, Attribute::Mode::Write);
  declare(*this, "dst_ip", 4, Attribute::Mode::Write);
  declare(*this, "src_port", 2, Attribute::Mode::Write);
  declare(*this, "dst_port", 2, Attribute::Mode::Write);
  declare(*this, "teid", 4, Attribute::Mode::Write);
  declare(*this, "tunnel_ipv4_dst", 4, Attribute::Mode::Write);
  declare(*this, "ip_proto", 1, Attribute::Mode::Write);
}

NatState::NatState(const bess::pb::NATArg& arg) {
  if (arg.ext_addrs_size() == 0)
    throw Refusal(EINVAL, "at least one external IP address must be specified");
  // The ranges of all come before the first address.
  for (const auto& external : arg.ext_addrs())
    for (const auto& range : external.port_ranges())
      if (range.begin() >= range.end() || range.end() > 65535)
        throw Refusal(EINVAL, "Port range for address " + external.ext_addr() + " is malformed");
  for (const auto& external : arg.ext_addrs())
    checkedAddress(external.ext_addr(), "invalid IP address ");
}

StaticNatState::StaticNatState(const bess::pb::StaticNATArg& arg) {
  const auto size = [](const bess::pb::StaticNATArg::AddressRange& range, const char* side) {
    const std::uint32_t start = checkedAddress(range.start(), "invalid IP address ");
    const std::uint32_t end = checkedAddress(range.end(), "invalid IP address ");
    if (end < start) throw Refusal(EINVAL, std::string("invalid ") + side + " IP address range");
    return end - start;
  };
  for (const auto& pair : arg.pairs()) {
    const std::uint32_t inner = size(pair.int_range(), "internal");
    const std::uint32_t outer = size(pair.ext_range(), "external");
    if (inner != outer)
      throw Refusal(EINVAL, "internal and external IP address ranges must have the same size");
  }
}

void ArpResponderState::add(const bess::pb::ArpResponderArg& arg) {
  if (arg.ip().empty()) throw Refusal(EINVAL, "IP address is missing");
  checkedAddress(arg.ip(), "Invalid IP Address: ");
  if (macNumber(arg.mac_addr()) < 0)
    throw Refusal(EINVAL, "Invalid MAC Address: " + arg.mac_addr());
}

DumpState::DumpState(const bess::pb::DumpArg& arg) {
  if (arg.interval() != 0) setInterval(arg);  // 0 stands for the default.
}

void DumpState::setInterval(const bess::pb::DumpArg& arg) {
  if (!(arg.interval() > 0)) throw Refusal(EINVAL, "invalid interval");
}

}  // namespace Standin

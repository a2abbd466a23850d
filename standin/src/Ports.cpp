#include "Ports.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Arg.h"
#include "Checks.h"
#include "Refusal.h"

namespace Standin {

namespace {

constexpr std::uint64_t maxPortQueue = 4096;
constexpr std::uint64_t usualPortQueue = 1024;
constexpr std::uint64_t maxDevices = 32;
constexpr std::uint32_t minMtu = 68;
constexpr std::uint32_t maxMtu = 2048;

std::string attachVirtualDevice(const std::string& vdev, const Ports& ports) {
  std::string device = vdev.substr(0, vdev.find(','));
  if (device.rfind("net_null", 0) != 0) throw Refusal(ENODEV, "Cannot attach vdev " + vdev);
  if (ports.deviceInUse(device)) throw Refusal(EBUSY, "rte_eth_dev_configure() failed");
  return device;
}

std::string attachPciDevice(const std::string& address) {
  unsigned domain = 0, bus = 0, device = 0, function = 0;
  if (std::sscanf(address.c_str(), "%x:%x:%x.%x", &domain, &bus, &device, &function) != 4) {
    domain = 0;
    if (std::sscanf(address.c_str(), "%x:%x.%x", &bus, &device, &function) != 3)
      throw Refusal(EINVAL, "PCI address must be like dddd:bb:dd.ff or bb:dd.ff");
  }
  char text[48];
  std::snprintf(text, sizeof text, "%08x:%02x:%02x.%02x", domain, bus, device, function);
  throw Refusal(ENODEV, std::string("Cannot attach PCI device ") + text);
}

std::string openPmd(const bess::pb::CreatePortRequest& request, const std::string&, Ports& ports) {
  const auto arg = unpack<bess::pb::PMDPortArg>(request.arg());
  switch (arg.port_case()) {
    case bess::pb::PMDPortArg::kVdev:
      return attachVirtualDevice(arg.vdev(), ports);
    case bess::pb::PMDPortArg::kPci:
      return attachPciDevice(arg.pci());
    case bess::pb::PMDPortArg::kPortId:
      if (arg.port_id() >= maxDevices)
        throw Refusal(EINVAL, "Invalid port id " + std::to_string(arg.port_id()));
      if (ports.deviceNumberInUse(arg.port_id()))
        throw Refusal(EBUSY, "rte_eth_dev_configure() failed");
      throw Refusal(ENODEV, "Port id " + std::to_string(arg.port_id()) + " is not available");
    case bess::pb::PMDPortArg::PORT_NOT_SET:
      break;
  }
  throw Refusal(EINVAL, "No port specified");
}

// The socket itself is not made: the stand-in only keeps book of who has which path.
std::string openUnixSocket(const bess::pb::CreatePortRequest& request, const std::string& name,
                           Ports& ports) {
  if (static_cast<std::uint16_t>(request.num_inc_q()) > 1 ||
      static_cast<std::uint16_t>(request.num_out_q()) > 1)
    throw Refusal(EINVAL, "Cannot have more than 1 queue per RX/TX");
  std::string path = unpack<bess::pb::UnixSocketPortArg>(request.arg()).path();
  if (path.empty()) path = "/tmp/bess_unix_" + name;
  if (path[0] == '@') {
    if (ports.deviceInUse(path)) throw Refusal(EADDRINUSE, "bind() failed");
    return path;
  }
  const std::size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  struct stat info;
  if (stat(folder.c_str(), &info) != 0) throw Refusal(errno, "bind(" + path + ") failed");
  return "";  // A socket file is replaced by whoever comes later.
}

std::string openVirtual(const bess::pb::CreatePortRequest&, const std::string&, Ports&) {
  throw Refusal(ENODEV, "the kernel module is not loaded");
}

std::string openCapture(const bess::pb::CreatePortRequest&, const std::string&, Ports&) {
  throw Refusal(EINVAL, "Error initializing device.");
}

// clang-format off
constexpr PortDriver driverTable[] = {
    // name             prefix       help                                                  queues conf   speed  autoneg open
    {"PCAPPort",       "pcap_port", "captures from a network interface of this host",       128, false, 0,     true,  openCapture},
    {"PMDPort",        "pmd_port",  "drives a network device by polling it",                128, true,  10000, false, openPmd},
    {"UnixSocketPort", "unix_port", "exchanges packets with a process over a local socket", 128, false, 0,     true,  openUnixSocket},
    {"VPort",          "vport",     "a network interface inside this host",                 128, false, 0,     true,  openVirtual},
};
// clang-format on

std::string macText(std::int64_t mac) {
  char text[18];
  const auto byte = [mac](int at) { return static_cast<unsigned>(mac >> 8 * (5 - at) & 255); };
  std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", byte(0), byte(1), byte(2),
                byte(3), byte(4), byte(5));
  return text;
}

// Whether it is the address of many; no device can have it for its own.
bool isGroup(std::int64_t mac) {
  return (mac >> 40 & 1) != 0;
}

std::string checkedMac(const std::string& text) {
  const std::int64_t mac = macNumber(text);
  if (mac < 0) throw Refusal(EINVAL, "'" + text + "' is not a proper mac address");
  return macText(mac);
}

Port& existing(const Ports& ports, const std::string& name) {
  Port* port = ports.find(name);
  if (port == nullptr) throw Refusal(ENOENT, "No port `" + name + "' found");
  return *port;
}

std::size_t queueCount(std::uint64_t requested) {
  const auto cut = static_cast<std::uint16_t>(requested);
  return cut == 0 ? 1 : cut;
}

}  // namespace

bool Port::busy() const {
  const auto any = [](const std::vector<bool>& marks) {
    return std::find(marks.begin(), marks.end(), true) != marks.end();
  };
  return any(incUsed) || any(outUsed);
}

QueueClaim::QueueClaim(Port& port, Direction direction, std::int64_t queue)
    : port_(port), direction_(direction) {
  std::vector<bool>& marks = port.used(direction);
  if (queue >= static_cast<std::int64_t>(marks.size())) throw Refusal(EINVAL, "Invalid argument");
  if (queue >= 0) {
    queues_.push_back(static_cast<std::size_t>(queue));
  } else {
    for (std::size_t i = 0; i < marks.size(); ++i) queues_.push_back(i);
  }
  for (std::size_t i : queues_)
    if (marks[i]) throw Refusal(EBUSY, "Device or resource busy");
  for (std::size_t i : queues_) marks[i] = true;
}

QueueClaim::~QueueClaim() {
  for (std::size_t i : queues_) port_.used(direction_)[i] = false;
}

std::span<const PortDriver> Ports::drivers() {
  return driverTable;
}

const PortDriver* Ports::findDriver(const std::string& name) {
  for (const PortDriver& driver : driverTable)
    if (name == driver.name) return &driver;
  return nullptr;
}

Port* Ports::find(const std::string& name) const {
  const auto found = ports_.find(name);
  return found == ports_.end() ? nullptr : found->second.get();
}

std::string Ports::randomMac() {
  // Locally administered, not a group address.
  const auto bits = static_cast<std::int64_t>(random_() >> 16);
  return macText((bits & ~(std::int64_t{3} << 40)) | std::int64_t{2} << 40);
}

Port& Ports::create(const bess::pb::CreatePortRequest& request) {
  if (request.driver().empty()) throw Refusal(EINVAL, "Missing 'driver' field");
  const PortDriver* driver = findDriver(request.driver());
  if (driver == nullptr) throw Refusal(ENOENT, "No port driver '" + request.driver() + "' found");
  const std::size_t inc = queueCount(request.num_inc_q());
  const std::size_t out = queueCount(request.num_out_q());
  if (inc > driver->maxQueues || out > driver->maxQueues)
    throw Refusal(EINVAL, "Invalid number of queues");
  if (request.size_inc_q() > maxPortQueue || request.size_out_q() > maxPortQueue)
    throw Refusal(EINVAL, "Invalid queue size");
  if (find(request.name()) != nullptr)
    throw Refusal(EEXIST, "Port '" + request.name() + "' already exists");

  auto port = std::make_unique<Port>();
  port->name = request.name().empty()
                   ? names_.next(driver->namePrefix,
                                 [this](const std::string& name) { return find(name) != nullptr; })
                   : request.name();
  port->driver = driver;
  port->device = driver->open(request, port->name, *this);
  port->conf.set_mac_addr(randomMac());
  port->conf.set_mtu(1500);
  port->conf.set_admin_up(true);
  port->incSize = request.size_inc_q() == 0 ? usualPortQueue : request.size_inc_q();
  port->outSize = request.size_out_q() == 0 ? usualPortQueue : request.size_out_q();
  port->arg = request.arg();
  port->incUsed.resize(inc);
  port->outUsed.resize(out);
  if (!port->device.empty()) {
    while (deviceNumberInUse(lowestNumber_)) ++lowestNumber_;
    devices_[port->device] = lowestNumber_;
    deviceNumbers_.insert(lowestNumber_);
  }
  return *(ports_[port->name] = std::move(port));
}

void Ports::destroy(const std::string& name) {
  if (name.empty()) throw Refusal(EINVAL, "Argument must be a name in str");
  const Port& port = existing(*this, name);
  if (port.busy()) throw Refusal(EBUSY, "Device or resource busy");
  const auto device = devices_.find(port.device);
  if (device != devices_.end()) {
    lowestNumber_ = std::min(lowestNumber_, device->second);
    deviceNumbers_.erase(device->second);
    devices_.erase(device);
  }
  names_.freed(name);
  ports_.erase(name);
}

void Ports::reset() {
  while (!ports_.empty()) destroy(std::string(ports_.begin()->first));
}

Port& Ports::configurable(const bess::pb::SetPortConfRequest& request) const {
  if (request.name().empty()) throw Refusal(EINVAL, "Port name is not given");
  Port& port = existing(*this, request.name());
  if (macNumber(request.conf().mac_addr()) < 0)
    throw Refusal(EINVAL, "MAC address should be formatted xx:xx:xx:xx:xx:xx");
  return port;
}

void Ports::configure(Port& port, const bess::pb::PortConf& conf) {
  if (conf.mtu() != 0 && (conf.mtu() < minMtu || conf.mtu() > maxMtu))
    throw Refusal(
        EINVAL, "mtu should be >= " + std::to_string(minMtu) + " and <= " + std::to_string(maxMtu));
  if (!port.driver->configurable) throw Refusal(EOPNOTSUPP, "Operation not supported");
  // The device stops for the change; one that fails leaves it so (assumed), with what was changed
  // before (seen). That the link follows the administration is assumed.
  port.linkUp = false;
  if (conf.mtu() != 0) port.conf.set_mtu(conf.mtu());
  const std::int64_t mac = macNumber(conf.mac_addr());
  if (isGroup(mac)) throw Refusal(EINVAL, "rte_eth_dev_default_mac_addr_set() failed");
  if (mac != 0) port.conf.set_mac_addr(macText(mac));
  port.conf.set_admin_up(conf.admin_up());
  port.linkUp = conf.admin_up();
}

void Ports::addMac(const std::string& name, const std::string& mac) {
  Port& port = existing(*this, name);
  const std::string address = checkedMac(mac);
  if (address == port.conf.mac_addr() || !port.extraMacs.insert(address).second)
    throw Refusal(EEXIST, "Port '" + name + "' has the MAC address '" + mac + "' already");
}

void Ports::removeMac(const std::string& name, const std::string& mac) {
  Port& port = existing(*this, name);
  if (port.extraMacs.erase(checkedMac(mac)) == 0)
    throw Refusal(ENOENT, "Port '" + name + "' has no added MAC address '" + mac + "'");
}

}  // namespace Standin

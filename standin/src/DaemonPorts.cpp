// Ports and their drivers.

#include <cerrno>
#include <chrono>

#include "Daemon.h"
#include "NewerReplies.h"
#include "Refusal.h"

namespace Standin {

namespace {

constexpr int histogramSize = 65;  // Batches of 0 to 64 packets.

void fillEmpty(bess::pb::GetPortStatsResponse::Stat& stat) {
  for (int i = 0; i < histogramSize; ++i) {
    stat.add_requested_hist(0);
    stat.add_actual_hist(0);
    stat.add_diff_hist(0);
  }
}

}  // namespace

void Daemon::listDrivers(const bess::pb::EmptyRequest&, bess::pb::ListDriversResponse& response) {
  for (const PortDriver& driver : Ports::drivers()) response.add_driver_names(driver.name);
}

void Daemon::getDriverInfo(const bess::pb::GetDriverInfoRequest& request,
                           bess::pb::GetDriverInfoResponse& response) {
  if (request.driver_name().empty()) throw Refusal(EINVAL, "Argument must be a name in str");
  const PortDriver* driver = Ports::findDriver(request.driver_name());
  if (driver == nullptr) throw Refusal(ENOENT, "No driver '" + request.driver_name() + "' found");
  response.set_name(driver->name);
  response.set_help(driver->help);
}

void Daemon::resetPorts(const bess::pb::EmptyRequest&, bess::pb::EmptyResponse&) {
  const Pause pause(*this);
  ports_.reset();
}

void Daemon::listPorts(const bess::pb::EmptyRequest&, bess::pb::ListPortsResponse& response) {
  for (const auto& [name, port] : ports_.all()) {
    auto& shown = *response.add_ports();
    shown.set_name(name);
    shown.set_driver(port->driver->name);
    shown.set_mac_addr(port->conf.mac_addr());
    if (options_.newerReplies) NewerReplies::tell(*port, shown);
  }
}

void Daemon::createPort(const bess::pb::CreatePortRequest& request,
                        bess::pb::CreatePortResponse& response) {
  const Port& port = ports_.create(request);
  response.mutable_error();
  response.set_name(port.name);
  response.set_mac_addr(port.conf.mac_addr());
}

void Daemon::destroyPort(const bess::pb::DestroyPortRequest& request, bess::pb::EmptyResponse&) {
  ports_.destroy(request.name());
}

void Daemon::setPortConf(const bess::pb::SetPortConfRequest& request, bess::pb::EmptyResponse&) {
  Port& port = ports_.configurable(request);
  const Pause pause(*this);
  ports_.configure(port, request.conf());
}

void Daemon::getPortConf(const bess::pb::GetPortConfRequest& request,
                         bess::pb::GetPortConfResponse& response) {
  if (request.name().empty()) throw Refusal(EINVAL, "Port name is not given");
  const Port* port = ports_.find(request.name());
  if (port == nullptr) throw Refusal(ENOENT, "No port `" + request.name() + "' found");
  *response.mutable_conf() = port->conf;
}

void Daemon::requireMacAddressCalls() const {
  if (options_.strictDaemon) throw Unimplemented("");
}

void Daemon::addPortMacAddress(const bess::pb::MacAddressRequest& request,
                               bess::pb::EmptyResponse&) {
  requireMacAddressCalls();
  ports_.addMac(request.name(), request.mac_addr());
}

void Daemon::removePortMacAddress(const bess::pb::MacAddressRequest& request,
                                  bess::pb::EmptyResponse&) {
  requireMacAddressCalls();
  ports_.removeMac(request.name(), request.mac_addr());
}

Port& Daemon::portForStatus(const std::string& name) const {
  Port* port = ports_.find(name);
  if (port == nullptr) throw Refusal(ENOENT, "No port '" + name + "' found");
  return *port;
}

void Daemon::getPortStats(const bess::pb::GetPortStatsRequest& request,
                          bess::pb::GetPortStatsResponse& response) {
  portForStatus(request.name());
  fillEmpty(*response.mutable_inc());
  fillEmpty(*response.mutable_out());
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  response.set_timestamp(std::chrono::duration<double>(now).count());
}

void Daemon::getLinkStatus(const bess::pb::GetLinkStatusRequest& request,
                           bess::pb::GetLinkStatusResponse& response) {
  const Port& port = portForStatus(request.name());
  const PortDriver& driver = *port.driver;
  response.set_speed(driver.speed);
  response.set_full_duplex(true);
  response.set_autoneg(driver.autoneg);
  response.set_link_up(port.linkUp);
}

}  // namespace Standin

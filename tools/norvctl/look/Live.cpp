#include "Live.h"

#include <google/protobuf/unknown_field_set.h>

#include "../protocol/Requests.h"
#include "../text/Text.h"

namespace Norvctl {

namespace {

namespace pb = bess::pb;

// Asks for something that is never refused.
template <class Response, class Request>
Response read(Direct& direct, Norv::GrpcRequestType type, const Request& request) {
  auto response = direct.ask<Response>(type, request);
  if (response.error().code() != 0) {
    throw DirectError(grpc::StatusCode::OK,
                      std::string(requestInfos()[type - 1].name) + " at " +
                          escaped(direct.address()) + " was refused: " +
                          escaped(refusalText(response.error().code(), response.error().errmsg())));
  }
  return response;
}

template <class List>
std::vector<std::string> texts(const List& list) {
  return {list.begin(), list.end()};
}

// Fields of daemons of today, which our message does not have.
std::optional<unsigned long long> newerNumber(const google::protobuf::Message& message,
                                              int number) {
  const auto& fields = message.GetReflection()->GetUnknownFields(message);
  for (int i = 0; i < fields.field_count(); ++i) {
    const auto& field = fields.field(i);
    if (field.number() == number && field.type() == google::protobuf::UnknownField::TYPE_VARINT) {
      return field.varint();
    }
  }
  return std::nullopt;
}

LivePort readPort(Direct& direct, const pb::ListPortsResponse::Port& listed) {
  LivePort port;
  port.name = listed.name();
  port.driver = listed.driver();
  port.macAddress = listed.mac_addr();
  port.inQueues = newerNumber(listed, 4);
  port.outQueues = newerNumber(listed, 5);
  port.inSize = newerNumber(listed, 6);
  port.outSize = newerNumber(listed, 7);
  pb::GetPortConfRequest conf;
  conf.set_name(port.name);
  try {
    const auto response = direct.ask<pb::GetPortConfResponse>(Norv::getPortConf, conf);
    if (response.error().code() == 0) port.conf = response.conf();
  } catch (const DirectError& error) {
    if (error.status() != grpc::StatusCode::UNIMPLEMENTED) throw;
  }
  pb::GetLinkStatusRequest link;
  link.set_name(port.name);
  port.link = direct.ask<pb::GetLinkStatusResponse>(Norv::getLinkStatus, link);
  pb::GetPortStatsRequest stats;
  stats.set_name(port.name);
  port.stats = direct.ask<pb::GetPortStatsResponse>(Norv::getPortStats, stats);
  return port;
}

std::vector<Counter> gateCounters(unsigned long long packets, unsigned long long bytes,
                                  unsigned long long batches) {
  return {{"packet/s", packets, 1}, {"bit/s", bytes, 8}, {"batch/s", batches, 1}};
}

}  // namespace

std::vector<LivePort> readPorts(Direct& direct) {
  std::vector<LivePort> ports;
  const auto list = read<pb::ListPortsResponse>(direct, Norv::listPorts, pb::EmptyRequest());
  for (const auto& listed : list.ports()) ports.push_back(readPort(direct, listed));
  return ports;
}

std::vector<pb::ListWorkersResponse::WorkerStatus> readWorkers(Direct& direct) {
  const auto list = read<pb::ListWorkersResponse>(direct, Norv::listWorkers, pb::EmptyRequest());
  return {list.workers_status().begin(), list.workers_status().end()};
}

std::vector<pb::ListTcsResponse::TrafficClassStatus> readTcs(Direct& direct) {
  pb::ListTcsRequest request;
  request.set_wid(-1);
  const auto list = read<pb::ListTcsResponse>(direct, Norv::listTcs, request);
  return {list.classes_status().begin(), list.classes_status().end()};
}

std::vector<std::string> readClassNames(Direct& direct) {
  return texts(read<pb::ListMclassResponse>(direct, Norv::listMclass, pb::EmptyRequest()).names());
}

std::vector<std::string> readDriverNames(Direct& direct) {
  return texts(
      read<pb::ListDriversResponse>(direct, Norv::listDrivers, pb::EmptyRequest()).driver_names());
}

std::vector<std::string> readPlugins(Direct& direct) {
  return texts(
      read<pb::ListPluginsResponse>(direct, Norv::listPlugins, pb::EmptyRequest()).paths());
}

std::string readVersion(Direct& direct) {
  return read<pb::VersionResponse>(direct, Norv::getVersion, pb::EmptyRequest()).version();
}

std::vector<std::string> readModuleNames(Direct& direct) {
  std::vector<std::string> names;
  const auto list = read<pb::ListModulesResponse>(direct, Norv::listModules, pb::EmptyRequest());
  for (const auto& module : list.modules()) names.push_back(module.name());
  return names;
}

std::vector<pb::GetModuleInfoResponse> readModules(Direct& direct) {
  std::vector<pb::GetModuleInfoResponse> modules;
  for (const std::string& name : readModuleNames(direct)) {
    pb::GetModuleInfoRequest request;
    request.set_name(name);
    auto module = direct.ask<pb::GetModuleInfoResponse>(Norv::getModuleInfo, request);
    if (module.error().code() == 0) modules.push_back(std::move(module));  // else gone meanwhile
  }
  return modules;
}

std::vector<Flow> portFlows(Direct& direct) {
  std::vector<Flow> flows;
  const auto list = read<pb::ListPortsResponse>(direct, Norv::listPorts, pb::EmptyRequest());
  for (const auto& listed : list.ports()) {
    pb::GetPortStatsRequest request;
    request.set_name(listed.name());
    const auto stats = direct.ask<pb::GetPortStatsResponse>(Norv::getPortStats, request);
    if (stats.error().code() != 0) continue;  // gone meanwhile
    flows.push_back({listed.name(),
                     listed.driver(),
                     stats.timestamp(),
                     {{"in packet/s", stats.inc().packets(), 1},
                      {"in bit/s", stats.inc().bytes(), 8},
                      {"in drop/s", stats.inc().dropped(), 1},
                      {"out packet/s", stats.out().packets(), 1},
                      {"out bit/s", stats.out().bytes(), 8},
                      {"out drop/s", stats.out().dropped(), 1}}});
  }
  return flows;
}

std::vector<Flow> tcFlows(Direct& direct) {
  std::vector<Flow> flows;
  for (const auto& one : readTcs(direct)) {
    const pb::TrafficClass& tc = one.class_();
    pb::GetTcStatsRequest request;
    request.set_name(tc.name());
    const auto stats = direct.ask<pb::GetTcStatsResponse>(Norv::getTcStats, request);
    if (stats.error().code() != 0) continue;
    flows.push_back({tc.name(),
                     tc.policy(),
                     stats.timestamp(),
                     {{"run/s", stats.count(), 1},
                      {"cycle/s", stats.cycles(), 1},
                      {"packet/s", stats.packets(), 1},
                      {"bit/s", stats.bits(), 1}}});
  }
  return flows;
}

std::string connectionName(const std::string& from, unsigned long long ogate, const std::string& to,
                           unsigned long long igate) {
  return from + ":" + std::to_string(ogate) + " -> " + std::to_string(igate) + ":" + to;
}

std::vector<Flow> connectionFlows(const std::vector<pb::GetModuleInfoResponse>& modules) {
  std::vector<Flow> flows;
  for (const auto& module : modules) {
    for (const auto& gate : module.ogates()) {
      flows.push_back({connectionName(module.name(), gate.ogate(), gate.name(), gate.igate()), "",
                       gate.timestamp(), gateCounters(gate.pkts(), gate.bytes(), gate.cnt())});
    }
  }
  return flows;
}

std::vector<Flow> moduleFlows(const pb::GetModuleInfoResponse& module) {
  std::vector<Flow> flows;
  for (const auto& gate : module.igates()) {
    std::vector<std::string> from;
    for (const auto& other : gate.ogates()) {
      from.push_back(other.name() + ":" + std::to_string(other.ogate()));
    }
    flows.push_back({"in " + std::to_string(gate.igate()), "from " + listed(from), gate.timestamp(),
                     gateCounters(gate.pkts(), gate.bytes(), gate.cnt())});
  }
  for (const auto& gate : module.ogates()) {
    flows.push_back({"out " + std::to_string(gate.ogate()),
                     "to " + std::to_string(gate.igate()) + ":" + gate.name(), gate.timestamp(),
                     gateCounters(gate.pkts(), gate.bytes(), gate.cnt())});
  }
  return flows;
}

std::optional<std::vector<double>> ratesOf(const Flow& before, const Flow& now) {
  const double seconds = now.timestamp - before.timestamp;
  if (before.timestamp == 0 || seconds <= 0 || before.counters.size() != now.counters.size()) {
    return std::nullopt;
  }
  std::vector<double> rates;
  for (std::size_t i = 0; i < now.counters.size(); ++i) {
    const auto was = before.counters[i].value;
    const auto is = now.counters[i].value;
    // One that went back was set to nothing meanwhile.
    const double grown = is >= was ? static_cast<double>(is - was) : static_cast<double>(is);
    rates.push_back(grown * now.counters[i].scale / seconds);
  }
  return rates;
}

}  // namespace Norvctl

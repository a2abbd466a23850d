#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include <bess/pb/service.pb.h>

#include "Direct.h"

// What a switch looks like and does at this moment, read beside the library. All of it throws
// DirectError where the daemon cannot be asked, and for a refusal that it did not expect.
namespace Norvctl {

struct LivePort {
  std::string name;
  std::string driver;
  std::string macAddress;
  // Numbers of queues and their sizes, which only daemons of today tell.
  std::optional<unsigned long long> inQueues, outQueues, inSize, outSize;
  std::optional<bess::pb::PortConf> conf;  // unless the daemon refuses
  bess::pb::GetLinkStatusResponse link;
  bess::pb::GetPortStatsResponse stats;
};
std::vector<LivePort> readPorts(Direct& direct);

std::vector<bess::pb::ListWorkersResponse::WorkerStatus> readWorkers(Direct& direct);
std::vector<bess::pb::ListTcsResponse::TrafficClassStatus> readTcs(Direct& direct);
std::vector<std::string> readClassNames(Direct& direct);
std::vector<std::string> readDriverNames(Direct& direct);
std::vector<std::string> readPlugins(Direct& direct);
std::string readVersion(Direct& direct);

// The modules with their gates, sorted by name.
std::vector<bess::pb::GetModuleInfoResponse> readModules(Direct& direct);
std::vector<std::string> readModuleNames(Direct& direct);

// Something that counts, read at one moment; two readings give rates.
struct Counter {
  std::string title;  // of the rate, as in "in packet/s"
  unsigned long long value = 0;
  double scale = 1;  // of the rate: 8 for bytes told as bits
};
struct Flow {
  std::string name;
  std::string detail;    // tells it from others of the name
  double timestamp = 0;  // seconds, the daemon's clock; 0: nothing is counted there
  std::vector<Counter> counters;
};
std::vector<Flow> portFlows(Direct& direct);
std::vector<Flow> tcFlows(Direct& direct);
// One for each connection, or for the gates of one module.
std::vector<Flow> connectionFlows(const std::vector<bess::pb::GetModuleInfoResponse>& modules);
std::vector<Flow> moduleFlows(const bess::pb::GetModuleInfoResponse& module);
std::string connectionName(const std::string& from, unsigned long long ogate, const std::string& to,
                           unsigned long long igate);

// Per second, as many as `now` has counters; none where nothing was counted in between.
std::optional<std::vector<double>> ratesOf(const Flow& before, const Flow& now);

}  // namespace Norvctl

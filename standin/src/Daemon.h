#pragma once

#include <Standin/Server.h>

#include <functional>
#include <set>
#include <string>

#include <bess/pb/service.pb.h>

#include "ActiveWorkers.h"
#include "Metadata.h"
#include "Pipeline.h"
#include "Ports.h"
#include "Requests.h"
#include "TrafficClasses.h"
#include "Workers.h"

namespace Standin {

// The daemon's state and what each request does to it. A member function per request, named after
// it, takes the request and fills the response; it throws Refusal to refuse in band, and
// HandlerFailure or Unimplemented to fail the call. Not thread safe: the service calls one function
// at a time.
class Daemon : public Requests {
 public:
  explicit Daemon(const Options& options) : options_(options), workers_(options.cores) {}

  void getVersion(const bess::pb::EmptyRequest&, bess::pb::VersionResponse&) override;
  void resetAll(const bess::pb::EmptyRequest&, bess::pb::EmptyResponse&) override;
  void killBess(const bess::pb::EmptyRequest&, bess::pb::EmptyResponse&) override;
  void importPlugin(const bess::pb::ImportPluginRequest&, bess::pb::EmptyResponse&) override;
  void unloadPlugin(const bess::pb::UnloadPluginRequest&, bess::pb::EmptyResponse&) override;
  void listPlugins(const bess::pb::EmptyRequest&, bess::pb::ListPluginsResponse&) override;
  void pauseAll(const bess::pb::EmptyRequest&, bess::pb::EmptyResponse&) override;
  void pauseWorker(const bess::pb::PauseWorkerRequest&, bess::pb::EmptyResponse&) override;
  void resumeWorker(const bess::pb::ResumeWorkerRequest&, bess::pb::EmptyResponse&) override;
  void resumeAll(const bess::pb::EmptyRequest&, bess::pb::EmptyResponse&) override;
  void resetWorkers(const bess::pb::EmptyRequest&, bess::pb::EmptyResponse&) override;
  void listWorkers(const bess::pb::EmptyRequest&, bess::pb::ListWorkersResponse&) override;
  void addWorker(const bess::pb::AddWorkerRequest&, bess::pb::EmptyResponse&) override;
  void destroyWorker(const bess::pb::DestroyWorkerRequest&, bess::pb::EmptyResponse&) override;
  void resetTcs(const bess::pb::EmptyRequest&, bess::pb::EmptyResponse&) override;
  void listTcs(const bess::pb::ListTcsRequest&, bess::pb::ListTcsResponse&) override;
  void checkSchedulingConstraints(const bess::pb::EmptyRequest&,
                                  bess::pb::CheckSchedulingConstraintsResponse&) override;
  void addTc(const bess::pb::AddTcRequest&, bess::pb::EmptyResponse&) override;
  void updateTcParams(const bess::pb::UpdateTcParamsRequest&, bess::pb::EmptyResponse&) override;
  void updateTcParent(const bess::pb::UpdateTcParentRequest&, bess::pb::EmptyResponse&) override;
  void getTcStats(const bess::pb::GetTcStatsRequest&, bess::pb::GetTcStatsResponse&) override;
  void listDrivers(const bess::pb::EmptyRequest&, bess::pb::ListDriversResponse&) override;
  void getDriverInfo(const bess::pb::GetDriverInfoRequest&,
                     bess::pb::GetDriverInfoResponse&) override;
  void resetPorts(const bess::pb::EmptyRequest&, bess::pb::EmptyResponse&) override;
  void listPorts(const bess::pb::EmptyRequest&, bess::pb::ListPortsResponse&) override;
  void createPort(const bess::pb::CreatePortRequest&, bess::pb::CreatePortResponse&) override;
  void destroyPort(const bess::pb::DestroyPortRequest&, bess::pb::EmptyResponse&) override;
  void setPortConf(const bess::pb::SetPortConfRequest&, bess::pb::EmptyResponse&) override;
  void getPortConf(const bess::pb::GetPortConfRequest&, bess::pb::GetPortConfResponse&) override;
  void addPortMacAddress(const bess::pb::MacAddressRequest&, bess::pb::EmptyResponse&) override;
  void removePortMacAddress(const bess::pb::MacAddressRequest&, bess::pb::EmptyResponse&) override;
  void getPortStats(const bess::pb::GetPortStatsRequest&, bess::pb::GetPortStatsResponse&) override;
  void getLinkStatus(const bess::pb::GetLinkStatusRequest&,
                     bess::pb::GetLinkStatusResponse&) override;
  void listMclass(const bess::pb::EmptyRequest&, bess::pb::ListMclassResponse&) override;
  void getMclassInfo(const bess::pb::GetMclassInfoRequest&,
                     bess::pb::GetMclassInfoResponse&) override;
  void resetModules(const bess::pb::EmptyRequest&, bess::pb::EmptyResponse&) override;
  void listModules(const bess::pb::EmptyRequest&, bess::pb::ListModulesResponse&) override;
  void createModule(const bess::pb::CreateModuleRequest&, bess::pb::CreateModuleResponse&) override;
  void destroyModule(const bess::pb::DestroyModuleRequest&, bess::pb::EmptyResponse&) override;
  void getModuleInfo(const bess::pb::GetModuleInfoRequest&,
                     bess::pb::GetModuleInfoResponse&) override;
  void connectModules(const bess::pb::ConnectModulesRequest&, bess::pb::EmptyResponse&) override;
  void disconnectModules(const bess::pb::DisconnectModulesRequest&,
                         bess::pb::EmptyResponse&) override;
  void dumpMempool(const bess::pb::DumpMempoolRequest&, bess::pb::DumpMempoolResponse&) override;
  void moduleCommand(const bess::pb::CommandRequest&, bess::pb::CommandResponse&) override;
  void configureGateHook(const bess::pb::ConfigureGateHookRequest&,
                         bess::pb::CommandResponse&) override;

 private:
  // Held by a request that stops the workers while it changes things. They go on when it ends,
  // refused or not, and leaves that wait for a place get one then.
  class Pause {
   public:
    explicit Pause(Daemon& daemon) : daemon_(daemon) {
      if (!daemon_.workers_.anyRunning()) daemon_.metadata_.settle();
    }
    ~Pause() {
      daemon_.attachLeaves();
      if (daemon_.workers_.anyRunning()) daemon_.metadata_.resumed();
    }
    Pause(const Pause&) = delete;
    Pause& operator=(const Pause&) = delete;

   private:
    Daemon& daemon_;
  };

  // Gives the waiting leaves to the workers in turn, the first of which is launched when there is
  // none, and tidies the trees.
  void attachLeaves();
  void launchFirstWorker();
  void destroyModuleNamed(const std::string& name);
  // The worker that a request's `wid` means, -1 for any; refuses when there is none.
  int checkedWorker(std::int64_t wid);
  // Hangs the node below the parent that the request wants, or leaves it waiting for the worker;
  // loses it when refused.
  void place(TrafficNode& node, const bess::pb::TrafficClass& wanted);
  // The class that a request names by its name or by module and task.
  TrafficNode& trafficClassNamed(const bess::pb::TrafficClass& wanted) const;
  bool activeInRunningWorker(const Module& module) const;
  void requireMacAddressCalls() const;
  Port& portForStatus(const std::string& name) const;

  Options options_;
  Ports ports_;  // Before the pipeline: modules hold queues of ports.
  Pipeline pipeline_{ports_};
  Metadata metadata_{pipeline_};
  Workers workers_;
  TrafficClasses classes_;
  ActiveWorkers active_;
  std::set<std::string> plugins_;
  std::set<std::string> unloadedPlugins_;
};

}  // namespace Standin

#pragma once

#include <Standin/Server.h>

#include <functional>
#include <set>
#include <string>

#include <bess/pb/service.pb.h>

#include "Pipeline.h"
#include "Ports.h"
#include "TrafficClasses.h"
#include "Workers.h"

namespace Standin {

// The daemon's state and what each request does to it. A member function per request, named after
// it, takes the request and fills the response; it throws Refusal to refuse in band and
// HandlerFailure to fail the call. Not thread safe: the service calls one function at a time.
class Daemon {
 public:
  explicit Daemon(const Options& options) : options_(options), workers_(options.cores) {}

#define NORV_REQUEST(number, name, rpc, request, response) \
  void name(const bess::pb::request&, bess::pb::response&);
#include <Norv/GrpcRequests.def>

 private:
  // Attaches waiting leaves where there is a worker and tidies the trees: what pausing and resuming
  // workers does.
  void passThroughPause();
  // The same, and launches worker 0 for leaves that wait without one.
  void attachOrLaunch();
  void launchFirstWorker();
  void destroyModuleNamed(const std::string& name);
  // Hangs the node where the request wants it; loses it when refused.
  void place(std::unique_ptr<TrafficNode> node, const bess::pb::TrafficClass& wanted);
  bool reachedByRunningWorker(const Module& module) const;
  void forEachReach(
      bool runningOnly,
      const std::function<void(int worker, Module& start, Module& reached)>& visit) const;
  Port& portForStatus(const std::string& name) const;

  Options options_;
  Ports ports_;  // Before the pipeline: modules hold queues of ports.
  Pipeline pipeline_{ports_};
  Workers workers_;
  TrafficClasses classes_;
  std::set<std::string> plugins_;
  std::set<std::string> unloadedPlugins_;
};

}  // namespace Standin

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

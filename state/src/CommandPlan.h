#pragma once

#include "PlanBuilder.h"

namespace Norv::State {

// The steps that send modules their commands, and the pauses around those for which workers have to
// stand still.
class CommandPlanner {
 public:
  CommandPlanner(PlanBuilder& builder, const LiveSwitch& live, const Switch& target,
                 const TrafficPlanner& traffic)
      : builder_(builder), live_(live), target_(target), traffic_(traffic) {}

  // `commands`: of modules that are made, by the steps of `created`.
  using Commands = std::map<std::string, std::vector<ModuleCommand>>;
  void fillNew(const Commands& commands, const std::map<std::string, std::size_t>& created);
  // Modules that are there; one that is made anew is passed over.
  void change(const std::map<std::string, ModuleDifference>& differences);

 private:
  using Reached = std::map<std::string, std::set<std::int64_t>>;

  Reached reachedByRunning() const;
  std::set<std::int64_t> runningAt(const Module& module) const;
  bool othersRun(const std::set<std::int64_t>& standing) const;
  void findReached(std::vector<std::size_t>& before);
  std::vector<std::size_t> send(const std::string& name, const std::vector<ModuleCommand>& commands,
                                std::size_t change, std::vector<std::size_t> after,
                                const std::vector<std::size_t>& behind);
  void window(const std::set<std::int64_t>& workers, const std::vector<std::string>& names,
              const std::map<std::string, ModuleDifference>& differences);

  PlanBuilder& builder_;
  const LiveSwitch& live_;
  const Switch& target_;
  const TrafficPlanner& traffic_;
  std::map<std::string, std::vector<std::size_t>> stops_;  // of workers that come to a module
  std::optional<std::size_t> found_;                       // the daemon has looked who does
  std::vector<std::size_t> resumed_;                       // by the last window
};

}  // namespace Norv::State

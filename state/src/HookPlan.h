#pragma once

#include "PlanBuilder.h"

namespace Norv::State {

// What stays of the live switch.
struct PlanContext {
  const LiveSwitch& live;
  const Switch& target;
  const std::set<std::string>& recreated;  // modules
  const PlanOptions options;

  bool stays(const std::string& module) const;
  // Whether the connection is there and need not be touched.
  bool connectionStays(const Gate& from) const;
};

// The steps that take hooks from gates and put them there.
class HookPlanner {
 public:
  HookPlanner(PlanBuilder& builder, const PlanContext& context);

  // With the connections that go: those of gates that stay.
  void remove();
  // `connected`: the steps that connect output gates, in the order of the gates.
  using Connected = std::vector<std::pair<const Gate*, std::size_t>>;
  void add(const Connected& connected);

  // Whether connectModules puts the wanted hook there by itself.
  static bool comesWithConnection(const HookPoint& point, const std::optional<Any>& arg);

 private:
  bool gateStays(const HookPoint& point);
  std::string whyAnew(const HookPoint& point, const std::optional<Any>& live,
                      const std::optional<Any>& wanted);
  bool canBeTold(const HookPoint& point);
  void addOne(const HookPoint& point, const std::optional<Any>& arg, const Connected& connected);
  Object ownerOf(const HookPoint& point) const;
  std::vector<std::size_t> connectionsTo(const HookPoint& point, const Connected& connected);

  PlanBuilder& builder_;
  const PlanContext context_;
  const LiveSwitch& live_;
  const Switch& target_;
  std::vector<std::size_t> removed_;  // then the first that was added behind them
  std::optional<std::set<Gate>> stayingInputs_;
  std::optional<std::map<Gate, std::vector<std::size_t>>> connectedInputs_;
};

}  // namespace Norv::State

#pragma once

#include <Standin/Fault.h>
#include <google/protobuf/message.h>

#include <atomic>
#include <list>
#include <mutex>
#include <optional>
#include <random>
#include <vector>

namespace Standin {

// The faults in force. May be used from any thread.
class Faults {
 public:
  // A fault that strikes a call.
  struct Strike {
    Fault fault;
    std::uint32_t ms = 0;  // The delay drawn for this call.
  };

  void add(const Fault& fault);
  void clear();
  std::vector<FaultCount> counts() const;
  // The first rule that strikes this call, if one does; all that match count it.
  std::optional<Strike> strike(const char* rpc, const google::protobuf::Message& request) {
    if (!any_.load(std::memory_order_relaxed)) return std::nullopt;
    return find(rpc, request);
  }

 private:
  struct Rule {
    Fault fault;
    std::uint64_t matched = 0;
    std::uint64_t injected = 0;
    std::mt19937_64 random;
  };

  std::optional<Strike> find(const char* rpc, const google::protobuf::Message& request);

  std::atomic<bool> any_ = false;  // Relaxed: a call that races with add may miss the rule.
  mutable std::mutex mutex_;
  std::list<Rule> rules_;
};

}  // namespace Standin

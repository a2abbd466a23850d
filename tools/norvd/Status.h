#pragma once

#include <array>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <Norv/Agent/Outcome.h>
#include <Norv/State/LiveSwitch.h>
#include <Norv/State/Plan.h>

#include "Memory.h"
#include "Reader.h"

namespace Norvd {

enum class Standing { inSync, pending, refused, blocked, quarantined, contested, differs };
inline constexpr std::size_t standings = 7;
// "in sync", "pending" and so on.
const char* standingName(Standing standing);

struct ObjectStatus {
  Standing standing = Standing::inSync;
  std::string text;  // why
  WallTime since;
};

// The switch as it was last compared. Not changed once it is made.
struct Picture {
  WallTime time;
  std::shared_ptr<const Norv::State::LiveSwitch> live;
  std::shared_ptr<const Norv::State::Switch> wanted;  // null: there is no document in force
  std::shared_ptr<const Norv::State::Plan> plan;      // what differs; null as `wanted` is
  std::map<Norv::State::Object, ObjectStatus> objects;
  std::array<std::size_t, standings> counts{};
  std::map<std::string, PortTraffic> ports;
  struct Rate {
    double packets = 0;  // per second
    double bits = 0;
  };
  std::map<Norv::State::Gate, Rate> rates;  // of output gates
};

// One moment of the last minutes.
struct Sample {
  WallTime time;
  std::size_t open = 0;  // commands
  std::array<std::uint64_t, Norv::Agent::outcomes> ended{};
};

struct QueueStatus {
  std::uint64_t now = 0;
  std::uint64_t maximum = 0;
};

// What norvd does and knows, as it is told to whoever asks.
struct Status {
  std::string address;                // of the daemon
  std::string sentence = "starting";  // why nothing is moving, or what is
  WallTime since;
  WallTime published;
  bool inSync = false;
  bool ready = false;  // the switch was compared with a document
  bool observes = false;
  WallTime started;
  std::uint64_t restarts = 0;
  std::string version;               // of the daemon; empty: not known
  std::string document;              // which one is in force
  std::vector<std::string> notices;  // what somebody should look after
  std::map<std::string, QueueStatus> queues;
  QueueStatus pending;
  struct UnderWay {
    std::string command;
    std::string object;  // empty: it is about none
    WallTime since;
    double seconds = 0;
  };
  std::optional<UnderWay> underWay;
  std::array<std::uint64_t, Norv::Agent::outcomes> outcomes{};
  std::vector<Event> failures;
  std::shared_ptr<const Picture> picture;  // null: it was not compared yet
  std::deque<Sample> samples;              // the last ones, one a second
};

// Where the main thread puts the status and others read it. Any thread.
class Board {
 public:
  void statusIs(std::shared_ptr<const Status> status) {
    const std::lock_guard guard(mutex_);
    status_ = std::move(status);
  }
  std::shared_ptr<const Status> status() const {
    const std::lock_guard guard(mutex_);
    return status_;
  }

 private:
  mutable std::mutex mutex_;
  std::shared_ptr<const Status> status_ = std::make_shared<Status>();
};

// As JSON, and the plan as JSON.
std::string statusJson(const Status& status);
std::string planJson(const Picture& picture);

// The live switch beside the one before: packets and bits per second.
std::map<Norv::State::Gate, Picture::Rate> ratesOf(const Norv::State::LiveSwitch* before,
                                                   const Norv::State::LiveSwitch& now);

}  // namespace Norvd

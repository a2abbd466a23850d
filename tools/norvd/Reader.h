#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include <Lumo/Types.h>
#include <Norv/State/LiveSwitch.h>

namespace Norvd {

// What has come and gone at a port since it was made.
struct PortTraffic {
  std::uint64_t incPackets = 0, incBytes = 0, incDropped = 0;
  std::uint64_t outPackets = 0, outBytes = 0, outDropped = 0;
};

// One look at the switch.
struct Reading {
  std::shared_ptr<Norv::State::LiveSwitch> live;  // null: it could not be read whole
  std::map<std::string, PortTraffic> ports;
  std::string error;
  bool fresh = false;  // the first over its connection
};

// Looks at the switch on a thread of its own, beside the library's road. After a look that failed
// the next one has a fresh channel: an old one pauses between attempts to connect. So does an
// attempt to connect itself where nothing answers, so that others are made beside it.
class Reader {
 public:
  // `done` is called on that thread. The reader stays to the end of the process.
  Reader(const std::string& host, U16 port, std::chrono::milliseconds patience,
         std::function<void(Reading)> done);

  // One look at a time: not while one is under way.
  void start();
  // Lets a worker run again, over the connection of the last look; why it does not, or empty. Waits
  // for the answer, as long as told. Not while a look is under way.
  std::string resume(std::int64_t worker, std::chrono::milliseconds patience) const;
  // Whether the connection is gone that the last reading was made over.
  bool lost() const { return lost_ && *lost_; }

 private:
  void connect();
  std::shared_ptr<Norv::State::LiveSwitch> readOnce() const;
  Reading read();
  std::string whySilent(const Norv::State::ReadError& error) const;
  void watch();

  const std::string host_;
  const U16 port_;
  const std::chrono::milliseconds patience_;
  const std::function<void(Reading)> done_;
  std::shared_ptr<grpc::Channel> channel_;  // not changed while a look is under way
  bool failed_ = true;                      // the last look
  // Of the channel; null: it was never connected. Set by a thread that waits for that.
  std::shared_ptr<std::atomic<bool>> lost_;
};

}  // namespace Norvd

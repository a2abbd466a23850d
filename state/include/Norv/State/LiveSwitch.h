#pragma once

#include <grpcpp/grpcpp.h>

#include <chrono>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>

#include <Norv/State/Document.h>

// A live switch, read back. Beside the library's road: its client ends the process at getPortConf
// and cannot take a reply above 4 MiB.
namespace Norv::State {

// The daemon cannot be asked, or changed while it was read; for a person.
class ReadError : public std::runtime_error {
 public:
  ReadError(grpc::StatusCode status, const std::string& text)
      : std::runtime_error(text), status_(status) {}
  grpc::StatusCode status() const { return status_; }

 private:
  const grpc::StatusCode status_;
};

// What has passed an output gate since it was connected, and when, in seconds of the daemon's
// clock.
struct Traffic {
  std::uint64_t packets = 0;
  std::uint64_t bytes = 0;
  double time = 0;
};

struct LiveSwitch : Switch {
  // Whether gates tell their hooks; else only that there is a Track hook can be told, from its
  // counters.
  bool tellsHooks = false;
  std::string version;
  // Tasks whose traffic class is lost: a module in this state has to be made anew.
  std::set<std::string> lostTasks;  // names of modules
  // What a record says was begun and not ended: whatever of it is not told has to be set again. A
  // worker is one that was paused meanwhile, and stands still yet.
  std::set<Object> doubtful;
  std::set<std::int64_t> doubtfulSchedulers;  // of workers; the same of their schedulers
  Unfinished unfinished;                      // of a plan that was cut short
  std::map<std::string, std::string>
      descriptions;                 // of modules, where they do not change by themselves
  std::map<Gate, Traffic> traffic;  // of the gates that are counted
  Offer offer;                      // all classes and drivers that the daemon has
};

// Asks for everything, one call after the other on this thread, each with a deadline. An object
// that goes while it is read is left out. Throws ReadError when a call fails or is refused: half a
// switch is none. A large one tells more than 4 MiB in one reply: the channel has to take it
// (SetMaxReceiveMessageSize).
LiveSwitch readSwitch(const std::shared_ptr<grpc::Channel>& channel,
                      std::chrono::milliseconds patience = std::chrono::seconds(5));

// The switch as a document states it: without what a daemon does by itself, which is where it puts
// a task when there is no choice.
Switch described(const LiveSwitch& live);
// What no document can say of the switch.
Notes besideDocument(const LiveSwitch& live);

}  // namespace Norv::State

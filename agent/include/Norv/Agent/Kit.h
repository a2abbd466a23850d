#pragma once

#include <map>
#include <memory>
#include <optional>

#include <Norv/Agent/FlightRecorder.h>
#include <Norv/Agent/Ledger.h>
#include <Norv/Agent/Tracked.h>
#include <Norv/ConnectionsMgr.h>

namespace Norv::Agent {

// What to do when the error flag has risen.
struct FailurePolicy {
  enum class Action {
    reportAndStop,  // leave the flag; nothing more is sent
    clearAndGoOn,   // clear it after `pause` and wake the worker
  };
  Action action = Action::reportAndStop;
  std::chrono::milliseconds pause{0};
};

// What the connection is doing at this moment.
struct Status {
  enum class Worker { none, idle, inFlight, stopped };
  struct Depth {
    U64 now = 0;
    U64 maximum = 0;
  };
  Worker worker = Worker::none;                       // none: simulation, or no manager yet
  std::optional<CommandReport> inFlight;              // `started` tells since when
  std::optional<Time> stoppedSince;                   // set while the error flag is
  std::map<Lumo::Name, Depth> queues;                 // the named queues
  Depth pending;                                      // announced and not yet taken by the worker
  std::optional<std::chrono::nanoseconds> oldestAge;  // since announcement
  std::optional<CommandReport> lastFailure;
};
const char* workerName(Status::Worker worker);

// Everything an agent wants around a connection manager and the library leaves to it. Built on the
// library's public interfaces only; an agent that does without links nothing of it.
//
//   Kit kit(globalCmdConfig, pendingQueue, status);       // before the manager: it sees all moves
//   auto mgr = ConnectionsMgr::ConnectionsMgrIs(host, globalCmdConfig, pendingQueue, status);
//   kit.managerIs(mgr);
//   ... commands as Tracked<...>(kit.ledger(), ...), kit.tick() every few milliseconds ...
//
// Everything here is for the main thread, with the activity lock held, and a kit is made on it. The
// worker tells the kit of failures without it, so the kit must stay while a command is under way.
//
// The library tells the status of a failed RPC to its trace only. So the kit puts a sink of its own
// before that of the text trace and turns level 0 of GrpcClient on; what there was gets its lines
// as before. An agent with a sink or a trace setting of its own sets it first: where it replaces
// the kit's, reports of failures have no status.
//
// What the kit cannot see:
// - When the worker is done with a command whose reply does not decode, unless it lets go of the
//   last reference. If its producer keeps one, the command counts as under way until the next one
//   is seen to be taken or answered, or the producer lets go, and ends as undecodable then; a
//   failure that comes before may be taken for its own. One that its producer lets go between two
//   looks (tick, status) at the queue may end as dropped.
// - What came of a command under way when somebody other than the worker raises the flag, if there
//   is no answer to it: it ends as dropped.
// - A failure after which the flag is cleared before stopped(), by whomever: its command may end as
//   undecodable. Clear the flag only once stopped().
// - That it was the handler of a command that is not tracked that set the flag. As when such a
//   command fails, a tracked one that is kept and whose reply did not decode may be taken for the
//   one that failed.
// - That a batch overtakes a command. A reactor on onCmdBatch that announces another queue while a
//   command is being moved puts that batch before it. If the reactor comes after the kit's, the
//   command ends as undecodable once one of the batch is answered, though it is yet to be sent.
class Kit {
 public:
  // Of the objects that the manager is to be made with, before it is; holds them. `now` is what
  // ages and pauses are counted by, and is called on any thread.
  Kit(const Lumo::Ptr<GrpcGlobalCmdConfig>& config, const Lumo::Ptr<CmdGroup>& pendingQueue,
      const Lumo::Ptr<GrpcErrorHandlingStatus>& status,
      TimeSource now = std::chrono::steady_clock::now);
  ~Kit();
  Kit(const Kit&) = delete;
  Kit& operator=(const Kit&) = delete;

  // Where tracked commands are entered.
  const std::shared_ptr<Ledger>& ledger() const { return ledger_; }
  // Right after the manager is made, before anything else is asked of the kit. Its worker may have
  // failed a command by then; that is in the books, but a command that is not tracked passes for
  // the oldest one that is.
  void managerIs(const Lumo::Ptr<ConnectionsMgr>& manager);
  // What is done once the flag is up; looked at by each tick.
  void failurePolicyIs(const FailurePolicy& policy) { policy_ = policy; }
  // Asked on the worker when the flag rises, for the text that goes into the failed command's
  // report, instead of the status text of the RPC. Set before the manager is made.
  void failureTextIs(std::function<std::string()> text) { failureText_ = std::move(text); }

  // Keeps the last trace records in a file of `size` bytes and freezes them, with what is known of
  // the command, whenever the flag rises, up to `mostCopies` times (see FlightRecorder). The thread
  // that raises it, after a failure the worker, copies the file. Throws when the file cannot be
  // made. Set before the manager is made.
  void flightRecorderIs(const std::string& path, U64 size = FlightRecorder::usualSize,
                        unsigned mostCopies = FlightRecorder::usualCopies);

  // Wakes the worker again if commands wait, as a single wake-up may have been lost; carries out
  // the failure policy when its time has come. Call it from a clock, every few milliseconds.
  void tick();

  // Whether the error flag is up and the kit has entered the failure into its books.
  bool stopped() const { return ledger_->stoppedSince().has_value(); }
  // Clears the error flag, once stopped(), and wakes the worker. What the worker took meanwhile
  // ends as dropped, once the worker lets it go.
  void clearAndGoOn();
  // How things stand now; maxima since the kit was made.
  Status status() const;

  // Takes every command that waits out of the named queues and the pending queue; they end as
  // dropped. What the worker has taken already is not affected.
  void dropWaiting();
  // Gives every open command its end, in order: the one under way as failed with `reason`, the
  // others as dropped. Nothing is sent afterwards.
  void closeBooks(const std::string& reason);

  // Ends the process with `exitStatus`, output flushed, although the worker cannot be told to stop
  // and the manager cannot be destroyed: destructors of static objects are not run.
  [[noreturn]] static void leaveProcess(int exitStatus);

 private:
  class ConfigWatcher;
  class QueueWatcher;
  class StatusWatcher;

  void follow(const Lumo::Name& name);
  bool moving() const;
  bool trackedFailed() const;
  void onFlag();
  void wakeWorker();
  template <class Function>
  auto underThreadLock(Function function) const;
  std::optional<U64> firstPending() const;
  std::optional<U64> underWay() const;

  const Lumo::Ptr<GrpcGlobalCmdConfig> config_;
  const Lumo::Ptr<CmdGroup> pendingQueue_;
  const Lumo::Ptr<GrpcErrorHandlingStatus> status_;
  const std::shared_ptr<Ledger> ledger_;
  std::unique_ptr<FlightRecorder> recorder_;
  Lumo::Ptr<ConnectionsMgr> manager_;             // the main thread's
  std::atomic<Lumo::Lock*> threadLock_{nullptr};  // of the manager, if connected
  FailurePolicy policy_;
  std::function<std::string()> failureText_;
  std::map<Lumo::Name, Lumo::Ptr<QueueWatcher>> queues_;
  Lumo::Ptr<ConfigWatcher> configWatcher_;
  Lumo::Ptr<StatusWatcher> statusWatcher_;
  // What firstPending has found. It stays the first until it is taken, and while there was none,
  // none comes but by an announcement: so commands that are not tracked are passed over once,
  // however many wait. Under threadLock.
  struct Found {
    U32 index = 0;  // in the pending queue
    U64 id = 0;     // 0: none
    U64 announcedCount = 0;
  };
  mutable Found found_;
};

}  // namespace Norv::Agent

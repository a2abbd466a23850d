#pragma once

#include <array>
#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <Lumo/Lock.h>
#include <Lumo/Name.h>
#include <Norv/Agent/AscendingTable.h>
#include <Norv/Agent/Outcome.h>
#include <Norv/GrpcCmd.h>

namespace Norv::Agent {

using Time = std::chrono::steady_clock::time_point;
// The time, injected so that tests need not wait. Called from any thread.
using TimeSource = std::function<Time()>;

class TrackedEntry;

// What is known of one command.
struct CommandReport {
  U64 id = 0;   // in the order of creation, from 1
  U64 seq = 0;  // in the order of announcement, from 1; 0: not announced
  GrpcRequestType type = unknown;
  Lumo::Name queue;  // empty: not announced
  Time announced{};
  // When its service began: when it was announced or its predecessor ended, whichever was later.
  // One command is under way at a time, in order.
  Time started{};
  Time ended{};
  Outcome outcome = Outcome::dropped;
  U64 queueDepth = 0;     // commands of its queue still open when it ended
  int errorCode = 0;      // of a refusal
  int rpcCode = 0;        // of a failure: its gRPC status code; 0: not known
  std::string errorText;  // of a refusal; of a failure, its status text or what is known about it
};

// Accounts for every tracked command, from what can be seen from outside the library: responses,
// destructions, moves between queues, and the error flag. Commands go to the daemon one at a time
// and in order, so a command that has ended tells about those before it: they were skipped.
//
// Any thread. The listener is called once per command, in the order of the ends, on the thread that
// ended it, possibly under threadLock and while other ends wait for it; it must not call back into
// the ledger, the kit or the manager, or wait.
class Ledger {
 public:
  using Listener = std::function<void(const CommandReport&)>;

  // Made on the main thread.
  explicit Ledger(TimeSource now = std::chrono::steady_clock::now) : now_(std::move(now)) {}

  // Set before the first command is announced.
  void listenerIs(Listener listener) { listener_ = std::move(listener); }

  // The events of a command's life, reported by Tracked and Kit.
  // `entry` is asked for the request; it stays until its command is answered or released.
  U64 created(GrpcRequestType type, const TrackedEntry* entry = nullptr);
  void announced(U64 id, const Lumo::Name& queue);
  // Lives while an answer is in its command's handler. If the error flag rises meanwhile on the
  // worker, that is no failure of the command.
  class Handling {
   public:
    explicit Handling(Ledger& ledger);
    ~Handling();
    Handling(const Handling&) = delete;
    Handling& operator=(const Handling&) = delete;

   private:
    Ledger* const ledger_;  // null on other threads than the worker
  };
  bool isHandling() const;  // whether the worker is in a handler
  // `at` by the ledger's clock; code and text are those of the response's `error` field, 0 and
  // empty for success.
  void answered(U64 id, Time at, int errorCode, const std::string& errorText);
  void released(U64 id);   // without an answer
  void discarded(U64 id);  // taken out of its queue and not sent, whoever still holds it
  // Commands leave the pending queue in the order of their announcement: the worker has taken every
  // open one before `firstPending`, or every one if there is none. All but the last of these are
  // done with. Returns that last one.
  std::optional<U64> takenBefore(std::optional<U64> firstPending);

  // The error flag has risen as the oldest open command failed, or (not commandFailed) otherwise.
  // Until it is cleared, what is released unanswered was dropped.
  void flagRose(bool commandFailed, const std::string& text, int rpcCode = 0);
  // The last of what a change of the flag brings about; `since`: when it has risen, from one who
  // has entered that. Asks where the flag stands under the ledger's lock: of several threads that
  // change it, the one that comes here last leaves the books as the flag is.
  void flagSettled(const std::function<bool()>& isUp, std::optional<Time> since = std::nullopt);
  // Since when the flag is up, once that is entered.
  std::optional<Time> stoppedSince() const;
  // The worker holds the command as the flag is about to be cleared. Usually it has seen the flag,
  // and lets the command go unsent; should it only look now, the command is sent after all.
  void takenWhileStopped(U64 id);

  // Ends what is still open, in order: the oldest announced one, if it is the one `underWay`, as
  // failed with `reason`, the rest as dropped.
  void close(std::optional<U64> underWay, const std::string& reason);

  // The thread that takes and sends commands. Until it is known, that is any but the ledger's own.
  void workerIs(std::thread::id worker);
  bool onWorker() const;  // whether this thread is the worker

  // Counts since the ledger was made.
  U64 count(Outcome outcome) const;
  U64 ended() const;
  U64 announcedCount() const;        // of those that were ever announced
  bool isOpen(U64 id) const;         // announced and not ended
  U64 openAnnounced() const;         // how many are
  U64 openAnnouncedMaximum() const;  // the most that ever were at once
  // The announced command that is under way or next.
  std::optional<CommandReport> oldestOpen() const;
  // The command that failed last; none if none has.
  std::optional<CommandReport> lastFailure() const;
  // Its request as JSON, or a text that says why there is none; empty if no command is open. A
  // request above `mostBytes` is not written out.
  std::string oldestOpenRequest(std::size_t mostBytes) const;
  Time now() const { return now_(); }

 private:
  struct Command {
    CommandReport report;
    const TrackedEntry* entry = nullptr;
  };

  void end(Command& command, Outcome outcome, Time at) LUMO_REQUIRES(publishing_, lock_);
  std::size_t placeOf(U64 seq) const LUMO_REQUIRES(lock_);
  void leaveOpen(U64 seq) LUMO_REQUIRES(lock_);
  void endUnanswered(U64 id, bool maybeSent);
  void endOldest(Outcome outcome) LUMO_REQUIRES(publishing_, lock_);
  Outcome skippedOutcome(U64 id) const LUMO_REQUIRES(lock_);
  void endSkippedBefore(U64 seq) LUMO_REQUIRES(publishing_, lock_);
  bool isWorker() const LUMO_REQUIRES(lock_);
  // What has ended and was not told yet.
  void publish() LUMO_REQUIRES(publishing_);

  const TimeSource now_;
  Listener listener_;
  // Held from a command's end until the listener has been told, so that one who closes the books
  // has everything told when that returns. Taken before lock_.
  Lumo::Lock publishing_;
  std::vector<CommandReport> ended_ LUMO_GUARDED_BY(publishing_);  // not told yet
  mutable Lumo::Lock lock_;
  U64 lastId_ LUMO_GUARDED_BY(lock_) = 0;
  U64 lastSeq_ LUMO_GUARDED_BY(lock_) = 0;
  AscendingTable<U64, Command> commands_ LUMO_GUARDED_BY(lock_);  // by id, until they end
  // Those that were announced, from the oldest open one on, in the order of their numbers, which
  // have no gaps: null for what has ended.
  std::deque<Command*> open_ LUMO_GUARDED_BY(lock_);
  U64 openCount_ LUMO_GUARDED_BY(lock_) = 0;
  U64 openMaximum_ LUMO_GUARDED_BY(lock_) = 0;
  std::map<Lumo::Name, U64> openOf_ LUMO_GUARDED_BY(lock_);  // by queue
  bool stopped_ LUMO_GUARDED_BY(lock_) = false;
  std::optional<Time> stoppedSince_ LUMO_GUARDED_BY(lock_);
  U64 handling_ LUMO_GUARDED_BY(lock_) = 0;      // handlers that the worker is in
  U64 doubtful_ LUMO_GUARDED_BY(lock_) = 0;      // the last one taken while stopped
  U64 lastTakenSeq_ LUMO_GUARDED_BY(lock_) = 0;  // as far as it has been seen
  const std::thread::id maker_ = std::this_thread::get_id();
  std::thread::id worker_ LUMO_GUARDED_BY(lock_);
  Time lastEnd_ LUMO_GUARDED_BY(lock_){};
  std::array<U64, outcomes> counts_ LUMO_GUARDED_BY(lock_){};
  std::optional<CommandReport> lastFailure_ LUMO_GUARDED_BY(lock_);
};

}  // namespace Norv::Agent

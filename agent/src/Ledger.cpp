#include <algorithm>
#include <utility>

#include <Norv/Agent/AgentTrace.h>
#include <Norv/Agent/Ledger.h>
#include <Norv/Agent/Tracked.h>

#include "RpcFailures.h"

namespace Norv {

Lumo::TraceHandle& AgentTrace::_defaultTraceHandle() {
  static Lumo::TraceHandle handle("NorvAgent", false);
  return handle;
}

constinit U8 AgentTrace::levelMap[10] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};

bool AgentTrace::_mapTwineToSkein(U8 l0, U8 l1, U8 l2, U8 l3, U8 l4, U8 l5, U8 l6, U8 l7, U8 l8,
                                  U8 l9) {
  return Twine::levelMapIs(levelMap, {l0, l1, l2, l3, l4, l5, l6, l7, l8, l9});
}

}  // namespace Norv

namespace Norv::Agent {

namespace {

const char* const neverAnnounced = "let go before it was announced";

// As a text that needs no memory of its own.
const Lumo::String& textOf(Outcome outcome) {
  static const std::array<Lumo::String, outcomes>& texts = *[] {
    auto* made = new std::array<Lumo::String, outcomes>;
    for (std::size_t i = 0; i < outcomes; ++i) (*made)[i] = outcomeName(static_cast<Outcome>(i));
    return made;
  }();
  return texts[static_cast<std::size_t>(outcome)];
}

}  // namespace

U64 Ledger::created(GrpcRequestType type, const TrackedEntry* entry) {
  Lumo::LockAnchor anchor(&lock_);
  const U64 id = ++lastId_;
  Command& command = commands_.make(id);
  command.report.id = id;
  command.report.type = type;
  command.entry = entry;
  return id;
}

void Ledger::announced(U64 id, const Lumo::Name& queue) {
  const Time now = now_();
  U64 seq = 0, depth = 0;
  GrpcRequestType type{};
  {
    Lumo::LockAnchor anchor(&lock_);
    Command* const command = commands_.find(id);
    if (!command || command->report.seq != 0) return;
    CommandReport& report = command->report;
    seq = report.seq = ++lastSeq_;
    type = report.type;
    report.queue = queue;
    report.announced = now;
    open_.push_back(command);
    openMaximum_ = std::max(openMaximum_, ++openCount_);
    depth = ++openOf_[queue];
  }
  Twine::trace<AgentTrace::announced>(seq, stringValue(type), queue.stringValue(), depth);
}

Ledger::Handling::Handling(Ledger& ledger) : ledger_(ledger.onWorker() ? &ledger : nullptr) {
  takeRpcFailure();  // of an earlier RPC: nobody takes it if the flag is up already
  if (!ledger_) return;
  Lumo::LockAnchor anchor(&ledger_->lock_);
  ++ledger_->handling_;
}

Ledger::Handling::~Handling() {
  if (!ledger_) return;
  Lumo::LockAnchor anchor(&ledger_->lock_);
  --ledger_->handling_;
}

bool Ledger::isHandling() const {
  Lumo::LockAnchor anchor(&lock_);
  return handling_ != 0;
}

void Ledger::answered(U64 id, Time at, int errorCode, const std::string& errorText) {
  Lumo::LockAnchor inOrder(&publishing_);
  {
    Lumo::LockAnchor anchor(&lock_);
    Command* const command = commands_.find(id);
    if (!command) return;
    endSkippedBefore(command->report.seq);
    command->report.errorCode = errorCode;
    command->report.errorText = errorText;
    end(*command, errorCode == 0 ? Outcome::ok : Outcome::refused, at);
  }
  publish();
}

void Ledger::released(U64 id) {
  endUnanswered(id, true);
}

void Ledger::discarded(U64 id) {
  endUnanswered(id, false);
}

void Ledger::endUnanswered(U64 id, bool maybeSent) {
  Lumo::LockAnchor inOrder(&publishing_);
  {
    Lumo::LockAnchor anchor(&lock_);
    Command* const command = commands_.find(id);
    if (!command) return;
    const U64 seq = command->report.seq;
    if (seq == 0) command->report.errorText = neverAnnounced;
    // Whoever holds it last: it was sent if the worker has had it.
    const bool taken = maybeSent && seq != 0 && (isWorker() || seq <= lastTakenSeq_);
    if (taken) endSkippedBefore(seq);
    end(*command, taken ? skippedOutcome(id) : Outcome::dropped, now_());
  }
  publish();
}

std::optional<U64> Ledger::takenBefore(std::optional<U64> firstPending) {
  Lumo::LockAnchor inOrder(&publishing_);
  std::optional<U64> last;
  {
    Lumo::LockAnchor anchor(&lock_);
    auto behind = open_.end();
    if (firstPending) {
      const Command* const first = commands_.find(*firstPending);
      if (!first || first->report.seq == 0) return std::nullopt;
      behind = open_.begin() + static_cast<std::ptrdiff_t>(placeOf(first->report.seq));
    }
    if (behind == open_.begin()) return std::nullopt;
    do --behind;
    while (!*behind);  // the first one never is null
    const CommandReport& report = (*behind)->report;
    last = report.id;
    lastTakenSeq_ = std::max(lastTakenSeq_, report.seq);
    endSkippedBefore(report.seq);
  }
  publish();
  return last;
}

void Ledger::flagRose(bool commandFailed, const std::string& text, int rpcCode) {
  Lumo::LockAnchor inOrder(&publishing_);
  {
    Lumo::LockAnchor anchor(&lock_);
    stopped_ = true;
    if (commandFailed && !open_.empty()) {
      open_.front()->report.errorText = text;
      open_.front()->report.rpcCode = rpcCode;
      endOldest(Outcome::failed);
    }
  }
  publish();
}

void Ledger::flagSettled(const std::function<bool()>& isUp, std::optional<Time> since) {
  Lumo::LockAnchor anchor(&lock_);
  if (!isUp()) {
    stopped_ = false;
    stoppedSince_ = std::nullopt;
  } else if (since) {
    stopped_ = true;
    stoppedSince_ = since;
  }
}

std::optional<Time> Ledger::stoppedSince() const {
  Lumo::LockAnchor anchor(&lock_);
  return stoppedSince_;
}

void Ledger::takenWhileStopped(U64 id) {
  Lumo::LockAnchor anchor(&lock_);
  doubtful_ = id;
}

void Ledger::close(std::optional<U64> underWay, const std::string& reason) {
  Lumo::LockAnchor inOrder(&publishing_);
  {
    Lumo::LockAnchor anchor(&lock_);
    if (!open_.empty() && underWay == open_.front()->report.id) {
      open_.front()->report.errorText = reason;
      endOldest(Outcome::failed);
    }
    while (!open_.empty()) endOldest(Outcome::dropped);
    std::vector<U64> waiting;
    commands_.visit([&](U64 id, const Command&) { waiting.push_back(id); });
    std::sort(waiting.begin(), waiting.end());
    for (const U64 id : waiting) end(*commands_.find(id), Outcome::dropped, now_());
  }
  publish();
}

void Ledger::workerIs(std::thread::id worker) {
  Lumo::LockAnchor anchor(&lock_);
  worker_ = worker;
}

bool Ledger::onWorker() const {
  Lumo::LockAnchor anchor(&lock_);
  return isWorker();
}

bool Ledger::isWorker() const {
  const std::thread::id self = std::this_thread::get_id();
  return worker_ == std::thread::id() ? self != maker_ : self == worker_;
}

U64 Ledger::count(Outcome outcome) const {
  Lumo::LockAnchor anchor(&lock_);
  return counts_[static_cast<std::size_t>(outcome)];
}

U64 Ledger::ended() const {
  Lumo::LockAnchor anchor(&lock_);
  U64 sum = 0;
  for (const U64 count : counts_) sum += count;
  return sum;
}

U64 Ledger::announcedCount() const {
  Lumo::LockAnchor anchor(&lock_);
  return lastSeq_;
}

bool Ledger::isOpen(U64 id) const {
  Lumo::LockAnchor anchor(&lock_);
  const Command* const command = commands_.find(id);
  return command && command->report.seq != 0;
}

U64 Ledger::openAnnounced() const {
  Lumo::LockAnchor anchor(&lock_);
  return openCount_;
}

U64 Ledger::openAnnouncedMaximum() const {
  Lumo::LockAnchor anchor(&lock_);
  return openMaximum_;
}

std::optional<CommandReport> Ledger::oldestOpen() const {
  Lumo::LockAnchor anchor(&lock_);
  if (open_.empty()) return std::nullopt;
  CommandReport report = open_.front()->report;
  report.started = std::max(report.announced, lastEnd_);
  return report;
}

std::optional<CommandReport> Ledger::lastFailure() const {
  Lumo::LockAnchor anchor(&lock_);
  return lastFailure_;
}

// Under the lock the command stays: it comes here to be answered or released first.
std::string Ledger::oldestOpenRequest(std::size_t mostBytes) const {
  Lumo::LockAnchor anchor(&lock_);
  if (open_.empty()) return {};
  const TrackedEntry* const entry = open_.front()->entry;
  return entry ? jsonOf(entry->trackedRequest(), mostBytes) : std::string();
}

// Where it stands in open_.
std::size_t Ledger::placeOf(U64 seq) const {
  return seq - open_.front()->report.seq;
}

void Ledger::leaveOpen(U64 seq) {
  open_[placeOf(seq)] = nullptr;
  --openCount_;
  while (!open_.empty() && !open_.front()) open_.pop_front();
}

void Ledger::end(Command& command, Outcome outcome, Time at) {
  if (command.report.seq != 0) leaveOpen(command.report.seq);
  CommandReport report = std::move(command.report);
  commands_.erase(report.id);
  report.outcome = outcome;
  report.ended = at;
  report.started = std::max(report.announced, lastEnd_);
  if (report.seq != 0) {
    lastEnd_ = report.ended;
    const auto ofQueue = openOf_.find(report.queue);
    report.queueDepth = --ofQueue->second;
    if (report.queueDepth == 0) openOf_.erase(ofQueue);
  }
  ++counts_[static_cast<std::size_t>(outcome)];
  if (outcome == Outcome::failed) lastFailure_ = report;
  ended_.push_back(std::move(report));
}

void Ledger::endOldest(Outcome outcome) {
  end(*open_.front(), outcome, now_());
}

// What a command has come to that the worker let go without a response: its reply did not decode,
// or it was dropped while the flag was set.
Outcome Ledger::skippedOutcome(U64 id) const {
  return stopped_ || doubtful_ == id ? Outcome::dropped : Outcome::undecodable;
}

void Ledger::endSkippedBefore(U64 seq) {
  while (!open_.empty() && open_.front()->report.seq < seq) {
    endOldest(skippedOutcome(open_.front()->report.id));
  }
}

void Ledger::publish() {
  std::vector<CommandReport> ended = std::exchange(ended_, {});
  for (const CommandReport& report : ended) {
    if (report.seq != 0) {
      Twine::trace<AgentTrace::ended>(report.seq, stringValue(report.type),
                                      report.queue.stringValue(), textOf(report.outcome),
                                      report.queueDepth);
    }
    if (listener_) listener_(report);
  }
  // Commands end one at a time: the memory of one serves the next.
  if (ended.size() > 1) return;
  ended.clear();
  ended_ = std::move(ended);
}

}  // namespace Norv::Agent

#include <algorithm>

#include <Norv/Agent/AgentTrace.h>
#include <Norv/Agent/Ledger.h>
#include <Norv/Agent/Tracked.h>

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

}  // namespace

U64 Ledger::created(GrpcRequestType type, const TrackedEntry* entry) {
  Lumo::LockAnchor anchor(&lock_);
  const U64 id = ++lastId_;
  CommandReport& report = waiting_[id];
  report.id = id;
  report.type = type;
  if (entry) entryOf_[id] = entry;
  return id;
}

void Ledger::announced(U64 id, const Lumo::Name& queue) {
  const Time now = now_();
  U64 seq = 0, depth = 0;
  GrpcRequestType type{};
  {
    Lumo::LockAnchor anchor(&lock_);
    auto waiting = waiting_.extract(id);
    if (waiting.empty()) return;
    CommandReport& report = waiting.mapped();
    seq = report.seq = ++lastSeq_;
    type = report.type;
    report.queue = queue;
    report.announced = now;
    seqOf_[id] = seq;
    open_.emplace_hint(open_.end(), seq, std::move(report));
    openMaximum_ = std::max<U64>(openMaximum_, open_.size());
    depth = ++openOf_[queue];
  }
  Twine::trace<AgentTrace::announced>(seq, stringValue(type), queue.stringValue(), depth);
}

void Ledger::answered(U64 id, Time at, int errorCode, const std::string& errorText) {
  Lumo::LockAnchor inOrder(&publishing_);
  Reports ended;
  {
    Lumo::LockAnchor anchor(&lock_);
    std::optional<CommandReport> report = take(id);
    if (!report) return;
    endSkippedBefore(report->seq, ended);
    report->errorCode = errorCode;
    report->errorText = errorText;
    end(std::move(*report), errorCode == 0 ? Outcome::ok : Outcome::refused, at, ended);
  }
  publish(ended);
}

void Ledger::released(U64 id) {
  endUnanswered(id, true);
}

void Ledger::discarded(U64 id) {
  endUnanswered(id, false);
}

void Ledger::endUnanswered(U64 id, bool maybeSent) {
  Lumo::LockAnchor inOrder(&publishing_);
  Reports ended;
  {
    Lumo::LockAnchor anchor(&lock_);
    std::optional<CommandReport> report = take(id);
    if (!report) return;
    if (report->seq == 0) report->errorText = neverAnnounced;
    // Whoever holds it last: it was sent if the worker has had it.
    const bool taken =
        maybeSent && report->seq != 0 && (isWorker() || report->seq <= lastTakenSeq_);
    if (taken) endSkippedBefore(report->seq, ended);
    const Outcome outcome = taken ? skippedOutcome(id) : Outcome::dropped;
    end(std::move(*report), outcome, now_(), ended);
  }
  publish(ended);
}

std::optional<U64> Ledger::takenBefore(std::optional<U64> firstPending) {
  Lumo::LockAnchor inOrder(&publishing_);
  Reports ended;
  std::optional<U64> last;
  {
    Lumo::LockAnchor anchor(&lock_);
    auto behind = open_.end();
    if (firstPending) {
      const auto seq = seqOf_.find(*firstPending);
      if (seq == seqOf_.end()) return std::nullopt;
      behind = open_.find(seq->second);
    }
    if (behind == open_.begin()) return std::nullopt;
    --behind;
    last = behind->second.id;
    lastTakenSeq_ = std::max(lastTakenSeq_, behind->first);
    endSkippedBefore(behind->first, ended);
  }
  publish(ended);
  return last;
}

void Ledger::flagRose(bool commandFailed, const std::string& text, int rpcCode) {
  Lumo::LockAnchor inOrder(&publishing_);
  Reports ended;
  {
    Lumo::LockAnchor anchor(&lock_);
    stopped_ = true;
    if (commandFailed && !open_.empty()) {
      open_.begin()->second.errorText = text;
      open_.begin()->second.rpcCode = rpcCode;
      endOldest(Outcome::failed, ended);
    }
  }
  publish(ended);
}

void Ledger::flagCleared() {
  Lumo::LockAnchor anchor(&lock_);
  stopped_ = false;
}

void Ledger::takenWhileStopped(U64 id) {
  Lumo::LockAnchor anchor(&lock_);
  doubtful_ = id;
}

void Ledger::close(std::optional<U64> underWay, const std::string& reason) {
  Lumo::LockAnchor inOrder(&publishing_);
  Reports ended;
  {
    Lumo::LockAnchor anchor(&lock_);
    if (!open_.empty() && underWay == open_.begin()->second.id) {
      open_.begin()->second.errorText = reason;
      endOldest(Outcome::failed, ended);
    }
    while (!open_.empty()) endOldest(Outcome::dropped, ended);
    std::map<U64, CommandReport> waiting(waiting_.begin(), waiting_.end());
    waiting_.clear();
    for (auto& [id, report] : waiting) end(std::move(report), Outcome::dropped, now_(), ended);
  }
  publish(ended);
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
  return seqOf_.contains(id);
}

U64 Ledger::openAnnounced() const {
  Lumo::LockAnchor anchor(&lock_);
  return open_.size();
}

U64 Ledger::openAnnouncedMaximum() const {
  Lumo::LockAnchor anchor(&lock_);
  return openMaximum_;
}

std::optional<CommandReport> Ledger::oldestOpen() const {
  Lumo::LockAnchor anchor(&lock_);
  if (open_.empty()) return std::nullopt;
  CommandReport report = open_.begin()->second;
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
  const auto entry = entryOf_.find(open_.begin()->second.id);
  return entry == entryOf_.end() ? std::string()
                                 : jsonOf(entry->second->trackedRequest(), mostBytes);
}

void Ledger::end(CommandReport report, Outcome outcome, Time at, Reports& ended) {
  entryOf_.erase(report.id);
  report.outcome = outcome;
  report.ended = at;
  report.started = std::max(report.announced, lastEnd_);
  if (report.seq != 0) {
    lastEnd_ = report.ended;
    report.queueDepth = --openOf_[report.queue];
  }
  ++counts_[static_cast<std::size_t>(outcome)];
  if (outcome == Outcome::failed) lastFailure_ = report;
  ended.push_back(std::move(report));
}

void Ledger::endOldest(Outcome outcome, Reports& ended) {
  auto oldest = open_.extract(open_.begin());
  seqOf_.erase(oldest.mapped().id);
  end(std::move(oldest.mapped()), outcome, now_(), ended);
}

// What a command has come to that the worker let go without a response: its reply did not decode,
// or it was dropped while the flag was set.
Outcome Ledger::skippedOutcome(U64 id) const {
  return stopped_ || doubtful_ == id ? Outcome::dropped : Outcome::undecodable;
}

void Ledger::endSkippedBefore(U64 seq, Reports& ended) {
  while (!open_.empty() && open_.begin()->first < seq) {
    endOldest(skippedOutcome(open_.begin()->second.id), ended);
  }
}

std::optional<CommandReport> Ledger::take(U64 id) {
  if (auto waiting = waiting_.extract(id); !waiting.empty()) return std::move(waiting.mapped());
  const auto seq = seqOf_.find(id);
  if (seq == seqOf_.end()) return std::nullopt;
  auto open = open_.extract(seq->second);
  seqOf_.erase(seq);
  return std::move(open.mapped());
}

void Ledger::publish(const Reports& ended) {
  for (const CommandReport& report : ended) {
    if (report.seq != 0) {
      Twine::trace<AgentTrace::ended>(report.seq, stringValue(report.type),
                                      report.queue.stringValue(),
                                      Lumo::String(outcomeName(report.outcome)), report.queueDepth);
    }
    if (listener_) listener_(report);
  }
}

}  // namespace Norv::Agent

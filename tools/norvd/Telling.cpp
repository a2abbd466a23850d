#include "Telling.h"

#include <systemd/sd-daemon.h>

#include <cerrno>

#include <Norv/GrpcRequestType.h>
#include <Norv/State/Files.h>

#include "Log.h"

namespace Norvd {

using namespace std::chrono_literals;
using Norv::Agent::CommandReport;
using Norv::Agent::Outcome;

namespace {

constexpr auto betweenTellings = 250ms;
constexpr auto unusuallyLong = 300ms;  // for a command
constexpr std::size_t mostSamples = 600;

std::string nameOf(Norv::GrpcRequestType type) {
  return stringValue(type).stdString();
}

}  // namespace

std::string whatIs(const CommandReport& report, const Road& road, const Carrying* carrying) {
  const auto step = road.stepOf(report.id);
  return step && carrying != nullptr ? carrying->what(*step) : nameOf(report.type);
}

Telling::Telling(const Options& options, Memory& memory, const UnderWay& underWay, const Road& road,
                 const Documents& documents, Board& board)
    : options_(options),
      memory_(memory),
      underWay_(underWay),
      road_(road),
      documents_(documents),
      board_(board) {}

bool Telling::due() const {
  return now() >= next_;
}

void Telling::noticeIs(const std::string& about, const std::string& text) {
  const std::lock_guard guard(noticesMutex_);
  if (text.empty()) {
    notices_.erase(about);
  } else {
    notices_[about] = text;
  }
}

void Telling::tell(const Moment& moment) {
  next_ = now() + betweenTellings;
  const Norv::Agent::Status kit = road_.kit().status();
  const auto& picture = moment.picture;
  auto status = std::make_shared<Status>();
  status->published = wallNow();
  status->address = options_.address();
  auto [kind, text] = sentence(moment, kit);
  if (kind != kind_) since_ = wallNow();
  kind_ = std::move(kind);
  status->sentence = text;
  status->since = since_;
  status->picture = picture;
  status->observes = options_.observe;
  status->ready = picture && picture->plan && moment.silence.empty();
  status->inSync = status->ready && picture->plan->empty() && moment.carrying == nullptr &&
                   documents_.complaint().empty() && moment.refusedPlan.empty();
  wasInSync_ = wasInSync_ || status->inSync;
  status->started = started_;
  status->restarts = memory_.starts - 1;
  if (picture) status->version = picture->live->version;
  status->document = documents_.from();
  noteTroubles(moment, *status);
  noteCommands(moment, kit, *status);
  board_.statusIs(std::move(status));
  if (moment.carrying == nullptr) {
    if (kind_ != loggedKind_) log(Level::info, "state: " + text);
    loggedKind_ = kind_;
  }
  tellSupervisor(text);
}

// What somebody should look after.
void Telling::noteTroubles(const Moment& moment, Status& status) {
  if (!documents_.complaint().empty()) status.notices.push_back(documents_.complaint());
  if (!moment.refusedPlan.empty()) {
    status.notices.push_back("not carried out: " + moment.refusedPlan);
  }
  if (memory_.kept()) {
    memory_.attempt("underway", [&] { underWay_.verify(memory_.file("underway")); });
  }
  for (const auto& [purpose, text] : memory_.troubles()) status.notices.push_back(text);
  const std::lock_guard guard(noticesMutex_);
  for (const auto& [about, notice] : notices_) status.notices.push_back(notice);
}

void Telling::noteCommands(const Moment& moment, const Norv::Agent::Status& kit, Status& status) {
  if (const auto& report = kit.inFlight) {
    const auto age = now() - report->started;
    const auto step = road_.stepOf(report->id);
    status.underWay = {nameOf(report->type),
                       step && moment.carrying != nullptr ? moment.carrying->object(*step) : "",
                       wallNow() - std::chrono::duration_cast<WallTime::duration>(age),
                       std::chrono::duration<double>(age).count()};
  }
  for (const auto& [name, depth] : kit.queues) {
    status.queues[name.stringValue().stdString()] = {depth.now, depth.maximum};
  }
  status.pending = {kit.pending.now, kit.pending.maximum};
  for (std::size_t i = 0; i < Norv::Agent::outcomes; ++i) {
    status.outcomes[i] = road_.kit().ledger()->count(static_cast<Outcome>(i));
  }
  status.failures = memory_.failures();
  if (now() >= nextSample_) {
    nextSample_ = now() + 1s;
    samples_.push_back({wallNow(), road_.open(), status.outcomes});
    if (samples_.size() > mostSamples) samples_.pop_front();
  }
  status.samples = samples_;
}

// --- in one sentence ----------------------------------------------------------------------------

Telling::Sentence Telling::sentence(const Moment& moment, const Norv::Agent::Status& kit) const {
  const bool compared = moment.picture || !moment.refusedPlan.empty();
  if (!moment.silence.empty() || !compared) return {"waiting", waitingSentence(moment)};
  if (const Carrying* carrying = moment.carrying) {
    const auto age = kit.inFlight ? now() - kit.inFlight->started : 0s;
    if (age > unusuallyLong) {
      return {"under way", "one command (" + whatIs(*kit.inFlight, road_, carrying) +
                               ") is under way for " + duration(age)};
    }
    return {"applying", "applying: " + std::to_string(carrying->done()) + " of " +
                            std::to_string(carrying->total()) + " commands"};
  }
  const std::string trouble = troubleSentence(moment);
  if (!trouble.empty()) return {trouble, trouble};
  return {"in sync", "nothing to do: " + std::to_string(moment.picture->objects.size()) +
                         " objects are as wanted"};
}

std::string Telling::waitingSentence(const Moment& moment) const {
  if (moment.silence.empty()) {
    return (memory_.lost.empty() ? "" : "stopped after a failure: " + memory_.lost + "; ") +
           "looking at the daemon at " + options_.address();
  }
  const std::string since = kind_ == "waiting" ? " since " + text(since_) : std::string();
  return "waiting for the daemon at " + options_.address() + since + ": " + moment.silence;
}

std::string Telling::troubleSentence(const Moment& moment) const {
  if (!moment.refusedPlan.empty()) return "not carried out: " + moment.refusedPlan;
  if (documents_.inForce() == nullptr) {
    return "there is no document to go by: " + documents_.complaint();
  }
  const Picture& picture = *moment.picture;
  for (const Standing standing : {Standing::quarantined, Standing::refused, Standing::contested,
                                  Standing::blocked, Standing::differs, Standing::pending}) {
    const std::size_t count = picture.counts[static_cast<std::size_t>(standing)];
    if (count == 0) continue;
    for (const auto& [object, status] : picture.objects) {
      if (status.standing != standing) continue;
      return std::string(standingName(standing)) + ": " + text(object) +
             (status.text.empty() ? "" : ": " + status.text) +
             (count > 1 ? " (and " + std::to_string(count - 1) + " more)" : "");
    }
  }
  if (!documents_.complaint().empty()) {
    return "as wanted by " + documents_.from() +
           ", but the document was not taken: " + documents_.complaint();
  }
  return "";
}

// --- to who supervises --------------------------------------------------------------------------

void Telling::tellSupervisor(const std::string& sentence) {
  if (sentence != told_) sd_notify(0, ("STATUS=" + sentence).c_str());
  told_ = sentence;
  std::uint64_t microseconds = 0;
  if (sd_watchdog_enabled(0, &microseconds) > 0 && now() >= nextWatchdog_) {
    sd_notify(0, "WATCHDOG=1");
    nextWatchdog_ = now() + std::chrono::microseconds(microseconds / 3);
  }
}

}  // namespace Norvd

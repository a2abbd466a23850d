#include "Report.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "../Verb.h"
#include "../protocol/Requests.h"
#include "../text/Terminal.h"
#include "../text/Text.h"

namespace Norvctl {

namespace {

using namespace std::chrono_literals;
using Norv::Agent::CommandReport;
using Norv::Agent::Outcome;

const char* const undecodableText =
    "the reply does not decode here (a newer daemon?); what the daemon did is not known";

double latencyUs(const CommandReport& report) {
  return std::chrono::duration<double, std::micro>(report.ended - report.started).count();
}

// Under way when the session ended. Whether it has reached the daemon is not known.
bool isUnanswered(const CommandReport& report) {
  return report.outcome == Outcome::failed && report.rpcCode == 0;
}

// Its RPC has come to an end.
bool wasSent(const CommandReport& report) {
  return report.outcome != Outcome::dropped && !isUnanswered(report);
}

const char* endName(SessionEnd end) {
  switch (end) {
    case SessionEnd::complete:
      return "complete";
    case SessionEnd::stoppedByFailure:
      return "failed";
    case SessionEnd::timedOut:
      return "timed out";
    case SessionEnd::interrupted:
      return "interrupted";
    case SessionEnd::badInput:
      return "bad input";
    case SessionEnd::outputLost:
      return "output lost";
  }
  return "";
}

}  // namespace

void tellEvent(bool json, const std::string& event, const std::string& text) {
  if (json) {
    std::fprintf(stderr, "{\"event\":%s,\"text\":%s}\n", jsonText(event).c_str(),
                 jsonText(text).c_str());
  } else {
    std::fprintf(stderr, "norvctl: %s\n", text.c_str());
  }
}

std::string statusName(int code) {
  constexpr const char* names[] = {"OK",
                                   "CANCELLED",
                                   "UNKNOWN",
                                   "INVALID_ARGUMENT",
                                   "DEADLINE_EXCEEDED",
                                   "NOT_FOUND",
                                   "ALREADY_EXISTS",
                                   "PERMISSION_DENIED",
                                   "RESOURCE_EXHAUSTED",
                                   "FAILED_PRECONDITION",
                                   "ABORTED",
                                   "OUT_OF_RANGE",
                                   "UNIMPLEMENTED",
                                   "INTERNAL",
                                   "UNAVAILABLE",
                                   "DATA_LOSS",
                                   "UNAUTHENTICATED"};
  const bool known = code >= 0 && code < static_cast<int>(std::size(names));
  return known ? names[code] : "status " + std::to_string(code);
}

std::string reasonOf(const CommandReport& report) {
  switch (report.outcome) {
    case Outcome::ok:
      return {};
    case Outcome::refused:
      return escaped(refusalText(report.errorCode, report.errorText));
    case Outcome::failed:
      if (report.rpcCode == 0) return escaped(report.errorText);
      return statusName(report.rpcCode) + ": " + escaped(report.errorText);
    case Outcome::undecodable:
      return undecodableText;
    case Outcome::dropped:
      return escaped(report.errorText);
  }
  return {};
}

void Latencies::add(double microseconds) {
  ++count_;
  if (kept_.size() < mostKept) {
    kept_.push_back(microseconds);
    return;
  }
  const std::size_t place = std::uniform_int_distribution<std::size_t>(0, count_ - 1)(random_);
  if (place < mostKept) kept_[place] = microseconds;
}

double Latencies::quantile(double part) {
  const auto rank = static_cast<std::size_t>(std::ceil(part * static_cast<double>(kept_.size())));
  const auto at = kept_.begin() + static_cast<std::ptrdiff_t>(std::max<std::size_t>(rank, 1) - 1);
  std::nth_element(kept_.begin(), at, kept_.end());
  return *at;
}

bool NoAnswer::waiting() {
  if (told_) return false;
  if (!look_) look_.emplace(host_, port_, 1000ms);
  const std::optional<Diagnosis> found = look_->result();
  if (!found) return false;
  told_ = true;
  const std::string address = host_ + ":" + std::to_string(port_);
  if (json_) {
    std::fprintf(stderr,
                 "{\"event\":\"no answer yet\",\"target\":%s,\"reason\":\"%s\",\"text\":%s}\n",
                 jsonText(address).c_str(), found->reason.c_str(), jsonText(found->text).c_str());
  } else {
    std::fprintf(
        stderr,
        "norvctl: no answer yet from %s: %s (calls wait until it answers; --timeout SECONDS "
        "limits that, ^C ends it)\n",
        escaped(address).c_str(), escaped(found->text).c_str());
  }
  return true;
}

Diagnosis NoAnswer::atTheEnd() const {
  const DiagnosisUnderWay look(host_, port_, 1000ms);
  std::optional<Diagnosis> found = look.result(1500ms);
  if (!found && look_) found = look_->result();
  return found.value_or(Diagnosis{"unknown", "looking for the reason takes too long"});
}

void NoAnswer::tell(const Diagnosis& found) const {
  const std::string address = host_ + ":" + std::to_string(port_);
  if (json_) {
    std::fprintf(stderr, "{\"event\":\"no answer\",\"target\":%s,\"reason\":\"%s\",\"text\":%s}\n",
                 jsonText(address).c_str(), found.reason.c_str(), jsonText(found.text).c_str());
  } else {
    std::fprintf(stderr, "norvctl: no answer from %s: %s\n", escaped(address).c_str(),
                 escaped(found.text).c_str());
  }
}

Report::Report(const ReportOptions& options)
    : options_(options),
      linesBesideBar_(isatty(STDOUT_FILENO)),
      noAnswer_(options.host, options.port, options.json),
      bar_(options.progress, options.total) {}

void Report::ended(const CommandReport& report, const Entry& entry) {
  ++counts_[static_cast<std::size_t>(report.outcome)];
  ++done_;
  bar_.step();
  if (wasSent(report)) latencies_.add(latencyUs(report));
  unanswered_ += isUnanswered(report);
  if (report.outcome == Outcome::failed) {
    if (!failure_) failure_ = {report, entry.line};
  } else if (wasSent(report)) {
    noAnswer_.answered();
    waiting_ = false;
  }
  if (report.outcome == Outcome::dropped && !wantsUnread()) {
    joinRun(report, entry);
    return;
  }
  printRun();
  if (options_.quiet && report.outcome == Outcome::ok) return;
  if (options_.json) {
    printJson(report, entry);
  } else {
    printLine(report, entry.queue);
  }
}

bool Report::told() {
  // A terminal shows lines as they end without this.
  return flushOutput();
}

void Report::joinRun(const CommandReport& report, const Entry& entry) {
  if (run_.commands++ == 0) {
    run_.first = report;
    run_.queue = entry.queue;
    run_.firstLine = entry.line;
  }
  run_.lastLine = entry.line;
}

void Report::printRun() {
  const Run run = std::exchange(run_, {});
  if (run.commands == 0) return;
  if (options_.json) {
    std::printf("{\"outcome\":\"dropped\",\"commands\":%zu", run.commands);
    if (run.firstLine != 0) std::printf(",\"line\":%zu", run.firstLine);
    if (run.lastLine != 0) std::printf(",\"last_line\":%zu", run.lastLine);
    std::printf("}\n");
  } else if (run.commands == 1 && run.lastLine != 0) {
    printLine(run.first, run.queue);
  } else {
    makeRoom();
    const Colours colours(options_.colour);
    std::printf("%6s  %s%-11s%s  %zu commands", "", colours.bad(), "dropped", colours.end(),
                run.commands);
    if (run.lastLine != 0) {
      std::printf(", lines %zu to %zu,", run.firstLine, run.lastLine);
    } else if (run.firstLine != 0) {
      std::printf(", from line %zu on,", run.firstLine);
    }
    std::printf(" were not sent\n");
  }
}

void Report::printJson(const CommandReport& report, const Entry& entry) const {
  std::printf("{\"seq\":%llu,\"queue\":%s,\"type\":\"%s\",\"outcome\":\"%s\"", report.seq,
              jsonText(entry.queue).c_str(), stringValue(report.type).charPtr(),
              outcomeName(report.outcome));
  if (wasSent(report)) std::printf(",\"latency_us\":%.1f", latencyUs(report));
  if (entry.response) {
    std::printf(",\"response\":%s", messageJson(*entry.response).c_str());
  } else if (report.outcome == Outcome::undecodable) {
    std::printf(",\"reason\":%s", jsonText(undecodableText).c_str());
  } else if (!report.errorText.empty()) {
    if (report.rpcCode != 0) std::printf(",\"status\":\"%s\"", statusName(report.rpcCode).c_str());
    std::printf(",\"reason\":%s", jsonText(report.errorText).c_str());
  }
  std::printf(",\"line\":%zu}\n", entry.line);
}

void Report::printLine(const CommandReport& report, const std::string& queue) {
  makeRoom();
  const Colours colours(options_.colour);
  const char* colour = "";
  if (report.outcome == Outcome::refused) colour = colours.warning();
  if (report.outcome > Outcome::refused) colour = colours.bad();
  std::printf("%6llu  %s%-11s%s  %-10s %-26s", report.seq, colour, outcomeName(report.outcome),
              *colour ? colours.end() : "", escaped(queue).c_str(),
              stringValue(report.type).charPtr());
  const std::string why = reasonOf(report);
  if (wasSent(report)) {
    std::printf(" %9.1f us", latencyUs(report));
  } else if (!why.empty()) {
    std::printf(" %12s", "");
  }
  std::printf("%s%s\n", why.empty() ? "" : "  ", why.c_str());
}

void Report::progress(const Norv::Agent::Kit& kit) {
  const auto usual = done_ == 0 ? 1s : 5s;
  const auto oldest = kit.ledger()->oldestOpen();
  if (oldest && !kit.stopped() && kit.ledger()->now() - oldest->started > usual) {
    waiting_ = true;
    bar_.clear();
    noAnswer_.waiting();
  }
  bar_.show();
}

// For a line on standard output.
void Report::makeRoom() {
  if (linesBesideBar_) bar_.clear();
}

void Report::summary(std::chrono::duration<double> elapsed, SessionEnd end,
                     const std::string& complaint) {
  const std::size_t unread = options_.total > done_ ? options_.total - done_ : 0;
  if (unread != 0) {
    counts_[static_cast<std::size_t>(Outcome::dropped)] += unread;
    done_ += unread;
    run_.commands += unread;
    run_.lastLine = 0;  // not known
  }
  printRun();
  bar_.clear();
  const std::optional<Diagnosis> noAnswer = whyNoAnswer(end);
  const double seconds = elapsed.count();
  const double rate = seconds > 0 ? static_cast<double>(latencies_.count()) / seconds : 0;
  if (options_.json) {
    printJsonSummary(seconds, rate, end, noAnswer);
  } else {
    printSummaryLine(seconds, rate);
  }
  flushOutput();
  explain(end, complaint, noAnswer);
}

void Report::printJsonSummary(double seconds, double rate, SessionEnd end,
                              const std::optional<Diagnosis>& noAnswer) const {
  std::printf("{\"summary\":{\"sent\":%zu", latencies_.count());
  for (std::size_t i = 0; i < counts_.size(); ++i) {
    std::printf(",\"%s\":%zu", outcomeName(static_cast<Outcome>(i)), counts_[i]);
  }
  std::printf(",\"unanswered\":%zu", unanswered_);
  std::printf(",\"seconds\":%.6f,\"rate\":%.1f,\"ended\":\"%s\",\"target\":%s", seconds, rate,
              endName(end), jsonText(options_.host + ":" + std::to_string(options_.port)).c_str());
  if (failure_) {
    std::printf(",\"failure\":{\"line\":%zu,\"type\":\"%s\"", failure_->line,
                stringValue(failure_->report.type).charPtr());
    if (failure_->report.rpcCode != 0) {
      std::printf(",\"status\":\"%s\"", statusName(failure_->report.rpcCode).c_str());
    }
    std::string reason = failure_->report.errorText;
    if (noAnswer && isUnanswered(failure_->report)) reason += ": " + noAnswer->text;
    std::printf(",\"reason\":%s}", jsonText(reason).c_str());
  }
  std::printf("}}\n");
}

void Report::printSummaryLine(double seconds, double rate) {
  std::printf("%zu commands:", done_);
  for (std::size_t i = 0; i < counts_.size(); ++i) {
    std::printf("%s %zu %s", i == 0 ? "" : ",", counts_[i], outcomeName(static_cast<Outcome>(i)));
  }
  std::printf("; %zu sent in %.3f s (%.0f/s)", latencies_.count(), seconds, rate);
  if (latencies_.count() != 0) {
    std::printf(", median %.1f us, 99th percentile %.1f us", latencies_.quantile(0.5),
                latencies_.quantile(0.99));
  }
  if (unanswered_ != 0) std::printf(", %zu unanswered", unanswered_);
  std::printf("\n");
}

std::string Report::failureText() const {
  if (!failure_) return {};
  return std::string(stringValue(failure_->report.type).charPtr()) + " of line " +
         std::to_string(failure_->line) + " failed at " +
         escaped(options_.host + ":" + std::to_string(options_.port)) + ": " +
         reasonOf(failure_->report);
}

// Looked up when the session ended while an answer was waited for.
std::optional<Diagnosis> Report::whyNoAnswer(SessionEnd end) const {
  if (end != SessionEnd::timedOut && end != SessionEnd::interrupted) return std::nullopt;
  const bool noneCame = end == SessionEnd::timedOut && unanswered_ != 0 &&
                        latencies_.count() + unanswered_ == count(Outcome::failed);
  if (!waiting_ && !noneCame) return std::nullopt;
  return noAnswer_.atTheEnd();
}

// What is to be said about the end beside the numbers.
void Report::explain(SessionEnd end, const std::string& complaint,
                     const std::optional<Diagnosis>& noAnswer) {
  const auto say = [this](const char* event, const std::string& text) {
    tellEvent(options_.json, event, text);
  };
  if (failure_ && failure_->report.rpcCode != 0) say("failed", failureText());
  if (count(Outcome::undecodable) != 0 && !options_.json) {
    say("undecodable", "undecodable: " + std::string(undecodableText));
  }
  if (noAnswer) noAnswer_.tell(*noAnswer);
  if (end == SessionEnd::timedOut) {
    say("timed out", "the time ran out; --timeout gives it longer");
  }
  if (end == SessionEnd::stoppedByFailure) {
    say("stopped",
        "stopped at the first failed RPC, as the library does; --on-failure continue clears the "
        "error flag and goes on");
  }
  if (end == SessionEnd::badInput) {
    say("bad input", escaped(complaint));
    say("stopped",
        "stopped there; " + std::to_string(latencies_.count()) + " commands before it were sent");
  }
}

int Report::exitStatus(SessionEnd end) const {
  if (end == SessionEnd::outputLost || end == SessionEnd::badInput) return badInput;
  if (end == SessionEnd::interrupted) return 128 + endingSignal();
  const bool someLost = count(Outcome::failed) || count(Outcome::undecodable) ||
                        count(Outcome::dropped) || end != SessionEnd::complete;
  if (someLost) return lost;
  return count(Outcome::refused) ? refused : allOk;
}

}  // namespace Norvctl

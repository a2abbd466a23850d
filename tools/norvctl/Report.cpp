#include "Report.h"

#include <string.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "Requests.h"

namespace Norvctl {

namespace {

using namespace std::chrono_literals;
using Norv::Agent::CommandReport;
using Norv::Agent::Outcome;

double latencyUs(const CommandReport& report) {
  return std::chrono::duration<double, std::micro>(report.ended - report.started).count();
}

bool wasSent(const CommandReport& report) {
  return report.outcome != Outcome::dropped;
}

std::string jsonText(const std::string& text) {
  return nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string reason(const CommandReport& report) {
  if (report.errorCode == 0) return report.errorText;
  const char* name = strerrorname_np(report.errorCode);
  return (name ? std::string(name) : std::to_string(report.errorCode)) + ": " + report.errorText;
}

std::string prettyJson(const std::string& json) {
  return nlohmann::ordered_json::parse(json).dump(2);
}

// The value below which the given part of the sorted values lies.
double quantile(const std::vector<double>& sorted, double part) {
  const auto rank = static_cast<std::size_t>(std::ceil(part * sorted.size()));
  return sorted[std::max<std::size_t>(rank, 1) - 1];
}

}  // namespace

void Report::ended(const CommandReport& report, const Entry& entry) {
  ++counts_[static_cast<std::size_t>(report.outcome)];
  ++done_;
  if (wasSent(report)) latencies_.push_back(latencyUs(report));
  if (options_.json) {
    if (!options_.quiet) printJson(report, entry);
  } else if (!options_.quiet || report.outcome != Outcome::ok) {
    clearBar();
    printLine(report, entry);
  }
}

void Report::printJson(const CommandReport& report, const Entry& entry) const {
  std::printf("{\"seq\":%llu,\"queue\":%s,\"type\":\"%s\",\"outcome\":\"%s\"", report.seq,
              jsonText(entry.step->queue).c_str(), stringValue(report.type).charPtr(),
              outcomeName(report.outcome));
  if (wasSent(report)) std::printf(",\"latency_us\":%.1f", latencyUs(report));
  if (entry.response) std::printf(",\"response\":%s", messageJson(*entry.response).c_str());
  if (!entry.response && !report.errorText.empty()) {
    std::printf(",\"reason\":%s", jsonText(report.errorText).c_str());
  }
  std::printf(",\"line\":%zu}\n", entry.step->line);
}

void Report::printLine(const CommandReport& report, const Entry& entry) {
  const char* colour = "";
  if (options_.colour && report.outcome == Outcome::refused) colour = "\033[33m";
  if (options_.colour && report.outcome > Outcome::refused) colour = "\033[31m";
  std::printf("%6llu  %s%-11s%s  %-10s %-26s", report.seq, colour, outcomeName(report.outcome),
              *colour ? "\033[0m" : "", entry.step->queue.c_str(),
              stringValue(report.type).charPtr());
  if (wasSent(report)) {
    std::printf(" %9.1f us", latencyUs(report));
  } else {
    std::printf(" %12s", "");
  }
  const std::string why = reason(report);
  std::printf("%s%s\n", why.empty() ? "" : "  ", why.c_str());
  if (options_.showResponse && entry.response) {
    std::printf("%s\n", prettyJson(messageJson(*entry.response)).c_str());
  }
}

void Report::progress(const Norv::Agent::Kit& kit) {
  const auto now = std::chrono::steady_clock::now();
  const bool waiting = done_ == 0 && now - start_ > 1s;
  if (waiting && !waitingTold_ && !options_.json) {
    waitingTold_ = true;
    std::fprintf(stderr,
                 "norvctl: no answer yet, the worker is %s; calls wait until the daemon is "
                 "there (--timeout SECONDS limits that, ^C ends it)\n",
                 workerName(kit.status().worker));
  }
  if (!options_.progress || now - start_ < 500ms || now - barAt_ < 100ms) return;
  barAt_ = now;
  barShown_ = true;
  constexpr int width = 40;
  const int filled = static_cast<int>(width * done_ / std::max<std::size_t>(options_.total, 1));
  const double seconds = std::chrono::duration<double>(now - start_).count();
  std::fprintf(stderr, "\r[%s%s] %zu/%zu  %.0f/s ", std::string(filled, '=').c_str(),
               std::string(width - filled, ' ').c_str(), done_, options_.total, done_ / seconds);
}

void Report::clearBar() {
  if (barShown_) std::fprintf(stderr, "\r\033[K");
  barShown_ = false;
}

void Report::summary(std::chrono::duration<double> elapsed, SessionEnd end) {
  clearBar();
  const double rate = elapsed.count() > 0 ? latencies_.size() / elapsed.count() : 0;
  if (options_.json) {
    std::printf("{\"summary\":{\"sent\":%zu", latencies_.size());
    for (std::size_t i = 0; i < counts_.size(); ++i) {
      std::printf(",\"%s\":%zu", outcomeName(static_cast<Outcome>(i)), counts_[i]);
    }
    std::printf(",\"seconds\":%.6f,\"rate\":%.1f}}\n", elapsed.count(), rate);
  } else {
    printSummaryLine(elapsed, end, rate);
  }
  std::fflush(stdout);
}

void Report::printSummaryLine(std::chrono::duration<double> elapsed, SessionEnd end, double rate) {
  std::printf("%zu commands:", done_);
  for (std::size_t i = 0; i < counts_.size(); ++i) {
    std::printf("%s %zu %s", i == 0 ? "" : ",", counts_[i], outcomeName(static_cast<Outcome>(i)));
  }
  std::printf("; %zu sent in %.3f s (%.0f/s)", latencies_.size(), elapsed.count(), rate);
  if (!latencies_.empty()) {
    std::sort(latencies_.begin(), latencies_.end());
    std::printf(", median %.1f us, 99th percentile %.1f us", quantile(latencies_, 0.5),
                quantile(latencies_, 0.99));
  }
  std::printf("\n");
  if (end == SessionEnd::timedOut) {
    std::fprintf(stderr,
                 "norvctl: the time ran out; is the daemon running there? --timeout gives "
                 "it longer\n");
  }
  if (end == SessionEnd::stoppedByFailure) {
    std::fprintf(stderr,
                 "norvctl: stopped at the first failed RPC, as the library does; "
                 "--on-failure continue clears the error flag and goes on\n");
  }
}

int Report::exitStatus(SessionEnd end) const {
  if (end == SessionEnd::interrupted) return 130;
  const bool lost = count(Outcome::failed) || count(Outcome::undecodable) ||
                    count(Outcome::dropped) || end != SessionEnd::complete;
  if (lost) return 3;
  return count(Outcome::refused) ? 2 : 0;
}

}  // namespace Norvctl

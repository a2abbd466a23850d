#pragma once

#include <array>
#include <chrono>
#include <vector>

#include "Session.h"

namespace Norvctl {

struct ReportOptions {
  bool json = false;
  bool quiet = false;
  bool colour = false;        // standard output is a terminal
  bool progress = false;      // standard error is one
  bool showResponse = false;  // print the response below the line of its command
  std::size_t total = 0;      // commands in the session
};

// Writes what became of each command and the summary: lines for a person or JSON objects on
// standard output, the progress bar on standard error.
class Report : public SessionListener {
 public:
  explicit Report(const ReportOptions& options) : options_(options) {}

  void ended(const Norv::Agent::CommandReport& report, const Entry& entry) override;
  void progress(const Norv::Agent::Kit& kit) override;
  void summary(std::chrono::duration<double> elapsed, SessionEnd end);

  std::size_t count(Norv::Agent::Outcome outcome) const {
    return counts_[static_cast<std::size_t>(outcome)];
  }
  // 0 all ok; 2 a refusal; 3 a failed, undecodable or dropped command, or the time ran out; 130
  // interrupted.
  int exitStatus(SessionEnd end) const;

 private:
  void printJson(const Norv::Agent::CommandReport& report, const Entry& entry) const;
  void printLine(const Norv::Agent::CommandReport& report, const Entry& entry);
  void printSummaryLine(std::chrono::duration<double> elapsed, SessionEnd end, double rate);
  void clearBar();

  const ReportOptions options_;
  std::array<std::size_t, Norv::Agent::outcomes> counts_{};
  std::vector<double> latencies_;  // microseconds, of what was sent
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point barAt_ = start_;
  std::size_t done_ = 0;
  bool barShown_ = false;
  bool waitingTold_ = false;
};

}  // namespace Norvctl

#pragma once

#include <array>
#include <chrono>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "../look/Diagnosis.h"
#include "../text/ProgressBar.h"
#include "Session.h"

namespace Norvctl {

struct ReportOptions {
  bool json = false;
  bool quiet = false;
  bool colour = false;    // standard output is a terminal that shows colours
  bool progress = false;  // standard error is a terminal, and nothing else is asked for there
  std::size_t total = 0;  // commands in the session; 0: not known before it ends
  std::string host;       // that of the session
  U16 port = 0;
};

// Latencies of any number of commands: all of them while they are few, then a sample that is drawn
// evenly.
class Latencies {
 public:
  void add(double microseconds);
  std::size_t count() const { return count_; }
  // The value below which the given part lies, 0 < part <= 1. There must be one.
  double quantile(double part);

 private:
  static constexpr std::size_t mostKept = 65536;
  std::vector<double> kept_;
  std::size_t count_ = 0;
  std::minstd_rand random_;
};

// Tells once why no answer comes, after a look at the host beside the library.
class NoAnswer {
 public:
  NoAnswer(const std::string& host, U16 port, bool json) : host_(host), port_(port), json_(json) {}
  // Called every few milliseconds while one is waited for; says whether it has just told.
  bool waiting();
  // Called when the next answer has come.
  void answered() {
    look_.reset();
    told_ = false;
  }
  // Looks once more, at the end of the waiting.
  Diagnosis atTheEnd() const;
  // Says what was found then.
  void tell(const Diagnosis& found) const;

 private:
  const std::string host_;
  const U16 port_;
  const bool json_;
  std::optional<DiagnosisUnderWay> look_;
  bool told_ = false;
};

// Writes what became of each command and the summary: lines for a person or JSON objects on
// standard output, the progress bar and words about the connection on standard error.
class Report : public SessionListener {
 public:
  explicit Report(const ReportOptions& options);

  void ended(const Norv::Agent::CommandReport& report, const Entry& entry) override;
  bool told() override;
  bool wantsUnread() const override { return options_.json && !options_.quiet; }
  void progress(const Norv::Agent::Kit& kit) override;
  void summary(std::chrono::duration<double> elapsed, SessionEnd end, const std::string& complaint);

  std::size_t count(Norv::Agent::Outcome outcome) const {
    return counts_[static_cast<std::size_t>(outcome)];
  }
  // 0 all ok; 1 bad input or lost output; 2 a refusal; 3 a failed, undecodable or dropped command,
  // or the time ran out; 128 + N ended by signal N.
  int exitStatus(SessionEnd end) const;

 private:
  // Dropped commands that follow each other.
  struct Run {
    std::size_t commands = 0;
    Norv::Agent::CommandReport first;
    std::string queue;
    std::size_t firstLine = 0;
    std::size_t lastLine = 0;
  };

  void joinRun(const Norv::Agent::CommandReport& report, const Entry& entry);
  void printRun();
  void printJson(const Norv::Agent::CommandReport& report, const Entry& entry) const;
  void printLine(const Norv::Agent::CommandReport& report, const std::string& queue);
  void printJsonSummary(double seconds, double rate, SessionEnd end,
                        const std::optional<Diagnosis>& noAnswer) const;
  void printSummaryLine(double seconds, double rate);
  std::optional<Diagnosis> whyNoAnswer(SessionEnd end) const;
  void explain(SessionEnd end, const std::string& complaint,
               const std::optional<Diagnosis>& noAnswer);
  void makeRoom();
  std::string failureText() const;

  const ReportOptions options_;
  const bool linesBesideBar_;  // standard output is a terminal, too
  std::array<std::size_t, Norv::Agent::outcomes> counts_{};
  Latencies latencies_;
  Run run_;
  NoAnswer noAnswer_;
  bool waiting_ = false;  // for an answer, longer than usual
  struct Failure {
    Norv::Agent::CommandReport report;
    std::size_t line = 0;
  };
  std::optional<Failure> failure_;  // the first
  std::size_t unanswered_ = 0;
  ProgressBar bar_;
  std::size_t done_ = 0;
};

// Says on standard error how things ended: a line for a person, or an object with the same text,
// which is safe for a terminal.
void tellEvent(bool json, const std::string& event, const std::string& text);

// "UNAVAILABLE" and so on; the number where it has no name.
std::string statusName(int code);
// Why a command did not end ok, safe for a terminal; empty if it did.
std::string reasonOf(const Norv::Agent::CommandReport& report);

}  // namespace Norvctl

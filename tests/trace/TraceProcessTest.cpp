#include <gtest/gtest.h>
#include <support/Eventually.h>

#include <algorithm>
#include <fstream>
#include <regex>
#include <sstream>

#include "Process.h"

namespace {

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

}  // namespace

TEST(TraceProcess, IsSilentWithoutASetting) {
  const Outcome outcome = run({TRACE_PROGRAM, "text"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.error, "");
}

TEST(TraceProcess, WritesALineToStandardErrorWhenTheEnvironmentAsks) {
  const Outcome outcome = run({TRACE_PROGRAM, "text"}, "Sample/0-5");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_TRUE(std::regex_match(
      outcome.error,
      std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6} \d+ Sample/5 Sample\.lumo:77 work: )"
                 R"(Nothing to do\n)")))
      << outcome.error;
  EXPECT_EQ(outcome.out, "");
}

TEST(TraceProcess, WarnsOnceOfABadSettingAndGoesOn) {
  const Outcome outcome = run({TRACE_PROGRAM, "text"}, "Sample/5,nonsense");
  EXPECT_EQ(outcome.status, 0);
  const auto lines = linesOf(outcome.error);
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_NE(lines[0].find("nonsense"), std::string::npos);
  EXPECT_NE(lines[1].find("Nothing to do"), std::string::npos);
}

TEST(TraceProcess, LongLinesOfSeveralThreadsStayWholeInAPipe) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  // So small that a line waits for the reader several times, and others might come between.
  ASSERT_GT(::fcntl(ends[1], F_SETPIPE_SZ, 4096), 0);
  const pid_t child = start({TRACE_PROGRAM, "threads"}, "*/*", -1, ends[1]);
  ::close(ends[1]);
  std::string text;
  char part[4096];
  for (ssize_t count; (count = ::read(ends[0], part, sizeof part)) > 0;) {
    text.append(part, static_cast<std::size_t>(count));
  }
  ::close(ends[0]);
  EXPECT_EQ(ended(child), 0);
  int counts[4] = {};
  for (const std::string& line : linesOf(text)) {
    const std::string letters = line.substr(line.find("Sending ") + 8);
    ASSERT_EQ(letters.size(), 9000U);
    ASSERT_EQ(letters.find_first_not_of(letters[0]), std::string::npos);
    ++counts[letters[0] - 'a'];
  }
  for (int count : counts) EXPECT_EQ(count, 50);
}

TEST(TraceProcess, TracesOfDestructorsAtTheEndComeThrough) {
  const Outcome outcome = run({TRACE_PROGRAM, "late"}, "*/*");
  EXPECT_EQ(outcome.status, 0);
  const auto lines = linesOf(outcome.error);
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_NE(lines[0].find("Nothing to do"), std::string::npos);
  EXPECT_NE(lines[1].find("Creating for thread end"), std::string::npos);
  EXPECT_NE(lines[2].find("Creating for exit"), std::string::npos);
}

TEST(TraceProcess, HandlesAreMadeOnceAtTheFirstTraceOfTheirModule) {
  const Outcome outcome = run({TRACE_PROGRAM, "first"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.out, "--\nSample\n--\nSample\nOther\n--\n");
}

// How the program ends whose standard error is a full pipe that nobody reads.
int endedWithAFullPipe(const char* what, const char* setting) {
  int ends[2];
  if (::pipe(ends) != 0) return -1;
  ::fcntl(ends[1], F_SETFL, O_NONBLOCK);
  const std::string filling(4096, 'x');
  while (::write(ends[1], filling.data(), filling.size()) > 0) {
  }
  ::fcntl(ends[1], F_SETFL, 0);
  const int status = ended(start({TRACE_PROGRAM, "stuck", what}, setting, -1, ends[1]));
  ::close(ends[0]);
  ::close(ends[1]);
  return status;
}

TEST(TraceProcess, ALineThatCannotGoOutKeepsNobodyElseWaiting) {
  EXPECT_EQ(endedWithAFullPipe("line", nullptr), 0);
}

TEST(TraceProcess, AWarningThatCannotGoOutKeepsNobodyElseWaiting) {
  EXPECT_EQ(endedWithAFullPipe("warning", "nonsense"), 0);
}

TEST(TraceProcess, AWarningGoesOutOnceWhenItCan) {
  const Outcome outcome = run({TRACE_PROGRAM, "drained"}, "nonsense");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out.find("Trace setting \"nonsense\": "), 0U) << outcome.out;
  EXPECT_EQ(std::count(outcome.out.begin(), outcome.out.end(), '\n'), 1);
}

TEST(TraceProcess, ASinkMayFork) {
  EXPECT_EQ(ended(start({TRACE_PROGRAM, "forking"}, nullptr, -1, -1)), 0);
}

TEST(TraceProcess, AChildForkedWhileAThreadIsInASinkDoesNotWaitForThatThread) {
  EXPECT_EQ(ended(start({TRACE_PROGRAM, "forked"}, nullptr, -1, -1)), 0);
}

TEST(TraceProcess, ALineIsOneWrite) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_DIRECT), 0);  // what is written at once is read at once
  const pid_t child = start({TRACE_PROGRAM, "text"}, "*/*", -1, ends[1]);
  ::close(ends[1]);
  char part[4096];
  const ssize_t first = ::read(ends[0], part, sizeof part);
  ASSERT_GT(first, 0);
  EXPECT_EQ(part[first - 1], '\n');
  EXPECT_EQ(::read(ends[0], part, sizeof part), 0);
  ::close(ends[0]);
  EXPECT_EQ(ended(child), 0);
}

TEST(TraceProcess, ALineWaitsForAPipeThatIsFullAndDoesNotBlock) {
  int ends[2];
  int told[2];
  ASSERT_EQ(::pipe(ends), 0);
  ASSERT_EQ(::pipe(told), 0);
  ::fcntl(ends[1], F_SETFL, O_NONBLOCK);
  const std::string filling(4096, 'x');
  std::size_t filled = 0;
  for (ssize_t count; (count = ::write(ends[1], filling.data(), filling.size())) > 0;) {
    filled += static_cast<std::size_t>(count);
  }
  const pid_t child = start({TRACE_PROGRAM, "told"}, "*/*", told[1], ends[1]);
  ::close(ends[1]);
  ::close(told[1]);
  char part[4096];
  ASSERT_EQ(::read(told[0], part, 1), 1);
  // From here on it has nothing else to sleep for; one that gave its line up has ended.
  const auto state = [child] {
    std::ifstream in("/proc/" + std::to_string(child) + "/stat");
    std::string stat;
    std::getline(in, stat);
    const auto name = stat.rfind(") ");
    return name == stat.npos ? '?' : stat[name + 2];
  };
  EXPECT_TRUE(support::eventually([&] { return state() == 'S' || state() == 'Z'; }));
  EXPECT_EQ(state(), 'S');
  ::kill(child, SIGUSR1);  // an interruption is not the end of the wait
  ASSERT_EQ(::read(told[0], part, 1), 1);
  EXPECT_TRUE(support::eventually([&] { return state() == 'S' || state() == 'Z'; }));
  EXPECT_EQ(state(), 'S');
  std::string text;
  for (ssize_t count; (count = ::read(ends[0], part, sizeof part)) > 0;) {
    text.append(part, static_cast<std::size_t>(count));
  }
  ::close(ends[0]);
  ::close(told[0]);
  EXPECT_EQ(ended(child), 0);
  EXPECT_NE(text.substr(filled).find("Nothing to do\n"), std::string::npos);
}

TEST(TraceProcess, AThreadMayTraceWhileTheProcessExits) {
  for (int i = 0; i < 10; ++i) {
    const Outcome outcome = run({TRACE_PROGRAM, "exiting"}, "*/*");
    ASSERT_EQ(outcome.status, 0);
    // The end of the process may cut the write that a thread is in, and that line has no end.
    const std::string whole = outcome.error.substr(0, outcome.error.rfind('\n') + 1);
    ASSERT_NE(whole, "");
    for (const std::string& line : linesOf(whole)) {
      ASSERT_EQ(line.substr(line.size() - 13), "Nothing to do");
    }
  }
}

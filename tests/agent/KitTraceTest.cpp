// What the text trace promises about standard error holds with a kit in the process, too.

#include <fcntl.h>
#include <support/Redirected.h>
#include <unistd.h>

#include <cerrno>
#include <sstream>
#include <thread>

#include <Lumo/Trace.h>
#include <Norv/ManagerTrace.h>

#include "KitFixture.h"

namespace {

struct KitTrace : agent_test::KitFixture {
  KitTrace() { Lumo::traceSettingIs("NorvConnectionsMgr/5"); }
  ~KitTrace() override { Lumo::traceSettingIs(""); }

  static void leave(const std::string& text) { Twine::trace<Norv::ManagerTrace::connecting>(text); }
};

TEST_F(KitTrace, LongLinesOfSeveralThreadsStayWholeInAPipeThatDoesNotBlock) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  // So small that a line waits for the reader several times, and others might come between.
  ASSERT_GT(::fcntl(ends[1], F_SETPIPE_SZ, 4096), 0);
  ASSERT_EQ(::fcntl(ends[1], F_SETFL, O_NONBLOCK), 0);
  std::string text;
  std::thread reader([&] {
    char part[4096];
    for (ssize_t count; (count = ::read(ends[0], part, sizeof part)) > 0;) {
      text.append(part, static_cast<std::size_t>(count));
    }
  });
  {
    const support::Redirected there(STDERR_FILENO, ends[1]);
    std::vector<std::thread> writers;
    for (const char letter : {'a', 'b', 'c', 'd'}) {
      writers.emplace_back([letter] {
        for (int i = 0; i < 50; ++i) leave(std::string(9000, letter));
      });
    }
    for (std::thread& writer : writers) writer.join();
  }
  reader.join();
  ::close(ends[0]);
  int counts[4] = {};
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const auto begin = line.find("Bessd (");
    ASSERT_NE(begin, std::string::npos) << line.substr(0, 100);
    const std::string letters = line.substr(begin + 7);
    ASSERT_TRUE(letters == std::string(9000, letters[0]) + ")") << letters.size();
    ++counts[letters[0] - 'a'];
  }
  for (const int count : counts) EXPECT_EQ(count, 50);
}

TEST_F(KitTrace, ALineThatCannotBeWrittenLeavesTheErrorNumberAlone) {
  const int unwritable = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(unwritable, 0);
  int after = 0;
  {
    const support::Redirected there(STDERR_FILENO, unwritable);
    errno = EDOM;
    leave("nowhere");
    after = errno;
  }
  EXPECT_EQ(after, EDOM);
}

}  // namespace

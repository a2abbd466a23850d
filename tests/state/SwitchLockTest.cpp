#include <gtest/gtest.h>
#include <signal.h>
#include <support/ThisProcess.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>

#include <Norv/State/SwitchLock.h>

// Who has a switch, and what others are told of it.

namespace Norv::State {

namespace {

constexpr const char* address = "switch1:10514";

class SwitchLockTest : public testing::Test {
 protected:
  SwitchLockTest() {
    std::string name = testing::TempDir() + "/locks-XXXXXX";
    folder_ = mkdtemp(name.data());
  }
  ~SwitchLockTest() override { std::filesystem::remove_all(folder_); }

  std::string folder_;
};

}  // namespace

TEST_F(SwitchLockTest, TheSecondIsToldWhoHasIt) {
  SwitchLock first(folder_, address, "norvd");
  EXPECT_EQ(first.file(), folder_ + "/switch1_10514.lock");
  EXPECT_TRUE(first.take());
  EXPECT_TRUE(first.take()) << "it has it";
  SwitchLock second(folder_, address, "norvctl apply");
  EXPECT_FALSE(second.take());
  ASSERT_TRUE(second.holder());
  EXPECT_EQ(text(*second.holder()), "norvd, process " + std::to_string(getpid()) + ",");
  SwitchLock other(folder_, "switch2:10514", "norvd");
  EXPECT_TRUE(other.take()) << "of another switch";
}

TEST_F(SwitchLockTest, EndsWithItsObject) {
  std::optional<SwitchLock> first(std::in_place, folder_, address, "norvd");
  ASSERT_TRUE(first->take());
  SwitchLock second(folder_, address, "norvctl apply");
  first.reset();
  EXPECT_FALSE(second.holder());
  EXPECT_TRUE(second.take());
  SwitchLock third(folder_, address, "norvd");
  EXPECT_EQ(third.holder()->program, "norvctl apply");
}

TEST_F(SwitchLockTest, EndsWithItsProcess) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const pid_t child = fork();
  if (child == 0) {
    SwitchLock mine(folder_, address, "norvd");
    const char taken = mine.take() ? 'y' : 'n';
    if (write(ends[1], &taken, 1) != 1) _exit(1);
    pause();
  }
  char taken = 0;
  ASSERT_EQ(read(ends[0], &taken, 1), 1);
  EXPECT_EQ(taken, 'y');
  SwitchLock mine(folder_, address, "norvctl apply");
  EXPECT_FALSE(mine.take());
  EXPECT_EQ(mine.holder()->process, child);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  EXPECT_FALSE(mine.holder()) << "its name alone is in the file";
  EXPECT_TRUE(mine.take());
  EXPECT_EQ(SwitchLock(folder_, address, "norvd").holder()->process, getpid());
  close(ends[0]);
  close(ends[1]);
}

TEST_F(SwitchLockTest, WaitsAsLongAsItIsToldTo) {
  std::optional<SwitchLock> first(std::in_place, folder_, address, "norvctl apply");
  ASSERT_TRUE(first->take());
  SwitchLock second(folder_, address, "norvd");
  int asked = 0;
  const auto twice = [&](const SwitchLock::Holder& holder) {
    EXPECT_EQ(holder.program, "norvctl apply");
    return ++asked < 2;
  };
  EXPECT_FALSE(second.take(twice));
  EXPECT_EQ(asked, 2);
  EXPECT_TRUE(second.take([&](const SwitchLock::Holder&) {
    first.reset();
    return true;
  }));
}

TEST_F(SwitchLockTest, WhoLooksTakesAndMakesNothing) {
  const SwitchLock nobody(folder_ + "/new", address, "norvctl retry");
  EXPECT_FALSE(nobody.holder());
  EXPECT_FALSE(std::filesystem::exists(folder_ + "/new"));
  SwitchLock first(folder_ + "/new", address, "norvd");
  EXPECT_TRUE(first.take());
}

TEST_F(SwitchLockTest, OneThatCannotWriteItsNameHasItAllTheSame) {
  SwitchLock first(folder_, address, "norvd");
  ASSERT_TRUE(first.take());
  std::filesystem::resize_file(first.file(), 0);
  SwitchLock second(folder_, address, "norvctl apply");
  EXPECT_FALSE(second.take());
  EXPECT_EQ(text(*second.holder()), "another program");
}

TEST_F(SwitchLockTest, KeepsNoFileOpenThatIsNotItsOwn) {
  SwitchLock first(folder_, address, "norvd");
  const auto before = support::openDescriptors();
  ASSERT_TRUE(first.take());
  EXPECT_EQ(support::openDescriptors(), before + 1);
  SwitchLock second(folder_, address, "norvctl apply");
  EXPECT_FALSE(second.take());
  EXPECT_TRUE(second.holder());
  EXPECT_EQ(support::openDescriptors(), before + 1);
}

TEST_F(SwitchLockTest, AFolderThatCannotBeIsTold) {
  std::ofstream(folder_ + "/file") << "x";
  SwitchLock lock(folder_ + "/file", address, "norvd");
  try {
    lock.take();
    ADD_FAILURE() << "taken";
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(error.what(), "cannot write " + lock.file() + ": Not a directory");
  }
}

}  // namespace Norv::State

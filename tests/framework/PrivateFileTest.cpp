#include <gtest/gtest.h>
#include <support/TemporaryFolder.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <vector>

#include <Lumo/PrivateFile.h>

namespace {

constexpr uid_t somebody = 65534;

std::string textOf(const std::string& path) {
  std::ifstream in(path);
  return {std::istreambuf_iterator<char>(in), {}};
}

void write(int descriptor, const std::string& text) {
  EXPECT_EQ(::write(descriptor, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  ::close(descriptor);
}

// The reason, or "opened".
std::string reasonAgainst(const std::string& path) {
  try {
    ::close(Lumo::openPrivately(path, O_WRONLY | O_TRUNC));
    return "opened";
  } catch (const Lumo::PathError& error) {
    return error.what();
  }
}

struct PrivateFile : testing::Test {
  // A folder with the mode, whatever the umask.
  std::string folderOf(mode_t mode) const {
    std::string name = folder.file("common");
    std::filesystem::create_directory(name);
    EXPECT_EQ(::chmod(name.c_str(), mode), 0);
    return name;
  }

  support::TemporaryFolder folder;
  const std::string path = folder.file("file");
};

TEST_F(PrivateFile, IsItsOwnersWhateverTheUmask) {
  const mode_t usual = ::umask(0);
  write(Lumo::openPrivately(path, O_WRONLY | O_TRUNC), "one");
  ::umask(usual);
  struct stat status {};
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
  EXPECT_EQ(textOf(path), "one");
}

TEST_F(PrivateFile, OneThatIsThereKeepsItsModeAndIsEmptiedOrWrittenBehind) {
  std::ofstream(path) << "longer than what comes";
  ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
  write(Lumo::openPrivately(path, O_WRONLY | O_TRUNC), "one");
  write(Lumo::openPrivately(path, O_WRONLY | O_APPEND), ", two");
  struct stat status {};
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640u);
  EXPECT_EQ(textOf(path), "one, two");
}

TEST_F(PrivateFile, SaysWhyItCannotBeOpened) {
  EXPECT_EQ(reasonAgainst(folder.file("none/file")), "No such file or directory");
  EXPECT_EQ(reasonAgainst(folder.file("")), "Is a directory");
  EXPECT_EQ(reasonAgainst(""), "No such file or directory");
  std::filesystem::create_symlink("round", folder.file("round"));
  EXPECT_EQ(reasonAgainst(folder.file("round")), "Too many levels of symbolic links");
}

TEST_F(PrivateFile, AReplacedOneIsItsOwnersOrAsItWas) {
  const auto modeAfterReplacing = [this] {
    Lumo::replacePrivately(path, [](int descriptor) { write(descriptor, "whole"); });
    EXPECT_EQ(textOf(path), "whole");
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0);
    return status.st_mode & 07777;
  };
  EXPECT_EQ(modeAfterReplacing(), 0600u);
  ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
  EXPECT_EQ(modeAfterReplacing(), 0644u);
}

TEST_F(PrivateFile, AFailureLeavesTheFormerOneAndNothingBesideIt) {
  std::ofstream(path) << "former";
  const auto failing = [](int descriptor) {
    write(descriptor, "half");
    throw std::runtime_error("no more room");
  };
  EXPECT_THROW(Lumo::replacePrivately(path, failing), std::runtime_error);
  EXPECT_EQ(textOf(path), "former");
  // A folder is not replaced by a file.
  std::filesystem::create_directories(folder.file("inner/most"));
  const auto sound = [](int descriptor) { write(descriptor, "whole"); };
  EXPECT_THROW(Lumo::replacePrivately(folder.file("inner"), sound), Lumo::PathError);
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder.file(""))) {
    names.push_back(entry.path().filename());
  }
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"file", "inner"}));
}

TEST_F(PrivateFile, OnesOwnLinksAreFollowedEverywhere) {
  const std::string link = folderOf(01777) + "/link";
  std::filesystem::create_symlink("second", link);
  std::filesystem::create_symlink(path, folder.file("common/second"));
  write(Lumo::openPrivately(link, O_WRONLY | O_TRUNC), "through both");
  EXPECT_EQ(textOf(path), "through both");
}

TEST_F(PrivateFile, WhatSomebodyElseHasPutWhereEverybodyMayWriteIsLeftAlone) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root gives a file to somebody else";
  std::ofstream(path) << "of importance";
  for (const mode_t mode : {01777, 0777}) {
    const std::string link = folderOf(mode) + "/link", file = folder.file("common/file");
    std::filesystem::remove(link);
    std::filesystem::create_symlink(path, link);
    ASSERT_EQ(::lchown(link.c_str(), somebody, somebody), 0);
    EXPECT_EQ(reasonAgainst(link), link +
                                       " is a link that somebody else has put where everybody may "
                                       "write; remove it or name another");
    EXPECT_EQ(textOf(path), "of importance");
    std::ofstream(file) << "of somebody";
    ASSERT_EQ(::chown(file.c_str(), somebody, somebody), 0);
    EXPECT_EQ(reasonAgainst(file), file +
                                       " is a file that somebody else has put where everybody may "
                                       "write; remove it or name another");
    EXPECT_EQ(textOf(file), "of somebody");
    // Also where one's own link leads there.
    std::filesystem::remove(folder.file("own"));
    std::filesystem::create_symlink(file, folder.file("own"));
    EXPECT_EQ(reasonAgainst(folder.file("own")), reasonAgainst(file));
  }
}

TEST_F(PrivateFile, ThePipeOfSomebodyElseIsNotWaitedFor) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root gives a pipe to somebody else";
  const std::string pipe = folderOf(01777) + "/pipe";
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0666), 0);
  ASSERT_EQ(::chown(pipe.c_str(), somebody, somebody), 0);
  EXPECT_EQ(reasonAgainst(pipe), pipe +
                                     " is a file that somebody else has put where everybody may "
                                     "write; remove it or name another");
}

TEST_F(PrivateFile, WhatNobodyElseCouldPutThereIsTaken) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root gives a file to somebody else";
  const std::string file = folderOf(0755) + "/file";
  std::ofstream(file) << "of somebody";
  ASSERT_EQ(::chown(file.c_str(), somebody, somebody), 0);
  EXPECT_EQ(reasonAgainst(file), "opened");
  // The folder's owner could put anything there.
  ASSERT_EQ(::chown(folderOf(01777).c_str(), somebody, somebody), 0);
  EXPECT_EQ(reasonAgainst(file), "opened");
}

TEST_F(PrivateFile, APipeAndADescriptorAreWrittenAsTheyAre) {
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const int reader = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  const std::string number = std::to_string(ends[1]);
  for (const std::string& name : {path, "/dev/fd/" + number, "/proc/self/fd/" + number}) {
    const int from = name == path ? reader : ends[0];
    write(Lumo::openPrivately(name, O_WRONLY | O_TRUNC), "through");
    char text[20];
    EXPECT_EQ(std::string(text, static_cast<std::size_t>(::read(from, text, sizeof text))),
              "through")
        << name;
  }
  for (const int descriptor : {reader, ends[0], ends[1]}) ::close(descriptor);
  EXPECT_EQ(reasonAgainst("/dev/null"), "opened");
  EXPECT_EQ(reasonAgainst("/proc/self/fd/" + number), "No such file or directory");
}

TEST_F(PrivateFile, AFolderThatOthersMayWriteIsNotTrusted) {
  EXPECT_EQ(Lumo::trustedFolder(folder.file("none")), folder.file("none"));
  EXPECT_EQ(Lumo::trustedFolder(folderOf(0755) + "/"), folder.file("common"));
  for (const mode_t mode : {01777, 0777, 0702}) {
    try {
      Lumo::trustedFolder(folderOf(mode));
      ADD_FAILURE() << mode;
    } catch (const Lumo::PathError& error) {
      EXPECT_EQ(error.what(), folder.file("common") +
                                  " is a folder that everybody may write; take that away (chmod "
                                  "o-w) or name another");
    }
  }
}

TEST_F(PrivateFile, AFolderThatSomebodyElseHasPutWhereEverybodyMayWriteIsNotTrusted) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root gives a folder to somebody else";
  const std::string inner = folderOf(01777) + "/inner";
  std::filesystem::create_directory(inner);
  std::filesystem::create_symlink("inner", folder.file("common/link"));
  EXPECT_EQ(Lumo::trustedFolder(folder.file("common/link/")), inner);
  ASSERT_EQ(::chown(inner.c_str(), somebody, somebody), 0);
  for (const char* name : {"common/inner", "common/inner/", "common/link"}) {
    EXPECT_THROW(Lumo::trustedFolder(folder.file(name)), Lumo::PathError) << name;
  }
  folderOf(0755);
  EXPECT_EQ(Lumo::trustedFolder(inner), inner);
}

}  // namespace

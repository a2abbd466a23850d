#include <gtest/gtest.h>
#include <support/TemporaryFolder.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <Norv/State/Files.h>

namespace {

using Norv::State::replaceFile;

struct Files : testing::Test {
  static std::string textOf(const std::filesystem::path& file) {
    std::ifstream in(file);
    return {std::istreambuf_iterator<char>(in), {}};
  }

  static void write(const std::filesystem::path& file, const std::string& text) {
    std::ofstream(file) << text;
  }

  support::TemporaryFolder folder;
  const std::filesystem::path file = folder.file("below/record");
};

TEST_F(Files, AreReplacedWholeForTheirOwnerAlone) {
  replaceFile(file, "one, and more of it");
  replaceFile(file, "two");
  EXPECT_EQ(textOf(file), "two");
  struct stat found {};
  ASSERT_EQ(stat(file.c_str(), &found), 0);
  EXPECT_EQ(found.st_mode & 0777, 0600u);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(file.parent_path()), {}), 1);
}

TEST_F(Files, TheirFolderIsTheirOwnersAlone) {
  const mode_t usual = umask(0);
  EXPECT_TRUE(Norv::State::makeFolder(folder.file("a/b")));
  umask(usual);
  for (const char* name : {"a", "a/b"}) {
    struct stat found {};
    ASSERT_EQ(stat(folder.file(name).c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 0777, 0700u) << name;
  }
  EXPECT_TRUE(Norv::State::makeFolder(folder.file("a/b/")));
  write(folder.file("file"), "");
  EXPECT_FALSE(Norv::State::makeFolder(folder.file("file/below")));
  EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(Files, AreNotKeptWhereEverybodyMayWrite) {
  Norv::State::checkFolder(folder.file("none"));
  const std::string common = folder.file("common");
  ASSERT_TRUE(Norv::State::makeFolder(common));
  Norv::State::checkFolder(common);
  ASSERT_EQ(chmod(common.c_str(), 0777), 0);
  try {
    Norv::State::checkFolder(common);
    FAIL() << "nothing was thrown";
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(error.what(), "cannot keep the state in " + common + ": " + common +
                                " is a folder that everybody may write; take that away (chmod "
                                "o-w) or name another");
  }
}

TEST_F(Files, AFolderThatCannotBeLookedAtIsForWhoeverWritesThere) {
  std::filesystem::create_symlink("circle", folder.file("circle"));
  Norv::State::checkFolder(folder.file("circle"));
  EXPECT_THROW(replaceFile(folder.file("circle/file"), "text"), std::runtime_error);
}

TEST_F(Files, WhatAnInterruptedCallLeftIsNotInTheWay) {
  replaceFile(file, "one");
  write(file.string() + ".new", "the half of something that was longer than what follows");
  replaceFile(file, "two");
  EXPECT_EQ(textOf(file), "two");
}

TEST_F(Files, ALinkInTheWayIsNotFollowed) {
  replaceFile(file, "one");
  const std::filesystem::path another = folder.file("another");
  write(another, "not ours");
  std::filesystem::create_symlink(another, file.string() + ".new");
  replaceFile(file, "two");
  EXPECT_EQ(textOf(file), "two");
  EXPECT_EQ(textOf(another), "not ours");
}

TEST_F(Files, AnOldOneStaysWhenTheNewOneCannotBeMade) {
  replaceFile(file, "one");
  std::filesystem::create_directory(file.string() + ".new");
  try {
    replaceFile(file, "two");
    FAIL() << "nothing was thrown";
  } catch (const std::runtime_error& error) {
    EXPECT_NE(std::string(error.what()).find("cannot write " + file.string() + ".new"),
              std::string::npos)
        << error.what();
  }
  EXPECT_EQ(textOf(file), "one");
}

}  // namespace

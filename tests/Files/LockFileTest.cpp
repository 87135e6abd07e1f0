// A lock among processes that no other user can hold, forge or wait out.
#include "Files/LockFile.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>

#include <fstream>
#include <optional>

#include "testing/Files/Strangers.h"

namespace {

using Files::LockFile;
using Files::LockHeld;
using Files::LockRefused;
using testing::HasSubstr;

std::string refusalOf(const std::string& path, const Files::Owners& owners = Files::Owners()) {
  try {
    const LockFile lock(path, owners);
    return "(taken)";
  } catch (const LockRefused& refused) {
    return refused.what();
  }
}

struct LockFileTest : testing::Test {
  mode_t mode() const {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : 0;
  }

  TestFiles::SharedFolder folder;
  std::string path = folder / "x.lock";
};

TEST_F(LockFileTest, IsAFileThatOnlyItsOwnerCanOpenAndThatGoesWithTheLock) {
  {
    const mode_t before = ::umask(0);
    const LockFile lock(path);
    ::umask(before);
    EXPECT_TRUE(lock);
    EXPECT_EQ(mode(), 0600U);
  }
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_FALSE(LockFile());
}

TEST_F(LockFileTest, TheSecondIsToldAtOnceWhoHasIt) {
  const LockFile lock(path);
  EXPECT_THAT(refusalOf(path), HasSubstr("process " + std::to_string(::getpid()) + " (files_test)"));
  EXPECT_THROW(const LockFile second(path), LockHeld);
  EXPECT_TRUE(std::filesystem::exists(path)) << "who was refused takes nothing away";
}

TEST_F(LockFileTest, IsFreeAgainWhenItsProcessEndsWithoutAWord) {
  EXPECT_TRUE(TestFiles::inAChild(
      [&] {
        static_cast<void>(new LockFile(path));  // never let go of
        return true;
      },
      false));
  EXPECT_TRUE(std::filesystem::exists(path));
  EXPECT_EQ(refusalOf(path), "(taken)");
}

TEST_F(LockFileTest, AChildOfTheHolderDoesNotLetGo) {
  std::optional<LockFile> lock(std::in_place, path);
  EXPECT_TRUE(TestFiles::inAChild(
      [&] {
        lock.reset();
        return true;
      },
      false));
  EXPECT_TRUE(std::filesystem::exists(path));
  EXPECT_THROW(const LockFile second(path), LockHeld);
}

TEST_F(LockFileTest, MovesToAnotherPlace) {
  LockFile lock(path);
  LockFile other = std::move(lock);
  lock = std::move(other);
  EXPECT_TRUE(lock);
  EXPECT_THROW(const LockFile second(path), LockHeld);
}

TEST_F(LockFileTest, LeavesTheFileOfAnother) {
  std::optional<LockFile> first(std::in_place, path);
  std::filesystem::remove(path);
  const LockFile second(path);
  first.reset();
  EXPECT_TRUE(std::filesystem::exists(path));
}

TEST_F(LockFileTest, AStrangerCannotTakeIt) {
  NEEDS_A_STRANGER();
  {
    const LockFile lock(path);
    EXPECT_TRUE(TestFiles::asStranger([&] { return ::open(path.c_str(), O_RDONLY) < 0; }));
  }
  EXPECT_EQ(refusalOf(path), "(taken)");
}

TEST_F(LockFileTest, AStrangersFileIsRefusedByName) {
  NEEDS_A_STRANGER();
  ASSERT_TRUE(TestFiles::asStranger(
      [&] { return std::ofstream(path).is_open() && ::chmod(path.c_str(), 0600) == 0; }));
  EXPECT_EQ(refusalOf(path),
            "its lock file " + path + " belongs to user (65533), expected is root (0); remove it");
  EXPECT_EQ(refusalOf(path, Files::Owners(TestFiles::stranger)), "(taken)");
}

TEST_F(LockFileTest, RootsFileIsRefusedByNameToo) {
  NEEDS_A_STRANGER();
  const LockFile lock(path);
  EXPECT_TRUE(TestFiles::asStranger([&] {
    return refusalOf(path) ==
           "its lock file " + path + " belongs to root (0) and cannot be opened; remove it";
  }));
}

TEST_F(LockFileTest, AFileThatOthersCanOpenIsRefused) {
  std::ofstream(path) << "";
  ::chmod(path.c_str(), 0644);
  EXPECT_EQ(refusalOf(path),
            "its lock file " + path + " may be opened by others, its mode is 0644; remove it");
}

TEST_F(LockFileTest, WhatIsNoFileOfItsOwnIsRefused) {
  const std::string precious = folder / "precious";
  std::ofstream(precious) << "precious";
  ::chmod(precious.c_str(), 0600);
  std::filesystem::create_symlink(precious, path);
  EXPECT_EQ(refusalOf(path), "its lock file " + path + " is a link; remove it");
  std::filesystem::remove(path);
  std::filesystem::create_hard_link(precious, path);
  EXPECT_EQ(refusalOf(path), "its lock file " + path + " has other names too; remove it");
  std::filesystem::remove(path);
  EXPECT_EQ(std::filesystem::file_size(precious), 8U);
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(refusalOf(path), "its lock file " + path + " is no regular file; remove it");
  EXPECT_THAT(refusalOf(folder / "no/such"), HasSubstr("cannot be made: no such folder"));
}

}  // namespace

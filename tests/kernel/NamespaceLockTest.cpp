#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <thread>
#include <vector>

#include "agent/kernel/NamespaceLock.h"

// Any file stands for a namespace here: its inode is its name.
namespace Agent::Kernel::Test {
namespace {

using ::testing::HasSubstr;

class NamespaceLockTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string name = ::testing::TempDir() + "namespace-lock-XXXXXX";
    ASSERT_NE(::mkdtemp(name.data()), nullptr);
    folder_ = name;
    for (const char* file : {"one", "two"}) {
      std::ofstream(folder_ + "/" + file) << "x";
    }
    locks_ = folder_ + "/locks";
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }
  std::string at(const char* name) const { return folder_ + "/" + name; }
  // What refuses the lock; empty if nothing does.
  std::string refusal(const char* name = "one") const {
    try {
      const NamespaceLock lock(locks_, at(name));
    } catch (const LockError& error) {
      return error.what();
    }
    return "";
  }
  // The path of the lock of "one".
  std::string path() const { return NamespaceLock(locks_, at("one")).path(); }

  std::string folder_;
  std::string locks_;
};

TEST_F(NamespaceLockTest, ASecondAgentIsRefusedWithTheProcessOfTheFirst) {
  std::optional<NamespaceLock> first(std::in_place, locks_, at("one"));
  EXPECT_EQ(refusal(), "another agent programs this network namespace: process " +
                           std::to_string(::getpid()) + " holds " + first->path());
  EXPECT_EQ(refusal("two"), "") << "another namespace";
  first.reset();
  EXPECT_EQ(refusal(), "");
}

TEST_F(NamespaceLockTest, TheFileIsNamedByTheInodeAndForItsOwnerAlone) {
  struct stat named {};
  ASSERT_EQ(::stat(at("one").c_str(), &named), 0);
  const NamespaceLock lock(locks_, at("one"));
  EXPECT_EQ(lock.path(), locks_ + "/netns-" + std::to_string(named.st_ino) + ".lock");
  struct stat status {};
  ASSERT_EQ(::stat(lock.path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(NamespaceLockTest, TheFileGoesWithTheLock) {
  EXPECT_FALSE(std::filesystem::exists(path()));
}

TEST_F(NamespaceLockTest, WithoutAPathItIsTheProcesssOwnNamespace) {
  struct stat own {};
  ASSERT_EQ(::stat("/proc/self/ns/net", &own), 0);
  EXPECT_THAT(NamespaceLock(locks_, "").path(), HasSubstr("netns-" + std::to_string(own.st_ino) + ".lock"));
}

TEST_F(NamespaceLockTest, AFileThatIsLeftBehindIsInNobodysWay) {
  const std::string lock = path();
  std::ofstream(lock) << "1234567890\n";
  std::optional<NamespaceLock> first(std::in_place, locks_, at("one"));
  EXPECT_THAT(refusal(), HasSubstr("process " + std::to_string(::getpid()) + " holds"))
      << "no digit of the old is left";
}

TEST_F(NamespaceLockTest, AHolderThatHasNotSaidWhoItIsIsAnotherProcess) {
  const NamespaceLock first(locks_, at("one"));
  std::filesystem::resize_file(first.path(), 0);
  EXPECT_THAT(refusal(), HasSubstr("another process holds"));
}

TEST_F(NamespaceLockTest, AFolderThatOthersMayWriteToIsRefused) {
  ASSERT_EQ(refusal(), "");
  for (const mode_t mode : {0770U, 0707U}) {
    ASSERT_EQ(::chmod(locks_.c_str(), mode), 0);
    EXPECT_THAT(refusal(), HasSubstr(locks_ + " can be written by others than its owner"));
  }
}

TEST_F(NamespaceLockTest, AFileThatOthersMayWriteToIsRefused) {
  const std::string lock = path();
  std::ofstream(lock) << "1\n";
  ASSERT_EQ(::chmod(lock.c_str(), 0606), 0);
  EXPECT_THAT(refusal(), HasSubstr(lock + " can be written by others than its owner"));
}

TEST_F(NamespaceLockTest, WhatBelongsToAnotherUserIsRefused) {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "only root can give a file away";
  }
  const std::string lock = path();
  std::ofstream(lock) << "1\n";
  ASSERT_EQ(::chown(lock.c_str(), 65533, 65533), 0);
  EXPECT_THAT(refusal(), HasSubstr(lock + " belongs to user 65533"));
  ASSERT_EQ(::chown(locks_.c_str(), 65533, 65533), 0);
  EXPECT_THAT(refusal(), HasSubstr(locks_ + " belongs to user 65533"));
}

TEST_F(NamespaceLockTest, ALinkAFifoAndAFolderInItsPlaceAreRefused) {
  const std::string lock = path();
  std::filesystem::create_symlink(at("two"), lock);
  EXPECT_THAT(refusal(), HasSubstr(lock + " cannot be opened: "));
  std::filesystem::remove(lock);
  ASSERT_EQ(::mkfifo(lock.c_str(), 0600), 0);
  EXPECT_THAT(refusal(), HasSubstr(lock + " is not a file"));
  std::filesystem::remove(lock);
  std::filesystem::create_directory(lock);
  EXPECT_THAT(refusal(), HasSubstr(lock + " cannot be opened: "));
}

TEST_F(NamespaceLockTest, AFolderThatCannotBeMadeOrIsALinkIsRefused) {
  locks_ = at("no/such");
  EXPECT_THAT(refusal(), HasSubstr(locks_ + " cannot be made: "));
  locks_ = at("link");
  std::filesystem::create_symlink(folder_, locks_);
  EXPECT_THAT(refusal(), HasSubstr(locks_ + " cannot be opened as a folder: "));
}

// One holder's file may be removed between another's opening and its lock.
TEST_F(NamespaceLockTest, NeverTwoHoldItAtOnce) {
  std::atomic<int> holders = 0;
  std::atomic<int> taken = 0;
  std::atomic<bool> two = false;
  const auto compete = [&] {
    for (int n = 0; n < 500; ++n) {
      try {
        const NamespaceLock lock(locks_, at("one"));
        if (++holders > 1) {
          two = true;
        }
        ++taken;
        --holders;
      } catch (const LockError&) {
        // Another one has it.
      }
    }
  };
  {
    std::vector<std::jthread> threads;
    for (int n = 0; n < 4; ++n) {
      threads.emplace_back(compete);
    }
  }
  EXPECT_FALSE(two);
  EXPECT_GT(taken, 0);
}

}  // namespace
}  // namespace Agent::Kernel::Test

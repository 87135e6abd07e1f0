#include "service/control/Listener.h"

#include <gmock/gmock.h>

#include <fstream>
#include <optional>

#include "Rig.h"
#include "testing/Files/Strangers.h"

namespace {

using Control::Access;
using Control::Listener;
using testing::HasSubstr;
using testing::ThrowsMessage;

class ListenerTest : public testing::Test {
 protected:
  mode_t modeOfFile() const {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return status.st_mode & 0777U;
  }
  bool fileIsThere() const { return std::filesystem::exists(path); }

  TestControl::TempFolder folder;
  std::string path = folder / "control.sock";
  Access access{.owner = geteuid()};
};

TEST_F(ListenerTest, AcceptsWhoConnects) {
  const Listener listener(path, access);
  EXPECT_FALSE(listener.accept());
  const TestControl::RawClient client(path);
  EXPECT_TRUE(client.connected);
  EXPECT_TRUE(listener.accept());
}

TEST_F(ListenerTest, GivesTheFileTheModeThatTheRightsNeed) {
  {
    const Listener listener(path, access);
    EXPECT_EQ(modeOfFile(), 0600U);
  }
  {
    access.group = getegid();
    const Listener listener(path, access);
    EXPECT_EQ(modeOfFile(), 0660U);
  }
  access.othersRead = true;
  const Listener listener(path, access);
  EXPECT_EQ(modeOfFile(), 0666U);
}

TEST_F(ListenerTest, ReplacesTheFileOfAKilledAgent) {
  const std::string other = folder / "kept";
  {
    const Listener killed(path, access);
    std::filesystem::create_hard_link(path, other);  // so that the file stays when its socket is gone
  }
  std::filesystem::rename(other, path);
  const Listener listener(path, access);
  const TestControl::RawClient client(path);
  EXPECT_TRUE(client.connected);
  EXPECT_TRUE(listener.accept());
}

TEST_F(ListenerTest, RefusesToTakeALiveAgentsPlace) {
  const Listener live(path, access);
  EXPECT_THAT(([&] { const Listener second(path, access); }),
              ThrowsMessage<std::runtime_error>(
                  HasSubstr(path + ": another agent listens there: process " + std::to_string(getpid()))));
  const TestControl::RawClient client(path);
  EXPECT_TRUE(client.connected);
}

TEST_F(ListenerTest, RefusesAFileThatIsNoSocket) {
  std::ofstream(path) << "precious";
  EXPECT_THAT(([&] { const Listener listener(path, access); }),
              ThrowsMessage<std::runtime_error>(HasSubstr("something else than a socket")));
  EXPECT_TRUE(fileIsThere());
}

TEST_F(ListenerTest, RefusesAPathThatNoSocketCanHave) {
  EXPECT_THAT(([&] { const Listener listener(folder / std::string(200, 'x'), access); }),
              ThrowsMessage<std::runtime_error>(HasSubstr("a path has 1 to 107 bytes")));
  EXPECT_THAT(([&] { const Listener listener(folder / "no/such/folder", access); }),
              ThrowsMessage<std::runtime_error>(HasSubstr("no such folder")));
}

TEST_F(ListenerTest, TakesItsFileAlong) {
  { const Listener listener(path, access); }
  EXPECT_FALSE(fileIsThere());
  EXPECT_FALSE(std::filesystem::exists(path + ".lock"));
}

TEST_F(ListenerTest, KeepsItsPlaceWhenItsFileIsTakenAway) {
  const Listener live(path, access);
  std::filesystem::remove(path);
  EXPECT_THAT(([&] { const Listener second(path, access); }),
              ThrowsMessage<std::runtime_error>(HasSubstr("another agent listens there")));
  EXPECT_FALSE(fileIsThere());
}

TEST_F(ListenerTest, SaysWhichProcessListensThatHasNoLock) {
  const Listener live(path, access);
  std::filesystem::remove(path + ".lock");
  EXPECT_THAT(([&] { const Listener second(path, access); }),
              ThrowsMessage<std::runtime_error>(
                  HasSubstr("another agent listens there: process " + std::to_string(getpid()))));
}

// A user who can read the folder can lock it, and every file in it that he can open.
TEST_F(ListenerTest, NoLockOfAnotherUserIsInItsWay) {
  NEEDS_A_STRANGER();
  const TestFiles::SharedFolder shared;
  const std::string there = shared / "control.sock";
  TestFiles::StrangersLock lock(shared / ".");
  ASSERT_TRUE(lock.held());
  const Listener listener(there, access);
  const TestControl::RawClient client(there);
  EXPECT_TRUE(client.connected);
}

TEST_F(ListenerTest, ALockFileOfAnotherUserIsRefusedByName) {
  NEEDS_A_STRANGER();
  const TestFiles::SharedFolder shared;
  const std::string there = shared / "control.sock";
  ASSERT_TRUE(TestFiles::asStranger([&] { return std::ofstream(there + ".lock").is_open(); }));
  EXPECT_THAT(([&] { const Listener listener(there, access); }),
              ThrowsMessage<std::runtime_error>(
                  HasSubstr(there + ": its lock file " + there + ".lock belongs to user (65533)")));
}

TEST_F(ListenerTest, ChangesTheRightsOfNoOtherFile) {
  const Listener listener(path, access);
  const std::string precious = folder / "precious";
  std::ofstream(precious) << "precious";
  std::filesystem::permissions(precious, std::filesystem::perms(0600));
  std::filesystem::remove(path);
  std::filesystem::create_symlink(precious, path);
  access.othersRead = true;
  EXPECT_THAT([&] { listener.accessIs(access); },
              ThrowsMessage<std::runtime_error>(HasSubstr("the agent's file is no more there")));
  std::filesystem::remove(path);
  std::filesystem::create_hard_link(precious, path);
  EXPECT_THROW(listener.accessIs(access), std::runtime_error);
  EXPECT_EQ(modeOfFile(), 0600U);
}

TEST_F(ListenerTest, LeavesTheFileOfItsSuccessor) {
  std::optional<Listener> first(std::in_place, path, access);
  std::filesystem::remove(path);
  std::filesystem::remove(path + ".lock");
  const Listener second(path, access);
  first.reset();
  EXPECT_TRUE(fileIsThere());
}

}  // namespace

#include "service/control/Access.h"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include "service/control/UniqueFd.h"

namespace {

using Control::Access;
using Control::Peer;
using Control::Right;

constexpr Peer person(uid_t uid, gid_t gid) {
  return {uid, gid, 4711};
}

TEST(Access, TheOwnerAndTheSuperuserMayPatch) {
  const Access access{.owner = 990};
  EXPECT_EQ(access.of(person(990, 990)), Right::patch);
  EXPECT_EQ(access.of(person(0, 0)), Right::patch);
}

TEST(Access, MembersOfTheGroupMayPatch) {
  const Access access{.owner = 990, .group = 77};
  EXPECT_EQ(access.of(person(1000, 77)), Right::patch);
  Peer supplementary = person(1000, 1000);
  supplementary.groups = {4, 77};
  EXPECT_EQ(access.of(supplementary), Right::patch);
}

TEST(Access, OthersMayReadOnlyIfConfigured) {
  EXPECT_EQ((Access{.owner = 990, .group = 77}.of(person(1000, 1000))), Right::none);
  EXPECT_EQ((Access{.owner = 990, .group = 77, .othersRead = true}.of(person(1000, 1000))), Right::read);
}

TEST(Access, WithoutAConfiguredGroupNoGroupCounts) {
  EXPECT_EQ((Access{.owner = 990}.of(person(1000, 0))), Right::none);
}

TEST(Access, TheSocketFileLetsInJustThem) {
  EXPECT_EQ(Access{.owner = 990}.socketMode(), 0600U);
  EXPECT_EQ((Access{.owner = 990, .group = 77}.socketMode()), 0660U);
  EXPECT_EQ((Access{.owner = 990, .group = 77, .othersRead = true}.socketMode()), 0666U);
}

TEST(Access, TheKernelSaysWhoIsThere) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  const Control::UniqueFd near{ends[0]};
  const Control::UniqueFd far{ends[1]};
  const Peer peer = Control::peerOf(near.get());
  EXPECT_EQ(peer.uid, geteuid());
  EXPECT_EQ(peer.gid, getegid());
  EXPECT_EQ(peer.pid, getpid());
  EXPECT_EQ(peer.name(), "uid " + std::to_string(geteuid()) + " (pid " + std::to_string(getpid()) + ")");
}

}  // namespace

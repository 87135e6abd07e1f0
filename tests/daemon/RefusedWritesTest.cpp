#include "agent/daemon/RefusedWrites.h"

#include <gmock/gmock.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <set>

namespace {

using namespace std::chrono_literals;
using Agent::RefusedWrites;
using Bridging::MacVlanPair;
using Bridging::VlanId;
using Service::EventLoop;
using testing::HasSubstr;

MacVlanPair key(unsigned number) {
  return {Qnet::EthAddr(0x020000000000U + number), VlanId(10)};
}

L2Rib::Host host(unsigned number, std::uint32_t moves = 1) {
  L2Rib::Host made;
  made.key = key(number);
  made.moveCount = moves;
  return made;
}

// A table that holds four hosts, in a loop whose time stands still until the test moves it.
class RefusedWritesTest : public testing::Test {
 protected:
  static constexpr std::size_t limit = 4;

  static Kel::Ptr<L2Rib::HostInput> table() {
    L2Rib::HostInput::Options options;
    options.limit = limit;
    return Kel::make<L2Rib::HostInput>(options);
  }
  RefusedWrites::Pace pace() const { return {atOnce, 1s, 8s}; }
  void write(unsigned first, unsigned end) const {
    for (unsigned number = first; number < end; ++number) {
      hosts->hostIs(host(number));
    }
  }
  void turn() { loop.runOnce(0ns); }
  // Moves the time on and lets the loop do what is due then.
  void pass(EventLoop::Clock::duration some) {
    time += some;
    for (int turns = 0; turns < 20; ++turns) {
      turn();
    }
  }
  std::size_t tries() const { return refused.refused(); }

  std::size_t atOnce = 256;
  EventLoop::Clock::time_point time{1h};
  EventLoop loop{[this] { return time; }};
  Kel::Ptr<L2Rib::HostInput> hosts = table();
  std::set<MacVlanPair> unwanted;
  RefusedWrites refused{loop, hosts, [this](const MacVlanPair& key) { return !unwanted.contains(key); },
                        pace()};
};

TEST_F(RefusedWritesTest, AreKeptAndToldWithTheReason) {
  write(0, 10);
  EXPECT_EQ(hosts->hosts(), limit);
  EXPECT_EQ(refused.waiting(), 6U);
  EXPECT_TRUE(refused.waits(key(9)));
  EXPECT_FALSE(refused.waits(key(0)));
  EXPECT_THAT(refused.why(), HasSubstr("limit of 4 records"));
  EXPECT_TRUE(refused.full());
}

TEST_F(RefusedWritesTest, GoInWhenThereIsRoom) {
  write(0, 6);
  hosts->hostDel(key(0));
  hosts->hostDel(key(1));
  EXPECT_EQ(refused.waiting(), 2U);
  pass(1s);
  EXPECT_EQ(refused.waiting(), 0U);
  EXPECT_TRUE(hosts->hasHost(key(4)));
  EXPECT_TRUE(hosts->hasHost(key(5)));
}

TEST_F(RefusedWritesTest, AreNotTriedBeforeTheirTime) {
  write(0, 5);
  hosts->hostDel(key(0));
  pass(1s - 1ns);
  EXPECT_EQ(refused.waiting(), 1U);
  pass(1ns);
  EXPECT_EQ(refused.waiting(), 0U);
}

TEST_F(RefusedWritesTest, AreTriedLessOftenWhileNoneGoesIn) {
  write(0, 6);
  const std::size_t before = tries();
  pass(1s);
  EXPECT_EQ(tries(), before + 1) << "the first that is refused ends the try";
  pass(2s - 1ns);
  EXPECT_EQ(tries(), before + 1);
  pass(1ns);
  EXPECT_EQ(tries(), before + 2);
  pass(4s);
  pass(8s);
  EXPECT_EQ(tries(), before + 4);
  pass(8s);
  EXPECT_EQ(tries(), before + 5) << "the pause has its limit";
}

TEST_F(RefusedWritesTest, AreTriedSoonAfterAHostHasLeft) {
  write(0, 5);
  for (const auto pause : {1s, 2s, 4s}) {
    pass(pause);
  }
  hosts->hostDel(key(0));
  pass(1s);
  EXPECT_EQ(refused.waiting(), 0U);
}

TEST_F(RefusedWritesTest, ARefusedHostDoesNotStandInTheWayOfOthers) {
  write(0, 7);
  pass(1s);  // the first of those that wait is refused again
  hosts->hostDel(key(0));
  pass(1s);
  EXPECT_TRUE(hosts->hasHost(key(5))) << "the one behind it comes next";
  EXPECT_TRUE(refused.waits(key(4)));
}

TEST_F(RefusedWritesTest, HaveTheirLatestValue) {
  write(0, 5);
  hosts->hostIs(host(4, 7));
  EXPECT_EQ(refused.waiting(), 1U);
  hosts->hostDel(key(0));
  pass(1s);
  EXPECT_EQ(hosts->findHost(key(4))->moveCount, 7U);
}

TEST_F(RefusedWritesTest, AreForgottenWhenTheyAreDeletedOrWrittenByOthers) {
  write(0, 6);
  hosts->hostDel(key(4));
  EXPECT_FALSE(refused.waits(key(4)));
  hosts->hostDel(key(0));
  hosts->hostIs(host(5));
  EXPECT_EQ(refused.waiting(), 0U);
  hosts->hostDel(key(5));
  pass(10s);
  EXPECT_FALSE(hosts->hasHost(key(5))) << "what was deleted meanwhile does not come back";
}

TEST_F(RefusedWritesTest, ThatNobodyWantsAnyMoreAreForgotten) {
  write(0, 6);
  unwanted = {key(4), key(5)};
  hosts->hostDel(key(0));
  pass(1s);
  EXPECT_EQ(refused.waiting(), 0U);
  EXPECT_EQ(hosts->hosts(), limit - 1);
}

TEST_F(RefusedWritesTest, AreForgottenAtOnceWhereAllAre) {
  write(0, 6);
  refused.clear();
  hosts->hostDel(key(0));
  pass(20s);
  EXPECT_EQ(hosts->hosts(), limit - 1);
  hosts->hostIs(host(0));
  write(6, 7);
  EXPECT_EQ(refused.waiting(), 1U) << "and what is refused later is kept";
}

TEST_F(RefusedWritesTest, TheTableRaisesWhenNobodyLooksAfterThem) {
  const auto other = table();
  {
    const RefusedWrites looksAfter(loop, other, [](const MacVlanPair&) { return true; });
    for (unsigned number = 0; number < limit + 1; ++number) {
      other->hostIs(host(number));
    }
  }
  EXPECT_THROW(other->hostIs(host(99)), Memtab::Full);
}

// What a turn tries is bounded, however many wait.
class SlicedWritesTest : public RefusedWritesTest {
 protected:
  SlicedWritesTest() { loop.workBudgetIs(0ns); }
};

TEST_F(SlicedWritesTest, AreTriedSomeAtATime) {
  const auto few = table();
  const RefusedWrites sliced(loop, few, [](const MacVlanPair&) { return true; }, {2, 1s, 8s});
  for (unsigned number = 0; number < 2 * limit; ++number) {
    few->hostIs(host(number));
  }
  for (unsigned number = 0; number < limit; ++number) {
    few->hostDel(key(number));
  }
  time += 1s;
  turn();
  EXPECT_EQ(sliced.waiting(), 2U) << "the slice of this turn";
  turn();
  EXPECT_EQ(sliced.waiting(), 0U);
}

// Puts a file system of one megabyte over a folder, for this process alone. False where that is not
// permitted.
bool coverWithOneMegabyte(const std::string& folder) {
  if (::unshare(CLONE_NEWNS) != 0) {
    const std::string users = "0 " + std::to_string(::getuid()) + " 1";
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0 || !(std::ofstream("/proc/self/uid_map") << users)) {
      return false;
    }
  }
  return ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         ::mount("none", folder.c_str(), "tmpfs", 0, "size=1m") == 0;
}

// Exit codes of the process that has a small file system for itself.
constexpr int well = 0;
constexpr int notPermitted = 77;

// Fills a table beside a file that takes half of the memory, takes the file away, and waits for the rest.
int refusedForAMoment(const std::string& folder) {
  if (!coverWithOneMegabyte(folder)) {
    return notPermitted;
  }
  const std::string filler = folder + "/filler";
  std::ofstream(filler) << std::string(std::size_t{400} << 10, 'x');
  EventLoop::Clock::time_point time{1h};
  EventLoop loop([&] { return time; });
  const auto hosts = Kel::make<L2Rib::HostInput>(L2Rib::HostInput::Options{folder + "/table", 100'000});
  const RefusedWrites refused(loop, hosts, [](const MacVlanPair&) { return true; });
  constexpr unsigned all = 4'000;
  for (unsigned number = 0; number < all; ++number) {
    hosts->hostIs(host(number));
  }
  const bool told = refused.waiting() != 0 && !refused.full() &&
                    refused.why().find("No space left on device") != std::string::npos &&
                    hosts->hosts() + refused.waiting() == all;
  ::unlink(filler.c_str());
  for (int turns = 0; turns < 100; ++turns) {
    time += 100ms;
    loop.runOnce(0ns);
  }
  return told && refused.waiting() == 0 && hosts->hosts() == all ? well : 1;
}

TEST(RefusedWritesWithoutMemory, GoInWhenThereIsMemoryAgain) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::_exit(refusedForAMoment(testing::TempDir()));
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == notPermitted) {
    GTEST_SKIP() << "a file system of one's own is not permitted here";
  }
  EXPECT_EQ(WEXITSTATUS(status), well);
}

}  // namespace

#include <gmock/gmock.h>
#include <linux/rtnetlink.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "Addresses.h"
#include "Namespace.h"
#include "agent/kernel/Adapter.h"

// The adapter on the real kernel, in network namespaces that each test makes; read back with iproute2.
namespace Agent::Kernel::Test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

const char* const host = "02:00:00:00:00:01";
const char* const other = "02:00:00:00:00:02";
const char* const all = "00:00:00:00:00:00";
const Ip4 vtepA = ip("10.0.0.2");
const Ip4 vtepB = ip("10.0.0.3");

// Hears what the kernel reports of rows, beside the adapter.
class Watch {
 public:
  explicit Watch(const Namespace& where) : socket_(where.path(), std::size_t{16} << 20U, 8192, 64) {
    EXPECT_TRUE(socket_.join(RTNLGRP_NEIGH));
  }
  // How often a row of the address was deleted since the last call.
  int deletions(Mac mac) {
    int count = 0;
    Socket::Heard heard = Socket::Heard::messages;
    while (heard != Socket::Heard::nothing) {
      heard = socket_.receive(64, [&](const nlmsghdr& message) {
        std::optional<FdbEntry> entry = readEntry(message);
        if (message.nlmsg_type == RTM_DELNEIGH && entry && entry->mac == mac) {
          ++count;
        }
      });
      EXPECT_NE(heard, Socket::Heard::overrun);
    }
    return count;
  }

 private:
  Socket socket_;
};

class KernelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (auto why = Namespace::whyNot()) {
      GTEST_SKIP() << *why;
    }
    leaf_.emplace();
    start();
  }
  void start(Options options = {}) {
    options.netns = leaf_->path();
    options.lockFolder = ::testing::TempDir() + "kernel-test-locks";
    adapter_.reset();
    adapter_.emplace(options);
  }
  // Lets the adapter work until it has nothing more to do at once.
  void run() {
    while (adapter_->run(milliseconds(2))) {
    }
  }
  // As run, and then all that is due within the span, waiting for it on the adapter's descriptors' clock.
  void runUntilQuiet(Time longest) {
    Time end = Adapter::now() + longest;
    run();
    while (differing() > 0 && Adapter::now() < end) {
      run();
    }
  }
  std::size_t differing() const {
    std::size_t count = 0;
    for (const Tally& tally : adapter_->engine().status().tallies()) {
      count += tally.differing + tally.unknown;
    }
    return count;
  }
  void givenHostAtA() {
    adapter_->vniIs(5010, 10, "Vxlan1", ip("10.0.0.1"), {});
    adapter_->hostIs(10, mac(host), vtepA);
    adapter_->initialSyncComplete();
    run();
    ASSERT_EQ(problems(), "");
  }
  std::string problems() const {
    std::string out;
    for (const Problem& problem : adapter_->problems(100).first) {
      out += problem.what + ": " + problem.why + "\n";
    }
    return out;
  }

  std::optional<Namespace> leaf_;
  std::optional<Adapter> adapter_;
};

TEST_F(KernelTest, MakesDevicesAndRows) {
  leaf_->run("ip link add t0 type veth peer name h0");
  adapter_->vniIs(5010, 10, "Vxlan1", ip("10.0.0.1"), {"t0"});
  adapter_->hostIs(10, mac(host), vtepA);
  adapter_->floodIs(10, mac(all), FloodType::all, {vtepA, vtepB});
  run();
  EXPECT_EQ(problems(), "");
  std::string device = leaf_->run("ip -d link show vx5010");
  for (const char* word : {"id 5010", "local 10.0.0.1", "dstport 4789", "nolearning", "master vxb10", "UP",
                           "learning off", "alias vxlan-agent: vlan 10 vni 5010 Vxlan1", "group default"}) {
    EXPECT_THAT(device, HasSubstr(word));
  }
  EXPECT_THAT(leaf_->run("ip -d link show vxb10"), HasSubstr("alias vxlan-agent: vlan 10"));
  EXPECT_THAT(leaf_->run("ip link show t0"), HasSubstr("master vxb10"));
  EXPECT_THAT(leaf_->entries({host, "vx5010", "nhid", "self"}), SizeIs(1));
  EXPECT_THAT(leaf_->entries({host, "vx5010", "extern_learn", "master"}), SizeIs(1));
  EXPECT_THAT(leaf_->entries({all, "vx5010", "dst", "10.0.0.2"}), SizeIs(1));
  EXPECT_THAT(leaf_->entries({all, "vx5010", "dst", "10.0.0.3"}), SizeIs(1));
  EXPECT_EQ(differing(), 0U);
}

TEST_F(KernelTest, ExplainsWhatIsWantedAcknowledgedAndReadBack) {
  givenHostAtA();
  const FullExplanation found = adapter_->explain(10, mac(host));
  EXPECT_EQ(found.known.desiredVteps, std::vector<Ip4>{vtepA});
  EXPECT_EQ(found.known.deviceOwner, Owner::ours);
  EXPECT_EQ(found.device->nexthop, found.known.deviceNexthop);
  EXPECT_EQ(found.bridge->port, "vx5010");
  const FullExplanation unknown = adapter_->explain(10, mac(other));
  EXPECT_FALSE(unknown.device->there);
  EXPECT_THAT(unknown.device->answer, HasSubstr("No such file or directory"));
}

TEST_F(KernelTest, MovesAHostAHundredTimesWithoutAGap) {
  givenHostAtA();
  Watch watch(*leaf_);
  for (int n = 0; n < 100; ++n) {
    adapter_->hostIs(10, mac(host), n % 2 == 0 ? vtepB : vtepA);
    run();
    ASSERT_EQ(adapter_->engine().status().explain(10, mac(host)).deviceVteps,
              std::vector<Ip4>{n % 2 == 0 ? vtepB : vtepA});
  }
  EXPECT_EQ(watch.deletions(mac(host)), 0);
  EXPECT_THAT(leaf_->entries({host, "nhid"}), SizeIs(1));
}

TEST_F(KernelTest, ChangesBetweenOneVtepAndAnyWithoutAGap) {
  givenHostAtA();
  Watch watch(*leaf_);
  for (int n = 0; n < 10; ++n) {
    adapter_->floodIs(10, mac(host), FloodType::any, {vtepA, vtepB});
    run();
    EXPECT_EQ(adapter_->engine().status().explain(10, mac(host)).deviceVteps,
              (std::vector<Ip4>{vtepA, vtepB}));
    adapter_->floodDel(10, mac(host));
    run();
    EXPECT_EQ(adapter_->engine().status().explain(10, mac(host)).deviceVteps, std::vector<Ip4>{vtepA});
  }
  EXPECT_EQ(watch.deletions(mac(host)), 0);
}

TEST_F(KernelTest, ChangesTheDefaultDestination) {
  givenHostAtA();
  adapter_->floodIs(10, mac(all), FloodType::any, {vtepA, vtepB});
  run();
  EXPECT_THAT(leaf_->entries({all, "nhid"}), SizeIs(1));
  Watch watch(*leaf_);
  adapter_->floodIs(10, mac(all), FloodType::any, {vtepB});
  run();
  EXPECT_EQ(watch.deletions(mac(all)), 0);
  adapter_->floodIs(10, mac(all), FloodType::all, {vtepA, vtepB});
  run();
  EXPECT_THAT(leaf_->entries({all, "nhid"}), IsEmpty());
  EXPECT_THAT(leaf_->entries({all, "dst"}), SizeIs(2));
  adapter_->floodDel(10, mac(all));
  run();
  EXPECT_THAT(leaf_->entries({all}), IsEmpty());
  EXPECT_EQ(differing(), 0U);
}

TEST_F(KernelTest, PutsBackWhatOthersDeleteAndLeavesTheirRows) {
  givenHostAtA();
  adapter_->floodIs(10, mac(all), FloodType::all, {vtepA});
  run();
  leaf_->run("bridge fdb add 06:00:00:00:00:01 dev vx5010 dst 10.0.0.99 self static");
  leaf_->run("bridge fdb append 00:00:00:00:00:00 dev vx5010 dst 10.0.0.99");
  leaf_->run("bridge fdb del 02:00:00:00:00:01 dev vx5010 self");
  leaf_->run("bridge fdb del 02:00:00:00:00:01 dev vx5010 master");
  leaf_->run("bridge fdb del 00:00:00:00:00:00 dev vx5010 dst 10.0.0.2");
  run();
  EXPECT_THAT(leaf_->entries({host, "self", "nhid"}), SizeIs(1));
  EXPECT_THAT(leaf_->entries({host, "master"}), SizeIs(1));
  EXPECT_THAT(leaf_->entries({all, "dst", "10.0.0.2"}), SizeIs(1));
  adapter_->hostDel(10, mac(host));
  adapter_->floodDel(10, mac(all));
  run();
  EXPECT_THAT(leaf_->entries({"06:00:00:00:00:01", "10.0.0.99"}), SizeIs(1));
  EXPECT_THAT(leaf_->entries({all, "10.0.0.99"}), SizeIs(1));
  EXPECT_THAT(leaf_->entries({host}), IsEmpty());
}

TEST_F(KernelTest, PutsBackRowsThatWentSilentlyWithTheirGroup) {
  givenHostAtA();
  leaf_->run("ip nexthop flush");
  EXPECT_THAT(leaf_->entries({host, "self"}), IsEmpty());
  runUntilQuiet(seconds(10));
  EXPECT_THAT(leaf_->entries({host, "self", "nhid"}), SizeIs(1));
  EXPECT_EQ(differing(), 0U);
}

TEST_F(KernelTest, RebuildsDevicesThatOthersDelete) {
  givenHostAtA();
  leaf_->run("ip link del vx5010");
  run();
  EXPECT_THAT(leaf_->entries({host, "vx5010"}), SizeIs(2));
  leaf_->run("ip link del vxb10");
  run();
  EXPECT_THAT(leaf_->entries({host, "vx5010"}), SizeIs(2));
  leaf_->run("ip link set vx5010 down");
  run();
  EXPECT_THAT(leaf_->run("ip link show vx5010"), HasSubstr("UP"));
  EXPECT_EQ(differing(), 0U);
}

TEST_F(KernelTest, ABridgeThatIsRenamedKeepsItsRows) {
  givenHostAtA();
  leaf_->run("ip link set vxb10 down");
  leaf_->run("ip link set vxb10 name elsewhere");
  leaf_->run("ip link set elsewhere up");
  run();
  EXPECT_THAT(leaf_->entries({host, "vx5010", "master", "elsewhere"}), SizeIs(1));
  EXPECT_THAT(leaf_->run("ip link show"), ::testing::Not(HasSubstr("vxb10")));
  EXPECT_EQ(differing(), 0U);
}

TEST_F(KernelTest, LearningThatIsSetAtThePortIsTakenBackAtOnce) {
  givenHostAtA();
  leaf_->run("bridge link set dev vx5010 learning on");
  EXPECT_THAT(leaf_->run("ip -d link show vx5010"), HasSubstr("learning on"));
  run();
  EXPECT_THAT(leaf_->run("ip -d link show vx5010"), HasSubstr("learning off"));
  EXPECT_EQ(adapter_->engine().counters().audits, 1U) << "by the report";
}

TEST_F(KernelTest, ASecondAgentInTheNamespaceIsRefused) {
  Options options;
  options.netns = leaf_->path();
  options.lockFolder = ::testing::TempDir() + "kernel-test-locks";
  EXPECT_THROW(Adapter second(options), LockError);
  const Namespace elsewhere;
  options.netns = elsewhere.path();
  EXPECT_NO_THROW(Adapter second(options));
}

TEST_F(KernelTest, SaysWhenItHasComparedAndWhatItDoesNotKnow) {
  adapter_->vniIs(5010, 10, "Vxlan1", ip("10.0.0.1"), {});
  const AdapterStatus before = adapter_->status();
  EXPECT_EQ(before.tallies.front().kind, "devices");
  EXPECT_EQ(before.tallies.front().unknown, 2U);
  EXPECT_FALSE(before.compared);
  run();
  const AdapterStatus after = adapter_->status();
  EXPECT_EQ(after.tallies.front().unknown, 0U);
  EXPECT_EQ(after.tallies.front().differing, 0U);
  EXPECT_TRUE(after.compared);
}

TEST_F(KernelTest, AdoptsAfterARestartWithoutATouch) {
  givenHostAtA();
  adapter_->hostIs(10, mac(other), vtepB);
  adapter_->floodIs(10, mac(all), FloodType::all, {vtepA, vtepB});
  adapter_->vniIs(5020, 20, "Vxlan1", ip("10.0.0.1"), {});
  run();
  Watch watch(*leaf_);
  start();
  run();
  adapter_->vniIs(5010, 10, "Vxlan1", ip("10.0.0.1"), {});
  adapter_->hostIs(10, mac(host), vtepA);
  adapter_->floodIs(10, mac(all), FloodType::all, {vtepA});
  run();
  EXPECT_EQ(adapter_->engine().counters().acknowledged, 0U) << "all that is wanted is there";
  EXPECT_THAT(leaf_->entries({other, "vx5010"}), SizeIs(2)) << "not settled yet";
  adapter_->initialSyncComplete();
  run();
  EXPECT_EQ(watch.deletions(mac(host)), 0);
  EXPECT_THAT(leaf_->entries({host, "vx5010"}), SizeIs(2));
  EXPECT_THAT(leaf_->entries({other}), IsEmpty());
  EXPECT_THAT(leaf_->entries({all, "dst"}), SizeIs(1));
  std::string links = leaf_->run("ip link show");
  EXPECT_EQ(links.find("vx5020"), std::string::npos);
  EXPECT_EQ(links.find("vxb20"), std::string::npos);
}

TEST_F(KernelTest, DoesWithoutNexthopGroups) {
  Options options;
  options.nexthops = false;
  start(options);
  adapter_->vniIs(5010, 10, "Vxlan1", ip("10.0.0.1"), {});
  adapter_->hostIs(10, mac(host), vtepA);
  run();
  EXPECT_THAT(leaf_->entries({host, "self", "dst", "10.0.0.2"}), SizeIs(1));
  Watch watch(*leaf_);
  adapter_->hostIs(10, mac(host), vtepB);
  run();
  EXPECT_THAT(leaf_->entries({host, "self", "dst", "10.0.0.3"}), SizeIs(1));
  EXPECT_EQ(watch.deletions(mac(host)), 0);
  EXPECT_THAT(problems(), HasSubstr("nexthop groups are switched off"));
}

TEST_F(KernelTest, SaysWhichRightIsMissingAndGoesOnWhenItIsThere) {
  run();
  // The thread alone gives up the superuser's rights, and takes them back.
  ASSERT_EQ(::syscall(SYS_setresuid, -1, 65534, -1), 0);
  adapter_->vniIs(5010, 10, "Vxlan1", ip("10.0.0.1"), {});
  run();
  const std::string found = problems();
  ASSERT_EQ(::syscall(SYS_setresuid, -1, 0, -1), 0);
  EXPECT_THAT(found, HasSubstr("the capability CAP_NET_ADMIN in this network namespace is needed"));
  runUntilQuiet(seconds(10));
  EXPECT_EQ(problems(), "");
  EXPECT_THAT(leaf_->run("ip link show"), HasSubstr("vx5010"));
}

TEST_F(KernelTest, ChangesTheLocalAddressInPlace) {
  givenHostAtA();
  adapter_->vniIs(5010, 10, "Vxlan1", ip("10.0.0.9"), {});
  run();
  EXPECT_THAT(leaf_->run("ip -d link show vx5010"), HasSubstr("local 10.0.0.9"));
  EXPECT_THAT(leaf_->entries({host, "vx5010"}), SizeIs(2));
  EXPECT_EQ(problems(), "");
}

TEST_F(KernelTest, LooksAfterALossOfReports) {
  Options options;
  options.reportBuffer = 4096;
  start(options);
  givenHostAtA();
  std::uint64_t before = adapter_->engine().counters().overruns;
  leaf_->run(
      "for n in $(seq 10 99); do echo \"fdb add 06:00:00:00:00:$n dev vx5010 dst 10.0.0.99 self\"; done |"
      " bridge -batch -");
  leaf_->run("bridge fdb del 02:00:00:00:00:01 dev vx5010 self");
  runUntilQuiet(seconds(10));
  EXPECT_GT(adapter_->engine().counters().overruns, before);
  EXPECT_THAT(leaf_->entries({host, "self", "nhid"}), SizeIs(1));
  EXPECT_THAT(leaf_->entries({"10.0.0.99"}), SizeIs(90));
}

TEST_F(KernelTest, ProgramsThousandsOfHostsInShortSlices) {
  adapter_->vniIs(5010, 10, "Vxlan1", ip("10.0.0.1"), {});
  for (unsigned n = 0; n < 5000; ++n) {
    adapter_->hostIs(10, {0x020000010000ULL + n}, {0x0a000002U + n % 50});
  }
  adapter_->initialSyncComplete();
  run();
  EXPECT_EQ(differing(), 0U);
  EXPECT_THAT(leaf_->entries({"vx5010", "nhid", "self"}), SizeIs(5000));
  EXPECT_THAT(leaf_->entries({"vx5010", "extern_learn", "master"}), SizeIs(5000));
  for (unsigned n = 0; n < 5000; ++n) {
    adapter_->hostDel(10, {0x020000010000ULL + n});
  }
  run();
  EXPECT_THAT(leaf_->entries({"vx5010", "extern_learn"}), IsEmpty());
  EXPECT_EQ(leaf_->run("ip nexthop show"), "");
}

TEST(KernelSocketTest, SaysWhichNamespaceCannotBeEntered) {
  Options options;
  options.netns = "/nowhere/at/all";
  try {
    Adapter adapter(options);
    FAIL() << "there is no such namespace";
  } catch (const std::runtime_error& error) {
    EXPECT_THAT(error.what(),
                HasSubstr("network namespace /nowhere/at/all: cannot be entered: No such file"));
  }
}

}  // namespace
}  // namespace Agent::Kernel::Test

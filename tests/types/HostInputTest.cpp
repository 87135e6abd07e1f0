// The hosts of the layer-2 RIB in shared memory, written here and read as another process reads them.
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <optional>
#include <utility>

#include "Memtab/Reader.h"
#include "Memtab/Segment.h"
#include "Refusal.h"
#include "Vxlan/types/HostInput.h"

namespace {

using L2Rib::Host;
using L2Rib::HostInput;
using HostReader = Memtab::Reader<Bridging::MacVlanPair, L2Rib::HostValue>;

Bridging::MacVlanPair key(std::uint64_t number) {
  return {Qnet::EthAddr(number), Bridging::VlanId(10U)};
}

// A host whose every field follows from its number, so that half a host shows.
Host host(std::uint64_t number) {
  Host fresh;
  fresh.key = key(number);
  fresh.moveCount = static_cast<std::uint32_t>(number);
  fresh.lastUpdateTime = static_cast<double>(number) / 4;
  fresh.entryType = L2Rib::EntryType::Controller;
  fresh.dest = L2Rib::CiDest(L2Rib::DestType::VxlanVtep);
  fresh.dest.intfIs(L2Rib::InlineIntf(Qnet::IntfId("Vxlan" + std::to_string(number))));
  fresh.dest.vtepAddrIs(L2Rib::CiVtepIndex::First,
                        Qnet::IpGenAddr(Qnet::IpAddr(static_cast<std::uint32_t>(number))));
  return fresh;
}

// Runs this as a handler would run.
template <class Function>
void inHandler(Function&& function) {
  Kel::ActivityLoop::instance().asHandler(std::forward<Function>(function));
}

class HostInputTest : public testing::Test {
 protected:
  HostInputTest() { Memtab::remove(name); }
  ~HostInputTest() override {
    input = nullptr;
    Memtab::remove(name);
  }
  void open(std::size_t limit = 1024) {
    input = Kel::make<HostInput>(HostInput::Options{.name = name, .limit = limit});
  }
  HostReader reader() { return HostReader(name, L2Rib::hostSchema); }
  std::vector<Bridging::MacVlanPair> walked() const {
    std::vector<Bridging::MacVlanPair> keys;
    for (auto at = input->firstHost(); at; at = input->nextHost(at->key)) {
      keys.push_back(at->key);
    }
    return keys;
  }

  const std::string name = "/vcc-host-input-test-" + std::to_string(::getpid());
  Kel::Ptr<HostInput> input;
};

// What is written is read back, replaced and removed; an absent key is no error.
TEST_F(HostInputTest, HostsComeChangeAndGo) {
  open();
  EXPECT_FALSE(input->findHost(key(1)));
  EXPECT_EQ(input->host(key(1)), Host()) << "as any look-up, the default";
  EXPECT_FALSE(input->firstHost());
  input->hostIs(host(1));
  EXPECT_EQ(input->host(key(1)), host(1));
  Host other = host(2);
  other.key = key(1);
  input->hostIs(other);
  EXPECT_EQ(input->host(key(1)), other);
  EXPECT_EQ(input->hosts(), 1U);
  input->hostDel(key(9));
  input->hostDel(key(1));
  EXPECT_FALSE(input->hasHost(key(1)));
  EXPECT_EQ(input->limit(), 1024U);
  EXPECT_GT(input->bytesTaken(), 0U);
}

// All of them go at once: heard as a whole first, then host by host, and gone for readers in one turn.
// Nothing is heard where there is none. A reactor that is bound hears the whole, as of any collection.
TEST_F(HostInputTest, AllHostsGoAtOnce) {
  struct Listener final : Kel::Follows<HostInput> {
    void onHost(Bridging::MacVlanPair at) override { heard.push_back(at.mac.text()); }
    void onHostkelImmediate() override { heard.emplace_back("all"); }
    std::vector<std::string> heard;
  };
  open();
  const auto listener = Kel::make<Listener>();
  listener->notifierIs(input);
  EXPECT_THAT(std::exchange(listener->heard, {}), testing::ElementsAre("all"));
  input->hostDelAll();
  EXPECT_THAT(listener->heard, testing::ElementsAre());
  HostReader reads = reader();
  inHandler([&] {
    input->hostIs(host(1));
    input->hostIs(host(2));
  });
  listener->heard.clear();
  inHandler([&] {
    input->hostDelAll();
    EXPECT_TRUE(reads.find(key(1)));
    EXPECT_TRUE(reads.find(key(2)));
    EXPECT_THAT(listener->heard, testing::ElementsAre("all")) << "at once";
  });
  EXPECT_THAT(listener->heard,
              testing::UnorderedElementsAre("all", "00:00:00:00:00:01", "00:00:00:00:00:02"));
  EXPECT_FALSE(reads.find(key(1)));
  EXPECT_FALSE(reads.find(key(2)));
  EXPECT_EQ(input->hosts(), 0U);
  listener->notifierIs(nullptr);
}

// A walk meets every host once, also while it deletes the one it is at.
TEST_F(HostInputTest, AWalkMeetsEveryHostOnceAndMayDelete) {
  open();
  std::vector<Bridging::MacVlanPair> all;
  for (std::uint64_t number = 1; number <= 100; ++number) {
    input->hostIs(host(number));
    all.push_back(key(number));
  }
  EXPECT_THAT(walked(), testing::UnorderedElementsAreArray(all));
  std::size_t met = 0;
  for (auto at = input->firstHost(); at; at = input->nextHost(at->key)) {
    input->hostDel(at->key);
    ++met;
  }
  EXPECT_EQ(met, 100U);
  EXPECT_EQ(input->hosts(), 0U);
}

// Outside a turn a host is published at once; what is written within a turn is published together at its end.
TEST_F(HostInputTest, AReaderSeesHostsOnlyWhenTheTurnIsOver) {
  open();
  HostReader reads = reader();
  input->hostIs(host(1));
  EXPECT_EQ(reads.find(key(1)), host(1));
  inHandler([&] {
    input->hostIs(host(2));
    input->hostDel(key(1));
    inHandler([&] { input->hostIs(host(3)); });
    EXPECT_TRUE(reads.find(key(1)));
    EXPECT_FALSE(reads.find(key(2)));
    EXPECT_FALSE(reads.find(key(3)));
  });
  EXPECT_FALSE(reads.find(key(1)));
  EXPECT_EQ(reads.find(key(2)), host(2));
  EXPECT_EQ(reads.find(key(3)), host(3));
}

// A turn in which everything is deleted and written again makes nothing flicker for a reader.
TEST_F(HostInputTest, DeletedAndWrittenAgainInOneTurnNothingFlickers) {
  open();
  constexpr std::uint64_t all = 200;
  for (std::uint64_t number = 1; number <= all; ++number) {
    input->hostIs(host(number));
  }
  HostReader reads = reader();
  const auto whole = [&] {
    std::uint64_t there = 0;
    for (std::uint64_t number = 1; number <= all; ++number) {
      there += reads.find(key(number)) == host(number) ? 1U : 0U;
    }
    return there;
  };
  inHandler([&] {
    for (std::uint64_t number = 1; number <= all; ++number) {
      input->hostDel(key(number));
    }
    EXPECT_EQ(whole(), all);
    for (std::uint64_t number = 1; number <= all; ++number) {
      input->hostIs(host(number));
    }
    EXPECT_EQ(whole(), all);
  });
  EXPECT_EQ(whole(), all);
}

// Another process sees each host whole.
TEST_F(HostInputTest, AnotherProcessSeesWholeHosts) {
  open();
  for (std::uint64_t number = 1; number <= 50; ++number) {
    input->hostIs(host(number));
  }
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    HostReader reads = reader();
    bool right = reads.size() == 50;
    for (std::uint64_t number = 1; number <= 50; ++number) {
      right = right && reads.find(key(number)) == host(number);
    }
    ::_exit(right ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

// Hosts that an earlier writer left are there from the start.
TEST_F(HostInputTest, HostsOfAnEarlierWriterAreThereFromTheStart) {
  open();
  input->hostIs(host(1));
  input->hostIs(host(2));
  input = nullptr;
  open();
  EXPECT_EQ(input->hosts(), 2U);
  EXPECT_EQ(input->host(key(2)), host(2));
}

// A writer that goes in the middle of a turn publishes what it had written.
TEST_F(HostInputTest, AWriterThatGoesPublishesWhatItHadWritten) {
  open();
  HostReader reads = reader();
  inHandler([&] {
    input->hostIs(host(1));
    EXPECT_FALSE(reads.find(key(1)));
    input = nullptr;
    EXPECT_TRUE(reads.find(key(1)));
  });
}

// When there is no room the error says so, and what is there stays.
TEST_F(HostInputTest, WhenThereIsNoRoomWhatIsThereStays) {
  open(4);
  for (std::uint64_t number = 1; number <= 4; ++number) {
    input->hostIs(host(number));
  }
  EXPECT_THROW(input->hostIs(host(5)), Memtab::Full);
  EXPECT_EQ(input->hosts(), 4U);
  EXPECT_FALSE(input->hasHost(key(5)));
  input->hostIs(host(4));
  input->hostDel(key(1));
  input->hostIs(host(5));
  EXPECT_TRUE(input->hasHost(key(5)));
}

// The slots of removed hosts are swept when their turn is over, so many as are asked for.
TEST_F(HostInputTest, SlotsOfRemovedHostsAreSwept) {
  open();
  inHandler([&] {
    for (std::uint64_t number = 1; number <= 10; ++number) {
      input->hostIs(host(number));
    }
  });
  inHandler([&] {
    for (std::uint64_t number = 1; number <= 10; ++number) {
      input->hostDel(key(number));
    }
    EXPECT_EQ(input->sweep(100), 10U) << "readers still see them";
  });
  EXPECT_EQ(input->sweep(4), 6U);
  EXPECT_EQ(input->sweep(0), 6U);
  EXPECT_EQ(input->sweep(100), 0U);
}

// A table of an explicit seed has the same walk order in each run; without one the order is its own.
TEST_F(HostInputTest, TheWalkOrderIsTheSeeds) {
  const auto orderWith = [&](std::optional<std::uint64_t> seed) {
    input = nullptr;
    Memtab::remove(name);
    input = Kel::make<HostInput>(HostInput::Options{.name = name, .limit = 1024, .seed = seed});
    for (std::uint64_t number = 1; number <= 100; ++number) {
      input->hostIs(host(number));
    }
    return walked();
  };
  EXPECT_EQ(orderWith(7), orderWith(7));
  EXPECT_NE(orderWith(7), orderWith(8));
  EXPECT_NE(orderWith({}), orderWith({}));
}

// Each change of a host is signalled with its key; deleting an absent one is none.
TEST_F(HostInputTest, EachChangeIsSignalled) {
  struct Changes final : Kel::Follows<HostInput> {
    void onHost(Bridging::MacVlanPair changed) override { keys.push_back(changed); }
    std::vector<Bridging::MacVlanPair> keys;
  };
  open();
  const auto changes = Kel::make<Changes>();
  changes->notifierIs(input);
  input->hostIs(host(1));
  input->hostIs(host(2));
  input->hostDel(key(9));
  input->hostDel(key(1));
  EXPECT_EQ(changes->keys, (std::vector{key(1), key(2), key(1)}));
  changes->notifierIs(nullptr);
}

// A table of other records under the name is refused, and stays as it is.
TEST_F(HostInputTest, ATableOfOtherRecordsIsRefused) {
  {
    Memtab::Options options;
    options.name = name;
    options.schema = "Other/1";
    Memtab::Writer<std::uint64_t, std::uint64_t> other(options);
    other.is(1, 2);
    other.publish();
  }
  EXPECT_THROW(open(), Memtab::Error);
  Memtab::Reader<std::uint64_t, std::uint64_t> reads(name, "Other/1");
  EXPECT_EQ(reads.find(1), 2U);
}

// A damaged table is refused, or, where that is asked for, replaced once its hosts are written again.
TEST_F(HostInputTest, ADamagedTableIsReplacedWhenItsHostsAreWrittenAgain) {
  open();
  input->hostIs(host(1));
  input = nullptr;
  HostReader reads = reader();
  ASSERT_EQ(reads.find(key(1)), host(1));
  std::fstream file("/dev/shm" + name, std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(24).put('x');  // in the header
  file.close();

  EXPECT_THROW(open(), Memtab::Damaged);
  input = Kel::make<HostInput>(HostInput::Options{.name = name, .limit = 1024, .replaceDamaged = true});
  EXPECT_THAT(input->damage(), testing::HasSubstr("checksum"));
  EXPECT_TRUE(input->replacing());
  EXPECT_EQ(input->hosts(), 0U);
  input->hostIs(host(2));
  EXPECT_EQ(reads.find(key(1)), host(1)) << "readers keep what they have";
  input->takePlace();
  EXPECT_FALSE(input->replacing());
  EXPECT_EQ(reads.find(key(2)), host(2));
  EXPECT_FALSE(reads.find(key(1)));
}

// The table of another user is refused unless he is named.
TEST_F(HostInputTest, TheTableOfAnotherUserIsRefusedUnlessHeIsNamed) {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "only root can give a file away";
  }
  open();
  input = nullptr;
  ASSERT_EQ(::chown(("/dev/shm" + name).c_str(), 65533, 65533), 0);
  EXPECT_THROW(open(), Memtab::Error);
  input = Kel::make<HostInput>(HostInput::Options{.name = name, .limit = 1024, .owner = uid_t{65533}});
  EXPECT_EQ(input->hosts(), 0U);
}

// Without a name the hosts are in memory of this process alone.
TEST_F(HostInputTest, WithoutANameTheHostsArePrivate) {
  const auto first = Kel::make<HostInput>(HostInput::Options{});
  const auto second = Kel::make<HostInput>(HostInput::Options{});
  first->hostIs(host(1));
  EXPECT_EQ(second->hosts(), 0U);
}

// A host prints what a reader of a log wants to know.
TEST_F(HostInputTest, AHostPrintsItself) {
  EXPECT_EQ(text(host(5)), "00:00:00:00:00:05:10 on Vxlan5 behind 0.0.0.5, moves 5");
}

}  // namespace

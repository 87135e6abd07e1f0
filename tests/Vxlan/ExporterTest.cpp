// The export of received hosts to the layer-2 RIB, alone and below the client.
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <optional>

#include "Memtab/Reader.h"
#include "Memtab/Segment.h"
#include "Scenario.h"

namespace {

using namespace scenario;

using HostReader = Memtab::Reader<Bridging::MacVlanPair, L2Rib::HostValue>;

// The keys that the host input reports as changed, in order.
struct Changes final : Kel::Follows<L2Rib::HostInput> {
  void onHost(Bridging::MacVlanPair changed) override {
    keys.push_back(changed);
    if (then) {
      then();
    }
  }
  std::vector<Bridging::MacVlanPair> keys;
  std::function<void()> then;
};

class ExporterTest : public Scenario {
 protected:
  ~ExporterTest() override {
    if (changes) {
      changes->notifierIs(nullptr);
    }
  }
  void startExporter() {
    const Ptr<const Vxlan::ReceivedHostTable> from = table;
    exporter = Vxlan::receivedHostTableToL2RibHostInputSmFactory(from, handles.l2RibRmxInput);
  }
  void follow() {
    changes = Kel::make<Changes>();
    changes->notifierIs(handles.l2RibRmxInput);
  }
  static Vxlan::ReceivedEntry entry(std::uint64_t number) {
    Vxlan::ReceivedEntry fresh;
    fresh.key = key(number, 10);
    fresh.intf = vti("Vxlan1");
    fresh.entryType = Vxlan::EntryType::Controller;
    fresh.vtepIp = ip("10.0.0.9");
    fresh.moveCount = 7;
    fresh.lastUpdateTime = 55.5;
    fresh.hostAttr = static_cast<VxlanController::HostAttr>(200);
    return fresh;
  }
  static L2Rib::Host leftOver(std::uint64_t number) {
    L2Rib::Host host;
    host.key = key(number, 10);
    return host;
  }

  Ptr<Vxlan::ReceivedHostTable> table = Kel::make<Vxlan::ReceivedHostTable>(Name("hostTable"));
  Ptr<Vxlan::ReceivedHostTableToL2RibHostInputSm> exporter;
  Ptr<Changes> changes;
};

// Every field of the host says what the entry says, or keeps its default.
TEST_F(ExporterTest, EveryFieldIsAsItShouldBe) {
  startExporter();
  table->receivedEntryIs(entry(1));
  const auto host = handles.l2RibRmxInput->findHost(key(1, 10));
  ASSERT_TRUE(host);
  EXPECT_EQ(host->key, key(1, 10));
  EXPECT_EQ(host->moveCount, 7U);
  EXPECT_EQ(static_cast<std::uint32_t>(host->hostAttr), 200U);
  EXPECT_EQ(static_cast<std::uint32_t>(host->learnAttr), 16U);
  EXPECT_EQ(host->lastUpdateTime, 55.5);
  EXPECT_EQ(static_cast<std::uint32_t>(host->entryType), 10U);
  EXPECT_EQ(host->sequence, 0U);
  EXPECT_EQ(host->flags, 0U);
  EXPECT_EQ(static_cast<std::uint32_t>(host->dest.destType()), 1U);
  EXPECT_EQ(host->dest.intf().text(), "Vxlan1");
  EXPECT_EQ(host->dest.vtepAddr(L2Rib::CiVtepIndex::First), Qnet::IpGenAddr(ip("10.0.0.9")));
  EXPECT_EQ(host->dest.vtepAddr(L2Rib::CiVtepIndex::Second), Qnet::IpGenAddr());
}

// What the host input held without an entry goes before the first host is written.
TEST_F(ExporterTest, HostsWithoutAnEntryGoBeforeTheUpdates) {
  for (const std::uint64_t number : {1U, 2U, 3U}) {
    handles.l2RibRmxInput->hostIs(leftOver(number));
  }
  table->receivedEntryIs(entry(2));
  table->receivedEntryIs(entry(4));
  follow();
  startExporter();
  EXPECT_EQ(exported(),
            "02:00:00:00:00:02:10 Vxlan1 10.0.0.9 moves 7\n"
            "02:00:00:00:00:04:10 Vxlan1 10.0.0.9 moves 7\n");
  ASSERT_EQ(changes->keys.size(), 4U);
  EXPECT_THAT(std::vector(changes->keys.begin(), changes->keys.begin() + 2),
              testing::UnorderedElementsAre(key(1, 10), key(3, 10)));
}

// An entry that is marked for deletion keeps its host until it goes itself.
TEST_F(ExporterTest, AMarkedEntryKeepsItsHost) {
  startExporter();
  auto marked = entry(1);
  marked.markedForDel = true;
  table->receivedEntryIs(marked);
  EXPECT_EQ(exported(), "02:00:00:00:00:01:10 Vxlan1 10.0.0.9 moves 7\n");
  table->receivedEntryDel(key(1, 10));
  EXPECT_EQ(exported(), "");
}

// Each change of an entry is copied; all entries that go at once take all hosts along.
TEST_F(ExporterTest, ChangesAreCopied) {
  startExporter();
  table->receivedEntryIs(entry(1));
  table->receivedEntryIs(entry(2));
  auto moved = entry(1);
  moved.vtepIp = ip("10.0.0.8");
  moved.moveCount = 8;
  table->receivedEntryIs(moved);
  EXPECT_EQ(exported(),
            "02:00:00:00:00:01:10 Vxlan1 10.0.0.8 moves 8\n"
            "02:00:00:00:00:02:10 Vxlan1 10.0.0.9 moves 7\n");
  table->receivedEntryDelAll();
  EXPECT_EQ(exported(), "");
}

// An entry that equals the default is absent: it is not exported, and it takes a host of its key away.
TEST_F(ExporterTest, AnEntryEqualToTheDefaultIsAbsent) {
  startExporter();
  auto host = leftOver(0);
  host.key = Bridging::MacVlanPair();
  host.moveCount = 1;
  handles.l2RibRmxInput->hostIs(host);
  table->receivedEntryIs(Vxlan::ReceivedEntry());
  EXPECT_EQ(exported(), "");
}

// A host that equals the default is empty and is no host to the first pass.
TEST_F(ExporterTest, AnEmptyHostIsPassedOver) {
  handles.l2RibRmxInput->hostIs(L2Rib::Host());
  handles.l2RibRmxInput->hostIs(leftOver(1));
  startExporter();
  EXPECT_TRUE(handles.l2RibRmxInput->hasHost(Bridging::MacVlanPair()));
  EXPECT_EQ(handles.l2RibRmxInput->hosts(), 1U);
}

// A table that is emptied is reconciled at once, before the handler that emptied it ends.
TEST_F(ExporterTest, ATableThatIsEmptiedIsReconciledAtOnce) {
  startExporter();
  table->receivedEntryIs(entry(1));
  Kel::ActivityLoop::instance().asHandler([&] {
    table->receivedEntryDelAll();
    EXPECT_EQ(exported(), "");
  });
}

// Deleting a key that is in neither table is harmless; asking for one again writes an equal host.
TEST_F(ExporterTest, DeletingTheUnknownAndWritingTheEqualAreHarmless) {
  startExporter();
  exporter->handleReceivedHostEntry(key(9, 10));
  table->receivedEntryIs(entry(1));
  exporter->handleReceivedHostEntry(key(1, 10));
  exporter->handleReceivedHostEntry();
  EXPECT_EQ(exported(), "02:00:00:00:00:01:10 Vxlan1 10.0.0.9 moves 7\n");
}

// It reconciles once: initializing again does nothing, not even to a host that came by another way.
TEST_F(ExporterTest, InitializingAgainDoesNothing) {
  startExporter();
  EXPECT_TRUE(exporter->initialized());
  handles.l2RibRmxInput->hostIs(leftOver(5));
  exporter->handleInitialized();
  EXPECT_TRUE(handles.l2RibRmxInput->hasHost(key(5, 10)));
  exporter->handleReceivedHostEntry();
  EXPECT_FALSE(handles.l2RibRmxInput->hasHost(key(5, 10)));
}

// Without a table, or without a host input, nothing is done.
TEST_F(ExporterTest, WithoutATableOrAHostInputNothingIsDone) {
  handles.l2RibRmxInput->hostIs(leftOver(1));
  const Ptr<const Vxlan::ReceivedHostTable> from = table;
  const auto noTable = Vxlan::receivedHostTableToL2RibHostInputSmFactory(nullptr, handles.l2RibRmxInput);
  noTable->handleReceivedHostEntry();
  noTable->handleReceivedHostEntry(key(1, 10));
  EXPECT_TRUE(handles.l2RibRmxInput->hasHost(key(1, 10)));
  const auto noInput = Vxlan::receivedHostTableToL2RibHostInputSmFactory(from, nullptr);
  table->receivedEntryIs(entry(1));
  noInput->handleReceivedHostEntry();
  EXPECT_EQ(table->receivedEntrys(), 1U);
}

// Destroyed, it leaves the hosts where they are and hears nothing any more.
TEST_F(ExporterTest, DestroyedItLeavesTheHosts) {
  startExporter();
  table->receivedEntryIs(entry(1));
  exporter = nullptr;
  table->receivedEntryDel(key(1, 10));
  EXPECT_TRUE(handles.l2RibRmxInput->hasHost(key(1, 10)));
  EXPECT_EQ(table->reactors(), 0U);
}

// A host input in shared memory, read under its name as another process would.
class SharedExporterTest : public Scenario {
 protected:
  SharedExporterTest() {
    Memtab::remove(name);
    handles.l2RibRmxInput =
        Kel::make<L2Rib::HostInput>(L2Rib::HostInput::Options{.name = name, .limit = 4096});
    reader.emplace(name, L2Rib::hostSchema);
    givenVti("Vxlan1");
    mapVlan("Vxlan1", 10, 10010);
  }
  ~SharedExporterTest() override {
    stop();
    handles.l2RibRmxInput = nullptr;
    Memtab::remove(name);
  }
  // How many of the hosts 1 to `count` a reader finds now, each with the VTEP of the controller.
  std::uint64_t found(std::uint64_t count) {
    std::uint64_t there = 0;
    for (std::uint64_t number = 1; number <= count; ++number) {
      const auto host = reader->find(key(number, 10));
      if (host && host->dest.vtepAddr(L2Rib::CiVtepIndex::First).v4() == ip("10.0.0.9")) {
        ++there;
      }
    }
    return there;
  }

  const std::string name = "/vcc-exporter-test-" + std::to_string(::getpid());
  std::optional<HostReader> reader;
};

// A reader sees what the controller publishes, each host whole, when the turn that wrote it is over.
TEST_F(SharedExporterTest, AReaderSeesWholeHostsWhenTheTurnIsOver) {
  start();
  Kel::ActivityLoop::instance().asHandler([&] {
    publish(10010, 1);
    EXPECT_EQ(reader->size(), 0U);
  });
  ASSERT_EQ(reader->size(), 1U);
  const auto host = reader->find(key(1, 10));
  ASSERT_TRUE(host);
  EXPECT_EQ(host->dest.intf().text(), "Vxlan1");
  EXPECT_EQ(host->lastUpdateTime, 100.0);
  EXPECT_EQ(static_cast<std::uint32_t>(host->entryType), 10U);
  withdraw(10010, 1);
  EXPECT_FALSE(reader->find(key(1, 10)));
}

// Another client over the same table begins with nothing and writes every host again; to a
// reader no host that is there before and after is missing at any moment, and what is gone meanwhile goes.
TEST_F(SharedExporterTest, NoHostFlickersWhileTheClientIsBuiltAnew) {
  constexpr std::uint64_t all = 300;
  for (std::uint64_t number = 1; number <= all; ++number) {
    publish(10010, number);
  }
  start();
  ASSERT_EQ(found(all), all);
  stop();
  EXPECT_EQ(found(all), all) << "the hosts outlive the client";
  vniStatus(10010)->macVtepTableDel(mac(all));

  const auto changes = Kel::make<Changes>();
  std::uint64_t fewest = all;
  changes->notifierIs(handles.l2RibRmxInput);
  changes->then = [&] { fewest = std::min(fewest, found(all - 1)); };
  start();
  EXPECT_GE(changes->keys.size(), 2 * all - 1) << "deleted and written again";
  EXPECT_EQ(fewest, all - 1);
  EXPECT_EQ(found(all), all - 1);
  changes->notifierIs(nullptr);
}

// What an earlier process left in the table is there when the next one adopts it; the client's first act
// removes what the controller does not publish.
TEST_F(SharedExporterTest, ATableThatIsAdoptedIsReconciled) {
  publish(10010, 1);
  publish(10010, 2);
  start();
  stop();
  handles.l2RibRmxInput = nullptr;
  withdraw(10010, 2);
  handles.l2RibRmxInput = Kel::make<L2Rib::HostInput>(L2Rib::HostInput::Options{.name = name, .limit = 4096});
  EXPECT_EQ(handles.l2RibRmxInput->hosts(), 2U);
  start();
  EXPECT_EQ(exported(), "02:00:00:00:00:01:10 Vxlan1 10.0.0.9 moves 1\n");
  EXPECT_EQ(found(2), 1U);
}

}  // namespace

#include <functional>

#include "EngineWorld.h"

// Somebody else who changes the same again and again: the engine does not race with him, and says so.
namespace Agent::Kernel::Test {
namespace {

class ContentionTest : public EngineTest {
 protected:
  void given() {
    kernel_.port("t0");
    ports_ = {"t0"};
    mapVlan10();
    engine().hostIs(10, host, vtepA);
    engine().hostIs(10, other, vtepB);
    engine().floodIs(10, all, FloodType::all, {vtepA, vtepB});
    engine().floodIs(10, mac("01:00:5e:00:00:05"), FloodType::any, {vtepA, vtepB});
    engine().initialSyncComplete();
    run();
    ASSERT_EQ(problems(), "");
  }
};

struct Deed {
  const char* name;
  std::function<void(FakeKernel&, IfIndex device, IfIndex bridge, IfIndex port)> does;
};

LinkSet link(IfIndex index) {
  return {.index = index};
}

const std::vector<Deed>& deeds() {
  static const std::vector<Deed> list{
      {"deletes a host's row in the device",
       [](FakeKernel& kernel, IfIndex device, IfIndex, IfIndex) {
         (void)kernel.apply(FdbDel{{Table::device, device, 0, host, {}, 0, false, false}});
       }},
      {"deletes a host's row in the bridge",
       [](FakeKernel& kernel, IfIndex, IfIndex bridge, IfIndex) { kernel.age(bridge, host); }},
      {"turns a host's row in the bridge to another port",
       [](FakeKernel& kernel, IfIndex, IfIndex bridge, IfIndex port) {
         (void)kernel.apply(
             FdbAdd{FdbAdd::How::replace, {Table::bridge, port, bridge, host, {}, 0, true, false}});
       }},
      {"turns a host's row to another group",
       [](FakeKernel& kernel, IfIndex device, IfIndex, IfIndex) {
         const auto others = kernel.deviceEntries().find({device, other});
         if (others != kernel.deviceEntries().end()) {
           const NexthopId nexthop = others->second.nexthop;
           (void)kernel.apply(
               FdbAdd{FdbAdd::How::replace, {Table::device, device, 0, host, {}, nexthop, true, false}});
         }
       }},
      {"deletes a flood destination",
       [](FakeKernel& kernel, IfIndex device, IfIndex, IfIndex) {
         (void)kernel.apply(FdbDel{{Table::device, device, 0, all, vtepB, 0, false, false}});
       }},
      {"deletes a flood row to a group",
       [](FakeKernel& kernel, IfIndex device, IfIndex, IfIndex) {
         const auto entry = kernel.deviceEntries().find({device, mac("01:00:5e:00:00:05")});
         if (entry != kernel.deviceEntries().end()) {
           const NexthopId nexthop = entry->second.nexthop;
           (void)kernel.apply(
               FdbDel{{Table::device, device, 0, mac("01:00:5e:00:00:05"), {}, nexthop, false, false}});
         }
       }},
      {"deletes all nexthops",
       [](FakeKernel& kernel, IfIndex, IfIndex, IfIndex) {
         while (!kernel.nexthops().empty()) {
           const NexthopId id = kernel.nexthops().begin()->first;
           (void)kernel.apply(NexthopDel{id});
         }
       }},
      {"changes where a nexthop leads",
       [](FakeKernel& kernel, IfIndex, IfIndex, IfIndex) {
         if (!kernel.nexthops().empty() && kernel.nexthops().begin()->second.members.empty()) {
           Nexthop nexthop = kernel.nexthops().begin()->second;
           nexthop.gateway = vtepC;
           (void)kernel.apply(NexthopSet{nexthop});
         }
       }},
      {"changes the members of a group",
       [](FakeKernel& kernel, IfIndex, IfIndex, IfIndex) {
         for (auto [id, nexthop] : std::map(kernel.nexthops())) {
           if (nexthop.members.size() > 1) {
             nexthop.members.pop_back();
             (void)kernel.apply(NexthopSet{nexthop});
           }
         }
       }},
      {"sets the device down",
       [](FakeKernel& kernel, IfIndex device, IfIndex, IfIndex) {
         LinkSet set = link(device);
         set.up = false;
         (void)kernel.apply(set);
       }},
      {"sets the bridge down",
       [](FakeKernel& kernel, IfIndex, IfIndex bridge, IfIndex) {
         LinkSet set = link(bridge);
         set.up = false;
         (void)kernel.apply(set);
       }},
      {"takes a port out of the bridge",
       [](FakeKernel& kernel, IfIndex, IfIndex, IfIndex port) {
         LinkSet set = link(port);
         set.master = 0;
         (void)kernel.apply(set);
       }},
      {"deletes the device",
       [](FakeKernel& kernel, IfIndex device, IfIndex, IfIndex) { kernel.deleteLink(device); }},
      {"deletes the bridge",
       [](FakeKernel& kernel, IfIndex, IfIndex bridge, IfIndex) { kernel.deleteLink(bridge); }},
  };
  return list;
}

TEST_F(ContentionTest, WhatAStrangerChangesAgainAndAgainIsPutBackMoreSlowlyAndSaidUntilItEnds) {
  for (const Deed& deed : deeds()) {
    SCOPED_TRACE(deed.name);
    kernel_ = FakeKernel();
    engine_.emplace(Options{});
    given();
    const std::string whole = kernel_.text();
    const auto indexOf = [this](const char* name) {
      const Link* link = kernel_.link(name);
      return link == nullptr ? IfIndex{9999} : link->index;
    };
    std::size_t least = 1000;
    std::uint64_t last = engine().counters().acknowledged;
    for (int minute = 0; minute < 5; ++minute) {
      for (int n = 0; n < 600; ++n) {
        deed.does(kernel_, indexOf("vx5010"), indexOf("vxb10"), indexOf("t0"));
        pass(milliseconds(100));
      }
      const std::uint64_t now = engine().counters().acknowledged;
      least = std::min<std::size_t>(least, now - last);
      last = now;
    }
    EXPECT_LT(least, 60U) << "in a minute";
    EXPECT_GT(least, 0U) << "it does not give up";
    EXPECT_THAT(problems(),
                HasSubstr("the kernel's tables: somebody else changes what this agent keeps there"));
    for (int n = 0; n < 10; ++n) {
      pass(seconds(31));
    }
    EXPECT_EQ(kernel_.text(), whole);
    EXPECT_EQ(problems(), "");
  }
}

TEST_F(ContentionTest, WhatIsDeletedOnceIsPutBackAtOnceHoweverMuchItIs) {
  mapVlan10();
  for (unsigned n = 0; n < 2000; ++n) {
    engine().hostIs(10, Mac{host.bits + n}, vtepA);
  }
  engine().initialSyncComplete();
  run();
  const std::string whole = kernel_.text();
  for (unsigned n = 0; n < 2000; ++n) {
    (void)kernel_.apply(FdbDel{deviceEntry(Mac{host.bits + n}, {})});
  }
  run();
  EXPECT_EQ(kernel_.text(), whole);
  EXPECT_EQ(problems(), "");
}

TEST_F(ContentionTest, AllThatIsChangedRepeatedlySharesOneAllowance) {
  mapVlan10();
  for (unsigned n = 0; n < 1000; ++n) {
    engine().hostIs(10, Mac{host.bits + n}, vtepA);
  }
  engine().initialSyncComplete();
  run();
  const std::uint64_t before = engine().counters().acknowledged;
  for (int second = 0; second < 30; ++second) {
    for (unsigned n = 0; n < 1000; ++n) {
      (void)kernel_.apply(FdbDel{deviceEntry(Mac{host.bits + n}, {})});
    }
    pass(seconds(1));
  }
  const std::uint64_t asked = engine().counters().acknowledged - before;
  EXPECT_LE(asked, 1000U + 256U + 30U * 64U);
  EXPECT_GE(asked, 1000U + 256U + 20U * 64U);
  EXPECT_THAT(problems(),
              MatchesRegex("the kernel's tables: .* at most 64 times a second; the last: VLAN 10 host "
                           "02:00:00:00:[0-9a-f:]*\n(.|\n)*"));
}

TEST_F(ContentionTest, WhatTheControllerSaysOfAContendedHostIsDoneAtOnce) {
  given();
  for (int n = 0; n < 300; ++n) {
    (void)kernel_.apply(FdbDel{deviceEntry(host, {})});
    pass(milliseconds(100));
  }
  ASSERT_EQ(kernel_.deviceEntries().count({index("vx5010"), host}), 0U);
  engine().hostIs(10, host, vtepC);
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 via 10.0.0.4\n"));
}

TEST_F(ContentionTest, WhatTheControllerSaysOfAContendedFloodSetIsDoneAtOnce) {
  given();
  for (int n = 0; n < 300; ++n) {
    (void)kernel_.apply(FdbDel{deviceEntry(all, vtepB)});
    pass(milliseconds(100));
  }
  engine().floodIs(10, all, FloodType::all, {vtepA, vtepB, vtepC});
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("00:00:00:00:00:00 dst 10.0.0.2 10.0.0.3 10.0.0.4"));
}

TEST_F(ContentionTest, ANewMappingOfContendedDevicesIsDoneAtOnce) {
  given();
  for (int n = 0; n < 300; ++n) {
    LinkSet set = link(index("vx5010"));
    set.up = false;
    (void)kernel_.apply(set);
    pass(milliseconds(100));
  }
  ASSERT_FALSE(kernel_.link("vx5010")->up);
  mapVlan10(5010, vtepC);
  run();
  EXPECT_TRUE(kernel_.link("vx5010")->up);
}

TEST_F(ContentionTest, ChangesThatAreMinutesApartAreNoContention) {
  given();
  const std::string whole = kernel_.text();
  for (int n = 0; n < 20; ++n) {
    (void)kernel_.apply(FdbDel{deviceEntry(host, {})});
    run();
    ASSERT_EQ(kernel_.text(), whole);
    pass(seconds(150));
  }
  EXPECT_EQ(problems(), "");
}

TEST_F(ContentionTest, TheControllersOwnChangesAreNoContention) {
  given();
  for (int n = 0; n < 200; ++n) {
    engine().hostIs(10, host, n % 2 == 0 ? vtepB : vtepC);
    engine().floodIs(10, all, n % 2 == 0 ? FloodType::any : FloodType::all, {vtepA, vtepB});
    mapVlan10(5010, n % 2 == 0 ? vtepC : local);
    run();
    ASSERT_EQ(problems(), "");
    ASSERT_EQ(tally("hosts").differing + tally("floods").differing + tally("devices").differing, 0U);
  }
}

}  // namespace
}  // namespace Agent::Kernel::Test

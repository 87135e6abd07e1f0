// The state entities: what they keep in step by themselves, and what they refuse.
#include "Refusal.h"
#include "Vxlan/types/BumStatus.h"
#include "Vxlan/types/Controller.h"
#include "Vxlan/types/FloodSet.h"
#include "Vxlan/types/Mlag.h"
#include "Vxlan/types/ReceivedHostTable.h"
#include "Vxlan/types/VlanVniMap.h"
#include "Vxlan/types/VtiStatus.h"

namespace {

using Bridging::VlanId;
using Vxlan::VniExt;

Qnet::EthAddr mac(std::uint64_t number) {
  return Qnet::EthAddr(number);
}
Qnet::IpAddr ip(std::uint32_t number) {
  return Qnet::IpAddr(number);
}

// What a map signals, in order: "vlan 10", and what it looked like then.
struct Signals final : Kel::Follows<Vxlan::VlanVniMap> {
  void onNotifyingVlan(VlanId vlan) override {
    heard.push_back(text(vlan) + " is " + text(notifier()->vlanToVsp(vlan)));
  }
  void onNotifyingVni(VniExt vni) override { heard.emplace_back("vni " + text(vni)); }
  void onNotifyingVlankelImmediate() override { heard.emplace_back("all"); }
  std::vector<std::string> heard;
};

class VlanVniMapTest : public testing::Test {
 protected:
  VlanVniMapTest() {
    signals->notifierIs(map);
    signals->heard.clear();
  }
  ~VlanVniMapTest() override { signals->notifierIs(nullptr); }

  // Both directions, such as "10>10010 10010>10".
  std::string both() const {
    std::string all;
    for (auto&& mapping : map->vlanToVsp()) {
      all += text(mapping.key) + '>' + text(mapping.value) + ' ';
    }
    std::map<VniExt, VlanId> sorted;
    for (auto&& mapping : map->vniToVlan()) {
      sorted[mapping.key] = mapping.value;
    }
    for (const auto& [vni, vlan] : sorted) {
      all += text(vni) + '>' + text(vlan) + ' ';
    }
    return all;
  }

  Kel::Ptr<Vxlan::VlanVniMap> map = Kel::make<Vxlan::VlanVniMap>();
  Kel::Ptr<Signals> signals = Kel::make<Signals>();
};

// A mapping is entered in both directions, and its VLAN is signalled once, when both are right.
TEST_F(VlanVniMapTest, AMappingIsEnteredInBothDirections) {
  map->mappingIs(VlanId(10U), VniExt(10010U));
  EXPECT_EQ(both(), "10>10010 10010>10 ");
  EXPECT_THAT(signals->heard, testing::ElementsAre("10 is 10010"));
  EXPECT_EQ(map->vniToVlan(VniExt(10010U)).value(), 10U);
  EXPECT_FALSE(map->vniToVlan(VniExt(10020U)));
  EXPECT_EQ(map->vlanToVsp(VlanId(20U)), Vxlan::VniSourcePair());
}

// A VLAN that gets another VNI leaves nothing of the old one behind.
TEST_F(VlanVniMapTest, AVlanThatGetsAnotherVniLeavesNothingBehind) {
  map->mappingIs(VlanId(10U), VniExt(10010U));
  map->mappingIs(VlanId(10U), VniExt(10020U));
  EXPECT_EQ(both(), "10>10020 10020>10 ");
  EXPECT_THAT(signals->heard, testing::ElementsAre("10 is 10010", "10 is 10020"));
}

// A mapping that goes leaves both directions; what is not mapped is no error and signals nothing.
TEST_F(VlanVniMapTest, AMappingThatGoesLeavesBothDirections) {
  map->mappingIs(VlanId(10U), VniExt(10010U));
  map->mappingIs(VlanId(20U), VniExt(10020U));
  map->mappingDel(VlanId(10U));
  map->mappingDel(VlanId(10U));
  EXPECT_EQ(both(), "20>10020 10020>20 ");
  EXPECT_THAT(signals->heard, testing::ElementsAre("10 is 10010", "20 is 10020", "10 is none"));
}

// A VNI that a second VLAN took is not taken from it when the first one goes.
TEST_F(VlanVniMapTest, AVniThatAnotherVlanTookStaysWithIt) {
  map->mappingIs(VlanId(10U), VniExt(10010U));
  map->mappingIs(VlanId(20U), VniExt(10010U));
  map->mappingDel(VlanId(10U));
  EXPECT_EQ(both(), "20>10010 10010>20 ");
}

// The empty pair is an entry without a VNI: there is nothing to find in the other direction.
TEST_F(VlanVniMapTest, TheEmptyPairHasNoOtherDirection) {
  map->mappingIs(VlanId(10U), VniExt(10010U));
  map->mappingIs(VlanId(10U), Vxlan::VniSourcePair());
  EXPECT_EQ(both(), "10>none ");
}

// A signal is heard each time, also twice in a row, and needs no change.
TEST_F(VlanVniMapTest, ASignalIsHeardEachTime) {
  map->notifyingVlanIs(VlanId(10U));
  map->notifyingVlanIs(VlanId(10U));
  map->notifyingVniIs(VniExt(10010U));
  map->notifyingVlanIs();
  EXPECT_THAT(signals->heard, testing::ElementsAre("10 is none", "10 is none", "vni 10010", "all"));
}

// Nulls are refused by the collections of entities, with the name of the attribute.
TEST(EntitiesTest, NullIsRefused) {
  EXPECT_EQ(refusal([] { Kel::make<Vxlan::VtiStatusDir>()->vtiStatusIs(nullptr); }),
            "null _vtiStatus parameter to mutator for Vxlan::VtiStatusDir::vtiStatus not allowed\"");
  EXPECT_EQ(refusal([] { Kel::make<Vxlan::VlanVniMaps>()->vlanVniMapIs(Qnet::IntfId("Vxlan1"), nullptr); }),
            "null _vlanVniMap parameter to mutator for Vxlan::VlanVniMaps::vlanVniMap not allowed\"");
  EXPECT_EQ(refusal([] {
              Kel::make<Vxlan::BumStatus>()->bumVtepListIs({mac(1), VlanId(1U)}, nullptr);
            }),
            "null _bumVtepList parameter to mutator for Vxlan::BumStatus::bumVtepList not allowed\"");
  EXPECT_EQ(
      refusal([] { Kel::make<VxlanController::VniFdbStatusV2>()->macVtepFloodListTableIs(mac(1), nullptr); }),
      "null _macVtepFloodListTable parameter to mutator for "
      "VxlanController::VniFdbStatusV2::macVtepFloodListTable not allowed\"");
}

// A published host that is absent reads as the default; its four fields all count.
TEST(EntitiesTest, AnAbsentHostReadsAsTheDefault) {
  const auto status = Kel::make<VxlanController::VniFdbStatusV2>();
  const VxlanController::MacVtepV2 absent = status->macVtepTable(mac(1));
  EXPECT_EQ(absent, VxlanController::MacVtepV2());
  EXPECT_EQ(absent.macAddr, Qnet::EthAddr());
  EXPECT_EQ(absent.vtepIp, Qnet::IpAddr());
  EXPECT_EQ(absent.moveCount, 0U);
  EXPECT_EQ(static_cast<unsigned>(absent.hostAttr), 16U);
  EXPECT_NE((VxlanController::MacVtepV2{mac(1), {}, 0, VxlanController::HostAttr::Dynamic}), absent);
  EXPECT_NE((VxlanController::MacVtepV2{{}, ip(1), 0, VxlanController::HostAttr::Dynamic}), absent);
  EXPECT_NE((VxlanController::MacVtepV2{{}, {}, 1, VxlanController::HostAttr::Dynamic}), absent);
  EXPECT_NE((VxlanController::MacVtepV2{{}, {}, 0, VxlanController::HostAttr::None}), absent);
  EXPECT_EQ(text(VxlanController::MacVtepV2{mac(1), ip(0x0a000009), 3, VxlanController::HostAttr::Dynamic}),
            "00:00:00:00:00:01 behind 10.0.0.9, moves 3, attribute 16");
}

// A multipath entry without a VTEP is as good as none.
TEST(EntitiesTest, AMultipathEntryWithoutAVtepIsNone) {
  const auto status = Kel::make<VxlanController::VniFdbStatusV2>();
  EXPECT_FALSE(status->hasMultiPath(mac(1)));
  EXPECT_EQ(status->macVtepMultiPathTable(mac(1)), (VxlanController::MacVtepMultiPathV2{mac(1), {}}));
  status->macVtepMultiPathTableIs({mac(1), {}});
  EXPECT_FALSE(status->hasMultiPath(mac(1)));
  status->macVtepMultiPathTableIs({mac(1), {{ip(0x0a000009), true}, {ip(0x0a00000a), false}}});
  EXPECT_TRUE(status->hasMultiPath(mac(1)));
  EXPECT_EQ(status->macVtepMultiPathTable(mac(1)).vtepIpLists(), 2U);
  EXPECT_EQ(text(status->macVtepMultiPathTable(mac(1))),
            "00:00:00:00:00:01 behind any of 10.0.0.9 10.0.0.10");
}

// A flood list address counts as published if its value is true, a BUM VTEP likewise.
TEST(EntitiesTest, AnAddressCountsIfItsValueIsTrue) {
  const auto flood = Kel::make<VxlanController::MacVtepFloodListV2>();
  flood->vtepIpFloodListIs(ip(1), false);
  EXPECT_FALSE(flood->vtepIpFloodList(ip(1)));
  EXPECT_FALSE(flood->vtepIpFloodList(ip(2)));
  flood->vtepIpFloodListIs(ip(1), true);
  EXPECT_TRUE(flood->vtepIpFloodList(ip(1)));
  const auto bum = Kel::make<Vxlan::BumVtepList>();
  bum->remoteVtepAddrIs(ip(1), false);
  EXPECT_FALSE(bum->remoteVtepAddr(ip(1)));
  bum->remoteVtepAddrIs(ip(1), true);
  EXPECT_TRUE(bum->remoteVtepAddr(ip(1)));
}

// Flood sets and BUM VTEP lists are made once under their key.
TEST(EntitiesTest, WhatIsMadeUnderAKeyIsMadeOnce) {
  const auto entry = Kel::make<L2Rib::SourceDirEntry>();
  const auto vlanSet = entry->vlanFloodSetIs(VlanId(10U));
  EXPECT_EQ(entry->vlanFloodSetIs(VlanId(10U)), vlanSet);
  EXPECT_EQ(vlanSet->floodSetIs(mac(1)), vlanSet->floodSetIs(mac(1)));
  EXPECT_EQ(vlanSet->floodSets(), 1U);
  const auto bum = Kel::make<Vxlan::BumStatus>();
  EXPECT_EQ(bum->bumVtepListIs({mac(1), VlanId(10U)}), bum->bumVtepListIs({mac(1), VlanId(10U)}));
}

// The destination that stands for a VTEP has an identity of all ones and carries the address.
TEST(EntitiesTest, ADestinationStandsForItsVtep) {
  const L2Rib::Dest dest = L2Rib::Dest::ofVtep(ip(0x0a000009));
  EXPECT_EQ(dest.id().value(), UINT64_MAX);
  EXPECT_EQ(dest.vxlan().vtepAddr().v4(), ip(0x0a000009));
  EXPECT_NE(dest, L2Rib::Dest::ofVtep(ip(0x0a00000a)));
}

// An entry of the received host table, with the default that counts as absent.
TEST(ReceivedHostTableTest, AnAbsentEntryReadsAsTheDefault) {
  const auto table = Kel::make<Vxlan::ReceivedHostTable>(Kel::Name("hostTable"));
  const Vxlan::ReceivedEntry absent = table->receivedEntry({mac(1), VlanId(10U)});
  EXPECT_EQ(absent, Vxlan::ReceivedEntry());
  EXPECT_TRUE(absent.intf.empty());
  EXPECT_EQ(static_cast<unsigned>(absent.hostAttr), 16U);
  EXPECT_EQ(absent.key, Bridging::MacVlanPair());
  EXPECT_EQ(absent.vtepIp, Qnet::IpAddr());
  EXPECT_EQ(absent.moveCount, 0U);
  EXPECT_EQ(absent.lastUpdateTime, 0);
  EXPECT_FALSE(absent.markedForDel);
}

// Its enumerations are one byte wide; any value of the controller's attribute is kept.
TEST(ReceivedHostTableTest, TheEnumerationsOfAnEntryAreOneByteWide) {
  static_assert(sizeof(Vxlan::EntryType) == 1 && sizeof(VxlanController::HostAttr) == 1);
  EXPECT_EQ(static_cast<unsigned>(Vxlan::EntryType::Controller), 10U);
  Vxlan::ReceivedEntry entry;
  entry.key = {mac(1), VlanId(10U)};
  entry.hostAttr = static_cast<VxlanController::HostAttr>(255);
  const auto table = Kel::make<Vxlan::ReceivedHostTable>(Kel::Name("hostTable"));
  table->receivedEntryIs(entry);
  EXPECT_EQ(static_cast<unsigned>(table->receivedEntry(entry.key).hostAttr), 255U);
}

class MarkedCountTest : public testing::Test {
 protected:
  void enter(std::uint64_t number) {
    Vxlan::ReceivedEntry entry;
    entry.key = {mac(number), VlanId(10U)};
    table->receivedEntryIs(entry);
  }
  Kel::Ptr<Vxlan::ReceivedHostTable> table = Kel::make<Vxlan::ReceivedHostTable>(Kel::Name("hostTable"));
};
using MarkedCountDeathTest = MarkedCountTest;

// The count of marked entries goes up and down, and to nothing with the entries.
TEST_F(MarkedCountTest, TheCountGoesUpAndDown) {
  enter(1);
  enter(2);
  table->markedForDelCountInc(2);
  table->markedForDelCountDec(1);
  EXPECT_EQ(table->markedForDelCount(), 1U);
  table->receivedEntryDelAll();
  EXPECT_EQ(table->markedForDelCount(), 0U);
  EXPECT_EQ(table->receivedEntrys(), 0U);
}

// More marked entries than there are entries: the program ends with the invariant's text.
TEST_F(MarkedCountDeathTest, ItNeverExceedsTheEntries) {
  EXPECT_DEATH(table->markedForDelCountInc(1),
               "assertion failed: markedForDelCount\\(\\) \\+ _markedForDelCount <= receivedEntrys\\(\\)");
  enter(1);
  table->markedForDelCountInc(1);
  EXPECT_DEATH(table->markedForDelCountInc(1),
               "assertion failed: markedForDelCount\\(\\) \\+ _markedForDelCount <= receivedEntrys\\(\\)");
}

// Not even when so many are counted at once that 32 bits would wrap around.
TEST_F(MarkedCountDeathTest, ItNeverWrapsAround) {
  enter(1);
  table->markedForDelCountInc(1);
  EXPECT_DEATH(table->markedForDelCountInc(UINT32_MAX),
               "assertion failed: markedForDelCount\\(\\) \\+ _markedForDelCount <= receivedEntrys\\(\\)");
}

// Nor does it fall below zero.
TEST_F(MarkedCountDeathTest, ItNeverFallsBelowZero) {
  EXPECT_DEATH(table->markedForDelCountDec(1), "assertion failed: markedForDelCount\\(\\)");
}

// Every entity names its type and lists its attributes.
TEST(EntitiesTest, EveryEntityListsItsAttributes) {
  const auto listed = [](const Kel::Entity& entity) {
    std::string all = std::string(entity.typeName()) + ':';
    Kel::Attributes list(
        [&](const char* name, const Kel::AttributeBase&) { all += std::string(" ") + name; });
    entity.attributes(list);
    return all;
  };
  EXPECT_EQ(listed(*Kel::make<Vxlan::VtiStatus>(Qnet::IntfId("Vxlan1"))),
            "Vxlan::VtiStatus: controllerClientMode datapathLearning localVtepAddr dgwVtepAddr");
  EXPECT_EQ(listed(*Kel::make<Vxlan::VtiStatusDir>()), "Vxlan::VtiStatusDir: vtiStatus");
  EXPECT_EQ(listed(*Kel::make<Vxlan::VlanVniMap>()),
            "Vxlan::VlanVniMap: vlanToVsp vniToVlan notifyingVlan notifyingVni");
  EXPECT_EQ(listed(*Kel::make<Vxlan::VlanVniMaps>()), "Vxlan::VlanVniMaps: vlanVniMap");
  EXPECT_EQ(listed(*Kel::make<Vxlan::BumStatus>()), "Vxlan::BumStatus: bumReplicationMode bumVtepList");
  EXPECT_EQ(listed(*Kel::make<Vxlan::BumVtepList>()), "Vxlan::BumVtepList: remoteVtepAddr bumVtepIpListType");
  EXPECT_EQ(listed(*Kel::make<Vxlan::VxlanHwStatusDir>()), "Vxlan::VxlanHwStatusDir: bumStatus");
  EXPECT_EQ(listed(*Kel::make<Vxlan::ReceivedHostTable>(Kel::Name("hostTable"))),
            "Vxlan::ReceivedHostTable: receivedEntry markedForDelCount");
  EXPECT_EQ(listed(*Kel::make<VxlanController::VniFdbStatusV2>()),
            "VxlanController::VniFdbStatusV2: macVtepTable macVtepFloodListTable macVtepMultiPathTable");
  EXPECT_EQ(listed(*Kel::make<Mlag::VxlanStatus>()), "Mlag::VxlanStatus: vtepAddr bumStatus");
  EXPECT_EQ(listed(*Kel::make<Mlag::Status>()), "Mlag::Status: mlagState");
}

}  // namespace

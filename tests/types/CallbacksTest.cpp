// What a reactor hears of each state entity: the callback that has the attribute's name, and no other; and
// what an entity reads as before anybody has written to it.
#include "Refusal.h"
#include "Vxlan/types/BumStatus.h"
#include "Vxlan/types/Controller.h"
#include "Vxlan/types/ConvergenceStatus.h"
#include "Vxlan/types/FloodSet.h"
#include "Vxlan/types/Mlag.h"
#include "Vxlan/types/ReceivedHostTable.h"
#include "Vxlan/types/VlanVniMap.h"
#include "Vxlan/types/VtiStatus.h"

namespace {

using Bridging::VlanId;
using testing::ElementsAre;
using Vxlan::VniExt;

const Qnet::EthAddr mac(std::uint64_t{0x020000000001});
const Qnet::IpAddr ip(0x0a000009);
const Qnet::IntfId vti("Vxlan1");
const VlanId vlan(10U);
const Bridging::MacVlanPair key{mac, vlan};

// Follows an entity of type E and writes down what it hears.
template <class E>
class Hears : public Kel::Follows<E> {
 public:
  std::vector<std::string> take() { return std::exchange(heard, {}); }

 protected:
  std::vector<std::string> heard;
};

// A listener that was bound silently.
template <class Listener>
Kel::Ptr<Listener> on(const Kel::Ptr<typename Listener::Followed>& entity) {
  auto listener = Kel::make<Listener>();
  listener->notifierIs(entity);
  listener->take();
  return listener;
}

// What it hears of a change inside a handler before that handler ends: what is called at once.
template <class Listener, class Change>
std::vector<std::string> atOnce(const Kel::Ptr<Listener>& listener, const Change& change) {
  return Kel::ActivityLoop::instance().asHandler([&] {
    listener->take();
    change();
    return listener->take();
  });
}

TEST(CallbacksTest, AVti) {
  struct Listener final : Hears<Vxlan::VtiStatus> {
    void onControllerClientMode() override { heard.emplace_back("controllerClientMode"); }
    void onDatapathLearning() override { heard.emplace_back("datapathLearning"); }
    void onLocalVtepAddr() override { heard.emplace_back("localVtepAddr"); }
    void onDgwVtepAddr() override { heard.emplace_back("dgwVtepAddr"); }
  };
  const auto status = Kel::make<Vxlan::VtiStatus>(vti);
  EXPECT_EQ(status->intfId(), vti);
  EXPECT_FALSE(status->controllerClientMode());
  EXPECT_FALSE(status->datapathLearning());
  EXPECT_EQ(status->localVtepAddr(), Qnet::IpAddr());
  EXPECT_EQ(status->dgwVtepAddr(), Qnet::IpAddr());
  const auto listener = on<Listener>(status);
  status->controllerClientModeIs(true);
  EXPECT_THAT(listener->take(), ElementsAre("controllerClientMode"));
  status->datapathLearningIs(true);
  EXPECT_THAT(listener->take(), ElementsAre("datapathLearning"));
  status->localVtepAddrIs(ip);
  EXPECT_THAT(listener->take(), ElementsAre("localVtepAddr"));
  status->dgwVtepAddrIs(ip);
  EXPECT_THAT(listener->take(), ElementsAre("dgwVtepAddr"));
}

TEST(CallbacksTest, TheDirectoryOfVtis) {
  struct Listener final : Hears<Vxlan::VtiStatusDir> {
    void onVtiStatus(Qnet::IntfId of) override { heard.push_back(of.text()); }
    void onVtiStatuskelImmediate() override { heard.emplace_back("all"); }
  };
  const auto dir = Kel::make<Vxlan::VtiStatusDir>();
  EXPECT_FALSE(dir->vtiStatus(vti));
  const auto listener = on<Listener>(dir);
  const auto status = Kel::make<Vxlan::VtiStatus>(vti);
  dir->vtiStatusIs(status);
  EXPECT_EQ(dir->vtiStatus(vti), status);
  dir->vtiStatusDel(vti);
  dir->vtiStatusIs(status);
  EXPECT_THAT(listener->take(), ElementsAre("Vxlan1", "Vxlan1", "Vxlan1"));
  EXPECT_THAT(atOnce(listener, [&] { dir->vtiStatusDelAll(); }), ElementsAre("all"));
  EXPECT_THAT(listener->take(), ElementsAre("Vxlan1"));
}

TEST(CallbacksTest, AMapOfVlansAndVnis) {
  struct Listener final : Hears<Vxlan::VlanVniMap> {
    void onVlanToVsp(VlanId of) override { heard.push_back("vlanToVsp " + text(of)); }
    void onVniToVlan(VniExt of) override { heard.push_back("vniToVlan " + text(of)); }
    void onNotifyingVlan(VlanId of) override { heard.push_back("notifyingVlan " + text(of)); }
    void onNotifyingVni(VniExt of) override { heard.push_back("notifyingVni " + text(of)); }
    void onNotifyingVlankelImmediate() override { heard.emplace_back("all"); }
  };
  const auto map = Kel::make<Vxlan::VlanVniMap>();
  const auto listener = on<Listener>(map);
  map->mappingIs(vlan, VniExt(10010U));
  EXPECT_THAT(listener->take(), ElementsAre("vlanToVsp 10", "vniToVlan 10010", "notifyingVlan 10"));
  map->mappingDel(vlan);
  EXPECT_THAT(listener->take(), ElementsAre("vniToVlan 10010", "vlanToVsp 10", "notifyingVlan 10"));
  map->notifyingVniIs(VniExt(10010U));
  EXPECT_THAT(listener->take(), ElementsAre("notifyingVni 10010"));
  EXPECT_THAT(atOnce(listener, [&] { map->notifyingVlanIs(); }), ElementsAre("all"));
}

TEST(CallbacksTest, TheMapsOfAllVtis) {
  struct Listener final : Hears<Vxlan::VlanVniMaps> {
    void onVlanVniMap(Qnet::IntfId of) override { heard.push_back(of.text()); }
    void onVlanVniMapkelImmediate() override { heard.emplace_back("all"); }
  };
  const auto maps = Kel::make<Vxlan::VlanVniMaps>();
  EXPECT_FALSE(maps->vlanVniMap(vti));
  const auto listener = on<Listener>(maps);
  maps->vlanVniMapIs(vti, Kel::make<Vxlan::VlanVniMap>());
  EXPECT_THAT(listener->take(), ElementsAre("Vxlan1"));
  EXPECT_THAT(atOnce(listener, [&] { maps->vlanVniMapDelAll(); }), ElementsAre("all"));
  EXPECT_THAT(listener->take(), ElementsAre("Vxlan1"));
}

TEST(CallbacksTest, TheBumStatus) {
  struct Listener final : Hears<Vxlan::BumStatus> {
    void onBumReplicationMode() override { heard.emplace_back("bumReplicationMode"); }
    void onBumVtepList(Vxlan::MacVlanPair of) override { heard.push_back("bumVtepList " + text(of)); }
    void onBumVtepListkelImmediate() override { heard.emplace_back("all"); }
  };
  const auto status = Kel::make<Vxlan::BumStatus>();
  EXPECT_EQ(static_cast<unsigned>(status->bumReplicationMode()), 0U);
  EXPECT_FALSE(status->bumVtepList(key));
  const auto listener = on<Listener>(status);
  status->bumReplicationModeIs(static_cast<Vxlan::BumReplicationMode>(3));
  EXPECT_EQ(status->bumReplicationMode(), Vxlan::BumReplicationMode::Controller);
  EXPECT_THAT(listener->take(), ElementsAre("bumReplicationMode"));
  status->bumVtepListIs(key);
  status->bumVtepListDel(key);
  status->bumVtepListIs(key);
  const std::string changed = "bumVtepList 02:00:00:00:00:01:10";
  EXPECT_THAT(listener->take(), ElementsAre(changed, changed, changed));
  EXPECT_THAT(atOnce(listener, [&] { status->bumVtepListDelAll(); }), ElementsAre("all"));
  EXPECT_THAT(listener->take(), ElementsAre(changed));
}

TEST(CallbacksTest, ABumVtepList) {
  struct Listener final : Hears<Vxlan::BumVtepList> {
    void onRemoteVtepAddr(Qnet::IpAddr of) override { heard.push_back(of.text()); }
    void onRemoteVtepAddrkelImmediate() override { heard.emplace_back("all"); }
    void onBumVtepIpListType() override { heard.emplace_back("bumVtepIpListType"); }
  };
  const auto list = Kel::make<Vxlan::BumVtepList>();
  const auto listener = on<Listener>(list);
  list->remoteVtepAddrIs(ip, true);
  EXPECT_THAT(listener->take(), ElementsAre("10.0.0.9"));
  EXPECT_THAT(atOnce(listener, [&] { list->remoteVtepAddrDelAll(); }), ElementsAre("all"));
  EXPECT_THAT(listener->take(), ElementsAre("10.0.0.9"));
  list->bumVtepIpListTypeIs(static_cast<Vxlan::BumVtepIpListType>(1));
  EXPECT_THAT(listener->take(), ElementsAre("bumVtepIpListType"));
}

TEST(CallbacksTest, TheStatusOfTheHardware) {
  struct Listener final : Hears<Vxlan::VxlanHwStatusDir> {
    void onBumStatus() override { heard.emplace_back("bumStatus"); }
  };
  const auto dir = Kel::make<Vxlan::VxlanHwStatusDir>();
  EXPECT_FALSE(dir->bumStatus());
  const auto listener = on<Listener>(dir);
  dir->bumStatusIs(Kel::make<Vxlan::BumStatus>());
  EXPECT_THAT(listener->take(), ElementsAre("bumStatus"));
}

TEST(CallbacksTest, TheReceivedHosts) {
  struct Listener final : Hears<Vxlan::ReceivedHostTable> {
    void onReceivedEntry(Bridging::MacVlanPair of) override { heard.push_back("receivedEntry " + text(of)); }
    void onReceivedEntrykelImmediate() override { heard.emplace_back("all"); }
    void onMarkedForDelCount() override { heard.emplace_back("markedForDelCount"); }
  };
  const auto table = Kel::make<Vxlan::ReceivedHostTable>(Kel::Name("hostTable"));
  EXPECT_EQ(table->name(), Kel::Name("hostTable"));
  EXPECT_EQ(table->markedForDelCount(), 0U);
  const auto listener = on<Listener>(table);
  Vxlan::ReceivedEntry entry;
  entry.key = key;
  table->receivedEntryIs(entry);
  EXPECT_THAT(listener->take(), ElementsAre("receivedEntry 02:00:00:00:00:01:10"));
  table->markedForDelCountInc(1);
  EXPECT_THAT(listener->take(), ElementsAre("markedForDelCount"));
  EXPECT_THAT(atOnce(listener, [&] { table->receivedEntryDelAll(); }), ElementsAre("all"));
  EXPECT_THAT(listener->take(), ElementsAre("receivedEntry 02:00:00:00:00:01:10", "markedForDelCount"));
}

TEST(CallbacksTest, TheStatusOfAVni) {
  struct Listener final : Hears<VxlanController::VniFdbStatusV2> {
    void onMacVtepTable(Qnet::EthAddr) override { heard.emplace_back("host"); }
    void onMacVtepTablekelImmediate() override { heard.emplace_back("all hosts"); }
    void onMacVtepFloodListTable(Qnet::EthAddr) override { heard.emplace_back("floodList"); }
    void onMacVtepFloodListTable() override { heard.emplace_back("all floodLists"); }
    void onMacVtepMultiPathTable(Qnet::EthAddr) override { heard.emplace_back("multiPath"); }
    void onMacVtepMultiPathTable() override { heard.emplace_back("all multiPaths"); }
  };
  const auto status = Kel::make<VxlanController::VniFdbStatusV2>();
  const auto listener = on<Listener>(status);
  status->macVtepTableIs({mac, ip, 1, VxlanController::HostAttr::Dynamic});
  EXPECT_THAT(listener->take(), ElementsAre("host"));
  EXPECT_THAT(atOnce(listener, [&] { status->macVtepTableDelAll(); }), ElementsAre("all hosts"));
  EXPECT_THAT(listener->take(), ElementsAre("host"));
  status->macVtepFloodListTableIs(mac, Kel::make<VxlanController::MacVtepFloodListV2>());
  status->macVtepFloodListTableDelAll();
  EXPECT_THAT(listener->take(), ElementsAre("floodList", "all floodLists", "floodList"));
  status->macVtepMultiPathTableIs({mac, {{ip, true}}});
  status->macVtepMultiPathTableDelAll();
  EXPECT_THAT(listener->take(), ElementsAre("multiPath", "all multiPaths", "multiPath"));
}

TEST(CallbacksTest, AFloodList) {
  struct Listener final : Hears<VxlanController::MacVtepFloodListV2> {
    void onVtepIpFloodList(Qnet::IpAddr of) override { heard.push_back(of.text()); }
    void onVtepIpFloodList() override { heard.emplace_back("all"); }
  };
  const auto list = Kel::make<VxlanController::MacVtepFloodListV2>();
  const auto listener = on<Listener>(list);
  list->vtepIpFloodListIs(ip, true);
  list->vtepIpFloodListDelAll();
  EXPECT_THAT(listener->take(), ElementsAre("10.0.0.9", "all", "10.0.0.9"));
}

// The controller's state and the client's view of it, which has the same attribute.
template <class State>
void expectOneFlag() {
  struct Listener final : Hears<State> {
    void onConvergenceInProgress() override { this->heard.emplace_back("convergenceInProgress"); }
  };
  const auto state = Kel::make<State>();
  EXPECT_FALSE(state->convergenceInProgress());
  const auto listener = on<Listener>(state);
  state->convergenceInProgressIs(true);
  EXPECT_TRUE(state->convergenceInProgress());
  EXPECT_THAT(listener->take(), ElementsAre("convergenceInProgress"));
}
TEST(CallbacksTest, TheStateOfTheController) {
  expectOneFlag<VxlanController::RmxStateV2>();
}
TEST(CallbacksTest, TheClientsViewOfIt) {
  expectOneFlag<VxlanController::RmxStateClientViewV2>();
}

TEST(CallbacksTest, TheConvergenceOfTheClient) {
  struct Listener final : Hears<Vxlan::VxlanClientConvergenceStatus> {
    void onUnicastDeferredDeletionInProgress() override { heard.emplace_back("unicast"); }
    void onBumDeferredDeletionInProgress() override { heard.emplace_back("bum"); }
  };
  const auto status = Kel::make<Vxlan::VxlanClientConvergenceStatus>();
  EXPECT_FALSE(status->unicastDeferredDeletionInProgress());
  EXPECT_FALSE(status->bumDeferredDeletionInProgress());
  const auto listener = on<Listener>(status);
  status->unicastDeferredDeletionInProgressIs(true);
  EXPECT_THAT(listener->take(), ElementsAre("unicast"));
  EXPECT_FALSE(status->bumDeferredDeletionInProgress());
  status->bumDeferredDeletionInProgressIs(true);
  EXPECT_THAT(listener->take(), ElementsAre("bum"));
}

TEST(CallbacksTest, TheMlagPair) {
  struct StateListener final : Hears<Mlag::Status> {
    void onMlagState() override { heard.emplace_back("mlagState"); }
  };
  const auto state = Kel::make<Mlag::Status>();
  EXPECT_EQ(static_cast<unsigned>(state->mlagState()), 0U);
  const auto stateListener = on<StateListener>(state);
  state->mlagStateIs(static_cast<Mlag::MlagState>(4));
  EXPECT_EQ(state->mlagState(), Mlag::MlagState::Active);
  EXPECT_THAT(stateListener->take(), ElementsAre("mlagState"));

  struct Listener final : Hears<Mlag::VxlanStatus> {
    void onVtepAddr(Kel::Name of) override { heard.push_back("vtepAddr " + of.text()); }
    void onBumStatus() override { heard.emplace_back("bumStatus"); }
  };
  const auto status = Kel::make<Mlag::VxlanStatus>();
  EXPECT_FALSE(status->bumStatus());
  const auto listener = on<Listener>(status);
  status->vtepAddrIs(Kel::Name("shared"), ip);
  EXPECT_EQ(status->vtepAddr(Kel::Name("shared")), ip);
  status->vtepAddrDel(Kel::Name("shared"));
  EXPECT_EQ(status->vtepAddr(Kel::Name("shared")), Qnet::IpAddr());
  EXPECT_THAT(listener->take(), ElementsAre("vtepAddr shared", "vtepAddr shared"));
  status->vtepAddrIs(Kel::Name("shared"), ip);
  status->vtepAddrIs(Kel::Name("peer"), ip);
  listener->take();
  status->vtepAddrDelAll();
  EXPECT_THAT(listener->take(), ElementsAre("vtepAddr peer", "vtepAddr shared"));
  status->bumStatusIs(Kel::make<Vxlan::BumStatus>());
  EXPECT_THAT(listener->take(), ElementsAre("bumStatus"));
}

TEST(CallbacksTest, TheFloodSets) {
  struct SetListener final : Hears<L2Rib::FloodSet> {
    void onFloodSetType() override { heard.emplace_back("floodSetType"); }
    void onDestSet() override { heard.emplace_back("destSet"); }
  };
  struct VlanListener final : Hears<L2Rib::VlanFloodSet> {
    void onFloodSet(Qnet::EthAddr of) override { heard.push_back(of.text()); }
  };
  struct EntryListener final : Hears<L2Rib::SourceDirEntry> {
    void onVlanFloodSet(VlanId of) override { heard.push_back(text(of)); }
    void onVlanFloodSetkelImmediate() override { heard.emplace_back("all"); }
  };
  const auto entry = Kel::make<L2Rib::SourceDirEntry>();
  EXPECT_FALSE(entry->vlanFloodSet(vlan));
  const auto entryListener = on<EntryListener>(entry);
  const auto vlanSet = entry->vlanFloodSetIs(vlan);
  EXPECT_FALSE(vlanSet->floodSet(mac));
  const auto vlanListener = on<VlanListener>(vlanSet);
  const auto set = vlanSet->floodSetIs(mac);
  EXPECT_EQ(static_cast<unsigned>(set->floodSetType()), 0U);
  const auto listener = on<SetListener>(set);
  set->floodSetTypeIs(static_cast<L2Rib::FloodSetType>(1));
  EXPECT_THAT(listener->take(), ElementsAre("floodSetType"));
  const L2Rib::Dest dest = L2Rib::Dest::ofVtep(ip);
  EXPECT_FALSE(set->hasDest(dest));
  set->destSetIs(dest, true);
  EXPECT_TRUE(set->hasDest(dest));
  set->destSetDel(dest);
  EXPECT_THAT(listener->take(), ElementsAre("destSet", "destSet"));
  set->destSetIs(dest, true);
  set->destSetDelAll();
  EXPECT_EQ(set->destSets(), 0U);
  vlanSet->floodSetDel(mac);
  EXPECT_THAT(vlanListener->take(), ElementsAre("02:00:00:00:00:01", "02:00:00:00:00:01"));
  vlanSet->floodSetIs(mac);
  vlanSet->floodSetDelAll();
  EXPECT_EQ(vlanSet->floodSets(), 0U);
  entry->vlanFloodSetDel(vlan);
  entry->vlanFloodSetIs(vlan);
  EXPECT_THAT(entryListener->take(), ElementsAre("10", "10", "10"));
  EXPECT_THAT(atOnce(entryListener, [&] { entry->vlanFloodSetDelAll(); }), ElementsAre("all"));
  EXPECT_THAT(entryListener->take(), ElementsAre("10"));
}

}  // namespace

// Random sequences of changes on every input, compared after each step with a plain statement of what must be
// received and exported then.
#include <array>
#include <map>
#include <random>

#include "Scenario.h"

namespace {

using namespace scenario;

constexpr std::array vtiNames{"Vxlan1", "Vxlan2"};
constexpr std::array localAddresses{"10.0.0.1", "10.0.0.2"};
constexpr std::array gatewayAddresses{"10.0.1.1", "10.0.1.2"};
constexpr const char* mlagAddressText = "10.0.2.1";
constexpr std::array vteps{"10.0.0.9", "10.0.0.8", "10.0.0.7", "10.0.0.1",
                           "10.0.0.2", "10.0.1.1", "10.0.1.2", "10.0.2.1"};
constexpr std::array<std::uint32_t, 3> vnis{10010, 10020, 10030};
constexpr std::uint64_t macs = 4;

// What a switch must have received, stated from its inputs alone. A host is there for every VTI that maps its
// VNI while the switch is a client whose data path does not learn, unless its VTEP is one of the switch's
// own.
struct Model {
  struct VtiModel {
    bool client = true;
    bool learning = false;
    std::size_t gateway = 0;
    std::map<std::uint32_t, std::uint32_t> vlanOfVni;
  };
  using Hosts = std::map<std::uint64_t, std::pair<std::string, std::uint32_t>>;  // by MAC: VTEP, moves

  std::array<VtiModel, 2> vtis;
  std::map<std::uint32_t, Hosts> published;  // by VNI, of instantiated entries
  bool stateThere = false;
  bool flag = false;

  bool client() const { return vtis[0].client || vtis[1].client; }
  bool learning() const { return vtis[0].learning && vtis[1].learning; }
  bool converging() const { return client() && stateThere && flag; }
  bool mapped(std::uint32_t number) const { return vtis[0].vlanOfVni.contains(number); }

  std::map<Bridging::MacVlanPair, std::string> expected() const {
    std::map<Bridging::MacVlanPair, std::string> all;
    for (const auto& [vniNumber, hosts] : published) {
      for (std::size_t at = 0; at < vtis.size(); ++at) {
        const auto vlanNumber = vtis[at].vlanOfVni.find(vniNumber);
        if (!client() || learning() || vlanNumber == vtis[at].vlanOfVni.end()) {
          continue;
        }
        for (const auto& [macNumber, host] : hosts) {
          const std::string& vtep = host.first;
          if (vtep != localAddresses[at] && vtep != gatewayAddresses[vtis[at].gateway] &&
              vtep != mlagAddressText) {
            all[key(macNumber, vlanNumber->second)] =
                std::string(vtiNames[at]) + ' ' + vtep + " moves " + std::to_string(host.second);
          }
        }
      }
    }
    return all;
  }
  bool taken(std::size_t at, std::uint32_t vlanNumber) const {
    for (const auto& [mappedVni, mappedVlan] : vtis[at].vlanOfVni) {
      if (mappedVlan == vlanNumber) {
        return true;
      }
    }
    return false;
  }
  std::string machines() const {
    std::string all;
    for (const auto& [number, hosts] : published) {
      all += client() && mapped(number) ? std::to_string(number) + ' ' : "";
    }
    return all;
  }
};

class RandomTest : public Scenario {
 protected:
  void begin(std::uint64_t seed) {
    random.seed(seed);
    model = Model();
    history.clear();
    client = nullptr;
    handles = Handles();
    handles.l2RibRmxInput = Kel::make<L2Rib::HostInput>(L2Rib::HostInput::Options{.name = "", .limit = 256});
    time.tickPerReadIs(0);
    mlagAddress("shared", mlagAddressText);
    for (std::size_t at = 0; at < vtiNames.size(); ++at) {
      enterVti(at);
      givenMap(vtiNames[at]);
    }
    start();
  }

  std::uint64_t pick(std::uint64_t below) { return random() % below; }
  std::uint32_t anyVni() { return vnis[pick(vnis.size())]; }
  void note(const std::string& what) { history += what + '\n'; }

  void enterVti(std::size_t at) {
    const Model::VtiModel& is = model.vtis[at];
    givenVti(vtiNames[at], {.client = is.client,
                            .learning = is.learning,
                            .local = localAddresses[at],
                            .gateway = gatewayAddresses[is.gateway]});
  }

  // The controller.
  void publishOne() {
    const std::uint32_t number = anyVni();
    const std::uint64_t macNumber = 1 + pick(macs);
    const char* vtep = vteps[pick(vteps.size())];
    const auto moves = static_cast<std::uint32_t>(1 + pick(3));
    note("publish " + std::to_string(number) + ' ' + std::to_string(macNumber) + ' ' + vtep);
    model.published[number][macNumber] = {vtep, moves};
    publish(number, macNumber, {.vtep = vtep, .moves = moves});
  }
  void withdrawOne() {
    const std::uint32_t number = anyVni();
    const std::uint64_t macNumber = 1 + pick(macs);
    if (const auto at = model.published.find(number); at != model.published.end()) {
      note("withdraw " + std::to_string(number) + ' ' + std::to_string(macNumber));
      at->second.erase(macNumber);
      withdraw(number, macNumber);
    }
  }
  void withdrawAllOfOne() {
    const std::uint32_t number = anyVni();
    if (const auto at = model.published.find(number); at != model.published.end()) {
      note("withdraw all of " + std::to_string(number));
      at->second.clear();
      vniStatus(number)->macVtepTableDelAll();
    }
  }
  void withdrawWholeVni() {
    const std::uint32_t number = anyVni();
    note("withdraw VNI " + std::to_string(number));
    model.published.erase(number);
    withdrawVni(number);
  }
  void announceOne() {
    const std::uint32_t number = anyVni();
    note("announce " + std::to_string(number));
    announceVni(number);
  }
  void replaceVni() {
    const std::uint32_t number = anyVni();
    note("replace " + std::to_string(number));
    const auto fresh = Kel::make<VxlanController::VniFdbStatusV2>();
    Model::Hosts hosts;
    for (std::uint64_t macNumber = 1; macNumber <= macs; ++macNumber) {
      if (pick(2) == 0) {
        hosts[macNumber] = {vteps[0], 5};
        fresh->macVtepTableIs({mac(macNumber), ip(vteps[0]), 5, VxlanController::HostAttr::Dynamic});
      }
    }
    model.published[number] = hosts;
    handles.controllerStatusBaseDir->entityPtrIs(Name(std::to_string(number)), fresh);
  }
  void converge() {
    model.flag = pick(2) == 0;
    model.stateThere = true;
    note(std::string("converge ") + (model.flag ? "true" : "false"));
    controllerConverges(model.flag);
  }
  void loseState() {
    note("the controller's state goes");
    model.stateThere = false;
    controllerStateGoes();
  }

  // The switch. All VTIs map the same VNIs, each to a VLAN of its own.
  static std::uint32_t vlanAt(std::size_t at, std::uint64_t offset) {
    return static_cast<std::uint32_t>(10 * (at + 1) + offset);
  }
  void mapOne() {
    const std::uint32_t number = anyVni();
    if (model.mapped(number)) {
      return;
    }
    note("map " + std::to_string(number));
    const std::size_t first = pick(2);
    for (const std::size_t at : {first, 1 - first}) {
      std::uint64_t offset = pick(3);
      while (model.taken(at, vlanAt(at, offset))) {
        offset = (offset + 1) % 3;
      }
      const std::uint32_t free = vlanAt(at, offset);
      model.vtis[at].vlanOfVni[number] = free;
      mapVlan(vtiNames[at], free, number);
    }
  }
  void unmapOne() {
    const std::uint32_t number = anyVni();
    if (!model.mapped(number)) {
      return;
    }
    note("unmap " + std::to_string(number));
    const std::size_t first = pick(2);
    for (const std::size_t at : {first, 1 - first}) {
      unmapVlan(vtiNames[at], model.vtis[at].vlanOfVni[number]);
      model.vtis[at].vlanOfVni.erase(number);
    }
  }
  void changeVti() {
    const std::size_t at = pick(2);
    Model::VtiModel& is = model.vtis[at];
    const auto status = vtiStatus(vtiNames[at]);
    switch (pick(4)) {
      case 0:
        is.client = pick(4) != 0;
        note(std::string(vtiNames[at]) + (is.client ? " client" : " no client"));
        status->controllerClientModeIs(is.client);
        break;
      case 1:
        is.learning = pick(3) == 0;
        note(std::string(vtiNames[at]) + (is.learning ? " learns" : " does not learn"));
        status->datapathLearningIs(is.learning);
        break;
      case 2:
        is.gateway = 1 - is.gateway;
        note(std::string(vtiNames[at]) + " other gateway");
        status->dgwVtepAddrIs(ip(gatewayAddresses[is.gateway]));
        break;
      default:
        is.gateway = pick(2);
        is.client = pick(4) != 0;
        note(std::string(vtiNames[at]) + " bounces");
        vtiGoes(vtiNames[at]);
        enterVti(at);
    }
  }
  void letTimePass() {
    time.tickPerReadIs(pick(2) == 0 ? 0 : 0.004);
    const std::uint64_t turns = 1 + pick(3);
    note("turns " + std::to_string(turns));
    for (std::uint64_t done = 0; done < turns; ++done) {
      turn();
    }
    time.tickPerReadIs(0);
  }

  void step() {
    using Step = void (RandomTest::*)();
    constexpr std::array<Step, 20> steps{
        &RandomTest::publishOne,  &RandomTest::publishOne,       &RandomTest::publishOne,
        &RandomTest::publishOne,  &RandomTest::withdrawOne,      &RandomTest::withdrawOne,
        &RandomTest::withdrawOne, &RandomTest::withdrawAllOfOne, &RandomTest::withdrawWholeVni,
        &RandomTest::announceOne, &RandomTest::replaceVni,       &RandomTest::converge,
        &RandomTest::converge,    &RandomTest::loseState,        &RandomTest::mapOne,
        &RandomTest::mapOne,      &RandomTest::mapOne,           &RandomTest::unmapOne,
        &RandomTest::changeVti,   &RandomTest::letTimePass};
    if (pick(60) == 0) {
      note("restart");
      restart();
      return;
    }
    (this->*steps[pick(steps.size())])();
  }

  // What must hold after every step, converging or not.
  void check() {
    const auto expected = model.expected();
    std::uint32_t marked = 0;
    std::size_t present = 0;
    for (auto&& entry : client->hostTable()->receivedEntry()) {
      marked += entry.value.markedForDel ? 1U : 0U;
      const auto wanted = expected.find(entry.key);
      if (wanted == expected.end()) {
        EXPECT_TRUE(entry.value.markedForDel) << entry.key << " is neither published nor waiting to go";
      } else {
        ++present;
        EXPECT_FALSE(entry.value.markedForDel) << entry.key << " is published";
        EXPECT_EQ(entry.value.intf.text() + ' ' + entry.value.vtepIp.text() + " moves " +
                      std::to_string(entry.value.moveCount),
                  wanted->second)
            << entry.key;
      }
    }
    EXPECT_EQ(present, expected.size()) << "a published host is missing";
    EXPECT_EQ(marked, client->hostTable()->markedForDelCount());
    if (marked != 0) {
      EXPECT_TRUE(model.converging() || handles.rmxConvergenceStatus->unicastDeferredDeletionInProgress());
    }
    EXPECT_EQ(handles.rmxStateClientView->convergenceInProgress(), model.converging());
    EXPECT_EQ(machines(), model.machines());
    checkExport();
  }
  void checkExport() {
    EXPECT_EQ(handles.l2RibRmxInput->hosts(), client->hostTable()->receivedEntrys());
    for (auto&& entry : client->hostTable()->receivedEntry()) {
      const auto host = handles.l2RibRmxInput->findHost(entry.key);
      ASSERT_TRUE(host) << entry.key << " is not exported";
      EXPECT_EQ(host->dest.intf().text(), entry.value.intf.text());
      EXPECT_EQ(host->dest.vtepAddr(L2Rib::CiVtepIndex::First).v4(), entry.value.vtepIp);
      EXPECT_EQ(host->moveCount, entry.value.moveCount);
      EXPECT_EQ(host->lastUpdateTime, entry.value.lastUpdateTime);
    }
  }
  // What must hold when the loop has come to rest and nobody converges: nothing waits to go.
  void checkAtRest() {
    turnsUntilIdle();
    if (!model.converging()) {
      EXPECT_EQ(client->hostTable()->markedForDelCount(), 0U);
      EXPECT_EQ(client->hostTable()->receivedEntrys(), model.expected().size());
      EXPECT_FALSE(handles.rmxConvergenceStatus->unicastDeferredDeletionInProgress());
      EXPECT_FALSE(handles.rmxConvergenceStatus->bumDeferredDeletionInProgress());
    }
  }

  std::mt19937_64 random;
  Model model;
  std::string history;
};

// Three thousand random lives of a switch, a hundred changes each.
TEST_F(RandomTest, WhatIsReceivedAndExportedFollowsFromTheInputs) {
  constexpr std::uint64_t seeds = 3000;
  constexpr int changes = 100;
  for (std::uint64_t seed = 1; seed <= seeds; ++seed) {
    begin(seed);
    for (int change = 0; change < changes && !HasFailure(); ++change) {
      step();
      check();
      if (change % 10 == 9) {
        checkAtRest();
      }
    }
    ASSERT_FALSE(HasFailure()) << "seed " << seed << " after\n" << history << state();
  }
  std::cout << "seeds 1 to " << seeds << ", " << changes << " changes each\n";
}

}  // namespace

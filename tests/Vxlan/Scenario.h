// The vocabulary of the state machines' tests: a switch whose every input a test can change, the client built
// over it, and one printable document of all that the client wrote.
#pragma once

#include <gmock/gmock.h>

#include <cstdint>
#include <initializer_list>
#include <limits>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Kel/System.h"
#include "Vxlan/VxlanControllerSm.h"

namespace scenario {

using Kel::Name;
using Kel::Ptr;
using Texts = std::initializer_list<std::string_view>;

// Values from numbers and texts; a text that is none of the kind fails the test at once.
inline Qnet::EthAddr mac(std::uint64_t number) {
  return Qnet::EthAddr(0x020000000000 | number);
}
inline Qnet::IpAddr ip(std::string_view text) {
  return Qnet::IpAddr::parse(text).value();
}
inline Qnet::IntfId vti(std::string_view text) {
  return Qnet::IntfId(text);
}
inline Bridging::VlanId vlan(std::uint32_t number) {
  return Bridging::VlanId(number);
}
inline Vxlan::VniExt vni(std::uint32_t number) {
  return Vxlan::VniExt(number);
}
inline Bridging::MacVlanPair key(std::uint64_t macNumber, std::uint32_t vlanNumber) {
  return {mac(macNumber), vlan(vlanNumber)};
}

// What a VTI is given as. By default it is a controller client whose data path does not learn.
struct Vti {
  bool client = true;
  bool learning = false;
  std::string_view local = "10.0.0.1";
  std::string_view gateway = "10.0.1.1";
};

// A host as the controller publishes it.
struct Host {
  std::string_view vtep = "10.0.0.9";
  std::uint32_t moves = 1;
  std::uint8_t attr = 16;
};

// The eleven handles of the client. A test that starts the client without one of them sets it to null first.
struct Handles {
  Ptr<Vxlan::VtiStatusDir> vtiStatusDir = Kel::make<Vxlan::VtiStatusDir>();
  Ptr<Kel::Dir> controllerStatusBaseDir = Kel::make<Kel::Dir>();
  Ptr<VxlanController::RmxStateClientViewV2> rmxStateClientView =
      Kel::make<VxlanController::RmxStateClientViewV2>();
  Ptr<Vxlan::VxlanHwStatusDir> vxlanHwStatusDir = Kel::make<Vxlan::VxlanHwStatusDir>();
  Ptr<Mlag::Status> mlagStatus = Kel::make<Mlag::Status>();
  Ptr<Mlag::VxlanStatus> mlagVxlanStatus = Kel::make<Mlag::VxlanStatus>();
  Ptr<Kel::Dir> rmxStateBaseDir = Kel::make<Kel::Dir>();
  Ptr<Vxlan::VlanVniMaps> vlanVniMaps = Kel::make<Vxlan::VlanVniMaps>();
  Ptr<L2Rib::SourceDirEntry> rmxSde = Kel::make<L2Rib::SourceDirEntry>();
  Ptr<L2Rib::HostInput> l2RibRmxInput = Kel::make<L2Rib::HostInput>(L2Rib::HostInput::Options{});
  Ptr<Vxlan::VxlanClientConvergenceStatus> rmxConvergenceStatus =
      Kel::make<Vxlan::VxlanClientConvergenceStatus>();
};

// A switch, its controller, its MLAG peer, and the client. Time stands at 100 s and moves only when told to.
// Every verb may be used before the client is started and after; what it changes is delivered when it
// returns.
class Scenario : public testing::Test {
 protected:
  Scenario();
  ~Scenario() override;

  // The client.
  void start();
  void stop() { client = nullptr; }
  void restart() {
    stop();
    start();
  }

  // One turn of the activity loop, or turns until nothing is due; time stands still meanwhile but for the
  // tick. Fails the test if the loop does not come to rest.
  void turn() { Kel::ActivityLoop::instance().turn(); }
  void turnsUntilIdle();
  void secondsPass(double seconds) { time.timeIs(time.peek() + seconds); }

  // The VTIs and their maps. Mapping makes the VTI's map if there is none.
  void givenVti(std::string_view name, const Vti& is = {});
  void vtiGoes(std::string_view name) { handles.vtiStatusDir->vtiStatusDel(vti(name)); }
  Ptr<Vxlan::VtiStatus> vtiStatus(std::string_view name) {
    return handles.vtiStatusDir->vtiStatus(vti(name));
  }
  void givenMap(std::string_view name);
  void mapGoes(std::string_view name) { handles.vlanVniMaps->vlanVniMapDel(vti(name)); }
  Ptr<Vxlan::VlanVniMap> map(std::string_view name) { return handles.vlanVniMaps->vlanVniMap(vti(name)); }
  void mapVlan(std::string_view name, std::uint32_t vlanNumber, std::uint32_t vniNumber);
  void unmapVlan(std::string_view name, std::uint32_t vlanNumber) { map(name)->mappingDel(vlan(vlanNumber)); }

  // The controller: its directory of VNIs, and what it publishes in each. Publishing makes the VNI if there
  // is none.
  void announceVni(std::uint32_t number) {
    handles.controllerStatusBaseDir->entryIs(Name(std::to_string(number)));
  }
  void givenVni(std::uint32_t number);
  void withdrawVni(std::uint32_t number) {
    handles.controllerStatusBaseDir->entryDel(Name(std::to_string(number)));
  }
  Ptr<VxlanController::VniFdbStatusV2> vniStatus(std::uint32_t number);
  void publish(std::uint32_t vniNumber, std::uint64_t macNumber, const Host& host = {});
  void withdraw(std::uint32_t vniNumber, std::uint64_t macNumber) {
    vniStatus(vniNumber)->macVtepTableDel(mac(macNumber));
  }
  // The flood list of a MAC becomes these addresses, the multipath entry likewise; each is one entry from
  // then on, and goes with the second verb.
  void publishFloodList(std::uint32_t vniNumber, std::uint64_t macNumber, Texts vteps);
  void withdrawFloodList(std::uint32_t vniNumber, std::uint64_t macNumber) {
    vniStatus(vniNumber)->macVtepFloodListTableDel(mac(macNumber));
  }
  void publishMultiPath(std::uint32_t vniNumber, std::uint64_t macNumber, Texts vteps);
  void withdrawMultiPath(std::uint32_t vniNumber, std::uint64_t macNumber) {
    vniStatus(vniNumber)->macVtepMultiPathTableDel(mac(macNumber));
  }

  // The controller's state. The first use makes its entity, under the name "controller".
  void controllerConverges(bool converging);
  void controllerStateGoes() { handles.rmxStateBaseDir->entryDel(Name("controller")); }

  // The hardware and the MLAG pair. The first use makes the BUM status in question.
  void bumReplicationMode(Vxlan::BumReplicationMode mode);
  void peerBumReplicationMode(Vxlan::BumReplicationMode mode);
  void mlagIs(Mlag::MlagState state) { handles.mlagStatus->mlagStateIs(state); }
  void mlagAddress(std::string_view type, std::string_view address) {
    handles.mlagVxlanStatus->vtepAddrIs(Name(type), ip(address));
  }
  // The peer's list of this (MAC, VLAN) becomes these addresses.
  void peerLists(std::uint64_t macNumber, std::uint32_t vlanNumber, Texts vteps);

  // What the client wrote, a line for each fact, each line ending in a new line; nothing is the empty text.
  // Received hosts: "02:00:00:00:00:01:10 Vxlan1 10.0.0.9 moves 1", then " marked" where it is.
  std::string received() const;
  // Exported hosts, in the same form.
  std::string exported() const;
  // Flood sets: "10 02:00:00:00:00:01 all 10.0.0.8 10.0.0.9".
  std::string floods() const;
  // The hardware's BUM VTEP lists: "02:00:00:00:00:01:10 10.0.0.9".
  std::string bumLists() const;
  // The VNIs that have a machine, such as "10010 10020 ", and the VTIs that have a tracker.
  std::string machines() const;
  std::string trackers() const;
  // All of this, the modes, the jobs and the view. Empty parts are left out:
  //
  //     client on, learning off
  //     view converging
  //     jobs unicast bum
  //     machines 10010
  //     trackers Vxlan1
  //     mlag machine
  //     received 02:00:00:00:00:01:10 Vxlan1 10.0.0.9 moves 1 marked
  //     exported 02:00:00:00:00:01:10 Vxlan1 10.0.0.9 moves 1
  //     flood 10 02:00:00:00:00:01 all 10.0.0.8
  //     bum 02:00:00:00:00:01:10 10.0.0.9
  std::string state() const;

  // Begins to collect trace lines, from none each time; and how many since then hold a text.
  void traceFromNow();
  std::size_t tracedLines(std::string_view text) const;

  static constexpr double never = std::numeric_limits<double>::infinity();

  Kel::SimulatedTime time{100};
  Handles handles;
  Ptr<Vxlan::VxlanControllerClientSm> client;
  std::vector<std::string> lines;
};

// What a call is refused with: the text of the range error, of the name-in-use error, or "nothing".
template <class Call>
std::string refusal(const Call& call) {
  try {
    call();
  } catch (const Kel::RangeException& error) {
    return error.what();
  } catch (const Kel::NameInUseException& error) {
    return error.what();
  }
  return "nothing";
}

}  // namespace scenario

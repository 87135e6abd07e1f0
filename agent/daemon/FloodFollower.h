// The flood sets that the data plane is to have.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "agent/state/World.h"

namespace Agent {

// Follows the flood sets of the layer-2 RIB and says which of them are to be programmed, and how.
//
// A flood set can outlive the mapping of its VLAN: when a VLAN loses its VNI, or gets another, the client
// leaves the VLAN's flood sets until the next convergence has ended. They name the VTEPs of the VNI that the
// VLAN had, and would flood traffic of one network into another. So the follower remembers the VNI under
// which a set was written, and programs the set only while its VLAN has that VNI:
//
//   a set       | its VLAN                          | the data plane
//   ------------+-----------------------------------+---------------------------------------------------
//   belongs     | has the VNI that wrote it         | has the set
//   is kept     | has not, the controller converges | keeps what it has; decided when it has converged
//   waits       | has not                           | has nothing, until the controller publishes the
//               |                                   | address in the VNI that the VLAN has now
//
// A set that the new VNI writes as it was notifies nobody; that it belongs again shows in what the controller
// publishes. Only the VNIs of sets that wait are followed for that.
class FloodFollower {
 public:
  // Programs the flood sets.
  class Sink {
   public:
    virtual ~Sink() = default;
    // The addresses ascend.
    virtual void floodIs(Bridging::VlanId vlan, const Qnet::EthAddr& mac, L2Rib::FloodSetType type,
                         std::vector<Qnet::IpAddr> vteps) = 0;
    virtual void floodDel(Bridging::VlanId vlan, const Qnet::EthAddr& mac) = 0;
  };

  // Tells the sets that are there. `sink` outlives it.
  FloodFollower(const World& world, Sink& sink);
  ~FloodFollower();
  FloodFollower(const FloodFollower&) = delete;
  FloodFollower& operator=(const FloodFollower&) = delete;

  // The VLAN was mapped to a VNI, or to none. To be called when the map has the change.
  void mappingChanged(Bridging::VlanId vlan);

 private:
  class FloodReactor;
  class VlanReactor;
  class SetReactor;
  class ViewReactor;
  class DirReactor;
  class VniReactor;

  struct Set {
    Kel::Ptr<SetReactor> reactor;
    Vxlan::VniExtOrNone writtenBy;  // the VNI that the VLAN had when the set was written
    Vxlan::VniExtOrNone awaits;     // the VNI that may write it again
    bool told = false;              // the data plane has it
  };
  using Sets = std::map<Qnet::EthAddr, Set>;
  struct Awaited {
    Kel::Ptr<VniReactor> reactor;
    std::size_t sets = 0;
  };

  void vlanFloods(Bridging::VlanId vlan);
  void flood(Bridging::VlanId vlan, const Qnet::EthAddr& mac);
  void written(Bridging::VlanId vlan, const Qnet::EthAddr& mac);
  void published(Vxlan::VniExt vni, const Qnet::EthAddr& mac);
  void vniEntity(const Kel::Name& name);
  void convergenceChanged();

  void decide(Bridging::VlanId vlan, const Qnet::EthAddr& mac, Set& set);
  void await(Set& set, Vxlan::VniExtOrNone vni);
  void drop(Bridging::VlanId vlan, const Qnet::EthAddr& mac, Set& set);
  Vxlan::VniExtOrNone vniOf(Bridging::VlanId vlan) const;
  Kel::Ptr<VxlanController::VniFdbStatusV2> statusOf(Vxlan::VniExtOrNone vni) const;
  bool publishes(Vxlan::VniExtOrNone vni, const Qnet::EthAddr& mac) const;

  const World& world_;
  Sink& sink_;
  Kel::Ptr<FloodReactor> floods_;
  Kel::Ptr<ViewReactor> view_;
  Kel::Ptr<DirReactor> vnis_;
  std::map<Bridging::VlanId, Kel::Ptr<VlanReactor>> vlans_;
  std::map<Bridging::VlanId, Sets> sets_;
  std::map<std::uint32_t, Awaited> awaited_;  // by VNI
};

}  // namespace Agent

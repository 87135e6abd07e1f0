// The kernel adapter's view of the outputs.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "agent/daemon/FloodFollower.h"
#include "agent/kernel/Adapter.h"
#include "agent/state/World.h"

namespace Agent {

// Follows the outputs as any reader would, the hosts of the layer-2 RIB, the flood sets, and the VLAN-VNI
// maps with the addresses of their VTIs, and tells the kernel adapter what should be there. What an earlier
// run left in the host table is told at the start.
class KernelFollower final : private FloodFollower::Sink {
 public:
  // Interfaces to enslave, by VLAN.
  using Ports = std::map<std::uint16_t, std::vector<std::string>>;

  KernelFollower(const World& world, Kernel::Adapter& kernel, Ports ports);
  ~KernelFollower() override;
  KernelFollower(const KernelFollower&) = delete;
  KernelFollower& operator=(const KernelFollower&) = delete;

 private:
  class HostReactor;
  class MapsReactor;
  class MapReactor;
  class StatusDirReactor;
  class StatusReactor;

  void host(const Bridging::MacVlanPair& key);
  void floodIs(Bridging::VlanId vlan, const Qnet::EthAddr& mac, L2Rib::FloodSetType type,
               std::vector<Qnet::IpAddr> vteps) override;
  void floodDel(Bridging::VlanId vlan, const Qnet::EthAddr& mac) override;
  void map(const Qnet::IntfId& vti);
  void vti(const Qnet::IntfId& vti);
  void vni(const Qnet::IntfId& vti, Bridging::VlanId vlan);

  const World& world_;
  Kernel::Adapter& kernel_;
  Ports ports_;
  std::set<std::pair<Qnet::IntfId, Bridging::VlanId>> mapped_;  // Each VTI's VLANs that the adapter knows of.
  Kel::Ptr<HostReactor> hosts_;
  std::unique_ptr<FloodFollower> floods_;
  Kel::Ptr<MapsReactor> maps_;
  std::map<Qnet::IntfId, Kel::Ptr<MapReactor>> vtiMaps_;
  Kel::Ptr<StatusDirReactor> statusDir_;
  std::map<Qnet::IntfId, Kel::Ptr<StatusReactor>> statuses_;
};

}  // namespace Agent

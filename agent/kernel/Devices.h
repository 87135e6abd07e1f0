#pragma once

#include <string_view>
#include <vector>

#include "agent/kernel/Hosts.h"
#include "agent/kernel/State.h"

namespace Agent::Kernel {

// Keeps a bridge and a VXLAN device for each mapped VLAN, with its ports. A device that is there is used:
// one of ours (by its alias) is corrected and, when it is no longer wanted, deleted; another's is used as it
// is, and what is amiss with it is told.
//
// When a VLAN changes its VNI, the new device is made beside the old one in the same bridge (both isolated,
// so that nothing loops between them) and filled. After Options::renumberPause, by when other switches have
// made theirs, the flood rows are added to it and the bridge's rows are turned to it one by one; after
// another such pause the old one is deleted.
class Devices {
 public:
  explicit Devices(State& state) : state_(state) {}

  void is(Vlan vlan, const Mapping& mapping);
  void del(Vlan vlan);

  void linkIs(const Link& link);
  void portIs(const BridgePort& port);
  void linkDel(IfIndex index);

  // Asks for what is missing of the domain's devices, one step at a time.
  void work(Domain& domain, Batch& out);
  // Asks to delete the devices of ours that nothing wants.
  void sweep(Batch& out);
  // All devices of ours are looked at again for those that nothing wants.
  void suspectAll();
  // Goes on with the changes of VNIs that are under way.
  void turn(Batch& out);
  // When `turn` is due next; Time::max() for never.
  Time nextTurn() const;
  void answered(const Request& request, const Key& key, int error, std::string_view text);
  // Begins to use the device; `blind`: it may have rows that are not known.
  void deviceIs(Domain& domain, IfIndex device, bool blind);
  void bridgeIs(Domain& domain, IfIndex bridge);

  // Whether the domain's devices and ports are as they are wanted.
  bool differs(const Domain& domain) const;
  std::size_t stale() const;

 private:
  void unmap(Domain& domain);
  void mappingChanged(Domain& domain);
  void suspectBridges(const Domain& domain);
  void adopt(const Link& link);
  void leaveDevice(Domain& domain);
  void beginTurn(Domain& domain);
  void step(Domain& domain, Batch& out);
  std::optional<Vlan> vlanOfName(const std::string& name) const;
  void requeue(Vlan vlan);
  void requeueVni(const Link& device);
  void requeueUsers(const Link& link);
  void lost(Domain& domain);
  void forget(IfIndex index);
  const Link* device(const Domain& domain) const;
  const Link* bridge(const Domain& domain, const Link* device) const;
  bool heldBack(Domain& domain);
  void askBridge(Domain& domain, Batch& out);
  void askDevice(Domain& domain, const Link& bridge, Batch& out);
  void correct(Domain& domain, const LinkSet& set, Batch& out);
  std::optional<LinkSet> bridgeCorrection(const Domain& domain, const Link& bridge) const;
  std::optional<LinkSet> deviceCorrection(const Domain& domain, const Link& bridge, const Link& device) const;
  std::string complaint(const Domain& domain, const Link& device) const;
  std::vector<const Link*> others(const Link& bridge, const Link& device) const;
  void isolateOthers(const Link& bridge, const Link& device, Batch& out);
  void workPorts(Domain& domain, const Link& bridge, Batch& out);
  void workPort(Domain& domain, const Link& bridge, std::size_t at, Batch& out);
  void freePorts(Domain& domain, Batch& out);
  bool unwanted(IfIndex index) const;
  bool used(const Link& link) const;
  bool mayGo(const Link& link) const;
  void fail(const Key& key, std::string why);

  State& state_;
};

}  // namespace Agent::Kernel

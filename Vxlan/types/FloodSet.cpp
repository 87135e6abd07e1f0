#include "Vxlan/types/FloodSet.h"

#include <ostream>

namespace L2Rib {

void FloodSet::attributes(Kel::Attributes& list) const {
  list("floodSetType", floodSetType_);
  list("destSet", destSet_);
}

Kel::Ptr<FloodSet> VlanFloodSet::floodSetIs(const Qnet::EthAddr& mac) {
  Kel::Ptr<FloodSet> set = floodSet(mac);
  if (!set) {
    set = Kel::make<FloodSet>();
    floodSet_.is(mac, set);
  }
  return set;
}

Kel::Ptr<VlanFloodSet> SourceDirEntry::vlanFloodSetIs(Bridging::VlanId vlan) {
  Kel::Ptr<VlanFloodSet> set = vlanFloodSet(vlan);
  if (!set) {
    set = Kel::make<VlanFloodSet>();
    vlanFloodSet_.is(vlan, set);
  }
  return set;
}

std::ostream& operator<<(std::ostream& stream, const Dest& dest) {
  return stream << dest.vxlan().vtepAddr();
}

}  // namespace L2Rib

#include "agent/state/World.h"

namespace Agent {

World::World(const L2Rib::HostInput::Options& options)
    : vtiStatusDir(database.mount<Vxlan::VtiStatusDir>("/vxlan/vtiStatus")),
      vlanVniMaps(database.mount<Vxlan::VlanVniMaps>("/vxlan/vlanVniMaps")),
      mlagStatus(database.mount<Mlag::Status>("/mlag/status")),
      mlagVxlanStatus(database.mount<Mlag::VxlanStatus>("/mlag/vxlanStatus")),
      fdb(database.mount<Kel::Dir>("/controller/fdb")),
      controllerState(database.mount<Kel::Dir>("/controller/state")),
      hwStatus(database.mount<Vxlan::VxlanHwStatusDir>("/vxlan/hardware")),
      clientView(database.mount<VxlanController::RmxStateClientViewV2>("/controller/clientView")),
      floodSets(database.mount<L2Rib::SourceDirEntry>("/l2rib/floodSets")),
      hosts(database.mount<L2Rib::HostInput>("/l2rib/hosts", options)),
      convergenceStatus(database.mount<Vxlan::VxlanClientConvergenceStatus>("/vxlan/convergenceStatus")) {
  mlagVxlanStatus->bumStatusIs(Kel::make<Vxlan::BumStatus>());
  hwStatus->bumStatusIs(Kel::make<Vxlan::BumStatus>());
}

void World::clientIs() {
  // The old client goes and the new one comes within one turn, so that a reader of the host table never
  // misses a host that is there before and after.
  Kel::ActivityLoop::instance().asHandler([&] {
    client = nullptr;
    client = Vxlan::vxlanControllerClientSmFactory(vtiStatusDir, fdb, clientView, hwStatus, mlagStatus,
                                                   mlagVxlanStatus, controllerState, vlanVniMaps, floodSets,
                                                   hosts, convergenceStatus);
  });
}

}  // namespace Agent

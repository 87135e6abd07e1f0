// The state database of the agent, and the client that lives on it.
#pragma once

#include <string>

#include "Entdb/Database.h"
#include "Vxlan/VxlanControllerSm.h"

namespace Agent {

// All inputs and outputs of the client as entities of one state database, mounted at their paths, and the
// client itself, which the shared library's factory makes. Both BUM statuses always exist, empty and in mode
// 0 to begin with.
class World {
 public:
  // `hosts` names the shared-memory table of the layer-2 RIB. Raises Memtab::Error when it cannot be used.
  explicit World(const L2Rib::HostInput::Options& hosts);
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  // Makes the client, or drops it and makes another over the same entities, as after a restart of the agent.
  void clientIs();
  // Drops the client; the entities stay.
  void clientDel() { client = nullptr; }

  Entdb::Database database;
  // The inputs.
  Kel::Ptr<Vxlan::VtiStatusDir> vtiStatusDir;
  Kel::Ptr<Vxlan::VlanVniMaps> vlanVniMaps;
  Kel::Ptr<Mlag::Status> mlagStatus;
  Kel::Ptr<Mlag::VxlanStatus> mlagVxlanStatus;
  Kel::Ptr<Kel::Dir> fdb;              // the controller's VNIs
  Kel::Ptr<Kel::Dir> controllerState;  // the controller's state
  // The outputs.
  Kel::Ptr<Vxlan::VxlanHwStatusDir> hwStatus;
  Kel::Ptr<VxlanController::RmxStateClientViewV2> clientView;
  Kel::Ptr<L2Rib::SourceDirEntry> floodSets;
  Kel::Ptr<L2Rib::HostInput> hosts;
  Kel::Ptr<Vxlan::VxlanClientConvergenceStatus> convergenceStatus;

  Kel::Ptr<Vxlan::VxlanControllerClientSm> client;
};

}  // namespace Agent

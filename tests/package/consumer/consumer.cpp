// Somebody else's agent, the smallest there can be: it knows the installed headers and links the installed
// library. It mounts the entities, starts the client, and follows one host from the controller to the layer-2
// RIB.

#include <iostream>

#include "everything.h"

namespace {

// Hears of the hosts that the library writes, through the library's own framework.
class Listener final : public Kel::Follows<L2Rib::HostInput> {
 public:
  int heard = 0;

 private:
  void onHost(Bridging::MacVlanPair) override { ++heard; }
};

int check(bool holds, const char* what) {
  std::cout << (holds ? "yes: " : "NO:  ") << what << '\n';
  return holds ? 0 : 1;
}

}  // namespace

int main() {
  Entdb::Database database;
  const auto vtis = database.mount<Vxlan::VtiStatusDir>("/vxlan/vtiStatus");
  const auto maps = database.mount<Vxlan::VlanVniMaps>("/vxlan/vlanVniMaps");
  const auto hardware = database.mount<Vxlan::VxlanHwStatusDir>("/vxlan/hardware");
  const auto vnis = database.mount<Kel::Dir>("/controller/fdb");
  const auto hosts = database.mount<L2Rib::HostInput>("/l2rib/hosts", L2Rib::HostInput::Options{});
  hardware->bumStatusIs(Kel::make<Vxlan::BumStatus>());

  const Qnet::IntfId vxlan1("Vxlan1");
  const auto vti = Kel::make<Vxlan::VtiStatus>(vxlan1);
  vti->controllerClientModeIs(true);
  vtis->vtiStatusIs(vti);
  const auto map = Kel::make<Vxlan::VlanVniMap>();
  map->mappingIs(Bridging::VlanId(10), {Vxlan::VniExtOrNone(5010), Vxlan::VniSource::Configuration});
  maps->vlanVniMapIs(vxlan1, map);

  const auto client = Vxlan::vxlanControllerClientSmFactory(
      vtis, vnis, database.mount<VxlanController::RmxStateClientViewV2>("/controller/clientView"), hardware,
      database.mount<Mlag::Status>("/mlag/status"), database.mount<Mlag::VxlanStatus>("/mlag/vxlanStatus"),
      database.mount<Kel::Dir>("/controller/state"), maps,
      database.mount<L2Rib::SourceDirEntry>("/l2rib/floodSets"), hosts,
      database.mount<Vxlan::VxlanClientConvergenceStatus>("/vxlan/convergenceStatus"));
  const auto listener = Kel::make<Listener>();
  listener->notifierIs(hosts);

  const Bridging::MacVlanPair key{Qnet::EthAddr(0x020000000001), Bridging::VlanId(10)};
  const auto vni = Kel::make<VxlanController::VniFdbStatusV2>();
  vni->macVtepTableIs({key.mac, Qnet::IpAddr(0x0a000002)});
  vnis->entityPtrIs(Kel::Name("5010"), vni);
  int wrong = check(client->vxlanControllerClientMode(), "the client follows the controller");
  wrong += check(hosts->hasHost(key), "a host that the controller publishes is in the layer-2 RIB's input");
  wrong += check(listener->heard == 1, "a reactor of the program heard of it, once");
  vni->macVtepTableDel(key.mac);
  wrong += check(!hosts->hasHost(key), "a host that the controller withdraws is gone");
  return wrong;
}

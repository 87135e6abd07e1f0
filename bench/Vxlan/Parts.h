// The system's own tables, trace and clock, put together by hand.
#pragma once

#include <memory>
#include <vector>

#include "Hosts.h"
#include "Kel/System.h"
#include "Kel/Table.h"
#include "Memtab/Writer.h"
#include "Vxlan/framework/Trace.h"
#include "Vxlan/types/L2RibHost.h"
#include "Vxlan/types/ReceivedHostTable.h"
#include "Vxlan/types/VlanTable.h"

namespace Road {

// The road through the system's own parts without framework: no entities, no notification, no machines. What
// the real road costs beyond this is the framework; what this costs beyond the minimum is the tables.
class Parts {
 public:
  explicit Parts(std::uint32_t vnis) : shared_(options()) {
    Vxlan::vccRlHandleInit();
    for (std::uint32_t vni = 0; vni < vnis; ++vni) {
      controller_.push_back(std::make_unique<Kel::Table<Qnet::EthAddr, VxlanController::MacVtepV2>>());
      vlans_.emplace(Vxlan::VniExt(firstVni + vni), Bridging::VlanId(vlanOf(vni)));
    }
  }

  void publish(const std::vector<Update>& updates) {
    for (const Update& update : updates) {
      const Qnet::EthAddr mac(update.mac);
      const VxlanController::MacVtepV2 host{mac, Qnet::IpAddr(update.vtep), update.moves};
      const auto [place, added] = controller_[update.vni]->emplace(mac, host);
      if (!added && place->value == host) {
        continue;
      }
      place->value = host;
      VCC_RECORD(Vxlan::traceOrdinary, "macAddr: ", mac, " learning ", false);
      const Bridging::VlanId* vlan = vlans_.find(Vxlan::VniExt(firstVni + update.vni));
      if (vlan == nullptr || isMine(host.vtepIp)) {
        continue;
      }
      share(receive({mac, *vlan}, host));
    }
  }
  void withdraw(const std::vector<Update>& updates) {
    for (const Update& update : updates) {
      const Qnet::EthAddr mac(update.mac);
      VCC_RECORD(Vxlan::traceOrdinary, "macAddr: ", mac, " learning ", false);
      const Bridging::VlanId* vlan = vlans_.find(Vxlan::VniExt(firstVni + update.vni));
      if (controller_[update.vni]->erase(mac) && vlan != nullptr && received_.erase({mac, *vlan})) {
        VCC_RECORD(Vxlan::traceOrdinary, " key ", mac, " vlan ", *vlan);
        shared_.del({mac, *vlan});
        shared_.publish();
      }
    }
  }

 private:
  static constexpr std::uint32_t firstVni = 10'000;

  static Memtab::Options options() {
    Memtab::Options options;
    options.schema = L2Rib::hostSchema;
    options.fields = L2Rib::hostFields;
    options.limit = std::size_t{1} << 22;
    return options;
  }
  bool isMine(Qnet::IpAddr vtep) const {
    VCC_RECORD(Vxlan::traceOrdinary, " vtepIp ", vtep, " vti ", vti_);
    return vtep == own_ || vtep == gateway_;
  }
  const Vxlan::ReceivedEntry& receive(const Bridging::MacVlanPair& key,
                                      const VxlanController::MacVtepV2& host) {
    Vxlan::ReceivedEntry entry;
    entry.key = key;
    entry.intf = vti_;
    entry.entryType = Vxlan::EntryType::Controller;
    entry.vtepIp = host.vtepIp;
    entry.moveCount = host.moveCount;
    entry.lastUpdateTime = Kel::System::currentTime();
    entry.hostAttr = host.hostAttr;
    const auto [place, added] = received_.emplace(key, entry);
    if (!added) {
      place->value = entry;
    }
    return place->value;
  }
  void share(const Vxlan::ReceivedEntry& entry) {
    VCC_RECORD(Vxlan::traceOrdinary, " key ", entry.key.mac, " vlan ", entry.key.vlan);
    L2Rib::HostValue host;
    host.lastUpdateTime = entry.lastUpdateTime;
    host.moveCount = entry.moveCount;
    host.hostAttr = static_cast<L2Rib::HostAttr>(entry.hostAttr);
    host.entryType = static_cast<L2Rib::EntryType>(entry.entryType);
    host.dest = L2Rib::CiDest(L2Rib::DestType::VxlanVtep);
    host.dest.intfIs(vtiText_);
    host.dest.vtepAddrIs(L2Rib::CiVtepIndex::First, Qnet::IpGenAddr(entry.vtepIp));
    shared_.is(entry.key, host);
    shared_.publish();
  }

  std::vector<std::unique_ptr<Kel::Table<Qnet::EthAddr, VxlanController::MacVtepV2>>> controller_;
  Kel::Table<Vxlan::VniExt, Bridging::VlanId> vlans_;
  Vxlan::VlanTable<Bridging::MacVlanPair, Vxlan::ReceivedEntry> received_;
  Memtab::Writer<Bridging::MacVlanPair, L2Rib::HostValue> shared_;
  Qnet::IntfId vti_{"Vxlan1"};
  L2Rib::InlineIntf vtiText_{vti_};
  Qnet::IpAddr own_{ownVtep};
  Qnet::IpAddr gateway_;
};

}  // namespace Road

// The inputs and the hosts of one VNI.
#include "Kel/System.h"
#include "Vxlan/VxlanControllerSm.h"
#include "Vxlan/framework/Trace.h"

namespace Vxlan {

const Kel::TypeNode RmxPerVniFdbStatusSmBase::type{"Vxlan::RmxPerVniFdbStatusSmBase"};

namespace {

[[maybe_unused]] const bool registered = Kel::typeNodeIs(RmxPerVniFdbStatusSmBase::type);

// Whether the controller publishes the MAC: absence is the default value, not a missing key.
bool published(const VxlanController::MacVtepV2& host) {
  return host != VxlanController::MacVtepV2();
}

}  // namespace

// The reactors: which handler each change of an input runs.

struct RmxPerVniFdbStatusSmBase::KelRmxVniFdbStatusV2 final
    : Kel::Reacts<VxlanController::VniFdbStatusV2, RmxPerVniFdbStatusSmBase> {
  using Reacts::Reacts;
  void onMacVtepTable(Qnet::EthAddr mac) override { owner().handleRmxHostTable(mac); }
  void onMacVtepTablekelImmediate() override { owner().handleRmxHostTable(); }
  void onMacVtepFloodListTable(Qnet::EthAddr mac) override { owner().handleMacVtepFloodListTable(mac); }
  void onMacVtepFloodListTable() override { owner().handleMacVtepFloodListTable(); }
  void onMacVtepMultiPathTable(Qnet::EthAddr mac) override { owner().handleMacVtepMultiPathTable(mac); }
  void onMacVtepMultiPathTable() override { owner().handleMacVtepMultiPathTable(); }
};

struct RmxPerVniFdbStatusSmBase::KelVtiStatusDir final : Kel::Reacts<VtiStatusDir, RmxPerVniFdbStatusSmBase> {
  using Reacts::Reacts;
  void onVtiStatus(Qnet::IntfId vti) override { owner().vtiStatusNotify(vti); }
  void onVtiStatuskelImmediate() override { owner().vtiStatus_.handle(); }
};

struct RmxPerVniFdbStatusSmBase::KelVxlanHwStatusDir final
    : Kel::Reacts<VxlanHwStatusDir, RmxPerVniFdbStatusSmBase> {
  using Reacts::Reacts;
};

struct RmxPerVniFdbStatusSmBase::KelVtiStatus final : Kel::Reacts<VtiStatus, RmxPerVniFdbStatusSmBase> {
  using Reacts::Reacts;
  void onDgwVtepAddr() override { owner().handleDgwVtepAddr(); }
};

RmxPerVniFdbStatusSmBase::RmxPerVniFdbStatusSmBase(const VniExt& vni, VniStatusRef rmxVniFdbStatusV2,
                                                   VtiStatusDirRef vtiStatusDir,
                                                   HwStatusDirRef vxlanHwStatusDir,
                                                   VxlanControllerMacAddrSmBase* vxlanControllerMacAddrSm)
    : vni_(*this, "vni", vni), vxlanControllerMacAddrSm_(vxlanControllerMacAddrSm) {
  road_.owner = vxlanControllerMacAddrSm;
  statusIs(rmxVniFdbStatusV2);
  vtiStatusDir_.is(vtiStatusDir);
  vxlanHwStatusDir_.is(vxlanHwStatusDir);
  vtiStatus_.handle();
}

RmxPerVniFdbStatusSmBase::~RmxPerVniFdbStatusSmBase() = default;

void RmxPerVniFdbStatusSmBase::hasNotificationActiveIs(bool active) {
  StateMachine::hasNotificationActiveIs(active);
}

void RmxPerVniFdbStatusSmBase::handleInitialized() {
  VCC_TRACE(traceOrdinary, " init? ", initialized());
  initializedIs(true);
  handleRmxHostTable();
  handleMacVtepMultiPathTable();
  handleMacVtepFloodListTable();
}

void RmxPerVniFdbStatusSmBase::handleRmxHostTable(Qnet::EthAddr mac) {
  const bool learning = road_.owner->datapathLearningMode();
  VCC_TRACE(traceOrdinary, "macAddr: ", mac, " datapathLearningMode ", learning);
  if (!road_.initialized) {
    return;
  }
  const VxlanControllerClientSm* const client = road_.owner->client_;
  const Kel::Ptr<ReceivedHostTable> given = client != nullptr ? nullptr : road_.owner->getHostTable();
  ReceivedHostTable* const table = client != nullptr ? client->hostTable().get() : given.get();
  if (learning || table == nullptr || road_.status == nullptr) {
    return;  // with learning on, hosts are learnt by the data path
  }
  const VxlanController::MacVtepV2 host = road_.status->macVtepTable(mac);
  if (client == nullptr) {
    for (const Qnet::IntfId& vti : vtis()) {
      evaluate(*table, mac, host, vti, owner().vlanForVni(vti, vni()), __PRETTY_FUNCTION__);
    }
    return;
  }
  std::size_t at = 0;
  for (const VxlanControllerClientSm::VtiView& vti : client->vtiViews()) {
    evaluate(*table, mac, host, vti.intf, vlanOn(*vti.map, at++), __PRETTY_FUNCTION__);
  }
}

// The VLAN of the VNI on a VTI that has this map and this place among the VTIs.
Bridging::VlanIdOrNone RmxPerVniFdbStatusSmBase::vlanOn(const VlanVniMap& map, std::size_t vti) {
  if (vti > others_.size()) [[unlikely]] {
    others_.resize(vti);
  }
  MappedVlan& known = vti == 0 ? road_.first : others_[vti - 1];
  const std::uint64_t version = map.vniToVlan().version();
  if (known.version != version) [[unlikely]] {
    known = {version, map.vniToVlan(vni())};
  }
  return known.vlan;
}

void RmxPerVniFdbStatusSmBase::evaluate(ReceivedHostTable& table, Qnet::EthAddr mac,
                                        const VxlanController::MacVtepV2& host, const Qnet::IntfId& vti,
                                        Bridging::VlanIdOrNone vlan, const char* operation) {
  if (!vlan) {
    VCC_LINE_OF(operation, traceOrdinary, "Returning as no valid vlan-vni map found");
    return;
  }
  VCC_LINE_OF(operation, traceOrdinary, "vniId: ", vni(), "vlanId: ", vlan);
  const Bridging::MacVlanPair key{mac, Bridging::VlanId(vlan)};
  if (!published(host)) {
    withdraw(table, key, operation);
  } else if (road_.owner->isVtepIpMine(vni(), host.vtepIp, vti)) {
    removeLocal(table, key, host.vtepIp, operation);
  } else {
    addRemote(table, key, vti, host, operation);
  }
}

// A MAC behind one of the switch's own addresses is no remote host; a stale entry of it goes at once.
void RmxPerVniFdbStatusSmBase::removeLocal(ReceivedHostTable& table, const Bridging::MacVlanPair& key,
                                           Qnet::IpAddr vtepIp, const char* operation) {
  VCC_LINE_OF(operation, traceOrdinary, "Ignoring since it's a local entry, ", "received vtepIp: ", vtepIp);
  if (table.receivedEntry().contains(key)) {
    VCC_LINE_OF(operation, traceOrdinary, " delete stale macVtepPair ", key.mac, " vlan ", key.vlan);
    owner().deleteReceivedTableEntry(key);
  }
}

void RmxPerVniFdbStatusSmBase::addRemote(ReceivedHostTable& table, const Bridging::MacVlanPair& key,
                                         const Qnet::IntfId& vti, const VxlanController::MacVtepV2& host,
                                         const char* operation) {
  VCC_LINE_OF(operation, traceOrdinary, "Adding remote host entry for mac: ", key.mac, " vlan: ", key.vlan,
              " vtepIp: ", host.vtepIp, " moveCount: ", host.moveCount);
  const ReceivedEntry* present = table.receivedEntry().find(key);
  const bool wasMarked = present != nullptr && present->markedForDel;
  if (wasMarked) {
    VCC_LINE_OF(operation, traceOrdinary, "Re-add, entry was marked for delete");
  }
  ReceivedEntry entry;
  entry.key = key;
  entry.intf = vti;
  entry.entryType = EntryType::Controller;
  entry.vtepIp = host.vtepIp;
  entry.moveCount = host.moveCount;
  entry.lastUpdateTime = Kel::System::currentTime();
  entry.hostAttr = host.hostAttr;
  table.receivedEntryIs(entry);
  if (wasMarked) {
    table.markedForDelCountDec(1);
    VCC_LINE_OF(operation, traceOrdinary, " new marked for deletion count ", table.markedForDelCount());
  }
}

void RmxPerVniFdbStatusSmBase::withdraw(ReceivedHostTable& table, const Bridging::MacVlanPair& key,
                                        const char* operation) {
  VCC_LINE_OF(operation, traceOrdinary, "Evaluating delete of remote host entry for mac: ", key.mac,
              " vlan: ", key.vlan);
  const ReceivedEntry* present = table.receivedEntry().find(key);
  Kel::fatalUnless(present == nullptr || !present->markedForDel,
                   "!receivedHostTable->receivedEntry( key ).markedForDel()");
  if (converging()) {
    owner().deferDeleteReceivedTableEntry(key);
  } else {
    owner().deleteReceivedTableEntry(key);
  }
}

void RmxPerVniFdbStatusSmBase::handleRmxHostTable() {
  VCC_TRACE(traceOrdinary, " datapathLearningMode ", owner().datapathLearningMode());
  if (!initialized() || owner().datapathLearningMode() || !rmxVniFdbStatusV2_) {
    return;
  }
  const Kel::Ptr<const VxlanController::VniFdbStatusV2> status = rmxVniFdbStatusV2();
  for (auto&& host : status->macVtepTable()) {
    handleRmxHostTable(host.key);
  }
}

void RmxPerVniFdbStatusSmBase::handleDgwVtepAddr() {
  VCC_TRACE(traceOrdinary, "vni: ", vni());
  if (initialized()) {
    handleRmxHostTable();
  }
}

bool RmxPerVniFdbStatusSmBase::checkBumStatus() const {
  if (!initialized() || !rmxVniFdbStatusV2_ || !vxlanHwStatusDir_ || !vxlanHwStatusDir_->bumStatus()) {
    return false;
  }
  const BumReplicationMode mode = vxlanHwStatusDir_->bumStatus()->bumReplicationMode();
  if (mode != BumReplicationMode::Controller) {
    VCC_TRACE(traceOrdinary, " Replication Mode is not rmx ", mode);
    return false;
  }
  return true;
}

void RmxPerVniFdbStatusSmBase::handleMacVtepMultiPathTable() {
  VCC_TRACE(traceOrdinary, " init? ", initialized());
  if (!checkBumStatus()) {
    return;
  }
  const Kel::Ptr<const VxlanController::VniFdbStatusV2> status = rmxVniFdbStatusV2();
  for (auto&& entry : status->macVtepMultiPathTable()) {
    handleMacVtepMultiPathTable(entry.key);
  }
}

// Only the derived class may act.
void RmxPerVniFdbStatusSmBase::handleMacVtepMultiPathTable(Qnet::EthAddr mac) {
  VCC_TRACE(traceOrdinary, " mac ", mac);
  Kel::fatalUnless(!checkBumStatus(), "false");
}

void RmxPerVniFdbStatusSmBase::handleMacVtepFloodListTable(Qnet::EthAddr mac) {
  VCC_TRACE(traceOrdinary, " mac ", mac);
  if (!initialized() || !rmxVniFdbStatusV2_) {
    return;
  }
  if (rmxVniFdbStatusV2_->macVtepFloodListTable(mac)) {
    createMacVtepFloodListTableSm(mac);
  } else if (const Kel::Ptr<MacVtepFloodListTableSmBase> machine = macVtepFloodListTableSm(mac)) {
    machine->cleanup();
    deleteMacVtepFloodListTableSm(mac);
  }
}

void RmxPerVniFdbStatusSmBase::handleMacVtepFloodListTable() {
  VCC_TRACE(traceOrdinary, " init? ", initialized());
  if (!initialized() || !rmxVniFdbStatusV2_) {
    return;
  }
  const Kel::Ptr<const VxlanController::VniFdbStatusV2> status = rmxVniFdbStatusV2();
  for (auto&& list : status->macVtepFloodListTable()) {
    handleMacVtepFloodListTable(list.key);
  }
}

void RmxPerVniFdbStatusSmBase::createMacVtepFloodListTableSm(Qnet::EthAddr mac) {
  VCC_TRACE(traceOrdinary, " mac ", mac);
}

void RmxPerVniFdbStatusSmBase::deleteMacVtepFloodListTableSm(Qnet::EthAddr mac) {
  VCC_TRACE(traceOrdinary, " mac ", mac);
}

void RmxPerVniFdbStatusSmBase::macVtepFloodListTableSmIs(const Kel::Ptr<MacVtepFloodListTableSmBase>& sm) {
  if (!sm) {
    Kel::throwNullParameter("Vxlan::RmxPerVniFdbStatusSmBase", "macVtepFloodListTableSm");
  }
  macVtepFloodListTableSm_.is(sm->macAddr(), sm);
}

const std::vector<Qnet::IntfId>& RmxPerVniFdbStatusSmBase::vtis() const {
  return owner().getVtiIterator();
}

std::optional<Bridging::VlanId> RmxPerVniFdbStatusSmBase::floodVlan(const Qnet::IntfId& vti,
                                                                    const char* operation) const {
  const Bridging::VlanIdOrNone vlan = owner().vlanForVni(vti, vni());
  if (!vlan) {
    VCC_LINE_OF(operation, traceOrdinary, " no vlan-vni map found for vni: ", vni());
    return std::nullopt;
  }
  VCC_LINE_OF(operation, traceOrdinary, " vni: ", vni(), " vlan: ", vlan);
  return Bridging::VlanId(vlan);
}

bool RmxPerVniFdbStatusSmBase::converging() const {
  return owner().converging();
}

void RmxPerVniFdbStatusSmBase::vtiStatusDel(Qnet::IntfId vti) {
  vtiStatus_.del(vti);
}

void RmxPerVniFdbStatusSmBase::vtiStatusDel(VtiStatusDir::VtiStatuses::Iterator at) {
  vtiStatus_.del(Qnet::IntfId(at->key));
}

void RmxPerVniFdbStatusSmBase::vtiStatusNotify(Qnet::IntfId vti) {
  const Kel::Ptr<const VtiStatus> status = vtiStatusDir_ ? vtiStatusDir_->vtiStatus(vti) : nullptr;
  if (status) {
    vtiStatusIs(status);
  } else {
    vtiStatusDel(vti);
  }
}

void RmxPerVniFdbStatusSmBase::vtiStatusIs(const Kel::Ptr<const VtiStatus>& status) {
  if (!status) {
    Kel::throwNullParameter("Vxlan::RmxPerVniFdbStatusSmBase", "vtiStatus");
  }
  vtiStatus_.is(status->intfId(), status);
}

void RmxPerVniFdbStatusSmBase::rmxVniFdbStatusV2Del() {
  statusIs(nullptr);
}

void RmxPerVniFdbStatusSmBase::rmxVniFdbStatusV2Is(VniStatusRef status) {
  statusIs(status);
}

void RmxPerVniFdbStatusSmBase::statusIs(VniStatusRef status) {
  road_.status = status.get();
  rmxVniFdbStatusV2_.is(status);
}

void RmxPerVniFdbStatusSmBase::vtiStatusDirDel() {
  vtiStatus_.inputIs(nullptr);
}

void RmxPerVniFdbStatusSmBase::vtiStatusDirIs(VtiStatusDirRef dir) {
  if (dir) {
    vtiStatus_.inputIs(dir);
  } else {
    vtiStatusDirDel();
  }
}

void RmxPerVniFdbStatusSmBase::vxlanHwStatusDirDel() {
  vxlanHwStatusDir_.del();
}

void RmxPerVniFdbStatusSmBase::vxlanHwStatusDirIs(HwStatusDirRef dir) {
  vxlanHwStatusDir_.is(dir);
}

}  // namespace Vxlan

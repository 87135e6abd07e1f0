// The export of received hosts to the layer-2 RIB.
#include "Vxlan/VxlanControllerSm.h"
#include "Vxlan/framework/Trace.h"

namespace Vxlan {

const Kel::TypeNode ReceivedHostTableToL2RibHostInputSm::type{"Vxlan::ReceivedHostTableToL2RibHostInputSm"};

namespace {

[[maybe_unused]] const bool registered = Kel::typeNodeIs(ReceivedHostTableToL2RibHostInputSm::type);

}  // namespace

ReceivedHostTableToL2RibHostInputSm::ReceivedHostTableToL2RibHostInputSm(
    ReceivedHostTableRef receivedHostTable, HostInputRef l2RibRmxInput)
    : l2RibRmxInput_(*this, "l2RibRmxInput", l2RibRmxInput) {
  receivedHostTable_.is(receivedHostTable);
  handleInitialized();
}

Kel::Ptr<ReceivedHostTableToL2RibHostInputSm>
ReceivedHostTableToL2RibHostInputSm::ReceivedHostTableToL2RibHostInputSmIs(
    ReceivedHostTableRef receivedHostTable, HostInputRef l2RibRmxInput) {
  vccRlHandleInit();
  return Kel::live<ReceivedHostTableToL2RibHostInputSm>(receivedHostTable, l2RibRmxInput);
}

ReceivedHostTableToL2RibHostInputSm::~ReceivedHostTableToL2RibHostInputSm() {
  kelDoZombieReactors(true);
}

void ReceivedHostTableToL2RibHostInputSm::handleInitialized() {
  VCC_TRACE(traceOrdinary, " Init? ", initialized());
  if (initialized()) {
    return;
  }
  initialized_ = true;
  handleReceivedHostEntry();
}

// The host that stands for a received entry. What is not set here keeps its default.
const L2Rib::Host& ReceivedHostTableToL2RibHostInputSm::hostOf(const ReceivedEntry& entry) {
  if (entry.intf != hostIntf_ || host_.dest.destType() == L2Rib::DestType::None) [[unlikely]] {
    L2Rib::CiDest dest(L2Rib::DestType::VxlanVtep);
    dest.intfIs(L2Rib::InlineIntf(entry.intf));
    host_.dest = dest;
    hostIntf_ = entry.intf;
  }
  host_.key = entry.key;
  host_.moveCount = entry.moveCount;
  host_.hostAttr = static_cast<L2Rib::HostAttr>(entry.hostAttr);
  host_.lastUpdateTime = entry.lastUpdateTime;
  host_.entryType = static_cast<L2Rib::EntryType>(entry.entryType);
  host_.dest.vtepAddrIs(L2Rib::CiVtepIndex::First, Qnet::IpGenAddr(entry.vtepIp));
  return host_;
}

void ReceivedHostTableToL2RibHostInputSm::handleReceivedHostEntry(Bridging::MacVlanPair key) {
  VCC_TRACE(traceOrdinary, " key ", key.mac, " vlan ", key.vlan);
  if (!initialized() || !receivedHostTable_ || !l2RibRmxInput_) {
    return;
  }
  const ReceivedEntry* entry = receivedHostTable_->receivedEntry().find(key);
  if (entry != nullptr && (key != Bridging::MacVlanPair() || !(*entry == ReceivedEntry()))) {
    // Also one that is marked for deletion: the host leaves when its entry does.
    l2RibRmxInput_->hostIs(hostOf(*entry));
  } else {
    l2RibRmxInput_->hostDel(key);
  }
}

void ReceivedHostTableToL2RibHostInputSm::handleReceivedHostEntry() {
  if (!initialized() || !receivedHostTable_ || !l2RibRmxInput_) {
    return;
  }
  VCC_TRACE(traceOrdinary, " deleting L2Rib input entries that are not in received host table");
  for (auto host = l2RibRmxInput_->firstHost(); host; host = l2RibRmxInput_->nextHost(host->key)) {
    if (!(*host == L2Rib::Host()) && !receivedHostTable_->receivedEntry().contains(host->key)) {
      l2RibRmxInput_->hostDel(host->key);
    }
  }
  VCC_LINE(traceOrdinary, " updating L2Rib input based on existing entries in received host table");
  for (auto&& entry : receivedHostTable_->receivedEntry()) {
    handleReceivedHostEntry(entry.key);
  }
}

Kel::Ptr<ReceivedHostTableToL2RibHostInputSm> receivedHostTableToL2RibHostInputSmFactory(
    ReceivedHostTableRef receivedHostTable, HostInputRef l2RibRmxInput) {
  return ReceivedHostTableToL2RibHostInputSm::ReceivedHostTableToL2RibHostInputSmIs(receivedHostTable,
                                                                                    l2RibRmxInput);
}

}  // namespace Vxlan

// Received hosts: marking, deleting, and the paced job that removes marked ones after a convergence. Its
// states stand at VxlanControllerMacAddrSmBase, beside those of BumDeferredDelete.cpp.
#include "Kel/System.h"
#include "Vxlan/VxlanControllerSm.h"
#include "Vxlan/framework/Trace.h"

namespace Vxlan {

void VxlanControllerMacAddrSmBase::deleteRemoteMacFromController(Bridging::VlanId vlan, bool deferDel) {
  if (!initialized()) {
    return;
  }
  const Kel::Ptr<ReceivedHostTable> table = getHostTable();
  VCC_TRACE(traceOrdinary, "deleteRemoteMacFromController", " vlanId ", vlan, " deferDel ", deferDel);
  if (!table) {
    return;
  }
  for (const Bridging::MacVlanPair& key : table->receivedEntryOfVlan(vlan)) {
    VCC_LINE(traceOrdinary, " Deleting: Mac: ", key.mac, " Vlan: ", key.vlan, " deferDel ", deferDel);
    if (deferDel) {
      deferDeleteReceivedTableEntry(key);
    } else {
      deleteReceivedTableEntry(key);
    }
  }
}

void VxlanControllerMacAddrSmBase::deferDeleteReceivedTableEntry(const Bridging::MacVlanPair& key) {
  const Kel::Ptr<ReceivedHostTable> table = getHostTable();
  VCC_TRACE(traceOrdinary, " key ", key.mac, " vlan ", key.vlan);
  const ReceivedEntry* present = table ? table->receivedEntry().find(key) : nullptr;
  if (present == nullptr || present->markedForDel) {
    return;
  }
  ReceivedEntry marked = *present;
  marked.markedForDel = true;
  VCC_LINE(traceOrdinary, "defer delete of ", key.mac, " vlan ", key.vlan, " old vtep: ", marked.vtepIp);
  table->receivedEntryIs(marked);
  table->markedForDelCountInc(1);
  VCC_LINE(traceOrdinary, "new marked for deletion count ", table->markedForDelCount());
}

void VxlanControllerMacAddrSmBase::deleteReceivedTableEntry(const Bridging::MacVlanPair& key) {
  const Kel::Ptr<ReceivedHostTable> table = getHostTable();
  VCC_TRACE(traceOrdinary, " deleting ", key.mac, " vlan ", key.vlan);
  if (!table) {
    return;
  }
  const ReceivedEntry* present = table->receivedEntry().find(key);
  if (present != nullptr && present->markedForDel) {
    table->markedForDelCountDec(1);
    VCC_LINE(traceOrdinary, " new marked for deletion count ", table->markedForDelCount());
  }
  table->receivedEntryDel(key);
}

void VxlanControllerMacAddrSmBase::processUnicastDeferredDeletes() {
  const Kel::Ptr<ReceivedHostTable> table = initialized() ? getHostTable() : nullptr;
  if (!table) {
    return;
  }
  VCC_TRACE(traceOrdinary, " init ", initialized(), " convergence state ", converging(),
            " marked for del count ", table->markedForDelCount());
  if (converging()) {
    VCC_LINE(traceOrdinary, " called but nothing to do - nexo rebooted again?");
    return;
  }
  if (table->markedForDelCount() == 0) {
    finishUnicastDeferredDeletes();
    VCC_LINE(traceOrdinary, " no markedForDel entries");
    return;
  }
  const Bridging::MacVlanPair bookmark = unicastDeferredDeleteBookmark();
  auto at = table->receivedEntry().begin();
  if (const auto marked = table->receivedEntry().at(bookmark);
      bookmark != Bridging::MacVlanPair() && marked) {
    VCC_LINE(traceOrdinary, " starting at bookmark ", bookmark.mac, " vlan ", bookmark.vlan);
    at = marked;
  } else {
    VCC_LINE(traceOrdinary, " no bookmark. start fresh");
  }
  const double deadline = Kel::System::currentTime() + maxProcessTime();
  VCC_LINE(traceOrdinary, " initial count ", table->markedForDelCount());
  while (table->markedForDelCount() != 0) {
    if (!at) {
      VCC_LINE(traceOrdinary, " reached end, resume from first entry");
      at = table->receivedEntry().begin();
      // Cannot be reached while the count is right: it never exceeds the number of entries.
      Kel::fatalUnless(static_cast<bool>(at), "iter");
    }
    const Bridging::MacVlanPair key = at->key;
    const double now = Kel::System::currentTime();
    if (now >= deadline) {
      unicastDeferredDeleteBookmark_ = key;
      VCC_LINE(traceOrdinary, " reschedule, resume later from ", key.mac, " vlan ", key.vlan,
               " Remaining count ", table->markedForDelCount());
      unicastDeferredDeleteClock_->timeMinIs(now);
      return;
    }
    if (at->value.markedForDel) {
      deleteReceivedTableEntry(key);
    }
    ++at;
  }
  finishUnicastDeferredDeletes();
  VCC_RECORD(traceOrdinary, " unicast mac deferred del complete");
  VCC_LINE(traceOrdinary, " unicast mac deferred delete complete.");
}

void VxlanControllerMacAddrSmBase::finishUnicastDeferredDeletes() {
  unicastDeferredDeleteBookmark_ = Bridging::MacVlanPair();
  setUnicastDeferredDeletionInProgress(false);
}

}  // namespace Vxlan

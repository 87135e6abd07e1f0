#include "Vxlan/types/ReceivedHostTable.h"

#include <ostream>

namespace Vxlan {

void ReceivedHostTable::receivedEntryDelAll() {
  receivedEntry_.delAll();
  markedForDelCountIs(0);
}

void ReceivedHostTable::markedForDelCountInc(std::uint32_t _markedForDelCount) {
  Kel::fatalUnless(std::uint64_t{markedForDelCount()} + _markedForDelCount <= receivedEntrys(),
                   "markedForDelCount() + _markedForDelCount <= receivedEntrys()");
  markedForDelCountIs(markedForDelCount() + _markedForDelCount);
}

void ReceivedHostTable::markedForDelCountDec(std::uint32_t _markedForDelCount) {
  Kel::fatalUnless(markedForDelCount() != 0, "markedForDelCount()");
  markedForDelCountIs(markedForDelCount() - _markedForDelCount);
}

void ReceivedHostTable::attributes(Kel::Attributes& list) const {
  list("receivedEntry", receivedEntry_);
  list("markedForDelCount", markedForDelCount_);
}

std::ostream& operator<<(std::ostream& stream, const ReceivedEntry& entry) {
  return stream << entry.key << " on " << entry.intf << " behind " << entry.vtepIp << ", moves "
                << entry.moveCount << (entry.markedForDel ? ", marked for deletion" : "");
}

}  // namespace Vxlan

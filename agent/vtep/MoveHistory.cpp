#include "agent/vtep/MoveHistory.h"

namespace Agent::Vtep {

std::uint32_t MoveHistory::seen(std::uint32_t vni, Mac mac, Ipv4 vtep) {
  Entry& entry = entries_[entries_.insert({vni, mac}).first];
  if (entry.vtep != 0 && entry.vtep != vtep) {
    ++entry.moves;
  }
  entry.vtep = vtep;
  entry.leftAs = 0;
  return entry.moves;
}

void MoveHistory::left(std::uint32_t vni, Mac mac) {
  const Slot slot = entries_.find({vni, mac});
  if (slot == noSlot) {
    return;
  }
  entries_[slot].leftAs = ++lastDeparture_;
  departures_.push_back({{vni, mac}, lastDeparture_});
  while (departures_.size() > remembered_) {
    const Departure oldest = departures_.front();
    departures_.pop_front();
    const Slot forgotten = entries_.find(oldest.key);
    if (forgotten != noSlot && entries_[forgotten].leftAs == oldest.number) {
      entries_.erase(forgotten);
    }
  }
}

}  // namespace Agent::Vtep

#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>

#include "agent/vtep/Addresses.h"
#include "agent/vtep/SlotMap.h"

namespace Agent::Vtep {

// How often each MAC of a VNI was seen to change its VTEP. The database has no such count, and some
// controllers move a MAC by deleting its row and inserting another one later: so a MAC that left is
// remembered, until more than so many others have left after it.
class MoveHistory {
 public:
  // Remembers at most `remembered` MACs that left.
  explicit MoveHistory(std::size_t remembered) : remembered_(remembered) {}

  // The MAC is seen behind `vtep`; returns how often it has moved until now.
  std::uint32_t seen(std::uint32_t vni, Mac mac, Ipv4 vtep);
  // The MAC is gone.
  void left(std::uint32_t vni, Mac mac);
  std::size_t size() const { return entries_.size(); }

 private:
  struct Key {
    std::uint32_t vni = 0;
    Mac mac = 0;
    friend bool operator==(const Key&, const Key&) = default;
  };
  struct KeyHash {
    std::size_t operator()(const Key& key) const noexcept {
      return key.vni * 0x9e3779b97f4a7c15ULL ^ key.mac;
    }
  };
  struct Entry {
    Ipv4 vtep = 0;
    std::uint32_t moves = 0;
    std::uint64_t leftAs = 0;  // number of the departure; 0: it is here
  };
  struct Departure {
    Key key;
    std::uint64_t number;
  };

  std::size_t remembered_;
  SlotMap<Key, Entry, KeyHash> entries_;
  std::deque<Departure> departures_;  // the oldest first; those that came back are still in it
  std::uint64_t lastDeparture_ = 0;
};

}  // namespace Agent::Vtep

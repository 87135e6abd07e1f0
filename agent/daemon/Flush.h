// The switch is taken out of service.
#pragma once

#include <cstddef>

#include "agent/state/World.h"

namespace Agent {

// Takes the switch out of service, a part at a time: the client goes first, so that nothing is forwarded that
// was not before; then all forwarding state goes, and none comes before the next start. The inputs stay, and
// may change meanwhile.
class Flush {
 public:
  // Nothing is removed yet. `world` outlives this.
  explicit Flush(World& world) : world_(world) {}

  // Removes the next part, about 500 entries; false when nothing is left. What a handler throws leaves
  // through here, and what was removed counts.
  bool step();
  // What was removed so far.
  std::size_t hosts() const { return hosts_; }
  std::size_t floodSets() const { return floodSets_; }

 private:
  void begin();
  void removeHosts(std::size_t& room);
  void removeReceived(std::size_t& room);
  void removeFloodSets(std::size_t& room);
  void removeBumLists(std::size_t& room) const;

  World& world_;
  bool begun_ = false;
  Kel::Ptr<Vxlan::ReceivedHostTable> received_{};  // of the client that has gone: freeing it takes long
  std::size_t hosts_ = 0;
  std::size_t floodSets_ = 0;
};

}  // namespace Agent

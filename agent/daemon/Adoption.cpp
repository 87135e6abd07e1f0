#include "agent/daemon/Adoption.h"

#include <vector>

namespace Agent {

Adoption::Adoption(World& world) : world_(world) {
  // Within one turn, so that readers see nothing of it.
  Kel::ActivityLoop::instance().asHandler([&] {
    std::vector<L2Rib::Host> kept;
    kept.reserve(world.hosts->hosts());
    for (auto host = world.hosts->firstHost(); host; host = world.hosts->nextHost(host->key)) {
      kept.push_back(*host);
    }
    world.clientIs();
    for (const L2Rib::Host& host : kept) {
      if (!world.hosts->hasHost(host.key)) {
        world.hosts->hostIs(host);
      }
    }
  });
}

bool Adoption::clean(std::size_t hosts) {
  // Published together.
  return Kel::ActivityLoop::instance().asHandler([&] {
    const Kel::Ptr<const Vxlan::ReceivedHostTable> received =
        world_.client ? world_.client->hostTable() : nullptr;
    for (; hosts > 0; --hosts) {
      const auto host = last_ ? world_.hosts->nextHost(*last_) : world_.hosts->firstHost();
      if (!host) {
        return false;
      }
      last_ = host->key;
      if (!received || !received->receivedEntry().contains(host->key)) {
        world_.hosts->hostDel(host->key);
      }
    }
    return true;
  });
}

}  // namespace Agent

// The hosts that an earlier run of the agent left in the host table.
#pragma once

#include <cstddef>
#include <optional>

#include "agent/state/World.h"

namespace Agent {

// A new client keeps of the host table only what the inputs publish, and at the start of the
// agent they are empty. This makes the first client so that the hosts of an earlier run stay: they forward
// as before while the inputs come in, what is published in the meantime is written beside them, and when the
// inputs are in and settled, those that nobody publishes any more are removed, some at a time. No reader of
// the table ever misses a host that was published before and is now.
class Adoption {
 public:
  // Makes the client.
  explicit Adoption(World& world);

  // Looks at up to `hosts` hosts, and removes those that the client does not have. Returns whether there are
  // more to be looked at.
  bool clean(std::size_t hosts);

 private:
  World& world_;
  std::optional<Bridging::MacVlanPair> last_;  // looked at
};

}  // namespace Agent

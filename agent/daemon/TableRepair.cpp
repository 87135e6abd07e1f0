#include "agent/daemon/TableRepair.h"

namespace Agent {

void TableRepair::look(bool settled) {
  L2Rib::HostInput& hosts = *world_.hosts;
  if (!hosts.replacing()) {
    return;
  }
  if (hosts.damage() != told_) {
    told_ = hosts.damage();
    tell_(told_ + "; readers keep it until the controller's state is in, then a new one takes its place");
  }
  if (!settled) {
    return;
  }
  if (world_.client && world_.client->hostTable()) {
    // An exporter that is made writes all that is missing, in one piece; the client's own follows the
    // changes.
    Vxlan::receivedHostTableToL2RibHostInputSmFactory(world_.client->hostTable(), world_.hosts);
    if (hosts.hosts() < world_.client->hostTable()->receivedEntrys()) {
      return;  // the new one has refused some, which wait; readers keep what they have until it takes them
    }
  }
  hosts.takePlace();
  told_.clear();
  tell_("the new table has taken the damaged one's place, with " + std::to_string(hosts.hosts()) +
        " hosts; the damaged one is beside it, its name ends with .damaged");
}

}  // namespace Agent

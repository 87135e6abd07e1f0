#include "agent/kernel/VniRenumbering.h"

#include <algorithm>
#include <iterator>

namespace Agent::Kernel {

void VniRenumbering::begin(const BridgeDomain& domain) {
  const Link* old = observed_.links.at(domain.device);
  if (old == nullptr || !observed_.links.ours(*old) || old->master != domain.bridge) {
    return;
  }
  changes_[domain.vlan] = Change{.oldDevice = domain.device, .next = work_.now + options_.renumberPause};
  observed_.mention(domain.device, domain.vlan);
}

bool VniRenumbering::step(const BridgeDomain& domain, Change& change, Batch& out) {
  if (change.cutOver && !change.floodsRemoved && work_.addressesDone(domain.vlan)) {
    change.floodsRemoved = true;
    for (const auto& [mac, flood] : domain.floods) {
      out.add({Key::Kind::link, domain.vlan, static_cast<std::uint64_t>(change.oldDevice)},
              FdbDel{{.table = Table::device, .device = change.oldDevice, .mac = mac}});
    }
  }
  if (work_.now < change.next) {
    return false;
  }
  change.next = work_.now + options_.renumberPause;
  if (!change.cutOver) {
    change.cutOver = domain.ready();
    work_.queueAddresses(domain.vlan);
    return false;
  }
  if (!change.floodsRemoved) {
    return false;
  }
  work_.suspects.insert(change.oldDevice);
  return true;
}

void VniRenumbering::advance(Batch& out) {
  for (auto at = changes_.begin(); at != changes_.end();) {
    const bool over = step(*observed_.find(at->first), at->second, out);
    at = over ? changes_.erase(at) : std::next(at);
  }
}

Time VniRenumbering::next() const {
  Time next = Time::max();
  for (const auto& [vlan, change] : changes_) {
    next = std::min(next, change.cutOver && !change.floodsRemoved ? work_.now : change.next);
  }
  return next;
}

void VniRenumbering::deviceGone(Vlan vlan, IfIndex device) {
  const auto change = changes_.find(vlan);
  if (change != changes_.end() && change->second.oldDevice == device) {
    changes_.erase(change);
    work_.queueAddresses(vlan);
  }
}

bool VniRenumbering::beforeCutOver(Vlan vlan) const {
  const auto change = changes_.find(vlan);
  return change != changes_.end() && !change->second.cutOver;
}

IfIndex VniRenumbering::oldDevice(Vlan vlan) const {
  const auto change = changes_.find(vlan);
  return change == changes_.end() ? 0 : change->second.oldDevice;
}

}  // namespace Agent::Kernel

#include "agent/kernel/Work.h"

#include <utility>

namespace Agent::Kernel {

void Work::queueDevices(Vlan vlan) {
  if (!std::exchange(queued_[vlan].devices, true)) {
    devices_.push_back(vlan);
  }
}

void Work::queueAddresses(Vlan vlan) {
  if (!std::exchange(queued_[vlan].scanFrom, Mac{})) {
    scans_.push_back(vlan);
  }
}

void Work::queue(Vlan vlan, Mac mac, Pending& pending) {
  if (std::exchange(pending.queued, true)) {
    return;
  }
  ++queued_[vlan].addresses;
  addresses_.push_back({mac.group() ? Key::Kind::flood : Key::Kind::host, vlan, mac.bits});
}

Vlan Work::takeDevices() {
  const Vlan vlan = devices_.front();
  devices_.pop_front();
  queued_[vlan].devices = false;
  return vlan;
}

Key Work::takeAddress() {
  const Key key = addresses_.front();
  addresses_.pop_front();
  --queued_[key.vlan].addresses;
  return key;
}

Work::Scan Work::scan() const {
  const Vlan vlan = scans_.front();
  return {vlan, *queued_.at(vlan).scanFrom};
}

void Work::scanGoesOn(Mac from) {
  queued_.at(scans_.front()).scanFrom = from;
}

void Work::scanDone() {
  queued_.at(scans_.front()).scanFrom.reset();
  scans_.pop_front();
}

bool Work::addressesDone(Vlan vlan) const {
  const auto at = queued_.find(vlan);
  return at == queued_.end() || (!at->second.scanFrom && at->second.addresses == 0);
}

}  // namespace Agent::Kernel

#include "agent/kernel/Mappings.h"

#include <algorithm>

namespace Agent::Kernel {

std::vector<Vlan> Mappings::is(Vlan vlan, Mapping mapping) {
  ByVti& claims = claims_[vlan];
  auto [at, added] = claims.try_emplace(mapping.vti);
  Claim& claim = at->second;
  std::set<Vni> vnis{mapping.vni};
  if (added || claim.mapping.vni != mapping.vni) {
    if (!added) {
      vnis.insert(claim.mapping.vni);
      giveUp(vlan, claim.mapping.vni);
    }
    ++claimants_[mapping.vni][vlan];
    claim.age = ++age_;
  }
  claim.mapping = std::move(mapping);
  return resolve(related(vlan, std::move(vnis)));
}

std::vector<Vlan> Mappings::del(Vlan vlan, const std::string& vti) {
  const auto claims = claims_.find(vlan);
  if (claims == claims_.end()) {
    return {};
  }
  const auto claim = claims->second.find(vti);
  if (claim == claims->second.end()) {
    return {};
  }
  const Vni vni = claim->second.mapping.vni;
  const std::set<Vlan> vlans = related(vlan, {vni});
  claims->second.erase(claim);
  if (claims->second.empty()) {
    claims_.erase(claims);
  }
  giveUp(vlan, vni);
  return resolve(vlans);
}

void Mappings::giveUp(Vlan vlan, Vni vni) {
  const auto claimants = claimants_.find(vni);
  if (--claimants->second[vlan] == 0) {
    claimants->second.erase(vlan);
  }
  if (claimants->second.empty()) {
    claimants_.erase(claimants);
  }
}

// The VLANs whose mappings can depend on those of the VLAN and the VNIs: mostly the VLAN alone.
std::set<Vlan> Mappings::related(Vlan vlan, std::set<Vni> vnis) const {
  std::set<Vlan> found{vlan};
  std::vector<Vlan> open{vlan};
  const auto claimedBy = [&](Vni vni) {
    const auto claimants = claimants_.find(vni);
    if (claimants == claimants_.end()) {
      return;
    }
    for (const auto& [claimant, count] : claimants->second) {
      if (found.insert(claimant).second) {
        open.push_back(claimant);
      }
    }
  };
  std::for_each(vnis.begin(), vnis.end(), claimedBy);
  while (!open.empty()) {
    const auto claims = claims_.find(open.back());
    open.pop_back();
    if (claims == claims_.end()) {
      continue;
    }
    for (const auto& [vti, claim] : claims->second) {
      if (vnis.insert(claim.mapping.vni).second) {
        claimedBy(claim.mapping.vni);
      }
    }
  }
  return found;
}

// Later mappings hold before earlier ones.
std::vector<Vlan> Mappings::resolve(const std::set<Vlan>& vlans) {
  std::map<std::uint64_t, std::pair<Vlan, const Mapping*>, std::greater<>> byAge;
  for (const Vlan vlan : vlans) {
    const auto claims = claims_.find(vlan);
    if (claims == claims_.end()) {
      continue;
    }
    for (const auto& [vti, claim] : claims->second) {
      byAge.emplace(claim.age, std::pair(vlan, &claim.mapping));
    }
  }
  std::map<Vlan, const Mapping*> holding;
  std::set<Vni> taken;
  for (const auto& [age, claim] : byAge) {
    const auto& [vlan, mapping] = claim;
    if (!holding.contains(vlan) && taken.insert(mapping->vni).second) {
      holding.emplace(vlan, mapping);
    }
  }
  std::vector<Vlan> changed;
  for (const Vlan vlan : vlans) {
    const auto holds = holding.find(vlan);
    const Mapping* now = holds == holding.end() ? nullptr : holds->second;
    const Mapping* before = find(vlan);
    if (now == nullptr ? before == nullptr : before != nullptr && *before == *now) {
      continue;
    }
    changed.push_back(vlan);
  }
  for (const Vlan vlan : changed) {
    hold(vlan, nullptr);
  }
  for (const Vlan vlan : changed) {
    const auto holds = holding.find(vlan);
    hold(vlan, holds == holding.end() ? nullptr : holds->second);
  }
  std::stable_partition(changed.begin(), changed.end(), [&](Vlan vlan) { return !holding.contains(vlan); });
  return changed;
}

void Mappings::hold(Vlan vlan, const Mapping* mapping) {
  const auto before = held_.find(vlan);
  if (before != held_.end()) {
    vlanOf_.erase(before->second.vni);
    for (const std::string& port : before->second.ports) {
      const auto users = users_.find(port);
      if (users != users_.end() && users->second.erase(vlan) != 0 && users->second.empty()) {
        users_.erase(users);
      }
    }
    held_.erase(before);
  }
  if (mapping == nullptr) {
    return;
  }
  vlanOf_[mapping->vni] = vlan;
  for (const std::string& port : mapping->ports) {
    users_[port].insert(vlan);
  }
  held_.emplace(vlan, *mapping);
}

const Mapping* Mappings::find(Vlan vlan) const {
  const auto at = held_.find(vlan);
  return at == held_.end() ? nullptr : &at->second;
}

std::optional<Vlan> Mappings::vlanOf(Vni vni) const {
  const auto at = vlanOf_.find(vni);
  return at == vlanOf_.end() ? std::nullopt : std::optional(at->second);
}

const std::set<Vlan>& Mappings::usersOf(const std::string& port) const {
  static const std::set<Vlan> none;
  const auto at = users_.find(port);
  return at == users_.end() ? none : at->second;
}

}  // namespace Agent::Kernel

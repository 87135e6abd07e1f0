#include "agent/kernel/Hosts.h"

#include <cerrno>
#include <utility>

namespace Agent::Kernel {

namespace {

Key keyOf(const Domain& domain, Mac mac) {
  return {Key::Kind::host, domain.vlan, mac.bits};
}

}  // namespace

Host& Hosts::host(Domain& domain, Mac mac) {
  require(!mac.group(), "a host has a unicast address");
  auto [at, added] = domain.hosts.try_emplace(mac);
  if (added) {
    at->second.deviceLife = domain.deviceLife;
    at->second.bridgeLife = domain.bridgeLife;
  }
  freshen(domain, at->second);
  return at->second;
}

void Hosts::freshen(const Domain& domain, Host& host) {
  if (host.bridgeLife != domain.bridgeLife) {
    host.bridgeLife = domain.bridgeLife;
    host.port = 0;
    host.portMark = Mark::none;
  }
  if (host.deviceLife == domain.deviceLife) {
    return;
  }
  host.deviceLife = domain.deviceLife;
  host.moved = false;
  there(host, {}, Mark::none);
  if (host.port != 0 && state_.links.at(host.port) == nullptr) {
    host.port = 0;
    host.portMark = Mark::none;
  }
}

void Hosts::there(Host& host, Target target, Mark mark) {
  if (host.there.nexthop != target.nexthop) {
    if (target.nexthop != 0) {
      state_.nexthops.used(target.nexthop, true);
    }
    if (host.there.nexthop != 0) {
      state_.nexthops.used(host.there.nexthop, false);
    }
  }
  host.there = target;
  host.mark = mark;
}

// Where the row is to lead: the flood set's VTEPs if there is one, else the host's. A set of type all cannot
// be had for one address; with a host entry the host's VTEP stands, else any of the set.
void Hosts::wish(Domain& domain, Mac mac, Host& host) {
  auto set = domain.sets.find(mac);
  bool useSet = set != domain.sets.end() && (set->second.type == FloodType::any || !host.vtep);
  std::vector<Ip4> members = useSet ? domain.remote(set->second.vteps) : std::vector<Ip4>{};
  Nexthops::Group* group = nullptr;
  if (!members.empty()) {
    group = state_.nexthops.hold(members);
  } else if (host.vtep) {
    group = state_.nexthops.hold({host.vtep});
  }
  Nexthops::Group* before = std::exchange(host.group, group);
  if (before != nullptr) {
    state_.nexthops.release(before);
  }
  host.adopted = false;
  if (before == group) {
    return;
  }
  host.moved = before != nullptr;
  if (std::exchange(host.yields, false)) {
    state_.failures.cleared(keyOf(domain, mac));
  }
  state_.contention.wanted(keyOf(domain, mac), host.strife);
  state_.queue(domain, mac, host.queued);
}

void Hosts::is(Domain& domain, Mac mac, Ip4 vtep) {
  Host& host = this->host(domain, mac);
  host.vtep = vtep;
  wish(domain, mac, host);
}

void Hosts::del(Domain& domain, Mac mac) {
  auto at = domain.hosts.find(mac);
  if (at == domain.hosts.end()) {
    return;
  }
  at->second.vtep = {};
  wish(domain, mac, at->second);
}

void Hosts::setIs(Domain& domain, Mac mac, FloodSet set) {
  domain.sets[mac] = std::move(set);
  wish(domain, mac, host(domain, mac));
}

void Hosts::setDel(Domain& domain, Mac mac) {
  if (domain.sets.erase(mac) != 0) {
    wish(domain, mac, host(domain, mac));
  }
}

void Hosts::localIs(Domain& domain) {
  for (const auto& [mac, set] : domain.sets) {
    wish(domain, mac, host(domain, mac));
  }
}

Target Hosts::wantedTarget(const Host& host) const {
  Row row;
  state_.nexthops.target(*host.group, row);
  return {row.dst, row.nexthop};
}

void Hosts::rowIs(Domain& domain, const Row& row, bool dumped) {
  if (row.table == Table::bridge && row.learned && !domain.hosts.contains(row.mac)) {
    return;
  }
  Host& host = this->host(domain, row.mac);
  if (host.mark == Mark::none && host.portMark == Mark::none && host.group == nullptr && !state_.settled) {
    host.adopted = true;
  }
  std::uint32_t& seen = row.table == Table::device ? host.seen : host.portSeen;
  if (dumped && seen == state_.dump) {
    return;
  }
  seen = state_.dump;
  if (row.table == Table::device) {
    deviceRowIs(domain, host, row);
  } else {
    bridgeRowIs(domain, host, row, dumped);
  }
  if (differs(domain, host)) {
    if (host.group != nullptr && !state_.adopting) {
      ++state_.counters.repairs;
    }
    state_.queue(domain, row.mac, host.queued);
  } else {
    eraseIfIdle(domain, row.mac, host);
  }
}

// Ours lead to a group of ours or carry the mark; what we had there and somebody changed in place stays ours.
void Hosts::deviceRowIs(Domain& domain, Host& host, const Row& row) {
  bool ours = row.nexthop != 0 ? state_.nexthops.ours(row.nexthop) : row.marked;
  if (host.mark == Mark::ours && host.group != nullptr) {
    ours = true;
  }
  if (host.mark == Mark::foreign && ours) {
    state_.contention.cleared(keyOf(domain, row.mac), host.strife, state_.now);
  }
  host.strife.lost |= host.mark == Mark::ours && host.there != Target{row.dst, row.nexthop};
  there(host, {row.dst, row.nexthop}, ours ? Mark::ours : Mark::foreign);
}

void Hosts::bridgeRowIs(Domain& domain, Host& host, const Row& row, bool dumped) {
  const Link* port = state_.links.at(row.device);
  bool toDevice = row.device == domain.device || (port != nullptr && state_.links.ours(*port));
  Mark before = host.portMark;
  const IfIndex portBefore = std::exchange(host.port, row.device);
  if (row.learned) {
    host.portMark = Mark::learned;
  } else if (row.marked && (toDevice || (before == Mark::ours && host.group != nullptr))) {
    host.portMark = Mark::ours;
  } else {
    host.portMark = Mark::foreign;
  }
  const bool moved = before == Mark::ours && host.portMark != Mark::learned && host.port != portBefore;
  host.strife.lost |= moved || (before == Mark::ours && host.portMark == Mark::foreign);
  if (host.portMark == Mark::ours && std::exchange(host.yields, false)) {
    state_.failures.cleared(keyOf(domain, row.mac));
  }
  if (dumped || host.portMark != Mark::learned || before != Mark::ours || toDevice) {
    return;
  }
  if (host.group == nullptr) {
    return;
  }
  host.yields = true;
  state_.failures.waits(keyOf(domain, row.mac), state_.now, state_.options.yieldFor,
                        "seen at local port " + (port != nullptr ? port->name : std::to_string(row.device)) +
                            " although the controller says VTEP " + host.group->members.front().text());
}

void Hosts::rowDel(Domain& domain, const Row& row) {
  auto at = domain.hosts.find(row.mac);
  if (at == domain.hosts.end()) {
    return;
  }
  Host& host = at->second;
  freshen(domain, host);
  if (row.table == Table::device) {
    host.seen = state_.dump;
    host.strife.lost |= host.mark == Mark::ours;
    there(host, {}, Mark::none);
  } else {
    if (host.port != row.device) {
      return;
    }
    host.strife.lost |= host.portMark == Mark::ours;
    host.portSeen = state_.dump;
    host.port = 0;
    host.portMark = Mark::none;
    host.yields = false;
  }
  if (!differs(domain, host)) {
    eraseIfIdle(domain, row.mac, host);
    return;
  }
  if (host.group != nullptr) {
    ++state_.counters.repairs;
  }
  state_.contention.cleared(keyOf(domain, row.mac), host.strife, state_.now);
  state_.queue(domain, row.mac, host.queued);
}

void Hosts::dumped(Domain& domain, Mac mac) {
  Host& host = domain.hosts.at(mac);
  freshen(domain, host);
  if (host.mark != Mark::none && host.seen != state_.dump) {
    host.strife.lost |= host.mark == Mark::ours;
    there(host, {}, Mark::none);
  }
  if (host.portMark != Mark::none && host.portSeen != state_.dump) {
    host.strife.lost |= host.portMark == Mark::ours;
    host.portMark = Mark::none;
    host.port = 0;
    host.yields = false;
  }
  host.seen = host.portSeen = state_.dump;
  if (!differs(domain, host)) {
    eraseIfIdle(domain, mac, host);
    return;
  }
  if (host.group != nullptr && !state_.adopting && !host.queued &&
      !state_.failures.pausing(keyOf(domain, mac), state_.now)) {
    ++state_.counters.repairs;
  }
  state_.queue(domain, mac, host.queued);
}

bool Hosts::differs(const Domain& domain, const Host& host) const {
  const Mark mark = host.deviceLife == domain.deviceLife ? host.mark : Mark::none;
  const Mark portMark = host.bridgeLife == domain.bridgeLife ? host.portMark : Mark::none;
  if (host.group == nullptr || !domain.mapping) {
    return mark == Mark::ours || portMark == Mark::ours;
  }
  if (mark != Mark::ours || host.there != wantedTarget(host)) {
    return true;
  }
  return portMark != Mark::ours || host.port != domain.device;
}

void Hosts::eraseIfIdle(Domain& domain, Mac mac, Host& host) {
  // During a dump what is known of a row that went guards against older news of it.
  bool needed = state_.dumping || host.vtep || host.group != nullptr || host.queued ||
                host.mark != Mark::none || (host.portMark != Mark::none && host.portMark != Mark::learned);
  if (!needed) {
    domain.hosts.erase(mac);
  }
}

void Hosts::work(Domain& domain, Mac mac, Batch& out) {
  auto at = domain.hosts.find(mac);
  if (at == domain.hosts.end()) {
    return;
  }
  Host& host = at->second;
  if (std::exchange(host.queued, false)) {
    --domain.queuedRows;
  }
  freshen(domain, host);
  Key key = keyOf(domain, mac);
  if (host.group == nullptr || !domain.mapping) {
    workUnwanted(domain, mac, host, out);
    return;
  }
  if (!domain.ready() || state_.contention.holdsBack(key, host.strife, differs(domain, host), state_.now) ||
      state_.failures.pausing(key, state_.now)) {
    return;
  }
  if (!state_.nexthops.ready(*host.group)) {
    state_.failures.failed(key, state_.now, "waits for the nexthop group of its VTEP");
    return;
  }
  bool asked = workDeviceRow(domain, mac, host, out);
  asked = workBridgeRow(domain, mac, host, out) || asked;
  if (!asked && !differs(domain, host)) {
    state_.failures.cleared(key);
  }
}

bool Hosts::workDeviceRow(Domain& domain, Mac mac, Host& host, Batch& out) {
  Target wanted = wantedTarget(host);
  if (host.mark == Mark::ours && host.there == wanted) {
    return false;
  }
  Key key = keyOf(domain, mac);
  if (host.mark == Mark::foreign) {
    state_.failures.waits(key, state_.now, state_.options.retryMost,
                          "the VXLAN device has a row of somebody else for it");
    return false;
  }
  Row row{Table::device, domain.device, 0, mac, wanted.dst, wanted.nexthop, true, false};
  auto how = RowAdd::How::create;
  if (host.mark == Mark::ours) {
    if ((host.there.nexthop != 0) == (wanted.nexthop != 0)) {
      how = RowAdd::How::replace;
    } else {
      out.add(key, RowDel{{Table::device, domain.device, 0, mac, {}, 0, false, false}});
    }
  }
  out.add(key, RowAdd{how, row});
  return true;
}

bool Hosts::workBridgeRow(Domain& domain, Mac mac, Host& host, Batch& out) {
  if (host.portMark == Mark::ours && host.port == domain.device) {
    return false;
  }
  if (domain.turning() && host.portMark == Mark::ours && host.port == domain.turn->previous && !host.moved) {
    return false;
  }
  if (host.portMark == Mark::learned && std::exchange(host.yields, false)) {
    state_.failures.cleared(keyOf(domain, mac));
  }
  Key key = keyOf(domain, mac);
  if (host.portMark == Mark::foreign) {
    state_.failures.waits(key, state_.now, state_.options.retryMost,
                          "the bridge has a row of somebody else for it");
    return false;
  }
  out.add(key, RowAdd{RowAdd::How::replace,
                      {Table::bridge, domain.device, domain.bridge, mac, {}, 0, true, false}});
  return true;
}

void Hosts::workUnwanted(Domain& domain, Mac mac, Host& host, Batch& out) {
  Key key = keyOf(domain, mac);
  state_.failures.cleared(key);
  if (host.adopted && !state_.settled) {
    return;
  }
  const Link* device = state_.links.at(domain.device);
  // Without a mapping a device of ours goes as a whole.
  if (!domain.mapping && (device == nullptr || state_.links.ours(*device))) {
    eraseIfIdle(domain, mac, host);
    return;
  }
  if (host.portMark == Mark::ours && host.port != 0) {
    out.add(key, RowDel{{Table::bridge, host.port, domain.bridge, mac, {}, 0, false, false}});
  }
  if (host.mark == Mark::ours && domain.device != 0) {
    out.add(key, RowDel{{Table::device, domain.device, 0, mac, {}, 0, false, false}});
  }
  eraseIfIdle(domain, mac, host);
}

void Hosts::answeredAdd(Domain& domain, Host& host, const Row& row) {
  if (row.table == Table::bridge) {
    host.portMark = Mark::ours;
    host.port = row.device;
    host.portSeen = state_.dump;
  } else if (row.device == domain.device) {
    there(host, {row.dst, row.nexthop}, Mark::ours);
    host.seen = state_.dump;
  }
}

void Hosts::answered(const Request& request, const Key& key, int error, std::string_view text) {
  Domain* domain = state_.find(key.vlan);
  if (domain == nullptr) {
    return;
  }
  Mac mac{key.id};
  auto at = domain->hosts.find(mac);
  if (at == domain->hosts.end()) {
    return;
  }
  Host& host = at->second;
  freshen(*domain, host);
  if (const auto* del = std::get_if<RowDel>(&request)) {
    if (error == 0 || error == ENOENT || error == ENODEV) {
      if (del->row.table == Table::device) {
        there(host, {}, Mark::none);
        host.seen = state_.dump;
      } else if (host.port == del->row.device) {
        host.portMark = Mark::none;
        host.port = 0;
        host.portSeen = state_.dump;
      }
    } else {
      state_.failures.failed(key, state_.now, std::string(text));
    }
  } else if (error == 0) {
    answeredAdd(*domain, host, std::get<RowAdd>(request).row);
  } else {
    state_.failures.failed(key, state_.now, std::string(text));
    if (error == EEXIST || error == ENOENT || error == EOPNOTSUPP) {
      state_.auditWanted = true;
    }
    return;
  }
  if (host.group != nullptr && !differs(*domain, host)) {
    state_.failures.cleared(key);
  }
  eraseIfIdle(*domain, mac, host);
}

}  // namespace Agent::Kernel

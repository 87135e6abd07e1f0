#include "FakeKernel.h"

#include <algorithm>
#include <cerrno>

namespace Agent::Kernel::Test {

namespace {
constexpr std::size_t rowsInPart = 7;
}

IfIndex FakeKernel::port(const std::string& name) {
  IfIndex index = nextIndex_++;
  links_[index] = Link{.index = index, .name = name, .up = true};
  reportLink(index);
  return index;
}

void FakeKernel::deleteLink(IfIndex index) {
  (void)apply(LinkDel{index});
}

void FakeKernel::rename(IfIndex index, const std::string& name) {
  links_.at(index).name = name;
  reportLink(index);
}

void FakeKernel::portLearningIs(IfIndex port, bool learning) {
  Link& link = links_.at(port);
  link.portLearning = learning;
  report([told = BridgePort{port, link.master, learning, link.portIsolated}](Engine& engine) {
    engine.portIs(told);
  });
}

const Link* FakeKernel::link(const std::string& name) const {
  for (const auto& [index, link] : links_) {
    if (link.name == name) {
      return &link;
    }
  }
  return nullptr;
}

void FakeKernel::reconnect() {
  reports_.clear();
  lost_ = false;
  dumping_ = false;
}

void FakeKernel::report(std::function<void(Engine&)> tell) {
  if (reports_.size() >= reportLimit_) {
    lost_ = true;
    return;
  }
  reports_.push_back({std::move(tell)});
}

void FakeKernel::reportLink(IfIndex index) {
  report([link = links_.at(index)](Engine& engine) { engine.linkIs(link); });
}

void FakeKernel::reportEntry(const FdbEntry& entry, bool gone) {
  report([entry, gone](Engine& engine) { gone ? engine.entryDel(entry) : engine.entryIs(entry, false); });
}

FdbEntry FakeKernel::entryOf(const std::pair<IfIndex, Mac>& key, const DeviceEntry& entry, Ip4 dst) const {
  return {Table::device, key.first, 0, key.second, dst, entry.nexthop, entry.marked, false};
}

void FakeKernel::learn(IfIndex bridge, IfIndex port, Mac mac) {
  bridgeEntries_[{bridge, mac}] = {port, false, true};
  reportEntry({Table::bridge, port, bridge, mac, {}, 0, false, true}, false);
}

void FakeKernel::age(IfIndex bridge, Mac mac) {
  auto at = bridgeEntries_.find({bridge, mac});
  if (at == bridgeEntries_.end()) {
    return;
  }
  FdbEntry entry{Table::bridge, at->second.port, bridge, mac, {}, 0, at->second.marked, at->second.learned};
  bridgeEntries_.erase(at);
  reportEntry(entry, true);
}

void FakeKernel::dropEntries(IfIndex device) {
  for (auto at = deviceEntries_.begin(); at != deviceEntries_.end();) {
    if (at->first.first != device) {
      ++at;
      continue;
    }
    std::vector<Ip4> dsts = at->second.dsts;
    if (dsts.empty()) {
      dsts.emplace_back();
    }
    for (Ip4 dst : dsts) {
      reportEntry(entryOf(at->first, at->second, dst), true);
    }
    at = deviceEntries_.erase(at);
  }
}

void FakeKernel::dropPort(IfIndex port) {
  for (auto at = bridgeEntries_.begin(); at != bridgeEntries_.end();) {
    if (at->second.port != port) {
      ++at;
      continue;
    }
    reportEntry({Table::bridge, port, at->first.first, at->first.second, {}, 0, at->second.marked, false},
                true);
    at = bridgeEntries_.erase(at);
  }
}

// Silently: the kernel does not report the rows that go with a group.
void FakeKernel::dropGroup(NexthopId id) {
  for (const auto& [key, entry] : deviceEntries_) {
    if (entry.nexthop == id) {
      gaps_.push_back(links_.at(key.first).name + " " + key.second.text());
    }
  }
  std::erase_if(deviceEntries_, [id](const auto& entry) { return entry.second.nexthop == id; });
  nexthops_.erase(id);
}

int FakeKernel::apply(const Request& request) {
  return std::visit(
      [this](const auto& what) {
        using What = std::decay_t<decltype(what)>;
        if constexpr (std::is_same_v<What, FdbGet> || std::is_same_v<What, Dump>) {
          return EINVAL;
        } else {
          return work(what);
        }
      },
      request);
}

int FakeKernel::work(const LinkAdd& add) {
  for (const auto& [index, link] : links_) {
    if (link.name == add.name) {
      return EEXIST;
    }
    if (add.kind == LinkKind::vxlan && link.vni == add.vni && link.port == add.port) {
      return EEXIST;
    }
  }
  IfIndex index = nextIndex_++;
  links_[index] = Link{.index = index,
                       .name = add.name,
                       .kind = add.kind,
                       .master = add.master,
                       .up = add.kind == LinkKind::bridge,
                       .group = add.group,
                       .vni = add.vni,
                       .local = add.local,
                       .port = add.port};
  reportLink(index);
  return 0;
}

int FakeKernel::work(const LinkSet& set) {
  auto at = links_.find(set.index);
  if (at == links_.end()) {
    return ENODEV;
  }
  Link& link = at->second;
  if (set.alias) {
    link.alias = *set.alias;
  }
  if (set.group) {
    link.group = *set.group;
  }
  if (set.up) {
    link.up = *set.up;
  }
  if (set.local) {
    link.local = *set.local;
  }
  if (set.learning) {
    link.learning = *set.learning;
  }
  if (set.master) {
    if (link.master != *set.master) {
      dropPort(link.index);
    }
    link.master = *set.master;
  }
  if ((set.portLearning || set.portIsolated) && link.master == 0) {
    return EOPNOTSUPP;
  }
  if (set.portLearning) {
    link.portLearning = *set.portLearning;
  }
  if (set.portIsolated) {
    link.portIsolated = *set.portIsolated;
  }
  reportLink(link.index);
  return 0;
}

int FakeKernel::work(const LinkDel& del) {
  auto at = links_.find(del.index);
  if (at == links_.end()) {
    return ENODEV;
  }
  dropPort(del.index);
  for (auto& [index, link] : links_) {
    if (link.master != del.index) {
      continue;
    }
    dropPort(index);
    link.master = 0;
    reportLink(index);
  }
  for (const auto& [key, entry] : deviceEntries_) {
    if (key.first == del.index) {
      gaps_.push_back(at->second.name + " " + key.second.text());
    }
  }
  dropEntries(del.index);
  links_.erase(at);
  report([index = del.index](Engine& engine) { engine.linkDel(index); });
  return 0;
}

int FakeKernel::work(const NexthopSet& set) {
  if (!nexthopsSupported_) {
    return EOPNOTSUPP;
  }
  auto at = nexthops_.find(set.nexthop.id);
  if (at != nexthops_.end() && at->second.members.empty() != set.nexthop.members.empty()) {
    return EINVAL;
  }
  for (NexthopId member : set.nexthop.members) {
    auto found = nexthops_.find(member);
    if (found == nexthops_.end() || !found->second.members.empty()) {
      return EINVAL;
    }
  }
  nexthops_[set.nexthop.id] = set.nexthop;
  report([nexthop = set.nexthop](Engine& engine) { engine.nexthopIs(nexthop); });
  return 0;
}

int FakeKernel::work(const NexthopDel& del) {
  auto at = nexthops_.find(del.id);
  if (at == nexthops_.end()) {
    return ENOENT;
  }
  if (!at->second.members.empty()) {
    dropGroup(del.id);
  } else {
    nexthops_.erase(at);
    std::vector<NexthopId> empty;
    for (auto& [id, group] : nexthops_) {
      if (std::erase(group.members, del.id) != 0 && group.members.empty()) {
        empty.push_back(id);
      }
    }
    for (NexthopId id : empty) {
      dropGroup(id);
    }
  }
  report([id = del.id](Engine& engine) { engine.nexthopDel(id); });
  return 0;
}

int FakeKernel::work(const FdbAdd& add) {
  if (add.entry.table == Table::device) {
    return addToDevice(add);
  }
  auto port = links_.find(add.entry.device);
  if (port == links_.end()) {
    return ENODEV;
  }
  if (port->second.master == 0 || port->second.master != add.entry.bridge) {
    return EINVAL;
  }
  BridgeEntry& entry = bridgeEntries_[{add.entry.bridge, add.entry.mac}];
  entry = {add.entry.device, add.entry.marked, false};
  reportEntry({Table::bridge, entry.port, add.entry.bridge, add.entry.mac, {}, 0, entry.marked, false},
              false);
  return 0;
}

int FakeKernel::addToDevice(const FdbAdd& add) {
  auto device = links_.find(add.entry.device);
  if (device == links_.end() || device->second.kind != LinkKind::vxlan) {
    return ENODEV;
  }
  if (add.entry.nexthop != 0) {
    auto group = nexthops_.find(add.entry.nexthop);
    if (group == nexthops_.end() || group->second.members.empty()) {
      return EINVAL;
    }
  }
  std::pair<IfIndex, Mac> key{add.entry.device, add.entry.mac};
  auto at = deviceEntries_.find(key);
  bool grouped = add.entry.mac.group();
  if (at != deviceEntries_.end()) {
    DeviceEntry& entry = at->second;
    if (add.how == FdbAdd::How::create) {
      return EEXIST;
    }
    if (add.how == FdbAdd::How::append && !grouped) {
      return 0;
    }
    if ((entry.nexthop != 0) != (add.entry.nexthop != 0)) {
      return EOPNOTSUPP;
    }
    if (add.how == FdbAdd::How::append) {
      if (entry.nexthop != 0) {
        return EOPNOTSUPP;
      }
      if (std::find(entry.dsts.begin(), entry.dsts.end(), add.entry.dst) != entry.dsts.end()) {
        return 0;
      }
      entry.dsts.push_back(add.entry.dst);
    } else {
      if (grouped) {
        return EOPNOTSUPP;
      }
      entry.nexthop = add.entry.nexthop;
      if (add.entry.dst) {
        entry.dsts = {add.entry.dst};
      }
    }
    entry.marked = add.entry.marked;
    reportEntry(entryOf(key, entry, add.entry.dst), false);
    return 0;
  }
  DeviceEntry entry{{}, add.entry.nexthop, add.entry.marked};
  if (add.entry.dst) {
    entry.dsts = {add.entry.dst};
  }
  deviceEntries_[key] = entry;
  reportEntry(entryOf(key, entry, add.entry.dst), false);
  return 0;
}

int FakeKernel::work(const FdbDel& del) {
  if (del.entry.table == Table::device) {
    return deleteFromDevice(del.entry);
  }
  for (auto& [key, entry] : bridgeEntries_) {
    if (key.second != del.entry.mac || entry.port != del.entry.device) {
      continue;
    }
    age(key.first, key.second);
    return 0;
  }
  return links_.contains(del.entry.device) ? ENOENT : ENODEV;
}

int FakeKernel::deleteFromDevice(const FdbEntry& entry) {
  if (!links_.contains(entry.device)) {
    return ENODEV;
  }
  auto at = deviceEntries_.find({entry.device, entry.mac});
  if (at == deviceEntries_.end()) {
    return ENOENT;
  }
  if (entry.dst) {
    if (std::erase(at->second.dsts, entry.dst) == 0) {
      return ENOENT;
    }
    reportEntry(entryOf(at->first, at->second, entry.dst), true);
    if (!at->second.dsts.empty()) {
      return 0;
    }
  } else {
    reportEntry(entryOf(at->first, at->second, at->second.dsts.empty() ? Ip4{} : at->second.dsts.front()),
                true);
  }
  gaps_.push_back(links_.at(entry.device).name + " " + entry.mac.text());
  deviceEntries_.erase(at);
  return 0;
}

void FakeKernel::beginDump(Dump::What what) {
  dumping_ = true;
  dumped_ = what;
  part_.clear();
  partIsLast_ = what != Dump::What::entries;
  deviceCursor_ = bridgeCursor_ = {0, Mac{}};
  if (what == Dump::What::links) {
    for (const auto& [index, link] : links_) {
      part_.push_back([link = link](Engine& e) { e.linkIs(link); });
    }
  } else if (what == Dump::What::nexthops) {
    for (const auto& [id, nexthop] : nexthops_) {
      part_.push_back([n = nexthop](Engine& e) { e.nexthopIs(n); });
    }
  }
}

void FakeKernel::dumpPart(Engine& engine) {
  for (auto& tell : std::exchange(part_, {})) {
    tell(engine);
  }
  if (partIsLast_) {
    dumping_ = false;
    engine.dumpEnd(true);
    return;
  }
  auto device = deviceEntries_.lower_bound(deviceCursor_);
  for (; device != deviceEntries_.end() && part_.size() < rowsInPart; ++device) {
    std::vector<Ip4> dsts = device->second.dsts;
    if (dsts.empty()) {
      dsts.emplace_back();
    }
    for (Ip4 dst : dsts) {
      part_.push_back(
          [entry = entryOf(device->first, device->second, dst)](Engine& e) { e.entryIs(entry, true); });
    }
  }
  deviceCursor_ = device == deviceEntries_.end() ? std::pair{IfIndex{1} << 30U, Mac{}} : device->first;
  if (!part_.empty()) {
    return;
  }
  auto bridge = bridgeEntries_.lower_bound(bridgeCursor_);
  for (; bridge != bridgeEntries_.end() && part_.size() < rowsInPart; ++bridge) {
    FdbEntry entry{
        Table::bridge,         bridge->second.port,   bridge->first.first, bridge->first.second, {}, 0,
        bridge->second.marked, bridge->second.learned};
    part_.push_back([entry](Engine& e) { e.entryIs(entry, true); });
  }
  bridgeCursor_ = bridge == bridgeEntries_.end() ? std::pair{IfIndex{1} << 30U, Mac{}} : bridge->first;
  partIsLast_ = part_.empty();
}

bool FakeKernel::turn(Engine& engine, Time now) {
  engine.timeIs(now);
  bool happened = !reports_.empty() || dumping_ || lost_;
  if (dumping_) {
    dumpPart(engine);
  }
  while (!reports_.empty()) {
    Report report = std::move(reports_.front());
    reports_.pop_front();
    report.tell(engine);
  }
  if (std::exchange(lost_, false)) {
    engine.overrun();
  }
  const Batch& batch = engine.batch();
  for (std::size_t at = 0; at < batch.size(); ++at) {
    happened = true;
    ++requests_;
    const Request& request = batch.requests()[at];
    if (const auto* dump = std::get_if<Dump>(&request)) {
      if (dump->what == Dump::What::nexthops && !nexthopsSupported_) {
        engine.dumpFailed(EOPNOTSUPP, "Operation not supported");
      } else {
        beginDump(dump->what);
      }
      continue;
    }
    int error = refusal_ ? refusal_(request) : 0;
    if (error == 0) {
      error = apply(request);
    }
    engine.answered(at, error, error == 0 ? "" : "refused with " + std::to_string(error));
  }
  return happened;
}

void FakeKernel::run(Engine& engine, Time now) {
  while (turn(engine, now) || engine.moreWork()) {
  }
}

std::string FakeKernel::leadsTo(const DeviceEntry& entry) const {
  std::set<Ip4> vteps(entry.dsts.begin(), entry.dsts.end());
  auto group = nexthops_.find(entry.nexthop);
  if (group != nexthops_.end()) {
    for (NexthopId member : group->second.members) {
      vteps.insert(nexthops_.at(member).gateway);
    }
  }
  std::string out;
  for (Ip4 vtep : vteps) {
    out.append(out.empty() ? "" : " ").append(vtep.text());
  }
  return out;
}

std::string FakeKernel::text() const {
  std::set<std::string> lines;
  for (const auto& [index, link] : links_) {
    auto master = links_.find(link.master);
    lines.insert("link " + link.name + (master != links_.end() ? " in " + master->second.name : ""));
  }
  for (const auto& [key, entry] : deviceEntries_) {
    std::string way = entry.nexthop != 0 ? (key.second.group() ? " any " : " via ") : " dst ";
    lines.insert("row " + links_.at(key.first).name + " " + key.second.text() + way + leadsTo(entry));
  }
  for (const auto& [key, entry] : bridgeEntries_) {
    lines.insert("row " + links_.at(key.first).name + " " + key.second.text() + " port " +
                 links_.at(entry.port).name);
  }
  std::string out;
  for (const std::string& line : lines) {
    out += line + "\n";
  }
  return out;
}

}  // namespace Agent::Kernel::Test

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

void FakeKernel::reportRow(const Row& row, bool gone) {
  report([row, gone](Engine& engine) { gone ? engine.rowDel(row) : engine.rowIs(row, false); });
}

Row FakeKernel::rowOf(const std::pair<IfIndex, Mac>& key, const DeviceRow& row, Ip4 dst) const {
  return {Table::device, key.first, 0, key.second, dst, row.nexthop, row.marked, false};
}

void FakeKernel::learn(IfIndex bridge, IfIndex port, Mac mac) {
  bridgeRows_[{bridge, mac}] = {port, false, true};
  reportRow({Table::bridge, port, bridge, mac, {}, 0, false, true}, false);
}

void FakeKernel::age(IfIndex bridge, Mac mac) {
  auto at = bridgeRows_.find({bridge, mac});
  if (at == bridgeRows_.end()) {
    return;
  }
  Row row{Table::bridge, at->second.port, bridge, mac, {}, 0, at->second.marked, at->second.learned};
  bridgeRows_.erase(at);
  reportRow(row, true);
}

void FakeKernel::dropRows(IfIndex device) {
  for (auto at = deviceRows_.begin(); at != deviceRows_.end();) {
    if (at->first.first != device) {
      ++at;
      continue;
    }
    std::vector<Ip4> dsts = at->second.dsts;
    if (dsts.empty()) {
      dsts.emplace_back();
    }
    for (Ip4 dst : dsts) {
      reportRow(rowOf(at->first, at->second, dst), true);
    }
    at = deviceRows_.erase(at);
  }
}

void FakeKernel::dropPort(IfIndex port) {
  for (auto at = bridgeRows_.begin(); at != bridgeRows_.end();) {
    if (at->second.port != port) {
      ++at;
      continue;
    }
    reportRow({Table::bridge, port, at->first.first, at->first.second, {}, 0, at->second.marked, false},
              true);
    at = bridgeRows_.erase(at);
  }
}

// Silently: the kernel does not report the rows that go with a group.
void FakeKernel::dropGroup(NexthopId id) {
  for (const auto& [key, row] : deviceRows_) {
    if (row.nexthop == id) {
      gaps_.push_back(links_.at(key.first).name + " " + key.second.text());
    }
  }
  std::erase_if(deviceRows_, [id](const auto& entry) { return entry.second.nexthop == id; });
  nexthops_.erase(id);
}

int FakeKernel::apply(const Request& request) {
  return std::visit(
      [this](const auto& what) {
        using What = std::decay_t<decltype(what)>;
        if constexpr (std::is_same_v<What, RowGet> || std::is_same_v<What, Dump>) {
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
  for (const auto& [key, row] : deviceRows_) {
    if (key.first == del.index) {
      gaps_.push_back(at->second.name + " " + key.second.text());
    }
  }
  dropRows(del.index);
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

int FakeKernel::work(const RowAdd& add) {
  if (add.row.table == Table::device) {
    return addToDevice(add);
  }
  auto port = links_.find(add.row.device);
  if (port == links_.end()) {
    return ENODEV;
  }
  if (port->second.master == 0 || port->second.master != add.row.bridge) {
    return EINVAL;
  }
  BridgeRow& row = bridgeRows_[{add.row.bridge, add.row.mac}];
  row = {add.row.device, add.row.marked, false};
  reportRow({Table::bridge, row.port, add.row.bridge, add.row.mac, {}, 0, row.marked, false}, false);
  return 0;
}

int FakeKernel::addToDevice(const RowAdd& add) {
  auto device = links_.find(add.row.device);
  if (device == links_.end() || device->second.kind != LinkKind::vxlan) {
    return ENODEV;
  }
  if (add.row.nexthop != 0) {
    auto group = nexthops_.find(add.row.nexthop);
    if (group == nexthops_.end() || group->second.members.empty()) {
      return EINVAL;
    }
  }
  std::pair<IfIndex, Mac> key{add.row.device, add.row.mac};
  auto at = deviceRows_.find(key);
  bool grouped = add.row.mac.group();
  if (at != deviceRows_.end()) {
    DeviceRow& row = at->second;
    if (add.how == RowAdd::How::create) {
      return EEXIST;
    }
    if (add.how == RowAdd::How::append && !grouped) {
      return 0;
    }
    if ((row.nexthop != 0) != (add.row.nexthop != 0)) {
      return EOPNOTSUPP;
    }
    if (add.how == RowAdd::How::append) {
      if (row.nexthop != 0) {
        return EOPNOTSUPP;
      }
      if (std::find(row.dsts.begin(), row.dsts.end(), add.row.dst) != row.dsts.end()) {
        return 0;
      }
      row.dsts.push_back(add.row.dst);
    } else {
      if (grouped) {
        return EOPNOTSUPP;
      }
      row.nexthop = add.row.nexthop;
      if (add.row.dst) {
        row.dsts = {add.row.dst};
      }
    }
    row.marked = add.row.marked;
    reportRow(rowOf(key, row, add.row.dst), false);
    return 0;
  }
  DeviceRow row{{}, add.row.nexthop, add.row.marked};
  if (add.row.dst) {
    row.dsts = {add.row.dst};
  }
  deviceRows_[key] = row;
  reportRow(rowOf(key, row, add.row.dst), false);
  return 0;
}

int FakeKernel::work(const RowDel& del) {
  if (del.row.table == Table::device) {
    return deleteFromDevice(del.row);
  }
  for (auto& [key, row] : bridgeRows_) {
    if (key.second != del.row.mac || row.port != del.row.device) {
      continue;
    }
    age(key.first, key.second);
    return 0;
  }
  return links_.contains(del.row.device) ? ENOENT : ENODEV;
}

int FakeKernel::deleteFromDevice(const Row& row) {
  if (!links_.contains(row.device)) {
    return ENODEV;
  }
  auto at = deviceRows_.find({row.device, row.mac});
  if (at == deviceRows_.end()) {
    return ENOENT;
  }
  if (row.dst) {
    if (std::erase(at->second.dsts, row.dst) == 0) {
      return ENOENT;
    }
    reportRow(rowOf(at->first, at->second, row.dst), true);
    if (!at->second.dsts.empty()) {
      return 0;
    }
  } else {
    reportRow(rowOf(at->first, at->second, at->second.dsts.empty() ? Ip4{} : at->second.dsts.front()), true);
  }
  gaps_.push_back(links_.at(row.device).name + " " + row.mac.text());
  deviceRows_.erase(at);
  return 0;
}

void FakeKernel::beginDump(Dump::What what) {
  dumping_ = true;
  dumped_ = what;
  part_.clear();
  partIsLast_ = what != Dump::What::rows;
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
  auto device = deviceRows_.lower_bound(deviceCursor_);
  for (; device != deviceRows_.end() && part_.size() < rowsInPart; ++device) {
    std::vector<Ip4> dsts = device->second.dsts;
    if (dsts.empty()) {
      dsts.emplace_back();
    }
    for (Ip4 dst : dsts) {
      part_.push_back([row = rowOf(device->first, device->second, dst)](Engine& e) { e.rowIs(row, true); });
    }
  }
  deviceCursor_ = device == deviceRows_.end() ? std::pair{IfIndex{1} << 30U, Mac{}} : device->first;
  if (!part_.empty()) {
    return;
  }
  auto bridge = bridgeRows_.lower_bound(bridgeCursor_);
  for (; bridge != bridgeRows_.end() && part_.size() < rowsInPart; ++bridge) {
    Row row{Table::bridge,         bridge->second.port,   bridge->first.first, bridge->first.second, {}, 0,
            bridge->second.marked, bridge->second.learned};
    part_.push_back([row](Engine& e) { e.rowIs(row, true); });
  }
  bridgeCursor_ = bridge == bridgeRows_.end() ? std::pair{IfIndex{1} << 30U, Mac{}} : bridge->first;
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

std::string FakeKernel::leadsTo(const DeviceRow& row) const {
  std::set<Ip4> vteps(row.dsts.begin(), row.dsts.end());
  auto group = nexthops_.find(row.nexthop);
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
  for (const auto& [key, row] : deviceRows_) {
    std::string way = row.nexthop != 0 ? (key.second.group() ? " any " : " via ") : " dst ";
    lines.insert("row " + links_.at(key.first).name + " " + key.second.text() + way + leadsTo(row));
  }
  for (const auto& [key, row] : bridgeRows_) {
    lines.insert("row " + links_.at(key.first).name + " " + key.second.text() + " port " +
                 links_.at(row.port).name);
  }
  std::string out;
  for (const std::string& line : lines) {
    out += line + "\n";
  }
  return out;
}

}  // namespace Agent::Kernel::Test

#pragma once

#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "agent/kernel/Engine.h"

namespace Agent::Kernel::Test {

// A model of the kernel's rules for bridges, VXLAN devices, forwarding rows and nexthops, as they were tried
// on a real one: what is refused, what is replaced in place, what disappears silently, what is reported.
// Dumps are delivered in parts between which the world goes on; reports queue up to a limit and are then
// lost.
class FakeKernel {
 public:
  struct DeviceEntry {
    std::vector<Ip4> dsts;
    NexthopId nexthop = 0;
    bool marked = false;
  };
  struct BridgeEntry {
    IfIndex port = 0;
    bool marked = false;
    bool learned = false;
  };
  using DeviceEntries = std::map<std::pair<IfIndex, Mac>, DeviceEntry>;
  using BridgeEntries = std::map<std::pair<IfIndex, Mac>, BridgeEntry>;

  // What the tests do to it, or have others do.
  IfIndex port(const std::string& name);
  void deleteLink(IfIndex index);
  void rename(IfIndex index, const std::string& name);
  // What `bridge link set` does: the bridge reports its port, and the device nothing.
  void portLearningIs(IfIndex port, bool learning);
  int apply(const Request& request);
  void learn(IfIndex bridge, IfIndex port, Mac mac);
  void age(IfIndex bridge, Mac mac);
  void reportLimitIs(std::size_t limit) { reportLimit_ = limit; }
  // Nobody hears that reports were lost.
  void forgetLoss() { lost_ = false; }
  // Decides which requests of the engine are refused, and with what; 0 lets them through.
  void refusalIs(std::function<int(const Request&)> refusal) { refusal_ = std::move(refusal); }
  void nexthopsAre(bool supported) { nexthopsSupported_ = supported; }

  // Another engine talks to it from now on, and hears nothing of what the last was to hear.
  void reconnect();
  // Lets the engine talk to it until both have nothing more to say, at the time `now`.
  void run(Engine& engine, Time now);
  // One turn of that; returns whether anything happened.
  bool turn(Engine& engine, Time now);

  const Link* link(const std::string& name) const;
  const std::map<IfIndex, Link>& links() const { return links_; }
  const DeviceEntries& deviceEntries() const { return deviceEntries_; }
  const BridgeEntries& bridgeEntries() const { return bridgeEntries_; }
  const std::map<NexthopId, Nexthop>& nexthops() const { return nexthops_; }
  // The VTEPs that a row leads to, through its group if it has one, such as "10.0.0.2 10.0.0.3".
  std::string leadsTo(const DeviceEntry& entry) const;
  // All that can be seen of it: devices, rows and the VTEPs that they lead to; one line each, sorted.
  std::string text() const;
  // Addresses whose row disappeared at some moment: "vx5010 02:..".
  const std::vector<std::string>& gaps() const { return gaps_; }
  void forgetGaps() { gaps_.clear(); }
  std::size_t requestCount() const { return requests_; }
  // A dump of rows has begun and is not over.
  bool dumpingEntries() const { return dumping_ && dumped_ == Dump::What::entries; }

 private:
  struct Report {
    std::function<void(Engine&)> tell;
  };

  void report(std::function<void(Engine&)> tell);
  void reportLink(IfIndex index);
  void reportEntry(const FdbEntry& entry, bool gone);
  FdbEntry entryOf(const std::pair<IfIndex, Mac>& key, const DeviceEntry& entry, Ip4 dst) const;
  void dropEntries(IfIndex device);
  void dropPort(IfIndex port);
  void dropGroup(NexthopId id);
  int work(const LinkAdd& add);
  int work(const LinkSet& set);
  int work(const LinkDel& del);
  int work(const NexthopSet& set);
  int work(const NexthopDel& del);
  int work(const FdbAdd& add);
  int work(const FdbDel& del);
  int addToDevice(const FdbAdd& add);
  int deleteFromDevice(const FdbEntry& entry);
  void beginDump(Dump::What what);
  void dumpPart(Engine& engine);

  std::map<IfIndex, Link> links_;
  DeviceEntries deviceEntries_;
  BridgeEntries bridgeEntries_;
  std::map<NexthopId, Nexthop> nexthops_;
  std::deque<Report> reports_;
  std::size_t reportLimit_ = 100000;
  bool lost_ = false;
  bool nexthopsSupported_ = true;
  std::function<int(const Request&)> refusal_;
  IfIndex nextIndex_ = 2;
  std::vector<std::string> gaps_;
  std::size_t requests_ = 0;
  // The dump under way: the next part's rows were put together when the last part was read.
  bool dumping_ = false;
  Dump::What dumped_ = Dump::What::links;
  std::vector<std::function<void(Engine&)>> part_;
  std::pair<IfIndex, Mac> deviceCursor_;
  std::pair<IfIndex, Mac> bridgeCursor_;
  bool partIsLast_ = false;
};

}  // namespace Agent::Kernel::Test

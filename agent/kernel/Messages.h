#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "agent/kernel/Types.h"

// Requests to the kernel and its reports, in terms of the data plane. Wire.h translates them to and from
// netlink messages; the tests' model of the kernel takes them as they are.
namespace Agent::Kernel {

enum class LinkKind : std::uint8_t { other, bridge, vxlan };

// A network device as the kernel describes it.
struct Link {
  IfIndex index = 0;
  std::string name{};
  LinkKind kind = LinkKind::other;
  std::string alias{};
  IfIndex master = 0;
  bool up = false;
  std::uint32_t group = 0;
  // Of a VXLAN device:
  Vni vni = 0;
  Ip4 local{};
  std::uint16_t port = 0;
  bool learning = false;  // The device learns senders' VTEPs by itself.
  // Of a bridge's port:
  bool portLearning = true;   // The bridge learns source addresses on this port.
  bool portIsolated = false;  // The bridge does not forward between isolated ports.
};

// The two FDB tables that a remote host is in: the VXLAN device's own, and that of the bridge above it.
enum class Table : std::uint8_t { device, bridge };

// A forwarding database (FDB) entry. In the device's table it leads to a VTEP or to a nexthop group, in the
// bridge's to a port.
struct FdbEntry {
  Table table = Table::device;
  IfIndex device = 0;  // The VXLAN device, or the bridge's port.
  IfIndex bridge = 0;  // In the bridge's table: the bridge.
  Mac mac{};
  Ip4 dst{};
  NexthopId nexthop = 0;
  bool marked = false;   // Put there by a control plane ("extern_learn").
  bool learned = false;  // Learned from traffic by the kernel itself.
};

// A nexthop for FDB entries: one VTEP, or a group of VTEPs.
struct Nexthop {
  NexthopId id = 0;
  std::uint8_t protocol = 0;
  bool fdb = false;
  Ip4 gateway{};
  std::vector<NexthopId> members{};
};

// Makes a device. A bridge is made up; a VXLAN device is made down, to be set up when it is complete.
struct LinkAdd {
  std::string name{};
  LinkKind kind = LinkKind::bridge;
  IfIndex master = 0;
  Vni vni = 0;
  Ip4 local{};
  std::uint16_t port = 0;
  std::uint32_t group = 0;
};

// A bridge's report on one of its ports.
struct BridgePort {
  IfIndex index = 0;
  IfIndex bridge = 0;
  bool learning = true;
  bool isolated = false;
};

// Changes the given attributes of a device and leaves the others.
struct LinkSet {
  IfIndex index = 0;
  LinkKind kind = LinkKind::other;
  std::optional<std::string> alias{};
  std::optional<IfIndex> master{};
  std::optional<bool> up{};
  std::optional<Ip4> local{};
  std::optional<bool> learning{};
  std::optional<bool> portLearning{};
  std::optional<bool> portIsolated{};
  std::optional<std::uint32_t> group{};
};

// Deletes a device, with the FDB entries in it.
struct LinkDel {
  IfIndex index = 0;
};

// Makes a nexthop or replaces it in place.
struct NexthopSet {
  Nexthop nexthop;
};

// Deletes a nexthop. The kernel deletes the FDB entries that lead to a group with it, and does not report
// them.
struct NexthopDel {
  NexthopId id = 0;
};

// Adds an FDB entry.
struct FdbAdd {
  enum class How : std::uint8_t {
    create,   // Refused when there is one.
    replace,  // In place of the one there, without a moment without.
    append    // One more destination for a group address.
  };
  How how = How::create;
  FdbEntry entry;
};

// Deletes an FDB entry; of a group address in the device's table, only the destination given.
struct FdbDel {
  FdbEntry entry;
};

// Asks for an FDB entry; it is reported before the answer.
struct FdbGet {
  FdbEntry entry;
};

// Asks for all devices, nexthops or FDB entries; they are reported until the end of the dump.
struct Dump {
  enum class What : std::uint8_t { links, nexthops, entries };
  What what = What::links;
};

using Request = std::variant<FdbAdd, FdbDel, FdbGet, NexthopSet, NexthopDel, LinkAdd, LinkSet, LinkDel, Dump>;

// An object whose state in the kernel is kept, as the name of its work, failures and answers.
struct Key {
  enum class Kind : std::uint8_t {
    permission,
    dump,
    contention,
    domain,
    link,
    port,
    vtep,
    group,
    host,
    flood
  };
  Kind kind = Kind::host;
  Vlan vlan = 0;
  std::uint64_t id = 0;

  auto operator<=>(const Key&) const = default;
};

// The requests of one turn with the object that each is for. The kernel works off a batch in its order.
class Batch {
 public:
  void limitIs(std::size_t limit) { limit_ = limit; }
  // Whether more requests are welcome. An object may exceed the limit by what it needs at once.
  bool full() const { return requests_.size() >= limit_; }
  bool empty() const { return requests_.empty(); }
  template <typename What>
  void add(const Key& key, What&& what) {
    requests_.emplace_back(std::in_place_type<std::remove_cvref_t<What>>, std::forward<What>(what));
    keys_.push_back(key);
  }
  void clear() {
    requests_.clear();
    keys_.clear();
  }
  const std::vector<Request>& requests() const { return requests_; }
  const Key& key(std::size_t at) const { return keys_[at]; }
  std::size_t size() const { return requests_.size(); }

 private:
  std::size_t limit_ = 0;
  std::vector<Request> requests_;
  std::vector<Key> keys_;
};

}  // namespace Agent::Kernel

#pragma once

#include <array>
#include <map>
#include <memory>
#include <set>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "agent/kernel/Contention.h"
#include "agent/kernel/Failures.h"
#include "agent/kernel/Messages.h"
#include "agent/kernel/Options.h"

namespace Agent::Kernel {

// The nexthop objects that FDB entries lead to: one for each VTEP, and groups of them.
//
// Every host's entry names a group, even for a single VTEP, because the kernel replaces a group in an entry
// by another without a moment in between, but refuses to put a group where an address was. Hosts with the
// same set of VTEPs share a group; the default destination of type "any" has one of its own, since its entry
// cannot be replaced and only its group's members can. The ranges of numbers tell them apart after a restart:
// VTEPs from nexthopBase on, shared groups from there + 2^20, own groups + 2^21.
//
// A VTEP's object is kept as long as a group or a flood entry leads there. That also distinguishes our flood
// entries from others' after a restart, as the entry itself has no place for an ownership mark.
//
// Without nexthop support in the kernel a group stands for the address of its first VTEP.
class Nexthops {
 public:
  struct Group {
    std::vector<Ip4> members;  // Desired, sorted.
    std::vector<Ip4> actual;   // Acknowledged or reported.
    std::vector<Ip4> held;     // VTEPs kept for either.
    NexthopId id = 0;
    bool shared = true;
    bool exists = false;
    bool adopted = false;  // From a previous run; not yet confirmed by the controller.
    bool queued = false;
    unsigned users = 0;    // Hosts and flood lists that want it.
    unsigned entries = 0;  // FDB entries in the kernel that name it.
    std::uint32_t seen = 0;
    Strife strife;
  };
  struct Counts {
    std::size_t desired = 0;
    std::size_t actual = 0;
    std::size_t differing = 0;
  };

  Nexthops(const Options& options, Failures& failures, Contention& contention)
      : options_(options), failures_(failures), contention_(contention), supported_(options.nexthops) {}

  // Whether the kernel has nexthop groups for FDB entries.
  bool supported() const { return supported_; }
  void unsupported(std::string why);

  // The shared group of these VTEPs (sorted, not empty), held until released.
  Group* hold(const std::vector<Ip4>& members);
  // A group that is not shared. `id`: that of the group that the entry names already, 0 for a new one.
  Group* holdOwn(std::vector<Ip4> members, NexthopId id);
  void membersAre(Group& group, std::vector<Ip4> members);
  void release(Group* group);
  void holdVtep(Ip4 vtep);
  void releaseVtep(Ip4 vtep);
  // An entry in the kernel names the group from now on, or no longer.
  void used(NexthopId id, bool used);

  // Where an entry has to lead for the group: to an address if groups are not supported.
  void target(const Group& group, FdbEntry& entry) const;
  // Whether entries can name the group: it is there, or was asked for earlier in this batch.
  bool ready(const Group& group) const { return !supported_ || group.exists; }
  bool ours(NexthopId id) const;
  // Whether there is or was an object of ours for this VTEP.
  bool knows(Ip4 vtep) const;

  // The number of the dump that began last; reports from now on count as seen by it.
  void dumpIs(std::uint32_t dump) { dump_ = dump; }
  // The kernel reports a nexthop.
  void is(const Nexthop& nexthop);
  // The kernel reports that it is gone; returns whether FDB entries may have gone with it.
  bool del(NexthopId id);
  // The dump is complete: objects that it did not report are gone.
  void dumped();

  // Adds what has to be asked of the kernel to `out`; `sweep`: also removes what was adopted and is not
  // wanted.
  void work(Batch& out, Time now, bool sweep);
  bool pending() const { return !vtepQueue_.empty() || !groupQueue_.empty(); }
  void answered(const Request& request, const Key& key, int error, std::string_view text, Time now);
  // Queues everything for reconciliation.
  void requeue();
  void requeue(const Key& key);
  Counts counts() const;

 private:
  struct Vtep {
    NexthopId id = 0;
    unsigned users = 0;
    bool exists = false;
    bool adopted = false;
    std::uint32_t seen = 0;
    Strife strife;
  };

  NexthopId base(unsigned range) const { return options_.nexthopBase + (range << 20U); }
  NexthopId take(unsigned range);
  void queue(Group& group);
  void syncHeld(Group& group);
  void drop(Group& group);
  void workVtep(Ip4 ip, Batch& out, Time now, bool sweep);
  void workGroup(Group& group, Batch& out, Time now, bool sweep);
  void refused(const Nexthop& nexthop, const Key& key, int error, std::string_view text, Time now);
  void removed(NexthopId id);
  void isVtep(const Nexthop& nexthop);
  void isGroup(const Nexthop& nexthop);
  std::vector<Ip4> addresses(const std::vector<NexthopId>& ids) const;

  const Options& options_;
  Failures& failures_;
  Contention& contention_;
  bool supported_;
  bool confirmed_ = false;  // The kernel has taken a nexthop of ours.
  std::uint32_t dump_ = 0;
  std::map<Ip4, Vtep> vteps_;
  std::unordered_map<NexthopId, Ip4> vtepIds_;
  std::map<std::vector<Ip4>, Group*> sharedGroups_;
  std::map<Group*, std::unique_ptr<Group>> groups_;
  std::unordered_map<NexthopId, Group*> groupIds_;
  std::set<NexthopId> orphans_;  // Of ours by number, of no use: to be removed.
  std::set<NexthopId> taken_;    // Others' numbers within our ranges.
  std::set<Ip4> vtepQueue_;
  std::vector<Group*> groupQueue_;
  std::array<NexthopId, 3> next_{};
};

}  // namespace Agent::Kernel

// The remote hosts that the client has received from the controller.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <limits>

#include "Kel/Entity.h"
#include "Kel/Name.h"
#include "Vxlan/types/Bridging.h"
#include "Vxlan/types/Controller.h"
#include "Vxlan/types/Qnet.h"
#include "Vxlan/types/VlanTable.h"

namespace Vxlan {

// Where a received entry comes from.
enum class EntryType : std::uint8_t { None = 0, Controller = 10 };

// A remote host, as received. An entry that equals the default is absent.
struct ReceivedEntry {
  Bridging::MacVlanPair key;
  Qnet::IntfId intf;            // the VTI through which the host is reached
  double lastUpdateTime = 0;    // when it was written last, in seconds of the framework's time
  Qnet::IpAddr vtepIp;          // the remote VTEP behind which the host lives
  std::uint32_t moveCount = 0;  // the controller's count of moves
  EntryType entryType = EntryType::None;
  VxlanController::HostAttr hostAttr = VxlanController::HostAttr::Dynamic;
  bool markedForDel = false;  // waiting for the paced deletion

  bool operator==(const ReceivedEntry&) const = default;
};

// The table of received hosts. An entry whose host the controller has withdrawn while it converges stays,
// marked for deletion, and keeps forwarding. `markedForDelCount` is the number of marked entries, kept by the
// callers: the table does not count for itself. A caller that marks an entry calls markedForDelCountInc after
// the write; one that deletes a marked entry, or writes it unmarked, calls markedForDelCountDec. The paced
// deletion relies on the count to know when it is done.
class KEL_API ReceivedHostTable final : public Kel::Entity {
 public:
  struct Reactor : Kel::Reactor {
    virtual void onReceivedEntry(Bridging::MacVlanPair) {}
    virtual void onReceivedEntrykelImmediate() {}
    virtual void onMarkedForDelCount() {}
  };
  using Entries = Kel::Collection<VlanTable, Bridging::MacVlanPair, ReceivedEntry, &Reactor::onReceivedEntry,
                                  &Reactor::onReceivedEntrykelImmediate>;

  explicit ReceivedHostTable(Kel::Name name) : name_(name) {}

  const Kel::Name& name() const noexcept { return name_; }

  // The entry of a host; the default one if it is absent.
  ReceivedEntry receivedEntry(const Bridging::MacVlanPair& key) const { return receivedEntry_.get(key); }
  const Entries& receivedEntry() const { return receivedEntry_; }
  std::size_t receivedEntrys() const { return receivedEntry_.size(); }
  // Inserts or replaces.
  void receivedEntryIs(const ReceivedEntry& entry) { receivedEntry_.is(entry.key, entry); }
  void receivedEntryDel(const Bridging::MacVlanPair& key) { receivedEntry_.del(key); }
  void receivedEntryDelAll();
  // The keys of the entries of a VLAN; the one that the walk is at may be removed. Costs what the VLAN holds.
  auto receivedEntryOfVlan(Bridging::VlanId vlan) const { return receivedEntry_.table().ofVlan(vlan); }

  std::uint32_t markedForDelCount() const { return markedForDelCount_; }
  // Counts entries that were marked; more than there are entries is a fatal assertion.
  void markedForDelCountInc(std::uint32_t _markedForDelCount);
  // Counts entries that are marked no more; at zero a fatal assertion.
  void markedForDelCountDec(std::uint32_t _markedForDelCount);

  const char* typeName() const override { return "Vxlan::ReceivedHostTable"; }
  void attributes(Kel::Attributes& list) const override;

 private:
  void markedForDelCountIs(std::uint32_t count) { markedForDelCount_ = count; }

  Kel::Name name_;
  Entries receivedEntry_{*this};
  Kel::Attribute<std::uint32_t, &Reactor::onMarkedForDelCount> markedForDelCount_{*this, 0};
};

KEL_API std::ostream& operator<<(std::ostream& stream, const ReceivedEntry& entry);

}  // namespace Vxlan

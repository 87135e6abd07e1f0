// The controller's input to the layer-2 RIB: hosts in shared memory.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "Kel/Entity.h"
#include "Memtab/Writer.h"
#include "Vxlan/types/L2RibHost.h"

namespace L2Rib {

// The table of hosts that the client exports to the layer-2 RIB, kept in shared memory, where other processes
// read it without locks. What is written within one turn of the activity loop is published together at its
// end. Hosts that an earlier process left in the table are there from the start.
class KEL_API HostInput final : public Kel::Entity {
 public:
  struct Reactor : Kel::Reactor {
    virtual void onHost(Bridging::MacVlanPair) {}
    virtual void onHostkelImmediate() {}
  };

  struct Options {
    std::string name;                          // "/name", a path, or empty: memory of this process alone
    std::size_t limit = std::size_t{1} << 22;  // the most hosts it may hold
    unsigned mode = 0644;                      // who may read it
    std::optional<uid_t> owner = {};           // whose table is adopted, beside root's and the own user's
    bool replaceDamaged = false;               // begins an empty one in place of a damaged one
    std::optional<std::uint64_t> seed = {};    // of the walk order of a new table; nothing: a random one
  };

  // Somebody who looks after the writes that the table refuses.
  struct Refusals {
    std::function<void(const Host& host, const Memtab::Error& why)> refused;
    // A host was written, or removed.
    std::function<void(const Bridging::MacVlanPair& key, bool removed)> done;
  };

  // Creates the table, or adopts what is there. Raises Memtab::Error when it cannot be used: another process
  // writes it, it belongs to a stranger, it has other records, or it is damaged and not to be replaced; the
  // text says why.
  explicit HostInput(const Options& options);
  ~HostInput() override;

  // The host of this key; the default one, which counts as empty, if it is absent.
  Host host(const Bridging::MacVlanPair& key) const;
  // The host of this key, or nothing.
  std::optional<Host> findHost(const Bridging::MacVlanPair& key) const;
  bool hasHost(const Bridging::MacVlanPair& key) const;
  std::size_t hosts() const;
  std::size_t limit() const;
  // Bytes of memory that the table takes at present.
  std::uint64_t bytesTaken() const;

  // Inserts or replaces the host under its key. Raises Memtab::Full when there is no room, Memtab::Error when
  // there is no memory; what is there stays. While somebody looks after refusals he is told instead.
  void hostIs(const Host& host);
  // Removes a host; an absent key is no error.
  void hostDel(const Bridging::MacVlanPair& key);
  // Removes every host: gives the whole-collection callback, and one callback for each host removed.
  void hostDelAll();

  // Removed hosts leave slots behind, which later writes use again a few at a time. Sweeps at most so many of
  // them, for the idle time after removals in bulk, and returns how many wait; those of the present turn
  // wait for its end.
  std::size_t sweep(std::size_t atMost);

  // Who looks after refused writes from now on; both functions empty: nobody.
  void refusalsAre(Refusals refusals);

  // A damaged table that is replaced, be the damage found at the start or later: from then on an empty one is
  // written, while readers keep the damaged one. What was wrong; whether readers still have it; and, when all
  // hosts are written again, the end of that: the new table gets the name. See Memtab::Writer.
  const std::string& damage() const;
  bool replacing() const;
  void takePlace();

  // For programs: a table that is truncated while it is in use ends the process with a message that begins
  // with `program`, and status 2, instead of by the signal alone.
  static void endOnTruncation(const char* program);

  // A walk: the first host, and the first behind a key, which need not be there any more; nothing at the end.
  std::optional<Host> firstHost() const;
  std::optional<Host> nextHost(const Bridging::MacVlanPair& key) const;

  const char* typeName() const override { return "L2Rib::HostInput"; }
  void attributes(Kel::Attributes& list) const override { list("host", changed_); }

 private:
  using Table = Memtab::Writer<Bridging::MacVlanPair, HostValue>;

  static void publish(void* self);
  void signal(const Bridging::MacVlanPair& key);

  bool write(const Host& host);

  Table table_;
  Refusals refusals_;
  Kel::Notification<Bridging::MacVlanPair, &Reactor::onHost, &Reactor::onHostkelImmediate> changed_{*this};
};

}  // namespace L2Rib

// The controller's input to the layer-2 RIB: hosts in shared memory.
#pragma once

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
  };

  // Creates the table, or adopts what is there. Raises Memtab::Error when it cannot be used; the text says
  // why.
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

  // Inserts or replaces the host under its key. Raises Memtab::Full when there is no room; what is there
  // stays.
  void hostIs(const Host& host);
  // Removes a host; an absent key is no error.
  void hostDel(const Bridging::MacVlanPair& key);
  // Removes every host: gives the whole-collection callback, and one callback for each host removed.
  void hostDelAll();

  // A walk: the first host, and the first behind a key, which need not be there any more; nothing at the end.
  std::optional<Host> firstHost() const;
  std::optional<Host> nextHost(const Bridging::MacVlanPair& key) const;

  const char* typeName() const override { return "L2Rib::HostInput"; }
  void attributes(Kel::Attributes& list) const override { list("host", changed_); }

 private:
  using Table = Memtab::Writer<Bridging::MacVlanPair, HostValue>;

  static void publish(void* self);
  void signal(const Bridging::MacVlanPair& key);

  Table table_;
  Kel::Notification<Bridging::MacVlanPair, &Reactor::onHost, &Reactor::onHostkelImmediate> changed_{*this};
};

}  // namespace L2Rib

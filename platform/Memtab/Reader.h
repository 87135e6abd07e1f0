#pragma once

#include <sys/types.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <type_traits>

#include "Memtab/Error.h"
#include "Memtab/Follow.h"
#include "Memtab/Reading.h"
#include "Memtab/Words.h"
#include "Memtab/Writer.h"

namespace Memtab {

// A reader of a table that a Writer of another process fills. It takes no lock, writes nothing, and never
// waits: neither for a writer that was stopped in the middle of a record nor for one that died there.
//
// It sees what the writer has published, each record whole. It holds on to a name: before there is a
// table under it the reader is empty, and when the table is removed and made again it goes over to the new
// one by itself; at once if it was removed by Memtab::remove(), else within 256 lookups or at the next walk
// or follow. Growth needs nothing. Each thread uses its own.
//
// Any user can take a name in shared memory. A table is read only if it belongs to root, to the own user, or
// to the one more user that the reader names, and no other user may write to it: its content was then written
// by one of them. The owner could still truncate it, which the system answers with SIGBUS (see BusError.h).
//
// No damage in a table leads a reader outside of it or keeps it busy for more than moments: the operation
// that meets it raises Damaged, which names the slot where there is one. The reader remains fit for use,
// sees what is not damaged, and goes over to the table that its writer makes in place of this one.
template <class Key, class Value>
class Reader {
 public:
  static_assert(std::has_unique_object_representations_v<Key>,
                "a key is compared by its bytes: no padding, no floats");

  // Of the table NAME, whose records have SCHEMA, and which belongs to root, the own user, or OWNER. Raises
  // Error, now or at any later use, when what is under that name is no table, has other records, belongs to
  // another user, may be written to by others, or may not be read; Damaged when it is damaged.
  explicit Reader(const std::string& name, const std::string& schema,
                  const std::optional<uid_t>& owner = std::nullopt)
      : reading_(Attachment(name, schema, Segment::Shape{sizeof(Key), sizeof(Value)}, Files::Owners(owner))) {
  }

  // Of the table of a writer in this process, which outlives the reader, and does not replace a damaged
  // table: for another thread of it.
  explicit Reader(const Writer<Key, Value>& writer) : reading_(Attachment(writer.table_->segment())) {}

  // Whether there is a table.
  bool attached() { return reading_.segment() != nullptr; }

  // A number that no other table has, and had, under this name; 0 while there is none.
  std::uint64_t generation() {
    const Segment* segment = reading_.segment();
    return segment != nullptr ? segment->description().generation : 0;
  }

  // Number of records at the last publication, never more than the table may have.
  std::size_t size() {
    const Segment* segment = reading_.recentSegment();
    return segment != nullptr
               ? std::min<std::size_t>(segment->state().publishedRecords.load(std::memory_order_acquire),
                                       segment->description().limit)
               : 0;
  }

  // The most records it may have; 0 while there is no table.
  std::size_t limit() {
    const Segment* segment = reading_.segment();
    return segment != nullptr ? segment->description().limit : 0;
  }

  // Number of the last turn that was published; 0 while there is no table. Two lookups with the same number
  // before and after are of the same turn.
  std::uint64_t turn() {
    const Segment* segment = reading_.recentSegment();
    return segment != nullptr ? segment->state().published.load(std::memory_order_acquire) : 0;
  }

  // The value of KEY.
  std::optional<Value> find(const Key& key) {
    Words<Value> value;
    return reading_.find(BytesOf<Key>(key).data(), value.data()) ? std::optional<Value>(value.value())
                                                                 : std::nullopt;
  }

  // Calls visit(key, value) for every record, in the order of memory, and returns how many. A record that is
  // there from beginning to end is met once, one that comes or goes meanwhile perhaps; a key that goes in
  // one turn and comes back in another may be met twice.
  template <class Visit>
  std::size_t walk(const Visit& visit) {
    Words<Key> key;
    Words<Value> value;
    return reading_.walk(key.data(), value.data(), [&] { visit(key.value(), value.value()); });
  }

  // Reports the changes since POSITION: calls visit(key, value) for each record added or replaced, with its
  // present value, and visit(key, std::nullopt) for each deleted; the value is a std::optional<Value>. A key
  // that changed several times comes with its last state, perhaps more than once. See Followed for when every
  // record comes instead.
  template <class Visit>
  Followed follow(Position& position, const Visit& visit) {
    return follow(position, visit, [] {});
  }

  // The same, and calls begin() before every record comes: what is known from before, also from this call, is
  // void then.
  template <class Visit, class Begin>
  Followed follow(Position& position, const Visit& visit, const Begin& begin) {
    Words<Key> key;
    Words<Value> value;
    return reading_.follow(
        position, key.data(), value.data(),
        [&](bool there) { visit(key.value(), there ? std::optional<Value>(value.value()) : std::nullopt); },
        begin);
  }

 private:
  Reading<FixedShape<Words<Key>::count, Words<Value>::count>> reading_;
};

}  // namespace Memtab

#pragma once

#include <cstddef>
#include <optional>
#include <type_traits>
#include <utility>

#include "Memtab/Error.h"
#include "Memtab/Options.h"
#include "Memtab/Table.h"
#include "Memtab/Words.h"

namespace Memtab {

template <class Key, class Value>
class Reader;

/// The one writer of a table in shared memory: at most one record a key, any number of readers in other
/// processes.
///
/// What it does becomes visible turn by turn: records added and deleted since the last `publish()` appear and
/// disappear together at the next one, and a key that is deleted and added again in between never disappears
/// at all. A value that is replaced is seen at once, old or new, never half. A table outlives its writer: the
/// next one adopts it as it was published, however the last one ended. Not for use by several threads at a
/// time.
///
/// A key is its bytes: equality and order are theirs, so it has no padding. Values are compared by their
/// bytes to write only what is different; padding in them costs no more than a needless write. Both are
/// trivially copyable and at most 256 and 4,096 bytes long.
///
/// The walk order is the order of the mixed keys. It depends on the keys alone, so that a walk can go on
/// behind any key, whether it is still there or not, and growth, erasing and replacing do not disturb it.
template <class Key, class Value>
class Writer {
 public:
  static_assert(std::has_unique_object_representations_v<Key>,
                "a key is compared by its bytes: no padding, no floats");

  /// Makes the table of OPTIONS, or adopts it. Raises Error when another writer has it, when it was made for
  /// another format, schema or record size, or when it is damaged; the message says which.
  explicit Writer(const Options& options) : table_(options, {sizeof(Key), sizeof(Value)}, Shape()) {}

  /// Whether the table was there before.
  bool adopted() const { return table_.segment().adopted(); }

  /// Adds the record of KEY, or replaces its value; an equal value changes nothing. Raises Full when the
  /// table has its limit of records, Error when the system has no memory left; the table stays as it is then.
  void is(const Key& key, const Value& value) {
    table_.is(BytesOf<Key>(key).data(), BytesOf<Value>(value).data());
  }

  /// Deletes the record of KEY. False when there is none.
  bool del(const Key& key) { return table_.del(BytesOf<Key>(key).data()); }

  /// The value of KEY, the present turn included.
  std::optional<Value> find(const Key& key) const {
    const Format::Slot* slot = table_.find(BytesOf<Key>(key).data());
    return slot != nullptr ? std::optional<Value>(valueIn(slot)) : std::nullopt;
  }
  bool contains(const Key& key) const { return table_.find(BytesOf<Key>(key).data()) != nullptr; }

  /// The first record in walk order, and the first behind KEY, which need not be there; nothing at the end.
  std::optional<std::pair<Key, Value>> first() const { return recordIn(table_.first()); }
  std::optional<std::pair<Key, Value>> next(const Key& key) const {
    return recordIn(table_.next(BytesOf<Key>(key).data()));
  }

  /// Number of records, the present turn included.
  std::size_t size() const { return table_.size(); }
  bool empty() const { return size() == 0; }
  std::size_t limit() const { return table_.segment().description().limit; }

  /// Ends the turn: what was added and deleted since the last time is visible together. Takes the same short
  /// time however much that is, and nothing at all when nothing changed.
  void publish() { table_.publish(); }

  /// Sweeps at most so many of the slots that deleted records have left, and returns how many wait. Each
  /// change sweeps two on its own; this is for idle time after deletions in bulk.
  std::size_t sweep(std::size_t atMost) { return table_.sweep(atMost); }

  /// Bytes of memory that the table takes at present.
  std::uint64_t bytesTaken() const { return table_.segment().bytesTaken(); }

 private:
  friend class Reader<Key, Value>;
  using Shape = FixedShape<Words<Key>::kCount, Words<Value>::kCount>;

  static Value valueIn(const Format::Slot* slot) {
    return Words<Value>::valueAt(Format::wordsOf(slot) + Shape::keyWords());
  }
  static std::optional<std::pair<Key, Value>> recordIn(const Format::Slot* slot) {
    if (slot == nullptr) {
      return std::nullopt;
    }
    return std::pair<Key, Value>(Words<Key>::valueAt(Format::wordsOf(slot)), valueIn(slot));
  }

  Table<Shape> table_;
};

}  // namespace Memtab

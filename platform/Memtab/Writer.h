#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "Files/LockFile.h"
#include "Memtab/Error.h"
#include "Memtab/Name.h"
#include "Memtab/Options.h"
#include "Memtab/Table.h"
#include "Memtab/Words.h"

namespace Memtab {

template <class Key, class Value>
class Reader;

// The one writer of a table in shared memory: at most one record a key, any number of readers in other
// processes.
//
// Its changes become visible turn by turn: records added and deleted since the last `publish()` appear and
// disappear together at the next one, and a key that is deleted and added again in between never disappears
// at all. A value that is replaced is seen at once, old or new, never half. A table outlives its writer: the
// next one adopts it as it was published, however the last one ended. Not for use by several threads at a
// time.
//
// A key is its bytes: equality and order are theirs, so it has no padding. Values are compared by their
// bytes to write only what is different; padding in them costs no more than a needless write. Both are
// trivially copyable and at most 256 and 4,096 bytes long.
//
// The walk order is the order of the mixed keys. It depends on the keys alone, so that a walk can go on
// behind any key, whether it is still there or not, and growth, erasing and replacing do not disturb it.
//
// The writer holds a lock for as long as it lives, on a file of mode 0600 beside the table (see lockOf), so
// that no other user can take it. It adopts only what belongs to root, to the own user, or to
// `Options::owner`, and what no other user may write to.
//
// No damage in the table, found at the start or met later, leads the writer outside of it or keeps it busy
// for ever: the operation raises Damaged. With `Options::replaceDamaged` it does not, but the writer begins
// an empty table and goes on with that, and `damage()` says so. The new table is there under another name
// until `takePlace()`: readers keep what they have, damaged as it is, until the user has written again what
// belongs into the table. Then the new one gets the name, in one step, and the damaged one is set aside
// (damagedOf).
template <class Key, class Value>
class Writer {
 public:
  static_assert(std::has_unique_object_representations_v<Key>,
                "a key is compared by its bytes: no padding, no floats");

  // Makes the table of OPTIONS, or adopts it. Raises Error when another writer has it (the text says which
  // process), when it or its lock belongs to another user, or when it was made for another schema or record
  // size; Damaged when it is damaged and not to be replaced. The message says which.
  explicit Writer(const Options& options)
      : options_(options), lock_(lockFor(options)), table_(adoptedOrBegun()) {}

  // Whether the table was there before.
  bool adopted() const { return table_->segment().adopted(); }

  // The error of the table in whose place an empty one was begun last; empty when none was.
  const std::string& damage() const { return damage_; }
  // Whether readers still have the damaged table.
  bool replacing() const { return replacing_; }
  // Gives the table that was begun its name; the damaged one stays as damagedOf(NAME). Without effect when
  // none waits for it. Raises Error when the system refuses it; it can be tried again.
  void takePlace() {
    if (replacing_) {
      table_->publish();
      table_->segment().takePlaceOf(options_.name);
      replacing_ = false;
    }
  }

  // Adds the record of KEY, or replaces its value; an equal value changes nothing. Raises Full when the
  // table has its limit of records, Error when the system has no memory left; the table stays as it is then.
  void is(const Key& key, const Value& value) {
    const BytesOf<Key> keyBytes(key);
    const BytesOf<Value> valueBytes(value);
    sound([&](Content& table) { table.is(keyBytes.data(), valueBytes.data()); });
  }

  // Deletes the record of KEY. False when there is none.
  bool del(const Key& key) {
    const BytesOf<Key> bytes(key);
    return sound([&](Content& table) { return table.del(bytes.data()); });
  }

  // The value of KEY, the present turn included.
  std::optional<Value> find(const Key& key) const {
    const Format::Slot* slot = slotOf(key);
    return slot != nullptr ? std::optional<Value>(valueIn(slot)) : std::nullopt;
  }
  bool contains(const Key& key) const { return slotOf(key) != nullptr; }

  // The first record in walk order, and the first behind KEY, which need not be there; nothing at the end.
  std::optional<std::pair<Key, Value>> first() const {
    return recordIn(sound([](const Content& table) { return table.first(); }));
  }
  std::optional<std::pair<Key, Value>> next(const Key& key) const {
    const BytesOf<Key> bytes(key);
    return recordIn(sound([&](const Content& table) { return table.next(bytes.data()); }));
  }

  // Number of records, the present turn included.
  std::size_t size() const { return table_->size(); }
  bool empty() const { return size() == 0; }
  std::size_t limit() const { return table_->segment().description().limit; }

  // Ends the turn: what was added and deleted since the last time is visible together. Takes the same short
  // time however much that is, and nothing at all when nothing changed.
  void publish() { table_->publish(); }

  // Sweeps at most so many of the slots that deleted records have left, and returns how many wait. Each
  // change sweeps two on its own; this is for idle time after deletions in bulk.
  std::size_t sweep(std::size_t atMost) {
    return sound([&](Content& table) { return table.sweep(atMost); });
  }

  // Bytes of memory that the table takes at present.
  std::uint64_t bytesTaken() const { return table_->segment().bytesTaken(); }

 private:
  friend class Reader<Key, Value>;
  using Shape = FixedShape<Words<Key>::count, Words<Value>::count>;
  using Content = Table<Shape>;
  static constexpr Segment::Shape recordShape{sizeof(Key), sizeof(Value)};

  static Files::LockFile lockFor(const Options& options) {
    if (options.name.empty()) {
      return {};
    }
    static_cast<void>(pathOf(options.name));  // a name at all
    try {
      return Files::LockFile(pathOf(lockOf(options.name)), Files::Owners(options.owner));
    } catch (const Files::LockHeld& holder) {
      throw Error(options.name, std::string("another writer has it: ") + holder.what());
    } catch (const Files::LockRefused& refused) {
      throw Error(options.name, refused.what());
    }
  }

  std::unique_ptr<Content> adoptedOrBegun() {
    try {
      return std::make_unique<Content>(Segment::forWriter(options_, recordShape), Shape());
    } catch (const Damaged& damaged) {
      if (!options_.replaceDamaged) {
        throw;
      }
      return begun(damaged);
    }
  }

  // An empty table in place of a damaged one; one without a name has no readers, and takes its place at once.
  std::unique_ptr<Content> begun(const Damaged& damaged) const {
    auto table = std::make_unique<Content>(options_.name.empty() ? Segment::forWriter(options_, recordShape)
                                                                 : Segment::successor(options_, recordShape),
                                           Shape());
    damage_ = damaged.what();
    replacing_ = !options_.name.empty();
    return table;
  }

  // Does WORK with the table; when that is found damaged, with an empty one in its place.
  template <class Work>
  auto sound(const Work& work) const {
    try {
      return work(*table_);
    } catch (const Damaged& damaged) {
      if (!options_.replaceDamaged) {
        throw;
      }
      table_ = begun(damaged);
      return work(*table_);
    }
  }

  const Format::Slot* slotOf(const Key& key) const {
    const BytesOf<Key> bytes(key);
    return sound([&](const Content& table) { return table.find(bytes.data()); });
  }
  static Value valueIn(const Format::Slot* slot) {
    return Words<Value>::valueAt(Format::wordsOf(slot) + Shape::keyWords());
  }
  static std::optional<std::pair<Key, Value>> recordIn(const Format::Slot* slot) {
    if (slot == nullptr) {
      return std::nullopt;
    }
    return std::pair<Key, Value>(Words<Key>::valueAt(Format::wordsOf(slot)), valueIn(slot));
  }

  Options options_;
  mutable std::string damage_;
  mutable bool replacing_ = false;
  Files::LockFile lock_;
  mutable std::unique_ptr<Content> table_;  // another one where damage is met while it is read
};

}  // namespace Memtab

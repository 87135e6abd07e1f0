#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "Memtab/Attachment.h"
#include "Memtab/Follow.h"
#include "Memtab/View.h"

namespace Memtab {

// The work of all readers, in words: hold on to the table under a name, look up, walk, follow. See Reader.
template <class Shape>
class Reading {
 public:
  explicit Reading(Attachment attachment) : attachment_(std::move(attachment)) { look(); }
  Reading(const Reading&) = delete;
  Reading& operator=(const Reading&) = delete;

  // The segment that is being read, null while there is none.
  const Segment* segment() {
    if (attachment_.outdatedForSure()) {
      renew();
    }
    return attachment_.segment();
  }
  // The same, where it does for a removal by other means than Memtab::remove() to be noticed a little later.
  const Segment* recentSegment() {
    if (attachment_.outdated()) {
      [[unlikely]] {
        renew();
      }
    }
    return attachment_.segment();
  }
  const Shape& shape() const { return shape_; }

  bool find(const std::byte* key, std::uint64_t* value) {
    return recentSegment() != nullptr && view_.find(key, value);
  }

  template <class Visit>
  std::size_t walk(std::uint64_t* key, std::uint64_t* value, const Visit& visit) {
    return segment() != nullptr ? view_.walk(key, value, visit) : 0;
  }

  // Calls visit(true) for a record in KEY and VALUE, visit(false) for the KEY of a record that is gone;
  // begin() before every record comes.
  template <class Visit, class Begin>
  Followed follow(Position& position, std::uint64_t* key, std::uint64_t* value, const Visit& visit,
                  const Begin& begin) {
    const Segment* from = segment();
    if (from == nullptr) {
      return {};
    }
    const Format::State& state = from->state();
    const std::uint64_t now = state.publishedChanges.load(std::memory_order_acquire);
    Followed followed;
    const std::uint64_t known = position.change;
    const bool same = position.generation == from->description().generation && known <= now;
    position = {from->description().generation, now};
    if (same && view_.changes(known, now, key, [&] {
          followed.calls += 1;
          visit(view_.find(reinterpret_cast<const std::byte*>(key), value));
        })) {
      return followed;
    }
    followed.everything = true;
    begin();
    followed.calls = view_.walk(key, value, [&] { visit(true); });
    return followed;
  }
  template <class Visit>
  Followed follow(Position& position, std::uint64_t* key, std::uint64_t* value, const Visit& visit) {
    return follow(position, key, value, visit, [] {});
  }

 private:
  void renew() {
    if (attachment_.renew()) {
      look();
    }
  }
  void look() {
    if (const Segment* segment = attachment_.segment()) {
      shape_ = shapeOf(*segment, shape_);
      view_ = View<Shape>(*segment, shape_);
    }
  }
  template <std::size_t K, std::size_t V>
  static FixedShape<K, V> shapeOf(const Segment& /*segment*/, const FixedShape<K, V>& known) {
    return known;
  }
  static FoundShape shapeOf(const Segment& segment, const FoundShape& /*unknown*/) {
    return FoundShape(segment.description());
  }

  Attachment attachment_;
  Shape shape_;
  View<Shape> view_;
};

}  // namespace Memtab

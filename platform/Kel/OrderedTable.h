// The ordered table: a collection in the order of its keys.
#pragma once

#include <cstddef>
#include <iterator>
#include <map>
#include <utility>

namespace Kel {

// A table in the order of its keys, for collections that people read or that are walked in a stated order.
// The walk keeps a copy of the current key, so that nothing that happens to the table disturbs it.
template <class K, class V>
class OrderedTable {
  using Map = std::map<K, V>;

 public:
  struct Pair {
    Pair(const K* keyOfPair, V* valueOfPair) : key(*keyOfPair), value(*valueOfPair) {}
    const K& key;
    V& value;
  };

  class Iterator {
   public:
    using difference_type = std::ptrdiff_t;
    using value_type = Pair;

    Iterator() = default;
    Pair operator*() const { return Pair(there(key_), there(value_)); }
    struct Arrow {
      Pair pair;
      Pair* operator->() { return &pair; }
    };
    Arrow operator->() const { return {**this}; }
    Iterator& operator++() {
      *this = Iterator(table_, table_->map_.upper_bound(copy_));
      return *this;
    }
    void operator++(int) { ++*this; }
    bool operator==(std::default_sentinel_t) const { return key_ == nullptr; }
    explicit operator bool() const { return key_ != nullptr; }

   private:
    friend class OrderedTable;
    Iterator(const OrderedTable* table, typename Map::iterator at) : table_(table) {
      if (at != table->map_.end()) {
        key_ = &at->first;
        value_ = &at->second;
        copy_ = at->first;
      }
    }
    // Only a position where a pair is may be dereferenced.
    template <class T>
    [[gnu::returns_nonnull]] static T* there(T* held) {
      return held;
    }
    const OrderedTable* table_ = nullptr;
    const K* key_ = nullptr;
    V* value_ = nullptr;
    K copy_{};
  };

  OrderedTable() = default;
  OrderedTable(const OrderedTable&) = delete;
  OrderedTable& operator=(const OrderedTable&) = delete;
  ~OrderedTable() { clear(); }

  std::size_t size() const noexcept { return map_.size(); }
  bool empty() const noexcept { return map_.empty(); }

  V* find(const K& key) const {
    const auto at = map_.find(key);
    return at == map_.end() ? nullptr : &at->second;
  }
  bool contains(const K& key) const { return find(key) != nullptr; }
  Iterator at(const K& key) const { return {this, map_.find(key)}; }
  Iterator begin() const { return {this, map_.begin()}; }
  std::default_sentinel_t end() const { return {}; }

  template <class... Args>
  std::pair<Iterator, bool> emplace(const K& key, Args&&... args) {
    const auto [at, added] = map_.try_emplace(key, std::forward<Args>(args)...);
    return {Iterator(this, at), added};
  }
  // The same without a position to walk on from.
  struct Entered {
    V* slot;
    bool added;
  };
  template <class... Args>
  Entered enter(const K& key, Args&&... args) {
    const auto [at, added] = map_.try_emplace(key, std::forward<Args>(args)...);
    return {&at->second, added};
  }
  V& valueIn(V* slot) const { return *slot; }
  bool erase(const K& key) {
    // The node leaves the map before its value is destroyed, so that the destructor finds the table
    // consistent.
    return !map_.extract(key).empty();
  }
  // The table is empty before the destructors of the values run.
  void clear() noexcept { const Map dying = std::exchange(map_, {}); }

 private:
  mutable Map map_;
};

}  // namespace Kel

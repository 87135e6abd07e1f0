// What a host must cost at the least: three table writes and nothing else.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <vector>

namespace Bare {

// Open addressing with linear probing, doubled when it is three quarters full.
template <class V>
class OpenTable {
 public:
  V& at(std::uint64_t key) {
    if ((used_ + 1) * 4 > slots_.size() * 3) {
      grow();
    }
    Slot& slot = slots_[find(key)];
    if (slot.key == 0) {
      slot.key = key;
      ++used_;
    }
    return slot.value;
  }
  std::size_t bytes() const { return slots_.size() * sizeof(Slot); }

 private:
  struct Slot {
    std::uint64_t key = 0;
    V value{};
  };
  static std::uint64_t mixed(std::uint64_t key) {
    key *= 0x9e3779b97f4a7c15ULL;
    return key ^ (key >> 32);
  }
  std::size_t find(std::uint64_t key) const {
    std::size_t at = mixed(key) & (slots_.size() - 1);
    while (slots_[at].key != 0 && slots_[at].key != key) {
      at = (at + 1) & (slots_.size() - 1);
    }
    return at;
  }
  void grow() {
    std::vector<Slot> old(slots_.empty() ? 16 : slots_.size() * 2);
    old.swap(slots_);
    for (const Slot& slot : old) {
      if (slot.key != 0) {
        slots_[find(slot.key)] = slot;
      }
    }
  }

  std::vector<Slot> slots_;
  std::size_t used_ = 0;
};

struct ControllerHost {
  std::uint32_t vtep, moves, attribute;
};
struct ReceivedHost {
  std::uint64_t intf;
  double time;
  std::uint32_t vtep, moves;
  std::uint8_t type, attribute, marked;
};

// The three tables. The shared one has 112-byte records behind a 4-byte index, each with a sequence lock.
class Tables {
 public:
  void host(std::uint64_t key, std::uint32_t vtep, std::uint32_t moves, double time) {
    controller_.at(key) = {vtep, moves, 16};
    received_.at(key) = {7, time, vtep, moves, 10, 16, 0};
    share(key, vtep, moves, time);
  }
  std::size_t bytes() const {
    return controller_.bytes() + received_.bytes() + index_.bytes() + records_.capacity() * sizeof(Record);
  }

 private:
  struct Record {
    std::atomic<std::uint32_t> sequence{0};
    std::uint32_t size = 0;
    std::uint64_t words[13] = {};
    Record() = default;
    Record(const Record& other) { std::memcpy(words, other.words, sizeof words); }
  };
  void share(std::uint64_t key, std::uint32_t vtep, std::uint32_t moves, double time) {
    std::uint32_t& number = index_.at(key);
    if (number == 0) {
      records_.emplace_back();
      number = static_cast<std::uint32_t>(records_.size());
    }
    Record& record = records_[number - 1];
    record.sequence.fetch_add(1, std::memory_order_acq_rel);
    std::uint64_t words[13] = {key, vtep, moves, 16, 10};
    std::memcpy(&words[5], &time, sizeof time);
    std::memcpy(record.words, words, sizeof words);
    record.sequence.fetch_add(1, std::memory_order_release);
  }

  OpenTable<ControllerHost> controller_;
  OpenTable<ReceivedHost> received_;
  OpenTable<std::uint32_t> index_;
  std::vector<Record> records_;
};

}  // namespace Bare

// The plainest tables that do the work of the road: open addressing in private memory, and one in shared
// memory.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

namespace Minimum {

// One multiplication; every bit of the key reaches the bits that choose the place.
inline std::uint64_t mixed(std::uint64_t key) {
  __extension__ using Wide = unsigned __int128;
  const Wide product = Wide{key} * 0x9e3779b97f4a7c15U;
  return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

// Memory of zeros that is not touched before it is used.
inline void* zeros(std::size_t bytes) {
  void* memory = std::calloc(1, bytes);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

// A linear-probing table from a key other than 0 to a plain value, at most 80 % full, doubled by copying.
// Deletion shifts back, so that no grave is left.
template <class V>
class FlatTable {
 public:
  FlatTable() = default;
  FlatTable(const FlatTable&) = delete;
  FlatTable& operator=(const FlatTable&) = delete;
  ~FlatTable() { std::free(slots_); }

  V* find(std::uint64_t key) const {
    if (slots_ == nullptr) {
      return nullptr;
    }
    const std::uint64_t at = placeOf(key);
    return slots_[at].key == key ? &slots_[at].value : nullptr;
  }
  // The value of the key, all zero when it is new.
  V& at(std::uint64_t key) {
    if (slots_ == nullptr) {
      grow(8);
    }
    std::uint64_t at = placeOf(key);
    if (slots_[at].key != key) {
      if (size_ >= most_) {
        grow((mask_ + 1) * 2);
        at = placeOf(key);
      }
      slots_[at].key = key;
      ++size_;
    }
    return slots_[at].value;
  }
  bool erase(std::uint64_t key) {
    std::uint64_t hole = slots_ == nullptr ? 0 : placeOf(key);
    if (slots_ == nullptr || slots_[hole].key != key) {
      return false;
    }
    for (std::uint64_t at = (hole + 1) & mask_; slots_[at].key != 0; at = (at + 1) & mask_) {
      if (((at - mixed(slots_[at].key)) & mask_) >= ((at - hole) & mask_)) {
        slots_[hole] = slots_[at];
        hole = at;
      }
    }
    slots_[hole] = Slot{};
    --size_;
    return true;
  }
  std::size_t bytes() const { return slots_ == nullptr ? 0 : (mask_ + 1) * sizeof(Slot); }

 private:
  struct Slot {
    std::uint64_t key;
    V value;
  };
  // The place of the key, or the empty one where it belongs.
  std::uint64_t placeOf(std::uint64_t key) const {
    std::uint64_t at = mixed(key) & mask_;
    while (slots_[at].key != 0 && slots_[at].key != key) {
      at = (at + 1) & mask_;
    }
    return at;
  }
  void grow(std::uint64_t cells) {
    Slot* const old = slots_;
    const std::uint64_t before = old == nullptr ? 0 : mask_ + 1;
    slots_ = static_cast<Slot*>(zeros(cells * sizeof(Slot)));
    mask_ = cells - 1;
    most_ = cells * 4 / 5;
    for (std::uint64_t at = 0; at < before; ++at) {
      if (old[at].key != 0) {
        slots_[placeOf(old[at].key)] = old[at];
      }
    }
    std::free(old);
  }

  Slot* slots_ = nullptr;
  std::uint64_t mask_ = 0;
  std::uint64_t size_ = 0;
  std::uint64_t most_ = 0;
};

// What readers in other processes see of a host: 13 words, the first of them the key.
struct SharedHost {
  static constexpr std::size_t words = 13;
  std::array<std::uint64_t, words> word;
};

// Records in a shared mapping, each behind its own sequence number (odd while it is written), found by an
// index of four bytes a place: eight bits of the hash, 24 of the record's number. A reader needs no lock.
class SharedTable {
 public:
  explicit SharedTable(std::uint64_t limit) {
    std::uint64_t cells = 8;
    while (cells * 4 / 5 < limit) {
      cells *= 2;
    }
    mask_ = cells - 1;
    bytes_ = cells * sizeof(std::uint32_t) + (limit + 1) * sizeof(Record);
    void* memory = ::mmap(nullptr, bytes_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
      throw std::bad_alloc();
    }
    index_ = static_cast<std::atomic<std::uint32_t>*>(memory);
    records_ = reinterpret_cast<Record*>(static_cast<char*>(memory) + cells * sizeof(std::uint32_t));
  }
  SharedTable(const SharedTable&) = delete;
  SharedTable& operator=(const SharedTable&) = delete;
  ~SharedTable() { ::munmap(index_, bytes_); }

  void put(const SharedHost& host) {
    const std::uint64_t hash = mixed(host.word[0]);
    const std::uint32_t tag = tagOf(hash);
    std::atomic<std::uint32_t>* place = nullptr;
    for (std::uint64_t at = hash & mask_;; at = (at + 1) & mask_) {
      const std::uint32_t cell = index_[at].load(std::memory_order_relaxed);
      if (cell == 0) {
        const std::uint32_t number = freeNumber();
        records_[number].write(host);
        (place != nullptr ? *place : index_[at]).store(tag | number, std::memory_order_release);
        return;
      }
      if (cell == grave) {
        place = place != nullptr ? place : &index_[at];
      } else if ((cell & ~numbers) == tag && records_[cell & numbers].key() == host.word[0]) {
        records_[cell & numbers].write(host);
        return;
      }
    }
  }
  bool erase(std::uint64_t key) {
    const std::uint64_t hash = mixed(key);
    const std::uint32_t tag = tagOf(hash);
    for (std::uint64_t at = hash & mask_;; at = (at + 1) & mask_) {
      const std::uint32_t cell = index_[at].load(std::memory_order_relaxed);
      if (cell == 0) {
        return false;
      }
      if (cell != grave && (cell & ~numbers) == tag && records_[cell & numbers].key() == key) {
        const bool last = index_[(at + 1) & mask_].load(std::memory_order_relaxed) == 0;
        index_[at].store(last ? 0 : grave, std::memory_order_release);
        free_.push_back(cell & numbers);
        return true;
      }
    }
  }

 private:
  static constexpr std::uint32_t numbers = (1U << 24) - 1;
  static constexpr std::uint32_t grave = UINT32_MAX;

  struct Record {
    std::atomic<std::uint64_t> sequence;
    std::array<std::atomic<std::uint64_t>, SharedHost::words> word;

    std::uint64_t key() const { return word[0].load(std::memory_order_relaxed); }
    void write(const SharedHost& host) {
      const std::uint64_t before = sequence.load(std::memory_order_relaxed);
      sequence.store(before + 1, std::memory_order_relaxed);
      std::atomic_thread_fence(std::memory_order_release);
      for (std::size_t at = 0; at < SharedHost::words; ++at) {
        word[at].store(host.word[at], std::memory_order_relaxed);
      }
      sequence.store(before + 2, std::memory_order_release);
    }
  };
  // Eight bits of the hash that do not choose the place; never those of a grave.
  static std::uint32_t tagOf(std::uint64_t hash) {
    const auto tag = static_cast<std::uint32_t>(hash >> 56);
    return (tag == 255 ? 254 : tag) << 24;
  }
  std::uint32_t freeNumber() {
    if (free_.empty()) {
      return ++last_;
    }
    const std::uint32_t number = free_.back();
    free_.pop_back();
    return number;
  }

  std::atomic<std::uint32_t>* index_ = nullptr;
  Record* records_ = nullptr;
  std::uint64_t mask_ = 0;
  std::size_t bytes_ = 0;
  std::vector<std::uint32_t> free_;
  std::uint32_t last_ = 0;
};

// A ring of trace records of 32 bytes in a shared mapping.
class Trace {
 public:
  Trace() {
    void* memory =
        ::mmap(nullptr, records * sizeof(Record), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
      throw std::bad_alloc();
    }
    ring_ = static_cast<Record*>(memory);
  }
  Trace(const Trace&) = delete;
  Trace& operator=(const Trace&) = delete;
  ~Trace() { ::munmap(ring_, records * sizeof(Record)); }

  void record(std::uint32_t site, std::uint32_t first, std::uint64_t second) {
    if (!on_) {
      return;
    }
    const std::uint64_t head = head_.load(std::memory_order_relaxed);
    ring_[head % records] = {now_, site, first, second, 0};
    head_.store(head + 1, std::memory_order_release);
  }
  void timeIs(std::uint64_t now) { now_ = now; }

 private:
  static constexpr std::uint64_t records = 1024;
  struct Record {
    std::uint64_t time;
    std::uint32_t site, first;
    std::uint64_t second, third;
  };
  Record* ring_ = nullptr;
  std::atomic<std::uint64_t> head_{0};
  std::uint64_t now_ = 0;
  volatile bool on_ = true;  // known at run time only
};

}  // namespace Minimum

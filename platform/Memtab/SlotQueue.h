#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "Memtab/Export.h"

namespace Memtab {

// Numbers of slots, first in first out, in private address space reserved for all that there may be: no
// operation copies or frees memory in bulk, and an empty queue takes next to none.
class MEMTAB_API SlotQueue {
 public:
  // Room for SLOTS numbers. Raises Error, which names TABLE, when there is no address space.
  SlotQueue(const std::string& table, std::uint32_t slots);
  SlotQueue(const SlotQueue&) = delete;
  SlotQueue& operator=(const SlotQueue&) = delete;
  ~SlotQueue();

  bool empty() const { return first_ == last_; }
  std::size_t size() const { return last_ - first_; }
  std::uint32_t front() const { return numbers_[first_ & mask_]; }
  void push(std::uint32_t number) { numbers_[last_++ & mask_] = number; }
  void pop() { ++first_; }

 private:
  std::uint32_t* numbers_;
  std::uint64_t mask_;
  std::uint64_t first_ = 0;
  std::uint64_t last_ = 0;
};

}  // namespace Memtab

#include "Memtab/SlotQueue.h"

#include <sys/mman.h>

#include <bit>

#include "Memtab/Error.h"

namespace Memtab {

SlotQueue::SlotQueue(const std::string& table, std::uint32_t slots)
    : mask_(std::bit_ceil(std::uint64_t{slots}) - 1) {
  const std::size_t bytes = (mask_ + 1) * sizeof(std::uint32_t);
  void* base =
      ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (base == MAP_FAILED) {
    throw Error(table, "no address space for " + std::to_string(bytes) + " bytes");
  }
  numbers_ = static_cast<std::uint32_t*>(base);
}

SlotQueue::~SlotQueue() {
  ::munmap(numbers_, (mask_ + 1) * sizeof(std::uint32_t));
}

}  // namespace Memtab

#include "RingLog/Format.h"

#include <algorithm>
#include <cstring>

namespace RingLog::Format {

std::uint64_t checksum(const void* bytes, std::size_t size) {
  std::uint64_t hash = 0xcbf29ce484222325;
  const auto* at = static_cast<const std::byte*>(bytes);
  for (std::size_t done = 0; done < size; done += sizeof(std::uint64_t)) {
    std::uint64_t word = 0;
    std::memcpy(&word, at + done, std::min(sizeof word, size - done));
    hash = (hash ^ word) * 0x100000001b3;
    hash ^= hash >> 32;
  }
  return hash;
}

}  // namespace RingLog::Format

// How long the ways to the records of a table are, counted in the table itself.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "Memtab/Segment.h"
#include "Memtab/Shape.h"

namespace MemtabBench {

// Slots that a look-up meets from its bucket head up to its key, that one included.
struct Ways {
  std::size_t records = 0;
  std::size_t steps = 0;  // of one look-up of each record
  std::size_t longest = 0;

  double mean() const { return static_cast<double>(steps) / static_cast<double>(records); }
};

// The ways in the table of SEGMENT, which is not damaged and has no writer at work.
inline Ways waysIn(const Memtab::Segment& segment) {
  const Memtab::FoundShape shape(segment.description());
  Ways ways;
  std::size_t way = 0;
  for (std::uint32_t to = Memtab::Format::bucketBit; to != Memtab::Format::end;) {
    if ((to & Memtab::Format::bucketBit) != 0) {
      way = 0;
      to = segment.heads()[to & ~Memtab::Format::bucketBit].load();
    } else {
      way += 1;
      ways.records += 1;
      ways.steps += way;
      ways.longest = std::max(ways.longest, way);
      to = Memtab::slotAt(shape, segment.slots(), to)->next.load();
    }
  }
  return ways;
}

}  // namespace MemtabBench

#pragma once

#include <cstddef>
#include <cstdint>

#include "Memtab/Export.h"
#include "Memtab/Segment.h"

namespace Memtab {

// The facts about a table that a writer takes over.
struct Adopted {
  std::size_t records = 0;
  std::uint32_t buckets = 0;  // bucket heads in the list
  std::uint32_t freeSlots;    // first of the slots without a record, chained by their links; end: none
};

// Brings a table whose writer ended, at whatever instruction, to the last published turn: a torn write is
// undone from the journal, additions and deletions of the unpublished turn are taken back, deleted records
// are swept out. Values replaced within the unpublished turn stay, whole, as readers have seen them already.
// Readers may read all the while. Raises Damaged, with the table unchanged, when it is damaged, as no
// writer's end leaves it. Damage that looks like what a writer leaves is adopted: in a value, or in a key
// that is in its place.
MEMTAB_API Adopted adopt(const Segment& segment);

}  // namespace Memtab

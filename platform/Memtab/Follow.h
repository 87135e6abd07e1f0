#pragma once

#include <cstddef>
#include <cstdint>

namespace Memtab {

// How far a reader has followed a table: a bookmark, to be kept from one follow() to the next. A new one is
// at the very beginning.
struct Position {
  std::uint64_t generation = 0;
  std::uint64_t change = 0;
};

// The result of a follow().
struct Followed {
  // The reader was called for every record, not for changes only: on its first time, after another segment
  // took the name, or when more changed than the table remembers. Records it knew and was not called for are
  // gone.
  bool everything = false;
  std::size_t calls = 0;
};

}  // namespace Memtab

#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace Memtab {

// A writer's choices for its table. Schema, fields, limit, changes and seed are stored in the segment.
struct Options {
  // "/name" is a POSIX shared memory object; a path with a further slash is a file; an empty name is private
  // memory of this process, without sharing.
  std::string name = {};

  // Type name and version of the records, such as "l2rib-host 2"; at most 127 bytes. A segment with another
  // schema is refused by writers and readers.
  std::string schema = {};

  // How generic tools print a record: its key's fields, then its value's, as "name:kind,name:kind,..." (see
  // Fields.h). Empty: unknown, printed as bytes. At most 1,023 bytes.
  std::string fields = {};

  // The most records the table may have, 1 to 268,435,455. Address space is reserved for twice as many,
  // memory is taken as the table grows. An adopted segment keeps the limit it was created with.
  std::size_t limit = std::size_t{1} << 20;

  // Access of a new segment, as chmod(2) has it; only the owner may write.
  unsigned mode = 0644;

  // One more user whose table is adopted; root's and the own user's always are, no others.
  std::optional<uid_t> owner = {};

  // The treatment of a damaged table, or one of another format: false refuses it; true leaves it to the
  // readers until then, and begins an empty one in its place (see Writer).
  bool replaceDamaged = false;

  // How many changed keys the table remembers for readers that follow it, rounded up to a power of two; 0
  // chooses a sixteenth of the limit, between 1,024 and 65,536.
  std::size_t changes = 0;

  // Salt of the hash, and so of the walk order. Nothing: a table that is made draws a random one, so that
  // strangers who choose the keys cannot make them collide. A number: the same walk order everywhere, for
  // runs that are to be repeated. An adopted table keeps the seed that it was made with.
  std::optional<std::uint64_t> seed = {};
};

}  // namespace Memtab

#pragma once

#include <cstddef>
#include <string>

#include "Memtab/Export.h"

namespace Memtab {

// Shared memory cannot be sealed against its owner: when a table is truncated, the system sends SIGBUS to
// those who touch what is gone. After this call such a signal ends the process with a message on standard
// error, which begins with PROGRAM (a literal) and names the table, and exit status 2. A SIGBUS for any
// other reason is left to what would have happened. For programs; a library leaves the signals of its
// process alone.
MEMTAB_API void endOnTruncation(const char* program);

// The addresses of a mapped table, for the message. Without effect on anything else.
void addressesAre(const void* base, std::size_t bytes, const std::string& name);
void addressesAreGone(const void* base);

}  // namespace Memtab

#include "Memtab/Error.h"

#include <cstdio>
#include <cstdlib>

namespace Memtab {

Error::Error(const std::string& table, const std::string& what)
    : std::runtime_error("memtab " + (table.empty() ? std::string("(private)") : table) + ": " + what) {}

Full::Full(const std::string& table, std::size_t limit)
    : Error(table, "full: it has its limit of " + std::to_string(limit) + " records") {}

Damaged::Damaged(const std::string& table, const std::string& what) : Error(table, "damaged: " + what) {}

void fatal(const char* text) {
  static_cast<void>(std::fprintf(stderr, "memtab: fatal: %s\n", text));
  std::abort();
}

}  // namespace Memtab

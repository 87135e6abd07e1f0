#pragma once

#include <stdexcept>
#include <string>

#include "Memtab/Export.h"

namespace Memtab {

// The error of a table and its place: a name that cannot be used, a segment made by another program or
// version, damage, no memory left. The text begins with "memtab NAME: " and is meant for the operator as it
// stands.
class MEMTAB_API Error : public std::runtime_error {
 public:
  Error(const std::string& table, const std::string& what);
};

// The table has its limit of records already. The insert that met it changed nothing; replacing and deleting
// go on.
class MEMTAB_API Full : public Error {
 public:
  Full(const std::string& table, std::size_t limit);
};

// The table is not what any writer leaves behind. The operation that finds it ends there; it says nothing
// about the records that it met before.
class MEMTAB_API Damaged : public Error {
 public:
  Damaged(const std::string& table, const std::string& what);
};

// Prints TEXT and aborts, in every build type, unless HOLDS: for what only this room itself can get wrong.
inline void check(bool holds, const char* text);

[[noreturn]] MEMTAB_API void fatal(const char* text);

inline void check(bool holds, const char* text) {
  if (!holds) {
    [[unlikely]] {
      fatal(text);
    }
  }
}

}  // namespace Memtab

#pragma once

#include <string>

#include "Memtab/Export.h"

namespace Memtab {

// Where the system has the table NAME as a file: "/name" is a POSIX shared memory object, anything with a
// further slash a file. Raises Error when it is not a name.
MEMTAB_API std::string pathOf(const std::string& name);

// The names that go with a table: the lock of its writer, the table that is being made in its place, and the
// damaged one that was replaced last.
inline std::string lockOf(const std::string& name) {
  return name + ".lock";
}
inline std::string successorOf(const std::string& name) {
  return name + ".new";
}
inline std::string damagedOf(const std::string& name) {
  return name + ".damaged";
}

}  // namespace Memtab

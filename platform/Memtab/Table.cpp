#include "Memtab/Table.h"

#include <unistd.h>

#include "Memtab/Export.h"

namespace Memtab {

MEMTAB_API std::uint32_t ownPid() {
  return static_cast<std::uint32_t>(::getpid());
}

}  // namespace Memtab

#include "Memtab/Table.h"

#include <unistd.h>

namespace Memtab {

std::uint32_t ownPid() {
  return static_cast<std::uint32_t>(::getpid());
}

}  // namespace Memtab

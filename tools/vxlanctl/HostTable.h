#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <stdexcept>
#include <string>

#include "tools/vxlanctl/Sheet.h"

namespace Vxlanctl {

// The members and columns of a host's row.
Sheet hostSheet();

// The hosts of the layer-2 RIB that `filters` keep (by "vlan", "mac" and "vtepIp"; others are left to the
// sheet), read from the table in shared memory without asking the agent, which need not run. The table
// belongs to root, the own user, or `owner`. Raises Memtab::Error when what is under that name cannot be read
// or belongs to somebody else, and NoTable when nothing is there.
Sheet hostsInTable(const std::string& tableName, const std::map<std::string, std::string>& filters,
                   std::optional<uid_t> owner = std::nullopt);

// There is no table in shared memory under the name asked for.
class NoTable : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace Vxlanctl

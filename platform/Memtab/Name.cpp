#include "Memtab/Name.h"

#include "Memtab/Error.h"

namespace Memtab {

std::string pathOf(const std::string& name) {
  if (name.size() < 2 || name.front() != '/' || name.back() == '/') {
    throw Error(name, "not a name: \"/name\" or an absolute path is needed");
  }
  return name.find('/', 1) == std::string::npos ? "/dev/shm" + name : name;
}

}  // namespace Memtab

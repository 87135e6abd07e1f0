#include "Vxlan/types/Vni.h"

#include <ostream>

namespace Vxlan {

std::ostream& operator<<(std::ostream& stream, const VniExt& vni) {
  return stream << vni.value();
}

std::ostream& operator<<(std::ostream& stream, const VniExtOrNone& vni) {
  return vni ? stream << vni.value() : stream << "none";
}

std::ostream& operator<<(std::ostream& stream, const VniSourcePair& pair) {
  return stream << pair.vni;
}

}  // namespace Vxlan

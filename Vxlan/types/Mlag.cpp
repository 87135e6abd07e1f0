#include "Vxlan/types/Mlag.h"

namespace Mlag {

void VxlanStatus::attributes(Kel::Attributes& list) const {
  list("vtepAddr", vtepAddr_);
  list("bumStatus", bumStatus_);
}

}  // namespace Mlag

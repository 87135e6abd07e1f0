#include "Vxlan/types/VtiStatus.h"

namespace Vxlan {

void VtiStatus::attributes(Kel::Attributes& list) const {
  list("controllerClientMode", controllerClientMode_);
  list("datapathLearning", datapathLearning_);
  list("localVtepAddr", localVtepAddr_);
  list("dgwVtepAddr", dgwVtepAddr_);
}

void VtiStatusDir::vtiStatusIs(Kel::Ptr<VtiStatus> status) {
  if (!status) {
    Kel::throwNullParameter("Vxlan::VtiStatusDir", "vtiStatus");
  }
  const Qnet::IntfId vti = status->intfId();
  vtiStatus_.is(vti, std::move(status));
}

}  // namespace Vxlan

#include "Vxlan/types/BumStatus.h"

namespace Vxlan {

void BumVtepList::attributes(Kel::Attributes& list) const {
  list("remoteVtepAddr", remoteVtepAddr_);
  list("bumVtepIpListType", bumVtepIpListType_);
}

Kel::Ptr<BumVtepList> BumStatus::bumVtepListIs(const MacVlanPair& key) {
  Kel::Ptr<BumVtepList> list = bumVtepList(key);
  if (!list) {
    list = Kel::make<BumVtepList>();
    bumVtepList_.is(key, list);
  }
  return list;
}

void BumStatus::bumVtepListIs(const MacVlanPair& key, Kel::Ptr<BumVtepList> list) {
  if (!list) {
    Kel::throwNullParameter("Vxlan::BumStatus", "bumVtepList");
  }
  bumVtepList_.is(key, std::move(list));
}

void BumStatus::attributes(Kel::Attributes& list) const {
  list("bumReplicationMode", bumReplicationMode_);
  list("bumVtepList", bumVtepList_);
}

}  // namespace Vxlan

#include "Vxlan/types/Controller.h"

#include <ostream>

namespace VxlanController {

void VniFdbStatusV2::macVtepFloodListTableIs(const Qnet::EthAddr& mac, Kel::Ptr<MacVtepFloodListV2> list) {
  if (!list) {
    Kel::throwNullParameter("VxlanController::VniFdbStatusV2", "macVtepFloodListTable");
  }
  macVtepFloodListTable_.is(mac, std::move(list));
}

MacVtepMultiPathV2 VniFdbStatusV2::macVtepMultiPathTable(const Qnet::EthAddr& mac) const {
  const MacVtepMultiPathV2* entry = macVtepMultiPathTable_.find(mac);
  return entry == nullptr ? MacVtepMultiPathV2{mac, {}} : *entry;
}

bool VniFdbStatusV2::hasMultiPath(const Qnet::EthAddr& mac) const {
  const MacVtepMultiPathV2* entry = macVtepMultiPathTable_.find(mac);
  return entry != nullptr && *entry != MacVtepMultiPathV2{mac, {}};
}

void VniFdbStatusV2::attributes(Kel::Attributes& list) const {
  list("macVtepTable", macVtepTable_);
  list("macVtepFloodListTable", macVtepFloodListTable_);
  list("macVtepMultiPathTable", macVtepMultiPathTable_);
}

std::ostream& operator<<(std::ostream& stream, const MacVtepV2& host) {
  return stream << host.macAddr << " behind " << host.vtepIp << ", moves " << host.moveCount << ", attribute "
                << unsigned{static_cast<std::uint8_t>(host.hostAttr)};
}

std::ostream& operator<<(std::ostream& stream, const MacVtepMultiPathV2& entry) {
  stream << entry.macAddr << " behind any of";
  for (const auto& [vtep, value] : entry.vtepIpList) {
    stream << ' ' << vtep;
  }
  return stream;
}

}  // namespace VxlanController

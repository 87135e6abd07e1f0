#include "tools/vxlanctl/HostTable.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "Memtab/Reader.h"
#include "Vxlan/types/Bridging.h"
#include "Vxlan/types/L2RibHost.h"

namespace Vxlanctl {

Sheet hostSheet() {
  return Sheet({{"vlan", "VLAN", true},
                {"mac", "MAC"},
                {"vti", "VTI"},
                {"vtepIp", "VTEP"},
                {"moveCount", "MOVES", true},
                {"hostAttr", "ATTR", true},
                {"lastUpdateTime", "UPDATED", true}});
}

namespace {

using Record = std::pair<Bridging::MacVlanPair, L2Rib::HostValue>;

nlohmann::json rowOf(const Record& record) {
  const auto& [key, host] = record;
  return {{"vlan", key.vlan.value()},
          {"mac", key.mac.text()},
          {"vti", host.dest.intf().text()},
          {"vtepIp", host.dest.vtepAddr(L2Rib::CiVtepIndex::First).text()},
          {"moveCount", host.moveCount},
          {"hostAttr", static_cast<std::uint32_t>(host.hostAttr)},
          {"entryType", static_cast<std::uint32_t>(host.entryType)},
          {"lastUpdateTime", host.lastUpdateTime}};
}

// The filters that are told apart on the record itself: making a row of each of a million hosts takes
// seconds.
class Wanted {
 public:
  explicit Wanted(const std::map<std::string, std::string>& filters)
      : vlan_(parsed<Bridging::VlanId>(filters, "vlan")),
        mac_(parsed<Qnet::EthAddr>(filters, "mac")),
        vtep_(parsed<Qnet::IpAddr>(filters, "vtepIp")) {}

  bool has(const Bridging::MacVlanPair& key, const L2Rib::HostValue& host) const {
    return (!vlan_ || key.vlan == *vlan_) && (!mac_ || key.mac == *mac_) &&
           (!vtep_ || host.dest.vtepAddr(L2Rib::CiVtepIndex::First) == Qnet::IpGenAddr(*vtep_));
  }

 private:
  template <typename T>
  static std::optional<T> parsed(const std::map<std::string, std::string>& filters, const char* member) {
    const auto found = filters.find(member);
    return found == filters.end() ? std::nullopt : T::parse(found->second);
  }

  std::optional<Bridging::VlanId> vlan_;
  std::optional<Qnet::EthAddr> mac_;
  std::optional<Qnet::IpAddr> vtep_;
};

}  // namespace

Sheet hostsInTable(const std::string& tableName, const std::map<std::string, std::string>& filters,
                   std::optional<uid_t> owner) {
  Memtab::Reader<Bridging::MacVlanPair, L2Rib::HostValue> table(tableName, L2Rib::hostSchema, owner);
  if (!table.attached()) {
    throw NoTable("no host table " + tableName + " in shared memory: no agent has made it");
  }
  auto records = std::make_shared<std::vector<Record>>();
  const Wanted wanted(filters);
  table.walk([&](const Bridging::MacVlanPair& key, const L2Rib::HostValue& host) {
    if (wanted.has(key, host)) {
      records->emplace_back(key, host);
    }
  });
  const auto place = [](const Record& record) { return std::pair(record.first.vlan, record.first.mac); };
  const auto before = [&](const Record& a, const Record& b) { return place(a) < place(b); };
  const auto same = [](const Record& a, const Record& b) { return a.first == b.first; };
  std::sort(records->begin(), records->end(), before);
  records->erase(std::unique(records->begin(), records->end(), same), records->end());
  Sheet sheet = hostSheet();
  sheet.rowsAre(records->size(), [records](std::size_t at) { return rowOf((*records)[at]); });
  return sheet;
}

}  // namespace Vxlanctl

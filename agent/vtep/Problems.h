#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/vtep/Schema.h"
#include "service/ovsdb/Uuid.h"

namespace Agent::Vtep {

// Why a row, or a part of it, is left out.
enum class ProblemKind : std::uint8_t {
  none,
  duplicateMac,        // a row of the same MAC and logical switch came later
  badMac,              // the MAC is none that a table of its kind can hold
  locatorNotIpv4,      // a locator whose address is not IPv4, or cannot end a tunnel
  locatorUnusable,     // a MAC's row behind such a locator
  referenceMissing,    // the row named is not there
  vlanOutOfRange,      // a binding to a VLAN outside 0 to 4094
  vniOutOfRange,       // a tunnel key outside 1 to 16777215
  vniWithTwoVlans,     // a binding or logical switch that would give a VNI a second VLAN
  vlanWithTwoVnis,     // a logical switch whose VLAN belongs to another one
  untaggedRangeFull,   // no VLAN is left for a logical switch that is bound untagged
  tunnelIpNotIpv4,     // an address of the switch that is not IPv4, or cannot end a tunnel
  severalTunnelIps,    // an address of the switch besides the lowest
  switchMissing,       // no physical switch has the name that was configured
  badReplicationMode,  // a replication mode that is not known
};
inline constexpr std::size_t problemKinds = 15;

// As it is shown and exported, such as "duplicate-mac".
std::string_view nameOf(ProblemKind kind);

// Something of the database that is left out; the rest goes on.
struct Problem {
  ProblemKind kind = ProblemKind::none;
  Table table = Table::global;
  Ovsdb::Uuid row;  // nil where there is none
  std::string text;
};

using ProblemCounts = std::array<std::size_t, problemKinds>;

// Problems of which all are counted, and only so many are kept in words.
class ProblemList {
 public:
  static constexpr std::size_t mostKept = 1000;

  void add(ProblemKind kind, Table table, const Ovsdb::Uuid& row, std::string text) {
    ++counts_[static_cast<std::size_t>(kind)];
    if (kept_.size() < mostKept) {
      kept_.push_back({kind, table, row, std::move(text)});
    }
  }
  void clear() { *this = ProblemList(); }
  const ProblemCounts& counts() const { return counts_; }
  const std::vector<Problem>& kept() const { return kept_; }

 private:
  ProblemCounts counts_{};
  std::vector<Problem> kept_;
};

}  // namespace Agent::Vtep

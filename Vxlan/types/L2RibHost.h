// The hosts of the layer-2 RIB, as they lie in shared memory.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <iosfwd>
#include <string_view>
#include <type_traits>

#include "Vxlan/types/Bridging.h"
#include "Vxlan/types/Qnet.h"

namespace L2Rib {

// The kind of a destination. Any other value is kept.
enum class DestType : std::uint32_t { None = 0, VxlanVtep = 1 };

// Which of a destination's VTEP slots.
enum class CiVtepIndex : std::uint32_t { First = 0, Second = 1 };

// Where a host came from; 10 for those of the controller.
enum class EntryType : std::uint32_t { None = 0, Controller = 10 };

// The host attribute that travels with the host, widened to 32 bits; not to be confused with LearnAttr.
enum class HostAttr : std::uint32_t { None = 0 };

// The second attribute of a host, which no controller client writes.
enum class LearnAttr : std::uint32_t { None = 0, Default = 16 };

// An interface name inside shared memory: no pointer, a bounded length, zero bytes behind the text.
class InlineIntf {
 public:
  constexpr InlineIntf() = default;
  // At most Qnet::IntfId::maxLength characters; a longer name raises the range error.
  KEL_API explicit InlineIntf(const Qnet::IntfId& intf);
  std::string_view text() const noexcept { return {text_.data(), ::strnlen(text_.data(), text_.size())}; }
  constexpr bool operator==(const InlineIntf&) const = default;

 private:
  std::array<char, Qnet::IntfId::maxLength + 1> text_{};
};

// The destination of a host: a type, an interface and two VTEP address slots.
class CiDest {
 public:
  static constexpr std::size_t vtepSlots = 2;

  constexpr CiDest() = default;
  constexpr explicit CiDest(DestType type) : type_(type) {}

  constexpr DestType destType() const noexcept { return type_; }
  const InlineIntf& intf() const noexcept { return intf_; }
  void intfIs(const InlineIntf& intf) noexcept { intf_ = intf; }
  const Qnet::IpGenAddr& vtepAddr(CiVtepIndex index) const {
    return vtepAddr_[static_cast<std::size_t>(index)];
  }
  void vtepAddrIs(CiVtepIndex index, const Qnet::IpGenAddr& address) {
    vtepAddr_[static_cast<std::size_t>(index)] = address;
  }
  constexpr bool operator==(const CiDest&) const = default;

 private:
  DestType type_ = DestType::None;
  InlineIntf intf_;
  std::array<Qnet::IpGenAddr, vtepSlots> vtepAddr_{};
};

// The part of a host that the table in shared memory keeps beside its key. Plain bytes without padding, at
// fixed places: other programs read it.
struct HostValue {
  double lastUpdateTime = 0;   // seconds of the writer's time, Kel::System::currentTime()
  std::uint64_t sequence = 0;  // not written by the controller client
  std::uint32_t moveCount = 0;
  HostAttr hostAttr = HostAttr::None;
  LearnAttr learnAttr = LearnAttr::Default;
  EntryType entryType = EntryType::None;
  std::uint32_t flags = 0;  // not written by the controller client
  CiDest dest;

  bool operator==(const HostValue&) const = default;
};
static_assert(std::is_trivially_copyable_v<HostValue> && std::is_standard_layout_v<HostValue>);
static_assert(sizeof(CiDest) == 4 + 24 + 2 * 20);
static_assert(sizeof(HostValue) == 8 + 8 + 5 * 4 + sizeof(CiDest), "no padding");

// A host of the layer-2 RIB. One that equals the default is empty.
struct Host : HostValue {
  Bridging::MacVlanPair key;

  bool operator==(const Host&) const = default;
};

// The schema of the table, which a reader compares, and its fields for generic tools: the key's, then the
// value's.
inline constexpr const char* hostSchema = "L2Rib::Host/1";
inline constexpr const char* hostFields =
    "mac:mac,vlan:vlan,lastUpdateTime:f64,sequence:u64,moveCount:u32,hostAttr:u32,learnAttr:u32,entryType:"
    "u32,flags:u32,destType:u32,"
    "intf:text[24],vtep0Family:u32,vtep0:ipv4,:pad[12],vtep1Family:u32,vtep1:ipv4,:pad[12]";

KEL_API std::ostream& operator<<(std::ostream& stream, const Host& host);

}  // namespace L2Rib

// The system's trace. An operation that is entered writes one compact record into the ring file; its further
// messages are formatted lines, where these are enabled.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

#include "Kel/Export.h"
#include "Kel/Name.h"
#include "Kel/StateMachine.h"
#include "Kel/TraceHelper.h"
#include "RingLog/RingLog.h"
#include "Vxlan/types/Bridging.h"
#include "Vxlan/types/Qnet.h"
#include "Vxlan/types/Vni.h"

namespace Vxlan {

// The process-wide trace of the client: ten levels, each with a ring of 33 KiB, in the file
// "UbeVxlanControllerSm.rl" of the directory that RINGLOG_DIR or vccRlDirectoryIs names, or in memory where
// there is none.
extern KEL_API std::unique_ptr<RingLog::Log> vccRlHandle;

// Creates the trace on first use. Where the file cannot be made there is no trace, and standard error says
// why.
KEL_API void vccRlHandleInit();

// Sets the directory of a trace that is yet to be created; empty goes back to RINGLOG_DIR.
KEL_API void vccRlDirectoryIs(const std::string& directory);

// The facility of the formatted lines: KEL_TRACE="VxlanController=8".
extern KEL_API Kel::TraceFacility vccTraceFacility;

// The levels in use.
inline constexpr unsigned traceRebuilt = 7;   // a machine was replaced by a new one
inline constexpr unsigned traceGate = 6;      // the gate of a BUM VTEP list
inline constexpr unsigned traceOrdinary = 8;  // handler entry, decisions, state

namespace detail {

template <class Piece>
void traceInto(Kel::TraceHelper& line, const Piece& piece) {
  if constexpr (std::is_enum_v<Piece>) {
    line << static_cast<std::uint64_t>(piece);
  } else {
    line << piece;
  }
}

}  // namespace detail
}  // namespace Vxlan

// What an operation traces when it is entered: VCC_TRACE(traceOrdinary, " vlanId ", vlan), in the ring and,
// where that is enabled, as a line that begins with the signature of the operation and a blank. Literals are
// stored once for the place; the rest is recorded in binary.
#define VCC_TRACE(level, ...)                     \
  do {                                            \
    VCC_RECORD(level __VA_OPT__(, ) __VA_ARGS__); \
    VCC_LINE(level __VA_OPT__(, ) __VA_ARGS__);   \
  } while (false)

// The record alone, for the few further records with values of their own.
#define VCC_RECORD(level, ...)                                          \
  do {                                                                  \
    if (::Vxlan::vccRlHandle != nullptr) [[likely]] {                   \
      RINGLOG(*::Vxlan::vccRlHandle, level __VA_OPT__(, ) __VA_ARGS__); \
    }                                                                   \
  } while (false)
// The line alone, for the further messages of an operation.
#define VCC_LINE(level, ...) VCC_LINE_OF(__PRETTY_FUNCTION__, level __VA_OPT__(, ) __VA_ARGS__)
// The same in a step of an operation: the line begins with the signature of the operation that the step works
// for, which hands its own down as __PRETTY_FUNCTION__.
#define VCC_LINE_OF(operation, level, ...)                                                \
  do {                                                                                    \
    if (::Vxlan::vccTraceFacility.enabled(level)) [[unlikely]] {                          \
      auto vccLine = Kel::TraceHelper::createIfEnabled(::Vxlan::vccTraceFacility, level); \
      vccLine << (operation) << ' ';                                                      \
      [&vccLine](const auto&... pieces) {                                                 \
        (::Vxlan::detail::traceInto(vccLine, pieces), ...);                               \
      }(__VA_ARGS__);                                                                     \
    }                                                                                     \
  } while (false)

template <>
struct RingLog::Argument<Qnet::EthAddr> {
  static RingLog::Mac from(const Qnet::EthAddr& mac) { return {mac.bytes()}; }
};
template <>
struct RingLog::Argument<Qnet::IpAddr> {
  static RingLog::Ipv4 from(const Qnet::IpAddr& address) {
    const std::uint32_t value = address.value();
    return {{static_cast<std::uint8_t>(value >> 24), static_cast<std::uint8_t>(value >> 16 & 0xff),
             static_cast<std::uint8_t>(value >> 8 & 0xff), static_cast<std::uint8_t>(value & 0xff)}};
  }
};
template <>
struct RingLog::Argument<Qnet::IntfId> {
  static std::string_view from(const Qnet::IntfId& intf) { return intf.text(); }
};
template <>
struct RingLog::Argument<Kel::Name> {
  static std::string_view from(const Kel::Name& name) { return name.text(); }
};
template <>
struct RingLog::Argument<Bridging::VlanId> {
  static std::uint16_t from(const Bridging::VlanId& vlan) { return vlan.value(); }
};
template <>
struct RingLog::Argument<Bridging::VlanIdOrNone> {
  static std::uint16_t from(const Bridging::VlanIdOrNone& vlan) { return vlan.value(); }
};
template <>
struct RingLog::Argument<Vxlan::VniExt> {
  static std::uint32_t from(const Vxlan::VniExt& vni) { return vni.value(); }
};
template <>
struct RingLog::Argument<Vxlan::VniExtOrNone> {
  static std::uint32_t from(const Vxlan::VniExtOrNone& vni) { return vni.value(); }
};

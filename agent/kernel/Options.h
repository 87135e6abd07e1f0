#pragma once

#include <chrono>
#include <string>

#include "agent/kernel/Types.h"

namespace Agent::Kernel {

// How the kernel is programmed. The defaults are right for one agent in a network namespace.
struct Options {
  // Begins the alias of every device that we make; what carries it is ours.
  std::string owner = "vxlan-agent";
  // The device group that a device of ours is made in, until it has its alias: the kernel sets no alias at
  // birth.
  std::uint32_t birthGroup = 0x56000000;
  // A bridge is named by this and its VLAN, a VXLAN device by this and its VNI.
  std::string bridgePrefix = "vxb";
  std::string devicePrefix = "vx";
  std::uint16_t udpPort = 4789;
  // Nexthop objects of this routing protocol number, from this number on (three ranges of 2^20), are ours.
  std::uint8_t nexthopProtocol = 86;
  NexthopId nexthopBase = 0x56000000;
  // Whether to use nexthop groups if the kernel has them.
  bool nexthops = true;
  // The time between two comparisons with the whole of the kernel's tables.
  Time auditEvery = std::chrono::seconds(60);
  // The first and the longest pause before a refused change is tried again.
  Time retryFirst = std::chrono::milliseconds(100);
  Time retryMost = std::chrono::seconds(30);
  // Somebody else changes the same object again and again: so many changes within a minute are put back at
  // once; then after pauses from contendedFirst up to retryMost. All repairs but the first of each object
  // share an allowance of so many at once and so many a second. The problem that says so ends when nothing
  // had to wait for contendedQuiet.
  unsigned contendedAtOnce = 3;
  Time contendedFirst = std::chrono::seconds(1);
  unsigned contendedBurst = 256;
  unsigned contendedPerSecond = 64;
  Time contendedQuiet = std::chrono::seconds(60);
  // How long a host that was seen at a local port stays there against the controller's word.
  Time yieldFor = std::chrono::seconds(10);
  // When a VLAN changes its VNI: how long packets go on leaving with the old one while the new one is ready
  // to receive, and then how long the old one is still received. Other switches change within that time.
  Time renumberPause = std::chrono::seconds(1);
  // Requests in one sendmsg, and the bytes that end it earlier.
  std::size_t batchRequests = 256;
  std::size_t batchBytes = std::size_t{64} << 10U;
  // The octets of reports that the kernel may queue; beyond them reports are lost and everything is
  // compared.
  std::size_t reportBuffer = std::size_t{16} << 20U;
  // The path of a network namespace to work in; empty is the process's own.
  std::string netns;
  // The folder of the lock that keeps a second agent out of the namespace.
  std::string lockFolder = "/run/vxlan-agent";
};

}  // namespace Agent::Kernel

#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "service/loop/EventLoop.h"

namespace Agent {

// A session with a controller, or with another source of input.
struct SessionMetrics {
  bool connected = false;
  std::uint64_t reconnects = 0;  // since the agent began
};

// The agent's own figures, as they were at one moment. Counters only grow.
struct Metrics {
  std::uint64_t hosts = 0;        // received
  std::uint64_t hostsMarked = 0;  // of them, marked for deletion
  std::uint64_t vnis = 0;
  std::uint64_t floodSets = 0;
  std::uint64_t floodDestinations = 0;  // of all flood sets together

  bool converging = false;
  double convergenceSeconds = 0;  // for how long, or how long the last time

  std::uint64_t slices = 0;  // counter: pieces that long work was cut into
  double longestSliceSeconds = 0;
  std::uint64_t notifications = 0;  // counter: delivered by the reactive framework
  Service::LoopStall loop{};

  std::map<std::string, SessionMetrics> sessions{};  // by name, such as "ovsdb"
  std::map<std::string, std::uint64_t> problems{};   // by kind: how many there are

  std::uint64_t tableRecords = 0;  // in the shared-memory table
  std::uint64_t tableLimit = 0;    // that it may hold at most
  std::uint64_t tableWaiting = 0;  // hosts that it has refused and that wait to be tried again
  std::uint64_t tableRefused = 0;  // counter: writes that it refused, tries included

  std::uint64_t errors = 0;      // counter: exceptions that the agent contained
  std::uint64_t logLeftOut = 0;  // counter: lines of the log that were left out

  std::uint64_t controlClients = 0;
  std::uint64_t controlRequests = 0;  // counter
  std::uint64_t controlRefused = 0;   // counter
  std::uint64_t controlCut = 0;       // counter: subscriptions whose reader was too slow
};

}  // namespace Agent

#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "Source.h"

// Prints what changes in a table, from its present records on, for as long as it is let.
class Follower {
 public:
  struct Settings {
    bool json = false;
    std::chrono::milliseconds interval{100};  // between two looks when nothing changed
    std::optional<std::uint64_t> count;       // ends after so many lines of records
  };

  Follower(Source& source, const Settings& settings) : source_(source), settings_(settings) {}

  void run();

 private:
  void printRecord(bool there);
  void printComplete(const Memtab::Followed& followed);
  bool done() const { return settings_.count && printed_ >= *settings_.count; }

  Source& source_;
  Settings settings_;
  std::uint64_t printed_ = 0;
};

// The repair of a damaged host table.
#pragma once

#include <functional>
#include <string>

#include "agent/state/World.h"

namespace Agent {

// A damaged host table is set aside, whether the damage is found at the start or met later. Its readers keep
// it until the controller's state is in and settled: then all hosts are written to the empty one that the
// client has been writing since, and that gets the name.
class TableRepair {
 public:
  // `tell` is called with the text of the damage, and of its end.
  TableRepair(World& world, std::function<void(const std::string& text)> tell)
      : world_(world), tell_(std::move(tell)) {}

  // Looks whether damage was met; if so, and the controller's state is in and `settled`, repairs it. To be
  // called now and then. Raises Memtab::Error when the new table cannot take its place; the next call tries
  // again.
  void look(bool settled);

 private:
  World& world_;
  std::function<void(const std::string& text)> tell_;
  std::string told_;  // what was wrong with the table that is being replaced
};

}  // namespace Agent

// The tables in shared memory that replays make, and those that they leave when they are killed.
#pragma once

#include <string>

namespace Agent {

// The name of this process's table: its number and when it began, so that no later process with the same
// number is taken for it.
std::string replayTable();

// Removes the tables of replays whose process is no more. Those of living ones stay: of processes that this
// one can see, and of those elsewhere (in another container, with the same shared memory) as long as they
// hold their lock. Strangers' files of such names are left alone.
void removeTablesOfDeadReplays();

}  // namespace Agent

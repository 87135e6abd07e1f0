// What the kernel adapter says of itself, as the documents that the control socket shows.
#pragma once

#include <nlohmann/json.hpp>

#include "agent/kernel/Adapter.h"

namespace Agent {

// {"kinds": {"hosts": {"wanted", "there", "differing", "unknown", "compared"}, ...}, "counters": {...},
// "longestSliceNs", ...}
nlohmann::json kernelDocument(const Kernel::AdapterStatus& status);
// The account of `explain`: what is wanted, what the kernel has acknowledged or reported, and what it answers
// when it is asked.
nlohmann::json kernelAccount(const Kernel::FullExplanation& explanation);

}  // namespace Agent

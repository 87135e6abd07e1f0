#pragma once

#include <cstddef>
#include <vector>

#include "agent/vtep/RowStore.h"

namespace Agent::Vtep {

// Problems of single rows in words, at most `most` of them.
std::vector<Problem> problemsOf(const RowStore& rows, std::size_t most);

}  // namespace Agent::Vtep

// How large the benchmarks are: as the arguments say.
#pragma once

#include <cstdint>

// The entries of a large table: 1,000,000, or a few thousand with --tiny, which shows only that all of it
// runs.
std::uint32_t largeTable();

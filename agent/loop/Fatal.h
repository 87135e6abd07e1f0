#pragma once

#include <source_location>
#include <string_view>

namespace Agent {

// States what only a mistake of this program can break: prints `why` with its place on standard error and
// aborts, in every build type, if `holds` is false.
void require(bool holds, std::string_view why,
             std::source_location where = std::source_location::current()) noexcept;

}  // namespace Agent

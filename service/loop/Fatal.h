#pragma once

#include <string_view>

namespace Service {

// States what only a mistake of this program can break: prints `why` with its place on standard error and
// aborts, in every build type, if `holds` is false.
void require(bool holds, std::string_view why, const char* file = __builtin_FILE(),
             int line = __builtin_LINE()) noexcept;

}  // namespace Service

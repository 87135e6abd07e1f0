#include "agent/loop/Fatal.h"

#include <cstdio>
#include <cstdlib>

namespace Agent {

void require(bool holds, std::string_view why, std::source_location where) noexcept {
  if (holds) [[likely]] {
    return;
  }
  std::fprintf(stderr, "%s:%u: fatal: %.*s\n", where.file_name(), where.line(), static_cast<int>(why.size()),
               why.data());
  std::fflush(stderr);
  std::abort();
}

}  // namespace Agent

#include "service/loop/Fatal.h"

#include <cstdio>
#include <cstdlib>

namespace Service {

void require(bool holds, std::string_view why, const char* file, int line) noexcept {
  if (holds) [[likely]] {
    return;
  }
  std::fprintf(stderr, "%s:%d: fatal: %.*s\n", file, line, static_cast<int>(why.size()), why.data());
  std::fflush(stderr);
  std::abort();
}

}  // namespace Service

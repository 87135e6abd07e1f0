// The cost of the framework, beside the plainest thing that could be in its place.
#include <benchmark/benchmark.h>

#include <string_view>

#include "Size.h"

namespace {
bool tiny = false;
}

std::uint32_t largeTable() {
  return tiny ? 5'000 : 1'000'000;
}

int main(int argc, char** argv) {
  int kept = 1;
  for (int at = 1; at < argc; ++at) {
    if (std::string_view(argv[at]) == "--tiny") {
      tiny = true;
    } else {
      argv[kept++] = argv[at];
    }
  }
  argv[kept] = nullptr;
  benchmark::Initialize(&kept, argv);
  if (benchmark::ReportUnrecognizedArguments(kept, argv)) {
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
}

// Records into a trace that lies in memory only, and dumps it when something went wrong: a flight recorder
// without a file.
#include <iostream>
#include <memory>

#include "RingLog/Reader.h"
#include "RingLog/RingLog.h"

namespace {

// Prints the records of a log, oldest first.
void dump(const RingLog::Log& log) {
  const RingLog::Trace trace = RingLog::Trace::parse(log.image());
  for (const RingLog::Record& record : trace.records()) {
    std::cout << record.place->level << ' ' << record.message() << '\n';
  }
}

int half(RingLog::Log& log, int number) {
  RINGLOG(log, 3, "half of ", number);
  if (number % 2 != 0) {
    RINGLOG(log, 0, "odd: ", number);
    dump(log);
  }
  return number / 2;
}

}  // namespace

int main() {
  const auto log = RingLog::Log::open("dump-trace.rl", {.levels = 4, .ringKiB = 4});
  int number = 12;
  while (number % 2 == 0) {
    number = half(*log, number);
  }
  return half(*log, number) == 1 ? 0 : 1;
}

#include "Follower.h"

#include <fmt/format.h>

#include <cstdio>
#include <thread>

#include "Printer.h"

void Follower::run() {
  while (!done()) {
    const Memtab::Followed followed = source_.follow([this](bool there) {
      if (!done()) {
        printRecord(there);
      }
    });
    if (followed.everything) {
      printComplete(followed);
    }
    static_cast<void>(std::fflush(stdout));
    if (followed.calls == 0 && !done()) {
      std::this_thread::sleep_for(settings_.interval);
    }
  }
}

void Follower::printRecord(bool there) {
  printed_ += 1;
  if (settings_.json) {
    nlohmann::ordered_json event{{"event", there ? "is" : "del"}};
    event.update(toJson(source_, !there));
    fmt::print("{}\n", line(event));
  } else {
    fmt::print("{} {}\n", there ? '+' : '-', toText(source_, !there));
  }
}

void Follower::printComplete(const Memtab::Followed& followed) {
  if (settings_.json) {
    fmt::print("{}\n", line({{"event", "complete"}, {"records", followed.calls}}));
  } else {
    fmt::print("= {} records, no others\n", followed.calls);
  }
}

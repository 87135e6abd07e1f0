// One phase of the road of a host, in one form, once: for road.py, which counts its instructions and
// compares.
//
//   road_count FORM PHASE HOSTS VNIS
//
// FORM is fused or staged (the minimum), parts, or road; PHASE is add, update, withdraw or unchanged (publish
// again what is published). Prints nanoseconds of processor time a host. An instruction counter counts the
// function `counted` alone.
#include <ctime>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Hosts.h"
#include "Minimum.h"
#include "Parts.h"
#include "Switch.h"

namespace {

using Hosts = std::vector<Road::Update>;

double processorSeconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

template <class Work>
[[gnu::noinline]] void counted(const Work& work) {
  work();
}

// What one form does in the phases.
template <class Publish, class Withdraw>
void run(const std::string& phase, const Hosts& hosts, Publish publish, Withdraw withdraw) {
  const Hosts again = Road::shuffled(hosts);
  const Hosts others = Road::moved(again);
  if (phase != "add") {
    publish(hosts);
  }
  const double begin = processorSeconds();
  counted([&] {
    if (phase == "withdraw") {
      withdraw(again);
    } else {
      publish(phase == "add" ? hosts : phase == "update" ? others : again);
    }
  });
  std::printf("%.1f\n", (processorSeconds() - begin) * 1e9 / static_cast<double>(hosts.size()));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::fputs("usage: road_count fused|staged|parts|road add|update|withdraw|unchanged HOSTS VNIS\n",
               stderr);
    return 2;
  }
  const std::string form = argv[1];
  const std::string phase = argv[2];
  const auto count = static_cast<std::uint32_t>(std::strtoul(argv[3], nullptr, 10));
  const auto vnis = static_cast<std::uint32_t>(std::strtoul(argv[4], nullptr, 10));
  const Hosts hosts = Road::hostsIn(count, vnis);
  if (form == "road") {
    Road::Switch leaf(vnis);
    run(
        phase, hosts, [&](const Hosts& some) { leaf.publish(some); },
        [&](const Hosts& some) { leaf.withdraw(some); });
  } else if (form == "parts") {
    Road::Parts parts(vnis);
    run(
        phase, hosts, [&](const Hosts& some) { parts.publish(some); },
        [&](const Hosts& some) { parts.withdraw(some); });
  } else {
    Minimum::Tables tables(count, vnis);
    const bool staged = form == "staged";
    run(
        phase, hosts, [&](const Hosts& some) { staged ? tables.staged(some) : tables.fused(some); },
        [&](const Hosts& some) { tables.withdraw(some); });
  }
  return 0;
}

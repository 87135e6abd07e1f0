#include "agent/daemon/Delivery.h"

#include "Kel/Activity.h"

namespace Agent {

void carryThrough(const std::function<void()>& change,
                  const std::function<void(const std::exception& error)>& failed) {
  const auto attempt = [&](const std::function<void()>& work) {
    try {
      work();
    } catch (const std::exception& error) {
      failed(error);
    }
  };
  Kel::ActivityLoop& loop = Kel::ActivityLoop::instance();
  attempt(change);
  while (!loop.inHandler() && loop.pending() != 0) {
    attempt([&] { loop.settle(); });
  }
}

}  // namespace Agent

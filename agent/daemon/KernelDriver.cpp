#include "agent/daemon/KernelDriver.h"

#include <sys/epoll.h>

#include <chrono>
#include <utility>

namespace Agent {

namespace {

constexpr std::chrono::milliseconds slice{4};

}  // namespace

KernelDriver::KernelDriver(Service::EventLoop& loop, World& world, const Kernel::Options& options,
                           KernelFollower::Ports ports)
    : loop_(loop), adapter_(options), follower_(world, adapter_, std::move(ports)) {
  for (const int fd : adapter_.fds()) {
    loop_.watch(fd, EPOLLIN, [this](std::uint32_t) { run(); });
  }
  run();
}

KernelDriver::~KernelDriver() {
  for (const int fd : adapter_.fds()) {
    loop_.forget(fd);
  }
  loop_.cancel(timer_);
  loop_.dropWork(work_);
}

void KernelDriver::run() {
  if (work_ != Service::EventLoop::WorkId::none) {
    return;
  }
  work_ = loop_.addWork([this] {
    const bool more = adapter_.run(slice);
    if (!more) {
      work_ = Service::EventLoop::WorkId::none;
      arm();
    }
    return more;
  });
}

void KernelDriver::settled() {
  adapter_.initialSyncComplete();
  run();
}

void KernelDriver::arm() {
  loop_.cancel(timer_);
  const Kernel::Time next = adapter_.nextWakeup();
  if (next != Kernel::Time::max()) {
    timer_ = loop_.after(next - Kernel::Adapter::now(), [this] { run(); });
  }
}

}  // namespace Agent

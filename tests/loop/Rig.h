// The scenarios' vocabulary: descriptors, and a loop whose time stands still.
#pragma once

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <system_error>
#include <vector>

#include "service/loop/EventLoop.h"

using namespace std::chrono_literals;
using Service::EventLoop;

// Two connected descriptors: what is written to `far` makes `near` readable.
class Pair {
 public:
  Pair() {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds) != 0) {
      throw std::system_error(errno, std::generic_category(), "socketpair");
    }
    near = fds[0];
    far = fds[1];
  }
  ~Pair() {
    close(near);
    close(far);
  }
  Pair(const Pair&) = delete;
  Pair& operator=(const Pair&) = delete;

  void send() const { EXPECT_EQ(write(far, "x", 1), 1); }
  void take() const {
    char byte = 0;
    EXPECT_EQ(read(near, &byte, 1), 1);
  }

  int near = -1;
  int far = -1;
};

// A loop whose time stands still until the test moves it, and a list of what happened.
class EventLoopTest : public testing::Test {
 protected:
  EventLoop::Handler note(std::string what) {
    return [this, what] { happened.push_back(what); };
  }
  void turn() { loop.runOnce(0ns); }

  EventLoop::Clock::time_point time{1h};
  EventLoop loop{[this] { return time; }};
  std::vector<std::string> happened;
};

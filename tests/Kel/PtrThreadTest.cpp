// What threads share: pointers, while the process-wide switch is on.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <latch>
#include <thread>
#include <vector>

#include "Kel/Ptr.h"

namespace {

struct Object final : Kel::Referenced {
  explicit Object(std::atomic<int>& destructions) : destroyed(destructions) {}
  virtual ~Object() {
    destroyed += static_cast<int>(std::size(written));
    for (const int value : written) {
      destroyed -= value;
    }
  }
  std::atomic<int>& destroyed;
  std::array<int, 4> written{};
};

class PtrThreadTest : public testing::Test {
 protected:
  PtrThreadTest() { Kel::threadSafePointersIs(true); }
  ~PtrThreadTest() override { Kel::threadSafePointersIs(false); }
};

// Four threads copy and drop the same pointer; the count is exact afterwards.
TEST_F(PtrThreadTest, CopiesMadeAtOnceAreAllCounted) {
  std::atomic<int> destroyed = 0;
  Kel::Ptr<Object> shared = Kel::make<Object>(destroyed);
  shared->written = {1, 1, 1, 0};
  std::latch start(4);
  {
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < 4; ++thread) {
      threads.emplace_back([&] {
        start.arrive_and_wait();
        for (int round = 0; round < 20'000; ++round) {
          const Kel::Ptr<Object> copy = shared;
          const Kel::Ptr<const Object> readOnly = copy;
        }
      });
    }
  }
  EXPECT_EQ(shared->references(), 1U);
  EXPECT_EQ(destroyed, 0);
  shared = nullptr;
  EXPECT_EQ(destroyed, 1);
}

// Whichever thread drops the last pointer sees what the others wrote into the object before they dropped
// theirs.
TEST_F(PtrThreadTest, TheLastToDropSeesWhatAllOthersWrote) {
  for (int round = 0; round < 200; ++round) {
    std::atomic<int> missing = 0;
    std::latch start(4);
    {
      std::vector<std::jthread> threads;
      Kel::Ptr<Object> shared = Kel::make<Object>(missing);
      for (std::size_t thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&start, thread, own = shared]() mutable {
          start.arrive_and_wait();
          own->written[thread] = 1;
          own = nullptr;
        });
      }
      shared = nullptr;
    }
    EXPECT_EQ(missing, 0);
  }
}

}  // namespace

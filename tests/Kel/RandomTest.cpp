// Entities, listeners, machines and clocks against a plain model: the same random program, run on the
// framework and on the model, must write the same history.
#include <gtest/gtest.h>

#include <limits>

#include "FrameworkWorld.h"
#include "ModelWorld.h"
#include "Random.h"

namespace {

using namespace scenario;

// A program: a few steps from outside, and what each handler does, all of it chosen by the seed and by how
// much has happened before.
class Program {
 public:
  Program(World& world, std::uint64_t seed) : world_(world), seed_(seed) {
    world_.heard = [this](const std::string& what) { react(what); };
  }

  Heard run() {
    for (std::uint32_t at = 0; at < World::listeners; ++at) {
      guarded([&] { world_.bind(at, static_cast<int>(at)); });
    }
    guarded([&] { world_.machineIs(0); });
    for (std::uint64_t step = 0; step < steps; ++step) {
      Random random = choices(firstStep + step);
      guarded([&] { outside(random); });
    }
    for (int last = 0; last < 6; ++last) {
      guarded([&] { world_.turn(now_ += 3); });
    }
    return history_;
  }

 private:
  static constexpr std::uint64_t steps = 20;
  static constexpr std::size_t longest = 150;      // entries after which handlers do nothing any more
  static constexpr std::uint64_t firstStep = 1e6;  // handlers are numbered from zero

  Random choices(std::uint64_t number) const { return Random(seed_ * 0x9e3779b97f4a7c15ULL + number); }

  template <class Function>
  void guarded(Function&& function) {
    try {
      function();
    } catch (const Broken&) {
      history_.emplace_back("thrown");
    }
    history_.emplace_back("--");
  }

  void react(const std::string& what) {
    history_.push_back(what);
    if (history_.size() < longest) {
      Random random = choices(history_.size());
      for (std::uint32_t changes = random.below(3); changes > 0; --changes) {
        change(random);
      }
      if (random.below(25) == 0) {
        throw Broken();
      }
    }
  }

  void outside(Random& random) {
    switch (random.below(6)) {
      case 0:
        world_.turn(now_ += random.below(3));
        break;
      case 1:
        world_.handler([&] {
          for (std::uint32_t changes = 1 + random.below(4); changes > 0; --changes) {
            change(random);
          }
        });
        break;
      default:
        change(random);
    }
  }

  void change(Random& random) {
    switch (random.below(3)) {
      case 0:
        return changeDevice(random);
      case 1:
        return changeListener(random);
      default:
        return changeMachine(random);
    }
  }
  void changeDevice(Random& random) {
    const std::uint32_t device = random.below(World::devices);
    const std::uint32_t key = random.below(World::keys);
    const std::uint32_t value = random.below(2);
    switch (random.below(12)) {
      case 0:
      case 1:
        return world_.up(device, value != 0);
      case 2:
        return world_.load(device, static_cast<int>(value));
      case 3:
      case 4:
        return world_.counter(device, key, static_cast<int>(value));
      case 5:
        return world_.counterDel(device, key);
      case 6:
        return world_.counterDelAll(device);
      case 7:
      case 8:
        return world_.part(device, key, random.below(World::devices));
      case 9:
        return world_.partDel(device, key);
      case 10:
        return random.below(2) == 0 ? world_.partDelAll(device) : world_.alarmAll(device);
      default:
        return world_.ping(device, key);
    }
  }
  void changeListener(Random& random) {
    const std::uint32_t listener = random.below(World::listeners);
    switch (random.below(8)) {
      case 0:
        return world_.active(listener, random.below(3) != 0);
      case 1:
        return world_.zombie(listener, random.below(3) == 0);
      case 2:
        return world_.renew(listener);
      case 3: {
        const std::uint32_t when = random.below(6);
        const double due = when == 5 ? std::numeric_limits<double>::infinity() : now_ + when - 2;
        return world_.arm(random.below(World::clocks), due);
      }
      default:
        return world_.bind(listener, anyDevice(random));
    }
  }
  void changeMachine(Random& random) {
    const std::uint32_t device = random.below(World::devices);
    const std::uint32_t key = random.below(World::keys);
    switch (random.below(9)) {
      case 0:
      case 1:
        return world_.machineIs(device);
      case 2:
        return random.below(3) == 0 ? world_.machineDel() : world_.guardDel(key);
      case 3:
        return world_.machineActive(random.below(3) != 0);
      case 4:
        return world_.machineZombie(random.below(3) == 0);
      case 5:
        return world_.machineInput(anyDevice(random));
      default:
        return world_.guardIs(key, device);
    }
  }
  // A device or none.
  static int anyDevice(Random& random) { return static_cast<int>(random.below(World::devices + 1)) - 1; }

  World& world_;
  const std::uint64_t seed_;
  double now_ = 0;
  Heard history_;
};

template <class AnyWorld>
Heard history(std::uint64_t seed) {
  AnyWorld world;
  return Program(world, seed).run();
}

std::string document(const Heard& history) {
  std::string lines;
  for (const std::string& line : history) {
    lines += line + '\n';
  }
  return lines;
}

TEST(RandomTest, TheFrameworkDoesWhatTheModelDoes) {
  std::size_t heard = 0;
  std::map<std::string, std::size_t> kinds;
  for (std::uint64_t seed = 0; seed < 12'000; ++seed) {
    const Heard expected = history<ModelWorld>(seed);
    ASSERT_EQ(document(history<FrameworkWorld>(seed)), document(expected)) << "seed " << seed;
    heard += expected.size();
    for (const std::string& what : expected) {
      ++kinds[what.substr(0, what.find(' ', 3))];
    }
  }
  // The programs did reach what they are meant to reach.
  EXPECT_GT(heard, 500'000U);
  for (const char* kind : {"thrown", "name", "guard", "monitor", "C0", "C1", "L0 up", "L0 part", "L0 parts",
                           "L2 counter", "L1 ping", "L1 alarms"}) {
    EXPECT_GT(kinds[kind], 1'000U) << kind;
  }
}

}  // namespace

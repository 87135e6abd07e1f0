// One writer, several reader processes at the same time, a few million changes.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Hosts.h"

namespace Memtab::Test {
namespace {

// The writer's programme, and what readers may rely on while it goes on:
// - keys below constant are there after each turn, whether replaced, or deleted and added again, within it;
// - keys from firstPaired on come and go in pairs (2n, 2n + 1), both in one turn;
// - end is added in the last turn.
class Programme {
 public:
  static constexpr Key constant = 4096;
  static constexpr Key firstPaired = 1'000'000;
  static constexpr Key end = 999'999;
  static constexpr std::size_t limit = 200'000;

  explicit Programme(const Options& options) : writer_(options) {
    for (Key key = 0; key < constant; ++key) {
      writer_.is(key, hostOf(key, 0));
    }
    writer_.publish();
  }

  HostWriter& writer() { return writer_; }

  void run(std::uint64_t changes, Key pairs) {
    while (changes_ < changes) {
      turn(pairs);
    }
    writer_.is(end, hostOf(end, 0));
    writer_.publish();
  }

 private:
  void turn(Key pairs) {
    for (int i = 0; i < 40; ++i) {
      const Key key = random_() % constant;
      if (random_() % 2 == 0) {
        writer_.del(key);
        ++changes_;
      }
      writer_.is(key, hostOf(key, random_()));
      ++changes_;
    }
    // Two steps up and one down, then the other way round: the table grows and shrinks.
    const Key range = 1 + pairs * ((changes_ >> 16U) % 8) / 8;
    for (int i = 0; i < 20; ++i) {
      const Key first = firstPaired + 2 * (random_() % range);
      const bool add = random_() % 3 != 0;
      for (const Key key : {first, first + 1}) {
        if (add) {
          writer_.is(key, hostOf(key, random_()));
        } else {
          writer_.del(key);
        }
        ++changes_;
      }
    }
    writer_.publish();
  }

  HostWriter writer_;
  std::mt19937_64 random_{11};
  std::uint64_t changes_ = 0;
};

// Goes on until the end is there, in one of several ways. Returns what was wrong, or nothing.
class Watcher {
 public:
  Watcher(HostReader& reader, unsigned number) : reader_(reader), random_(number), way_(number % 3) {}

  std::string run() {
    while (mistake_.empty() && !reader_.find(Programme::end)) {
      if (way_ == 0) {
        lookUp();
      } else if (way_ == 1) {
        walk();
      } else {
        follow();
      }
    }
    if (mistake_.empty()) {
      mirror_.follow(reader_);
      require(mirror_.content() == contentOf(reader_), "the follower knows something else than there is");
    }
    return mistake_;
  }

 private:
  void require(bool good, const std::string& what) {
    if (!good && mistake_.empty()) {
      mistake_ = what;
    }
  }

  void lookUp() {
    for (int i = 0; i < 1000; ++i) {
      const Key key = random_() % Programme::constant;
      const auto host = reader_.find(key);
      require(host.has_value(),
              "a key that was there before and after a turn is missing: " + std::to_string(key));
      require(!host || whole(key, *host), "a host that was never written whole");
      const Key first = Programme::firstPaired + 2 * (random_() % 1000);
      const std::uint64_t before = reader_.turn();
      const bool even = reader_.find(first).has_value();
      const bool odd = reader_.find(first + 1).has_value();
      require(even == odd || reader_.turn() != before, "half of a turn");
    }
  }

  void walk() {
    std::vector<bool> met(Programme::constant);
    reader_.walk([&](Key key, const Host& host) {
      require(whole(key, host), "a host that was never written whole, in a walk");
      if (key < Programme::constant) {
        require(!met[key], "a key met twice in a walk");
        met[key] = true;
      }
    });
    require(std::find(met.begin(), met.end(), false) == met.end(), "a key missing in a walk");
  }

  void follow() {
    mirror_.follow(reader_);
    std::size_t constant = 0;
    for (const auto& [key, stamp] : mirror_.content()) {
      require(stamp != ~std::uint64_t{0}, "a host that was never written whole, in a follow");
      constant += key < Programme::constant ? 1 : 0;
    }
    require(constant == Programme::constant, "a key missing for a follower");
  }

  HostReader& reader_;
  std::mt19937_64 random_;
  unsigned way_;
  Mirror mirror_;
  std::string mistake_;
};

TEST(Readers, InOtherProcessesNeverSeeHalfARecordOrAGap) {
  const Name name;
  Programme programme(optionsFor(name, Programme::limit));
  std::vector<pid_t> readers;
  for (unsigned number = 0; number < 3; ++number) {
    const pid_t child = ::fork();
    if (child == 0) {
      HostReader reader(name.text(), schema);
      const std::string mistake = Watcher(reader, number).run();
      if (!mistake.empty()) {
        static_cast<void>(std::fprintf(stderr, "reader %u: %s\n", number, mistake.c_str()));
      }
      ::_exit(mistake.empty() ? 0 : 1);
    }
    readers.push_back(child);
  }
  programme.run(3'000'000, 80'000);
  for (const pid_t child : readers) {
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
  }
}

TEST(Readers, InOtherThreadsSeeTheSame) {
  Programme programme(optionsFor("", Programme::limit));
  std::vector<std::string> mistakes(3);
  std::vector<std::thread> readers;
  for (unsigned number = 0; number < 3; ++number) {
    readers.emplace_back([&programme, &mistakes, number] {
      HostReader reader(programme.writer());
      mistakes[number] = Watcher(reader, number).run();
    });
  }
  programme.run(200'000, 2000);
  for (std::thread& reader : readers) {
    reader.join();
  }
  EXPECT_EQ(mistakes, std::vector<std::string>(3));
}

}  // namespace
}  // namespace Memtab::Test

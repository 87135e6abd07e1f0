// Writer and reader as two threads over one mapping, for ThreadSanitizer: what it cannot see between
// processes.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <optional>
#include <random>
#include <thread>

#include "Memtab/Reader.h"
#include "Table.h"

namespace HostsTest {
namespace {

constexpr std::uint32_t keys = 64;

TEST(Threads, AReaderBesideAWriterOverOneMapping) {
  const unsigned seed = std::random_device()();
  std::printf("seed %u\n", seed);
  Writer writer(optionsOf("", 4 * keys, 1024));
  std::atomic<bool> ended{false};
  std::atomic<std::uint64_t> reads{0};
  std::uint64_t torn = 0;
  std::thread reading([&] {
    Memtab::Reader<Key, Record> reader(writer);
    Memtab::Position position;
    std::mt19937 random(seed);
    const auto look = [&](const Key& key, const std::optional<Record>& record) {
      reads += record ? 1U : 0U;
      torn += !record || whole(key, *record) ? 0U : 1U;
    };
    while (!ended) {
      const Key key = keyOf(random() % keys);
      look(key, reader.find(key));
      static_cast<void>(reader.walk([&](const Key& at, const Record& record) { look(at, record); }));
      static_cast<void>(reader.follow(position, look));
    }
  });
  std::mt19937 random(seed + 1);
  for (int turn = 0; turn < 500 || reads < 20'000; ++turn) {
    for (int i = 0; i < 10; ++i) {
      const Key key = keyOf(random() % keys);
      if (random() % 4 == 0) {
        writer.del(key);
      } else {
        writer.is(key, recordOf(key, static_cast<std::uint32_t>(random())));
      }
    }
    writer.publish();
  }
  ended = true;
  reading.join();
  EXPECT_EQ(torn, 0U);
}

}  // namespace
}  // namespace HostsTest

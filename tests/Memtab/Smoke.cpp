#include <gtest/gtest.h>

#include "Memtab/Reader.h"
#include "Memtab/Writer.h"

namespace {
struct V { std::uint64_t a[13]; };
TEST(Smoke, Works) {
  Memtab::Writer<std::uint64_t, V> writer({.name = "", .schema = "s"});
  Memtab::Reader<std::uint64_t, V> reader(writer);
  for (std::uint64_t i = 0; i < 100000; ++i) writer.is(i, V{{i, 1, 2, i}});
  EXPECT_FALSE(reader.find(5));
  writer.publish();
  for (std::uint64_t i = 0; i < 100000; ++i) ASSERT_EQ(reader.find(i)->a[3], i);
  std::size_t n = 0;
  for (auto r = writer.first(); r; r = writer.next(r->first)) { ++n; writer.del(r->first); }
  EXPECT_EQ(n, 100000u);
  EXPECT_EQ(reader.walk([](auto&&, auto&&) {}), 100000u);
  writer.publish();
  EXPECT_EQ(reader.walk([](auto&&, auto&&) {}), 0u);
}
}  // namespace

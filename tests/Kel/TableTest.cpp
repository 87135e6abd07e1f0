// Both kinds of table against the standard containers, and what only the hashed one promises.
#include <gmock/gmock.h>
#include <malloc.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "Kel/OrderedTable.h"
#include "Kel/Table.h"
#include "Random.h"

namespace {

using Kel::OrderedTable;
using Kel::Table;

template <class Storage>
class TableTest : public testing::Test {
 protected:
  Storage table;

  std::map<std::uint32_t, std::string> contents() const {
    std::map<std::uint32_t, std::string> all;
    for (auto&& pair : table) {
      EXPECT_TRUE(all.emplace(pair.key, pair.value).second) << "met twice: " << pair.key;
    }
    return all;
  }
};
using Storages = testing::Types<Table<std::uint32_t, std::string>, OrderedTable<std::uint32_t, std::string>>;
TYPED_TEST_SUITE(TableTest, Storages);

TYPED_TEST(TableTest, ANewTableIsEmpty) {
  EXPECT_TRUE(this->table.empty());
  EXPECT_EQ(this->table.find(1), nullptr);
  EXPECT_FALSE(this->table.begin());
  EXPECT_FALSE(this->table.at(1));
  EXPECT_FALSE(this->table.erase(1));
}

TYPED_TEST(TableTest, EmplaceKeepsAnExistingValue) {
  const auto [at, added] = this->table.emplace(7, "seven");
  EXPECT_TRUE(added);
  EXPECT_EQ(at->key, 7U);
  EXPECT_EQ(at->value, "seven");
  const auto [again, addedAgain] = this->table.emplace(7, "other");
  EXPECT_FALSE(addedAgain);
  EXPECT_EQ(again->value, "seven");
  EXPECT_EQ(this->table.size(), 1U);
}

TYPED_TEST(TableTest, AValueIsReplacedInPlace) {
  this->table.emplace(7, "seven");
  *this->table.find(7) = "other";
  this->table.at(7)->value += "wise";
  EXPECT_EQ(*this->table.find(7), "otherwise");
}

TYPED_TEST(TableTest, ClearForgetsAll) {
  for (std::uint32_t key = 0; key < 100; ++key) {
    this->table.emplace(key, "x");
  }
  this->table.clear();
  EXPECT_TRUE(this->table.empty());
  EXPECT_FALSE(this->table.begin());
  this->table.emplace(5, "again");
  EXPECT_THAT(this->contents(), testing::ElementsAre(testing::Pair(5U, "again")));
}

// 60 random sequences of 2,000 operations each, over few keys (many hits) and many (growth); every answer and
// the contents at the end are those of a std::map.
TYPED_TEST(TableTest, AnswersLikeAStandardMap) {
  for (unsigned seed = 0; seed < 60; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    scenario::Random random(seed);
    const std::uint32_t keys = 1U << (seed % 14);
    std::map<std::uint32_t, std::string> model;
    this->table.clear();
    for (int step = 0; step < 2'000; ++step) {
      const std::uint32_t key = random.below(keys);
      switch (random.below(5)) {
        case 0:
        case 1:
        case 2: {
          const std::string value = std::to_string(random.next());
          ASSERT_EQ(this->table.emplace(key, value).second, model.emplace(key, value).second);
          break;
        }
        case 3:
          ASSERT_EQ(this->table.erase(key), model.erase(key) == 1);
          break;
        default: {
          const std::string* found = this->table.find(key);
          const auto at = model.find(key);
          ASSERT_EQ(found != nullptr, at != model.end());
          if (found != nullptr) {
            ASSERT_EQ(*found, at->second);
          }
        }
      }
      ASSERT_EQ(this->table.size(), model.size());
    }
    ASSERT_EQ(this->contents(), model);
  }
}

TEST(OrderedTableTest, WalksInTheOrderOfItsKeys) {
  OrderedTable<std::string, int> table;
  for (const char* key : {"c", "a", "d", "b"}) {
    table.emplace(key, 0);
  }
  std::string walked;
  for (auto&& pair : table) {
    walked += pair.key;
  }
  EXPECT_EQ(walked, "abcd");
}

TEST(HashedTableTest, ASlotNeverMovesWhileItsKeyIsThere) {
  Table<std::uint32_t, int> table;
  std::map<std::uint32_t, std::pair<std::uint32_t, const int*>> places;
  for (std::uint32_t key = 0; key < 20'000; ++key) {
    const auto at = table.emplace(key, 1).first;
    places[key] = {at.slot(), &at->value};
    if (key % 3 == 0) {
      table.erase(key / 2);
      places.erase(key / 2);
    }
  }
  for (const auto& [key, place] : places) {
    ASSERT_EQ(table.at(key).slot(), place.first);
    ASSERT_EQ(table.find(key), place.second);
    ASSERT_EQ(table.atSlot(place.first)->key, key);
  }
}

// The pair that was found last is remembered: not beyond its end.
TEST(HashedTableTest, APairThatWasFoundLastIsForgottenWithItsKey) {
  Table<std::uint32_t, std::string> table;
  table.emplace(1, "one");
  table.emplace(2, "two");
  ASSERT_NE(table.find(1), nullptr);
  EXPECT_TRUE(table.erase(2));
  EXPECT_EQ(*table.find(1), "one");
  EXPECT_TRUE(table.erase(1));
  EXPECT_EQ(table.find(1), nullptr);
  EXPECT_FALSE(table.at(1));
  EXPECT_TRUE(table.emplace(3, "three").second);
  EXPECT_TRUE(table.emplace(1, "new").second);
  EXPECT_EQ(*table.find(1), "new");
  EXPECT_FALSE(table.emplace(1, "newer").second);
  table.clear();
  EXPECT_EQ(table.find(1), nullptr);
  EXPECT_TRUE(table.emplace(1, "again").second);
  EXPECT_EQ(table.at(1)->value, "again");
}

TEST(HashedTableTest, FreedSlotsAreUsedAgain) {
  Table<std::uint32_t, int> table;
  for (std::uint32_t key = 0; key < 1'000; ++key) {
    table.emplace(key, 0);
  }
  // Whole chunks and single slots become free, in any order.
  for (std::uint32_t key = 0; key < 1'000; ++key) {
    if (key % 7 == 0 || (key >= 256 && key < 512)) {
      table.erase(key);
    }
  }
  const std::size_t gone = 1'000 - table.size();
  std::set<std::uint32_t> slots;
  for (std::uint32_t key = 0; key < gone; ++key) {
    slots.insert(table.emplace(10'000 + key, 0).first.slot());
  }
  EXPECT_EQ(slots.size(), gone);
  EXPECT_LT(*slots.rbegin(), 1'000U);
}

TEST(HashedTableTest, GivesBackTheMemoryOfWhatWasErased) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the allocator of a sanitizer does not tell what is in use";
#else
  struct Big {
    std::byte bytes[100];
  };
  Table<std::uint32_t, Big> table;
  const std::size_t before = mallinfo2().uordblks;
  for (std::uint32_t key = 0; key < 100'000; ++key) {
    table.emplace(key);
  }
  const std::size_t full = mallinfo2().uordblks - before;
  EXPECT_GT(full, 100'000 * sizeof(Big));
  // All but one: its chunk and the index stay.
  for (std::uint32_t key = 1; key < 100'000; ++key) {
    table.erase(key);
  }
  EXPECT_LT(mallinfo2().uordblks - before, full / 5);
  table.erase(0);
  EXPECT_LT(mallinfo2().uordblks, before + full / 100);  // what the allocator keeps for itself moves a little
#endif
}

struct Colliding {
  std::uint32_t value;
  bool operator==(const Colliding&) const = default;
};

}  // namespace

template <>
struct std::hash<Colliding> {
  std::size_t operator()(const Colliding&) const noexcept { return 42; }
};

namespace {

// However bad the hash, the table is only slow, never wrong.
TEST(HashedTableTest, KeysOfOneHashAreAllFound) {
  Table<Colliding, std::uint32_t> table;
  constexpr std::uint32_t keys = 3'000;
  for (std::uint32_t key = 0; key < keys; ++key) {
    table.emplace(Colliding{key}, key);
  }
  for (std::uint32_t key = 0; key < keys; key += 2) {
    ASSERT_TRUE(table.erase(Colliding{key}));
  }
  for (std::uint32_t key = 0; key < keys; ++key) {
    const std::uint32_t* value = table.find(Colliding{key});
    ASSERT_EQ(value != nullptr, key % 2 == 1);
    if (value != nullptr) {
      ASSERT_EQ(*value, key);
    }
  }
}

// A value that asks its table about itself, and takes its neighbour along, when it is destroyed.
template <template <class, class> class Storage>
struct Chained {
  using All = Storage<std::uint32_t, Chained>;
  Chained(All& all, std::uint32_t own, std::vector<std::string>& what) : table(&all), key(own), seen(&what) {}
  Chained(Chained&& other) noexcept
      : table(std::exchange(other.table, nullptr)), key(other.key), seen(other.seen) {}
  Chained& operator=(Chained&&) = delete;
  ~Chained() {
    if (table != nullptr) {
      seen->push_back(std::to_string(key) + (table->contains(key) ? " still there" : " gone") + ", " +
                      std::to_string(table->size()) + " left");
      table->erase(key + 1);
    }
  }
  All* table;
  std::uint32_t key;
  std::vector<std::string>* seen;
};

template <template <class, class> class Storage>
void eraseAChain() {
  std::vector<std::string> seen;
  Storage<std::uint32_t, Chained<Storage>> table;
  for (const std::uint32_t key : {1U, 2U, 3U, 5U}) {
    table.emplace(key, table, key, seen);
  }
  EXPECT_TRUE(table.erase(1));
  EXPECT_THAT(seen, testing::ElementsAre("1 gone, 3 left", "2 gone, 2 left", "3 gone, 1 left"));
  EXPECT_TRUE(table.contains(5));
}

TEST(HashedTableTest, ADestructorMayEraseMore) {
  eraseAChain<Table>();
}
TEST(OrderedTableTest, ADestructorMayEraseMore) {
  eraseAChain<OrderedTable>();
}

template <template <class, class> class Storage>
void clearAChain() {
  std::vector<std::string> seen;
  Storage<std::uint32_t, Chained<Storage>> table;
  for (const std::uint32_t key : {1U, 2U}) {
    table.emplace(key, table, key, seen);
  }
  table.clear();
  EXPECT_THAT(seen, testing::UnorderedElementsAre("1 gone, 0 left", "2 gone, 0 left"));
}

TEST(HashedTableTest, ADestructorFindsAClearedTableEmpty) {
  clearAChain<Table>();
}
TEST(OrderedTableTest, ADestructorFindsAClearedTableEmpty) {
  clearAChain<OrderedTable>();
}

}  // namespace

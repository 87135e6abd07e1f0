#include "agent/vtep/SlotMap.h"

#include <gtest/gtest.h>

#include <random>
#include <unordered_map>

namespace Agent::Vtep::Testing {

namespace {

// A hash as poor as can be, so that probe runs are long.
struct PoorHash {
  std::size_t operator()(std::uint32_t key) const noexcept { return key % 3; }
};

template <typename Map>
void comparesWithAModel(std::uint32_t seed, std::uint32_t keys) {
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  Map map;
  std::unordered_map<std::uint32_t, int> model;
  for (int step = 0; step < 20'000; ++step) {
    const auto key = static_cast<std::uint32_t>(random() % keys);
    if (random() % 3 != 0) {
      const auto [slot, inserted] = map.insert(key);
      ASSERT_EQ(inserted, !model.contains(key));
      map[slot] = step;
      model[key] = step;
    } else if (const Slot slot = map.find(key); slot != noSlot) {
      map.erase(slot);
      ASSERT_EQ(model.erase(key), 1U);
    }
    ASSERT_EQ(map.size(), model.size());
  }
  std::size_t live = 0;
  for (Slot slot = 0; slot < map.slots(); ++slot) {
    if (map.live(slot)) {
      ++live;
      ASSERT_EQ(map[slot], model.at(map.key(slot)));
      ASSERT_EQ(map.find(map.key(slot)), slot);
    }
  }
  EXPECT_EQ(live, model.size());
}

}  // namespace

TEST(SlotMapTest, BehavesAsAPlainMapUnderRandomChanges) {
  for (std::uint32_t seed = 1; seed <= 5; ++seed) {
    comparesWithAModel<SlotMap<std::uint32_t, int>>(seed, 5'000);
    comparesWithAModel<SlotMap<std::uint32_t, int, PoorHash>>(seed, 300);
  }
}

TEST(SlotMapTest, ValuesStayInPlaceWhileItGrows) {
  SlotMap<std::uint32_t, int> map;
  const Slot first = map.insert(7).first;
  map[first] = 42;
  const int* const place = &map[first];
  for (std::uint32_t key = 100; key < 100'000; ++key) {
    map.insert(key);
  }
  EXPECT_EQ(&map[first], place);
  EXPECT_EQ(*place, 42);
}

TEST(SlotMapTest, AnErasedSlotIsUsedAgainWithADefaultValue) {
  SlotMap<std::uint32_t, int> map;
  const Slot slot = map.insert(1).first;
  map[slot] = 9;
  map.erase(slot);
  EXPECT_FALSE(map.live(slot));
  EXPECT_EQ(map.insert(2).first, slot);
  EXPECT_EQ(map[slot], 0);
}

TEST(SlotMapTest, AnIdDoesNotFindTheNextEntryOfItsSlot) {
  SlotMap<std::uint32_t, int> map;
  const Slot slot = map.insert(1).first;
  const SlotId id = map.id(slot);
  EXPECT_EQ(map.slotOf(id), slot);
  map.erase(slot);
  EXPECT_EQ(map.slotOf(id), noSlot);
  ASSERT_EQ(map.insert(2).first, slot);
  EXPECT_EQ(map.slotOf(id), noSlot);
  EXPECT_EQ(map.slotOf(SlotId()), noSlot);
}

TEST(SlotMapDeathTest, AnEntryThatIsGoneIsNotUsed) {
  SlotMap<std::uint32_t, int> map;
  const Slot slot = map.insert(1).first;
  map.erase(slot);
  EXPECT_DEATH(map[slot] = 1, "an entry is used that is not there");
  EXPECT_DEATH(static_cast<void>(map.key(slot)), "an entry is used that is not there");
}

TEST(SlotMapDeathTest, ErasingWhatIsNotThereIsAMistake) {
  SlotMap<std::uint32_t, int> map;
  EXPECT_DEATH(map.erase(0), "an entry is erased that is not there");
}

}  // namespace Agent::Vtep::Testing

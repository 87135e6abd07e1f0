#include "Kel/Dir.h"

#include "Scenario.h"

namespace {

using namespace scenario;
using Kel::Dir;
using State = Dir::EntryState;

// Tells each entry with the state that it finds it in.
struct DirListener final : Kel::Follows<Dir> {
  explicit DirListener(Heard& what) : heard(what) {}
  void onEntityPtr(Name name) override {
    static constexpr const char* states[] = {"absent", "announced", "instantiated"};
    heard.push_back(name.text() + ' ' + states[static_cast<int>(notifier()->entryState(name))]);
  }
  void onEntityPtrkelImmediate() override { heard.emplace_back("whole"); }
  Heard& heard;
};

class DirTest : public KelTest {
 protected:
  DirTest() {
    follower->notifierIs(dir);
    heard.clear();
  }
  Ptr<Dir> dir = Kel::make<Dir>();
  Ptr<DirListener> follower = Kel::make<DirListener>(heard);
};

TEST_F(DirTest, AnEntryIsAbsentThenAnnouncedThenInstantiated) {
  const Name a("a");
  EXPECT_EQ(dir->entryState(a), State::Absent);
  EXPECT_FALSE(dir->hasEntry(a));

  dir->entryIs(a);
  EXPECT_THAT(take(), ElementsAre("a announced"));
  EXPECT_TRUE(dir->hasEntry(a));
  EXPECT_FALSE(dir->entityPtr(a));

  dir->entityPtrIs(a, device);
  EXPECT_THAT(take(), ElementsAre("a instantiated"));
  EXPECT_EQ(dir->entityPtr(a), device);
  EXPECT_EQ(device->parent(), dir.get());

  dir->entryDel(a);
  EXPECT_THAT(take(), ElementsAre("a absent"));
  EXPECT_FALSE(dir->hasEntry(a));
  EXPECT_EQ(device->parent(), nullptr);
}

TEST_F(DirTest, AnEntryMayBeInstantiatedWithoutAnnouncement) {
  dir->entityPtrIs(Name("a"), device);
  EXPECT_THAT(take(), ElementsAre("a instantiated"));
}

TEST_F(DirTest, AnotherEntityUnderTheSameNameIsAChange) {
  dir->entityPtrIs(Name("a"), device);
  take();
  dir->entityPtrIs(Name("a"), Kel::make<Device>());
  EXPECT_THAT(take(), ElementsAre("a instantiated"));
}

TEST_F(DirTest, WhatChangesNothingIsSilent) {
  dir->entityPtrIs(Name("a"), device);
  take();
  dir->entityPtrIs(Name("a"), device);
  dir->entryIs(Name("a"));  // an announcement does not take the entity away
  dir->entryDel(Name("b"));
  EXPECT_THAT(take(), IsEmpty());
  EXPECT_EQ(dir->entryState(Name("a")), State::Instantiated);
}

TEST_F(DirTest, NullIsRefusedWithTheRangeError) {
  try {
    dir->entityPtrIs(Name("a"), nullptr);
    FAIL() << "a null entity was accepted";
  } catch (const Kel::RangeException& error) {
    EXPECT_STREQ(error.what(), "null _entityPtr parameter to mutator for Kel::Dir::entityPtr not allowed\"");
  }
  EXPECT_EQ(dir->entryState(Name("a")), State::Absent);
}

TEST_F(DirTest, DeletingAllTellsTheWholeAndEachName) {
  dir->entryIs(Name("b"));
  dir->entityPtrIs(Name("a"), device);
  take();
  inHandler([&] {
    dir->entryDelAll();
    EXPECT_THAT(take(), ElementsAre("whole"));  // at once
  });
  EXPECT_THAT(take(), ElementsAre("a absent", "b absent"));
  EXPECT_EQ(dir->entries(), 0U);
}

TEST_F(DirTest, BindingCountsAsAChangeOfTheWhole) {
  dir->entryIs(Name("a"));
  take();
  const auto late = Kel::make<DirListener>(heard);
  late->notifierIs(dir);
  EXPECT_THAT(take(), ElementsAre("whole"));
}

TEST_F(DirTest, EntriesAreWalkedByName) {
  for (const char* name : {"c", "a", "b"}) {
    dir->entryIs(Name(name));
  }
  std::string walked;
  for (auto&& entry : *dir) {
    walked += entry.key.text();
  }
  EXPECT_EQ(walked, "abc");
}

}  // namespace

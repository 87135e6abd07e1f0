// What a reader sees of a turn, and when.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Hosts.h"

namespace Memtab::Test {
namespace {

using testing::ElementsAre;
using testing::Pair;

class Turn : public testing::Test {
 protected:
  void given(const Stamps& content) {
    for (const auto& [key, stamp] : content) {
      add(key, stamp);
    }
    writer_.publish();
  }
  void add(Key key, std::uint64_t stamp) { writer_.is(key, hostOf(key, stamp)); }

  Name name_;
  HostWriter writer_{optionsFor(name_, 1000)};
  HostReader reader_{name_.text(), schema};
};

TEST_F(Turn, AddedRecordsAppearTogetherAtPublication) {
  add(1, 10);
  add(2, 20);
  EXPECT_THAT(contentOf(reader_), ElementsAre());
  EXPECT_EQ(reader_.find(1), std::nullopt);
  EXPECT_EQ(writer_.find(1), hostOf(1, 10));
  writer_.publish();
  EXPECT_THAT(contentOf(reader_), ElementsAre(Pair(1, 10), Pair(2, 20)));
  EXPECT_EQ(reader_.find(1), hostOf(1, 10));
  EXPECT_EQ(reader_.size(), 2u);
}

TEST_F(Turn, DeletedRecordsDisappearTogetherAtPublication) {
  given({{1, 10}, {2, 20}, {3, 30}});
  EXPECT_TRUE(writer_.del(1));
  EXPECT_TRUE(writer_.del(3));
  EXPECT_EQ(writer_.find(1), std::nullopt);
  EXPECT_THAT(contentOf(reader_), ElementsAre(Pair(1, 10), Pair(2, 20), Pair(3, 30)));
  EXPECT_EQ(reader_.find(3), hostOf(3, 30));
  writer_.publish();
  EXPECT_THAT(contentOf(reader_), ElementsAre(Pair(2, 20)));
  EXPECT_EQ(reader_.find(3), std::nullopt);
}

TEST_F(Turn, AKeyDeletedAndAddedAgainIsNeverMissing) {
  given({{1, 10}});
  writer_.del(1);
  EXPECT_EQ(reader_.find(1), hostOf(1, 10));
  add(1, 11);
  EXPECT_EQ(reader_.find(1), hostOf(1, 11));
  writer_.publish();
  EXPECT_EQ(reader_.find(1), hostOf(1, 11));
  writer_.del(1);
  add(1, 12);
  writer_.del(1);
  EXPECT_EQ(reader_.find(1), hostOf(1, 12));
  writer_.publish();
  EXPECT_EQ(reader_.find(1), std::nullopt);
}

TEST_F(Turn, AKeyThatCameAndWentWasNeverThere) {
  add(1, 10);
  EXPECT_TRUE(writer_.del(1));
  EXPECT_EQ(reader_.find(1), std::nullopt);
  writer_.publish();
  EXPECT_EQ(reader_.find(1), std::nullopt);
  EXPECT_THAT(contentOf(reader_), ElementsAre());
}

TEST_F(Turn, AKeyThatCameWentAndCameAppearsAtPublication) {
  add(1, 10);
  writer_.del(1);
  add(1, 11);
  EXPECT_EQ(reader_.find(1), std::nullopt);
  writer_.publish();
  EXPECT_EQ(reader_.find(1), hostOf(1, 11));
}

TEST_F(Turn, AKeyThatWasGoneForATurnAppearsAtPublication) {
  given({{1, 10}});
  writer_.del(1);
  writer_.publish();
  add(1, 11);
  EXPECT_EQ(reader_.find(1), std::nullopt);
  writer_.publish();
  EXPECT_EQ(reader_.find(1), hostOf(1, 11));
}

TEST_F(Turn, ReplacedValuesAreSeenAtOnceAndWhole) {
  given({{1, 10}});
  add(1, 11);
  EXPECT_EQ(reader_.find(1), hostOf(1, 11));
}

TEST_F(Turn, AnEqualValueIsNoChange) {
  given({{1, 10}});
  Mirror mirror;
  mirror.follow(reader_);
  add(1, 10);
  writer_.publish();
  mirror.follow(reader_);
  EXPECT_EQ(mirror.last().calls, 0u);
  EXPECT_FALSE(mirror.last().everything);
}

TEST_F(Turn, AFollowerIsToldWhatChanged) {
  given({{1, 10}, {2, 20}, {3, 30}});
  Mirror mirror;
  mirror.follow(reader_);
  EXPECT_TRUE(mirror.last().everything);
  writer_.del(1);
  add(2, 21);
  add(4, 40);
  mirror.follow(reader_);
  EXPECT_EQ(mirror.last().calls, 0u) << "nothing is told before it is published";
  writer_.publish();
  mirror.follow(reader_);
  EXPECT_FALSE(mirror.last().everything);
  EXPECT_EQ(mirror.last().calls, 3u);
  EXPECT_THAT(mirror.content(), ElementsAre(Pair(2, 21), Pair(3, 30), Pair(4, 40)));
}

TEST_F(Turn, AFollowerThatIsTooSlowIsToldEverything) {
  given({{1, 10}, {2, 20}});
  Mirror mirror;
  mirror.follow(reader_);
  writer_.del(1);
  for (std::uint64_t stamp = 0; stamp < 5000; ++stamp) {
    add(2, stamp);
  }
  writer_.publish();
  mirror.follow(reader_);
  EXPECT_TRUE(mirror.last().everything);
  EXPECT_THAT(mirror.content(), ElementsAre(Pair(2, 4999)));
}

TEST_F(Turn, AFollowerHasAllButOneOfTheRememberedChanges) {
  given({{1, 10}});
  Mirror mirror;
  mirror.follow(reader_);
  for (std::uint64_t stamp = 100; stamp < 100 + 1023; ++stamp) {
    add(1, stamp);
  }
  writer_.publish();
  mirror.follow(reader_);
  EXPECT_FALSE(mirror.last().everything);
  EXPECT_EQ(mirror.last().calls, 1023u);
  for (std::uint64_t stamp = 2000; stamp < 2000 + 1024; ++stamp) {
    add(1, stamp);
  }
  writer_.publish();
  mirror.follow(reader_);
  EXPECT_TRUE(mirror.last().everything);
}

TEST_F(Turn, DeletingAnAbsentKeyIsHarmless) {
  given({{1, 10}});
  EXPECT_FALSE(writer_.del(2));
  EXPECT_TRUE(writer_.del(1));
  EXPECT_FALSE(writer_.del(1));
  EXPECT_EQ(writer_.size(), 0u);
}

}  // namespace
}  // namespace Memtab::Test

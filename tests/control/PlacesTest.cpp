#include "service/control/Places.h"

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;
using Control::Places;
using Clock = Places::Clock;

constexpr Clock::time_point now{1h};
constexpr bool reads = false;
constexpr bool mayPatch = true;

// Six places, two of them reserved, three for one reader.
Places small() {
  Places places;
  places.all = 6;
  places.reserved = 2;
  places.ofReader = 3;
  return places;
}

Places::Client busy(std::uint64_t id, uid_t user, bool patches = reads) {
  return {id, user, patches, std::nullopt};
}
Places::Client idle(std::uint64_t id, uid_t user, std::chrono::seconds since, bool patches = reads) {
  return {id, user, patches, now - since};
}

TEST(PlacesTest, AreGivenWhileThereAreSome) {
  EXPECT_TRUE(small().newcomer(1000, reads, {busy(1, 1001)}, now).admitted);
}

TEST(PlacesTest, OfOneReaderAreLimited) {
  const auto verdict = small().newcomer(1000, reads, {busy(1, 1000), busy(2, 1000), busy(3, 1000)}, now);
  EXPECT_FALSE(verdict.admitted);
  EXPECT_EQ(verdict.reason, "too many clients of this user: 3 are here already");
  EXPECT_TRUE(small().newcomer(1001, reads, {busy(1, 1000), busy(2, 1000), busy(3, 1000)}, now).admitted);
}

TEST(PlacesTest, AReadersOwnIdleClientMakesRoomForItAndNoOtherDoes) {
  const std::vector<Places::Client> here{busy(1, 1000), idle(2, 1000, 5s), busy(3, 1000), idle(4, 1001, 9s)};
  EXPECT_EQ(small().newcomer(1000, reads, here, now).leaves, 2U);
}

TEST(PlacesTest, ReservedOnesAreForThoseWhoMayPatch) {
  const std::vector<Places::Client> here{busy(1, 1), busy(2, 2), busy(3, 3), busy(4, 4)};
  const auto reader = small().newcomer(5, reads, here, now);
  EXPECT_FALSE(reader.admitted);
  EXPECT_EQ(reader.reason, "too many clients: 4 are here already");
  const auto root = small().newcomer(0, mayPatch, here, now);
  EXPECT_TRUE(root.admitted);
  EXPECT_FALSE(root.leaves);
}

TEST(PlacesTest, WhoMayPatchHasNoLimitButTheWhole) {
  const std::vector<Places::Client> here{busy(1, 0, mayPatch), busy(2, 0, mayPatch), busy(3, 0, mayPatch),
                                         busy(4, 0, mayPatch), busy(5, 0, mayPatch)};
  EXPECT_TRUE(small().newcomer(0, mayPatch, here, now).admitted);
}

TEST(PlacesTest, TheOneIdleForLongestLeaves) {
  const std::vector<Places::Client> here{idle(1, 1, 3s), idle(2, 2, 7s), busy(3, 3), idle(4, 4, 5s)};
  EXPECT_EQ(small().newcomer(5, reads, here, now).leaves, 2U);
}

TEST(PlacesTest, AMomentWithoutARequestIsNotIdle) {
  const std::vector<Places::Client> here{idle(1, 1, 0s), busy(2, 2), busy(3, 3), busy(4, 4)};
  EXPECT_FALSE(small().newcomer(5, reads, here, now).admitted);
  EXPECT_TRUE(small().newcomer(5, reads, here, now + 1s).admitted);
}

TEST(PlacesTest, AReaderNeverTakesThePlaceOfOneWhoMayPatch) {
  const std::vector<Places::Client> here{busy(1, 1), busy(2, 2),           busy(3, 3),
                                         busy(4, 4), idle(5, 0, 9s, true), idle(6, 0, 9s, true)};
  EXPECT_FALSE(small().newcomer(7, reads, here, now).admitted);
}

TEST(PlacesTest, WhoMayPatchTakesThatOfAnIdleReaderBeforeThatOfAnotherWhoMay) {
  const std::vector<Places::Client> readers{busy(1, 1), idle(2, 2, 3s),       busy(3, 3),
                                            busy(4, 4), idle(5, 0, 9s, true), busy(6, 0, true)};
  EXPECT_EQ(small().newcomer(0, mayPatch, readers, now).leaves, 2U);
  const std::vector<Places::Client> none{busy(1, 1), busy(2, 2),           busy(3, 3),
                                         busy(4, 4), idle(5, 0, 9s, true), busy(6, 0, true)};
  EXPECT_EQ(small().newcomer(0, mayPatch, none, now).leaves, 5U);
}

TEST(PlacesTest, WithLessRoomThanIsReservedNoReaderComes) {
  Places places = small();
  places.all = 1;
  EXPECT_FALSE(places.newcomer(1000, reads, {}, now).admitted);
  EXPECT_TRUE(places.newcomer(0, mayPatch, {}, now).admitted);
}

}  // namespace

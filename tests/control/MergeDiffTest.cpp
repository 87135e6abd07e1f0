#include "service/control/MergeDiff.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <random>

namespace {

using Control::mergeDiff;
using nlohmann::json;

json diff(const char* from, const char* to) {
  return mergeDiff(json::parse(from), json::parse(to)).value();
}

TEST(MergeDiff, OfEqualsIsNothing) {
  EXPECT_EQ(mergeDiff(json::parse(R"({"a":[1,{"b":2}]})"), json::parse(R"({"a":[1,{"b":2}]})")),
            std::nullopt);
  EXPECT_EQ(mergeDiff(nullptr, nullptr), std::nullopt);
  EXPECT_EQ(mergeDiff(json::object(), json::object()), std::nullopt);
}

TEST(MergeDiff, SaysOnlyWhatIsDifferent) {
  EXPECT_EQ(diff(R"({"a":1,"b":{"c":2,"d":3}})", R"({"a":1,"b":{"c":4,"d":3}})"),
            json::parse(R"({"b":{"c":4}})"));
}

TEST(MergeDiff, RemovesByNull) {
  EXPECT_EQ(diff(R"({"a":1,"b":{"c":2}})", R"({"b":{}})"), json::parse(R"({"a":null,"b":{"c":null}})"));
}

TEST(MergeDiff, ReplacesArraysWholeAndKeepsTheirNulls) {
  EXPECT_EQ(diff(R"({"a":[1,2,3]})", R"({"a":[1,null]})"), json::parse(R"({"a":[1,null]})"));
}

TEST(MergeDiff, ReplacesWhatChangesItsKind) {
  EXPECT_EQ(diff(R"({"a":{"b":1}})", R"({"a":5})"), json::parse(R"({"a":5})"));
  EXPECT_EQ(diff(R"({"a":5})", R"({"a":{"b":1}})"), json::parse(R"({"a":{"b":1}})"));
  EXPECT_EQ(diff(R"({"a":5})", "null"), json());
  EXPECT_EQ(diff("null", "{}"), json::object());
}

TEST(MergeDiff, CountsAMemberThatIsNullAsAbsent) {
  EXPECT_EQ(mergeDiff(json::parse("{}"), json::parse(R"({"a":null})")), std::nullopt);
  EXPECT_EQ(diff("{}", R"({"a":{"b":null,"c":1}})"), json::parse(R"({"a":{"c":1}})"));
}

// Documents at random, from a few keys and values so that two of them have much in common.
class Documents {
 public:
  explicit Documents(std::uint64_t seed) : random_(seed) {}

  json any(int depth) {
    switch (upTo(depth > 0 ? 7 : 4)) {
      case 0:
        return nullptr;
      case 1:
        return upTo(2) == 0;
      case 2:
        return upTo(3);
      case 3:
        return std::string(static_cast<std::size_t>(upTo(3)), '/');
      case 4: {
        json array = json::array();
        for (int i = upTo(3); i > 0; --i) {
          array.push_back(any(depth - 1));
        }
        return array;
      }
      default:
        return object(depth);
    }
  }

  json object(int depth) {
    static const std::vector<std::string> keys{"", "a", "b", "c", "a/b", "~", "\u00e9"};
    json result = json::object();
    for (int i = upTo(5); i > 0; --i) {
      result[keys[static_cast<std::size_t>(upTo(static_cast<int>(keys.size())))]] = any(depth - 1);
    }
    return result;
  }

  // A document that is like another in most places.
  json changed(json document, int depth) {
    if (!document.is_object() || document.empty() || upTo(4) == 0) {
      return any(depth);
    }
    auto member = std::next(document.begin(), upTo(static_cast<int>(document.size())));
    *member = changed(*member, depth - 1);
    return document;
  }

 private:
  int upTo(int limit) { return static_cast<int>(random_() % static_cast<std::uint64_t>(limit)); }

  std::mt19937_64 random_;
};

json withoutNullMembers(json value) {
  if (value.is_object()) {
    json result = json::object();
    for (const auto& [key, member] : value.items()) {
      if (!member.is_null()) {
        result[key] = withoutNullMembers(member);
      }
    }
    return result;
  }
  return value;
}

TEST(MergeDiff, AppliedToTheOldMakesTheNew) {
  constexpr std::uint64_t documents = 20'000;
  std::uint64_t unequal = 0;
  for (std::uint64_t seed = 1; seed <= documents; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Documents random(seed);
    const json from = random.any(4);
    const json to = seed % 2 == 0 ? random.any(4) : random.changed(from, 4);
    json applied = from;
    if (const auto patch = mergeDiff(from, to)) {
      ++unequal;
      applied.merge_patch(*patch);
    }
    ASSERT_EQ(withoutNullMembers(applied), withoutNullMembers(to)) << "from " << from << " to " << to;
    ASSERT_EQ(mergeDiff(applied, to), std::nullopt);
  }
  EXPECT_GT(unequal, documents / 3);  // the documents at random are worth comparing
}

TEST(MergeDiff, IsTheSmallestThatDoes) {
  for (std::uint64_t seed = 1; seed <= 5'000; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Documents random(seed);
    const json from = withoutNullMembers(random.object(3));
    const json to = withoutNullMembers(random.changed(from, 3));
    const auto patch = mergeDiff(from, to);
    if (!patch || !patch->is_object()) {
      continue;
    }
    for (const auto& [key, member] : patch->items()) {
      json less = *patch;
      less.erase(key);
      json applied = from;
      applied.merge_patch(less);
      ASSERT_NE(applied, to) << "without " << key << " of " << *patch;
    }
  }
}

}  // namespace

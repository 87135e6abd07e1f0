#include "service/control/Mirror.h"

#include <gtest/gtest.h>

#include <random>

namespace {

using Control::Mirror;
using nlohmann::json;
using Service::Records;
using Service::Walked;

// Sweeps to the end, so many members at a time; returns how many pieces that took.
int sweepAll(Mirror& mirror, std::size_t atOnce) {
  for (int pieces = 1;; ++pieces) {
    std::size_t steps = atOnce;
    if (!mirror.sweep(steps)) {
      return pieces;
    }
  }
}

// A round of the mirror over a document.
void round(Mirror& mirror, const json& document, bool tells, std::size_t atOnce = 3) {
  mirror.begin(tells);
  Records records(document.is_null() ? Service::Part() : Service::partOf(document));
  for (Walked walked = records.next(); walked != Walked::end; walked = records.next()) {
    if (walked == Walked::member) {
      mirror.record(records.path(), records.text());
    } else if (walked == Walked::branch && !mirror.branch(records.path(), records.stamp())) {
      records.skip();
    }
  }
  sweepAll(mirror, atOnce);
}

// Two levels of objects, records of objects, numbers and arrays; every shape may take the place of another.
json someDocument(std::mt19937& random) {
  const auto roll = [&](unsigned sides) { return random() % sides; };
  if (roll(12) == 0) {
    return roll(2) == 0 ? json() : json(7);
  }
  json document = json::object();
  for (unsigned i = 0; i < 5; ++i) {
    json& member = document["m" + std::to_string(i)];
    switch (roll(6)) {
      case 0:
        document.erase("m" + std::to_string(i));
        break;
      case 1:
        member = json::array({roll(2), "x"});
        break;
      case 2:
        member = roll(3);
        break;
      default:
        member = json::object();
        for (unsigned k = 0; k < 4; ++k) {
          if (roll(2) == 0) {
            member["k" + std::to_string(k)] = roll(3) == 0 ? json{{"deep", roll(2)}} : json(roll(3));
          }
        }
    }
  }
  return document;
}

TEST(MirrorTest, TheFirstValueAndThePatchesGiveTheDocument) {
  for (unsigned seed = 0; seed < 300; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    Mirror mirror;
    round(mirror, someDocument(random), false);
    json follower = Service::jsonOf(mirror.part());
    for (int i = 0; i < 20; ++i) {
      const json now = someDocument(random);
      round(mirror, now, true);
      if (const auto patch = mirror.takePatch()) {
        follower.merge_patch(*patch);
      }
      ASSERT_EQ(follower, now);
      ASSERT_EQ(Service::jsonOf(mirror.part()), now);
    }
  }
}

TEST(MirrorTest, ThePatchHasOnlyWhatHasChanged) {
  Mirror mirror;
  round(mirror, json::parse(R"({"10":{"a":{"x":1,"y":2}},"20":{"b":3},"n":[1]})"), false);
  round(mirror, json::parse(R"({"10":{"a":{"x":1,"y":5}},"20":{"b":3},"n":[1]})"), true);
  EXPECT_EQ(mirror.takePatch(), json::parse(R"({"10":{"a":{"y":5}}})"));
  round(mirror, json::parse(R"({"10":{"a":{"x":1,"y":5}},"n":[1]})"), true);
  EXPECT_EQ(mirror.takePatch(), json::parse(R"({"20":null})"));
  round(mirror, json::parse(R"({"10":{"a":{"x":1,"y":5}},"n":[1]})"), true);
  EXPECT_EQ(mirror.takePatch(), std::nullopt);
}

TEST(MirrorTest, ManyThatGoAreSweptInPieces) {
  json document = {{"hosts", json::object()}};
  for (int i = 0; i < 1'000; ++i) {
    document["hosts"][std::to_string(i)] = i;
  }
  document["hosts"]["stays"] = true;
  Mirror mirror;
  round(mirror, document, false);
  mirror.begin(true);
  mirror.record({"hosts", "stays"}, "true");
  EXPECT_GE(sweepAll(mirror, 100), 10);
  const json patch = mirror.takePatch().value_or(json());
  EXPECT_EQ(patch.at("hosts").size(), 1'000U);
  EXPECT_FALSE(patch.at("hosts").contains("stays"));
}

// A branch that counts its changes.
class Counted final : public Service::Branch {
 public:
  explicit Counted(std::uint64_t stamp) : stamp_(stamp) {}
  Walked next(std::string& name, Service::Part& part) override {
    if (walked_) {
      return Walked::end;
    }
    walked_ = true;
    name = "value";
    part = Service::recordOf(stamp_);
    return Walked::member;
  }
  Service::Part find(const std::string& /*name*/) override { return {}; }
  std::uint64_t stamp() const override { return stamp_; }

 private:
  std::uint64_t stamp_;
  bool walked_ = false;
};

TEST(MirrorTest, ABranchThatHasNotChangedIsNotWalked) {
  Mirror mirror;
  int walked = 0;
  const auto look = [&](std::uint64_t stamp) {
    mirror.begin(true);
    auto members = std::make_unique<Service::Members>();
    members->add("counted", [stamp] { return Service::Part(std::make_unique<Counted>(stamp)); });
    Records records{Service::Part(std::move(members))};
    for (Walked step = records.next(); step != Walked::end; step = records.next()) {
      if (step == Walked::member) {
        ++walked;
        mirror.record(records.path(), records.text());
      } else if (step == Walked::branch && !mirror.branch(records.path(), records.stamp())) {
        records.skip();
      }
    }
    sweepAll(mirror, 10);
    return mirror.takePatch().value_or(json("none"));
  };
  EXPECT_EQ(look(1), json::parse(R"({"counted":{"value":1}})"));
  EXPECT_EQ(look(1), json("none"));
  EXPECT_EQ(walked, 1);
  EXPECT_EQ(look(2), json::parse(R"({"counted":{"value":2}})"));
  EXPECT_EQ(walked, 2);
}

TEST(MirrorTest, ItsMemoryIsCountedAndGivenBackInPieces) {
  json document;
  for (int i = 0; i < 1'000; ++i) {
    document["vlan"][std::to_string(i)] = std::string(50, 'x');
  }
  Mirror mirror;
  round(mirror, document, false);
  EXPECT_GT(mirror.bytes(), 250'000U);
  int pieces = 0;
  for (bool more = true; more; ++pieces) {
    std::size_t steps = 100;
    more = mirror.dissolve(steps);
  }
  EXPECT_GE(pieces, 10);
  EXPECT_EQ(mirror.bytes(), 0U);
}

TEST(MirrorTest, AWalkOfWhatIsKnownGoesOnWhileRoundsChangeIt) {
  json document;
  for (int i = 0; i < 100; ++i) {
    document["hosts"][std::to_string(i)] = i;
  }
  Mirror mirror;
  round(mirror, document, false);
  Records walk(mirror.part());
  json follower;
  for (int steps = 0; steps < 40; ++steps) {
    if (walk.next() == Walked::member) {
      follower["hosts"][walk.path().back()] = json::parse(walk.text());
    }
  }
  document["hosts"].erase("3");
  document["hosts"].erase("77");
  document["hosts"]["5"] = "changed";
  document["hosts"]["new"] = 1;
  round(mirror, document, true);
  while (walk.next() == Walked::member) {
    follower["hosts"][walk.path().back()] = json::parse(walk.text());
  }
  follower.merge_patch(mirror.takePatch().value_or(json()));
  EXPECT_EQ(follower, document);
}

}  // namespace

#include "Entdb/Database.h"

#include <gmock/gmock.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Entdb::Database;
using Entdb::pathOf;
using Kel::Dir;
using Kel::Name;
using Kel::Ptr;
using testing::ElementsAre;

// An entity that holds others: a single one, and some by number.
class Rack final : public Kel::Entity {
 public:
  struct Reactor : Kel::Reactor {
    virtual void onSpare() {}
    virtual void onSlot(std::uint32_t) {}
  };
  Rack() = default;
  explicit Rack(int height) : height_(height) {}

  int height() const { return height_; }
  void spareIs(const Ptr<Rack>& spare) { spare_ = spare; }
  void slotIs(std::uint32_t number, const Ptr<Rack>& what) { slot_.is(number, what); }
  void slotDel(std::uint32_t number) { slot_.del(number); }

  const char* typeName() const override { return "test::Rack"; }
  void attributes(Kel::Attributes& list) const override {
    list("spare", spare_);
    list("slot", slot_);
  }

 private:
  int height_ = 0;
  Kel::Attribute<Ptr<Rack>, &Reactor::onSpare> spare_{*this};
  Kel::Collection<Kel::OrderedTable, std::uint32_t, Ptr<Rack>, &Reactor::onSlot> slot_{*this};
};

class DatabaseTest : public testing::Test {
 protected:
  std::vector<std::string> paths() const {
    std::vector<std::string> all;
    database.each([&](const std::string& path, const Kel::Entity& entity) {
      all.push_back(path);
      EXPECT_EQ(pathOf(entity), path);
    });
    return all;
  }
  template <class Function>
  static std::string refusal(Function&& function) {
    try {
      function();
    } catch (const std::exception& error) {
      return error.what();
    }
    return "accepted";
  }

  Database database;
};

TEST_F(DatabaseTest, ANewDatabaseIsEmpty) {
  EXPECT_THAT(paths(), ElementsAre());
  EXPECT_EQ(pathOf(*database.root()), "");
  EXPECT_FALSE(database.at("/any/thing"));
}

TEST_F(DatabaseTest, MountingMakesTheEntityAndTheFoldersOnItsWay) {
  const auto rack = database.mount<Rack>("/site/hall/rack", 42);
  EXPECT_EQ(rack->height(), 42);
  EXPECT_THAT(paths(), ElementsAre("/site", "/site/hall", "/site/hall/rack"));
  EXPECT_EQ(database.at("/site/hall/rack"), rack);
  EXPECT_TRUE(database.at<Dir>("/site/hall"));
}

TEST_F(DatabaseTest, MountingAgainReturnsWhatIsThere) {
  const auto rack = database.mount<Rack>("/rack", 42);
  EXPECT_EQ(database.mount<Rack>("/rack", 7), rack);
  EXPECT_EQ(rack->height(), 42);
}

TEST_F(DatabaseTest, AnotherTypeAtThePathIsRefusedByName) {
  database.mount<Rack>("/site/rack");
  EXPECT_EQ(refusal([&] { database.mount<Dir>("/site/rack"); }),
            "\"/site/rack\" meets an entity of type test::Rack at /site/rack");
  EXPECT_EQ(refusal([&] { database.mount<Rack>("/site"); }),
            "\"/site\" meets an entity of type Kel::Dir at /site");
  EXPECT_EQ(refusal([&] { database.mount<Rack>("/site/rack/drawer/x"); }),
            "\"/site/rack/drawer/x\" meets an entity of type test::Rack at /site/rack");
  EXPECT_THROW(database.mount<Dir>("/site/rack"), Kel::NameInUseException);
  EXPECT_THAT(paths(), ElementsAre("/site", "/site/rack"));
}

TEST_F(DatabaseTest, APathIsAbsoluteAndHasNoEmptyNames) {
  EXPECT_EQ(refusal([&] { database.mount<Rack>("rack"); }), "path \"rack\" does not begin with a slash");
  EXPECT_EQ(refusal([&] { database.mount<Rack>(""); }), "path \"\" does not begin with a slash");
  EXPECT_EQ(refusal([&] { database.mount<Rack>("/"); }), "path \"/\" has an empty name at character 2");
  EXPECT_EQ(refusal([&] { database.mount<Rack>("/a//b"); }),
            "path \"/a//b\" has an empty name at character 4");
  EXPECT_EQ(refusal([&] { database.mount<Rack>("/a/"); }), "path \"/a/\" has an empty name at character 4");
  EXPECT_THROW(database.at("x"), std::invalid_argument);
  EXPECT_THAT(paths(), ElementsAre());
}

TEST_F(DatabaseTest, AnExistingEntityIsMountedInPlaceOfWhatIsThere) {
  const auto old = database.mount<Rack>("/a/rack");
  const auto rack = Kel::make<Rack>(1);
  database.mountIs("/a/rack", rack);
  EXPECT_EQ(database.at("/a/rack"), rack);
  EXPECT_EQ(pathOf(*rack), "/a/rack");
  EXPECT_EQ(pathOf(*old), "(unmounted)");
}

TEST_F(DatabaseTest, NullIsRefusedAndLeavesNoFolders) {
  EXPECT_EQ(refusal([&] { database.mountIs("/a/b", nullptr); }),
            "null _entity parameter to mutator for Entdb::Database::entity not allowed\"");
  EXPECT_THAT(paths(), ElementsAre());
}

TEST_F(DatabaseTest, UnmountingTakesAllBelowAlong) {
  const auto rack = database.mount<Rack>("/site/hall/rack");
  database.mount<Rack>("/site/other");
  database.unmount("/site/hall");
  database.unmount("/site/hall");
  database.unmount("/nowhere/at/all");
  EXPECT_THAT(paths(), ElementsAre("/site", "/site/other"));
  EXPECT_EQ(rack->references(), 1U);
  EXPECT_EQ(pathOf(*rack), "(unmounted)");
}

TEST_F(DatabaseTest, LookingUpFindsTheTypeAskedForOrNone) {
  database.mount<Rack>("/rack", 5);
  EXPECT_EQ(database.at<Rack>("/rack")->height(), 5);
  EXPECT_FALSE(database.at<Dir>("/rack"));
  EXPECT_FALSE(database.at("/rack/inside"));
  EXPECT_FALSE(database.at("/rac"));
}

TEST_F(DatabaseTest, AnAnnouncedEntryIsNoEntity) {
  database.root()->entryIs(Name("soon"));
  EXPECT_FALSE(database.at("/soon"));
  EXPECT_THAT(paths(), ElementsAre());
  const auto rack = database.mount<Rack>("/soon");
  EXPECT_EQ(database.at("/soon"), rack);
}

TEST_F(DatabaseTest, EntitiesInAttributesHavePathsToo) {
  const auto rack = database.mount<Rack>("/rack");
  const auto inner = Kel::make<Rack>();
  rack->slotIs(7, inner);
  rack->slotIs(3, Kel::make<Rack>());
  inner->spareIs(Kel::make<Rack>());
  EXPECT_THAT(paths(), ElementsAre("/rack", "/rack/slot[3]", "/rack/slot[7]", "/rack/slot[7]/spare"));
  rack->slotDel(7);
  EXPECT_EQ(pathOf(*inner), "(unmounted)");
}

TEST_F(DatabaseTest, FoldersAreWalkedByName) {
  for (const char* path : {"/c", "/a", "/b/z", "/b/y"}) {
    database.mount<Rack>(path);
  }
  EXPECT_THAT(paths(), ElementsAre("/a", "/b", "/b/y", "/b/z", "/c"));
}

TEST_F(DatabaseTest, AFolderTellsWhatIsMountedInIt) {
  struct Listener final : Kel::Follows<Dir> {
    explicit Listener(std::vector<std::string>& what) : heard(what) {}
    void onEntityPtr(Name name) override { heard.push_back(name.text()); }
    std::vector<std::string>& heard;
  };
  std::vector<std::string> heard;
  const auto listener = Kel::make<Listener>(heard);
  listener->notifierIs(database.root());
  const auto rack = database.mount<Rack>("/rack");
  database.mount<Rack>("/rack");
  database.mountIs("/rack", rack);
  EXPECT_THAT(heard, ElementsAre("rack"));
  database.unmount("/rack");
  EXPECT_THAT(heard, ElementsAre("rack", "rack"));
}

}  // namespace

#include "agent/vtep/NamedRows.h"

#include <gtest/gtest.h>

#include <string>

namespace Agent::Vtep::Testing {

using namespace Ovsdb;

namespace {

struct Row {
  std::string text;
};
using Rows = NamedRows<Row>;

constexpr Uuid one{1, 1}, two{2, 2};

void collectAll(Rows& rows) {
  Steps steps(1000);
  ASSERT_FALSE(rows.collect(steps));
}

}  // namespace

TEST(NamedRowsTest, ARowThatIsNamedBeforeItCameIsAPlaceholder) {
  Rows rows;
  const Rows::Reference reference = rows.refer(one);
  EXPECT_FALSE(reference.exists());
  EXPECT_EQ(rows.rows(), 0U);
  const Slot slot = rows.appear(one);
  EXPECT_EQ(slot, reference.slot());
  EXPECT_TRUE(reference.exists());
  EXPECT_EQ(reference.uuid(), one);
  EXPECT_EQ(rows.rows(), 1U);
}

TEST(NamedRowsTest, APlaceholderLivesAsLongAsItIsReferredTo) {
  Rows rows;
  Rows::Reference first = rows.refer(one);
  Rows::Reference second = first.copy();
  first = Rows::Reference();
  collectAll(rows);
  EXPECT_EQ(rows.size(), 1U);
  second = Rows::Reference();
  EXPECT_EQ(rows.size(), 1U) << "until the next collection";
  collectAll(rows);
  EXPECT_EQ(rows.size(), 0U);
}

TEST(NamedRowsTest, AReferenceNeverLeadsToAnotherRow) {
  Rows rows;
  rows.edit(rows.appear(one)).text = "one";
  const Rows::Reference reference = rows.refer(one);
  rows.vanish(reference.slot());
  collectAll(rows);
  rows.edit(rows.appear(two)).text = "two";
  EXPECT_FALSE(reference.exists());
  EXPECT_EQ(reference.uuid(), one);
  EXPECT_NE(rows.find(two), reference.slot());
}

TEST(NamedRowsTest, AReferenceThatIsGivenAnotherRowLetsTheFirstGo) {
  Rows rows;
  Rows::Reference reference = rows.refer(one);
  reference = rows.refer(two);
  collectAll(rows);
  EXPECT_EQ(rows.find(one), noSlot);
  EXPECT_EQ(reference.uuid(), two);
}

TEST(NamedRowsTest, APlaceholderThatIsLetGoAndTakenAgainIsKept) {
  Rows rows;
  Rows::Reference reference = rows.refer(one);
  reference = Rows::Reference();
  reference = rows.refer(one);
  collectAll(rows);
  EXPECT_EQ(rows.find(one), reference.slot());
  reference = Rows::Reference();
  collectAll(rows);
  EXPECT_EQ(rows.size(), 0U);
}

TEST(NamedRowsTest, ARowThatExistsIsNotCollected) {
  Rows rows;
  rows.appear(one);
  Rows::Reference reference = rows.refer(one);
  reference = Rows::Reference();
  collectAll(rows);
  EXPECT_EQ(rows.size(), 1U);
  rows.vanish(rows.find(one));
  collectAll(rows);
  EXPECT_EQ(rows.size(), 0U);
}

TEST(NamedRowsTest, ACollectionLooksAtNoMoreThanItMay) {
  Rows rows;
  for (std::uint64_t i = 0; i < 10; ++i) {
    rows.refer(Uuid{i, i});
  }
  Steps steps(4);
  EXPECT_TRUE(rows.collect(steps));
  EXPECT_EQ(rows.size(), 6U);
  EXPECT_EQ(steps.spent(), 4U);
}

TEST(NamedRowsDeathTest, AReferenceToNoRowIsNotUsed) {
  EXPECT_DEATH(Rows::Reference().exists(), "a reference is used that refers to no row");
}

}  // namespace Agent::Vtep::Testing

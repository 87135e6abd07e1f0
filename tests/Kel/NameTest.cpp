#include "Kel/Name.h"

#include <gmock/gmock.h>

#include <set>
#include <sstream>
#include <type_traits>

namespace {

using Kel::Name;

TEST(NameTest, EqualTextsAreOneName) {
  const std::string text = "vti1";
  EXPECT_EQ(Name("vti1"), Name(text));
  EXPECT_EQ(&Name("vti1").text(), &Name(text).text());
  EXPECT_EQ(std::hash<Name>{}(Name("vti1")), std::hash<Name>{}(Name(text)));
  EXPECT_NE(Name("vti1"), Name("vti10"));
}

TEST(NameTest, TheDefaultIsEmpty) {
  EXPECT_TRUE(Name().empty());
  EXPECT_EQ(Name(), Name(""));
  EXPECT_FALSE(Name("x").empty());
}

TEST(NameTest, OrderIsThatOfTheText) {
  // Made in another order than the texts', so that an order by address would differ.
  const std::set<Name> names{Name("zebra"), Name("ant"), Name("bee"), Name("")};
  EXPECT_THAT(names, testing::ElementsAre(Name(""), Name("ant"), Name("bee"), Name("zebra")));
  EXPECT_EQ(Name("ant") <=> Name("ant"), std::strong_ordering::equal);
}

TEST(NameTest, ATextWithAZeroByteIsKeptWhole) {
  const std::string text("a\0b", 3);
  EXPECT_EQ(Name(text).text(), text);
  EXPECT_NE(Name(text), Name("a"));
}

TEST(NameTest, PrintsItsText) {
  std::ostringstream stream;
  stream << Name("spine") << '-' << Name();
  EXPECT_EQ(stream.str(), "spine-");
}

// That is what lets a name travel in the notification queue.
TEST(NameTest, IsAsSmallAsAPointer) {
  static_assert(std::is_trivially_copyable_v<Name>);
  static_assert(sizeof(Name) == sizeof(void*));
}

}  // namespace

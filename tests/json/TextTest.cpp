// JSON from outside: what is taken, and what a refusal says.
#include "service/json/Text.h"

#include <gmock/gmock.h>

namespace {

using nlohmann::json;
using Service::BadJson;
using Service::parseJson;
using Service::partAt;
using testing::ThrowsMessage;

auto parsing(const std::string& text) {
  return [text] { parseJson(text); };
}
auto says(const char* why) {
  return ThrowsMessage<BadJson>(why);
}
std::string nested(std::size_t levels) {
  return std::string(levels, '[') + std::string(levels, ']');
}

TEST(JsonText, OneValueIsRead) {
  EXPECT_EQ(parseJson(R"( {"a":[1,null]} )"), (json{{"a", {1, nullptr}}}));
  EXPECT_EQ(parseJson("7"), 7);
}

TEST(JsonText, ARefusalSaysWhereTheTextStopsBeingJson) {
  EXPECT_THAT(parsing("{\"a\":"), says("not JSON at byte 6"));
  EXPECT_THAT(parsing(""), says("not JSON at byte 1"));
  EXPECT_THAT(parsing("{} {}"), says("not JSON at byte 4"));
  EXPECT_THAT(parsing("NaN"), says("not JSON at byte 1"));
  EXPECT_THAT(parsing("\"\xff\""), says("not JSON at byte 2"));
  EXPECT_THAT(parsing(std::string("1\0x", 3)), says("not JSON at byte 2"));
  try {
    parseJson("[1,]");
    FAIL() << "taken";
  } catch (const BadJson& error) {
    EXPECT_EQ(error.byte(), 4U);
  }
}

// A number that no double holds is JSON, but nobody could compute with it.
TEST(JsonText, ANumberThatNoDoubleHoldsIsRefused) {
  EXPECT_THAT(parsing("1e999"), says("a number is out of range"));
  EXPECT_THAT(parsing("[-1e999]"), says("a number is out of range"));
  EXPECT_NO_THROW(parsing("1e308")());
}

TEST(JsonText, IsRefusedBeforeItCanExhaustTheStack) {
  EXPECT_NO_THROW(parsing(nested(Service::deepestJson))());
  EXPECT_THAT(parsing(nested(Service::deepestJson + 1)), says("nested deeper than 64 levels"));
  EXPECT_THAT(parsing(nested(5'000'000)), says("nested deeper than 64 levels"));
  EXPECT_NO_THROW(parsing("{\"" + std::string(100, '[') + "\\\"" + std::string(100, '{') + "\":1}")())
      << "what stands in a string does not nest";
}

TEST(JsonText, APointerThatLeadsNowhereLeadsToNull) {
  const json document{{"a", {1, 2}}, {"b/c", {{"~", 3}}}};
  EXPECT_EQ(partAt(document, ""), document);
  EXPECT_EQ(partAt(document, "/a/1"), 2);
  EXPECT_EQ(partAt(document, "/b~1c/~0"), 3);
  for (const char* nowhere :
       {"/x", "/a/2", "/a/-", "/a/01", "/a/x", "/a/1/x", "/b", "/a/99999999999999999999"}) {
    EXPECT_TRUE(partAt(document, nowhere).is_null()) << nowhere;
  }
}

}  // namespace

#include "service/control/Request.h"

#include <gmock/gmock.h>

namespace {

using Control::BadRequest;
using Control::Request;
using nlohmann::json;
using testing::HasSubstr;
using testing::ThrowsMessage;

auto parsing(std::string line) {
  return [line = std::move(line)] { Request::parse(line); };
}
auto fails(const char* why) {
  return ThrowsMessage<BadRequest>(HasSubstr(why));
}

TEST(Request, IsOneOfFourVerbs) {
  EXPECT_EQ(Request::parse(R"({"patch":{"a":1}})").content, json::parse(R"({"a":1})"));
  EXPECT_EQ(Request::parse(R"({"get":"/input"})").target, "/input");
  EXPECT_EQ(Request::parse(R"({"subscribe":""})").verb, Request::Verb::subscribe);
  const Request call = Request::parse(R"({"id":7,"call":"explain","params":{"vlan":10}})");
  EXPECT_EQ(call.target, "explain");
  EXPECT_EQ(call.content, json::parse(R"({"vlan":10})"));
  EXPECT_EQ(call.id, 7);
  EXPECT_EQ(Request::parse(R"({"call":"flush"})").content, json::object());
}

TEST(Request, SaysWhatIsWrong) {
  EXPECT_THAT(parsing("{\"get\":"), fails("not JSON at byte 8"));
  EXPECT_THAT(parsing("[]"), fails("a request is a JSON object"));
  EXPECT_THAT(parsing("{}"), fails(R"(one of "patch", "get", "subscribe" and "call" is asked for)"));
  EXPECT_THAT(parsing(R"({"get":"","patch":{}})"), fails(R"("patch" and "get" in one request)"));
  EXPECT_THAT(parsing(R"({"get":7})"), fails(R"("get" takes a JSON Pointer)"));
  EXPECT_THAT(parsing(R"({"get":"input"})"), fails(R"("input" is no JSON Pointer)"));
  EXPECT_THAT(parsing(R"({"subscribe":"/~2"})"), fails("is no JSON Pointer"));
  EXPECT_THAT(parsing(R"({"call":{}})"), fails(R"("call" takes the name of a method)"));
  EXPECT_THAT(parsing(R"({"call":"x","params":[]})"), fails(R"("params" is an object)"));
  EXPECT_THAT(parsing(R"({"get":"","params":{}})"), fails(R"(unknown member "params")"));
  EXPECT_THAT(parsing(R"({"get":"","id":[]})"), fails(R"("id" is a string or a number)"));
  EXPECT_THAT(parsing("{\"get\":\"\xff\"}"), fails("not JSON at byte"));
  EXPECT_THAT(parsing(R"({"get":"","id":1e999})"), fails("a number is out of range"));
}

TEST(Request, IsRefusedBeforeItCanExhaustTheStack) {
  EXPECT_THAT(parsing("{\"patch\":" + std::string(64, '[') + std::string(64, ']') + "}"),
              fails("nested deeper than 64 levels"));
}

TEST(Request, TheIdComesBackEvenWithARefusal) {
  try {
    Request::parse(R"({"id":"x1","get":7})");
    FAIL() << "taken";
  } catch (const BadRequest& error) {
    EXPECT_EQ(error.id(), "x1");
  }
}

TEST(Request, AnswersAreLinesOfJson) {
  using namespace Control;
  EXPECT_EQ(okLine(nullptr), R"({"ok":true})");
  EXPECT_EQ(valueLine(3, json::array({1, "x"})), R"({"id":3,"value":[1,"x"]})");
  EXPECT_EQ(mergeLine("s", R"({"a":null})"), R"({"id":"s","merge":{"a":null}})");
  EXPECT_EQ(cutLine(nullptr), R"({"cut":true})");
  EXPECT_EQ(errorLine(nullptr, "refused", {"/a", "too \"big\""}),
            R"({"error":{"kind":"refused","pointer":"/a","reason":"too \"big\""}})");
  EXPECT_EQ(valueLine(nullptr, "line\nbreak \xff"), "{\"value\":\"line\\nbreak \xef\xbf\xbd\"}");
}

}  // namespace

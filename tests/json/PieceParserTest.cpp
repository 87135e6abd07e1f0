#include "service/json/PieceParser.h"

#include <gtest/gtest.h>

#include <optional>

#include "service/json/Text.h"

namespace {

using nlohmann::json;
using Service::PieceParser;

// The value of a text, read in parts of this size; nothing if it is refused.
std::optional<json> inParts(const std::string& text, std::size_t bytes) {
  PieceParser parser(text);
  while (parser.step(bytes)) {
  }
  return parser.well() ? std::optional(parser.take()) : std::nullopt;
}

std::optional<json> atOnce(const std::string& text) {
  try {
    return Service::parseJson(text);
  } catch (const Service::BadJson&) {
    return std::nullopt;
  }
}

class PieceParserTest : public testing::TestWithParam<std::string> {};

}  // namespace

TEST_P(PieceParserTest, ReadsWhatIsReadAtOnce) {
  for (const std::size_t bytes : {1U, 2U, 3U, 7U, 1000U}) {
    EXPECT_EQ(inParts(GetParam(), bytes), atOnce(GetParam())) << GetParam() << " in parts of " << bytes;
  }
}

// Cut short anywhere, a text is refused or read as it would be at once.
TEST_P(PieceParserTest, ReadsWhatIsCutShortAsItIsReadAtOnce) {
  for (std::size_t length = 0; length < GetParam().size(); ++length) {
    const std::string text = GetParam().substr(0, length);
    EXPECT_EQ(inParts(text, 4), atOnce(text)) << text;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Texts, PieceParserTest,
    testing::Values(R"({})", R"([])", R"("")", R"(17)", R"( null )",
                    R"({"a":1,"b":[true,false,null],"c":{"d":"e"}})", R"([[],[[]],{},[{}],{"x":[]}])",
                    R"({ "a" : [ 1 , -2.5e3 ,"x" ] , "b" : { } })", R"({"a":1,"a":2})",
                    R"({"\u00e4\n\"":"\\ \/ \ud83d\ude00"})", "{\"\xc3\xa4\":\"\xc3\xa4\"}", R"({"a":})",
                    R"({"a"})", R"({"a":1,})", R"([1,])", R"([,1])", R"({,})", R"([1 2])", R"({"a" 1})",
                    R"([1}])", R"({"a":1]})", R"({1:2})", R"(1 2)", R"({}{})", R"(]])", R"(nul)", R"(01)",
                    R"([1e999])", R"(-)", R"("\x")", "\"\x01\"", "\"\xff\"", "[\"a\x00b\"]", R"({"a":tru})",
                    "[1,\x01]"));

TEST(PieceParserDepthTest, RefusesWhatIsNestedTooDeep) {
  for (const int depth : {Service::deepestJson, Service::deepestJson + 1}) {
    const std::string text =
        std::string(static_cast<std::size_t>(depth), '[') + std::string(static_cast<std::size_t>(depth), ']');
    EXPECT_EQ(inParts(text, 5), atOnce(text)) << depth;
  }
}

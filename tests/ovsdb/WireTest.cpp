// What stands on the wire: framing, JSON, rows, and the small things they are made of.
#include <gmock/gmock.h>

#include <functional>
#include <nlohmann/json.hpp>

#include "agent/vtep/Schema.h"
#include "service/ovsdb/Framer.h"
#include "service/ovsdb/JsonReader.h"
#include "service/ovsdb/ReceiveBuffer.h"
#include "service/ovsdb/Remote.h"
#include "service/ovsdb/UpdateWalk.h"
#include "service/ovsdb/Uuid.h"

namespace Ovsdb::Testing {

namespace {

using Agent::Vtep::At;
using Agent::Vtep::hardwareVtep;
using Agent::Vtep::Table;
using Agent::Vtep::tableOf;
using testing::ElementsAre;
using testing::HasSubstr;

std::string errorOf(const std::function<void()>& act) {
  try {
    act();
  } catch (const std::exception& error) {
    return error.what();
  }
  return "no error";
}

// The members of each message in `stream`, which comes in the pieces that `cuts` make.
std::vector<std::vector<std::string>> framed(const std::string& stream,
                                             const std::vector<std::size_t>& cuts) {
  std::vector<std::vector<std::string>> messages;
  ReceiveBuffer buffer;
  Framer framer;
  std::size_t from = 0;
  std::vector<std::size_t> ends = cuts;
  ends.push_back(stream.size());
  for (const std::size_t end : ends) {
    buffer.append(std::string_view{stream}.substr(from, end - from));
    from = end;
    while (framer.scan(buffer.unread())) {
      std::vector<std::string> members;
      for (const Framer::Member& member : framer.members(buffer.unread())) {
        members.push_back(std::string{member.name} + "=" + std::string{member.value});
      }
      messages.push_back(std::move(members));
      buffer.consume(framer.length());
      framer.next();
    }
  }
  EXPECT_TRUE(buffer.unread().find_first_not_of(" \n") == std::string_view::npos);
  return messages;
}

class Rows : public RowSink {
 public:
  void row(const RowEvent& event) override { events.push_back(event); }
  std::vector<RowEvent> events;
};

std::vector<RowEvent> rowsOf(const std::string& text) {
  Rows rows;
  UpdateWalk walk(hardwareVtep(), text);
  while (walk.step(1, rows)) {
  }
  return rows.events;
}

constexpr const char* id1 = "11111111-1111-4111-8111-111111111111";
constexpr const char* id2 = "22222222-2222-4222-8222-222222222222";

std::string update(const std::string& table, const std::string& change) {
  return R"({")" + table + R"(":{")" + id1 + R"(":)" + change + "}}";
}

}  // namespace

// --- framing

TEST(Framing, MessagesAreFoundHoweverTheStreamIsCut) {
  const std::string stream =
      R"( {"id":1,"result":{"a":[1,{"b":"}{]["}],"c":"x\"y\\"}}{"method":"echo","params":[]}  {} {"e":""})";
  const auto whole = framed(stream, {});
  ASSERT_EQ(whole.size(), 4U);
  EXPECT_THAT(whole[0], ElementsAre(R"("id"=1)", R"("result"={"a":[1,{"b":"}{]["}],"c":"x\"y\\"})"));
  EXPECT_THAT(whole[1], ElementsAre(R"("method"="echo")", R"("params"=[])"));
  EXPECT_THAT(whole[2], ElementsAre());
  for (std::size_t one = 0; one <= stream.size(); ++one) {
    EXPECT_EQ(framed(stream, {one}), whole) << "cut at " << one;
    for (std::size_t other = one; other <= stream.size(); ++other) {
      ASSERT_EQ(framed(stream, {one, other}), whole) << "cut at " << one << " and " << other;
    }
  }
}

TEST(Framing, WhatIsNoObjectIsNoMessage) {
  Framer framer;
  EXPECT_EQ(errorOf([&] { framer.scan("HTTP/1.1 400 Bad Request"); }),
            "this is not OVSDB: a message begins with byte 72 instead of '{'");
}

TEST(Framing, AMessageOverTheLimitIsRefusedBeforeItIsWhole) {
  Framer framer(1 << 20);
  std::string text = R"({"a":[)";
  while (text.size() < (2U << 20)) {
    text += "1,";
  }
  EXPECT_EQ(errorOf([&] { framer.scan(text); }), "a message is larger than the 1 MiB allowed");
}

TEST(Framing, AStringOverTheLimitIsRefusedBeforeItEnds) {
  Framer framer(1 << 20, 1000);
  EXPECT_EQ(errorOf([&] { framer.scan(R"({"a":")" + std::string(1001, 'x')); }),
            "a string is longer than the 1000 bytes allowed");
}

TEST(Framing, AMessageHasAHandfulOfMembers) {
  const auto refusal = [](const std::string& text) {
    return errorOf([&] {
      Framer framer;
      framer.scan(text);
    });
  };
  EXPECT_EQ(refusal(R"({"a":1,"b":1,"c":1,"d":1,"e":1,"f":1,"g":1,"h":1})"), "no error");
  EXPECT_EQ(refusal(R"({"a":1,"b":1,"c":1,"d":1,"e":1,"f":1,"g":1,"h":1,"i":1,)"),
            "a message has more than 8 members");
  EXPECT_EQ(refusal(R"({"a":{"b":1,"c":1,"d":1,"e":1,"f":1,"g":1,"h":1,"i":1,"j":1}})"), "no error");
  EXPECT_EQ(refusal("{:,:,:,"), "no error");
  EXPECT_EQ(refusal("{:1:"), "a message is not JSON: a member has two colons");
  EXPECT_EQ(refusal("{,"), "a message is not JSON: a member has no value");
  EXPECT_EQ(refusal("{:1,}"), "a message is not JSON: a member has no value");
  EXPECT_EQ(refusal("{ }"), "no error");
}

TEST(Framing, NestingIsBoundedHoweverTheStreamIsCut) {
  const std::string deepest = R"({"a":)" + std::string(63, '[') + std::string(63, ']') + "}";
  for (const std::size_t piece : {std::size_t{1}, std::size_t{7}, std::size_t{1000}}) {
    Framer framer;
    std::string pending;
    for (std::size_t at = 0; at < deepest.size(); at += piece) {
      pending += deepest.substr(at, piece);
      EXPECT_EQ(framer.scan(pending), pending.size() == deepest.size());
    }
  }
  Framer framer;
  EXPECT_EQ(errorOf([&] { framer.scan(R"({"a":)" + std::string(64, '[')); }),
            "a message is nested deeper than 64 levels");
}

TEST(Framing, WhiteSpaceAndNumbersAreBounded) {
  const std::string least(Framer::mostBetweenMarks, ' ');
  const std::string digits(Framer::mostBetweenMarks, '1');
  Framer fits;
  EXPECT_TRUE(fits.scan(least + R"({"a":)" + digits + "}"));
  const std::string cases[] = {least + " ", "{" + least + " ", R"({"a")" + least + " ",
                               R"({"a":)" + digits + "1"};
  for (const std::string& text : cases) {
    for (const std::size_t piece : {std::size_t{1000}, text.size()}) {
      Framer framer;
      std::string pending;
      const std::string error = errorOf([&] {
        for (std::size_t at = 0; at < text.size(); at += piece) {
          pending += text.substr(at, piece);
          framer.scan(pending);
        }
      });
      EXPECT_THAT(error, HasSubstr("white space"));
    }
  }
}

TEST(ReceiveBufferTest, BytesStayWhileTheBufferGrowsAndShrinks) {
  ReceiveBuffer buffer;
  std::string expected;
  for (int round = 0; round < 40; ++round) {
    const std::string piece(100'000, static_cast<char>('a' + round % 26));
    buffer.append(piece);
    expected += piece;
    if (round % 3 == 2) {
      buffer.consume(150'000);
      expected.erase(0, 150'000);
    }
    ASSERT_EQ(buffer.unread(), expected) << "round " << round;
  }
  EXPECT_GT(buffer.capacity(), 1U << 20);
  buffer.clear();
  EXPECT_EQ(buffer.capacity(), 0U) << "given back";
}

TEST(ReceiveBufferTest, LessThanTwiceOfWhatIsThereIsHeld) {
  constexpr std::size_t mebibyte = std::size_t{1} << 20;
  ReceiveBuffer buffer;
  const std::string piece(mebibyte / 4, 'x');
  std::size_t there = 0;
  const auto check = [&] { ASSERT_LE(buffer.capacity(), there + there / 4 + mebibyte) << there; };
  for (int i = 0; i < 256; ++i) {
    buffer.append(piece);
    there += piece.size();
    check();
  }
  for (int i = 0; i < 1000; ++i) {  // a message goes while the next one comes
    buffer.consume(piece.size() + 1000);
    there -= piece.size() + 1000;
    buffer.append(piece);
    there += piece.size();
    check();
  }
  while (there > 3 * mebibyte) {
    buffer.consume(mebibyte);
    there -= mebibyte;
    check();
  }
  EXPECT_EQ(buffer.unread(), std::string(there, 'x'));
}

// --- JSON

TEST(JsonReading, ValuesAreReadInOrder) {
  JsonReader reader(R"( { "a" : [ 1 , -22 , true , false , null , "x" ] , "b" : {} , "c":[] } )");
  std::string name;
  reader.beginObject();
  ASSERT_TRUE(reader.nextMember(name));
  EXPECT_EQ(name, "a");
  reader.beginArray();
  ASSERT_TRUE(reader.nextElement());
  EXPECT_EQ(reader.integer(), 1);
  ASSERT_TRUE(reader.nextElement());
  EXPECT_EQ(reader.integer(), -22);
  ASSERT_TRUE(reader.nextElement());
  EXPECT_TRUE(reader.boolean());
  ASSERT_TRUE(reader.nextElement());
  EXPECT_FALSE(reader.boolean());
  ASSERT_TRUE(reader.nextElement());
  EXPECT_TRUE(reader.null());
  ASSERT_TRUE(reader.nextElement());
  EXPECT_EQ(reader.string(), "x");
  EXPECT_FALSE(reader.nextElement());
  ASSERT_TRUE(reader.nextMember(name));
  EXPECT_EQ(reader.skip(), "{}");
  ASSERT_TRUE(reader.nextMember(name));
  reader.beginArray();
  EXPECT_FALSE(reader.nextElement());
  EXPECT_FALSE(reader.nextMember(name));
  EXPECT_TRUE(reader.atEnd());
}

TEST(JsonReading, SkippingStepsOverAnyValue) {
  for (const std::string& value :
       {std::string{R"({"a":[1,2,{"b":null}],"c":{}})"}, std::string{"[]"}, std::string{"[[[]],{}]"},
        std::string{R"("a\"]b")"}, std::string{"-1.5e3"}, std::string{"null"}, std::string{"{}"}}) {
    const std::string text = "[" + value + ",7]";
    JsonReader whole(text);
    whole.beginArray();
    ASSERT_TRUE(whole.nextElement());
    EXPECT_EQ(whole.skip(), value);
    ASSERT_TRUE(whole.nextElement());
    EXPECT_EQ(whole.integer(), 7);
  }
}

TEST(JsonReading, EscapesAndUtf8AreUnderstood) {
  const std::string text = "\"a\\u00e9\\n\xc3\xa9\"";
  JsonReader reader(text);
  EXPECT_EQ(reader.string(), "a\xc3\xa9\n\xc3\xa9");
}

TEST(JsonReading, WhatIsNotJsonIsRefusedWithItsPlace) {
  const auto skip = [](const char* text) {
    return errorOf([&] {
      JsonReader reader(text);
      reader.skip();
    });
  };
  EXPECT_EQ(skip("[1 2]"), "at byte 3: want ',', have '2'");
  EXPECT_EQ(skip("[1,]"), "at byte 3: want a value");
  EXPECT_EQ(skip("{\"a\" 1}"), "at byte 5: want ':', have '1'");
  EXPECT_EQ(skip("{1:2}"), "at byte 1: want '\"', have '1'");
  EXPECT_EQ(skip("[1}"), "at byte 2: want ',', have '}'");
  EXPECT_EQ(skip("tru"), "at byte 0: want a value");
  EXPECT_EQ(skip("[\"a"), "at byte 3: the string does not end");
  EXPECT_EQ(skip("["), "at byte 1: want a value");
  EXPECT_EQ(skip(""), "at byte 0: want a value");
  EXPECT_EQ(errorOf([] { JsonReader("12x").integer(); }), "at byte 0: want an integer");
  EXPECT_EQ(errorOf([] { JsonReader("99999999999999999999").integer(); }), "at byte 0: want an integer");
  EXPECT_EQ(errorOf([] { JsonReader("\"\xff\"").string(); }),
            "at byte 3: the string ending here is not valid JSON in UTF-8");
}

// --- rows

TEST(Rows, EachKindOfColumnIsRead) {
  const std::string uuid = std::string{R"(["uuid",")"} + id2 + R"("])";
  auto rows = rowsOf(update("Logical_Switch", R"({"insert":{"name":"ls","tunnel_key":5010}})"));
  ASSERT_EQ(rows.size(), 1U);
  EXPECT_EQ(rows[0].change, RowChange::present);
  EXPECT_EQ(rows[0].uuid.text(), id1);
  EXPECT_EQ(rows[0].cells[At::logicalName].text, "ls");
  EXPECT_FALSE(rows[0].cells[At::logicalKey].empty);
  EXPECT_EQ(rows[0].cells[At::logicalKey].number, 5010);
  EXPECT_FALSE(rows[0].cells[At::logicalMode].present);

  rows = rowsOf(update("Logical_Switch",
                       R"({"modify":{"tunnel_key":["set",[]],"replication_mode":["set",["source_node"]]}})"));
  EXPECT_EQ(rows[0].change, RowChange::modified);
  EXPECT_TRUE(rows[0].cells[At::logicalKey].present);
  EXPECT_TRUE(rows[0].cells[At::logicalKey].empty);
  EXPECT_EQ(rows[0].cells[At::logicalMode].text, "source_node");

  rows = rowsOf(update("Ucast_Macs_Remote",
                       R"({"initial":{"MAC":"m","logical_switch":)" + uuid + R"(,"ipaddr":"x"}})"));
  EXPECT_EQ(rows[0].cells[At::macMac].text, "m");
  EXPECT_EQ(rows[0].cells[At::macSwitch].uuid.text(), id2);

  rows = rowsOf(
      update("Physical_Switch", R"({"insert":{"ports":)" + uuid + R"(,"tunnel_ips":["set",["a","b"]]}})"));
  EXPECT_EQ(rows[0].cells[At::switchPorts].uuids.size(), 1U);
  EXPECT_THAT(rows[0].cells[At::switchTunnelIps].texts, ElementsAre("a", "b"));

  rows = rowsOf(update("Physical_Switch",
                       R"({"insert":{"ports":["set",[)" + uuid + "," + uuid + R"(]],"tunnel_ips":"a"}})"));
  EXPECT_EQ(rows[0].cells[At::switchPorts].uuids.size(), 2U);
  EXPECT_THAT(rows[0].cells[At::switchTunnelIps].texts, ElementsAre("a"));

  rows = rowsOf(update("Physical_Port", R"({"insert":{"vlan_bindings":["map",[[10,)" + uuid + R"(]]]}})"));
  ASSERT_EQ(rows[0].cells[At::portBindings].bindings.size(), 1U);
  EXPECT_EQ(rows[0].cells[At::portBindings].bindings[0].first, 10);

  rows = rowsOf(update("Global", R"({"insert":{"other_config":["map",[["converging","true"]]]}})"));
  EXPECT_EQ(rows[0].cells[At::globalOtherConfig].pairs[0].second, "true");

  rows = rowsOf(update("Mcast_Macs_Remote", R"({"delete":null})"));
  EXPECT_EQ(rows[0].change, RowChange::removed);
}

TEST(Rows, TablesAndColumnsThatAreNotFollowedAreSteppedOver) {
  EXPECT_TRUE(rowsOf(update("Tunnel", R"({"insert":{"a":[1]}})")).empty());
  EXPECT_EQ(rowsOf(update("Global", R"({"insert":{"managers":["set",[]]}})")).size(), 1U);
  EXPECT_TRUE(rowsOf("{}").empty());
}

TEST(Rows, WhatIsNotInTheFormIsRefusedWithTableRowAndColumn) {
  const auto refusal = [](const std::string& text) { return errorOf([&] { rowsOf(text); }); };
  const std::string row = "table Logical_Switch, row " + std::string{id1};
  EXPECT_EQ(refusal(R"({"Logical_Switch":{"x":{}}})"),
            "table Logical_Switch, row x: the name of the row is not a UUID");
  EXPECT_EQ(refusal(update("Logical_Switch", R"({"insert":{"tunnel_key":"x"}})")),
            row + ", column tunnel_key: at byte 82: want an integer");
  EXPECT_EQ(refusal(update("Logical_Switch", R"({"move":{}})")),
            row + ": the row update is none of initial, insert, modify and delete");
  EXPECT_EQ(refusal(update("Logical_Switch", R"({})")), row + ": the row update is empty");
  EXPECT_EQ(refusal(update("Logical_Switch", R"({"delete":null,"insert":{}})")),
            row + ": the row update has more than one member");
  EXPECT_THAT(refusal(update("Physical_Switch", R"({"insert":{"ports":["map",[]]}})")),
              HasSubstr(R"(want ["set", ...] or ["uuid", ...])"));
  EXPECT_THAT(refusal(update("Ucast_Macs_Remote", R"({"insert":{"locator":["uuid","x"]}})")),
              HasSubstr("column locator: at byte"));
  EXPECT_EQ(refusal("{} x"), "at byte 3: there is more behind the end of the table updates");
}

TEST(Rows, AWalkTakesAsManyItemsAsItIsTold) {
  std::string ports;
  for (int i = 0; i < 1000; ++i) {
    ports += (i > 0 ? "," : "") + std::string{R"(["uuid",")"} + id2 + R"("])";
  }
  std::string skipped = "0";
  for (int i = 0; i < 5000; ++i) {
    skipped += ",[]";
  }
  const std::string text = R"({"Tunnel":{")" + std::string{id1} + R"(":{"insert":{"a":[)" + skipped +
                           R"(]}}},"Physical_Switch":{")" + id1 + R"(":{"insert":{"ports":["set",[)" + ports +
                           R"(]],"other":[)" + skipped + R"(],"name":"leaf"}},")" + id2 +
                           R"(":{"delete":null}}})";
  Rows rows;
  UpdateWalk walk(hardwareVtep(), text);
  int steps = 0;
  while (walk.step(10, rows)) {
    ++steps;
  }
  ASSERT_EQ(rows.events.size(), 2U);
  EXPECT_EQ(rows.events[0].cells[At::switchPorts].uuids.size(), 1000U);
  EXPECT_EQ(rows.events[0].cells[At::switchName].text, "leaf");
  EXPECT_EQ(rows.events[1].change, RowChange::removed);
  EXPECT_GE(steps, 100 + 2 * 5000 / 640);
}

TEST(Rows, AStepEndsWithALargeText) {
  std::string text = R"({"Physical_Locator":{)";
  for (int i = 0; i < 100; ++i) {
    text += (i > 0 ? ",\"" : "\"") + std::string{"11111111-1111-4111-8111-1111111111"} +
            std::to_string(i + 100).substr(1) + R"(":{"insert":{"dst_ip":")" + std::string(10'000, 'x') +
            "\"}}";
  }
  Rows rows;
  UpdateWalk walk(hardwareVtep(), text += "}}");
  EXPECT_TRUE(walk.step(20, rows));
  EXPECT_LE(rows.events.size(), 3U);
}

TEST(Rows, AColumnHoldsABoundedNumberOfElementsOnce) {
  const auto refusal = [](const std::string& text) { return errorOf([&] { rowsOf(text); }); };
  const auto texts = [](std::size_t count) {
    std::string all = "\"\"";
    for (std::size_t i = 1; i < count; ++i) {
      all += ",\"\"";
    }
    return update("Physical_Switch", R"({"insert":{"tunnel_ips":["set",[)" + all + "]]}}");
  };
  EXPECT_EQ(refusal(texts(UpdateWalk::mostElements)), "no error");
  EXPECT_THAT(refusal(texts(UpdateWalk::mostElements + 1)),
              HasSubstr("column tunnel_ips: at byte 49243: more than 16384 elements"));
  EXPECT_THAT(refusal(update("Logical_Switch", R"({"insert":{"tunnel_key":["set",[1,2]]}})")),
              HasSubstr("column tunnel_key: at byte 92: want one value at the most"));
  EXPECT_THAT(refusal(update("Logical_Switch", R"({"insert":{"name":"a","name":"b"}})")),
              HasSubstr("column name: the column comes twice"));
  EXPECT_THAT(refusal(update("Logical_Switch", R"({"delete":{"a":1}})")), HasSubstr("want null"));
}

// --- the schema

TEST(SchemaCheck, TheColumnsThatAreFollowedMustBeThere) {
  nlohmann::json schema{{"name", "hardware_vtep"}, {"tables", nlohmann::json::object()}};
  EXPECT_THAT(hardwareVtep().objection(schema),
              HasSubstr("the schema does not serve: no table Global, no table "
                        "Physical_Switch"));
  schema["tables"]["Global"]["columns"]["other_config"]["type"] = "string";
  EXPECT_THAT(hardwareVtep().objection(schema), HasSubstr("column Global.other_config is of another type"));
  schema["tables"]["Logical_Switch"]["columns"] = nlohmann::json::object();
  EXPECT_THAT(hardwareVtep().objection(schema), HasSubstr("no column Logical_Switch.tunnel_key"));
  EXPECT_EQ(hardwareVtep().objection(nlohmann::json::array()), "the answer to get_schema is not a schema");
  schema["name"] = "other";
  EXPECT_EQ(hardwareVtep().objection(schema), "the schema is of another database than \"hardware_vtep\"");
}

// --- small things

TEST(Uuids, TheCanonicalFormIsReadAndWritten) {
  const std::string text = "0123abcd-4567-89ef-0123-456789abcdef";
  EXPECT_EQ(Uuid::parse(text)->text(), text);
  EXPECT_EQ(Uuid::parse("0123ABCD-4567-89EF-0123-456789ABCDEF")->text(), text);
  for (const char* const bad :
       {"", "0123abcd-4567-89ef-0123-456789abcde", "0123abcd-4567-89ef-0123-456789abcdeg",
        "0123abcd4567-89ef-0123-456789abcdef-"}) {
    EXPECT_FALSE(Uuid::parse(bad)) << bad;
  }
}

TEST(Remotes, EachKindIsReadAndWritten) {
  for (const char* const text :
       {"unix:/run/db.sock", "tcp:10.0.0.1:6640", "ssl:db.example.net:6640", "tcp:[2001:db8::1]:6640"}) {
    EXPECT_EQ(Remote::parse(text).text(), text);
  }
  const auto list = Remote::parseList("unix:/a,tcp:127.0.0.1:1");
  ASSERT_EQ(list.size(), 2U);
  EXPECT_EQ(list[1].port, 1);
}

TEST(Remotes, WhatIsWrongIsNamed) {
  EXPECT_EQ(errorOf([] { Remote::parse("http:x"); }),
            "\"http:x\": want unix:PATH, tcp:HOST:PORT or ssl:HOST:PORT");
  EXPECT_EQ(errorOf([] { Remote::parse("tcp:host"); }), "\"tcp:host\": want HOST:PORT");
  EXPECT_EQ(errorOf([] { Remote::parse("tcp:host:0"); }),
            "\"tcp:host:0\": the port is not a number from 1 to 65535");
  EXPECT_EQ(errorOf([] { Remote::parse("tcp:2001:db8::1:6640"); }),
            "\"tcp:2001:db8::1:6640\": an IPv6 address stands in brackets");
  EXPECT_EQ(errorOf([] { Remote::parse("unix:"); }),
            "\"unix:\": the path of a unix socket has 1 to 107 bytes");
  EXPECT_EQ(errorOf([] { Remote::parseList("unix:/a,"); }),
            "\"\": want unix:PATH, tcp:HOST:PORT or ssl:HOST:PORT");
}

}  // namespace Ovsdb::Testing

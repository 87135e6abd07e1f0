#include "tools/vxlanctl/Sheet.h"

#include <gmock/gmock.h>

#include <sstream>

namespace {

using nlohmann::json;
using Vxlanctl::cellText;
using Vxlanctl::Sheet;

std::string textOf(const Sheet& sheet) {
  std::ostringstream out;
  sheet.printText(out);
  return out.str();
}
std::string jsonOf(const Sheet& sheet) {
  std::ostringstream out;
  sheet.printJson(out);
  return out.str();
}

TEST(Sheet, AlignsItsColumns) {
  Sheet sheet({{"n", "N", true}, {"name", "NAME"}, {"x", "X"}});
  sheet.add({{"n", 7}, {"name", "short"}, {"x", nullptr}});
  sheet.add({{"n", 12345}, {"name", "a longer one"}, {"x", true}});
  EXPECT_EQ(textOf(sheet),
            "    N  NAME          X\n"
            "    7  short         -\n"
            "12345  a longer one  yes\n");
}

TEST(Sheet, SortsNumbersAndAddressesByValue) {
  Sheet sheet(std::vector<Sheet::Column>{{"ip", "IP"}});
  for (const char* ip : {"10.0.0.10", "10.0.0.9", "9.0.0.1"}) {
    sheet.add({{"ip", ip}});
  }
  sheet.sortBy({"ip"});
  EXPECT_EQ(textOf(sheet), "IP\n9.0.0.1\n10.0.0.9\n10.0.0.10\n");
}

TEST(Sheet, KeepsWhatMatchesEveryFilter) {
  Sheet sheet({{"vlan", "VLAN"}, {"dests", "TO"}});
  sheet.add({{"vlan", 10}, {"dests", {"10.0.0.1", "10.0.0.2"}}});
  sheet.add({{"vlan", 10}, {"dests", {"10.0.0.3"}}});
  sheet.add({{"vlan", 20}, {"dests", {"10.0.0.1"}}});
  sheet.keep({{"vlan", "10"}, {"dests", "10.0.0.1"}});
  EXPECT_EQ(textOf(sheet), "VLAN  TO\n10    10.0.0.1, 10.0.0.2\n");
}

TEST(Sheet, IsAnArrayOfObjectsInJson) {
  Sheet sheet(std::vector<Sheet::Column>{{"a", "A"}});
  EXPECT_EQ(jsonOf(sheet), "[]\n");
  sheet.add({{"a", 1}});
  sheet.add({{"a", "x"}});
  EXPECT_EQ(jsonOf(sheet), "[\n {\"a\":1},\n {\"a\":\"x\"}\n]\n");
}

TEST(Sheet, MakesRowsWhenTheyAreNeeded) {
  Sheet sheet(std::vector<Sheet::Column>{{"n", "N", true}});
  sheet.rowsAre(100, [](std::size_t at) { return json{{"n", at}}; });
  sheet.keep({{"n", "42"}});
  EXPECT_EQ(textOf(sheet), " N\n42\n");
}

TEST(Sheet, LetsNoControlCharactersThrough) {
  EXPECT_EQ(cellText("a\033[2Jb\nc\x7f"), "a?[2Jb?c?");
  EXPECT_EQ(cellText(""), "-");
  EXPECT_EQ(cellText(json::array()), "-");
}

}  // namespace

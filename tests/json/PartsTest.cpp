#include "service/json/Parts.h"

#include <gtest/gtest.h>

namespace {

using nlohmann::json;
using Service::Part;
using Service::Records;
using Service::Walked;

const json document = json::parse(
    R"({"a":{"b/c":{"~":1,"list":[1,{"x":2}]},"empty":{}},"n":null,"t":"é\"\\\n","z":{"deep":{"er":true}}})");

std::string textOf(Part part) {
  std::string out;
  Service::RecordText text;
  Records records(std::move(part));
  for (Walked walked = records.next(); walked != Walked::end; walked = records.next()) {
    if (walked == Walked::member) {
      text.add(records.path(), records.text(), out);
    }
  }
  text.end(out);
  return out;
}

TEST(PartsTest, TheTextOfTheRecordsIsTheDocument) {
  EXPECT_EQ(textOf(Service::partOf(document)), document.dump());
  EXPECT_EQ(Service::jsonOf(Service::partOf(document)), document);
  for (const char* whole : {"{}", "[]", "7", R"({"a":{}})", R"({"a":{"b":{}},"c":1})"}) {
    EXPECT_EQ(textOf(Service::partOf(json::parse(whole))), whole);
  }
}

TEST(PartsTest, APointerLeadsWhereItLeadsInTheDocument) {
  for (const char* pointer : {"", "/a", "/a/b~1c", "/a/b~1c/~0", "/a/b~1c/list/1/x", "/a/empty", "/t",
                              "/z/deep/er", "/z/deep", "/a/b~1c/list/0"}) {
    EXPECT_EQ(Service::jsonOf(partAt(Service::partOf(document), pointer)),
              document.at(json::json_pointer(pointer)))
        << pointer;
  }
}

TEST(PartsTest, APointerThatLeadsNowhereLeadsToNothing) {
  for (const char* pointer : {"/b", "/a/b", "/a/b~1c/list/2", "/a/b~1c/list/x", "/t/0", "/z/deep/er/more",
                              "/z//", "/a/b~1c/list/99999999999999999999"}) {
    EXPECT_FALSE(partAt(Service::partOf(document), pointer).there()) << pointer;
  }
  EXPECT_THROW(partAt(Service::partOf(document), "no pointer"), json::parse_error);
}

// Says how often it was walked, and may turn out to have nothing.
class Probe final : public Service::Branch {
 public:
  Probe(int& steps, bool shown) : steps_(steps), shown_(shown) {}
  Walked next(std::string& /*name*/, Part& /*part*/) override {
    return ++steps_ < 3 ? Walked::search : Walked::end;
  }
  Part find(const std::string& name) override { return name == "it" ? Service::recordOf(1) : Part(); }
  bool shownEmpty() const override { return shown_; }

 private:
  int& steps_;
  bool shown_;
};

TEST(PartsTest, AMemberIsLookedUpWithoutAWalk) {
  int steps = 0;
  EXPECT_EQ(Service::jsonOf(partAt(Part(std::make_unique<Probe>(steps, true)), "/it")), json(1));
  EXPECT_EQ(steps, 0);
}

TEST(PartsTest, ABranchWithoutRecordsIsShownOrNot) {
  int steps = 0;
  EXPECT_EQ(Service::jsonOf(Part(std::make_unique<Probe>(steps, true))), json::object());
  steps = 0;
  EXPECT_EQ(Service::jsonOf(Part(std::make_unique<Probe>(steps, false))), json());
  steps = 0;
  auto around = std::make_unique<Service::Members>();
  around->add("vlan", [&] { return Part(std::make_unique<Probe>(steps, false)); });
  EXPECT_EQ(Service::jsonOf(Part(std::move(around))), json::object());
}

TEST(PartsTest, AStepOfASearchIsAStep) {
  int steps = 0;
  Records records{Part(std::make_unique<Probe>(steps, true))};
  EXPECT_EQ(records.next(), Walked::branch);
  EXPECT_EQ(records.next(), Walked::search);
  EXPECT_EQ(steps, 1);
}

}  // namespace

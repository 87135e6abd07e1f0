// Changes whose handlers throw: the rest is delivered before anything else is changed.
#include <stdexcept>

#include "Running.h"

namespace {

using nlohmann::json;
using TestDaemon::Running;
using ::testing::ElementsAre;

TEST(DeliveryTest, WhatIsLeftIsDeliveredBeforeTheNextChange) {
  Running agent(1);
  ASSERT_EQ(
      agent.patch(
          R"({"vtiStatus": {"Vxlan1": {"controllerClientMode": true}}, "vlanVniMap": {"Vxlan1": {"10": 1}},
    "controller": {"state": {"s": {"convergenceInProgress": true}}, "fdb": {"1": {"macVtepTable": {
      "02:00:00:00:00:01": {"vtepIp": "10.0.0.2"}, "02:00:00:00:00:02": {"vtepIp": "10.0.0.2"},
      "02:00:00:00:00:03": {"vtepIp": "10.0.0.2"}}}}}})"),
      "");
  EXPECT_EQ(agent.errors, 2U) << "the table has room for one";
  EXPECT_EQ(Kel::ActivityLoop::instance().pending(), 0U);
  for (const char* host : {"02:00:00:00:00:01", "02:00:00:00:00:02", "02:00:00:00:00:03"}) {
    for (const json& value : {json{{"vtepIp", "10.0.0.3"}}, json()}) {
      ASSERT_EQ(agent.patch(json{{"controller", {{"fdb", {{"1", {{"macVtepTable", {{host, value}}}}}}}}}}),
                "");
    }
  }
  EXPECT_EQ(agent.output("/markedForDelCount"), 3);
}

TEST(DeliveryTest, EachErrorIsTold) {
  std::vector<std::string> told;
  Agent::carryThrough([] { throw std::runtime_error("one"); },
                      [&](const std::exception& error) { told.emplace_back(error.what()); });
  Agent::carryThrough([] {}, [&](const std::exception& error) { told.emplace_back(error.what()); });
  EXPECT_THAT(told, ElementsAre("one"));
}

}  // namespace

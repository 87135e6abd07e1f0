#include "service/control/Ownership.h"

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

namespace {

using Control::Ownership;
using Control::Refusal;
using nlohmann::json;

class OwnershipTest : public testing::Test {
 protected:
  OwnershipTest() {
    owners.claim("/controller/fdb", "ovsdb");
    owners.claim("/vtiStatus/Vxlan1/localVtepAddr", "ovsdb");
    owners.claim("/mlag", "peer");
  }
  auto check(const char* patch, const char* who = "uid 1000") const {
    return owners.check(json::parse(patch), who);
  }

  Ownership owners;
};

TEST_F(OwnershipTest, WhatNobodyOwnsIsFree) {
  EXPECT_EQ(
      check(R"({"vtiStatus":{"Vxlan1":{"dgwVtepAddr":"10.0.0.9"},"Vxlan2":{"localVtepAddr":"10.0.0.1"}}})"),
      std::nullopt);
  EXPECT_EQ(check(R"({"controller":{"state":{"a":"announced"}},"controllers":null})"), std::nullopt);
}

TEST_F(OwnershipTest, AnOwnedMemberIsRefusedWithItsOwnersName) {
  EXPECT_EQ(check(R"({"vtiStatus":{"Vxlan1":{"localVtepAddr":"10.0.0.1"}}})"),
            (Refusal{"/vtiStatus/Vxlan1/localVtepAddr", "owned by ovsdb"}));
  EXPECT_EQ(check(R"({"mlag":null})"), (Refusal{"/mlag", "owned by peer"}));
}

TEST_F(OwnershipTest, SoIsAllBelowIt) {
  EXPECT_EQ(check(R"({"controller":{"fdb":{"5000":{"macVtepTable":{}}}}})"),
            (Refusal{"/controller/fdb/5000/macVtepTable", "owned by ovsdb"}));
}

TEST_F(OwnershipTest, NothingAboveItIsRemovedOrReplaced) {
  EXPECT_EQ(check(R"({"vtiStatus":{"Vxlan1":null}})"),
            (Refusal{"/vtiStatus/Vxlan1/localVtepAddr", "owned by ovsdb"}));
  EXPECT_EQ(check("null"), (Refusal{"/controller/fdb", "owned by ovsdb"}));
  EXPECT_EQ(check(R"({"controller":7})"), (Refusal{"/controller/fdb", "owned by ovsdb"}));
}

TEST_F(OwnershipTest, AnEmptyObjectAboveItTouchesNothing) {
  EXPECT_EQ(check(R"({"vtiStatus":{"Vxlan1":{}},"controller":{}})"), std::nullopt);
}

TEST_F(OwnershipTest, TheOwnerMayDoWithItsOwn) {
  EXPECT_EQ(check(R"({"controller":{"fdb":{"5000":null}}})", "ovsdb"), std::nullopt);
  EXPECT_EQ(check(R"({"vtiStatus":{"Vxlan1":null}})", "ovsdb"), std::nullopt);
  EXPECT_EQ(check(R"({"mlag":{"mlagState":1}})", "ovsdb"), (Refusal{"/mlag/mlagState", "owned by peer"}));
}

TEST_F(OwnershipTest, TheLongerClaimCounts) {
  owners.claim("/controller/fdb/7", "other");
  EXPECT_EQ(owners.ownerOf("/controller/fdb/7/macVtepTable"), "other");
  EXPECT_EQ(owners.ownerOf("/controller/fdb/77"), "ovsdb");
  EXPECT_EQ(owners.ownerOf("/controller"), std::nullopt);
}

TEST_F(OwnershipTest, WhatIsReleasedIsFreeAgain) {
  owners.release("ovsdb");
  EXPECT_EQ(check(R"({"controller":null})"), std::nullopt);
  EXPECT_EQ(check(R"({"mlag":null})"), (Refusal{"/mlag", "owned by peer"}));
}

TEST_F(OwnershipTest, NamesAreWrittenAsTokensOfAPointer) {
  owners.claim("/vtiStatus/Et1~11~0", "port");
  EXPECT_EQ(check(R"({"vtiStatus":{"Et1/1~":{"localVtepAddr":"10.0.0.1"}}})"),
            (Refusal{"/vtiStatus/Et1~11~0/localVtepAddr", "owned by port"}));
}

}  // namespace

#include "agent/daemon/PatchQueue.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Agent::PatchQueue;
using Agent::Refused;
using nlohmann::json;
using Service::EventLoop;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

json mlag(int state) {
  return {{"mlag", {{"mlagState", state}}}};
}

std::string mac(unsigned number) {
  return Qnet::EthAddr(0x020000000000U + number).text();
}

json hosts(unsigned count, const std::string& vtep = "10.0.0.2") {
  json table = json::object();
  for (unsigned number = 0; number < count; ++number) {
    table[mac(number)] = {{"vtepIp", vtep}};
  }
  return {{"controller", {{"fdb", {{"5010", {{"macVtepTable", table}}}}}}}};
}

// A queue over a state database without a client, and what it says on the way.
class PatchQueueTest : public testing::Test {
 protected:
  PatchQueue::Done note(const std::string& name) {
    return [this, name](const std::exception* error) {
      const auto* refused = dynamic_cast<const Refused*>(error);
      const std::string where = refused == nullptr ? "" : refused->pointer() + ": ";
      answers.push_back(name + (error == nullptr ? "" : ": " + where + error->what()));
    };
  }
  unsigned mlagState() const { return static_cast<unsigned>(world.mlagStatus->mlagState()); }
  std::size_t known() const {
    const auto status =
        Kel::ptrCast<VxlanController::VniFdbStatusV2>(world.fdb->entityPtr(Kel::Name("5010")));
    return status ? status->macVtepTable().size() : 0;
  }

  Agent::World world{L2Rib::HostInput::Options()};
  EventLoop loop;
  std::function<void()> begin = [] {};
  std::function<void(const json&)> record = [this](const json& patch) { recorded.push_back(patch); };
  std::function<void(const std::function<void()>&)> guarded = [](const std::function<void()>& change) {
    change();
  };
  std::vector<json> recorded;
  std::vector<std::string> answers;
  PatchQueue queue{loop,
                   world,
                   {[this] { begin(); }, [this](const std::function<void()>& change) { guarded(change); },
                    [this](const json& patch) { record(patch); }}};
};

TEST_F(PatchQueueTest, ASmallPatchIsCarriedOutAtOnce) {
  queue.add(mlag(3), note("done"));
  EXPECT_EQ(mlagState(), 3U);
  EXPECT_THAT(answers, ElementsAre("done"));
  EXPECT_THAT(recorded, ElementsAre(mlag(3)));
}

TEST_F(PatchQueueTest, APatchIsRecordedAfterItsCheckAndBeforeItIsCarriedOut) {
  std::vector<unsigned> states;
  record = [&](const json&) { states.push_back(mlagState()); };
  queue.add(mlag(3), note("done"));
  queue.add({{"mlag", {{"mlagState", -1}}}}, note("refused"));
  EXPECT_THAT(states, ElementsAre(0U));
  EXPECT_EQ(mlagState(), 3U);
}

TEST_F(PatchQueueTest, ARefusedPatchSaysWhereAndChangesNothing) {
  queue.add({{"mlag", {{"mlagState", 3}}}, {"x", 1}}, note("refused"));
  EXPECT_THAT(answers, ElementsAre("refused: /x: unknown member"));
  EXPECT_EQ(mlagState(), 0U);
  EXPECT_THAT(recorded, IsEmpty());
}

TEST_F(PatchQueueTest, ALargePatchIsCarriedOutInPiecesEachRecordedBefore) {
  queue.add(hosts(1), note("first"));
  std::vector<std::size_t> before;
  record = [&](const json& patch) {
    before.push_back(known());
    recorded.push_back(patch);
  };
  queue.add(hosts(3000, "10.0.0.3"), note("large"));
  EXPECT_THAT(answers, ElementsAre("first")) << "it is not even begun";
  queue.add(mlag(3), note("small"));
  EXPECT_EQ(mlagState(), 0U) << "it waits for its turn";
  while (loop.works() != 0) {
    loop.runOnce(0ns);
  }
  EXPECT_THAT(answers, ElementsAre("first", "large", "small"));
  EXPECT_EQ(known(), 3000U);
  EXPECT_EQ(mlagState(), 3U);
  EXPECT_GT(before.size(), 10U);
  EXPECT_TRUE(std::is_sorted(before.begin(), before.end()));
  EXPECT_EQ(before.front(), 1U);
  json merged;
  for (const json& piece : recorded) {
    merged.merge_patch(piece);
  }
  json expected = hosts(3000, "10.0.0.3");
  expected.merge_patch(mlag(3));
  EXPECT_EQ(merged, expected) << "the pieces are the patch";
}

TEST_F(PatchQueueTest, ALargePatchOfWhichTheEndIsWrongChangesNothing) {
  json patch = hosts(3000);
  patch["controller"]["fdb"]["5020"] = {{"x", 1}};
  queue.add(hosts(1), note("first"));
  recorded.clear();
  queue.add(std::move(patch), note("refused"));
  queue.finish();
  EXPECT_THAT(answers, ElementsAre("first", "refused: /controller/fdb/5020/x: unknown member"));
  EXPECT_EQ(known(), 1U);
  EXPECT_THAT(recorded, IsEmpty());
}

TEST_F(PatchQueueTest, FinishingCarriesOutAllThatWaits) {
  queue.add(hosts(1), note("first"));
  queue.add(hosts(3000), note("large"));
  queue.add(mlag(3), note("small"));
  queue.finish();
  EXPECT_THAT(answers, ElementsAre("first", "large", "small"));
  EXPECT_EQ(known(), 3000U);
}

TEST_F(PatchQueueTest, AnErrorOnTheWayEndsThatPatchWithAnAnswer) {
  record = [](const json&) { throw std::runtime_error("out of memory"); };
  queue.add(mlag(3), note("failed"));
  EXPECT_THAT(answers, ElementsAre("failed: out of memory"));
  begin = [] { throw std::runtime_error("no begin"); };
  queue.add(mlag(4), note("failed too"));
  EXPECT_THAT(answers, SizeIs(2));
  record = [](const json&) {};
  begin = [] {};
  queue.add(mlag(5), note("well"));
  EXPECT_THAT(answers.back(), "well");
  EXPECT_EQ(mlagState(), 5U);
}

TEST_F(PatchQueueTest, AnAnswerThatThrowsEndsNoOtherPatch) {
  queue.add(hosts(1), note("first"));
  queue.add(hosts(3000), [](const std::exception*) { throw std::runtime_error("nobody listens"); });
  queue.add(mlag(3), note("behind it"));
  EXPECT_THROW(queue.finish(), std::runtime_error);
  EXPECT_THAT(answers, ElementsAre("first"));
  queue.finish();
  EXPECT_THAT(answers, ElementsAre("first", "behind it"));
  EXPECT_EQ(mlagState(), 3U);
}

TEST_F(PatchQueueTest, EveryChangeIsUnderTheGuard) {
  int guardedChanges = 0;
  guarded = [&](const std::function<void()>& change) {
    const unsigned before = mlagState();
    change();
    guardedChanges += mlagState() != before ? 1 : 0;
  };
  queue.add(mlag(3), note("done"));
  EXPECT_EQ(guardedChanges, 1);
}

}  // namespace

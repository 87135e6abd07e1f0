// The controller's convergence: its echo in the client view, what is held while it lasts, and what its end
// sets off.
#include "RingLog/Reader.h"
#include "Scenario.h"
#include "Vxlan/framework/Trace.h"

namespace {

using namespace scenario;

class ConvergenceTest : public Scenario {
 protected:
  bool viewConverges() const { return handles.rmxStateClientView->convergenceInProgress(); }
  // Which of the two jobs are reported to be in progress: "", "unicast", "bum" or "unicast bum".
  std::string jobs() const {
    const bool unicast = handles.rmxConvergenceStatus->unicastDeferredDeletionInProgress();
    const bool bum = handles.rmxConvergenceStatus->bumDeferredDeletionInProgress();
    return std::string(unicast ? "unicast" : "") + (unicast && bum ? " " : "") + (bum ? "bum" : "");
  }
  std::string clocks() const {
    const auto text = [&](double due) {
      return due == never ? "parked" : due == time.peek() ? "now" : "later";
    };
    return std::string(text(client->unicastDeferredDeleteClock()->timeMin())) + ", " +
           text(client->bumDeferredDeleteClock()->timeMin());
  }
  // Entries of another kind, or another state, in the controller's state directory.
  Ptr<Kel::Dir> directory() { return handles.rmxStateBaseDir; }

  // The records of the echo that are in the ring of this process, the oldest first.
  static std::vector<std::string> echoes() {
    std::vector<std::string> all;
    const RingLog::Trace trace = RingLog::Trace::parse(Vxlan::vccRlHandle->image());
    for (const RingLog::Record& record : trace.records()) {
      if (record.message().find(" echo convergence state ") != std::string::npos) {
        all.push_back(record.message());
      }
    }
    return all;
  }
};

// The controller's flag is in the view when the factory returns, and at each change afterwards, as it stands.
TEST_F(ConvergenceTest, TheFlagIsEchoedAtCreationAndAtEachChange) {
  givenVti("Vxlan1");
  controllerConverges(true);
  start();
  EXPECT_TRUE(viewConverges());
  controllerConverges(false);
  EXPECT_FALSE(viewConverges());
  controllerConverges(true);
  EXPECT_TRUE(viewConverges());
}

// A machine that is made while the controller does not converge writes false right away.
TEST_F(ConvergenceTest, AFlagThatIsNotSetIsEchoedToo) {
  givenVti("Vxlan1");
  controllerConverges(false);
  handles.rmxStateClientView->convergenceInProgressIs(true);
  start();
  EXPECT_FALSE(viewConverges());
}

// Each echo leaves one record in the ring.
TEST_F(ConvergenceTest, EachEchoLeavesOneRecordInTheRing) {
  givenVti("Vxlan1");
  start();
  const std::size_t before = echoes().size();
  traceFromNow();
  controllerConverges(true);
  EXPECT_EQ(tracedLines("void Vxlan::RmxStateSm::handleConvergenceInProgress() handleConvergenceInProgress "
                        "init 1 convergence state 1"),
            1U)
      << "the line is the handler's, the record says what it did";
  controllerConverges(false);
  controllerConverges(true);
  const std::vector<std::string> all = echoes();
  EXPECT_THAT(std::vector(all.begin() + static_cast<std::ptrdiff_t>(before), all.end()),
              testing::ElementsAre("handleConvergenceInProgress echo convergence state true",
                                   "handleConvergenceInProgress echo convergence state false",
                                   "handleConvergenceInProgress echo convergence state true"));
}

// The trace has the name, the levels and the rings that readers of it expect.
TEST_F(ConvergenceTest, TheTraceHasTenLevelsOf33KiB) {
  start();
  const RingLog::Trace trace = RingLog::Trace::parse(Vxlan::vccRlHandle->image());
  const RingLog::TraceInfo info = trace.info();
  EXPECT_EQ(info.levels, 10U);
  EXPECT_EQ(info.ringBytes, 33U * 1024);
}

// While it converges nothing is in progress and nothing is scheduled.
TEST_F(ConvergenceTest, WhileConvergingNothingIsScheduled) {
  givenVti("Vxlan1");
  start();
  turnsUntilIdle();
  controllerConverges(true);
  EXPECT_EQ(jobs(), "");
  EXPECT_EQ(clocks(), "parked, parked");
}

// At its end both jobs are in progress, and both clocks are due now; the next turn runs them.
TEST_F(ConvergenceTest, TheEndSchedulesBothJobsForTheNextTurn) {
  givenVti("Vxlan1");
  controllerConverges(true);
  start();
  EXPECT_EQ(jobs(), "");
  secondsPass(60);
  controllerConverges(false);
  EXPECT_EQ(jobs(), "unicast bum");
  EXPECT_EQ(clocks(), "now, now");
  turn();
  EXPECT_EQ(jobs(), "");
  EXPECT_EQ(clocks(), "parked, parked");
}

// Both are due at one and the same time, the one at which the convergence ended; the unicast job comes first.
TEST_F(ConvergenceTest, TheJobsAreDueTogetherAndRunInOrder) {
  givenVti("Vxlan1");
  controllerConverges(true);
  start();
  time.tickPerReadIs(0.5);
  const double ended = time.peek();
  traceFromNow();
  controllerConverges(false);
  EXPECT_EQ(client->unicastDeferredDeleteClock()->timeMin(), ended);
  EXPECT_EQ(client->bumDeferredDeleteClock()->timeMin(), ended);
  turn();
  std::vector<std::string> jobsRun;
  for (const std::string& line : lines) {
    if (line.find("processUnicastDeferredDeletes()  init") != std::string::npos) {
      jobsRun.emplace_back("unicast");
    } else if (line.find("processBumDeferredDeletes()  init") != std::string::npos) {
      jobsRun.emplace_back("bum");
    }
  }
  EXPECT_THAT(jobsRun, testing::ElementsAre("unicast", "bum"));
}

// A client that is built while nobody converges runs both jobs once on the next turn.
TEST_F(ConvergenceTest, BuiltWhileNobodyConvergesBothJobsRunOnce) {
  start();
  EXPECT_EQ(jobs(), "unicast bum");
  EXPECT_EQ(clocks(), "now, now");
  turn();
  EXPECT_EQ(jobs(), "");
  EXPECT_TRUE(Kel::ActivityLoop::instance().idle());
}

// Initialized again, the client parks both clocks: nothing is scheduled until a convergence ends.
TEST_F(ConvergenceTest, InitializedAnewItParksBothClocks) {
  start();
  EXPECT_EQ(clocks(), "now, now");
  client->handleInitialized();
  EXPECT_EQ(clocks(), "parked, parked");
}

// That is how flood sets that an earlier client left behind are removed, unless the controller converges.
TEST_F(ConvergenceTest, FloodSetsOfAnEarlierClientGoUnlessTheControllerConverges) {
  givenVti("Vxlan1");
  mapVlan("Vxlan1", 10, 10010);
  bumReplicationMode(Vxlan::BumReplicationMode::Controller);
  publishFloodList(10010, 1, {"10.0.0.8", "10.0.0.9"});
  controllerConverges(true);
  start();
  stop();
  controllerConverges(true);
  vniStatus(10010)->macVtepFloodListTable(mac(1))->vtepIpFloodListDel(ip("10.0.0.8"));
  publishFloodList(10010, 2, {"10.0.0.9"});
  start();
  EXPECT_TRUE(viewConverges());
  turnsUntilIdle();
  EXPECT_EQ(floods(),
            "10 02:00:00:00:00:01 all 10.0.0.8 10.0.0.9\n"
            "10 02:00:00:00:00:02 all 10.0.0.9\n")
      << "nothing is pruned while the controller converges";
  controllerConverges(false);
  turnsUntilIdle();
  EXPECT_EQ(floods(),
            "10 02:00:00:00:00:01 all 10.0.0.9\n"
            "10 02:00:00:00:00:02 all 10.0.0.9\n");
}

// Losing the controller's state ends the convergence: the view reads false, and the deferred work is
// scheduled.
TEST_F(ConvergenceTest, LosingTheControllersStateEndsTheConvergence) {
  givenVti("Vxlan1");
  mapVlan("Vxlan1", 10, 10010);
  publish(10010, 1);
  controllerConverges(true);
  start();
  withdraw(10010, 1);
  controllerStateGoes();
  EXPECT_FALSE(viewConverges());
  EXPECT_FALSE(client->rmxStateSm());
  EXPECT_EQ(jobs(), "unicast bum");
  turnsUntilIdle();
  EXPECT_EQ(received(), "");
}

// So does the last asking VTI that leaves the client mode, but not one of two.
TEST_F(ConvergenceTest, LeavingTheClientModeEndsTheConvergence) {
  givenVti("Vxlan1");
  givenVti("Vxlan2");
  controllerConverges(true);
  start();
  vtiStatus("Vxlan1")->controllerClientModeIs(false);
  EXPECT_TRUE(viewConverges());
  vtiStatus("Vxlan2")->controllerClientModeIs(false);
  EXPECT_FALSE(viewConverges());
  EXPECT_FALSE(client->rmxStateSm());
  EXPECT_EQ(jobs(), "unicast bum");
  EXPECT_EQ(clocks(), "now, now");
}

// A VTI that is added in client mode starts the echo; one that is removed changes nothing.
TEST_F(ConvergenceTest, AVtiAddedInClientModeStartsTheEcho) {
  controllerConverges(true);
  start();
  EXPECT_FALSE(viewConverges());
  givenVti("Vxlan1");
  EXPECT_TRUE(viewConverges());
  vtiGoes("Vxlan1");
  EXPECT_TRUE(viewConverges());
}

// A state that is announced only has no machine; an existing machine is kept while another entry is
// announced.
TEST_F(ConvergenceTest, AnAnnouncedStateHasNoMachine) {
  givenVti("Vxlan1");
  start();
  traceFromNow();
  directory()->entryIs(Name("controller"));
  EXPECT_EQ(tracedLines(" entry subdir added, but not instantiated "), 1U);
  EXPECT_FALSE(client->rmxStateSm());
  directory()->entityPtrIs(Name("controller"), Kel::make<VxlanController::RmxStateV2>());
  const auto machine = client->rmxStateSm();
  ASSERT_TRUE(machine);
  directory()->entryIs(Name("zebra"));
  EXPECT_EQ(client->rmxStateSm(), machine);
  controllerConverges(true);
  EXPECT_TRUE(viewConverges());
}

// An entity of another type has no machine.
TEST_F(ConvergenceTest, AnEntityOfAnotherTypeHasNoMachine) {
  givenVti("Vxlan1");
  start();
  directory()->entityPtrIs(Name("controller"), Kel::make<VxlanController::VniFdbStatusV2>());
  EXPECT_FALSE(client->rmxStateSm());
}

// Whatever entry goes takes the machine with it: there is one controller state.
TEST_F(ConvergenceTest, AnyEntryThatGoesDropsTheMachine) {
  givenVti("Vxlan1");
  controllerConverges(true);
  directory()->entityPtrIs(Name("other"), Kel::make<VxlanController::VniFdbStatusV2>());
  start();
  EXPECT_TRUE(viewConverges());
  directory()->entryDel(Name("other"));
  EXPECT_FALSE(client->rmxStateSm());
  EXPECT_FALSE(viewConverges());
}

// Evaluating again keeps the machine and echoes nothing.
TEST_F(ConvergenceTest, RepeatedEvaluationKeepsTheMachine) {
  givenVti("Vxlan1");
  controllerConverges(true);
  start();
  const auto machine = client->rmxStateSm();
  traceFromNow();
  client->updateControllerClientMode();
  client->handleRmxStateBaseDir();
  EXPECT_EQ(client->rmxStateSm(), machine);
  EXPECT_EQ(tracedLines("RmxStateSm::handleConvergenceInProgress"), 0U);
}

// Two notifications of "false" in a row schedule everything twice: there is no memory of the edge.
TEST_F(ConvergenceTest, EveryFalseSchedulesTheJobs) {
  start();
  turnsUntilIdle();
  for (int again = 0; again < 2; ++again) {
    secondsPass(1);
    client->handleConvergenceInProgress();
    EXPECT_EQ(jobs(), "unicast bum");
    EXPECT_EQ(clocks(), "now, now");
  }
  turnsUntilIdle();
  EXPECT_EQ(jobs(), "");
}

// Equal writes of the flag notify nobody, so they schedule nothing.
TEST_F(ConvergenceTest, AnEqualWriteSchedulesNothing) {
  givenVti("Vxlan1");
  controllerConverges(false);
  start();
  turnsUntilIdle();
  controllerConverges(false);
  EXPECT_EQ(jobs(), "");
}

// Binding another view counts as a change of it; without one nobody converges.
TEST_F(ConvergenceTest, BindingAnotherViewCounts) {
  start();
  turnsUntilIdle();
  const auto other = Kel::make<VxlanController::RmxStateClientViewV2>();
  client->rmxStateClientViewIs(other);
  EXPECT_EQ(jobs(), "unicast bum");
  other->convergenceInProgressIs(true);
  EXPECT_EQ(jobs(), "");
  EXPECT_TRUE(client->converging());
  client->rmxStateClientViewDel();
  EXPECT_FALSE(client->converging());
}

// Another directory of the controller's state is followed as if its entries had just come.
TEST_F(ConvergenceTest, AnotherStateDirectoryIsFollowed) {
  givenVti("Vxlan1");
  start();
  const auto other = Kel::make<Kel::Dir>();
  const auto state = Kel::make<VxlanController::RmxStateV2>();
  state->convergenceInProgressIs(true);
  other->entityPtrIs(Name("controller"), state);
  client->rmxStateBaseDirIs(other);
  EXPECT_TRUE(viewConverges());
  client->rmxStateBaseDirDel();
  state->convergenceInProgressIs(false);
  EXPECT_FALSE(viewConverges()) << "the machine is still there and echoes";
}

// A client that goes while the controller converges leaves no open window behind.
TEST_F(ConvergenceTest, AClientThatGoesClosesTheWindow) {
  givenVti("Vxlan1");
  controllerConverges(true);
  start();
  stop();
  EXPECT_FALSE(viewConverges());
}

// The restart of a controller: everything is withdrawn and most of it published again while it converges. At
// every step each host that is published, or not yet given up, is forwarded; at the end exactly the published
// ones.
TEST_F(ConvergenceTest, AControllerRestartLosesNothingOnItsWay) {
  constexpr std::uint64_t all = 1000;
  constexpr std::uint64_t kept = 990;
  givenVti("Vxlan1");
  mapVlan("Vxlan1", 10, 10010);
  for (std::uint64_t number = 1; number <= all; ++number) {
    publish(10010, number);
  }
  controllerConverges(false);
  start();
  turnsUntilIdle();
  EXPECT_EQ(handles.l2RibRmxInput->hosts(), all);

  controllerConverges(true);
  withdrawVni(10010);
  EXPECT_EQ(handles.l2RibRmxInput->hosts(), all);
  EXPECT_EQ(client->hostTable()->markedForDelCount(), all);
  for (std::uint64_t number = 1; number <= kept; ++number) {
    publish(10010, number, {.moves = 2});
    ASSERT_EQ(handles.l2RibRmxInput->hosts(), all);
    ASSERT_EQ(client->hostTable()->markedForDelCount(), all - number);
  }
  time.tickPerReadIs(0.0001);
  controllerConverges(false);
  EXPECT_EQ(handles.l2RibRmxInput->hosts(), all);
  turnsUntilIdle();
  EXPECT_EQ(handles.l2RibRmxInput->hosts(), kept);
  EXPECT_EQ(client->hostTable()->receivedEntrys(), kept);
  EXPECT_EQ(jobs(), "");
  for (std::uint64_t number = 1; number <= all; ++number) {
    EXPECT_EQ(handles.l2RibRmxInput->hasHost(key(number, 10)), number <= kept) << number;
  }
}

}  // namespace

// The stand-alone echo of the controller's convergence flag.
#include "Scenario.h"

namespace {

using namespace scenario;

class WrapperTest : public Scenario {
 protected:
  void startWrapper() {
    wrapper = Vxlan::rmxStateSmWrapperFactory(handles.vtiStatusDir, handles.rmxStateBaseDir,
                                              handles.rmxStateClientView);
  }
  bool viewConverges() const { return handles.rmxStateClientView->convergenceInProgress(); }

  Ptr<Vxlan::RmxStateSmWrapper> wrapper;
};

// It echoes while the controller's state is there and some VTI is in client mode.
TEST_F(WrapperTest, ItEchoesTheFlag) {
  givenVti("Vxlan1");
  controllerConverges(true);
  startWrapper();
  EXPECT_TRUE(wrapper->initialized());
  EXPECT_TRUE(viewConverges());
  controllerConverges(false);
  EXPECT_FALSE(viewConverges());
}

// Without a VTI in client mode it does not; a VTI that enters the mode, or is added in it, starts the echo.
TEST_F(WrapperTest, AVtiInClientModeStartsTheEcho) {
  controllerConverges(true);
  startWrapper();
  EXPECT_FALSE(wrapper->vxlanControllerClientMode());
  givenVti("Vxlan1", {.client = false});
  EXPECT_FALSE(viewConverges());
  vtiStatus("Vxlan1")->controllerClientModeIs(true);
  EXPECT_TRUE(viewConverges());
  EXPECT_TRUE(wrapper->vxlanControllerClientMode());
  vtiStatus("Vxlan1")->controllerClientModeIs(false);
  EXPECT_FALSE(viewConverges());
  givenVti("Vxlan2");
  EXPECT_TRUE(viewConverges());
}

// The last VTI that leaves the mode ends the echo; a VTI that is removed runs nothing until the next change.
TEST_F(WrapperTest, ARemovedVtiIsNoticedAtTheNextChange) {
  givenVti("Vxlan1");
  givenVti("Vxlan2", {.client = false});
  controllerConverges(true);
  startWrapper();
  vtiGoes("Vxlan1");
  EXPECT_TRUE(viewConverges());
  EXPECT_FALSE(wrapper->vxlanControllerClientMode()) << "computed anew at every call";
  handles.rmxStateBaseDir->entryIs(Name("another"));
  EXPECT_FALSE(viewConverges());
}

// The state entity comes and goes, announced first.
TEST_F(WrapperTest, TheMachineComesAndGoesWithItsEntity) {
  givenVti("Vxlan1");
  startWrapper();
  traceFromNow();
  handles.rmxStateBaseDir->entryIs(Name("controller"));
  EXPECT_EQ(tracedLines(" entry subdir added, but not instantiated "), 1U);
  EXPECT_FALSE(wrapper->rmxStateSm());
  const auto state = Kel::make<VxlanController::RmxStateV2>();
  state->convergenceInProgressIs(true);
  handles.rmxStateBaseDir->entityPtrIs(Name("controller"), state);
  ASSERT_TRUE(wrapper->rmxStateSm());
  EXPECT_EQ(wrapper->rmxStateSm()->rmxState(), state);
  EXPECT_TRUE(viewConverges());
  controllerStateGoes();
  EXPECT_FALSE(wrapper->rmxStateSm());
  EXPECT_FALSE(viewConverges());
  state->convergenceInProgressIs(false);
  state->convergenceInProgressIs(true);
  EXPECT_FALSE(viewConverges());
}

// Directories that are emptied as a whole are followed, too.
TEST_F(WrapperTest, EmptiedDirectoriesAreFollowed) {
  givenVti("Vxlan1");
  controllerConverges(true);
  startWrapper();
  handles.rmxStateBaseDir->entryDelAll();
  EXPECT_FALSE(wrapper->rmxStateSm());
  EXPECT_FALSE(viewConverges());
  const auto status = vtiStatus("Vxlan1");
  const std::size_t followed = status->reactors();
  handles.vtiStatusDir->vtiStatusDelAll();
  EXPECT_EQ(status->reactors(), followed - 1);
}

// What it does is in the trace.
TEST_F(WrapperTest, ItTracesItsEvaluation) {
  givenVti("Vxlan1");
  controllerConverges(true);
  traceFromNow();
  startWrapper();
  for (const char* text :
       {"RmxStateSmWrapper::handleInitialized() handleInitialized",
        "RmxStateSmWrapper::handleRmxStateBaseDir() handleRmxStateBaseDir init 1",
        "RmxStateSmWrapper::handleRmxStateBaseDir(Kel::Name) handleRmxStateBaseDir init 1",
        "RmxStateSmWrapper::handleRmxStateBaseDir(Kel::Name) handleRmxStateBaseDir entry subdir added "}) {
    EXPECT_EQ(tracedLines(text), 1U) << text;
  }
  controllerStateGoes();
  EXPECT_EQ(tracedLines("(Kel::Name) handleRmxStateBaseDir entry subdir deleted for "), 1U);
  EXPECT_EQ(tracedLines("RmxStateSm::cleanup() cleanup convergence window 1"), 1U);
}

// An entity of another type is ignored.
TEST_F(WrapperTest, AnEntityOfAnotherTypeIsIgnored) {
  givenVti("Vxlan1");
  startWrapper();
  handles.rmxStateBaseDir->entityPtrIs(Name("controller"), Kel::make<VxlanController::VniFdbStatusV2>());
  EXPECT_FALSE(wrapper->rmxStateSm());
}

// All VTIs that go at once are let go at once.
TEST_F(WrapperTest, AllVtisThatGoAtOnceAreLetGoAtOnce) {
  givenVti("Vxlan1");
  givenVti("Vxlan2");
  startWrapper();
  const auto gone = vtiStatus("Vxlan2");
  Kel::ActivityLoop::instance().asHandler([&] {
    handles.vtiStatusDir->vtiStatusDelAll();
    EXPECT_EQ(gone->reactors(), 0U);
  });
}

// Another directory of VTIs decides the mode in the place of the old one; without one there is no client
// mode.
TEST_F(WrapperTest, AnotherDirectoryOfVtisIsFollowed) {
  givenVti("Vxlan1", {.client = false});
  controllerConverges(true);
  startWrapper();
  const auto other = Kel::make<Vxlan::VtiStatusDir>();
  const auto status = Kel::make<Vxlan::VtiStatus>(vti("Vxlan1"));
  status->controllerClientModeIs(true);
  other->vtiStatusIs(status);
  wrapper->vtiStatusDirIs(other);
  EXPECT_TRUE(viewConverges());
  EXPECT_EQ(vtiStatus("Vxlan1")->reactors(), 0U);
  wrapper->vtiStatusDirDel();
  EXPECT_EQ(other->reactors(), 0U);
  EXPECT_EQ(status->reactors(), 0U);
  EXPECT_FALSE(wrapper->vxlanControllerClientMode());
  wrapper->handleRmxStateBaseDir();
  EXPECT_FALSE(viewConverges());
  wrapper->vtiStatusDirIs(nullptr);
  EXPECT_FALSE(wrapper->vxlanControllerClientMode());
}

// Another directory of the controller's state is followed as if its entries had just come.
TEST_F(WrapperTest, AnotherDirectoryOfStatesIsFollowed) {
  givenVti("Vxlan1");
  startWrapper();
  const auto other = Kel::make<Kel::Dir>();
  const auto state = Kel::make<VxlanController::RmxStateV2>();
  state->convergenceInProgressIs(true);
  other->entityPtrIs(Name("controller"), state);
  wrapper->rmxStateBaseDirIs(other);
  EXPECT_TRUE(viewConverges());
  EXPECT_EQ(handles.rmxStateBaseDir->reactors(), 0U);
  wrapper->rmxStateBaseDirDel();
  EXPECT_EQ(other->reactors(), 0U);
  other->entryDel(Name("controller"));
  EXPECT_TRUE(viewConverges()) << "nobody hears of it";
}

// Destroyed, it leaves no open window behind, and nothing follows it any more.
TEST_F(WrapperTest, DestroyedItClosesTheWindow) {
  givenVti("Vxlan1");
  controllerConverges(true);
  startWrapper();
  wrapper = nullptr;
  EXPECT_FALSE(viewConverges());
  EXPECT_EQ(handles.vtiStatusDir->reactors(), 0U);
  EXPECT_EQ(handles.rmxStateBaseDir->reactors(), 0U);
  EXPECT_EQ(vtiStatus("Vxlan1")->reactors(), 0U);
}

// A second state entity is refused: the wrapper keeps one machine, the one it has.
TEST_F(WrapperTest, ASecondStateEntityIsRefused) {
  givenVti("Vxlan1");
  controllerConverges(true);
  startWrapper();
  const auto machine = wrapper->rmxStateSm();
  EXPECT_THAT(
      refusal([&] {
        handles.rmxStateBaseDir->entityPtrIs(Name("second"), Kel::make<VxlanController::RmxStateV2>());
      }),
      testing::StartsWith("Reinstantiating the pointer interface where constructor parameter attribute "
                          "_rmxState has a different value of "));
  EXPECT_EQ(wrapper->rmxStateSm(), machine);
  EXPECT_TRUE(viewConverges());
}

// With equal arguments the machine that exists is kept, and echoes nothing.
TEST_F(WrapperTest, EqualArgumentsKeepTheMachine) {
  givenVti("Vxlan1");
  controllerConverges(true);
  startWrapper();
  const auto machine = wrapper->rmxStateSm();
  traceFromNow();
  wrapper->rmxStateSmIs(machine->rmxState(), handles.rmxStateClientView);
  EXPECT_EQ(wrapper->rmxStateSm(), machine);
  EXPECT_EQ(tracedLines("RmxStateSm::handleConvergenceInProgress"), 0U);
}

// Null inputs are survived: there is nothing to echo, or nothing to echo into.
TEST_F(WrapperTest, NullInputsAreSurvived) {
  givenVti("Vxlan1");
  controllerConverges(true);
  const auto without = [&](const auto& dir, const auto& states, const auto& view) {
    const auto machine = Vxlan::rmxStateSmWrapperFactory(dir, states, view);
    vtiStatus("Vxlan1")->controllerClientModeIs(false);
    vtiStatus("Vxlan1")->controllerClientModeIs(true);
    controllerConverges(false);
    controllerConverges(true);
    return static_cast<bool>(machine->rmxStateSm());
  };
  const Ptr<const Vxlan::VtiStatusDir> noVtis;
  const Ptr<const Kel::Dir> noStates;
  const Ptr<VxlanController::RmxStateClientViewV2> noView;
  EXPECT_FALSE(without(noVtis, handles.rmxStateBaseDir, handles.rmxStateClientView));
  EXPECT_FALSE(without(handles.vtiStatusDir, noStates, handles.rmxStateClientView));
  EXPECT_TRUE(without(handles.vtiStatusDir, handles.rmxStateBaseDir, noView));
  EXPECT_FALSE(viewConverges());
}

}  // namespace

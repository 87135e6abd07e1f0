// The smallest program on the library: follows the controller's state and shows what the switch echoes, with
// nothing else of the client. Prints one line for each change, and ends with 0 when all was as it should be.
#include <iostream>

#include "Vxlan/VxlanControllerSm.h"

namespace {

// Prints the switch's view whenever it changes.
class Printer final : public Kel::Follows<VxlanController::RmxStateClientViewV2> {
 public:
  void onConvergenceInProgress() override {
    std::cout << "the switch's view: " << (notifier()->convergenceInProgress() ? "converging" : "converged")
              << '\n';
  }
};

}  // namespace

int main() {
  const auto vtis = Kel::make<Vxlan::VtiStatusDir>();
  const auto states = Kel::make<Kel::Dir>();
  const auto view = Kel::make<VxlanController::RmxStateClientViewV2>();
  const auto printer = Kel::make<Printer>();
  printer->notifierIs(view);

  // The wrapper keeps the echo while the controller's state is there and some VTI asks for the controller.
  auto wrapper = Vxlan::rmxStateSmWrapperFactory(vtis, states, view);

  const auto state = Kel::make<VxlanController::RmxStateV2>();
  state->convergenceInProgressIs(true);
  states->entityPtrIs(Kel::Name("controller"), state);
  const bool silentWithoutVti = !view->convergenceInProgress();

  const auto vti = Kel::make<Vxlan::VtiStatus>(Qnet::IntfId("Vxlan1"));
  vti->controllerClientModeIs(true);
  vtis->vtiStatusIs(vti);
  const bool echoes = view->convergenceInProgress();

  // When the wrapper goes, it closes the window that it opened: no reader is left waiting.
  wrapper = nullptr;
  const bool closed = !view->convergenceInProgress();

  printer->notifierIs(nullptr);
  return silentWithoutVti && echoes && closed ? 0 : 1;
}

// Somebody else's program: knows the installed headers, links the installed library. A VTI's status changes
// hands across the library's border, and a reactor of ours hears of it.

#include <iostream>
#include <string>

#include "everything.h"

namespace {

class Listener final : public Kel::Follows<Vxlan::VtiStatus> {
 public:
  int heard = 0;

 private:
  void onControllerClientMode() override { ++heard; }
};

}  // namespace

int main() {
  const Kel::Ptr<Vxlan::VtiStatus> vti(new Vxlan::VtiStatus(Qnet::IntfId("Vxlan1")));
  const Kel::Ptr<Listener> listener(new Listener);
  listener->notifierIs(vti);
  const int whenBound = listener->heard;
  vti->controllerClientModeIs(true);
  std::cout << vti->typeName() << ": heard " << listener->heard - whenBound << " change\n";
  return listener->heard - whenBound == 1 ? 0 : 1;
}

// State machines.
#pragma once

#include <functional>

#include "Kel/Export.h"
#include "Kel/Ptr.h"
#include "Kel/TypeRegistry.h"

namespace Kel {

class Part;

// A machine that follows entities through its reactors, writes others, and owns children. It consists of
// parts (Own, Held, Input, Reactors, Followed, Child, Children), each declared as one member and known to the
// machine by name, so that switching notification on and off and marking as a zombie reach every reactor and
// child, and generic tools can print the machine.
//
// A machine is made by `live` (or by the shadow mutator of its owner): constructed inactive, so that nothing
// is called back while it is being built, then activated. Its constructor does the first evaluation itself.
// It is destroyed when the last Ptr goes; its owner marks it as a zombie first.
class KEL_API StateMachine : public Referenced {
 public:
  // Switches the delivery of callbacks on or off, for all its reactors and children. Setting the current
  // value is a no-op.
  virtual void hasNotificationActiveIs(bool active);
  // Its type.
  virtual const TypeNode& fwkType() const = 0;
  virtual ~StateMachine();

  bool hasNotificationActive() const noexcept { return active_; }

  // Marks it, its reactors and its children as being deleted (or no longer so): while marked, callbacks are
  // dropped. Setting the current value is a no-op.
  void kelDoZombieReactors(bool zombie);
  bool zombie() const noexcept { return zombie_; }

  // The parts, in the order of their declaration.
  void eachPart(const std::function<void(const Part&)>& call) const;

 protected:
  StateMachine() = default;

 private:
  friend class Part;

  Part* first_ = nullptr;
  Part* last_ = nullptr;
  bool active_ = false;
  bool zombie_ = false;
};

}  // namespace Kel

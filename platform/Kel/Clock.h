// Timers of the activity loop.
#pragma once

#include <limits>

#include "Kel/Entity.h"

namespace Kel {

// A timer. It is armed for a time, fires once when that time has come, and is then parked until it is armed
// again. It fires only on a turn of the activity loop and only when no notification is pending; armed for now
// or earlier inside a handler, it fires on the next turn.
class KEL_API Clock final : public Entity {
 public:
  struct Reactor : Kel::Reactor {
    virtual void onTime() {}
  };

  Clock() = default;
  ~Clock() override;

  // When it fires at the earliest, in seconds of Kel::System::currentTime(); plus infinity while it is
  // parked.
  double timeMin() const noexcept { return timeMin_; }
  // Arms it for this time, or parks it with plus infinity.
  void timeMinIs(double time) { ActivityLoop::instance().arm(*this, time); }

  const char* typeName() const override { return "Kel::Clock"; }
  void attributes(Attributes& list) const override;

 private:
  friend class ActivityLoop;

  // Binding a clock to an active reactor counts as its time: that is how a new clock makes its owner look
  // around.
  class Time final : public AttributeBase {
   public:
    explicit Time(const Clock& clock) : AttributeBase(clock), clock_(clock) {}
    void countAsChanged(Kel::Reactor& reactor) const override {
      Callback<&Reactor::onTime>::queue(reactor, reactor.binding());
    }
    std::size_t values() const override { return 1; }
    void each(const EachValue& call) const override { call("", printed(clock_.timeMin()), nullptr); }

   private:
    const Clock& clock_;
  };

  void fire() {
    ActivityLoop::instance().park(*this);
    Callback<&Reactor::onTime>::notify(*this);
  }

  double timeMin_ = std::numeric_limits<double>::infinity();
  std::uint64_t arming_ = 0;
  Time time_{*this};
};

// Where clocks come from.
class KEL_API ActivityFacility {
 public:
  // A new clock of the activity loop, parked.
  static Ptr<Clock> clock();
};

}  // namespace Kel

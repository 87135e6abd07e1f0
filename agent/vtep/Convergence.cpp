#include "agent/vtep/Convergence.h"

#include <algorithm>

namespace Agent::Vtep {

std::string_view nameOf(Convergence::Cause cause) {
  switch (cause) {
    case Convergence::Cause::session:
      return "session";
    case Convergence::Cause::flag:
      return "flag";
    case Convergence::Cause::leave:
      return "leave";
  }
  return "";
}

void Convergence::optionsAre(Options options) {
  options_ = options;
  if (latest_ < std::numeric_limits<double>::infinity()) {
    latest_ = since_ + options_.most;
  }
}

void Convergence::await() {
  inProgress_ = true;
  cause_ = Cause::session;
  conditions_[static_cast<unsigned>(Cause::session)] = true;
}

void Convergence::begin(Cause cause, double now) {
  inProgress_ = true;
  cause_ = cause;
  since_ = quietSince_ = now;
  latest_ = now + options_.most;
  ++cycles_;
}

void Convergence::conditionIs(Cause cause, bool holds, double now) {
  bool& condition = conditions_[static_cast<unsigned>(cause)];
  if (condition != holds) {
    condition = holds;
    quietSince_ = now;
  }
}

bool Convergence::tick(double now) {
  if (!inProgress_ || now < nextWakeup()) {
    return false;
  }
  inProgress_ = false;
  latest_ = std::numeric_limits<double>::infinity();
  return true;
}

double Convergence::nextWakeup() const {
  if (!inProgress_) {
    return std::numeric_limits<double>::infinity();
  }
  return anyCondition() ? latest_ : std::min(latest_, quietSince_ + options_.quiet);
}

}  // namespace Agent::Vtep

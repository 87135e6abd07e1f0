#pragma once

#include <cstdint>
#include <limits>
#include <string_view>

namespace Agent::Vtep {

// Whether the controller is converging: it publishes its state again, so that missing entries may still
// arrive. Time comes in as an argument, in seconds.
//
// It begins when one of its conditions does:
//   session   the database is there again after it was lost (and at the start, until it is there first);
//   flag      the controller says so in the database;
//   leave     the controller took the tunnel key from every logical switch.
// It ends when no condition is left and nothing has changed for `quiet`, at the latest `most` after it began.
// A condition that outlasts the end has no effect until it is gone and comes back.
class Convergence {
 public:
  enum class Cause : std::uint8_t { session, flag, leave };

  struct Options {
    double quiet = 2.0;
    double most = 120.0;
  };

  explicit Convergence(Options options) : options_(options) {}
  // Other options, also for the convergence that is in progress.
  void optionsAre(Options options);

  // Begins before anything is known; the time that it may last counts from the first begin().
  void await();
  // Begins, or begins again.
  void begin(Cause cause, double now);
  // Records whether the condition holds.
  void conditionIs(Cause cause, bool holds, double now);
  bool condition(Cause cause) const { return conditions_[static_cast<unsigned>(cause)]; }
  // Rows changed.
  void changed(double now) { quietSince_ = now; }
  // Returns whether it ended right now.
  bool tick(double now);
  // When tick() may have something to do; plus infinity if never.
  double nextWakeup() const;

  bool inProgress() const { return inProgress_; }
  // When it began last, in seconds.
  double since() const { return since_; }
  Cause cause() const { return cause_; }
  std::uint64_t cycles() const { return cycles_; }

 private:
  bool anyCondition() const { return conditions_[0] || conditions_[1] || conditions_[2]; }

  Options options_;
  bool inProgress_ = false;
  bool conditions_[3] = {};
  Cause cause_ = Cause::session;
  double since_ = 0;
  double quietSince_ = 0;
  double latest_ = std::numeric_limits<double>::infinity();
  std::uint64_t cycles_ = 0;
};

std::string_view nameOf(Convergence::Cause cause);

}  // namespace Agent::Vtep

// Other programs that change our objects again and again.
#pragma once

#include <cstdint>

#include "agent/kernel/Failures.h"
#include "agent/kernel/Messages.h"
#include "agent/kernel/Options.h"

namespace Agent::Kernel {

// How often another program has changed an object of ours lately.
struct Strife {
  std::uint16_t minute = 0;
  std::uint8_t changes = 0;
  bool lost = false;   // Our entry was reported gone or changed, and has not been looked at since.
  bool waits = false;  // It is put back when its pause in Failures is over.
};

// Changes by other programs are repaired at once: a deleted FDB entry, a flushed table. When the same object
// is changed again within a minute, another program wants it otherwise, and to put it back at once each time
// would be a race that costs both all their time. So the second and later repairs of an object share an
// allowance (a burst, then so many a second), and from the fourth one on the object waits 1 s, 2 s, ... up to
// Options::retryMost as well.
//
// While objects have to wait, and until it has been quiet for a while, a problem of its own says so.
class Contention {
 public:
  Contention(const Options& options, Failures& failures) : options_(options), failures_(failures) {}

  // Asked before an object is put back at `now`, when all reports have been read: whether it has to wait.
  // Counts a change if the object was lost and still `differs` from what is wanted.
  bool holdsBack(const Key& key, Strife& strife, bool differs, Time now);
  // Takes the failure of the object back, except when it waits because of its changes.
  void cleared(const Key& key, const Strife& strife, Time now);
  // Something new is wanted of the object: it waits no longer.
  void wanted(const Key& key, Strife& strife);
  // The pause of the problem is over: nothing has had to wait meanwhile.
  void quiet();
  // The object that had to wait last.
  const Key& last() const { return last_; }

 private:
  void changed(const Key& key, Strife& strife, Time now);
  Time pauseOf(const Strife& strife, Time now);
  bool waits(const Key& key, const Strife& strife, Time now) const;

  const Options& options_;
  Failures& failures_;
  Time spent_{};  // When the allowance will be whole again.
  Key last_{};
};

}  // namespace Agent::Kernel

#include "agent/kernel/Contention.h"

#include <algorithm>
#include <limits>
#include <string>
#include <utility>

namespace Agent::Kernel {

namespace {

constexpr Time minute = std::chrono::minutes(1);
const Key problemKey{Key::Kind::contention, 0, 0};

}  // namespace

bool Contention::holdsBack(const Key& key, Strife& strife, bool differs, Time now) {
  if (waits(key, strife, now)) {
    return true;
  }
  const bool due = std::exchange(strife.waits, false);
  if (std::exchange(strife.lost, false) && differs && !due) {
    changed(key, strife, now);
  }
  return strife.waits;
}

void Contention::changed(const Key& key, Strife& strife, Time now) {
  const auto at = static_cast<std::uint16_t>(now / minute);
  if (static_cast<std::int16_t>(at - strife.minute) > 1) {
    strife.changes = 0;
  }
  if (strife.changes < std::numeric_limits<std::uint8_t>::max()) {
    ++strife.changes;
  }
  const Time pause = pauseOf(strife, now);
  strife.minute = static_cast<std::uint16_t>((now + pause) / minute);
  if (pause == Time{}) {
    return;
  }
  strife.waits = true;
  last_ = key;
  failures_.waits(key, now, pause,
                  "somebody else has changed it " + std::to_string(strife.changes) +
                      " times lately: it is put back after a pause");
  failures_.waits(
      problemKey, now, options_.contendedQuiet,
      "somebody else changes what this agent keeps there, again and again: what is changed repeatedly is "
      "put back at most " +
          std::to_string(options_.contendedPerSecond) + " times a second");
}

// The first change costs nothing; the others share the allowance, and from some number on the object has its
// own.
Time Contention::pauseOf(const Strife& strife, Time now) {
  if (strife.changes <= 1) {
    return {};
  }
  const Time step = Time{std::chrono::seconds(1)} / options_.contendedPerSecond;
  spent_ = std::max(spent_, now) + step;
  const Time shared = std::max(Time{}, spent_ - now - options_.contendedBurst * step);
  if (strife.changes <= options_.contendedAtOnce) {
    return shared;
  }
  Time own = options_.contendedFirst;
  for (unsigned n = options_.contendedAtOnce + 1; n < strife.changes && own < options_.retryMost; ++n) {
    own *= 2;
  }
  return std::max(shared, std::min(own, options_.retryMost));
}

bool Contention::waits(const Key& key, const Strife& strife, Time now) const {
  return strife.waits && failures_.pausing(key, now);
}

void Contention::cleared(const Key& key, const Strife& strife, Time now) {
  if (!waits(key, strife, now)) {
    failures_.cleared(key);
  }
}

void Contention::wanted(const Key& key, Strife& strife) {
  if (std::exchange(strife.waits, false)) {
    failures_.cleared(key);
  }
}

void Contention::quiet() {
  failures_.cleared(problemKey);
}

}  // namespace Agent::Kernel

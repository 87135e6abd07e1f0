// Conditional tracing: formatted lines by facility and level, off unless asked for.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>

#include "Kel/Export.h"

namespace Kel {

// A named source of trace lines with the levels 0 to 9, each on or off. Facilities are constants of the
// program; they register themselves, and take their levels from the environment variable KEL_TRACE, a list
// such as "VxlanController=8,6-7;Memtab=*", or from traceLevelsIs.
class KEL_API TraceFacility {
 public:
  explicit TraceFacility(const char* name);
  TraceFacility(const TraceFacility&) = delete;
  TraceFacility& operator=(const TraceFacility&) = delete;

  const char* name() const noexcept { return name_; }
  bool enabled(unsigned level) const noexcept { return (levels_ >> level & 1U) != 0; }

 private:
  friend void traceLevelsIs(std::string_view setting);
  const char* name_;
  std::uint32_t levels_ = 0;
};

// Sets the levels of every facility from a text in the form of KEL_TRACE; "*" stands for all
// facilities, or all levels. A text that is not of this form is refused with std::invalid_argument, which
// says where.
KEL_API void traceLevelsIs(std::string_view setting);
// Where the lines go; standard error by default. Null restores that.
KEL_API void traceSinkIs(std::function<void(std::string_view line)> sink);

// One trace line, being written. Off, it costs a load and a branch:
//
//     if (auto trace = Kel::TraceHelper::createIfEnabled(facility, 8)) { trace << " vlanId " << vlan; }
class TraceHelper {
 public:
  static TraceHelper createIfEnabled(const TraceFacility& facility, unsigned level) {
    return facility.enabled(level) ? TraceHelper(facility, level) : TraceHelper();
  }
  TraceHelper(TraceHelper&&) = default;
  TraceHelper& operator=(TraceHelper&&) = delete;
  ~TraceHelper() {
    if (line_ != nullptr) [[unlikely]] {
      write();
    }
  }

  explicit operator bool() const noexcept { return line_ != nullptr; }
  template <class T>
  TraceHelper& operator<<(const T& piece) {
    *line_ << piece;
    return *this;
  }

 private:
  TraceHelper() = default;
  KEL_API TraceHelper(const TraceFacility& facility, unsigned level);
  KEL_API void write() const;

  std::unique_ptr<std::ostringstream> line_;
};

}  // namespace Kel

#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>

namespace Vxlanctl {

struct Request;

// Prints the flight recorder that the agent left in a file, also after it was killed: a line a record with
// time, level and message, in the order of time, of the levels and with the text that `request` asks for.
// Returns how many. Raises RingLog::TraceError and std::system_error for a file that cannot be read,
// std::invalid_argument for levels that are none.
std::uint64_t printTrace(const Request& request, std::ostream& out);

// Nanoseconds since 1970-01-01 UTC as 2026-01-31T23:59:59.123456Z.
std::string traceTime(std::int64_t nanoseconds);

}  // namespace Vxlanctl

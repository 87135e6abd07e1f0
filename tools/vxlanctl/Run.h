#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace Vxlanctl {

// The exit codes that scripts rely on.
enum ExitCode : int {
  done = 0,
  negative = 1,     // nothing matches, the host is not published, nothing is at that pointer
  refused = 2,      // wrong usage, a file that cannot be read, or the agent refused
  unreachable = 3,  // no agent, or no table in shared memory
};

// Runs vxlanctl with these arguments (without the program's name). `in` is what "patch -" reads. Messages
// about what went wrong go to `err`, each begun with "vxlanctl: ".
ExitCode run(const std::vector<std::string>& arguments, std::istream& in, std::ostream& out,
             std::ostream& err);

}  // namespace Vxlanctl

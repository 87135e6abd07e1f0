#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace Vxlanctl {

// A bash script that completes the commands and options of `app`, made from them, so that it cannot fall
// behind.
std::string bashCompletion(const CLI::App& app);

}  // namespace Vxlanctl

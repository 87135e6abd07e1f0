// `vxlan-agent replay`: its command line.
#pragma once

#include <CLI/CLI.hpp>

namespace Agent {

// Adds the subcommand to the program's command line; when it was chosen, `exitCode` is set: 0 all well, 1 an
// expectation failed, 2 a file that cannot be read or a line that was refused.
void addReplayCommand(CLI::App& app, int& exitCode);

}  // namespace Agent

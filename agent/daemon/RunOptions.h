// `vxlan-agent run`: its options, from the command line and the configuration file.
#pragma once

#include <CLI/CLI.hpp>
#include <memory>
#include <string>
#include <vector>

#include "agent/kernel/Options.h"
#include "service/control/Defaults.h"

namespace Agent {

// The options of `run`. Every member is an option of the same name; vxlan-agent.conf(5) explains them.
struct RunOptions {
  std::vector<std::string> ovsdb;  // remotes; none: no controller database
  std::string switchName;
  std::string vti = "Vxlan1";
  std::string untaggedVlans = "4000-4094";
  std::string ovsdbKey;
  std::string ovsdbCert;
  std::string ovsdbCa;
  std::size_t maxMessage = 512;  // MiB
  double convergeQuiet = 2;
  double convergeMax = 120;
  bool kernel = false;
  std::string kernelLockDir = Kernel::Options().lockFolder;
  std::vector<std::string> ports;  // VLAN:INTERFACE, to enslave
  std::string table = Defaults::hostTable;
  std::string tableOwner;  // whose table is adopted, beside root's and the own user's
  std::size_t tableLimit = std::size_t{1} << 20;
  std::string metrics;
  std::string socket = Defaults::socketPath;
  std::string socketGroup;
  bool socketReadAll = false;
  std::string traceDir;
  std::string record;
};

// The names of the options in which two readings differ: those that can change while the agent runs, or those
// that cannot.
enum class Changeable { atRunTime, atTheNextStart };
std::vector<std::string> differences(const RunOptions& one, const RunOptions& other, Changeable which);

// Adds the subcommand `run` to the program's command line; it fills `options`.
CLI::App* addRunCommand(CLI::App& app, RunOptions& options);

// Reads the same command line, and the configuration file it names, once more. Raises CLI::Error.
RunOptions readAgain(const std::vector<std::string>& arguments);

// Runs the daemon until it is told to end; returns the exit code. `arguments` are those of the program, to
// read the configuration again.
int runDaemon(const RunOptions& options, const std::vector<std::string>& arguments);

}  // namespace Agent

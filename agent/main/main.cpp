// vxlan-agent: a switch's VXLAN agent around the controller client.
#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "agent/daemon/RunOptions.h"
#include "agent/replay/ReplayCommand.h"

int main(int argc, char** argv) {
  try {
    CLI::App app(
        "A switch's VXLAN agent: takes what a VXLAN controller publishes, and turns it into forwarding "
        "state");
    app.require_subcommand(1);
    app.set_config("--config", "", "Read options of run from this file");
    app.allow_config_extras(false);
    int exitCode = 0;
    Agent::addReplayCommand(app, exitCode);
    Agent::RunOptions options;
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    const CLI::App* run = Agent::addRunCommand(app, options);
    try {
      app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
      return app.exit(error) == 0 ? 0 : 2;
    }
    // Not as a callback of the command line, which a configuration file with the section [run] would call
    // twice.
    return run->parsed() ? Agent::runDaemon(options, arguments) : exitCode;
  } catch (const std::exception& error) {
    std::cerr << "vxlan-agent: " << error.what() << '\n';
    return 2;
  }
}

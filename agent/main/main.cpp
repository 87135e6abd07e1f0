// vxlan-agent: a switch's VXLAN agent around the controller client.
#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>

#include "agent/replay/ReplayCommand.h"

int main(int argc, char** argv) {
  CLI::App app(
      "A switch's VXLAN agent: takes what a VXLAN controller publishes, and turns it into forwarding state");
  app.require_subcommand(1);
  int exitCode = 0;
  Agent::addReplayCommand(app, exitCode);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;
  } catch (const std::exception& error) {
    std::cerr << "vxlan-agent: " << error.what() << '\n';
    return 2;
  }
  return exitCode;
}

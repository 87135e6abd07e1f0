#pragma once

#include <CLI/CLI.hpp>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace Vxlanctl {

// The request of a command line.
struct Request {
  std::string socket;
  std::string table;
  std::string tableOwner;
  std::string command;  // "show", "explain", ...
  bool json = false;

  std::string what;                            // of show: "hosts", "floods", ...
  std::map<std::string, std::string> filters;  // of show: member of a row and its text
  bool received = false;                       // of show hosts: what the agent has received, not the table

  std::string mac;                    // of explain
  std::optional<std::uint32_t> vlan;  // of explain
  std::optional<std::uint32_t> vni;   // of explain, and of show hosts

  std::string pointer;      // of watch and dump
  std::uint64_t count = 0;  // of watch: updates to wait for, 0 is for ever

  std::string file;    // of patch and trace
  std::string levels;  // of trace
  std::string grep;    // of trace
  std::uint64_t last = 0;
};

// The command line as CLI11 knows it; parsing it fills `request`, which outlives it.
std::unique_ptr<CLI::App> commandLine(Request& request);

}  // namespace Vxlanctl

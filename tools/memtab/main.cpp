// memtab: looks into tables in shared memory.

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string>

#include "Follower.h"
#include "Memtab/BusError.h"
#include "Memtab/Error.h"
#include "Printer.h"
#include "Source.h"

namespace {

constexpr int success = 0;
constexpr int failure = 2;

constexpr const char* about =
    "Looks into tables in shared memory, while they are written and after.\n"
    "It reads without locks and never disturbs the writer.";

constexpr const char* details =
    "NAME is that of a shared memory object, with or without the leading slash, or the path of a file.\n"
    "\n"
    "A table is read only if it belongs to root, to you, or to the user of --table-owner, and nobody else\n"
    "may write to it: anybody can make a table of that name.\n"
    "\n"
    "Records are printed with the field names that the table describes itself with, else as bytes.\n"
    "\n"
    "follow prints the present records, then each change as it is published:\n"
    "  + RECORD             {\"event\":\"is\",...}       added or replaced\n"
    "  - KEY                {\"event\":\"del\",...}      deleted\n"
    "  = N records, ...     {\"event\":\"complete\",...} all records were printed since the last line of "
    "this\n"
    "                                              kind, or since the beginning; others do not exist\n"
    "\n"
    "Exit status: 0 success; 2 wrong usage, no such table, or one that cannot be read.\n"
    "\n"
    "Examples:\n"
    "  memtab info vxlan-l2rib-hosts\n"
    "  memtab dump vxlan-l2rib-hosts --json | jq '.[] | select(.vlan == 100)'\n"
    "  memtab follow vxlan-l2rib-hosts";

// Whose tables are read, beside root's and the own user's, unless the command line says otherwise.
constexpr const char* usualOwner = "vxlan-agent";

struct Request {
  std::string name;
  std::string owner;
  bool json = false;
  int intervalMs = 100;
  std::uint64_t count = 0;
};

Source sourceOf(const Request& request) {
  const std::optional<uid_t> owner = Files::userOf(request.owner.empty() ? usualOwner : request.owner);
  if (!owner && !request.owner.empty()) {
    throw std::invalid_argument("memtab: there is no user \"" + request.owner + "\"");
  }
  return Source(request.name, Files::Owners(owner));
}

void info(const Request& request) {
  Source source = sourceOf(request);
  const nlohmann::ordered_json all = infoOf(source);
  if (request.json) {
    fmt::print("{}\n", all.dump(2));
    return;
  }
  for (const auto& [name, value] : all.items()) {
    fmt::print("{:18} {}\n", name, value.is_string() ? value.get<std::string>() : line(value));
  }
}

void dump(const Request& request) {
  Source source = sourceOf(request);
  bool first = true;
  source.walk([&] {
    if (request.json) {
      fmt::print("{}{}", first ? "[\n" : ",\n", line(toJson(source, false)));
    } else {
      fmt::print("{}\n", toText(source, false));
    }
    first = false;
  });
  if (request.json) {
    fmt::print("{}]\n", first ? "[" : "\n");
  }
}

void follow(const Request& request) {
  Source source = sourceOf(request);
  if (source.segmentIfAny() == nullptr) {
    fmt::print(stderr, "memtab {}: there is no such table yet, waiting for it\n", source.name());
  }
  Follower::Settings settings;
  settings.json = request.json;
  settings.interval = std::chrono::milliseconds(request.intervalMs);
  if (request.count != 0) {
    settings.count = request.count;
  }
  Follower(source, settings).run();
}

void remove(const Request& request) {
  const std::string name = fullName(request.name);  // without a look at it: it may be damaged or a stranger's
  if (!Memtab::remove(name)) {
    throw Memtab::Error(name, "there is no such table");
  }
}

void addCommands(CLI::App& app, Request& request) {
  const auto add = [&](const char* name, const char* what, void (*run)(const Request&)) {
    CLI::App* command = app.add_subcommand(name, what);
    command->add_option("NAME", request.name, "The table")->required();
    command->callback([run, &request] { run(request); });
    return command;
  };
  const auto addJson = [&](CLI::App* command) {
    command->add_flag("--json", request.json, "JSON instead of text");
  };
  app.add_option("--table-owner", request.owner,
                 "Read the table of this user, too, not only of root and yourself; default: vxlan-agent");
  addJson(add("info", "Prints what there is to know besides the records", info));
  addJson(add("dump", "Prints all records, in the order of memory", dump));
  CLI::App* following = add("follow", "Prints all records, then what changes", follow);
  addJson(following);
  following->add_option("--interval", request.intervalMs, "Milliseconds between two looks")
      ->check(CLI::Range(1, 60'000))
      ->capture_default_str();
  following->add_option("--count", request.count, "End after so many records and changes")
      ->check(CLI::PositiveNumber);
  add("remove", "Takes the table away; its writer must have ended", remove);
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app(about, "memtab");
  app.footer(details);
  app.require_subcommand(1);
  app.fallthrough();
  Memtab::endOnTruncation("memtab");
  Request request;
  addCommands(app, request);
  try {
    app.parse(argc, argv);
    if (std::fflush(stdout) != 0) {
      fmt::print(stderr, "memtab: standard output cannot be written\n");
      return failure;
    }
    return success;
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? success : failure;
  } catch (const std::exception& error) {
    static_cast<void>(std::fflush(stdout));
    fmt::print(stderr, "{}\n", error.what());
    return failure;
  }
}

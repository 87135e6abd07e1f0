#include "agent/replay/ReplayCommand.h"

#include <unistd.h>

#include <fstream>
#include <iomanip>
#include <iostream>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "agent/replay/Replay.h"
#include "agent/state/ReplayTables.h"

namespace Agent {
namespace {

struct Options {
  std::vector<std::string> files;
  bool keepGoing = false;
};

void sumUp(const ReplayResult& total) {
  std::cerr << std::setprecision(std::numeric_limits<double>::digits10) << "lines " << total.lines
            << ", patches " << total.patches << ", expectations passed " << total.passed << ", failed "
            << total.failed << ", virtual seconds " << total.seconds << '\n';
}

void add(ReplayResult& total, const ReplayResult& one) {
  total.lines += one.lines;
  total.patches += one.patches;
  total.passed += one.passed;
  total.failed += one.failed;
  total.refused += one.refused;
  total.seconds += one.seconds;
}

// Runs one file; false if it cannot be read.
bool runFile(const std::string& file, const Options& options, ReplayResult& total) {
  const Replay::Streams streams{std::cout, std::cerr, ::isatty(STDERR_FILENO) == 1};
  std::ifstream opened;
  if (file != "-") {
    opened.open(file);
    if (!opened || opened.peek() == std::ifstream::traits_type::eof()) {
      std::error_code why(errno, std::generic_category());
      if (!opened.is_open() || (opened.bad() && why)) {
        std::cerr << file << ": cannot be read: " << why.message() << '\n';
        return false;
      }
      opened.clear();
    }
  }
  std::istream& journal = file == "-" ? std::cin : opened;
  Replay replay(file, streams, options.keepGoing);
  add(total, replay.run(journal));
  if (journal.bad()) {
    std::cerr << file << ": cannot be read to its end\n";
    return false;
  }
  return true;
}

int run(const Options& options) {
  L2Rib::HostInput::endOnTruncation("vxlan-agent");
  removeTablesOfDeadReplays();
  ReplayResult total;
  bool unreadable = false;
  for (const std::string& file : options.files) {
    unreadable = !runFile(file, options, total) || unreadable;
    if ((unreadable || total.refused != 0) && !options.keepGoing) {
      break;
    }
  }
  sumUp(total);
  if (unreadable || total.refused != 0) {
    return 2;
  }
  return total.failed != 0 ? 1 : 0;
}

}  // namespace

void addReplayCommand(CLI::App& app, int& exitCode) {
  const auto options = std::make_shared<Options>();
  CLI::App* command = app.add_subcommand("replay", "Run journals in virtual time and check what they expect");
  command->add_option("FILE", options->files, "Journals, JSON Lines; - is standard input")->required();
  command->add_flag("--keep-going", options->keepGoing, "Go on past lines that are refused, and end with 2");
  command->callback([options, &exitCode] { exitCode = run(*options); });
}

}  // namespace Agent

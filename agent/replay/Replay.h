// Running a journal: the agent's inputs and expectations, line by line, in virtual time.
#pragma once

#include <cstdint>
#include <functional>
#include <istream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <string>

#include "Kel/System.h"
#include "agent/state/OutputDocument.h"
#include "agent/state/World.h"

namespace Agent {

// How a replay went.
struct ReplayResult {
  std::uint64_t lines = 0;
  std::uint64_t patches = 0;
  std::uint64_t passed = 0;  // expectations
  std::uint64_t failed = 0;
  std::uint64_t refused = 0;  // lines that were not carried out
  double seconds = 0;         // of virtual time
};

// One run of one journal. Virtual time begins at 0 and moves only as the journal says. The client is built,
// from the shared library, before the first line. A line's members are carried out in the order of the
// contract: tickPerRead, maxProcessTime, patch, restart, advance, turns, expect, dump.
class Replay {
 public:
  struct Streams {
    std::ostream& out;      // dumps
    std::ostream& errors;   // one line for each line that fails
    bool progress = false;  // a progress line on errors now and then
  };

  // `name` is what the journal is called in messages.
  Replay(std::string name, const Streams& streams, bool keepGoing);
  ~Replay();
  Replay(const Replay&) = delete;
  Replay& operator=(const Replay&) = delete;

  // Runs the journal to its end, or, unless `keepGoing`, to the first line that is refused.
  ReplayResult run(std::istream& journal);

 private:
  // One line, checked in its form; what is not there is not done.
  struct Line {
    std::optional<double> tickPerRead;
    std::optional<double> maxProcessTime;
    const nlohmann::json* patch = nullptr;
    bool restart = false;
    std::optional<double> advance;
    std::optional<std::uint64_t> turns;
    const nlohmann::json* expect = nullptr;
    const nlohmann::json* dump = nullptr;
  };

  // Reports what is wrong with the line that is being carried out.
  void complain(const std::string& what);
  bool runLine(const std::string& text);
  static Line read(const nlohmann::json& line);
  void carryOut(const Line& line);
  void patch(const nlohmann::json& patch);
  void advance(double seconds);
  void runTurns(std::uint64_t turns);
  void runUntilIdle();
  void expect(const nlohmann::json& expected);
  void dump(const nlohmann::json& what);
  void showProgress();

  std::string name_;
  Streams streams_;
  bool keepGoing_;
  std::string table_;
  Kel::SimulatedTime time_;
  double tickPerRead_ = 0;
  std::unique_ptr<World> world_;
  std::unique_ptr<OutputDocument> output_;
  ReplayResult result_;
  std::uint64_t lineNumber_ = 0;
};

}  // namespace Agent

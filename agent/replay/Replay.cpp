#include "agent/replay/Replay.h"

#include <sstream>

#include "Kel/Activity.h"
#include "Kel/Error.h"
#include "Kel/HashIndex.h"
#include "Memtab/Error.h"
#include "Memtab/Segment.h"
#include "agent/replay/Expectation.h"
#include "agent/state/InputPatch.h"
#include "agent/state/JsonChecks.h"
#include "agent/state/ReplayTables.h"
#include "service/json/Text.h"

namespace Agent {
namespace {

using nlohmann::json;

constexpr std::uint64_t mostTurns = 10'000'000;  // a line that is not idle by then never will be
constexpr std::uint64_t linesPerProgress = 1'000;

// A failure of one line: the kind that the report names, and the rest of the message.
class LineError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A message as one line, whatever the names in it are made of.
std::string oneLine(const std::string& message) {
  std::string line;
  for (const char character : message) {
    if (const auto code = static_cast<unsigned char>(character); code < 0x20 || code == 0x7f) {
      constexpr const char* digits = "0123456789abcdef";
      line += {'\\', 'u', '0', '0', digits[code >> 4], digits[code & 0xf]};
    } else {
      line += character;
    }
  }
  return line;
}

std::string message(const Refused& refused) {
  return oneLine(refused.pointer()) + ": " + refused.reason();
}

double secondsAt(const Place& place, const json& value) {
  if (!value.is_number() || !(value.get<double>() >= 0) || value.get<double>() > 1e15) {
    place.refuse("a number of seconds, 0 or more, was expected, not " + value.dump());
  }
  return value.get<double>();
}

const json& dumpAt(const Place& place, const json& value) {
  if (value.is_string()) {
    try {
      const json::json_pointer pointer(value.get<std::string>());
    } catch (const json::exception&) {
      place.refuse("\"" + value.get<std::string>() + "\" is not a JSON Pointer");
    }
  } else if (value != true) {
    place.refuse("true or a JSON Pointer was expected, not " + value.dump());
  }
  return value;
}

std::uint64_t turnsAt(const Place& place, const json& value) {
  if (!value.is_number_unsigned()) {
    place.refuse("a number of turns, 0 or more, was expected, not " + value.dump());
  }
  return value.get<std::uint64_t>();
}

}  // namespace

Replay::Replay(std::string name, const Streams& streams, bool keepGoing)
    : name_(std::move(name)), streams_(streams), keepGoing_(keepGoing) {
  table_ = replayTable();
  Memtab::remove(table_);
  Kel::System::timeSourceIs(&time_);
  Kel::tableSeedIs(0);  // the same journal, the same work
  L2Rib::HostInput::Options hosts;
  hosts.name = table_;
  hosts.seed = 0;  // the same walk order in each run of a journal
  world_ = std::make_unique<World>(hosts);
  output_ = std::make_unique<OutputDocument>(*world_, table_);
  world_->clientIs();
}

Replay::~Replay() {
  world_->clientDel();
  output_ = nullptr;
  world_ = nullptr;
  Memtab::remove(table_);
  Kel::System::timeSourceIs(nullptr);
}

ReplayResult Replay::run(std::istream& journal) {
  std::string text;
  while (std::getline(journal, text)) {
    ++lineNumber_;
    const std::size_t first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos || text[first] == '#') {
      continue;
    }
    ++result_.lines;
    if (!runLine(text)) {
      ++result_.refused;
      if (!keepGoing_) {
        break;
      }
    }
    if (streams_.progress && result_.lines % linesPerProgress == 0) {
      showProgress();
    }
  }
  if (streams_.progress) {
    streams_.errors << "\r\033[K" << std::flush;
  }
  result_.seconds = time_.peek();
  return result_;
}

void Replay::complain(const std::string& what) {
  streams_.errors << name_ << ':' << lineNumber_ << ": " << oneLine(what) << '\n';
}

// Carries one line out; a line that fails is reported and returns false.
bool Replay::runLine(const std::string& text) {
  const auto report = [&](const std::string& what) {
    complain(what);
    return false;
  };
  try {
    const json line = Service::parseJson(text);
    carryOut(read(line));
    return true;
  } catch (const Service::BadJson& error) {
    return report(error.what());
  } catch (const Refused& refused) {
    return report("line: " + message(refused));
  } catch (const LineError& error) {
    return report(error.what());
  } catch (const std::exception& error) {
    return report("error: " + std::string(error.what()));
  }
}

Replay::Line Replay::read(const json& line) {
  const Place root;
  objectAt(root, line);
  Line read;
  for (auto member = line.begin(); member != line.end(); ++member) {
    const Place at(root, member.key());
    if (member.key() == "tickPerRead") {
      read.tickPerRead = secondsAt(at, *member);
    } else if (member.key() == "maxProcessTime") {
      read.maxProcessTime = secondsAt(at, *member);
    } else if (member.key() == "patch") {
      read.patch = &*member;
    } else if (member.key() == "restart") {
      read.restart = boolAt(at, *member);
    } else if (member.key() == "advance") {
      read.advance = secondsAt(at, *member);
    } else if (member.key() == "turns") {
      read.turns = turnsAt(at, *member);
    } else if (member.key() == "expect") {
      read.expect = &objectAt(at, *member);
    } else if (member.key() == "dump") {
      read.dump = &dumpAt(at, *member);
    } else {
      unknownMember(at);
    }
  }
  return read;
}

void Replay::carryOut(const Line& line) {
  if (line.tickPerRead) {
    tickPerRead_ = *line.tickPerRead;
    time_.tickPerReadIs(tickPerRead_);
  }
  if (line.maxProcessTime) {
    world_->client->maxProcessTimeIs(*line.maxProcessTime);
  }
  if (line.patch != nullptr) {
    patch(*line.patch);
  }
  if (line.restart) {
    world_->clientIs();
  }
  if (line.advance) {
    advance(*line.advance);
  }
  runTurns(line.turns.value_or(mostTurns));
  if (line.expect != nullptr) {
    expect(*line.expect);
  }
  if (line.dump != nullptr) {
    dump(*line.dump);
  }
}

void Replay::patch(const json& patch) {
  try {
    InputPatch(*world_, patch).carryOut();
    ++result_.patches;
  } catch (const Refused& refused) {
    throw LineError("patch: " + message(refused));
  } catch (const Kel::RangeException& error) {
    throw LineError("patch: " + std::string(error.what()));
  } catch (const Kel::NameInUseException& error) {
    throw LineError("patch: " + std::string(error.what()));
  } catch (const Memtab::Error& error) {
    throw LineError("patch: " + std::string(error.what()));
  }
}

// Moves the time on to each clock in turn and fires it when it is due.
void Replay::advance(double seconds) {
  runTurns(mostTurns);  // what is due already may read the time, and so move it: that comes on top
  const double target = time_.peek() + seconds;
  const Kel::ActivityLoop& loop = Kel::ActivityLoop::instance();
  while (loop.nextWakeup() <= target) {
    time_.timeIs(loop.nextWakeup());
    runTurns(mostTurns);
  }
  time_.timeIs(target);
}

// Turns until the loop is idle, this many at most; none needs more than the most.
void Replay::runTurns(std::uint64_t turns) {
  if (turns >= mostTurns) {
    runUntilIdle();
  } else {
    Kel::ActivityLoop::instance().runUntilIdle(turns);
  }
}

// A job of which one read of the time takes as long as its whole budget deletes nothing and comes back at
// once, for ever. The other job looks at a VLAN each time all the same, and so may change nothing for as many
// turns as there are VLANs.
void Replay::runUntilIdle() {
  Kel::ActivityLoop& loop = Kel::ActivityLoop::instance();
  const double budget = world_->client ? world_->client->maxProcessTime() : 0;
  const bool mayStick = world_->client && tickPerRead_ >= budget;
  std::uint64_t unchanged = 0;  // turns, one after the other
  for (std::uint64_t turns = 0; !loop.idle(); ++turns) {
    if (turns == mostTurns) {
      throw LineError("the activity loop is not idle after 10,000,000 turns");
    }
    const std::uint64_t delivered = loop.delivered();
    const std::uint64_t fired = loop.clocksFired();
    loop.turn();
    // A clock that fires is one notification; every change is another one.
    const bool changed = loop.delivered() - delivered > loop.clocksFired() - fired;
    unchanged = changed ? 0 : unchanged + 1;
    if (mayStick && unchanged > world_->floodSets->vlanFloodSets() + 2) {
      std::ostringstream text;
      text << "the activity loop does not go idle: tickPerRead, " << tickPerRead_
           << " s, is not below maxProcessTime, " << budget
           << " s, so that a job comes back without a change";
      throw LineError(text.str());
    }
  }
}

void Replay::expect(const json& expected) {
  const std::size_t differences =
      compare(expected, output_->shapedLike(expected),
              [&](const std::string& pointer, const std::string& want, const std::string& have) {
                complain("expect: " + pointer + ": want " + want + ", have " + have);
              });
  ++(differences == 0 ? result_.passed : result_.failed);
}

void Replay::dump(const json& what) {
  const json part = what.is_string() ? output_->at(what.get<std::string>()) : output_->whole();
  streams_.out << part.dump() << '\n' << std::flush;
}

void Replay::showProgress() {
  streams_.errors << "\r\033[K" << name_ << ": line " << lineNumber_ << ", " << world_->hosts->hosts()
                  << " hosts, " << time_.peek() << " s" << std::flush;
}

}  // namespace Agent

#include "agent/daemon/Recordings.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "service/json/Text.h"

namespace Agent {
namespace {

using nlohmann::json;

constexpr const char* title = "# Inputs of vxlan-agent, recorded; times are seconds since the line before.\n";
constexpr const char* endLine = "# {\"ended\":\"as it was told to\"}\n";

[[noreturn]] void fail(const std::string& path, const std::string& why) {
  throw std::runtime_error("the recording \"" + path + "\" " + why);
}

bool isThere(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0;
}

void moveTo(const std::string& from, const std::string& to) {
  if (std::rename(from.c_str(), to.c_str()) != 0 && errno != ENOENT) {
    fail(from, "cannot be kept as \"" + to + "\": " + std::generic_category().message(errno));
  }
}

// The meaning of the marks of a recording.
struct Left {
  bool hasInputs = false;
  bool endedAsTold = false;
  EarlierRuns earlier{};
};

// The members of a line of marks; null where it is none.
json marksIn(const std::string& line) {
  if (!line.starts_with("# {")) {
    return {};
  }
  try {
    return Service::parseJson(line.substr(2));
  } catch (const Service::BadJson&) {
    return {};
  }
}

void readHeadLine(const std::string& line, EarlierRuns& earlier) {
  const json marks = marksIn(line);
  if (!marks.is_object() || !marks.contains("unexpectedEnds") || !marks.at("unexpectedEnds").is_array()) {
    return;
  }
  for (const json& time : marks.at("unexpectedEnds")) {
    if (time.is_number_integer()) {
      earlier.unexpectedEnds.push_back(time.get<std::int64_t>());
    }
  }
  earlier.loop = marks.contains("loop") && marks.at("loop") == true;
}

// Up to so many bytes from a place in the file on.
std::string readAt(std::ifstream& file, std::streamoff at, std::size_t bytes) {
  std::string text(bytes, '\0');
  file.clear();
  file.seekg(at);
  file.read(text.data(), static_cast<std::streamsize>(bytes));
  text.resize(static_cast<std::size_t>(std::max<std::streamsize>(file.gcount(), 0)));
  return text;
}

Left readMarks(const std::string& path, std::streamoff size) {
  constexpr std::size_t longestHead = 4096;
  Left left;
  std::ifstream file(path, std::ios::binary);
  std::istringstream head(readAt(file, 0, longestHead));
  std::string line;
  while (!left.hasInputs && std::getline(head, line)) {
    readHeadLine(line, left.earlier);
    left.hasInputs = !line.starts_with("#");
  }
  const std::string end = endLine;
  const auto length = static_cast<std::streamoff>(end.size());
  left.endedAsTold = size >= length && readAt(file, size - length, end.size()) == end;
  return left;
}

}  // namespace

std::string RecordingMarks::head(std::int64_t started, const EarlierRuns& earlier) {
  const json marks = {
      {"started", started}, {"unexpectedEnds", earlier.unexpectedEnds}, {"loop", earlier.loop}};
  return title + ("# " + marks.dump() + '\n');
}

std::string RecordingMarks::end() {
  return endLine;
}

EarlierRuns Recordings::makeRoom(std::int64_t now) const {
  struct stat status {};
  if (::lstat(path_.c_str(), &status) != 0) {
    return {};
  }
  if (!S_ISREG(status.st_mode)) {
    fail(path_, "cannot be made: there is something that is not a regular file");
  }
  const Left left = readMarks(path_, status.st_size);
  EarlierRuns earlier;
  if (!left.endedAsTold) {
    earlier.unexpectedEnds = left.earlier.unexpectedEnds;
    earlier.unexpectedEnds.push_back(now);
    std::erase_if(earlier.unexpectedEnds,
                  [&](std::int64_t end) { return end > now || end < now - loopSeconds; });
    earlier.loop = earlier.unexpectedEnds.size() >= loopEnds;
  }
  if (left.hasInputs) {
    if (earlier.loop && !left.earlier.loop) {
      keepFirst();
    }
    shift();
  } else {
    ::unlink(path_.c_str());
  }
  // More of them say no more.
  const std::ptrdiff_t tooMany = std::ssize(earlier.unexpectedEnds) - std::ptrdiff_t{loopEnds};
  if (tooMany > 0) {
    earlier.unexpectedEnds.erase(earlier.unexpectedEnds.begin(), earlier.unexpectedEnds.begin() + tooMany);
  }
  return earlier;
}

// The recording at the path is that of the loop's third end, so that the first is two before it.
void Recordings::keepFirst() const {
  for (int number = static_cast<int>(loopEnds) - 1; number > 0; --number) {
    if (isThere(numbered(number))) {
      moveTo(numbered(number), path_ + ".first");
      return;
    }
  }
}

void Recordings::shift() const {
  for (int number = kept - 1; number > 0; --number) {
    moveTo(numbered(number), numbered(number + 1));
  }
  moveTo(path_, numbered(1));
}

}  // namespace Agent

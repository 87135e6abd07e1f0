// The files of recordings: the present one, and those of earlier runs that are kept.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Agent {

// The facts that count of the runs before one.
struct EarlierRuns {
  std::vector<std::int64_t> unexpectedEnds{};  // of the last ten minutes, seconds since 1970
  bool loop = false;                           // there are enough of them for a crash loop
};

// The first and last lines of a recording, which a replay skips.
struct RecordingMarks {
  // The first lines of a recording that begins at this time, seconds since 1970.
  static std::string head(std::int64_t started, const EarlierRuns& earlier);
  // The last line of one whose agent was told to end.
  static std::string end();
};

// The recordings beside the one at a path: the last three runs that recorded something, as PATH.1, the
// latest, to PATH.3; and, where the agent ends without having been told to again and again, the recording of
// the first of these ends, as PATH.first, which the restarts after it would push out. "Again and again" is
// three times within ten minutes; the PATH.first of one such loop stays until there is another.
class Recordings {
 public:
  static constexpr int kept = 3;
  static constexpr std::size_t loopEnds = 3;
  static constexpr std::int64_t loopSeconds = 600;

  explicit Recordings(std::string path) : path_(std::move(path)) {}

  // Makes room for a new recording that begins at `now` (seconds since 1970): what an earlier run left at the
  // path is kept, or removed if no input is in it. Raises std::runtime_error where something else than a file
  // is at the path, or a file cannot be renamed; the message says which.
  EarlierRuns makeRoom(std::int64_t now) const;

 private:
  std::string numbered(int number) const { return path_ + "." + std::to_string(number); }
  void keepFirst() const;
  void shift() const;

  std::string path_;
};

}  // namespace Agent

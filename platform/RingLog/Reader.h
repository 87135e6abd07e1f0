#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

#include "RingLog/Argument.h"
#include "RingLog/Export.h"

namespace RingLog {

// Why a file is no trace that can be read: foreign, of another version or byte order, truncated, damaged.
class RINGLOG_API TraceError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// An argument of a record. Integers of any width come as 64 bits.
using Value = std::variant<bool, char, std::uint64_t, std::int64_t, double, Pointer, std::string, Mac, Ipv4>;

// As it stands in a message: true, x, 12, -7, 1.5, 0x7ffd10, the text itself, 00:1c:73:00:00:01, 10.0.0.1.
RINGLOG_API std::string toText(const Value& value);

// A piece of a call site's message: fixed text, or the place of an argument of this kind.
struct Piece {
  Kind kind;
  std::string literal;
};

// A call site as the trace describes it.
struct RINGLOG_API Place {
  unsigned level;
  unsigned line;
  std::string function;
  std::string file;
  std::vector<Piece> pieces;

  std::string form() const;  // the message with {} for each argument
};

// One record, read back.
struct RINGLOG_API Record {
  std::int64_t time;    // nanoseconds since 1970-01-01 UTC
  std::uint64_t ticks;  // the tick counter: what records are put in order by
  std::uint64_t block;  // sequence number of its block in the ring of its level
  std::size_t offset;   // its place in that block
  const Place* place;   // in the places of its trace
  std::vector<Value> arguments;

  std::string message() const;  // the pieces one after the other
};

// The header of a trace, and the errors that were found on reading.
struct TraceInfo {
  std::string program;  // name and number of the process that wrote the trace
  std::uint64_t pid = 0;
  std::int64_t opened = 0;  // nanoseconds since 1970-01-01 UTC
  bool closed = false;      // in good order; if not, the process still runs, or was killed
  unsigned levels = 0;
  std::size_t ringBytes = 0;         // of each level
  std::uint64_t droppedRecords = 0;  // not written, because their sites had been refused
  std::uint64_t droppedSites = 0;
  std::size_t tornRecords = 0;    // begun and not finished: the last one of a process that was killed
  std::size_t damagedBlocks = 0;  // blocks of which all or the rest could not be understood
};

// A trace file, or the image of a log in memory, read as it stood at one moment: all records that are still
// in the rings, in the order of time over the levels. A file may be read while it is written; what is
// overwritten meanwhile is left out.
class RINGLOG_API Trace {
 public:
  // image: of a whole trace. Raises TraceError.
  static Trace parse(std::span<const std::byte> image);
  // Raises std::system_error when the file cannot be read, TraceError when it is no readable trace; both
  // begin with the path.
  static Trace read(const std::string& path);

  const TraceInfo& info() const { return info_; }
  // Both belong to the trace, and a record points to its place: so not of one that is about to go.
  const std::vector<Place>& places() const& { return *places_; }  // in the order of their numbers
  const std::vector<Record>& records() const& { return records_; }
  void places() const&& = delete;
  void records() const&& = delete;

 private:
  friend class Follower;
  friend class TraceReader;
  Trace() = default;

  TraceInfo info_;
  std::shared_ptr<const std::vector<Place>> places_;  // shared, so that the records stay valid in a copy
  std::vector<Record> records_;
};

// Reads a trace file again and again while it is written: each poll() gives the records that are new. When
// the file is replaced, because a new process opened its trace, the rest of the old one comes first, then the
// new.
class RINGLOG_API Follower {
 public:
  // Raises as Trace::read() does.
  explicit Follower(std::string path);
  Follower(Follower&&) noexcept;
  Follower& operator=(Follower&&) = delete;
  ~Follower();

  // The result of a poll: a trace with only the new records, and how many blocks of records were overwritten
  // before they could be read.
  struct News {
    Trace trace;
    std::uint64_t lostBlocks = 0;
  };

  // One or two traces (two when the file was replaced), in the order of their time.
  // Raises as Trace::read() does; a file that is gone for the moment is no error.
  std::vector<News> poll();

 private:
  class File;
  News read();

  std::string path_;
  std::unique_ptr<File> file_;
  struct Position {
    std::uint64_t block = 0;
    std::size_t offset = 0;
  };
  std::vector<Position> seen_;  // by level: the last record given
};

}  // namespace RingLog

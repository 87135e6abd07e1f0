#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "RingLog/Argument.h"
#include "RingLog/Export.h"
#include "RingLog/Format.h"
#include "RingLog/Ticks.h"

namespace RingLog {

class Log;

// The threads that may write to a log.
enum class Mode {
  SingleThreaded,  // one thread at a time, and no signal handler
};

// How a log is opened.
struct Options {
  unsigned levels = 10;      // 1 to Format::maxLevels; a site's level is 0 to levels - 1
  std::size_t ringKiB = 33;  // of each level: 2 to Format::maxRingKiB
  Mode mode = Mode::SingleThreaded;
  std::string directory =
      {};  // where the file goes; empty: RINGLOG_DIR of the environment, or else memory only
  std::size_t siteKiB = 256;  // room for the texts of the call sites: 1 to Format::maxSiteKiB
};

namespace detail {

// Where a level's next record goes: the private side of the ring, so that no other process that writes to the
// file can mislead the writer. The content of the file itself is set up by turn().
struct Ring {
  std::byte* cursor = nullptr;  // the next record
  std::byte* limit = nullptr;   // the end of the block
  std::uint32_t baseHigh = 0;   // upper half of the ticks that the block counts from
  std::uint32_t blocks = 0;
  std::uint64_t sequence = 0;    // of the block being written, 0: none yet
  std::byte* first = nullptr;    // the first block
  std::size_t blockBytes = 0;    // known at run time only, and so cleared by the C library, which is faster
  std::uint64_t calibrated = 0;  // the ticks of the last block that has the clock's time too

  // Begins the next block, over the oldest: clears it, then gives it its sequence number and its time.
  RINGLOG_API void turn() noexcept;
};

// The pieces of a call site's message, as the slow path takes them to the site table.
struct Shape {
  std::size_t pieces;
  const Kind* kinds;
  const char* const* literals;  // one per piece, null for an argument
};

class Mapping;

}  // namespace detail

// A place in the code that records: its level and where it is. It is a static of that place, initialised at
// compile time; at its first record the log stores its text, and from then on it holds what the log needs to
// write its records. A site may be used with one log after another: each change costs a look-up.
class Site {
 public:
  // level: 0 to the log's levels - 1. function, file: static texts, such as __PRETTY_FUNCTION__ and __FILE__.
  constexpr Site(unsigned level, const char* function, const char* file, unsigned line)
      : level_(level), line_(line), function_(function), file_(file) {}
  Site(const Site&) = delete;
  Site& operator=(const Site&) = delete;

  unsigned level() const { return level_; }
  unsigned line() const { return line_; }
  const char* function() const { return function_; }
  const char* file() const { return file_; }

 private:
  friend class Log;

  const unsigned level_;
  const unsigned line_;
  const char* const function_;
  const char* const file_;
  // Written by the log whose id is here; without meaning for any other.
  std::uint64_t log_ = 0;
  std::uint64_t word_ = 0;  // the site's number where a record's first word has it
  detail::Ring* ring_ = nullptr;
};

// One trace: a flight recorder with a ring for each level. A record is a call site's number, the time and
// the arguments in binary; the text of the call site is stored once. Where a directory is given, the rings
// are a shared mapping of a file, which outlives an abort and a kill -9; `ringlog` prints it.
//
// Invariants: 1. a record's first word is stored last, so that a record is whole or not there;
//             2. a site is in the table before the first record that names it;
//             3. a block's sequence is zero from before its old records go until its new base is stored.
class RINGLOG_API Log {
 public:
  // Opens the trace. fileName: a plain file name, without a slash. In a directory the file is built under a
  // temporary name and then takes its name; a file that has it already is kept as fileName + ".1".
  // Raises std::invalid_argument for an option out of range or such a name, std::system_error (what, where,
  // why) when the file cannot be made or disk or memory do not suffice. Nothing is left behind then.
  static std::unique_ptr<Log> open(const std::string& fileName, const Options& options = {});

  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;
  ~Log();  // marks the trace as closed in good order; the file stays

  // Writes one record. pieces: string literals are the fixed text; everything else is an argument (see
  // Argument). The message reads as the pieces one after the other, so literals bring their own blanks. The
  // same site must always come with pieces of the same types and literals: use RINGLOG, or a wrapper like it.
  // A record of a site that the log had to refuse is counted and dropped.
  template <class... Pieces>
  [[gnu::always_inline]] void record(Site& site, Pieces&&... pieces) noexcept {
    if (active_ == site.log_) [[likely]] {
      if (put(site, detail::stored<Pieces>(pieces)...)) [[likely]] {
        return;
      }
    } else if (active_ == off) {
      return;
    }
    recordSlowly<Pieces...>(site, detail::passed<Pieces>(pieces)...);
  }

  // Whether records are written; a log is on when opened. Off, a record costs a load and a branch.
  bool on() const { return active_ != off; }
  void onIs(bool on) { active_ = on ? id_ : off; }

  unsigned levels() const { return static_cast<unsigned>(rings_.size()); }
  const std::string& path() const { return path_; }  // of the file, empty where the trace is in memory only
  std::size_t siteCount() const { return siteCount_; }
  std::uint64_t droppedRecords() const;  // of sites that were refused
  std::uint64_t droppedSites() const;    // because the table is full, or the log has no such level

  // The trace as it would stand in a file, for Trace::parse(). It changes with the next record.
  std::span<const std::byte> image() const;

 private:
  friend class LogProbe;  // tests set a block's base through it, as a day does

  static constexpr std::uint64_t off = 1;  // a site's first log_ is 0; no id is either

  // The log's record of a site, found by its address: the rest tells whether it is still the same site, and
  // not another one in a library that was loaded where the first had been.
  struct Known {
    const char* function;
    const char* file;
    unsigned line;
    unsigned level;
    std::uint16_t number;  // 0: refused
  };

  Log(const std::string& fileName, const Options& options);

  // Writes a record, or not: false when the block has no room left or was begun too long ago. The site's word
  // and the ring's cursor are read again where they are used, behind the arguments: that saves registers, and
  // so the instructions that would free them.
  template <class... Stored>
  [[gnu::always_inline]] static bool put(const Site& site, const Stored&... values) noexcept {
    constexpr std::size_t most = (std::size_t{0} + ... + detail::mostStoredBytes<Stored>);
    static_assert(detail::recordBytes(most) <= Format::maxRecordBytes, "a record must fit into a block");
    const std::size_t size = detail::recordBytes((std::size_t{0} + ... + detail::storedBytes(values)));
    detail::Ring& ring = *site.ring_;
    std::byte* const at = ring.cursor;
    detail::Ticks now = detail::ticks();
    now.high -= ring.baseHigh;
    if (at + size > ring.limit || now.high > Format::tickMask >> 32) [[unlikely]] {
      return false;
    }
    [[maybe_unused]] std::byte* next = at + Format::wordBytes;
    ((next = detail::store(next, values)), ...);
    ring.cursor += size;
    const std::uint64_t word = site.word_ | now.whole();
    std::atomic_ref(*reinterpret_cast<std::uint64_t*>(at)).store(word, std::memory_order_release);
    return true;
  }

  // The work of a site at its first record in this log, and whenever a block is full. Everything is passed by
  // value and nothing comes back, so that the fast path keeps its values in registers without saving any.
  template <class... Pieces>
  [[gnu::noinline, gnu::cold]] void recordSlowly(Site& site, detail::Passed<Pieces>... pieces) noexcept {
    bool fits = false;
    if (site.log_ != id_) {
      const Kind kinds[] = {detail::kindOfPiece<Pieces>..., Kind{}};
      const char* const literals[] = {detail::literal(pieces)..., nullptr};
      if (!adopt(site, {sizeof...(Pieces), kinds, literals})) {
        return;
      }
      fits = put(site, detail::storedOf(pieces)...);
    }
    if (!fits) {
      site.ring_->turn();
      if (!put(site, detail::storedOf(pieces)...)) {
        drop();  // the tick counter jumped back between the two
      }
    }
  }

  bool adopt(Site& site, const detail::Shape& shape) noexcept;
  std::uint16_t numberOf(const Site& site, const detail::Shape& shape);
  std::uint16_t storeSite(const Site& site, const detail::Shape& shape);
  void drop() noexcept;
  Format::Header& header() const;

  std::uint64_t active_;  // id_ while on, otherwise `off`
  const std::uint64_t id_;
  std::string path_;
  std::unique_ptr<detail::Mapping> mapping_;
  std::vector<detail::Ring> rings_;
  std::unordered_map<const Site*, Known> known_;
  std::size_t siteCount_ = 0;
};

}  // namespace RingLog

// Records at this place: RINGLOG(log, 8, "mac ", mac, " moves to ", vtep). log: a RingLog::Log.
#define RINGLOG(log, level, ...)                                                                \
  do {                                                                                          \
    static constinit RingLog::Site ringLogSite(level, __PRETTY_FUNCTION__, __FILE__, __LINE__); \
    (log).record(ringLogSite __VA_OPT__(, ) __VA_ARGS__);                                       \
  } while (false)

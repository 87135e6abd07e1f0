#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "RingLog/Format.h"
#include "RingLog/Reader.h"
#include "RingLog/Source.h"

// The steps in which a trace is read, for TraceReader. Nothing in a file is believed before it was checked.
namespace RingLog::detail {

// The header, found to be of a trace that this program reads, with all figures in their ranges.
// Raises TraceError.
Format::Header readHeader(const Source& source);

// The call sites. To be read after the rings, so that none is missing that a record names.
// Raises TraceError when an entry is damaged.
std::vector<Place> readPlaces(const Source& source, const Format::Header& header);

// A ring, read three times while it may be written. What the first reading has of a record's first word
// stands for a whole record, as that word is stored last; so the second has all its bytes, and the third
// shows whether the block was overwritten meanwhile.
struct RingImage {
  std::size_t blockBytes;
  std::vector<std::byte> first;
  std::vector<std::byte> second;
  std::vector<std::byte> third;
};
RingImage readRing(const Source& source, const Format::Header& header, unsigned level);

// The records of a ring in the order in which they were written, without their time; and, added to what is
// there, the moments of its blocks and what was wrong with them.
struct Moments {
  struct One {
    std::uint64_t ticks;
    std::int64_t monotonic;
  };
  std::vector<One> all;
};
std::vector<Record> decodeRing(const RingImage& ring, unsigned level, const std::vector<Place>& places,
                               Moments& moments, TraceInfo& info);

// Turns ticks into time: linear between the moments at which both are known, and by the rate of the whole
// trace behind the last.
class TimeScale {
 public:
  TimeScale(const Format::Header& header, Moments moments);
  std::int64_t realtime(std::uint64_t ticks) const;  // nanoseconds since 1970-01-01 UTC

 private:
  std::vector<Moments::One> moments_;  // both figures rise strictly
  std::int64_t offset_;                // from CLOCK_MONOTONIC to UTC
  double nanosecondsPerTick_;
};

}  // namespace RingLog::detail

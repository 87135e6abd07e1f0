#pragma once

// The layout of a trace file, shared by the writer (Log) and the reader (Trace). Every number is stored in
// the byte order of the machine that wrote it; the header says which. docs/ringlog.md has the drawing.
//
//     Header | site table | level 0: block, block, ... | level 1: block, block, ... | ...

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>

namespace RingLog::Format {

inline constexpr std::array<char, 8> magic{'R', 'I', 'N', 'G', 'L', 'O', 'G', '\n'};
// Version 1 has small blocks only; from version 2 on the header says how large they are. A trace of small
// blocks is written as version 1, which every reader knows.
inline constexpr std::uint32_t version = 2;
inline constexpr std::uint32_t smallBlocksVersion = 1;
inline constexpr std::uint32_t byteOrder = 0x01020304;

// A ring is a circle of blocks, and a record never crosses the end of its block. The price is what lies
// unused behind the last record of a block, and that the oldest block is given up as a whole; what is bought
// is that a reader finds its way after any wrap, that damage stays within its block, and that the writer
// tests for "no room" once. The turn of a large block costs little more than that of a small one, so a ring
// has blocks of up to four KiB, as long as they fill it exactly and the oldest is at most an eighth of it.
inline constexpr std::size_t smallBlockBytes = 1024;
inline constexpr std::size_t mostBlockBytes = 65536;  // that a reader takes
constexpr std::size_t blockBytesFor(std::size_t ringKiB) {
  for (const std::size_t blockKiB : {std::size_t{4}, std::size_t{3}, std::size_t{2}}) {
    if (ringKiB % blockKiB == 0 && ringKiB / blockKiB >= 8) {
      return blockKiB * 1024;
    }
  }
  return smallBlockBytes;
}

// The first word of a record: the number of its site in the upper 16 bits, and below them the ticks since the
// base of its block. Zero is no record: a site's number is never 0.
inline constexpr unsigned siteShift = 48;
inline constexpr std::uint64_t tickMask = (std::uint64_t{1} << siteShift) - 1;
inline constexpr std::size_t wordBytes = 8;
inline constexpr std::size_t maxSites = 0xffff;

inline constexpr unsigned maxLevels = 64;
inline constexpr std::size_t maxRingKiB = std::size_t{64} * 1024;
inline constexpr std::size_t maxSiteKiB = std::size_t{64} * 1024;
inline constexpr std::size_t maxTextBytes = 64;  // a text argument is cut here

// The first bytes of the file. The fields before `checksum` are written once, before the file gets its name.
struct Header {
  std::array<char, 8> magic;
  std::uint32_t version;
  std::uint32_t byteOrder;
  std::uint32_t headerBytes;
  std::uint32_t blockBytes;
  std::uint32_t levels;
  std::uint32_t blocksPerRing;
  std::uint64_t sitesBytes;      // room of the site table, which follows this header
  std::uint64_t fileBytes;       // header, site table and rings together
  std::int64_t openedRealtime;   // nanoseconds since 1970-01-01 UTC
  std::int64_t openedMonotonic;  // nanoseconds of CLOCK_MONOTONIC at the same moment
  std::uint64_t openedTicks;     // the tick counter at the same moment
  std::uint64_t ticksPerSecond;  // as measured by the process that opened the trace
  std::uint64_t pid;
  std::array<char, 16> program;  // name of the process, zero-padded
  std::uint64_t checksum;        // of everything above
  // The fields from here on change while the trace is written.
  std::uint64_t sitesUsed;       // bytes of the site table in use; stored after the bytes themselves
  std::uint64_t droppedRecords;  // records of sites that were refused
  std::uint64_t droppedSites;    // sites refused: the table is full, or the log has no such level
  std::uint64_t closed;          // 1 when the trace was closed in good order
};
static_assert(sizeof(Header) == 144);
inline constexpr std::size_t headerBytes = 512;
static_assert(sizeof(Header) <= headerBytes && headerBytes % wordBytes == 0);

// One call site in the site table. Behind it, without padding: the function, the file, and each piece as
// one byte of Kind and, where it is fixed text, two bytes of length and the text. Then zeros up to the next
// multiple of 8.
struct SiteEntry {
  std::uint64_t checksum;  // of the rest of the entry, from `bytes` to its end
  std::uint32_t bytes;     // of the whole entry, a multiple of 8
  std::uint32_t line;
  std::uint16_t level;
  std::uint16_t pieces;
  std::uint16_t functionBytes;
  std::uint16_t fileBytes;
};
static_assert(sizeof(SiteEntry) == 24);

// The first bytes of a block.
struct BlockHeader {
  std::uint64_t sequence;  // 1 for the first block of the ring ever begun, and so on; 0 while it is cleared
  std::uint64_t ticks;     // the tick counter when the block was begun; its upper half is the records' base
  std::int64_t monotonic;  // nanoseconds of CLOCK_MONOTONIC at the same moment, or noTime
  std::uint64_t check;     // check() of the three above
};
static_assert(sizeof(BlockHeader) == 32);
inline constexpr std::int64_t noTime = -1;  // the ring has another block that is hardly older and has it
inline constexpr std::size_t maxRecordBytes = smallBlockBytes - sizeof(BlockHeader);

// FNV-1a over eight bytes at a time. It finds damage, it does not resist malice.
// bytes: any length; a rest of less than eight bytes counts as padded with zeros.
std::uint64_t checksum(const void* bytes, std::size_t size);

// The same purpose in few instructions, for what is written at every turn of a block: no change of any one of
// the three leaves it as it is.
constexpr std::uint64_t check(std::uint64_t sequence, std::uint64_t ticks, std::int64_t monotonic) {
  constexpr std::uint64_t odd = 0x9e3779b97f4a7c15;
  return ((sequence * odd ^ ticks) * odd) ^ static_cast<std::uint64_t>(monotonic);
}

}  // namespace RingLog::Format

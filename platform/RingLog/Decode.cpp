#include "RingLog/Decode.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace RingLog::detail {

namespace {

constexpr std::int64_t maxNanoseconds = std::int64_t{1} << 62;  // sums of three such do not overflow

// Reads values from bytes, never beyond their end: what is missing is zero, and the cursor has failed.
class Cursor {
 public:
  explicit Cursor(std::span<const std::byte> bytes) : bytes_(bytes) {}

  bool failed() const { return failed_; }
  std::size_t offset() const { return offset_; }

  template <class T>
  T take() {
    T value{};
    if (need(sizeof value)) {
      std::memcpy(&value, bytes_.data() + offset_, sizeof value);
      offset_ += sizeof value;
    }
    return value;
  }

  std::string takeText(std::size_t size) {
    std::string text;
    if (need(size)) {
      text.resize(size);
      std::memcpy(text.data(), bytes_.data() + offset_, size);
      offset_ += size;
    }
    return text;
  }

 private:
  bool need(std::size_t size) {
    failed_ = failed_ || size > bytes_.size() - offset_;
    return !failed_;
  }

  std::span<const std::byte> bytes_;
  std::size_t offset_ = 0;
  bool failed_ = false;
};

template <class T>
T valueAt(std::span<const std::byte> bytes, std::size_t offset) {
  return Cursor(bytes.subspan(offset)).take<T>();
}

Value takeValue(Cursor& cursor, Kind kind) {
  switch (kind) {
    case Kind::Bool:
      return cursor.take<std::uint8_t>() != 0;
    case Kind::Char:
      return cursor.take<char>();
    case Kind::U8:
      return std::uint64_t{cursor.take<std::uint8_t>()};
    case Kind::U16:
      return std::uint64_t{cursor.take<std::uint16_t>()};
    case Kind::U32:
      return std::uint64_t{cursor.take<std::uint32_t>()};
    case Kind::U64:
      return cursor.take<std::uint64_t>();
    case Kind::S8:
      return std::int64_t{cursor.take<std::int8_t>()};
    case Kind::S16:
      return std::int64_t{cursor.take<std::int16_t>()};
    case Kind::S32:
      return std::int64_t{cursor.take<std::int32_t>()};
    case Kind::S64:
      return cursor.take<std::int64_t>();
    case Kind::Double:
      return cursor.take<double>();
    case Kind::Pointer:
      return cursor.take<Pointer>();
    case Kind::Mac:
      return cursor.take<Mac>();
    case Kind::Ipv4:
      return cursor.take<Ipv4>();
    case Kind::Text:
    case Kind::Literal:
      break;
  }
  return cursor.takeText(cursor.take<std::uint8_t>());
}

Place takePlace(std::span<const std::byte> bytes, const std::string& where) {
  Cursor cursor(bytes);
  const auto head = cursor.take<Format::SiteEntry>();
  Place place{
      head.level, head.line, cursor.takeText(head.functionBytes), cursor.takeText(head.fileBytes), {}};
  for (std::size_t i = 0; i < head.pieces && !cursor.failed(); ++i) {
    const auto kind = cursor.take<Kind>();
    if (kind < Kind::Literal || kind > Kind::Ipv4) {
      throw TraceError("damaged: piece of an unknown kind in " + where);
    }
    place.pieces.push_back({kind, {}});
    if (kind == Kind::Literal) {
      place.pieces.back().literal = cursor.takeText(cursor.take<std::uint16_t>());
    }
  }
  if (cursor.failed()) {
    throw TraceError("damaged: incomplete entry in " + where);
  }
  return place;
}

// One block of a ring as its three readings have it.
struct BlockImage {
  std::span<const std::byte> first;
  std::span<const std::byte> second;
  std::span<const std::byte> third;
  Format::BlockHeader header;
};

bool isWhole(const BlockImage& block, std::size_t index, std::size_t blocks) {
  const Format::BlockHeader& header = block.header;
  return header.check == Format::check(header.sequence, header.ticks, header.monotonic) &&
         (header.sequence - 1) % blocks == index &&
         (header.monotonic == Format::noTime || (header.monotonic >= 0 && header.monotonic < maxNanoseconds));
}

// The blocks of a ring that can be read, oldest first, as one run: where a block was begun again while the
// ring was read, what is newer than that block was not there yet at the first reading, or was seen by chance.
std::vector<BlockImage> blocksOf(const RingImage& ring, TraceInfo& info) {
  std::vector<BlockImage> result;
  const std::size_t blocks = ring.first.size() / ring.blockBytes;
  std::vector<bool> isMoving(blocks, false);
  for (std::size_t i = 0; i < blocks; ++i) {
    const auto part = [&](const std::vector<std::byte>& image) {
      return std::span(image).subspan(i * ring.blockBytes, ring.blockBytes);
    };
    BlockImage block{part(ring.first), part(ring.second), part(ring.third), {}};
    block.header = valueAt<Format::BlockHeader>(block.second, 0);
    const std::uint64_t sequence = block.header.sequence;
    isMoving[i] = valueAt<std::uint64_t>(block.first, 0) != sequence ||
                  valueAt<std::uint64_t>(block.third, 0) != sequence;
    if (sequence == 0 || isMoving[i]) {
      continue;  // not begun, or begun again just now
    }
    if (isWhole(block, i, blocks)) {
      result.push_back(block);
    } else {
      ++info.damagedBlocks;
    }
  }
  std::sort(result.begin(), result.end(),
            [](const BlockImage& a, const BlockImage& b) { return a.header.sequence < b.header.sequence; });
  const auto leaps = [&](const BlockImage& before, const BlockImage& after) {
    const std::uint64_t missing = before.header.sequence;  // as an index: sequences count from 1
    return after.header.sequence != before.header.sequence + 1 && isMoving[missing % blocks];
  };
  const auto leap = std::adjacent_find(result.begin(), result.end(), leaps);
  result.erase(leap == result.end() ? leap : leap + 1, result.end());
  return result;
}

// Reads one record at `offset`; false when it makes no sense.
bool decodeRecord(const BlockImage& block, std::size_t offset, std::uint64_t word,
                  const std::vector<Place>& places, unsigned level, Record& record, std::size_t& next) {
  const std::size_t number = word >> Format::siteShift;
  if (number == 0 || number > places.size() || places[number - 1].level != level) {
    return false;
  }
  record.place = &places[number - 1];
  record.ticks = (block.header.ticks >> 32 << 32) + (word & Format::tickMask);
  record.block = block.header.sequence;
  record.offset = offset;
  Cursor cursor(block.second.subspan(offset + Format::wordBytes));
  for (const Piece& piece : record.place->pieces) {
    if (piece.kind != Kind::Literal) {
      record.arguments.push_back(takeValue(cursor, piece.kind));
    }
  }
  next = offset + recordBytes(cursor.offset());
  return !cursor.failed() && next <= block.second.size();
}

// The content behind the last record of a block: nothing, records that came while it was read, a record that
// was begun and not finished, or what makes no sense.
enum class End { Clean, Growing, Torn, Damaged };

// Reads the records of one block up to its end and tells what is behind the last.
End decodeBlock(const BlockImage& block, unsigned level, const std::vector<Place>& places,
                std::vector<Record>& records) {
  std::size_t offset = sizeof(Format::BlockHeader);
  while (offset < block.first.size()) {
    const auto word = valueAt<std::uint64_t>(block.first, offset);
    if (word == 0) {
      break;
    }
    Record record{};
    std::size_t next = 0;
    if (!decodeRecord(block, offset, word, places, level, record, next)) {
      return End::Damaged;
    }
    records.push_back(std::move(record));
    offset = next;
  }
  const auto rest = block.third.subspan(offset);
  if (!rest.empty() && valueAt<std::uint64_t>(rest, 0) != 0) {
    return End::Growing;
  }
  return std::all_of(rest.begin(), rest.end(), [](std::byte byte) { return byte == std::byte{0}; })
             ? End::Clean
             : End::Torn;
}

bool blocksAreSound(const Format::Header& header) {
  const bool small = header.blockBytes == Format::smallBlockBytes;
  return small ||
         (header.version != Format::smallBlocksVersion && header.blockBytes % Format::smallBlockBytes == 0 &&
          header.blockBytes > Format::smallBlockBytes && header.blockBytes <= Format::mostBlockBytes);
}

}  // namespace

Format::Header readHeader(const Source& source) {
  Format::Header header{};
  if (source.size() < Format::headerBytes) {
    throw TraceError("not a trace: " + std::to_string(source.size()) + " bytes are too few for its header");
  }
  std::byte bytes[sizeof header];
  source.read(0, bytes);
  std::memcpy(&header, bytes, sizeof header);
  if (header.magic != Format::magic) {
    throw TraceError("not a trace: it does not begin as one");
  }
  if (header.byteOrder == __builtin_bswap32(Format::byteOrder)) {
    throw TraceError("written on a machine of the other byte order");
  }
  const bool known = header.version == Format::version || header.version == Format::smallBlocksVersion;
  if (!known && header.byteOrder == Format::byteOrder) {
    throw TraceError("of format version " + std::to_string(header.version) +
                     "; this program reads versions " + std::to_string(Format::smallBlocksVersion) + " and " +
                     std::to_string(Format::version));
  }
  const std::uint64_t ringBytes = std::uint64_t{header.blocksPerRing} * header.blockBytes;
  const bool sound =
      header.checksum == Format::checksum(&header, offsetof(Format::Header, checksum)) &&
      header.byteOrder == Format::byteOrder && header.headerBytes == Format::headerBytes &&
      blocksAreSound(header) && header.levels >= 1 && header.levels <= Format::maxLevels &&
      header.blocksPerRing >= 2 && ringBytes <= Format::maxRingKiB * 1024 &&
      header.sitesBytes <= Format::maxSiteKiB * 1024 && header.sitesUsed <= header.sitesBytes &&
      header.fileBytes == Format::headerBytes + header.sitesBytes + header.levels * ringBytes &&
      header.openedRealtime >= 0 && header.openedRealtime < maxNanoseconds && header.openedMonotonic >= 0 &&
      header.openedMonotonic < maxNanoseconds && header.ticksPerSecond > 0;
  if (!sound) {
    throw TraceError("damaged: the header is not as it was written");
  }
  if (source.size() < header.fileBytes) {
    throw TraceError("truncated: " + std::to_string(source.size()) + " of " +
                     std::to_string(header.fileBytes) + " bytes");
  }
  return header;
}

std::vector<Place> readPlaces(const Source& source, const Format::Header& header) {
  std::vector<Place> places;
  std::vector<std::byte> table(header.sitesUsed);
  source.read(Format::headerBytes, table);
  for (std::size_t at = 0; at < table.size();) {
    const std::string where = "the site table at byte " + std::to_string(Format::headerBytes + at);
    const auto rest = std::span<const std::byte>(table).subspan(at);
    const auto head = valueAt<Format::SiteEntry>(rest, 0);
    if (head.bytes < sizeof head || head.bytes > rest.size() || head.bytes % Format::wordBytes != 0 ||
        places.size() == Format::maxSites) {
      throw TraceError("damaged: entry of wrong length in " + where);
    }
    const auto entry = rest.first(head.bytes);
    constexpr std::size_t summed = offsetof(Format::SiteEntry, bytes);
    if (head.checksum != Format::checksum(entry.data() + summed, entry.size() - summed)) {
      throw TraceError("damaged: wrong checksum in " + where);
    }
    places.push_back(takePlace(entry, where));
    at += head.bytes;
  }
  return places;
}

RingImage readRing(const Source& source, const Format::Header& header, unsigned level) {
  const std::size_t size = std::size_t{header.blocksPerRing} * header.blockBytes;
  const std::uint64_t offset = Format::headerBytes + header.sitesBytes + level * std::uint64_t{size};
  RingImage ring{header.blockBytes, {}, {}, {}};
  for (std::vector<std::byte>* image : {&ring.first, &ring.second, &ring.third}) {
    image->resize(size);
    source.read(offset, *image);
  }
  return ring;
}

std::vector<Record> decodeRing(const RingImage& ring, unsigned level, const std::vector<Place>& places,
                               Moments& moments, TraceInfo& info) {
  std::vector<Record> records;
  const std::vector<BlockImage> blocks = blocksOf(ring, info);
  for (const BlockImage& block : blocks) {
    if (block.header.monotonic != Format::noTime) {
      moments.all.push_back({block.header.ticks, block.header.monotonic});
    }
    const End end = decodeBlock(block, level, places, records);
    if (end == End::Growing) {
      break;  // a newer block, if one was seen, comes after records that were not
    }
    const bool last = &block == &blocks.back();
    if (end == End::Torn && last) {
      ++info.tornRecords;
    } else if (end != End::Clean) {
      ++info.damagedBlocks;
    }
  }
  return records;
}

TimeScale::TimeScale(const Format::Header& header, Moments moments)
    : offset_(header.openedRealtime - header.openedMonotonic),
      nanosecondsPerTick_(1e9 / static_cast<double>(header.ticksPerSecond)) {
  std::sort(moments.all.begin(), moments.all.end(),
            [](const auto& a, const auto& b) { return a.ticks < b.ticks; });
  moments_.push_back({header.openedTicks, header.openedMonotonic});
  for (const Moments::One& one : moments.all) {
    if (one.ticks > moments_.back().ticks && one.monotonic > moments_.back().monotonic) {
      moments_.push_back(one);
    }
  }
  constexpr std::int64_t enough =
      10'000'000;  // ns: from here on the trace knows its rate better than its opener
  const std::int64_t span = moments_.back().monotonic - moments_.front().monotonic;
  if (span >= enough) {
    nanosecondsPerTick_ =
        static_cast<double>(span) / static_cast<double>(moments_.back().ticks - moments_.front().ticks);
  }
}

std::int64_t TimeScale::realtime(std::uint64_t ticks) const {
  const auto above = std::upper_bound(moments_.begin(), moments_.end(), ticks,
                                      [](std::uint64_t value, const auto& one) { return value < one.ticks; });
  const Moments::One& base = above == moments_.begin() ? *above : *(above - 1);
  double rate = nanosecondsPerTick_;
  if (above != moments_.begin() && above != moments_.end()) {
    rate = static_cast<double>(above->monotonic - base.monotonic) /
           static_cast<double>(above->ticks - base.ticks);
  }
  constexpr double longest = 1e18;  // ns: far beyond any trace, and within what the sum below can take
  const double sign = ticks < base.ticks ? -1 : 1;
  const auto distance = static_cast<double>(ticks < base.ticks ? base.ticks - ticks : ticks - base.ticks);
  const double delta = sign * std::clamp(distance * rate, 0.0, longest);
  return offset_ +
         std::clamp(base.monotonic + static_cast<std::int64_t>(delta), std::int64_t{0}, maxNanoseconds - 1);
}

}  // namespace RingLog::detail

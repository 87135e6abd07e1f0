#include "Memtab/Describe.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <random>

#include "Memtab/Fields.h"

namespace Memtab {
namespace {

constexpr std::uint64_t page = 4096;
constexpr std::size_t leastChanges = 1024;
constexpr std::size_t mostChanges = 65536;
constexpr std::uint64_t journalAt = (sizeof(Format::Header) + 63) / 64 * 64;

std::uint64_t pages(std::uint64_t bytes) {
  return (bytes + page - 1) / page * page;
}

void checkOptions(const Options& options, Segment::Shape shape) {
  const auto refuseUnless = [&](bool good, const std::string& what) {
    if (!good) {
      throw Error(options.name, what);
    }
  };
  refuseUnless(
      options.limit >= 1 && options.limit <= Format::maxLimit,
      "limit " + std::to_string(options.limit) + " is not within 1 to " + std::to_string(Format::maxLimit));
  refuseUnless(options.schema.size() < Format::schemaBytes,
               "schema of " + std::to_string(options.schema.size()) + " bytes, at most 127 are possible");
  refuseUnless(
      options.fields.size() < Format::fieldsBytes,
      "field description of " + std::to_string(options.fields.size()) + " bytes, at most 1023 are possible");
  refuseUnless(options.changes <= std::size_t{1} << 28U,
               "memory of " + std::to_string(options.changes) + " changes, at most 268435456 are possible");
  refuseUnless((options.mode & 022U) == 0, "a mode that lets others write is not possible");
  refuseUnless(shape.keyBytes >= 1 && shape.keyBytes <= Format::maxKeyBytes,
               "key of " + std::to_string(shape.keyBytes) + " bytes, 1 to 256 are possible");
  refuseUnless(shape.valueBytes >= 1 && shape.valueBytes <= Format::maxValueBytes,
               "value of " + std::to_string(shape.valueBytes) + " bytes, 1 to 4096 are possible");
  if (!options.fields.empty()) {
    static_cast<void>(parseFields(options.name, options.fields, shape.keyBytes, shape.valueBytes));
  }
}

// From the system's source of randomness, so that it cannot be guessed.
std::uint64_t randomWord() {
  std::random_device random;
  return std::uint64_t{random()} << 32U ^ random();
}

std::uint64_t newGeneration() {
  const std::uint64_t now =
      static_cast<std::uint64_t>(std::chrono::system_clock::now().time_since_epoch().count());
  return Format::mixed(now ^ randomWord()) | 1U;
}

// Where everything lies follows from five figures.
void layOut(Format::Description& d) {
  const std::size_t keyWords = Format::wordsFor(d.keyBytes);
  const std::size_t valueWords = Format::wordsFor(d.valueBytes);
  d.headerBytes = sizeof(Format::Header);
  d.slotBytes = static_cast<std::uint32_t>(sizeof(Format::Slot) + 8 * (keyWords + valueWords));
  d.slots = d.limit * 2;
  d.buckets = d.limit * Format::bucketsPerRecord;
  d.stripes = Format::stripes;
  d.journalAt = journalAt;
  d.stripesAt = pages(d.journalAt + sizeof(Format::Journal) + 8 * valueWords);
  d.ringAt = pages(d.stripesAt + sizeof(Format::Half) * d.stripes);
  d.headsAt = pages(d.ringAt + 8 * keyWords * d.ringEntries);
  d.slotsAt = pages(d.headsAt + sizeof(Format::Half) * d.buckets);
  d.totalBytes = pages(d.slotsAt + std::uint64_t{d.slotBytes} * d.slots);
}

// Whether this can be what the layout made of its figures, and all strings end.
bool consistent(const Format::Description& d) {
  if (d.limit < 1 || d.limit > Format::maxLimit || !std::has_single_bit(d.ringEntries) || d.keyBytes < 1 ||
      d.keyBytes > Format::maxKeyBytes || d.valueBytes < 1 || d.valueBytes > Format::maxValueBytes ||
      d.schema.back() != '\0' || d.fields.back() != '\0') {
    return false;
  }
  Format::Description laidOut = d;
  layOut(laidOut);
  return std::memcmp(&laidOut, &d, sizeof d) == 0;
}

// Whether this is, or was, a description of some version: two of the figures that all have are there.
bool resemblesADescription(const Format::Description& d) {
  const int right = (d.magic == Format::magic ? 1 : 0) + (d.version == Format::version ? 1 : 0) +
                    (d.headerBytes == sizeof(Format::Header) ? 1 : 0) +
                    (d.stripes == Format::stripes ? 1 : 0) + (d.journalAt == journalAt ? 1 : 0);
  return right >= 2;
}

}  // namespace

std::uint64_t checksumOf(const Format::Description& description) {
  // FNV-1a, 64 bits, over everything before the checksum.
  const auto* bytes = reinterpret_cast<const unsigned char*>(&description);
  std::uint64_t sum = 0xcbf2'9ce4'8422'2325U;
  for (std::size_t i = sizeof description.magic; i < offsetof(Format::Description, checksum); ++i) {
    sum = (sum ^ bytes[i]) * 0x100'0000'01b3U;
  }
  return sum;
}

Format::Description describe(const Options& options, Segment::Shape shape) {
  checkOptions(options, shape);
  const std::size_t changes =
      options.changes != 0 ? options.changes : std::clamp(options.limit / 16, leastChanges, mostChanges);

  Format::Description d{};
  d.magic = Format::magic;
  d.version = Format::version;
  d.keyBytes = static_cast<std::uint32_t>(shape.keyBytes);
  d.valueBytes = static_cast<std::uint32_t>(shape.valueBytes);
  d.ringEntries = static_cast<std::uint32_t>(std::bit_ceil(changes));
  d.limit = static_cast<std::uint32_t>(options.limit);
  layOut(d);
  d.generation = newGeneration();
  d.seed = options.seed ? *options.seed : randomWord();
  d.createdAt =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
          .count();
  std::copy(options.schema.begin(), options.schema.end(), d.schema.begin());
  std::copy(options.fields.begin(), options.fields.end(), d.fields.begin());
  d.checksum = checksumOf(d);
  return d;
}

void checkDescription(const std::string& name, const Format::Description& d, std::uint64_t segmentBytes) {
  if (!resemblesADescription(d)) {
    throw Error(name, "not a table: it does not begin with the mark of one");
  }
  if (d.magic != Format::magic) {
    throw Damaged(name, "it does not begin with the mark of a table");
  }
  if (d.version != Format::version) {
    throw Damaged(name, "its format is " + std::to_string(d.version) + ", this program knows " +
                            std::to_string(Format::version) + "; perhaps another version made it");
  }
  if (d.checksum != checksumOf(d)) {
    throw Damaged(name, "the checksum of its header is wrong");
  }
  if (!consistent(d)) {
    throw Damaged(name, "the figures in its header do not go together");
  }
  if (d.totalBytes != segmentBytes) {
    throw Damaged(name, "it has " + std::to_string(segmentBytes) + " bytes, its header says " +
                            std::to_string(d.totalBytes));
  }
}

void checkRecords(const std::string& name, const Format::Description& d, const std::string& schema,
                  Segment::Shape shape) {
  if (schema != d.schema.data()) {
    throw Error(name, "made for other records: its schema is \"" + std::string(d.schema.data()) +
                          "\", this program has \"" + schema + "\"");
  }
  if (d.keyBytes != shape.keyBytes || d.valueBytes != shape.valueBytes) {
    throw Error(name, "made for other records: key and value have " + std::to_string(d.keyBytes) + " and " +
                          std::to_string(d.valueBytes) + " bytes, in this program " +
                          std::to_string(shape.keyBytes) + " and " + std::to_string(shape.valueBytes));
  }
}

}  // namespace Memtab

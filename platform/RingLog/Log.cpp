#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string_view>

#include "RingLog/Mapping.h"
#include "RingLog/RingLog.h"

namespace RingLog {

namespace {

using detail::Mapping;

constexpr std::size_t kib = 1024;

// A part of the mapping that other processes read while it is written.
template <class T>
std::atomic_ref<T> shared(T& value) {
  return std::atomic_ref<T>(value);
}

void require(std::size_t value, std::size_t low, std::size_t high, const char* what) {
  if (value < low || value > high) {
    throw std::invalid_argument(std::string("RingLog: ") + what + " " + std::to_string(value) + " is not " +
                                std::to_string(low) + " to " + std::to_string(high));
  }
}

void check(const std::string& fileName, const Options& options) {
  if (fileName.empty() || fileName == "." || fileName == ".." ||
      fileName.find_first_of(std::string_view("/\0", 2)) != std::string::npos) {
    throw std::invalid_argument("RingLog: \"" + fileName + "\" is not a plain file name");
  }
  require(options.levels, 1, Format::maxLevels, "number of levels");
  require(options.ringKiB, 2, Format::maxRingKiB, "ring size in KiB");
  require(options.siteKiB, 1, Format::maxSiteKiB, "site table size in KiB");
}

std::string pathOf(const std::string& fileName, const Options& options) {
  std::string directory = options.directory;
  if (directory.empty()) {
    const char* const configured = std::getenv("RINGLOG_DIR");
    directory = configured == nullptr ? "" : configured;
  }
  return directory.empty() ? std::string() : directory + "/" + fileName;
}

Format::Header headerOf(const Options& options) {
  Format::Header header{};
  header.magic = Format::magic;
  const std::size_t blockBytes = Format::blockBytesFor(options.ringKiB);
  header.version = blockBytes == Format::smallBlockBytes ? Format::smallBlocksVersion : Format::version;
  header.byteOrder = Format::byteOrder;
  header.headerBytes = Format::headerBytes;
  header.blockBytes = static_cast<std::uint32_t>(blockBytes);
  header.levels = options.levels;
  header.blocksPerRing = static_cast<std::uint32_t>(options.ringKiB * kib / blockBytes);
  header.sitesBytes = options.siteKiB * kib;
  header.fileBytes =
      Format::headerBytes + header.sitesBytes + std::uint64_t{options.levels} * options.ringKiB * kib;
  header.ticksPerSecond = detail::ticksPerSecond();
  const detail::Moment now = detail::moment();
  header.openedTicks = now.ticks;
  header.openedMonotonic = now.monotonic;
  header.openedRealtime = detail::nanoseconds(CLOCK_REALTIME);
  header.pid = static_cast<std::uint64_t>(::getpid());
  std::string program;
  std::getline(std::ifstream("/proc/self/comm"), program);
  program.copy(header.program.data(), header.program.size() - 1);
  header.checksum = Format::checksum(&header, offsetof(Format::Header, checksum));
  return header;
}

// An entry of the site table, ready to be copied there.
std::vector<std::byte> entryOf(const Site& site, const detail::Shape& shape) {
  std::vector<std::byte> entry(sizeof(Format::SiteEntry));
  const auto bounded = [](std::string_view text) { return text.substr(0, 0xffff); };
  const auto append = [&](const void* bytes, std::size_t size) {
    const auto* const begin = static_cast<const std::byte*>(bytes);
    entry.insert(entry.end(), begin, begin + size);
  };
  const std::string_view function = bounded(site.function());
  const std::string_view file = bounded(site.file());
  append(function.data(), function.size());
  append(file.data(), file.size());
  for (std::size_t i = 0; i < shape.pieces; ++i) {
    append(&shape.kinds[i], sizeof shape.kinds[i]);
    if (shape.kinds[i] == Kind::Literal) {
      const std::string_view text = bounded(shape.literals[i]);
      const auto length = static_cast<std::uint16_t>(text.size());
      append(&length, sizeof length);
      append(text.data(), text.size());
    }
  }
  entry.resize((entry.size() + 7) / 8 * 8);
  Format::SiteEntry head{};
  head.bytes = static_cast<std::uint32_t>(entry.size());
  head.line = site.line();
  head.level = static_cast<std::uint16_t>(site.level());
  head.pieces = static_cast<std::uint16_t>(shape.pieces);
  head.functionBytes = static_cast<std::uint16_t>(function.size());
  head.fileBytes = static_cast<std::uint16_t>(file.size());
  std::memcpy(entry.data(), &head, sizeof head);
  constexpr std::size_t summed = offsetof(Format::SiteEntry, bytes);
  head.checksum = Format::checksum(entry.data() + summed, entry.size() - summed);
  std::memcpy(entry.data(), &head.checksum, sizeof head.checksum);
  return entry;
}

// An id that no other log of the process has, nor one that was made by another copy of this room: a program
// and a library that it loads may each have one, and a site of the one record in a log of the other. Never 0
// or 1, which are no ids (see Log::off).
std::uint64_t nextId() {
  static std::atomic<std::uint64_t> last{0};
  constexpr std::uint64_t top = std::uint64_t{1} << 63;
  return top | detail::ticks().whole() << 8 | (++last & 0xff);
}

}  // namespace

namespace detail {

// A burst of records fills a block in less than a microsecond. So the clock is not read again until it has
// something to tell: about a millisecond later.
constexpr std::uint64_t calibrationTicks = std::uint64_t{1} << 21;

void Ring::turn() noexcept {
  std::byte* const block = first + sequence % blocks * blockBytes;
  auto& head = *reinterpret_cast<Format::BlockHeader*>(block);
  shared(head.sequence).store(0, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_release);
  // In two halves: more than 2 KiB the C library clears with a string instruction, whose start costs more
  // than it saves here.
  const std::size_t half = (blockBytes - sizeof head) / 2;
  std::memset(block + sizeof head, 0, half);
  std::memset(block + sizeof head + half, 0, half);
  Moment now{ticks().whole(), Format::noTime};
  if (now.ticks - calibrated > calibrationTicks) {
    now = moment();
    calibrated = now.ticks;
  }
  head.ticks = now.ticks;
  head.monotonic = now.monotonic;
  head.check = Format::check(++sequence, now.ticks, now.monotonic);
  shared(head.sequence).store(sequence, std::memory_order_release);
  baseHigh = static_cast<std::uint32_t>(now.ticks >> 32);
  cursor = block + sizeof head;
  limit = block + blockBytes;
}

}  // namespace detail

std::unique_ptr<Log> Log::open(const std::string& fileName, const Options& options) {
  check(fileName, options);
  return std::unique_ptr<Log>(new Log(fileName, options));
}

Log::Log(const std::string& fileName, const Options& options)
    : active_(nextId()), id_(active_), path_(pathOf(fileName, options)) {
  const Format::Header head = headerOf(options);
  mapping_ = std::make_unique<Mapping>(path_.empty() ? Mapping::memory(head.fileBytes)
                                                     : Mapping::file(path_, head.fileBytes));
  std::memcpy(mapping_->data(), &head, sizeof head);
  rings_.resize(options.levels);
  std::byte* first = mapping_->data() + Format::headerBytes + head.sitesBytes;
  for (detail::Ring& ring : rings_) {
    ring.first = ring.cursor = ring.limit = first;  // no room: the first record begins the first block
    ring.blocks = head.blocksPerRing;
    ring.blockBytes = head.blockBytes;
    first += ring.blocks * ring.blockBytes;
  }
  mapping_->publish();
}

Log::~Log() {
  shared(header().closed).store(1, std::memory_order_release);
}

Format::Header& Log::header() const {
  return *reinterpret_cast<Format::Header*>(mapping_->data());
}

std::uint64_t Log::droppedRecords() const {
  return header().droppedRecords;
}
std::uint64_t Log::droppedSites() const {
  return header().droppedSites;
}

std::span<const std::byte> Log::image() const {
  return {mapping_->data(), mapping_->size()};
}

bool Log::adopt(Site& site, const detail::Shape& shape) noexcept {
  std::uint16_t number = 0;
  try {
    number = numberOf(site, shape);
  } catch (const std::bad_alloc&) {
    drop();
    return false;
  }
  if (number == 0) {
    drop();
    return false;
  }
  site.log_ = id_;
  site.word_ = std::uint64_t{number} << Format::siteShift;
  site.ring_ = &rings_[site.level_];
  return true;
}

void Log::drop() noexcept {
  const auto dropped = shared(header().droppedRecords);
  dropped.store(dropped.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

std::uint16_t Log::numberOf(const Site& site, const detail::Shape& shape) {
  const Known now{site.function_, site.file_, site.line_, site.level_, 0};
  const auto [at, isNew] = known_.try_emplace(&site, now);
  Known& known = at->second;
  const bool same = known.function == now.function && known.file == now.file && known.line == now.line &&
                    known.level == now.level;
  if (isNew || !same) {
    known = now;
    known.number = storeSite(site, shape);
  }
  return known.number;
}

std::uint16_t Log::storeSite(const Site& site, const detail::Shape& shape) {
  Format::Header& head = header();
  const std::vector<std::byte> entry = entryOf(site, shape);
  if (site.level_ >= levels() || siteCount_ == Format::maxSites || shape.pieces > 0xffff ||
      entry.size() > head.sitesBytes - head.sitesUsed) {
    const auto dropped = shared(head.droppedSites);
    dropped.store(dropped.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return 0;
  }
  std::copy(entry.begin(), entry.end(), mapping_->data() + Format::headerBytes + head.sitesUsed);
  shared(head.sitesUsed).store(head.sitesUsed + entry.size(), std::memory_order_release);
  return static_cast<std::uint16_t>(++siteCount_);
}

}  // namespace RingLog

#include "Memtab/Segment.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "Memtab/BusError.h"
#include "Memtab/Describe.h"
#include "Memtab/Name.h"

namespace Memtab {
namespace {

std::string reason() {
  return std::strerror(errno);
}

// Never through a link, and without waiting for the other end of what is no file.
int openName(const std::string& name, int flags, mode_t mode = 0) {
  return ::open(pathOf(name).c_str(), flags | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, mode);
}

void checkFile(const std::string& name, int fd, const Files::Owners& owners) {
  struct stat status {};
  ::fstat(fd, &status);
  const std::string against = owners.againstWritten(status);
  if (!S_ISREG(status.st_mode)) {
    throw Error(name, "not a table: it is no regular file");
  }
  if (!against.empty()) {
    throw Error(name, "not to be trusted: it " + against +
                          "; remove it, use another name, or say that its owner is right");
  }
}

// Why the table cannot be opened or removed, and whose it is where that may be the reason.
std::string refusalOf(const std::string& name) {
  const int failure = errno;
  const std::string text = std::strerror(failure);
  struct stat status {};
  return (failure == EACCES || failure == EPERM) && ::lstat(pathOf(name).c_str(), &status) == 0
             ? text + "; it belongs to " + Files::userText(status.st_uid)
         : failure == ELOOP ? "it is a link"
                            : text;
}

std::uint64_t sizeOf(int fd) {
  struct stat status {};
  return ::fstat(fd, &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

// Whether the maker of the table died, or is busy, before it was there for readers: nothing in it counts
// yet. The mark of that is its first word, so that without it all is zero.
bool beingMade(int fd) {
  Format::Header found{};
  const ssize_t bytes = ::pread(fd, static_cast<void*>(&found), sizeof found, 0);
  if (bytes == 0) {
    return true;
  }
  static constexpr Format::Description nothing{};
  const bool untouched = found.state.published.load() == 0 && found.state.usedSlots.load() == 0;
  return bytes == sizeof found && untouched &&
         (found.description.magic == Format::magicBeingMade ||
          std::memcmp(&found.description, &nothing, sizeof nothing) == 0);
}

// Tells the readers of the table open at FD, if it is one, that its name leads elsewhere by now; a damaged
// one may have readers too.
void markRetired(int fd) {
  if (sizeOf(fd) >= sizeof(Format::Header)) {
    void* base = ::mmap(nullptr, sizeof(Format::Header), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (base != MAP_FAILED) {
      auto& header = *static_cast<Format::Header*>(base);
      if (header.description.magic == Format::magic && header.description.version == Format::version) {
        header.state.retired.store(1, std::memory_order_release);
      }
      ::munmap(base, sizeof(Format::Header));
    }
  }
}

}  // namespace

bool remove(const std::string& name) {
  const std::string path = pathOf(name);
  const int fd = openName(name, O_RDWR);
  const bool gone = ::unlink(path.c_str()) == 0;
  const int failure = errno;
  if (fd >= 0) {
    if (gone) {
      markRetired(fd);
    }
    ::close(fd);
  }
  if (!gone && failure != ENOENT) {
    throw Error(name, std::string("cannot be removed: ") + std::strerror(failure));
  }
  ::unlink(successorOf(path).c_str());
  ::unlink(damagedOf(path).c_str());
  return gone;
}

Segment& Segment::operator=(Segment&& other) noexcept {
  Segment taken(std::move(other));
  swap(taken);
  return *this;
}

Segment::~Segment() {
  if (base_ != nullptr) {
    addressesAreGone(base_);
    ::munmap(base_, bytes_);
  }
  close();
}

void Segment::close() {
  if (fd_ >= 0) {
    ::close(std::exchange(fd_, -1));
  }
}

void Segment::swap(Segment& other) noexcept {
  std::swap(name_, other.name_);
  std::swap(base_, other.base_);
  std::swap(bytes_, other.bytes_);
  std::swap(fd_, other.fd_);
  std::swap(adopted_, other.adopted_);
  std::swap(description_, other.description_);
}

void Segment::map(std::size_t bytes, bool writable) {
  void* base = ::mmap(nullptr, bytes, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd_, 0);
  if (base == MAP_FAILED) {
    throw Error(name_, "cannot be mapped, " + std::to_string(bytes) + " bytes: " + reason());
  }
  base_ = static_cast<std::byte*>(base);
  bytes_ = bytes;
  addressesAre(base_, bytes_, name_);
}

void Segment::mapPrivate(std::size_t bytes) {
  void* base =
      ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (base == MAP_FAILED) {
    throw Error(name_, "no address space for " + std::to_string(bytes) + " bytes: " + reason());
  }
  base_ = static_cast<std::byte*>(base);
  bytes_ = bytes;
}

// Returns whether there is a table; one whose maker died makes room for another.
bool Segment::openForWriter(const Options& options) {
  fd_ = openName(options.name, O_RDWR);
  if (fd_ < 0) {
    if (errno == ENOENT) {
      return false;
    }
    throw Error(options.name, "cannot be opened for writing: " + refusalOf(options.name));
  }
  checkFile(options.name, fd_, Files::Owners(options.owner));
  if (!beingMade(fd_)) {
    return true;
  }
  close();
  if (::unlink(pathOf(options.name).c_str()) != 0) {
    throw Error(options.name, "cannot be made again: " + reason());
  }
  return false;
}

Segment Segment::forWriter(const Options& options, Shape shape) {
  Segment segment;
  segment.name_ = options.name;
  segment.description_ = describe(options, shape);
  if (options.name.empty()) {
    segment.mapPrivate(segment.description_.totalBytes);
    segment.make(options);
  } else if (segment.openForWriter(options)) {
    segment.adopt(options, shape);
  } else {
    segment.makeFile(options);
  }
  return segment;
}

Segment Segment::successor(const Options& options, Shape shape) {
  Segment segment;
  segment.name_ = successorOf(options.name);
  segment.description_ = describe(options, shape);
  if (::unlink(pathOf(segment.name_).c_str()) != 0 && errno != ENOENT) {
    throw Error(segment.name_, "cannot be removed, to be made again: " + refusalOf(segment.name_));
  }
  segment.makeFile(options);
  return segment;
}

// At each instant there is a table under the name.
void Segment::takePlaceOf(const std::string& name) {
  const std::string path = pathOf(name);
  const int before = openName(name, O_RDWR);
  ::unlink(damagedOf(path).c_str());
  if (before >= 0 && ::link(path.c_str(), damagedOf(path).c_str()) != 0) {
    static_cast<void>(::rename(path.c_str(), damagedOf(path).c_str()));  // where a file has one name only
  }
  const bool done = ::rename(pathOf(name_).c_str(), path.c_str()) == 0;
  const std::string failure = reason();
  if (before >= 0) {
    if (done) {
      markRetired(before);
    }
    ::close(before);
  }
  if (!done) {
    throw Error(name, "the table that was made in its place cannot be given its name: " + failure);
  }
  name_ = name;
}

void Segment::adopt(const Options& options, Shape shape) {
  const std::uint64_t bytes = sizeOf(fd_);
  readDescription(bytes);
  checkRecords(name_, description_, options.schema, shape);
  map(bytes, true);
  adopted_ = true;
}

void Segment::makeFile(const Options& options) {
  fd_ = openName(name_, O_RDWR | O_CREAT | O_EXCL, options.mode);
  if (fd_ < 0) {
    throw Error(name_, "cannot be made: " + reason());
  }
  if (::ftruncate(fd_, static_cast<off_t>(description_.totalBytes)) != 0) {
    throw Error(name_, "cannot be given " + std::to_string(description_.totalBytes) + " bytes: " + reason());
  }
  map(description_.totalBytes, true);
  make(options);
}

void Segment::make(const Options& options) {
  if (fd_ >= 0) {
    static_cast<void>(::fchmod(fd_, options.mode));
  }
  take(0, sizeof(Format::Header));
  auto& mark = reinterpret_cast<Format::Word&>(header().description.magic);
  mark.store(Format::magicBeingMade, std::memory_order_release);
  take(0, description_.ringAt +
              std::uint64_t{8} * Format::wordsFor(description_.keyBytes) * description_.ringEntries);
  Format::Description rest = description_;
  rest.magic = Format::magicBeingMade;
  header().description = rest;
  take(description_.headsAt, sizeof(Format::Half));
  heads()[0].store(Format::end, std::memory_order_relaxed);
  state().buckets.store(1, std::memory_order_relaxed);
  mark.store(Format::magic, std::memory_order_release);
}

// Takes a copy of the description, and checks that.
void Segment::readDescription(std::uint64_t bytes) {
  Format::Description found{};  // zeros where there is less than that
  static_cast<void>(::pread(fd_, &found, sizeof found, 0) < 0);
  checkDescription(name_, found, bytes);
  description_ = found;
}

Segment Segment::forReader(const std::string& name, const std::string& schema, const Shape* shape,
                           const Files::Owners& owners) {
  Segment segment;
  segment.name_ = name;
  segment.fd_ = openName(name, O_RDONLY);
  if (segment.fd_ < 0) {
    if (errno == ENOENT) {
      return Segment();
    }
    throw Error(name, "cannot be opened for reading: " + refusalOf(name));
  }
  checkFile(name, segment.fd_, owners);
  const std::uint64_t bytes = sizeOf(segment.fd_);
  if (beingMade(segment.fd_)) {
    return Segment();
  }
  segment.readDescription(bytes);
  if (shape != nullptr) {
    checkRecords(name, segment.description(), schema.empty() ? segment.description().schema.data() : schema,
                 *shape);
  }
  segment.map(bytes, false);
  return segment;
}

bool Segment::elsewhere() const {
  struct stat mine {};
  struct stat there {};
  return fd_ >= 0 && ::fstat(fd_, &mine) == 0 &&
         (::lstat(pathOf(name_).c_str(), &there) != 0 || mine.st_dev != there.st_dev ||
          mine.st_ino != there.st_ino);
}

void Segment::take(std::uint64_t from, std::uint64_t bytes) const {
  if (fd_ < 0) {
    return;
  }
  int failure = 0;
  do {
    failure = ::posix_fallocate(fd_, static_cast<off_t>(from), static_cast<off_t>(bytes));
  } while (failure == EINTR);
  if (failure != 0) {
    throw Error(name_, "no memory for " + std::to_string(bytes) + " bytes more: " + std::strerror(failure));
  }
#ifdef MADV_POPULATE_WRITE
  // Many page faults at once cost less than one by one; where the system cannot, they come one by one.
  const std::uint64_t page = from / 4096 * 4096;
  static_cast<void>(::madvise(base_ + page, from + bytes - page, MADV_POPULATE_WRITE));
#endif
}

std::uint64_t Segment::bytesTaken() const {
  struct stat status {};
  return fd_ >= 0 && ::fstat(fd_, &status) == 0 ? static_cast<std::uint64_t>(status.st_blocks) * 512 : bytes_;
}

}  // namespace Memtab

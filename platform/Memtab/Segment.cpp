#include "Memtab/Segment.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "Memtab/Describe.h"

namespace Memtab {
namespace {

std::string reason() {
  return std::strerror(errno);
}

/// "/name" is an object of shm_open; anything with a further slash is a file.
bool isFile(const std::string& name) {
  return name.find('/', 1) != std::string::npos;
}

void checkName(const std::string& name) {
  if (name.size() < 2 || name.front() != '/' || name.back() == '/') {
    throw Error(name, "not a name: \"/name\" or an absolute path is needed");
  }
}

int openName(const std::string& name, int flags, mode_t mode) {
  return isFile(name) ? ::open(name.c_str(), flags | O_CLOEXEC, mode) : ::shm_open(name.c_str(), flags, mode);
}

std::uint64_t sizeOf(int fd) {
  struct stat status {};
  return ::fstat(fd, &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

/// Whether the maker of the table died, or is busy, before its description was whole: nothing in it counts
/// yet. The mark of that is its first word, so that without it all is zero.
bool beingMade(int fd) {
  Format::Description found{};
  const ssize_t bytes = ::pread(fd, &found, sizeof found, 0);
  if (bytes == 0) {
    return true;
  }
  static constexpr Format::Description kNothing{};
  return bytes == sizeof found &&
         (found.magic == Format::kMagicBeingMade || std::memcmp(&found, &kNothing, sizeof found) == 0);
}

/// The lock of the one writer; the system lets go of it when the writer ends, however it ends.
bool lockForWriter(int fd) {
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  return ::fcntl(fd, F_OFD_SETLK, &lock) == 0;
}

/// Tells the readers of the table open at FD, if it is one, that its name leads elsewhere by now.
void markRetired(int fd) {
  if (sizeOf(fd) >= sizeof(Format::Header)) {
    void* base = ::mmap(nullptr, sizeof(Format::Header), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (base != MAP_FAILED) {
      auto& header = *static_cast<Format::Header*>(base);
      if (header.description.magic == Format::kMagic && header.description.version == Format::kVersion) {
        header.state.retired.store(1, std::memory_order_release);
      }
      ::munmap(base, sizeof(Format::Header));
    }
  }
}

}  // namespace

bool remove(const std::string& name) {
  checkName(name);
  const int fd = openName(name, O_RDWR, 0);
  const bool gone = (isFile(name) ? ::unlink(name.c_str()) : ::shm_unlink(name.c_str())) == 0;
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
  return gone;
}

Segment& Segment::operator=(Segment&& other) noexcept {
  Segment taken(std::move(other));
  swap(taken);
  return *this;
}

Segment::~Segment() {
  if (base_ != nullptr) {
    ::munmap(base_, bytes_);
  }
  if (fd_ >= 0) {
    ::close(fd_);
  }
}

void Segment::swap(Segment& other) noexcept {
  std::swap(name_, other.name_);
  std::swap(base_, other.base_);
  std::swap(bytes_, other.bytes_);
  std::swap(fd_, other.fd_);
  std::swap(adopted_, other.adopted_);
}

void Segment::map(std::size_t bytes, bool writable) {
  void* base = ::mmap(nullptr, bytes, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd_, 0);
  if (base == MAP_FAILED) {
    throw Error(name_, "cannot be mapped, " + std::to_string(bytes) + " bytes: " + reason());
  }
  if (base_ != nullptr) {
    ::munmap(base_, bytes_);
  }
  base_ = static_cast<std::byte*>(base);
  bytes_ = bytes;
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

bool Segment::openForWriter(const Options& options) {
  checkName(options.name);
  fd_ = openName(options.name, O_RDWR | O_CREAT, options.mode);
  if (fd_ < 0) {
    throw Error(options.name, "cannot be opened for writing: " + reason());
  }
  if (!lockForWriter(fd_)) {
    throw Error(options.name, "another writer has it");
  }
  if (!unlinked()) {
    return true;
  }
  ::close(std::exchange(fd_, -1));  // removed between opening and locking: the name is free for a new one
  return false;
}

Segment Segment::forWriter(const Options& options, Shape shape) {
  Segment segment;
  segment.name_ = options.name;
  const Format::Description description = describe(options, shape);
  if (options.name.empty()) {
    segment.mapPrivate(description.totalBytes);
    segment.make(options, description);
    return segment;
  }
  while (!segment.openForWriter(options)) {
  }
  if (beingMade(segment.fd_)) {
    if (::ftruncate(segment.fd_, 0) != 0 ||
        ::ftruncate(segment.fd_, static_cast<off_t>(description.totalBytes)) != 0) {
      throw Error(options.name,
                  "cannot be given " + std::to_string(description.totalBytes) + " bytes: " + reason());
    }
    segment.map(description.totalBytes, true);
    segment.make(options, description);
    return segment;
  }
  const std::uint64_t bytes = sizeOf(segment.fd_);
  if (bytes < sizeof(Format::Header)) {
    throw Error(options.name, "not a table: it does not begin with the mark of one");
  }
  segment.map(bytes, true);
  checkDescription(options.name, segment.description(), bytes);
  checkRecords(options.name, segment.description(), options.schema, shape);
  segment.adopted_ = true;
  return segment;
}

void Segment::make(const Options& options, const Format::Description& description) {
  if (fd_ >= 0) {
    static_cast<void>(::fchmod(fd_, options.mode));
  }
  take(0, sizeof(Format::Header));
  auto& mark = reinterpret_cast<Format::Word&>(header().description.magic);
  mark.store(Format::kMagicBeingMade, std::memory_order_release);
  take(0, description.ringAt +
              std::uint64_t{8} * Format::wordsFor(description.keyBytes) * description.ringEntries);
  Format::Description rest = description;
  rest.magic = Format::kMagicBeingMade;
  header().description = rest;
  take(description.headsAt, sizeof(Format::Half));
  heads()[0].store(Format::kEnd, std::memory_order_relaxed);
  state().buckets.store(1, std::memory_order_relaxed);
  mark.store(Format::kMagic, std::memory_order_release);
}

Segment Segment::forReader(const std::string& name, const std::string& schema, const Shape* shape) {
  checkName(name);
  Segment segment;
  segment.name_ = name;
  segment.fd_ = openName(name, O_RDONLY, 0);
  if (segment.fd_ < 0) {
    if (errno == ENOENT) {
      return Segment();
    }
    throw Error(name, "cannot be opened for reading: " + reason());
  }
  const std::uint64_t bytes = sizeOf(segment.fd_);
  if (beingMade(segment.fd_)) {
    return Segment();
  }
  if (bytes < sizeof(Format::Header)) {
    throw Error(name, "not a table: it does not begin with the mark of one");
  }
  segment.map(bytes, false);
  checkDescription(name, segment.description(), bytes);
  if (shape != nullptr) {
    checkRecords(name, segment.description(), schema.empty() ? segment.description().schema.data() : schema,
                 *shape);
  }
  return segment;
}

bool Segment::unlinked() const {
  struct stat status {};
  return fd_ >= 0 && ::fstat(fd_, &status) == 0 && status.st_nlink == 0;
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

#include "RingLog/Mapping.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>
#include <utility>

#include "RingLog/Earlier.h"

namespace RingLog::detail {

namespace {

[[noreturn]] void fail(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), "RingLog: " + what);
}

// A file descriptor, closed at the end of its scope unless it is taken.
struct Descriptor {
  explicit Descriptor(int number) : fd(number) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (fd >= 0) {
      ::close(fd);
    }
  }
  int fd;
};

std::byte* map(int fd, int flags, std::size_t size, const std::string& what) {
  void* const data = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, flags, fd, 0);
  if (data == MAP_FAILED) {
    fail(errno, "cannot map " + what);
  }
  return static_cast<std::byte*>(data);
}

// Makes the file; removes a leftover of the same name, from a process with this number that died here.
int create(const std::string& path) {
  constexpr int flags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  int fd = ::open(path.c_str(), flags, 0640);
  if (fd < 0 && errno == EEXIST && ::unlink(path.c_str()) == 0) {
    fd = ::open(path.c_str(), flags, 0640);
  }
  if (fd < 0) {
    fail(errno, "cannot create " + path);
  }
  return fd;
}

}  // namespace

Mapping Mapping::memory(std::size_t size) {
  return {map(-1, MAP_PRIVATE | MAP_ANONYMOUS, size, "memory for a trace"), size};
}

Mapping Mapping::file(const std::string& path, std::size_t size) {
  const std::string temporary = path + "." + std::to_string(::getpid()) + ".new";
  Descriptor file(create(temporary));
  markLiving(file.fd);
  try {
    if (const int error = ::posix_fallocate(file.fd, 0, static_cast<off_t>(size)); error != 0) {
      fail(error, "cannot allocate " + std::to_string(size) + " bytes for " + temporary);
    }
    Mapping mapping(map(file.fd, MAP_SHARED, size, temporary), size);
    mapping.fd_ = std::exchange(file.fd, -1);
    mapping.path_ = path;
    mapping.temporary_ = temporary;
    return mapping;
  } catch (...) {
    ::unlink(temporary.c_str());
    throw;
  }
}

Mapping::Mapping(Mapping&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)),
      size_(other.size_),
      fd_(std::exchange(other.fd_, -1)),
      path_(std::move(other.path_)),
      temporary_(std::exchange(other.temporary_, {})) {}

Mapping::~Mapping() {
  if (data_ != nullptr) {
    ::munmap(data_, size_);
  }
  if (fd_ >= 0) {
    ::close(fd_);
  }
  if (!temporary_.empty()) {
    ::unlink(temporary_.c_str());
  }
}

void Mapping::publish() {
  if (temporary_.empty()) {
    return;
  }
  keepEarlier(path_);
  if (std::rename(temporary_.c_str(), path_.c_str()) != 0) {
    fail(errno, "cannot rename " + temporary_ + " to " + path_);
  }
  temporary_.clear();
}

}  // namespace RingLog::detail

#include "RingLog/Source.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "RingLog/Reader.h"

namespace RingLog::detail {

namespace {

[[noreturn]] void failTruncated(std::uint64_t at) {
  throw TraceError("truncated: byte " + std::to_string(at) + " is missing");
}

[[noreturn]] void fail(const std::string& path, const std::string& what) {
  throw std::system_error(errno, std::generic_category(), path + ": " + what);
}

}  // namespace

void ImageSource::read(std::uint64_t offset, std::span<std::byte> to) const {
  if (offset > image_.size() || to.size() > image_.size() - offset) {
    failTruncated(image_.size());
  }
  std::copy_n(image_.begin() + static_cast<std::ptrdiff_t>(offset), to.size(), to.begin());
}

FileSource::FileSource(const std::string& path)
    : path_(path), fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {
  if (fd_ < 0) {
    fail(path, "cannot open");
  }
  struct stat status {};
  if (::fstat(fd_, &status) != 0 || !S_ISREG(status.st_mode)) {
    errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    ::close(fd_);
    fail(path, "not a regular file");
  }
  device_ = status.st_dev;
  inode_ = status.st_ino;
}

FileSource::~FileSource() {
  ::close(fd_);
}

std::uint64_t FileSource::size() const {
  struct stat status {};
  return ::fstat(fd_, &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

void FileSource::read(std::uint64_t offset, std::span<std::byte> to) const {
  while (!to.empty()) {
    const ssize_t got = ::pread(fd_, to.data(), to.size(), static_cast<off_t>(offset));
    if (got == 0) {
      failTruncated(offset);
    }
    if (got < 0 && errno != EINTR) {
      fail(path_, "cannot read");
    }
    if (got > 0) {
      to = to.subspan(static_cast<std::size_t>(got));
      offset += static_cast<std::uint64_t>(got);
    }
  }
}

bool FileSource::isStillAt(const std::string& path) const {
  struct stat status {};
  return ::stat(path.c_str(), &status) != 0 || (status.st_dev == device_ && status.st_ino == inode_);
}

}  // namespace RingLog::detail

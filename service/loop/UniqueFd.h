#pragma once

#include <unistd.h>

#include <utility>

namespace Service {

// The one owner of a descriptor, which closes it.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    UniqueFd old(std::exchange(fd_, std::exchange(other.fd_, -1)));
    return *this;
  }
  ~UniqueFd() {
    if (fd_ >= 0) {
      close(fd_);
    }
  }

  // Closes it; there is none afterwards.
  void reset() { *this = UniqueFd(); }
  // -1 if there is none.
  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

}  // namespace Service

#pragma once

#include <cstddef>
#include <string>

namespace RingLog::detail {

// The zeroed memory of a trace, anonymous or of a file. A file's blocks are allocated before it is mapped, so
// that a full disk is an error when the trace is opened and not a fault at some record.
class Mapping {
 public:
  // size: in bytes. Both raise std::system_error with what, where and why.
  static Mapping memory(std::size_t size);
  // path: of the file to make. It is built under a temporary name beside it; publish() gives it its own.
  static Mapping file(const std::string& path, std::size_t size);

  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;
  Mapping(Mapping&& other) noexcept;
  Mapping& operator=(Mapping&&) = delete;
  ~Mapping();  // unmaps; a file that was never published is removed

  // Gives the file its name. A file that has the name is kept under another one first, see keepEarlier(); a
  // process that still writes to it goes on undisturbed. Nothing to do for memory. Raises std::system_error.
  void publish();

  std::byte* data() const { return data_; }
  std::size_t size() const { return size_; }

 private:
  Mapping(std::byte* data, std::size_t size) : data_(data), size_(size) {}

  std::byte* data_;
  std::size_t size_;
  int fd_ = -1;  // open while the file is written to, see markLiving()
  std::string path_;
  std::string temporary_;  // empty once published
};

}  // namespace RingLog::detail

#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace RingLog::detail {

// Where a trace is read from, byte by byte of its format: a file, or an image in memory.
class Source {
 public:
  virtual ~Source() = default;
  virtual std::uint64_t size() const = 0;
  // Fills `to` with the bytes from `offset` on. Raises TraceError when they are not all there.
  virtual void read(std::uint64_t offset, std::span<std::byte> to) const = 0;
};

// An image in memory, which must outlive this.
class ImageSource final : public Source {
 public:
  explicit ImageSource(std::span<const std::byte> image) : image_(image) {}
  std::uint64_t size() const override { return image_.size(); }
  void read(std::uint64_t offset, std::span<std::byte> to) const override;

 private:
  std::span<const std::byte> image_;
};

// A file, read and not mapped: if it is truncated meanwhile, that is an error here and no fault.
class FileSource final : public Source {
 public:
  // Raises std::system_error.
  explicit FileSource(const std::string& path);
  FileSource(const FileSource&) = delete;
  FileSource& operator=(const FileSource&) = delete;
  ~FileSource() override;
  std::uint64_t size() const override;
  void read(std::uint64_t offset, std::span<std::byte> to) const override;

  // Whether `path` still names this very file, or names none at present.
  bool isStillAt(const std::string& path) const;

 private:
  std::string path_;
  int fd_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

}  // namespace RingLog::detail

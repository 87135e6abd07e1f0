#pragma once

#include <cstddef>
#include <span>
#include <string_view>

namespace Ovsdb {

// The bytes that came and were not taken yet, in one piece. It is a mapping of its own that grows by moving
// pages instead of copying them, so that neither the growth to hundreds of megabytes nor the release of
// them is felt as a pause. Memory is given back as its bytes are taken: the buffer holds a quarter more than
// the bytes that are there, and about a megabyte besides.
class ReceiveBuffer {
 public:
  ReceiveBuffer() = default;
  ~ReceiveBuffer();
  ReceiveBuffer(const ReceiveBuffer&) = delete;
  ReceiveBuffer& operator=(const ReceiveBuffer&) = delete;

  // Room for at least `size` bytes behind what is there. Raises std::bad_alloc.
  std::span<char> room(std::size_t size);
  // The first `size` bytes of the room have been written.
  void filled(std::size_t size);
  void append(std::string_view bytes);

  // The bytes that are there; valid until room, append, consume or clear.
  std::string_view unread() const { return {data_ + begin_, end_ - begin_}; }
  // The first `size` unread bytes have been taken.
  void consume(std::size_t size);
  void clear() { consume(end_ - begin_); }
  std::size_t capacity() const { return capacity_; }

 private:
  void grow(std::size_t capacity);
  void release(std::size_t size);

  char* data_ = nullptr;
  std::size_t capacity_ = 0;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
};

}  // namespace Ovsdb

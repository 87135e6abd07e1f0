#include "agent/ovsdb/ReceiveBuffer.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "agent/loop/Fatal.h"

namespace Agent::Ovsdb {

namespace {

constexpr std::size_t smallest = std::size_t{256} * 1024;
// An empty buffer beyond this is given back to the system.
constexpr std::size_t keptWhenEmpty = std::size_t{1024} * 1024;

}  // namespace

ReceiveBuffer::~ReceiveBuffer() {
  if (data_ != nullptr) {
    munmap(data_, capacity_);
  }
}

void ReceiveBuffer::grow(std::size_t capacity) {
  void* const moved =
      data_ == nullptr ? mmap(nullptr, capacity, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)
                       : mremap(data_, capacity_, capacity, MREMAP_MAYMOVE);
  if (moved == MAP_FAILED) {
    throw std::bad_alloc{};
  }
  data_ = static_cast<char*>(moved);
  capacity_ = capacity;
}

std::span<char> ReceiveBuffer::room(std::size_t size) {
  if (capacity_ - end_ < size) {
    const std::size_t there = end_ - begin_;
    // Moving is worth it only while little is there; else the mapping grows at its end.
    if (begin_ > 0 && there <= capacity_ / 4) {
      std::memmove(data_, data_ + begin_, there);
      begin_ = 0;
      end_ = there;
    }
    if (capacity_ - end_ < size) {
      grow(std::max({smallest, capacity_ * 2, (end_ + size + smallest - 1) / smallest * smallest}));
    }
  }
  return {data_ + end_, capacity_ - end_};
}

void ReceiveBuffer::filled(std::size_t size) {
  require(size <= capacity_ - end_, "more bytes were received than there was room for");
  end_ += size;
}

void ReceiveBuffer::append(std::string_view bytes) {
  const std::span<char> space = room(bytes.size());
  std::copy(bytes.begin(), bytes.end(), space.begin());
  filled(bytes.size());
}

void ReceiveBuffer::consume(std::size_t size) {
  require(size <= end_ - begin_, "more bytes are taken than there are");
  begin_ += size;
  if (begin_ < end_) {
    return;
  }
  begin_ = end_ = 0;
  if (capacity_ > keptWhenEmpty) {
    munmap(data_, capacity_);
    data_ = nullptr;
    capacity_ = 0;
  }
}

}  // namespace Agent::Ovsdb

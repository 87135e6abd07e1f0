#include "service/ovsdb/ReceiveBuffer.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "service/loop/Fatal.h"

namespace Ovsdb {

namespace {

// In which the mapping grows, and shrinks at its front: a multiple of any page size.
constexpr std::size_t step = std::size_t{256} * 1024;
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
    // The bytes that were taken and not given back yet are less than a step; moving so many or fewer costs
    // nothing.
    if (begin_ > 0 && there <= step) {
      std::memmove(data_, data_ + begin_, there);
      begin_ = 0;
      end_ = there;
    }
    if (capacity_ - end_ < size) {
      // A quarter more than is needed, so that growth to any size moves each page a few times.
      const std::size_t needed = end_ + size;
      grow((needed + needed / 4 + step - 1) / step * step);
    }
  }
  return {data_ + end_, capacity_ - end_};
}

void ReceiveBuffer::filled(std::size_t size) {
  Service::require(size <= capacity_ - end_, "more bytes were received than there was room for");
  end_ += size;
}

void ReceiveBuffer::append(std::string_view bytes) {
  const std::span<char> space = room(bytes.size());
  std::copy(bytes.begin(), bytes.end(), space.begin());
  filled(bytes.size());
}

void ReceiveBuffer::consume(std::size_t size) {
  Service::require(size <= end_ - begin_, "more bytes are taken than there are");
  begin_ += size;
  if (begin_ == end_) {
    begin_ = end_ = 0;
    if (capacity_ > keptWhenEmpty) {
      release(capacity_);
    }
    return;
  }
  if (const std::size_t taken = begin_ / step * step; taken > 0) {
    release(taken);
    begin_ -= taken;
    end_ -= taken;
  }
}

// Gives the front of the mapping back to the system.
void ReceiveBuffer::release(std::size_t size) {
  munmap(data_, size);
  data_ = size == capacity_ ? nullptr : data_ + size;
  capacity_ -= size;
}

}  // namespace Ovsdb

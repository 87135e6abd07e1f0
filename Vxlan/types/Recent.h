// The last things that happened.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace Vxlan {

// Numbers what happens, from 0, and knows the last so many. Who has seen everything up to a number can catch
// up as long as no more has happened since than is known.
template <class T, std::size_t known>
class Recent {
 public:
  // How many things have happened.
  std::uint64_t count() const noexcept { return count_; }
  void add(const T& what) { last_[count_++ % known] = what; }
  // Whether all that happened since is known.
  bool knows(std::uint64_t since) const noexcept { return count_ - since <= known; }
  // What happened as number `at`, which is known.
  const T& operator[](std::uint64_t at) const { return last_[at % known]; }

 private:
  std::uint64_t count_ = 0;
  std::array<T, known> last_{};
};

}  // namespace Vxlan

#pragma once

#include <algorithm>
#include <cstddef>

namespace Agent::Vtep {

// How many items a turn may still look at, and how many it has looked at.
class Steps {
 public:
  explicit Steps(std::size_t most) : most_(most), left_(most) {}

  std::size_t limit() const { return most_; }
  bool left() const { return left_ > 0; }
  // `items` were looked at. An item that cannot be cut may be larger than what was left.
  void spend(std::size_t items = 1) {
    left_ -= std::min(left_, items);
    spent_ += items;
  }
  std::size_t spent() const { return spent_; }

 private:
  std::size_t most_;
  std::size_t left_;
  std::size_t spent_ = 0;
};

}  // namespace Agent::Vtep

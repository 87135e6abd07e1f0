#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Agent::Vtep {

// A text of a row, such as a name, of which a bounded part is kept and shown. Two of them are equal if they
// were made of the same text, as far as the length and a digest of what is not kept can tell.
class BoundedText {
 public:
  static constexpr std::size_t mostKept = 255;  // bytes

  BoundedText() = default;
  explicit BoundedText(std::string_view text);

  // The first bytes of the text, in whole characters of UTF-8.
  const std::string& kept() const { return kept_; }
  bool cut() const { return length_ > kept_.size(); }
  // The kept part for a terminal or a log, "..." behind it if it was cut. Control characters, marks that
  // change the direction of writing, and what is not UTF-8, are question marks.
  std::string shown() const;
  // The same in double quotes.
  std::string quoted() const { return "\"" + shown() + "\""; }

  friend bool operator==(const BoundedText&, const BoundedText&) = default;
  friend auto operator<=>(const BoundedText&, const BoundedText&) = default;

 private:
  std::string kept_;
  std::size_t length_ = 0;
  std::uint64_t digest_ = 0;  // of a text that was cut
};

}  // namespace Agent::Vtep

#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

namespace Agent::Ovsdb {

// Finds the messages in a stream of JSON objects that follow each other without any mark between (RFC 7047,
// section 4): an object ends where its braces are closed. Each byte is looked at once, however the stream
// is cut; the places of the object's own members are noted on the way, so that a large member can be
// entered without reading over it again.
//
// What cannot be the beginning of a JSON object, a message or a string of more than the size allowed raises
// ProtocolError; the stream is of no use then until reset().
class Framer {
 public:
  struct Member {
    std::string_view name;   // as it is written, with its quotes
    std::string_view value;  // with the white space around it
  };

  // Sizes in bytes.
  explicit Framer(std::size_t largestMessage = defaultMessage, std::size_t largestString = defaultString)
      : largestMessage_(largestMessage), largestString_(largestString) {}

  // `pending` is what has come and was not consumed; it begins with the same bytes as at the last call.
  // Returns whether a whole message is there.
  bool scan(std::string_view pending);
  // Of the whole message at the front of `pending`: its length with the white space before it.
  std::size_t length() const { return scanned_; }
  // Its members in the order in which they stand.
  std::vector<Member> members(std::string_view pending) const;
  // The message has been consumed; the next begins.
  void next();
  // The stream begins anew.
  void reset() { next(); }

  static constexpr std::size_t defaultMessage = std::size_t{512} << 20;
  static constexpr std::size_t defaultString = std::size_t{1} << 20;

 private:
  struct Place {
    std::size_t name;  // behind the brace or comma before the name
    std::size_t colon;
    std::size_t end;
  };

  void outside(std::string_view pending);
  void insideString(std::string_view pending);
  void mark(char c);

  std::size_t largestMessage_;
  std::size_t largestString_;
  std::size_t scanned_ = 0;
  std::size_t stringBegin_ = 0;
  std::size_t depth_ = 0;
  bool inString_ = false;
  bool escaped_ = false;
  bool begun_ = false;
  Place open_{};
  std::vector<Place> places_;
};

}  // namespace Agent::Ovsdb

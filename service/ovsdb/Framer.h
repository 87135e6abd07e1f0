#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "service/json/Text.h"

namespace Ovsdb {

// A number of bytes in words, such as "16 MiB".
std::string bytesInWords(std::size_t bytes);

// Finds the messages in a stream of JSON objects that follow each other without any mark between (RFC 7047,
// section 4): an object ends where its braces are closed. Each byte is looked at once, however the stream
// is cut; the places of the object's own members are noted on the way, so that a large member can be
// entered without reading over it again.
//
// This is the edge of the database's side: whatever reads a message later relies on the limits held here.
// What cannot be the beginning of a JSON object, a message or a string of more than the size allowed, nesting
// beyond deepestJson, more than mostMembers members, and more than mostBetweenMarks bytes of blanks or of one
// number raise ProtocolError as soon as they are seen; the stream is of no use then until reset().
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
  // Of the whole message at the front of `pending`: its length with the white space before it. While none is
  // whole: how many bytes have been looked at.
  std::size_t length() const { return scanned_; }
  // Its members in the order in which they stand.
  std::vector<Member> members(std::string_view pending) const;
  // The message has been consumed; the next begins.
  void next();
  // Begins again with another stream.
  void reset() { next(); }
  // How large a message may be from here on.
  void largestMessageIs(std::size_t bytes) { largestMessage_ = bytes; }

  static constexpr std::size_t defaultMessage = std::size_t{16} << 20;
  static constexpr std::size_t defaultString = std::size_t{1} << 20;
  static constexpr std::size_t mostMembers = 8;
  static constexpr std::size_t mostBetweenMarks = std::size_t{64} << 10;

 private:
  struct Place {
    std::size_t name;  // behind the brace or comma before the name
    std::size_t colon;
    std::size_t end;
  };

  void outside(std::string_view pending);
  void insideString(std::string_view pending);
  void mark(char c);
  void memberEnds(bool last);

  std::size_t largestMessage_;
  std::size_t largestString_;
  std::size_t scanned_ = 0;
  std::size_t stringBegin_ = 0;
  std::size_t gapBegin_ = 0;  // behind the last mark or string
  Service::Nesting nesting_;
  bool inString_ = false;
  bool escaped_ = false;
  bool begun_ = false;
  Place open_{};
  std::vector<Place> places_;
};

}  // namespace Ovsdb

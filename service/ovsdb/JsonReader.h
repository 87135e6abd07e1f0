#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Ovsdb {

// A peer sent a message that the protocol does not allow. The text says where and what.
class ProtocolError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A text from outside as it can be shown in a line: at most `most` bytes of it, what is not printable ASCII
// as question marks.
std::string printable(std::string_view text, std::size_t most = 100);

// Reads a JSON text (RFC 8259) from front to back without building a document, so that a message of many
// megabytes can be taken row by row, with pauses. The text must outlive the reader. Text that is not JSON, or
// is not of the kind asked for, raises ProtocolError with the offset.
//
//   reader.beginObject();
//   while (reader.nextMember(name)) { ... exactly one value ... }
class JsonReader {
 public:
  explicit JsonReader(std::string_view text = {}) : text_(text) {}

  void beginObject() { expect('{'); }
  // Reads the name of the object's next member and leaves the reader before its value; false, past the
  // closing brace, when there is none.
  bool nextMember(std::string& name);
  void beginArray() { expect('['); }
  // Leaves the reader before the next element; false, past the closing bracket, when there is none.
  bool nextElement();

  // A string, unescaped; invalid UTF-8 is refused.
  void string(std::string& out);
  std::string string();
  // An integer that fits 64 bits.
  std::int64_t integer();
  bool boolean();
  // Steps over the null if it is one.
  bool null();
  // Steps over one value of any kind and returns its text.
  std::string_view skip();
  // The same in parts: beginSkip, then skipOn, about so many names and values at a time, until it returns
  // true.
  void beginSkip() { closing_.clear(); }
  bool skipOn(std::size_t most);

  // The first character of the next value or mark; 0 at the end of the text.
  char peek();
  // Whether only white space is left.
  bool atEnd() { return peek() == 0; }
  std::size_t offset() const { return at_; }
  [[noreturn]] void fail(std::string_view why) const;

 private:
  void expect(char mark);
  bool next(char close);
  std::string_view stringToken();
  void skipScalar();

  std::string_view text_;
  std::size_t at_ = 0;
  // Whether the reader stands right behind an opening brace or bracket, where no comma is due.
  bool fresh_ = false;
  std::string closing_;  // of the value that is stepped over: the closing marks that are due
};

}  // namespace Ovsdb

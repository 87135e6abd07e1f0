#include <charconv>
#include <string>

#include "RingLog/Reader.h"

namespace RingLog {

namespace {

template <class Number>
std::string numberText(Number number, auto... format) {
  char text[32];
  const auto result = std::to_chars(text, text + sizeof text, number, format...);
  return {text, result.ptr};
}

std::string hex(unsigned byte) {
  constexpr const char* digits = "0123456789abcdef";
  return {digits[byte >> 4], digits[byte & 15]};
}

struct ToText {
  std::string operator()(bool value) const { return value ? "true" : "false"; }
  std::string operator()(char value) const { return std::string(1, value); }
  std::string operator()(std::uint64_t value) const { return numberText(value); }
  std::string operator()(std::int64_t value) const { return numberText(value); }
  std::string operator()(double value) const { return numberText(value); }
  std::string operator()(Pointer value) const { return "0x" + numberText(value.value, 16); }
  std::string operator()(const std::string& value) const { return value; }
  std::string operator()(const Mac& mac) const {
    std::string text;
    for (const std::uint8_t byte : mac.bytes) {
      text += (text.empty() ? "" : ":") + hex(byte);
    }
    return text;
  }
  std::string operator()(const Ipv4& address) const {
    std::string text;
    for (const std::uint8_t byte : address.bytes) {
      text += (text.empty() ? "" : ".") + std::to_string(byte);
    }
    return text;
  }
};

}  // namespace

std::string toText(const Value& value) {
  return std::visit(ToText{}, value);
}

std::string Place::form() const {
  std::string text;
  for (const Piece& piece : pieces) {
    text += piece.kind == Kind::Literal ? piece.literal : "{}";
  }
  return text;
}

std::string Record::message() const {
  std::string text;
  auto argument = arguments.begin();
  for (const Piece& piece : place->pieces) {
    text += piece.kind == Kind::Literal ? piece.literal : toText(*argument++);
  }
  return text;
}

}  // namespace RingLog

#include "service/ovsdb/JsonReader.h"

#include <algorithm>
#include <charconv>
#include <limits>

#include "service/json/Text.h"

namespace Ovsdb {

namespace {

bool isSpace(char c) {
  return c == ' ' || c == '\n' || c == '\r' || c == '\t';
}

bool endsScalar(char c) {
  return c == ',' || c == ']' || c == '}' || isSpace(c);
}

std::string quoted(char c) {
  if (c == 0) {
    return "the end of the message";
  }
  if (c < 0x20 || c > 0x7e) {
    return "byte " + std::to_string(static_cast<unsigned char>(c));
  }
  return std::string{"'"} + c + "'";
}

}  // namespace

std::string printable(std::string_view text, std::size_t most) {
  std::string line{text.substr(0, most)};
  std::replace_if(
      line.begin(), line.end(), [](char c) { return c < 0x20 || c > 0x7e; }, '?');
  return text.size() > most ? line + "..." : line;
}

void JsonReader::fail(std::string_view why) const {
  throw ProtocolError("at byte " + std::to_string(at_) + ": " + std::string{why});
}

char JsonReader::peek() {
  while (at_ < text_.size() && isSpace(text_[at_])) {
    ++at_;
  }
  return at_ < text_.size() ? text_[at_] : '\0';
}

void JsonReader::expect(char mark) {
  if (peek() != mark) {
    fail("want " + quoted(mark) + ", have " + quoted(peek()));
  }
  ++at_;
  fresh_ = mark == '{' || mark == '[';
}

// Steps over the comma before the next member or element, or over the closing mark.
bool JsonReader::next(char close) {
  const bool first = fresh_;
  fresh_ = false;
  if (peek() == close) {
    ++at_;
    return false;
  }
  if (!first) {
    expect(',');
  }
  return true;
}

bool JsonReader::nextMember(std::string& name) {
  if (!next('}')) {
    return false;
  }
  string(name);
  expect(':');
  return true;
}

bool JsonReader::nextElement() {
  return next(']');
}

// The string with its quotes.
std::string_view JsonReader::stringToken() {
  expect('"');
  const std::size_t begin = at_ - 1;
  while (at_ < text_.size() && text_[at_] != '"') {
    at_ += text_[at_] == '\\' ? std::size_t{2} : std::size_t{1};
  }
  if (at_ >= text_.size()) {
    at_ = text_.size();
    fail("the string does not end");
  }
  ++at_;
  return text_.substr(begin, at_ - begin);
}

void JsonReader::string(std::string& out) {
  const std::string_view token = stringToken();
  const std::string_view inner = token.substr(1, token.size() - 2);
  const bool plain =
      std::none_of(inner.begin(), inner.end(), [](char c) { return c == '\\' || c < 0x20 || c > 0x7e; });
  if (plain) {
    out.assign(inner);
    return;
  }
  try {
    out = Service::parseJson(token).get<std::string>();
  } catch (const Service::BadJson&) {
    fail("the string ending here is not valid JSON in UTF-8");
  }
}

std::string JsonReader::string() {
  std::string out;
  string(out);
  return out;
}

std::int64_t JsonReader::integer() {
  peek();
  std::int64_t value = 0;
  const char* const first = text_.data() + at_;
  const char* const last = text_.data() + text_.size();
  const auto [end, error] = std::from_chars(first, last, value);
  if (error != std::errc{} || (end != last && !endsScalar(*end))) {
    fail("want an integer");
  }
  at_ += static_cast<std::size_t>(end - first);
  return value;
}

bool JsonReader::boolean() {
  peek();
  const bool value = text_.substr(at_).starts_with("true");
  if (!value && !text_.substr(at_).starts_with("false")) {
    fail("want true or false");
  }
  at_ += value ? std::size_t{4} : std::size_t{5};
  return value;
}

bool JsonReader::null() {
  peek();
  if (!text_.substr(at_).starts_with("null")) {
    return false;
  }
  at_ += 4;
  return true;
}

void JsonReader::skipScalar() {
  const std::size_t begin = at_;
  while (at_ < text_.size() && !endsScalar(text_[at_])) {
    ++at_;
  }
  const std::string_view token = text_.substr(begin, at_ - begin);
  try {
    Service::parseJson(token);
  } catch (const Service::BadJson&) {
    at_ = begin;
    fail("want a value");
  }
}

std::string_view JsonReader::skip() {
  peek();
  const std::size_t begin = at_;
  beginSkip();
  while (!skipOn(std::numeric_limits<std::size_t>::max())) {
  }
  return text_.substr(begin, at_ - begin);
}

bool JsonReader::skipOn(std::size_t most) {
  for (; most > 0; --most) {
    const char c = peek();
    if (c == '{' || c == '[') {
      expect(c);
      closing_.push_back(c == '{' ? '}' : ']');
    } else if (c == '"') {
      stringToken();
    } else {
      skipScalar();
    }
    while (!closing_.empty() && !next(closing_.back())) {
      closing_.pop_back();
    }
    if (closing_.empty()) {
      fresh_ = false;
      return true;
    }
    if (closing_.back() == '}') {
      stringToken();
      expect(':');
    }
  }
  return false;
}

}  // namespace Ovsdb

#include "service/ovsdb/Framer.h"

#include <algorithm>
#include <array>

#include "service/ovsdb/JsonReader.h"

namespace Ovsdb {

namespace {

constexpr std::array<bool, 256> marks = [] {
  std::array<bool, 256> table{};
  for (const char c : {'"', '{', '}', '[', ']', ',', ':'}) {
    table[static_cast<unsigned char>(c)] = true;
  }
  return table;
}();

bool isMark(char c) {
  return marks[static_cast<unsigned char>(c)];
}

}  // namespace

std::string bytesInWords(std::size_t bytes) {
  if (bytes % (std::size_t{1} << 20) == 0) {
    return std::to_string(bytes >> 20) + " MiB";
  }
  return bytes % (std::size_t{1} << 10) == 0 ? std::to_string(bytes >> 10) + " KiB"
                                             : std::to_string(bytes) + " bytes";
}

bool Framer::scan(std::string_view pending) {
  while (scanned_ < pending.size()) {
    if (begun_ && nesting_.depth() == 0) {
      return true;
    }
    if (inString_) {
      insideString(pending);
    } else {
      outside(pending);
    }
    if (scanned_ > largestMessage_) {
      throw ProtocolError("a message is larger than the " + bytesInWords(largestMessage_) + " allowed");
    }
  }
  return begun_ && nesting_.depth() == 0;
}

void Framer::insideString(std::string_view pending) {
  while (scanned_ < pending.size()) {
    const char c = pending[scanned_++];
    if (escaped_) {
      escaped_ = false;
    } else if (c == '\\') {
      escaped_ = true;
    } else if (c == '"') {
      inString_ = false;
      gapBegin_ = scanned_;
      break;
    }
  }
  if (scanned_ - stringBegin_ > largestString_) {
    throw ProtocolError("a string is longer than the " + bytesInWords(largestString_) + " allowed");
  }
}

void Framer::outside(std::string_view pending) {
  if (!begun_) {
    const char c = pending[scanned_];
    if (c == ' ' || c == '\n' || c == '\r' || c == '\t') {
      if (++scanned_ > mostBetweenMarks) {
        throw ProtocolError("this is not OVSDB: nothing but white space");
      }
      return;
    }
    if (c != '{') {
      throw ProtocolError("this is not OVSDB: a message begins with byte " +
                          std::to_string(static_cast<unsigned char>(c)) + " instead of '{'");
    }
    begun_ = true;
  }
  // Bounded, so that the size of the message is looked at every so often.
  const std::size_t stop = std::min(pending.size(), scanned_ + 65536);
  while (scanned_ < stop && !isMark(pending[scanned_])) {
    ++scanned_;
  }
  if (scanned_ - gapBegin_ > mostBetweenMarks) {
    throw ProtocolError("more than " + bytesInWords(mostBetweenMarks) + " of white space or of one number");
  }
  if (scanned_ < stop) {
    mark(pending[scanned_]);
    ++scanned_;
    gapBegin_ = scanned_;
  }
}

void Framer::mark(char c) {
  switch (c) {
    case '"':
      inString_ = true;
      stringBegin_ = scanned_;
      return;
    case '{':
    case '[':
      try {
        nesting_.open();
      } catch (const Service::BadJson& error) {
        throw ProtocolError(std::string{"a message is "} + error.what());
      }
      if (nesting_.depth() == 1) {
        open_ = {.name = scanned_ + 1, .colon = 0, .end = 0};
      }
      return;
    case ':':
      if (nesting_.depth() == 1) {
        if (open_.colon > 0) {
          throw ProtocolError("a message is not JSON: a member has two colons");
        }
        open_.colon = scanned_;
      }
      return;
    default:
      break;
  }
  if (nesting_.depth() == 1) {
    memberEnds(c != ',');
  }
  if (c != ',') {
    nesting_.close();
  }
}

void Framer::memberEnds(bool last) {
  if (open_.colon == 0) {
    if (last && places_.empty()) {
      return;  // an empty object
    }
    throw ProtocolError("a message is not JSON: a member has no value");
  }
  if (places_.size() == mostMembers) {
    throw ProtocolError("a message has more than " + std::to_string(mostMembers) + " members");
  }
  open_.end = scanned_;
  places_.push_back(open_);
  open_ = {.name = scanned_ + 1, .colon = 0, .end = 0};
}

std::vector<Framer::Member> Framer::members(std::string_view pending) const {
  std::vector<Member> members;
  members.reserve(places_.size());
  for (const Place& place : places_) {
    std::string_view name = pending.substr(place.name, place.colon - place.name);
    const std::size_t first = name.find('"');
    const std::size_t last = name.rfind('"');
    name = first == last ? std::string_view{} : name.substr(first, last - first + 1);
    members.push_back({name, pending.substr(place.colon + 1, place.end - place.colon - 1)});
  }
  return members;
}

void Framer::next() {
  scanned_ = stringBegin_ = gapBegin_ = 0;
  nesting_ = {};
  inString_ = escaped_ = begun_ = false;
  open_ = {};
  places_.clear();
}

}  // namespace Ovsdb

#include "agent/vtep/BoundedText.h"

#include <algorithm>

namespace Agent::Vtep {

namespace {

unsigned byteAt(std::string_view text, std::size_t at) {
  return static_cast<unsigned char>(text[at]);
}

bool continues(std::string_view text, std::size_t at) {
  return at < text.size() && (byteAt(text, at) & 0xc0U) == 0x80U;
}

// How many bytes a character has that begins so; 0 if none does.
std::size_t lengthOf(unsigned lead) {
  return lead < 0x80                   ? 1
         : lead >= 0xc2 && lead < 0xe0 ? 2
         : lead >> 4 == 0xe            ? 3
         : lead >= 0xf0 && lead < 0xf5 ? 4
                                       : 0;
}

// The character at `at` and its length in bytes; 0 and one byte if there is none in UTF-8.
std::pair<char32_t, std::size_t> characterAt(std::string_view text, std::size_t at) {
  const unsigned lead = byteAt(text, at);
  const std::size_t length = lengthOf(lead);
  if (length <= 1) {
    return {length == 1 ? lead : 0U, 1};
  }
  char32_t code = lead & (0xffU >> (length + 1));
  for (std::size_t more = 1; more < length; ++more) {
    if (!continues(text, at + more)) {
      return {0, 1};
    }
    code = code << 6 | (byteAt(text, at + more) & 0x3fU);
  }
  const bool overlong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
  const bool surrogate = code >= 0xd800 && code < 0xe000;
  return overlong || surrogate || code > 0x10ffff ? std::pair<char32_t, std::size_t>{0, 1}
                                                  : std::pair{code, length};
}

// Whether a terminal shows the character, in its place, and does nothing else.
bool isShown(char32_t code) {
  const auto within = [code](char32_t first, char32_t last) { return code >= first && code <= last; };
  return !within(0, 0x1f) && !within(0x7f, 0x9f) && code != 0x61c && !within(0x200b, 0x200f) &&
         !within(0x2028, 0x202e) && !within(0x2060, 0x206f) && code != 0xfeff && !within(0xfff9, 0xfffb) &&
         !within(0xe0000, 0xe0fff);
}

// FNV-1a, 64 bits.
std::uint64_t digestOf(std::string_view text) {
  std::uint64_t digest = 0xcbf29ce484222325ULL;
  for (const char c : text) {
    digest = (digest ^ static_cast<unsigned char>(c)) * 0x100000001b3ULL;
  }
  return digest;
}

}  // namespace

BoundedText::BoundedText(std::string_view text) : length_(text.size()) {
  std::size_t kept = std::min(text.size(), mostKept);
  if (kept < text.size()) {
    digest_ = digestOf(text);
    // At most three bytes belong to a character that begins before them.
    for (int back = 0; back < 3 && kept > 0 && continues(text, kept); ++back) {
      --kept;
    }
  }
  kept_ = text.substr(0, kept);
}

std::string BoundedText::shown() const {
  std::string out;
  for (std::size_t at = 0; at < kept_.size();) {
    const auto [code, length] = characterAt(kept_, at);
    out += isShown(code) ? kept_.substr(at, length) : "?";
    at += length;
  }
  return cut() ? out + "..." : out;
}

}  // namespace Agent::Vtep

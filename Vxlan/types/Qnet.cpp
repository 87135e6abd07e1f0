#include "Vxlan/types/Qnet.h"

#include <charconv>
#include <ostream>

namespace Qnet {
namespace {

constexpr char hexDigits[] = "0123456789abcdef";

int hexValue(char digit) {
  if (digit >= '0' && digit <= '9') {
    return digit - '0';
  }
  const char lower = static_cast<char>(digit | 0x20);
  return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

}  // namespace

std::optional<EthAddr> EthAddr::parse(std::string_view text) {
  Bytes bytes{};
  if (text.size() != bytes.size() * 3 - 1) {
    return std::nullopt;
  }
  for (std::size_t at = 0; at < bytes.size(); ++at) {
    const int high = hexValue(text[at * 3]);
    const int low = hexValue(text[at * 3 + 1]);
    const bool separated = at + 1 == bytes.size() || text[at * 3 + 2] == ':';
    if (high < 0 || low < 0 || !separated) {
      return std::nullopt;
    }
    bytes[at] = static_cast<std::uint8_t>(high * 16 + low);
  }
  return EthAddr(bytes);
}

std::string EthAddr::text() const {
  std::string text;
  text.reserve(17);
  for (const std::uint8_t byte : bytes_) {
    if (!text.empty()) {
      text += ':';
    }
    text += hexDigits[byte >> 4];
    text += hexDigits[byte & 0xf];
  }
  return text;
}

std::optional<IpAddr> IpAddr::parse(std::string_view text) {
  std::uint32_t value = 0;
  for (int part = 0; part < 4; ++part) {
    const std::size_t dot = text.find('.');
    const std::string_view number = text.substr(0, dot);
    if ((dot == std::string_view::npos) != (part == 3) || number.empty() ||
        (number.size() > 1 && number.front() == '0')) {
      return std::nullopt;
    }
    unsigned octet = 0;
    const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), octet);
    if (error != std::errc() || end != number.data() + number.size() || octet > 255) {
      return std::nullopt;
    }
    value = value << 8 | octet;
    text.remove_prefix(part == 3 ? text.size() : dot + 1);
  }
  return IpAddr(value);
}

std::string IpAddr::text() const {
  std::string text;
  for (int shift = 24; shift >= 0; shift -= 8) {
    text += std::to_string(value_ >> shift & 0xff);
    if (shift > 0) {
      text += '.';
    }
  }
  return text;
}

std::string IpGenAddr::text() const {
  switch (family_) {
    case Family::V4:
      return v4().text();
    case Family::V6: {
      std::string text;
      for (std::size_t at = 0; at < bytes_.size(); ++at) {
        if (at > 0 && at % 2 == 0) {
          text += ':';
        }
        text += hexDigits[bytes_[at] >> 4];
        text += hexDigits[bytes_[at] & 0xf];
      }
      return text;
    }
    case Family::None:
      break;
  }
  return "none";
}

std::ostream& operator<<(std::ostream& stream, const EthAddr& address) {
  return stream << address.text();
}
std::ostream& operator<<(std::ostream& stream, const IpAddr& address) {
  return stream << address.text();
}
std::ostream& operator<<(std::ostream& stream, const IpGenAddr& address) {
  return stream << address.text();
}
std::ostream& operator<<(std::ostream& stream, const IntfId& intf) {
  return stream << intf.text();
}

}  // namespace Qnet

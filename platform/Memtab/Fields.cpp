#include "Memtab/Fields.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>
#include <utility>

#include "Memtab/Error.h"

namespace Memtab {
namespace {

struct KindName {
  std::string_view name;
  Field::Kind kind;
  std::size_t bytes;  // 0: as many as written in brackets
};

constexpr std::array<KindName, 11> kinds{{{"u8", Field::Kind::U8, 1},
                                          {"u16", Field::Kind::U16, 2},
                                          {"u32", Field::Kind::U32, 4},
                                          {"u64", Field::Kind::U64, 8},
                                          {"f64", Field::Kind::F64, 8},
                                          {"mac", Field::Kind::Mac, 6},
                                          {"ipv4", Field::Kind::Ipv4, 4},
                                          {"ipv4n", Field::Kind::Ipv4n, 4},
                                          {"vlan", Field::Kind::Vlan, 2},
                                          {"text", Field::Kind::Text, 0},
                                          {"pad", Field::Kind::Pad, 0}}};

// "text[16]" into its kind and size; nothing when it is neither.
std::optional<std::pair<Field::Kind, std::size_t>> parseKind(std::string_view text) {
  std::size_t size = 0;
  const std::size_t bracket = text.find('[');
  if (bracket != std::string_view::npos) {
    const char* end = text.data() + text.size();
    const auto [stop, failure] = std::from_chars(text.data() + bracket + 1, end, size);
    if (failure != std::errc{} || end - stop != 1 || *stop != ']' || size == 0) {
      return std::nullopt;
    }
    text = text.substr(0, bracket);
  }
  const auto* known =
      std::find_if(kinds.begin(), kinds.end(), [&](const KindName& k) { return k.name == text; });
  if (known == kinds.end() || (known->bytes == 0) != (size != 0)) {
    return std::nullopt;
  }
  return std::pair{known->kind, known->bytes + size};
}

Field parseField(const std::string& table, std::string_view text) {
  const std::size_t colon = text.find(':');
  const std::string_view name = colon == std::string_view::npos ? std::string_view() : text.substr(0, colon);
  const auto kind = parseKind(colon == std::string_view::npos ? text : text.substr(colon + 1));
  if (!kind) {
    throw Error(table, "field description: no kind in \"" + std::string(text) + "\"");
  }
  if (name.empty() && kind->first != Field::Kind::Pad) {
    throw Error(table, "field description: no name in \"" + std::string(text) + "\"");
  }
  return Field{std::string(name), kind->first, true, 0, kind->second};
}

}  // namespace

std::vector<Field> parseFields(const std::string& table, std::string_view text, std::size_t keyBytes,
                               std::size_t valueBytes) {
  std::vector<Field> fields;
  std::size_t at = 0;
  while (!text.empty()) {
    const std::size_t comma = std::min(text.find(','), text.size());
    Field field = parseField(table, text.substr(0, comma));
    text.remove_prefix(std::min(comma + 1, text.size()));
    field.ofKey = at < keyBytes;
    field.at = field.ofKey ? at : at - keyBytes;
    at += field.bytes;
    if (field.ofKey && at > keyBytes) {
      throw Error(table, "field description: \"" + field.name + "\" reaches over the end of the key");
    }
    fields.push_back(std::move(field));
  }
  if (at != keyBytes + valueBytes) {
    throw Error(table, "field description: it covers " + std::to_string(at) + " bytes, a record has " +
                           std::to_string(keyBytes + valueBytes));
  }
  return fields;
}

}  // namespace Memtab

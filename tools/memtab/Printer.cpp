#include "Printer.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <signal.h>

#include <algorithm>
#include <cstring>
#include <string_view>

namespace {

using nlohmann::ordered_json;
using Kind = Memtab::Field::Kind;

template <class T>
T as(const std::byte* from) {
  T value;
  std::memcpy(&value, from, sizeof value);
  return value;
}

unsigned byteAt(const std::byte* from, std::size_t at) {
  return std::to_integer<unsigned>(from[at]);
}

std::string hex(const std::byte* from, std::size_t bytes) {
  std::string text;
  for (std::size_t i = 0; i < bytes; ++i) {
    text += fmt::format("{:02x}", byteAt(from, i));
  }
  return text;
}

std::string mac(const std::byte* from) {
  return fmt::format("{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", byteAt(from, 0), byteAt(from, 1),
                     byteAt(from, 2), byteAt(from, 3), byteAt(from, 4), byteAt(from, 5));
}

std::string ipv4(std::uint32_t address) {
  return fmt::format("{}.{}.{}.{}", address >> 24U, address >> 16U & 255U, address >> 8U & 255U,
                     address & 255U);
}

std::uint32_t asWritten(const std::byte* from) {
  return byteAt(from, 0) << 24U | byteAt(from, 1) << 16U | byteAt(from, 2) << 8U | byteAt(from, 3);
}

std::string text(const std::byte* from, std::size_t bytes) {
  const std::string_view all(reinterpret_cast<const char*>(from), bytes);
  return std::string(all.substr(0, all.find('\0')));
}

ordered_json valueOf(const Memtab::Field& field, const std::byte* from) {
  switch (field.kind) {
    case Kind::U8:
      return byteAt(from, 0);
    case Kind::U16:
    case Kind::Vlan:
      return as<std::uint16_t>(from);
    case Kind::U32:
      return as<std::uint32_t>(from);
    case Kind::U64:
      return as<std::uint64_t>(from);
    case Kind::F64:
      return as<double>(from);
    case Kind::Mac:
      return mac(from);
    case Kind::Ipv4:
      return ipv4(asWritten(from));
    case Kind::Ipv4n:
      return ipv4(as<std::uint32_t>(from));
    case Kind::Text:
      return text(from, field.bytes);
    case Kind::Pad:
      break;
  }
  return {};
}

std::string writerOf(const Memtab::Format::State& state) {
  const std::uint32_t pid = state.writerPid.load();
  if (pid == 0) {
    return "none";
  }
  const bool runs = ::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
  return fmt::format("{} {}", runs ? "process" : "dead process", pid);
}

}  // namespace

ordered_json toJson(const Source& source, bool keyOnly) {
  ordered_json json = ordered_json::object();
  if (source.fields().empty()) {
    json["key"] = hex(source.key(), source.keyBytes());
    if (!keyOnly) {
      json["value"] = hex(source.value(), source.valueBytes());
    }
  }
  for (const Memtab::Field& field : source.fields()) {
    if (field.kind != Kind::Pad && (field.ofKey || !keyOnly)) {
      json[field.name] = valueOf(field, (field.ofKey ? source.key() : source.value()) + field.at);
    }
  }
  return json;
}

std::string toText(const Source& source, bool keyOnly) {
  const ordered_json json = toJson(source, keyOnly);
  std::string text;
  for (const auto& [name, value] : json.items()) {
    text += (text.empty() ? "" : " ") + name + "=";
    text += value.is_string() ? value.get<std::string>() : line(value);
  }
  return text;
}

std::string line(const ordered_json& json) {
  return json.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
}

ordered_json infoOf(Source& source) {
  const Memtab::Segment& segment = source.segment();
  const Memtab::Format::Description& d = segment.description();
  const Memtab::Format::State& state = segment.state();
  return {
      {"name", source.name()},
      {"schema", d.schema.data()},
      {"fields", d.fields.data()},
      {"format", d.version},
      {"generation", fmt::format("{:016x}", d.generation)},
      {"created", fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(static_cast<std::time_t>(d.createdAt)))},
      {"writer", writerOf(state)},
      {"turn", state.published.load()},
      {"changes", state.publishedChanges.load()},
      {"records", state.publishedRecords.load()},
      {"limit", d.limit},
      {"keyBytes", d.keyBytes},
      {"valueBytes", d.valueBytes},
      {"slotBytes", d.slotBytes},
      {"slotsUsed", state.usedSlots.load()},
      {"bucketHeads", state.buckets.load()},
      {"changesRemembered", d.ringEntries - 1},
      {"memoryBytes", segment.bytesTaken()}};
}

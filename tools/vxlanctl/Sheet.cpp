#include "tools/vxlanctl/Sheet.h"

#include <fmt/format.h>

#include <algorithm>
#include <numeric>
#include <ostream>

#include "Vxlan/types/Qnet.h"

namespace Vxlanctl {

namespace {

using nlohmann::json;

bool lessThan(const json& left, const json& right) {
  if (left.is_string() && right.is_string()) {
    const auto leftAddress = Qnet::IpAddr::parse(left.get_ref<const std::string&>());
    const auto rightAddress = Qnet::IpAddr::parse(right.get_ref<const std::string&>());
    if (leftAddress && rightAddress) {
      return *leftAddress < *rightAddress;
    }
  }
  return left < right;
}

bool hasText(const json& value, const std::string& text) {
  if (value.is_array()) {
    return std::any_of(value.begin(), value.end(), [&](const json& each) { return cellText(each) == text; });
  }
  return cellText(value) == text;
}

}  // namespace

std::string cellText(const json& value) {
  if (value.is_null() || (value.is_string() && value.get_ref<const std::string&>().empty())) {
    return "-";
  }
  if (value.is_boolean()) {
    return value.get<bool>() ? "yes" : "no";
  }
  if (value.is_array()) {
    std::string text;
    for (const json& each : value) {
      text += (text.empty() ? "" : ", ") + cellText(each);
    }
    return text.empty() ? "-" : text;
  }
  if (value.is_number_float()) {
    return fmt::format("{:.3f}", value.get<double>());  // seconds; the milliseconds are enough for a reader
  }
  std::string text = value.is_string() ? value.get<std::string>() : value.dump();
  std::ranges::replace_if(
      text, [](unsigned char c) { return c < 0x20 || c == 0x7f; }, '?');
  return text;
}

void Sheet::add(json row) {
  shown_.push_back(rows_.size());
  rows_.push_back(std::move(row));
}

void Sheet::rowsAre(std::size_t count, std::function<json(std::size_t)> rowAt) {
  rowAt_ = std::move(rowAt);
  shown_.resize(count);
  std::iota(shown_.begin(), shown_.end(), std::size_t{0});
}

void Sheet::sortBy(const std::vector<std::string>& members) {
  std::stable_sort(rows_.begin(), rows_.end(), [&](const json& left, const json& right) {
    for (const std::string& member : members) {
      if (lessThan(left.at(member), right.at(member))) {
        return true;
      }
      if (lessThan(right.at(member), left.at(member))) {
        return false;
      }
    }
    return false;
  });
}

void Sheet::keep(const std::map<std::string, std::string>& filters) {
  if (filters.empty()) {
    return;
  }
  std::erase_if(shown_, [&](std::size_t at) {
    const json each = row(at);
    return !std::all_of(filters.begin(), filters.end(),
                        [&](const auto& filter) { return hasText(each.at(filter.first), filter.second); });
  });
}

void Sheet::printText(std::ostream& out) const {
  std::vector<std::size_t> widths;
  for (const Column& column : columns_) {
    widths.push_back(column.header.size());
  }
  for (const std::size_t at : shown_) {
    const json each = row(at);
    for (std::size_t i = 0; i < columns_.size(); ++i) {
      widths[i] = std::max(widths[i], cellText(each.at(columns_[i].member)).size());
    }
  }
  const auto print = [&](auto cellOf) {
    std::string line;
    for (std::size_t i = 0; i < columns_.size(); ++i) {
      const std::string cell = cellOf(columns_[i]);
      const std::string padding(widths[i] - cell.size(), ' ');
      line += (i == 0 ? "" : "  ") + (columns_[i].right ? padding + cell : cell + padding);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    out << line << '\n';
  };
  print([](const Column& column) { return column.header; });
  for (const std::size_t at : shown_) {
    print([each = row(at)](const Column& column) { return cellText(each.at(column.member)); });
  }
}

void Sheet::printJson(std::ostream& out) const {
  const char* separator = "[\n ";
  for (const std::size_t at : shown_) {
    out << separator << row(at).dump(-1, ' ', false, json::error_handler_t::replace);
    separator = ",\n ";
  }
  out << (shown_.empty() ? "[]\n" : "\n]\n");
}

}  // namespace Vxlanctl

#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/vtep/BoundedText.h"
#include "agent/vtep/Schema.h"

namespace Agent::Vtep {

// How the cells of a row's event become the values of the row. Each assign operation returns whether the
// value is another one now.

// Whether the row is to hold the cell's value: of a row that is whole, a column that was left out has its
// default value, which is that of an empty cell.
inline bool says(const Ovsdb::RowEvent& event, std::size_t column) {
  return event.change == Ovsdb::RowChange::present || event.cells[column].present;
}

template <typename Value>
bool assign(Value& to, Value value) {
  if (to == value) {
    return false;
  }
  to = std::move(value);
  return true;
}

// Sets come whole, or as the elements that came or went.
template <typename Element>
bool assignSet(std::set<Element>& to, const std::vector<Element>& elements, Ovsdb::RowChange change) {
  if (change == Ovsdb::RowChange::present) {
    return assign(to, std::set<Element>(elements.begin(), elements.end()));
  }
  for (const Element& element : elements) {
    if (to.erase(element) == 0) {
      to.insert(element);
    }
  }
  return !elements.empty();
}

// Maps come whole, or as the pairs that came, went (their value is the old one) or have a new value.
template <typename Key, typename Value>
bool assignMap(std::map<Key, Value>& to, const std::vector<std::pair<Key, Value>>& pairs,
               Ovsdb::RowChange change) {
  if (change == Ovsdb::RowChange::present) {
    return assign(to, std::map<Key, Value>(pairs.begin(), pairs.end()));
  }
  for (const auto& [key, value] : pairs) {
    const auto known = to.find(key);
    if (known != to.end() && known->second == value) {
      to.erase(known);
    } else {
      to[key] = value;
    }
  }
  return !pairs.empty();
}

// The same for one key of a map, of which the others are not kept.
inline bool assignKey(std::optional<BoundedText>& to, std::string_view key,
                      const std::vector<std::pair<std::string, std::string>>& pairs,
                      Ovsdb::RowChange change) {
  std::optional<BoundedText> value = change == Ovsdb::RowChange::present ? std::nullopt : to;
  for (const auto& [name, text] : pairs) {
    if (name == key) {
      value = value == BoundedText(text) ? std::nullopt : std::optional{BoundedText(text)};
    }
  }
  return assign(to, std::move(value));
}

inline std::vector<BoundedText> boundedTexts(const std::vector<std::string>& texts) {
  std::vector<BoundedText> bounded;
  bounded.reserve(texts.size());
  for (const std::string& text : texts) {
    bounded.emplace_back(text);
  }
  return bounded;
}

}  // namespace Agent::Vtep

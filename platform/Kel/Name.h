// The framework's string types.
#pragma once

#include <compare>
#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

#include "Kel/Export.h"

namespace Kel {

// Ordinary text, under the name that programs use for it.
using String = std::string;

// The name of a directory entry, or another text that serves as a key. Names are interned: equal names share
// one text for the life of the process, so that a name is copied, compared for equality and hashed as a
// pointer, and travels in the notification queue like any other small key. Order is that of the text. Meant
// for names of which there is a bounded number (interfaces, VNIs), and for the activity thread only.
class Name {
 public:
  // The empty name.
  Name() noexcept = default;
  KEL_API explicit Name(std::string_view text);

  const std::string& text() const noexcept { return text_ != nullptr ? *text_ : emptyText(); }
  bool empty() const noexcept { return text_ == nullptr; }

  bool operator==(const Name&) const noexcept = default;
  std::strong_ordering operator<=>(const Name& other) const noexcept {
    return text_ == other.text_ ? std::strong_ordering::equal : text() <=> other.text();
  }

 private:
  friend struct std::hash<Name>;
  KEL_API static const std::string& emptyText();

  const std::string* text_ = nullptr;  // null: the empty name
};

KEL_API std::ostream& operator<<(std::ostream& stream, const Name& name);

}  // namespace Kel

template <>
struct std::hash<Kel::Name> {
  std::size_t operator()(const Kel::Name& name) const noexcept {
    return std::hash<const std::string*>{}(name.text_);
  }
};

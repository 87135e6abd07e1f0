#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Memtab/Export.h"
#include "Memtab/Segment.h"

namespace Memtab {

// A reader's hold on whatever table is under a name: none yet, the one it found, or, after that one was
// removed and made again, its successor.
class MEMTAB_API Attachment {
 public:
  // To the table NAME of records with SCHEMA and SHAPE; an empty schema and no shape take any. It belongs to
  // one of OWNERS.
  Attachment(std::string name, std::string schema, std::optional<Segment::Shape> shape,
             const Files::Owners& owners = Files::Owners());
  // To a segment of this process that outlives this.
  explicit Attachment(const Segment& own) : own_(&own) {}

  // Cheap enough for each lookup: whether the name must be looked up again. A removal by other means than
  // Memtab::remove() is noticed every few hundred times.
  bool outdated() {
    if (own_ != nullptr) {
      return false;
    }
    return !segment_ || segment_.state().retired.load(std::memory_order_relaxed) != 0 ||
           (++uses_ % usesBetweenLooks == 0 && segment_.elsewhere());
  }
  // As outdated(), and looks at the system at once.
  bool outdatedForSure();

  // Looks the name up again. True when that led to another segment than before; while there is none the old
  // one stays. Raises Error when the new one is not for this reader.
  bool renew();

  const Segment* segment() const { return own_ != nullptr ? own_ : segment_ ? &segment_ : nullptr; }

 private:
  static constexpr std::uint32_t usesBetweenLooks = 256;

  std::string name_;
  std::string schema_;
  std::optional<Segment::Shape> shape_;
  Files::Owners owners_;
  Segment segment_;
  const Segment* own_ = nullptr;
  std::uint32_t uses_ = 0;
};

}  // namespace Memtab

#include "Memtab/Attachment.h"

#include <utility>

namespace Memtab {

Attachment::Attachment(std::string name, std::string schema, std::optional<Segment::Shape> shape,
                       const Files::Owners& owners)
    : name_(std::move(name)), schema_(std::move(schema)), shape_(shape), owners_(owners) {
  static_cast<void>(renew());
}

bool Attachment::outdatedForSure() {
  return own_ == nullptr &&
         (!segment_ || segment_.state().retired.load(std::memory_order_relaxed) != 0 || segment_.elsewhere());
}

bool Attachment::renew() {
  if (segment_ && !segment_.elsewhere()) {
    return false;  // removed, and nothing new there yet; or only marked so, by damage
  }
  Segment found = Segment::forReader(name_, schema_, shape_ ? &*shape_ : nullptr, owners_);
  if (!found) {
    return false;
  }
  segment_ = std::move(found);
  return true;
}

}  // namespace Memtab

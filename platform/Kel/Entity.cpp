#include "Kel/Entity.h"

namespace Kel {

std::uint64_t detail::collectionVersions = 0;

Entity::~Entity() = default;

void Entity::add(Reactor& reactor) const noexcept {
  reactor.previous_ = last_;
  (last_ == nullptr ? first_ : last_->next_) = &reactor;
  last_ = &reactor;
  ++followers_;
}

void Entity::remove(Reactor& reactor) const noexcept {
  (reactor.previous_ == nullptr ? first_ : reactor.previous_->next_) = reactor.next_;
  (reactor.next_ == nullptr ? last_ : reactor.next_->previous_) = reactor.previous_;
  reactor.next_ = reactor.previous_ = nullptr;
  --followers_;
}

}  // namespace Kel

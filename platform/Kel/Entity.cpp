#include "Kel/Entity.h"

#include <algorithm>

namespace Kel {

Reactor::~Reactor() {
  if (notifier_) {
    notifier_->remove(*this);
  }
}

void Reactor::bind(Ptr<const Entity> notifier) {
  if (notifier_ == notifier) {
    return;
  }
  if (notifier_) {
    notifier_->remove(*this);
  }
  ++binding_;
  notifier_ = std::move(notifier);
  if (notifier_) {
    notifier_->add(*this);
    if (active_) {
      countAsBound();
    }
  }
}

void Reactor::countAsBound() {
  if (!notifier_) {
    return;
  }
  ActivityLoop::instance().asHandler([&] {
    const Ptr<Reactor> self(this);
    const Ptr<const Entity> notifier = notifier_;
    Attributes list([&](const char*, const AttributeBase& attribute) { attribute.countAsChanged(*this); });
    notifier->attributes(list);
  });
}

Entity::~Entity() = default;

void Entity::remove(Reactor& reactor) const noexcept {
  std::erase(reactors_, &reactor);
}

}  // namespace Kel

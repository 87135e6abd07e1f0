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
    const Ptr<const Entity> notifier = self->notifier_;
    const std::uint32_t binding = binding_;
    // What is called at once comes last (and is heard first), so that what it throws leaves nothing unqueued,
    // and no further when it binds to another entity, which counts for itself.
    for (const bool atOnce : {false, true}) {
      Attributes list([&](const char*, const AttributeBase& attribute) {
        if (attribute.calledAtOnce() == atOnce && binding == binding_) {
          attribute.countAsChanged(*this);
        }
      });
      notifier->attributes(list);
    }
  });
}

Entity::~Entity() = default;

void Entity::remove(Reactor& reactor) const noexcept {
  std::erase(reactors_, &reactor);
}

}  // namespace Kel

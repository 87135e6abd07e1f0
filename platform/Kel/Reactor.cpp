#include "Kel/Reactor.h"

#include "Kel/Activity.h"
#include "Kel/Entity.h"

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
    if (hasNotificationActive()) {
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
    // Queue the deferred callbacks first, then run the immediate ones, so that an exception cannot skip
    // queuing. Stop when a callback binds the reactor to another entity: that binding counts for itself.
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

}  // namespace Kel

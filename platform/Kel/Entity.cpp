#include "Kel/Entity.h"

#include <algorithm>

namespace Kel {

Entity::~Entity() = default;

void Entity::remove(Reactor& reactor) const noexcept {
  std::erase(reactors_, &reactor);
}

}  // namespace Kel

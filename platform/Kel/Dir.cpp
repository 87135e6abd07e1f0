#include "Kel/Dir.h"

namespace Kel {

void Dir::entryIs(const Name& name) {
  if (!entityPtr_.contains(name)) {
    entityPtr_.is(name, nullptr);
  }
}

void Dir::entityPtrIs(const Name& name, Ptr<Entity> entity) {
  if (!entity) {
    throwNullParameter("Kel::Dir", "entityPtr");
  }
  entityPtr_.is(name, std::move(entity));
}

void Dir::entryDel(const Name& name) {
  entityPtr_.del(name);
}

}  // namespace Kel

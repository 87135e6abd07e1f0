// Directories of entities.
#pragma once

#include "Kel/Entity.h"

namespace Kel {

// A directory: entries by name, each absent, announced (the entry is there, its entity is not yet) or
// instantiated. Every transition notifies. Entries are walked in the order of their names.
class KEL_API Dir final : public Entity {
 public:
  enum class EntryState { Absent, Announced, Instantiated };

  struct Reactor : Kel::Reactor {
    // The entry of this name was announced, instantiated, replaced or removed.
    virtual void onEntityPtr(Name) {}
    // The directory as a whole changed; called at once.
    virtual void onEntityPtrkelImmediate() {}
  };

  EntryState entryState(const Name& name) const {
    const Ptr<Entity>* entity = entityPtr_.find(name);
    if (entity == nullptr) {
      return EntryState::Absent;
    }
    return *entity ? EntryState::Instantiated : EntryState::Announced;
  }
  bool hasEntry(const Name& name) const { return entityPtr_.contains(name); }
  // The instantiated entity of the entry, or none.
  Ptr<Entity> entityPtr(const Name& name) const { return entityPtr_.get(name); }
  std::size_t entries() const noexcept { return entityPtr_.size(); }

  // Announces an entry; one that is there already stays as it is.
  void entryIs(const Name& name);
  // Instantiates an entry, or replaces its entity. Null is refused with the range error.
  void entityPtrIs(const Name& name, Ptr<Entity> entity);
  // Removes an entry; an absent one is no error.
  void entryDel(const Name& name);
  void entryDelAll() { entityPtr_.delAll(); }

  auto begin() const { return entityPtr_.begin(); }
  auto end() const { return entityPtr_.end(); }

  const char* typeName() const override { return "Kel::Dir"; }
  void attributes(Attributes& list) const override { list("entityPtr", entityPtr_); }

 private:
  Collection<OrderedTable, Name, Ptr<Entity>, &Reactor::onEntityPtr, &Reactor::onEntityPtrkelImmediate>
      entityPtr_{*this};
};

}  // namespace Kel

// The state database: the named tree in which entities are mounted.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include "Kel/Dir.h"
#include "Kel/Entity.h"

namespace Entdb {

// A tree of named entities, embedded and in process. Folders are Kel::Dir entities; what is mounted in them
// is found by its path, "/vxlan/status/vtiStatusDir", and every entity below that, in any attribute, has a
// printable path as well. A program keeps one database and hands its entities to the machines that follow
// them.
class KEL_API Database {
 public:
  Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  // The root folder.
  const Kel::Ptr<Kel::Dir>& root() const noexcept { return root_; }

  // The entity of type E at this path, made (from the arguments) if there is none; folders on the way are
  // made as well. A path is absolute and has no empty names; std::invalid_argument says what is wrong with
  // one. An entity of another type that is there raises the name-in-use error.
  template <class E, class... Args>
  Kel::Ptr<E> mount(std::string_view path, Args&&... args) {
    const Place place = placeOf(path);
    if (const Kel::Ptr<Kel::Entity> present = place.folder->entityPtr(place.name)) {
      auto typed = Kel::ptrCast<E>(present);
      if (!typed) {
        otherType(path, *present);
      }
      return typed;
    }
    auto entity = Kel::make<E>(std::forward<Args>(args)...);
    place.folder->entityPtrIs(place.name, entity);
    return entity;
  }
  // Enters an entity that exists, in place of what is there.
  void mountIs(std::string_view path, Kel::Ptr<Kel::Entity> entity);
  // Takes the entity at this path, with all below it, out of the database; an absent one is no error.
  void unmount(std::string_view path);

  // The entity that is mounted at this path, or none.
  Kel::Ptr<Kel::Entity> at(std::string_view path) const;
  template <class E>
  Kel::Ptr<E> at(std::string_view path) const {
    return Kel::ptrCast<E>(at(path));
  }

  // Calls back with every entity that is in the database and its path, parents before children, names
  // ascending.
  void each(const std::function<void(const std::string& path, const Kel::Entity& entity)>& call) const;

 private:
  struct Place {
    Kel::Ptr<Kel::Dir> folder;
    Kel::Name name;
  };
  Place placeOf(std::string_view path);
  [[noreturn]] static void otherType(std::string_view path, const Kel::Entity& present);

  Kel::Ptr<Kel::Dir> root_;
};

// The printable path of an entity: the names from its root down, those of a folder's entries as they are,
// those of other attributes as "attribute" or "attribute[key]". An entity that nobody holds is "(unmounted)".
KEL_API std::string pathOf(const Kel::Entity& entity);

}  // namespace Entdb

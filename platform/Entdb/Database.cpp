#include "Entdb/Database.h"

#include <stdexcept>
#include <vector>

namespace Entdb {
namespace {

// The names of an absolute path.
std::vector<std::string_view> namesOf(std::string_view path) {
  if (path.empty() || path.front() != '/') {
    throw std::invalid_argument("path \"" + std::string(path) + "\" does not begin with a slash");
  }
  std::vector<std::string_view> names;
  for (std::size_t at = 1; at <= path.size();) {
    const std::size_t slash = std::min(path.find('/', at), path.size());
    if (slash == at) {
      throw std::invalid_argument("path \"" + std::string(path) + "\" has an empty name at character " +
                                  std::to_string(at + 1));
    }
    names.push_back(path.substr(at, slash - at));
    at = slash + 1;
  }
  return names;
}

// How a child is called in its parent's path.
std::string step(const Kel::Entity& parent, const char* attribute, const std::string& key) {
  if (dynamic_cast<const Kel::Dir*>(&parent) != nullptr) {
    return key;
  }
  return key.empty() ? attribute : std::string(attribute) + '[' + key + ']';
}

void eachChild(const Kel::Entity& parent,
               const std::function<void(const std::string& step, const Kel::Entity& child)>& call) {
  Kel::Attributes list([&](const char* name, const Kel::AttributeBase& attribute) {
    attribute.each([&](const std::string& key, const std::string&, const Kel::Entity* child) {
      if (child != nullptr) {
        call(step(parent, name, key), *child);
      }
    });
  });
  parent.attributes(list);
}

void walk(const std::string& path, const Kel::Entity& entity,
          const std::function<void(const std::string&, const Kel::Entity&)>& call) {
  eachChild(entity, [&](const std::string& name, const Kel::Entity& child) {
    const std::string childPath = path + '/' + name;
    call(childPath, child);
    walk(childPath, child, call);
  });
}

}  // namespace

Database::Database() : root_(Kel::make<Kel::Dir>()) {}

Database::Place Database::placeOf(std::string_view path) {
  const std::vector<std::string_view> names = namesOf(path);
  Kel::Ptr<Kel::Dir> folder = root_;
  for (std::size_t at = 0; at + 1 < names.size(); ++at) {
    const Kel::Name name(names[at]);
    Kel::Ptr<Kel::Entity> next = folder->entityPtr(name);
    if (!next) {
      next = Kel::make<Kel::Dir>();
      folder->entityPtrIs(name, next);
    }
    const auto dir = Kel::ptrCast<Kel::Dir>(next);
    if (!dir) {
      otherType(path, *next);
    }
    folder = dir;
  }
  return {folder, Kel::Name(names.back())};
}

void Database::otherType(std::string_view path, const Kel::Entity& present) {
  Kel::throwNameInUseException("\"" + std::string(path) + "\" meets an entity of type " + present.typeName() +
                               " at " + pathOf(present));
}

void Database::mountIs(std::string_view path, Kel::Ptr<Kel::Entity> entity) {
  if (!entity) {
    Kel::throwNullParameter("Entdb::Database", "entity");
  }
  const Place place = placeOf(path);
  place.folder->entityPtrIs(place.name, std::move(entity));
}

void Database::unmount(std::string_view path) {
  if (at(path)) {
    const Place place = placeOf(path);
    place.folder->entryDel(place.name);
  }
}

Kel::Ptr<Kel::Entity> Database::at(std::string_view path) const {
  Kel::Ptr<Kel::Entity> entity = root_;
  for (const std::string_view name : namesOf(path)) {
    const auto* dir = dynamic_cast<const Kel::Dir*>(entity.get());
    if (dir == nullptr) {
      return nullptr;
    }
    entity = dir->entityPtr(Kel::Name(name));
  }
  return entity;
}

void Database::each(const std::function<void(const std::string&, const Kel::Entity&)>& call) const {
  walk("", *root_, call);
}

std::string pathOf(const Kel::Entity& entity) {
  const Kel::Entity* parent = entity.parent();
  if (parent == nullptr) {
    return dynamic_cast<const Kel::Dir*>(&entity) != nullptr ? "" : "(unmounted)";
  }
  std::string name;
  eachChild(*parent, [&](const std::string& step, const Kel::Entity& child) {
    if (&child == &entity) {
      name = step;
    }
  });
  return pathOf(*parent) + '/' + name;
}

}  // namespace Entdb

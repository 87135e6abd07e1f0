#include "Kel/TypeRegistry.h"

#include <map>
#include <ostream>
#include <string>

#include "Kel/StateMachine.h"

namespace Kel {
namespace {

std::map<std::string_view, const TypeNode*>& registry() {
  static std::map<std::string_view, const TypeNode*> types;
  return types;
}

void print(std::ostream& stream, const StateMachine& machine, const std::string& indent) {
  stream << machine.fwkType().name << (machine.hasNotificationActive() ? "" : " (inactive)")
         << (machine.zombie() ? " (zombie)" : "") << '\n';
  machine.eachPart([&](const Part& part) {
    part.each([&](const std::string& key, const std::string& value, const StateMachine* child) {
      stream << indent << "  " << part.name();
      if (!key.empty()) {
        stream << '[' << key << ']';
      }
      if (child != nullptr && !part.alias()) {
        stream << ": ";
        print(stream, *child, indent + "  ");
      } else {
        stream << " = " << value << '\n';
      }
    });
  });
}

}  // namespace

bool typeNodeIs(const TypeNode& type) {
  registry().emplace(type.name, &type);
  return true;
}

const TypeNode* typeNode(std::string_view name) {
  const auto at = registry().find(name);
  return at == registry().end() ? nullptr : at->second;
}

std::vector<const TypeNode*> typeNodes() {
  std::vector<const TypeNode*> types;
  for (const auto& [name, type] : registry()) {
    types.push_back(type);
  }
  return types;
}

void printTree(std::ostream& stream, const StateMachine& machine) {
  print(stream, machine, "");
}

}  // namespace Kel

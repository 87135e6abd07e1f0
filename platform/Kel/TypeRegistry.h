// The registry of state machine types, and how generic tools look at live machines.
#pragma once

#include <iosfwd>
#include <string_view>
#include <vector>

#include "Kel/Export.h"

namespace Kel {

class StateMachine;

// Describes a state machine type: its full name, and the type it derives from or null.
struct TypeNode {
  const char* name;
  const TypeNode* base = nullptr;
};

// Registers a type; registering it again is a no-op. Called by static initialisers; the node must live as
// long as the process. Returns true, so that a static can be initialised with it.
KEL_API bool typeNodeIs(const TypeNode& type);
// The registered type of this name, or null.
KEL_API const TypeNode* typeNode(std::string_view name);
// All registered types, in the order of their names.
KEL_API std::vector<const TypeNode*> typeNodes();

// Prints a live machine with its attributes and, below it, its children, one to a line.
KEL_API void printTree(std::ostream& stream, const StateMachine& machine);

}  // namespace Kel

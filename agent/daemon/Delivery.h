// Changes of the state database whose handlers may throw.
#pragma once

#include <exception>
#include <functional>

namespace Agent {

// Makes a change and delivers all that it sets off. Where a handler throws, `failed` is told, and the rest is
// delivered all the same, before anything else is changed: the client relies on each change being delivered
// before the next is made. Were a host set and then withdrawn while the first notification still waits, both
// would find it withdrawn, and a host that waits for its deletion cannot be withdrawn twice.
void carryThrough(const std::function<void()>& change,
                  const std::function<void(const std::exception& error)>& failed);

}  // namespace Agent

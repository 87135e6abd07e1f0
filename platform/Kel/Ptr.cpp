#include "Kel/Ptr.h"

namespace Kel {

bool detail::threadSafePointersOn = false;

bool threadSafePointers() noexcept {
  return detail::threadSafePointersOn;
}

void threadSafePointersIs(bool on) noexcept {
  detail::threadSafePointersOn = on;
}

}  // namespace Kel

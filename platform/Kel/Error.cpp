#include "Kel/Error.h"

#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace Kel {

RangeException::~RangeException() = default;
NameInUseException::~NameInUseException() = default;

void throwRangeException(const std::string& message) {
  throw RangeException(message);
}

void throwNameInUseException(const std::string& message) {
  throw NameInUseException(message);
}

void fatalAssertionFailed(const char* text, const char* file, unsigned line, const char* function) {
  std::fprintf(stderr, "%s:%u: %s: assertion failed: %s\n", file, line, function, text);
  std::fflush(stderr);
  std::abort();
}

void throwNullParameter(const char* cls, const char* name) {
  throwRangeException(std::string("null _") + name + " parameter to mutator for " + cls + "::" + name +
                      " not allowed\"");
}

void throwReinstantiation(const char* name, const void* wanted, const void* present) {
  std::ostringstream text;
  text << "Reinstantiating the pointer interface where constructor parameter attribute " << name
       << " has a different value of " << wanted << " than the current value of " << present
       << " not allowed";
  throwNameInUseException(text.str());
}

}  // namespace Kel

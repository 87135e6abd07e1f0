// The framework's errors, and the fatal assertion.
#pragma once

#include <stdexcept>
#include <string>

#include "Kel/Export.h"

namespace Kel {

// A value outside its range, or a null where an object is required. A programming error of the caller: the
// system itself never catches it.
class KEL_API RangeException : public std::range_error {
 public:
  using std::range_error::range_error;
  ~RangeException() override;
};

// An object was asked for under a name that is in use by one with other construction parameters.
class KEL_API NameInUseException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  ~NameInUseException() override;
};

[[noreturn]] KEL_API void throwRangeException(const std::string& message);
[[noreturn]] KEL_API void throwNameInUseException(const std::string& message);

// Prints the text and the place on standard error and aborts, in every build type.
[[noreturn]] KEL_API void fatalAssertionFailed(const char* text, const char* file, unsigned line,
                                               const char* function);

// An invariant of our own: when it does not hold, the program ends here, with its text. The place is that of
// the call.
inline void fatalUnless(bool holds, const char* text, const char* file = __builtin_FILE(),
                        unsigned line = __builtin_LINE(), const char* function = __builtin_FUNCTION()) {
  if (!holds) [[unlikely]] {
    fatalAssertionFailed(text, file, line, function);
  }
}

// The range error of a collection mutator that was given a null: `name` is the attribute's, `cls` the full
// name of the class. The text ends with a double-quote character.
[[noreturn]] KEL_API void throwNullParameter(const char* cls, const char* name);

// The name-in-use error of a shadow mutator: parameter `name` of the existing child has the value `present`,
// the one asked for has `wanted`; both are printed as the string form of a raw pointer.
[[noreturn]] KEL_API void throwReinstantiation(const char* name, const void* wanted, const void* present);

}  // namespace Kel

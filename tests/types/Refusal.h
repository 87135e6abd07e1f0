// What a call is refused with.
#pragma once

#include <gmock/gmock.h>

#include <sstream>
#include <string>

#include "Kel/Error.h"

// The text of the range error that the call raises, or "nothing".
template <class Call>
std::string refusal(const Call& call) {
  try {
    call();
  } catch (const Kel::RangeException& error) {
    return error.what();
  }
  return "nothing";
}

// The printed form of a value.
template <class T>
std::string text(const T& value) {
  std::ostringstream stream;
  stream << value;
  return stream.str();
}

#include "Kel/Error.h"

#include <gmock/gmock.h>

#include <cstdint>
#include <sstream>
#include <string>

namespace {

template <class Error, class Function>
std::string textOf(Function&& function) {
  try {
    function();
  } catch (const Error& error) {
    return error.what();
  }
  return "nothing was thrown";
}

TEST(ErrorTest, RangeErrorsCarryTheirText) {
  EXPECT_EQ(textOf<Kel::RangeException>([] { Kel::throwRangeException("17 is too much"); }),
            "17 is too much");
  EXPECT_THROW(Kel::throwRangeException("x"), std::range_error);
}

TEST(ErrorTest, NameInUseErrorsCarryTheirText) {
  EXPECT_EQ(textOf<Kel::NameInUseException>([] { Kel::throwNameInUseException("taken"); }), "taken");
  EXPECT_THROW(Kel::throwNameInUseException("x"), std::runtime_error);
}

TEST(ErrorTest, ANullParameterIsNamedWithItsClassAndAttribute) {
  EXPECT_EQ(textOf<Kel::RangeException>(
                [] { Kel::throwNullParameter("Vxlan::VxlanControllerMacAddrSmBase", "vtiStatus"); }),
            "null _vtiStatus parameter to mutator for Vxlan::VxlanControllerMacAddrSmBase::vtiStatus not "
            "allowed\"");
}

TEST(ErrorTest, AReinstantiationNamesTheNewValueThenTheCurrentOne) {
  const int wanted = 0;
  const int present = 0;
  std::ostringstream expected;
  expected
      << "Reinstantiating the pointer interface where constructor parameter attribute _x has a different "
         "value of "
      << static_cast<const void*>(&wanted) << " than the current value of "
      << static_cast<const void*>(&present) << " not allowed";
  EXPECT_EQ(textOf<Kel::NameInUseException>([&] { Kel::throwReinstantiation("_x", &wanted, &present); }),
            expected.str());
}

TEST(ErrorDeathTest, AFatalAssertionPrintsItsTextAndPlaceAndAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Kel::fatalUnless(true, "never seen");
  EXPECT_EXIT(Kel::fatalUnless(1 > 2, "one is more than two"), testing::KilledBySignal(SIGABRT),
              "ErrorTest.cpp:[0-9]+: TestBody: assertion failed: one is more than two");
}

}  // namespace

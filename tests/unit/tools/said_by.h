// What product code tells a person, for tests.
#ifndef VEX_TESTS_UNIT_TOOLS_SAID_BY_H
#define VEX_TESTS_UNIT_TOOLS_SAID_BY_H

#include <gtest/gtest.h>

#include <string>

namespace vex {

// What a call says on standard error.
template <typename Call>
std::string SaidBy(const Call &call) {
  testing::internal::CaptureStderr();
  call();
  return testing::internal::GetCapturedStderr();
}

}  // namespace vex

#endif

#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

// Ends a test that the user's rights or the kernel's settings do not allow here: it is skipped,
// with the reason, but fails where the environment says CI=true, so that nothing is left out there
// unnoticed. For the test's own thread and process.
[[noreturn]] inline void LeaveOut(const std::string& reason) {
  const char* const ci = std::getenv("CI");
  const bool isSkipped = ci == nullptr || std::string(ci) != "true";
  [&] {
    if (isSkipped) GTEST_SKIP() << reason;
    FAIL() << reason << " (CI=true lets no test be left out)";
  }();
  // GoogleTest takes it for one that it has heard of.
  throw testing::AssertionException(
      testing::TestPartResult(testing::TestPartResult::kSkip, __FILE__, __LINE__, reason.c_str()));
}

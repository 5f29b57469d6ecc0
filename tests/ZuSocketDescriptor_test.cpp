#include "ZuNetwork/ZuSocketDescriptor.h"

#include <limits>

#include "support/Expect.h"

namespace {

TEST(ZuSocketDescriptor, HoldsNoneAtFirst) {
  const CZuSocketDescriptor descriptor;
  EXPECT_EQ(descriptor.m_socket, -1);
}

TEST(ZuSocketDescriptor, TextIsDecimal) {
  const struct {
    int descriptor;
    const char* text;
  } kCases[] = {
      {0, "0"},
      {7, "7"},
      {8192, "8192"},
      {-1, "-1"},
      {std::numeric_limits<int>::max(), "2147483647"},
      {std::numeric_limits<int>::min(), "-2147483648"},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(CZuSocketDescriptor::AsString(c.descriptor), c.text);
  }
}

TEST(ZuSocketDescriptor, CopiesShareTheNumber) {
  CZuSocketDescriptor original;
  original.m_socket = 5;
  const CZuSocketDescriptor copy = original;
  original.m_socket = 6;
  EXPECT_EQ(copy.m_socket, 5);
}

}  // namespace

#pragma once

#include <cstdio>
#include <cstring>

#include "ZuNetwork/ZuIPAddr.h"

// For programs that look at the library from outside, without a test framework.

using GetByNameFunction = CZuError (*)(const char*, CZuIPAddr&, CZuIPAddr::IP_FAMILY);

inline int Complain(const char* text) {
  std::fprintf(stderr, "%s\n", text);
  return 1;
}

// 0 if the collision address is refused and others are not. It constructs no address, which might
// mend what the check is about.
inline int CheckRefusal(GetByNameFunction getByName) {
  alignas(CZuIPAddr) unsigned char memory[sizeof(CZuIPAddr)] = {};
  auto& address = *reinterpret_cast<CZuIPAddr*>(memory);
  const CZuError other = getByName("127.0.53.54", address, CZuIPAddr::FAMILY_ANY);
  if (other.m_hrErrorCode != 0) return Complain("127.0.53.54 is refused.");
  const CZuError collision = getByName("127.0.53.53", address, CZuIPAddr::FAMILY_ANY);
  if (collision.m_hrErrorCode != -2) return Complain("127.0.53.53 is not refused.");
  const unsigned char bytes[] = {127, 0, 53, 53};
  if (std::memcmp(memory + 4, bytes, sizeof bytes) != 0) return Complain("It was not kept.");
  return 0;
}

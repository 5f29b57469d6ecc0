// Looks at an IPv4 address and a block of them: cidr ADDRESS NETWORK/PREFIX
#include <ZuNetwork/ZuIPAddr.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

// [cidr]
CZuError Describe(const char* text, const char* block) {
  CZuIPAddr address;
  CZuError error = address.SetAddressString(text);
  if (Failed(error)) return error.Push(ZU_HERE, "%s is no address", text);
  const auto family = static_cast<CZuIPAddr::IP_FAMILY>(address.m_Addr.addr.f.family);
  std::printf("%s is %s\n", text, CZuIPAddr::ConvertAddressFamilyToString(family));

  bool isWithin = false;
  error = CZuIPAddr::CheckIfIpv4AddressIsWithinCidrBlock(text, block, isWithin);
  if (Failed(error)) return error.Push(ZU_HERE);
  std::printf("%s is %s %s\n", text, isWithin ? "within" : "outside", block);

  CZuString mask;
  const int prefix = std::atoi(std::strchr(block, '/') + 1);
  error = CZuIPAddr::ConvertCIDRPrefixToSubnetMaskString(prefix, mask);
  if (Failed(error)) return error.Push(ZU_HERE);
  std::printf("/%d is the mask %s\n", prefix, mask.c_str());
  return {};
}
// [cidr]

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fputs("usage: cidr ADDRESS NETWORK/PREFIX\n", stderr);
    return 2;
  }
  const CZuError error = Describe(argv[1], argv[2]);
  if (Failed(error)) std::fprintf(stderr, "%s\n", error.AsString().c_str());
  return Failed(error) ? 1 : 0;
}

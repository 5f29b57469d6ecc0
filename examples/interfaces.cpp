// Lists the addresses of this machine, with their networks, and its hardware addresses.
#include <ZuNetwork/ZuIPAddr.h>

#include <cstdio>

namespace {

// [interfaces]
CZuError ListAddresses() {
  std::vector<std::pair<CZuIPAddr, CZuIPAddr>> list;
  CZuError error = CZuIPAddr::GetIFList(list, CZuIPAddr::FAMILY_IPV4);
  if (Failed(error)) return error.Push(ZU_HERE);
  for (const auto& [address, network] : list) {
    CZuString addressText;
    CZuString networkText;
    error = address.GetAddressString(addressText);
    if (!Failed(error)) error = network.GetAddressString(networkText);
    if (Failed(error)) return error.Push(ZU_HERE);
    std::printf("IPv4 %s in %s\n", addressText.c_str(), networkText.c_str());
  }
  return {};
}

CZuError ListIPv6Addresses() {
  std::vector<CZuIPAddr> list;
  CZuError error = CZuIPAddr::GetIFList(list, CZuIPAddr::FAMILY_IPV6);
  if (Failed(error)) return error.Push(ZU_HERE);
  for (const CZuIPAddr& address : list) {
    CZuString text;
    error = address.GetAddressString(text);
    if (Failed(error)) return error.Push(ZU_HERE);
    std::printf("IPv6 %s\n", text.c_str());
  }
  return {};
}

CZuError ListHardwareAddresses() {
  std::vector<std::string> list;
  CZuError error = CZuIPAddr::GetMACList(list, CZuIPAddr::FAMILY_IPV4);
  if (Failed(error)) return error.Push(ZU_HERE);
  for (const std::string& address : list) std::printf("MAC %s\n", address.c_str());
  return {};
}
// [interfaces]

}  // namespace

int main() {
  CZuError error = ListAddresses();
  if (!Failed(error)) error = ListIPv6Addresses();
  if (!Failed(error)) error = ListHardwareAddresses();
  if (Failed(error)) std::fprintf(stderr, "%s\n", error.AsString().c_str());
  return Failed(error) ? 1 : 0;
}

// The list of interfaces beside the system's tables read by hand.

#include <Poco/Net/NetworkInterface.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "Compare.h"
#include "ZuNetwork/ZuIPAddr.h"

namespace {

using PlainPairs = std::vector<std::pair<sockaddr_in6, sockaddr_in6>>;

void ListIPv4Plain(PlainPairs& pairs) {
  const int control = socket(AF_INET, SOCK_DGRAM, 0);
  ifreq records[25];
  ifconf table{};
  table.ifc_len = sizeof records;
  table.ifc_req = records;
  if (control == -1 || ioctl(control, SIOCGIFCONF, &table) != 0) std::abort();
  for (size_t i = 0; i < static_cast<size_t>(table.ifc_len) / sizeof(ifreq); ++i) {
    auto& [address, network] = pairs.emplace_back();
    std::memcpy(&address, &records[i].ifr_addr, sizeof(sockaddr_in));
    ifreq request = records[i];
    request.ifr_addr = {};
    request.ifr_addr.sa_family = AF_INET;
    if (ioctl(control, SIOCGIFNETMASK, &request) != 0) std::abort();
    auto& v4 = reinterpret_cast<sockaddr_in&>(network);
    std::memcpy(&v4, &records[i].ifr_addr, sizeof v4);
    v4.sin_addr.s_addr &= reinterpret_cast<sockaddr_in&>(request.ifr_netmask).sin_addr.s_addr;
  }
  close(control);
}

int DigitPlain(char c) { return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10; }

void ListIPv6Plain(PlainPairs& pairs) {
  FILE* const file = std::fopen("/proc/net/if_inet6", "r");
  if (file == nullptr) return;
  char line[128];
  while (std::fgets(line, sizeof line, file) != nullptr) {
    auto& [address, network] = pairs.emplace_back();
    unsigned char* const bytes = address.sin6_addr.s6_addr;
    for (size_t i = 0; i < sizeof(in6_addr); ++i) {
      bytes[i] =
          static_cast<unsigned char>(DigitPlain(line[2 * i]) << 4 | DigitPlain(line[2 * i + 1]));
    }
    address.sin6_family = AF_INET6;
    auto& v4 = reinterpret_cast<sockaddr_in&>(network);
    v4.sin_family = AF_INET;
    std::memcpy(reinterpret_cast<char*>(&v4.sin_addr) + 2, bytes + 6, 2);
  }
  std::fclose(file);
}

void List(benchmark::State& state) {
  Compare(
      state, Ratio(1.05),
      Call("GetIFList",
           [] {
             std::vector<std::pair<CZuIPAddr, CZuIPAddr>> pairs;
             if (Failed(CZuIPAddr::GetIFList(pairs, CZuIPAddr::FAMILY_ANY))) std::abort();
             benchmark::DoNotOptimize(pairs.data());
           }),
      Call("SIOCGIFCONF and /proc/net/if_inet6",
           [] {
             PlainPairs pairs;
             ListIPv4Plain(pairs);
             ListIPv6Plain(pairs);
             benchmark::DoNotOptimize(pairs.data());
           }),
      {Call("getifaddrs",
            [] {
              ifaddrs* list = nullptr;
              if (getifaddrs(&list) != 0) std::abort();
              freeifaddrs(list);
            }),
       Call("POCO", [] { benchmark::DoNotOptimize(Poco::Net::NetworkInterface::list().data()); })});
}
ROW(List, "Interfaces/List");

}  // namespace

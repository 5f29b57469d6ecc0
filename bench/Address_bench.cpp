// Addresses beside the resolver's calls, and the list of interfaces beside the system's tables read
// by hand.

#include <arpa/inet.h>
#include <net/if.h>
#include <netdb.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "Compare.h"
#include "ZuNetwork/ZuIPAddr.h"

namespace {

// The first address of a name or a numeric text, with port 0.
socklen_t ResolvePlain(const char* text, int family, int flags, sockaddr_storage& address) {
  addrinfo hints{};
  hints.ai_flags = flags;
  hints.ai_family = family;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_protocol = IPPROTO_TCP;
  addrinfo* list = nullptr;
  if (getaddrinfo(text, nullptr, &hints, &list) != 0) std::abort();
  const socklen_t length = list->ai_addrlen;
  std::memcpy(&address, list->ai_addr, length);
  freeaddrinfo(list);
  return length;
}

// Both ends of the way are strings.
void TextToValueToText(benchmark::State& state, const char* text) {
  const auto ours = [text] {
    CZuIPAddr address;
    CZuString result;
    if (Failed(address.SetAddressString(text))) std::abort();
    if (Failed(address.GetAddressString(result))) std::abort();
    benchmark::DoNotOptimize(result.c_str());
  };
  const auto floor = [text] {
    sockaddr_storage address;
    char buffer[INET6_ADDRSTRLEN];
    const socklen_t length = ResolvePlain(text, AF_UNSPEC, AI_NUMERICHOST, address);
    if (getnameinfo(reinterpret_cast<sockaddr*>(&address), length, buffer, sizeof buffer, nullptr,
                    0, NI_NUMERICHOST) != 0) {
      std::abort();
    }
    const std::string result = buffer;
    benchmark::DoNotOptimize(result.c_str());
  };
  Compare(state, "1.10", 2000, ours, floor);
}
BENCHMARK_CAPTURE(TextToValueToText, IPv4, "192.168.100.177")->MinTime(1);
BENCHMARK_CAPTURE(TextToValueToText, IPv6, "2001:db8:0:12::5:177")->MinTime(1);

// The floor converts the two addresses and compares them; it is spared the splitting of the block.
void IsWithinCidrBlock(benchmark::State& state) {
  const std::string address = "192.168.100.177";
  const std::string block = "192.168.96.0/20";
  const auto ours = [&] {
    bool isWithin = false;
    if (Failed(CZuIPAddr::CheckIfIpv4AddressIsWithinCidrBlock(address, block, isWithin)) ||
        !isWithin) {
      std::abort();
    }
  };
  const auto floor = [&] {
    sockaddr_storage tested;
    sockaddr_storage network;
    ResolvePlain(address.c_str(), AF_UNSPEC, AI_NUMERICHOST, tested);
    ResolvePlain("192.168.96.0", AF_UNSPEC, AI_NUMERICHOST, network);
    const auto word = [](const sockaddr_storage& value) {
      return reinterpret_cast<const sockaddr_in&>(value).sin_addr.s_addr;
    };
    if (((word(tested) ^ word(network)) & htonl(0xFFFFF000u)) != 0) std::abort();
  };
  Compare(state, "1.25", 2000, ours, floor);
}
BENCHMARK(IsWithinCidrBlock)->MinTime(1);

void Localhost(benchmark::State& state) {
  const auto ours = [] {
    CZuIPAddr address;
    if (Failed(CZuIPAddr::GetByName("localhost", address, CZuIPAddr::FAMILY_ANY))) std::abort();
    benchmark::DoNotOptimize(address);
  };
  const auto floor = [] {
    sockaddr_storage address;
    ResolvePlain("localhost", AF_UNSPEC, AI_CANONNAME, address);
    benchmark::DoNotOptimize(address);
  };
  Compare(state, "1.03", 50, ours, floor);
}
BENCHMARK(Localhost)->Unit(benchmark::kMicrosecond)->MinTime(3);

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

void ListInterfaces(benchmark::State& state) {
  const auto ours = [] {
    std::vector<std::pair<CZuIPAddr, CZuIPAddr>> pairs;
    if (Failed(CZuIPAddr::GetIFList(pairs, CZuIPAddr::FAMILY_ANY))) std::abort();
    benchmark::DoNotOptimize(pairs.data());
  };
  const auto floor = [] {
    PlainPairs pairs;
    ListIPv4Plain(pairs);
    ListIPv6Plain(pairs);
    benchmark::DoNotOptimize(pairs.data());
  };
  Compare(state, "1.05", 50, ours, floor);
}
BENCHMARK(ListInterfaces)->Unit(benchmark::kMicrosecond)->MinTime(3);

}  // namespace

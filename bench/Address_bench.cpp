// Addresses beside the resolver's calls.

#include <Poco/Net/IPAddress.h>
#include <arpa/inet.h>
#include <netdb.h>

#include <asio.hpp>
#include <cstdlib>
#include <cstring>
#include <string>
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

void TextToAddress(benchmark::State& state, const char* text) {
  Compare(state, Ratio(1.05),  //
          Call("SetAddressString",
               [text] {
                 CZuIPAddr address;
                 if (Failed(address.SetAddressString(text))) std::abort();
                 benchmark::DoNotOptimize(address);
               }),
          Call("getaddrinfo",
               [text] {
                 sockaddr_storage address;
                 ResolvePlain(text, AF_UNSPEC, AI_NUMERICHOST, address);
                 benchmark::DoNotOptimize(address);
               }),
          {Call("POCO", [text] { benchmark::DoNotOptimize(Poco::Net::IPAddress::parse(text)); }),
           Call("Asio", [text] { benchmark::DoNotOptimize(asio::ip::make_address(text)); })});
}
ROW_OF(TextToAddress, "Addresses/TextToIPv4", "192.168.100.177");
ROW_OF(TextToAddress, "Addresses/TextToIPv6", "2001:db8:0:12::5:177");

void ThereAndBack(benchmark::State& state, const char* text) {
  Compare(state, Ratio(1.10),
          Call("SetAddressString and GetAddressString",
               [text] {
                 CZuIPAddr address;
                 CZuString result;
                 if (Failed(address.SetAddressString(text))) std::abort();
                 if (Failed(address.GetAddressString(result))) std::abort();
                 benchmark::DoNotOptimize(result.c_str());
               }),
          Call("getaddrinfo and getnameinfo",
               [text] {
                 sockaddr_storage address;
                 char buffer[INET6_ADDRSTRLEN];
                 const socklen_t length = ResolvePlain(text, AF_UNSPEC, AI_NUMERICHOST, address);
                 if (getnameinfo(reinterpret_cast<sockaddr*>(&address), length, buffer,
                                 sizeof buffer, nullptr, 0, NI_NUMERICHOST) != 0) {
                   std::abort();
                 }
                 benchmark::DoNotOptimize(buffer);
               }),
          {Call("POCO",
                [text] { benchmark::DoNotOptimize(Poco::Net::IPAddress::parse(text).toString()); }),
           Call("Asio",
                [text] { benchmark::DoNotOptimize(asio::ip::make_address(text).to_string()); })});
}
ROW_OF(ThereAndBack, "Addresses/TextToIPv4ToText", "192.168.100.177");
ROW_OF(ThereAndBack, "Addresses/TextToIPv6ToText", "2001:db8:0:12::5:177");

// The floor converts the two addresses and compares them; it is spared the splitting of the block.
void IsWithinCidrBlock(benchmark::State& state) {
  const std::string address = "192.168.100.177";
  const std::string block = "192.168.96.0/20";
  const auto word = [](const char* text) {
    sockaddr_storage value;
    ResolvePlain(text, AF_UNSPEC, AI_NUMERICHOST, value);
    return reinterpret_cast<const sockaddr_in&>(value).sin_addr.s_addr;
  };
  Compare(
      state, Ratio(1.25),
      Call("CheckIfIpv4AddressIsWithinCidrBlock",
           [&] {
             bool isWithin = false;
             if (Failed(CZuIPAddr::CheckIfIpv4AddressIsWithinCidrBlock(address, block, isWithin)) ||
                 !isWithin) {
               std::abort();
             }
           }),
      Call("getaddrinfo of both, and a mask",
           [&] {
             if (((word(address.c_str()) ^ word("192.168.96.0")) & htonl(0xFFFFF000u)) != 0) {
               std::abort();
             }
           }),
      {Call("Asio", [&] {
        const auto network = asio::ip::make_network_v4(block).canonical();
        if (asio::ip::network_v4(asio::ip::make_address_v4(address), 20).canonical() != network) {
          std::abort();
        }
      })});
}
ROW(IsWithinCidrBlock, "Addresses/IsWithinCidrBlock");

// An address against a thousand blocks of 8 to 31 bits, of which none holds it.
class Blocks {
 public:
  static constexpr int kCount = 1000;

  Blocks() {
    tested.addr.v4.sin_family = AF_INET;
    tested.addr.v4.sin_addr.s_addr = htonl(0xC0A864B1);
    for (int i = 0; i < kCount; ++i) {
      const int bits = 8 + i % 24;
      const auto otherBit = 1u << (31 - i % bits);
      ZUNET_SockAddr network = tested;
      network.addr.v4.sin_addr.s_addr = htonl(0xC0A864B1 ^ otherBit);
      networks.push_back(network);
      prefixes.push_back(bits);
      asioNetworks.emplace_back(asio::ip::address_v4(0xC0A864B1 ^ otherBit), bits);
    }
  }

  ZUNET_SockAddr tested{};
  std::vector<ZUNET_SockAddr> networks;
  std::vector<int> prefixes;
  std::vector<asio::ip::network_v4> asioNetworks;
};

void ThousandBlocks(benchmark::State& state) {
  Blocks blocks;
  const asio::ip::address_v4 asioTested(0xC0A864B1);
  const auto expectNone = [](int matches) {
    if (matches != 0) std::abort();
  };
  Compare(state, Nanoseconds(1.5 * Blocks::kCount),
          Call("1,000 times ZUNET_addrequal",
               [&] {
                 int matches = 0;
                 for (size_t i = 0; i < Blocks::kCount; ++i) {
                   matches +=
                       ZUNET_addrequal(&blocks.tested, &blocks.networks[i], blocks.prefixes[i], 0);
                 }
                 expectNone(matches);
               }),
          Call("masked words",
               [&] {
                 int matches = 0;
                 const std::uint32_t tested = ntohl(blocks.tested.addr.v4.sin_addr.s_addr);
                 for (size_t i = 0; i < Blocks::kCount; ++i) {
                   const std::uint32_t network = ntohl(blocks.networks[i].addr.v4.sin_addr.s_addr);
                   matches += (tested ^ network) >> (32 - blocks.prefixes[i]) == 0 ? 1 : 0;
                 }
                 expectNone(matches);
               }),
          {Call("Asio", [&] {
            int matches = 0;
            for (const asio::ip::network_v4& network : blocks.asioNetworks) {
              const std::uint32_t mask = network.netmask().to_uint();
              matches += ((asioTested.to_uint() ^ network.address().to_uint()) & mask) == 0 ? 1 : 0;
            }
            expectNone(matches);
          })});
}
ROW(ThousandBlocks, "Addresses/ThousandBlocks");

void Localhost(benchmark::State& state) {
  Compare(state, Ratio(1.03),
          Call("GetByName",
               [] {
                 CZuIPAddr address;
                 if (Failed(CZuIPAddr::GetByName("localhost", address, CZuIPAddr::FAMILY_ANY))) {
                   std::abort();
                 }
                 benchmark::DoNotOptimize(address);
               }),
          Call("getaddrinfo", [] {
            sockaddr_storage address;
            ResolvePlain("localhost", AF_UNSPEC, AI_CANONNAME, address);
            benchmark::DoNotOptimize(address);
          }));
}
ROW(Localhost, "Addresses/Localhost");

}  // namespace

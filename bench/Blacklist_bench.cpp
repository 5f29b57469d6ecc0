// The blacklist beside a hash set of addresses, and beside the resolver's calls with such a set.

#include <arpa/inet.h>
#include <netdb.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "Compare.h"
#include "ZuNetwork/ZuIPAddrBlacklist.h"

namespace {

// Each address once, scattered over all; the same in the byte order of the network.
std::uint32_t Scattered(std::uint32_t number) { return number * 2654435761u; }

CZuIPAddr Address(std::uint32_t word) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = word;
  return address;
}

std::uint32_t& WordOf(CZuIPAddr& address) { return address.m_Addr.addr.v4.sin_addr.s_addr; }

// Numbers below `count`, a power of two, in an order that no cache foresees; every one in its turn.
class Numbers {
 public:
  explicit Numbers(std::uint32_t count) : m_mask(count - 1) {}

  std::uint32_t Next() { return m_last = (m_last * 1664525u + 1013904223u) & m_mask; }

 private:
  std::uint32_t m_mask;
  std::uint32_t m_last = 0;
};

// Asked for what it holds; the questions are made on the way, for they would fill the caches.
void Hit(benchmark::State& state, std::uint32_t count, double limit) {
  CZuIPAddrBlacklist blacklist;
  std::unordered_set<std::uint32_t> plain;
  for (std::uint32_t i = 0; i < count; ++i) {
    if (Failed(blacklist.AddAddressToBlacklist(Address(Scattered(i))))) std::abort();
    plain.insert(Scattered(i));
  }
  Compare(state, Ratio(limit),
          Call("IsAddressBlacklisted",
               [&, numbers = Numbers(count), question = Address(0)]() mutable {
                 WordOf(question) = Scattered(numbers.Next());
                 if (!blacklist.IsAddressBlacklisted(question, nullptr, nullptr)) std::abort();
               }),
          Call("std::unordered_set of words",
               [&, numbers = Numbers(count), question = Address(0)]() mutable {
                 WordOf(question) = Scattered(numbers.Next());
                 if (plain.count(WordOf(question)) == 0) std::abort();
               }));
}
ROW_OF(Hit, "Blacklist/HitAmong1024", 1u << 10, 1.3);
ROW_OF(Hit, "Blacklist/HitAmong131072", 1u << 17, 1.5);
ROW_OF(Hit, "Blacklist/HitAmong1048576", 1u << 20, 1.1);

CZuIPAddr Address6(std::uint64_t high, std::uint64_t low) {
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  std::memcpy(address.sin6_addr.s6_addr, &high, sizeof high);
  std::memcpy(address.sin6_addr.s6_addr + 8, &low, sizeof low);
  return address;
}

std::string_view BytesOf(const CZuIPAddr& address) {
  const in6_addr& bytes = address.m_Addr.addr.v6.sin6_addr;
  return {reinterpret_cast<const char*>(bytes.s6_addr), sizeof bytes};
}

struct SameBytes {
  bool operator()(const CZuIPAddr& a, const CZuIPAddr& b) const { return BytesOf(a) == BytesOf(b); }
};
struct HashOfBytes {
  size_t operator()(const CZuIPAddr& address) const {
    return std::hash<std::string_view>()(BytesOf(address));
  }
};

void HitIPv6(benchmark::State& state) {
  constexpr std::uint32_t kCount = 1u << 17;
  CZuIPAddrBlacklist blacklist;
  std::unordered_set<CZuIPAddr, HashOfBytes, SameBytes> plain;
  const auto address = [](std::uint32_t number) {
    return Address6(0x1200000DB8012000u, std::uint64_t{Scattered(number)} << 20);
  };
  for (std::uint32_t i = 0; i < kCount; ++i) {
    if (Failed(blacklist.AddAddressToBlacklist(address(i)))) std::abort();
    plain.insert(address(i));
  }
  Compare(state, NoLimit(),
          Call("IsAddressBlacklisted",
               [&, numbers = Numbers(kCount)]() mutable {
                 if (!blacklist.IsAddressBlacklisted(address(numbers.Next()), nullptr, nullptr)) {
                   std::abort();
                 }
               }),
          Call("std::unordered_set of addresses", [&, numbers = Numbers(kCount)]() mutable {
            if (plain.count(address(numbers.Next())) == 0) std::abort();
          }));
}
ROW(HitIPv6, "Blacklist/HitIPv6Among131072");

// Addresses that an unkeyed hash, the standard library's, would put into a few places.
std::vector<std::uint32_t> ChosenWords(size_t count) {
  constexpr size_t kLowBits = (1u << 13) - 1;
  std::vector<std::uint32_t> words;
  for (std::uint32_t word = 1; words.size() < count; ++word) {
    const std::string_view bytes(reinterpret_cast<const char*>(&word), sizeof word);
    if ((std::hash<std::string_view>()(bytes) & kLowBits) == 0) words.push_back(word);
  }
  return words;
}

std::vector<std::uint32_t> RandomWords(size_t count) {
  std::vector<std::uint32_t> words;
  for (std::uint32_t i = 0; i < count; ++i) words.push_back(Scattered(i));
  return words;
}

void Fill(const std::vector<std::uint32_t>& words) {
  CZuIPAddrBlacklist blacklist;
  for (const std::uint32_t word : words) {
    const CZuIPAddr address = Address(word);
    if (Failed(blacklist.AddAddressToBlacklist(address))) std::abort();
    if (!blacklist.IsAddressBlacklisted(address, nullptr, nullptr)) std::abort();
  }
}

void Flood(benchmark::State& state) {
  constexpr size_t kCount = 50'000;
  const std::vector<std::uint32_t> chosen = ChosenWords(kCount);
  const std::vector<std::uint32_t> random = RandomWords(kCount);
  Compare(state, Ratio(3.0), Call("50,000 chosen addresses added and found", [&] { Fill(chosen); }),
          Call("50,000 random ones", [&] { Fill(random); }));
}
ROW(Flood, "Blacklist/Flood");

// A file with so many numeric addresses, one on a line.
class File {
 public:
  explicit File(std::uint32_t lines) {
    const int descriptor = mkstemp(path);
    FILE* const file = descriptor == -1 ? nullptr : fdopen(descriptor, "w");
    if (file == nullptr) std::abort();
    for (std::uint32_t i = 0; i < lines; ++i) {
      CZuString text;
      if (Failed(Address(Scattered(i)).GetAddressString(text))) std::abort();
      std::fprintf(file, "%s\n", text.c_str());
    }
    if (std::fclose(file) != 0) std::abort();
  }
  ~File() { std::remove(path); }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  char path[32] = "/tmp/zunetwork_bench.XXXXXX";
};

void LoadPlain(const char* path) {
  FILE* const file = std::fopen(path, "r");
  if (file == nullptr) std::abort();
  std::unordered_set<std::uint32_t> addresses;
  char line[1024];
  addrinfo hints{};
  hints.ai_flags = AI_CANONNAME;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_protocol = IPPROTO_TCP;
  while (std::fgets(line, sizeof line, file) != nullptr) {
    line[std::strcspn(line, "\n")] = '\0';
    addrinfo* list = nullptr;
    if (getaddrinfo(line, nullptr, &hints, &list) != 0) std::abort();
    for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
      addresses.insert(reinterpret_cast<const sockaddr_in*>(entry->ai_addr)->sin_addr.s_addr);
    }
    freeaddrinfo(list);
  }
  std::fclose(file);
  benchmark::DoNotOptimize(addresses.size());
}

// The floor resolves each line and keeps a word of it, but no time, count, name or order.
void Load(benchmark::State& state) {
  const File file(100'000);
  Compare(state, Ratio(1.5),
          Call("LoadBlacklistFromFile",
               [&] {
                 CZuIPAddrBlacklist blacklist;
                 if (Failed(blacklist.LoadBlacklistFromFile(file.path))) std::abort();
               }),
          Call("fgets, getaddrinfo and a set of words", [&] { LoadPlain(file.path); }));
}
ROW(Load, "Blacklist/Load100000Lines");

}  // namespace

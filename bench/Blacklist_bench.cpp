// The blacklist beside a hash set of address bytes, and beside
// the resolver's calls with such a set.

#include <arpa/inet.h>
#include <netdb.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "Compare.h"
#include "ZuNetwork/ZuIPAddrBlacklist.h"

namespace {

CZuIPAddr Address(std::uint32_t number) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = number * 2654435761u;  // each once, scattered
  return address;
}

// Room for either family, IPv4 as a mapped address.
using Bytes = std::array<unsigned char, 16>;

Bytes BytesOf(const CZuIPAddr& address) {
  const auto& views = address.m_Addr.addr;
  Bytes bytes{};
  if (views.f.family == AF_INET6) {
    std::memcpy(bytes.data(), &views.v6.sin6_addr, bytes.size());
  } else {
    bytes[10] = bytes[11] = 0xFF;
    std::memcpy(bytes.data() + 12, &views.v4.sin_addr, 4);
  }
  return bytes;
}

struct Hash {
  size_t operator()(const Bytes& bytes) const {
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    return std::hash<std::string_view>()(text);
  }
};

// Every entry and as many strangers, in random order.
void Check(benchmark::State& state) {
  const auto count = static_cast<std::uint32_t>(state.range(0));
  CZuIPAddrBlacklist blacklist;
  std::unordered_set<Bytes, Hash> plain;
  std::vector<CZuIPAddr> asked;
  for (std::uint32_t i = 0; i < 2 * count; ++i) {
    const CZuIPAddr address = Address(i);
    asked.push_back(address);
    if (i % 2 == 0) continue;
    if (Failed(blacklist.AddAddressToBlacklist(address))) std::abort();
    plain.insert(BytesOf(address));
  }
  std::shuffle(asked.begin(), asked.end(), std::mt19937(1));
  size_t next = 0;
  const auto ask = [&]() -> const CZuIPAddr& {
    next = next + 1 == asked.size() ? 0 : next + 1;
    return asked[next];
  };
  Compare(
      state, "1.5", 1000,
      [&] { benchmark::DoNotOptimize(blacklist.IsAddressBlacklisted(ask(), nullptr, nullptr)); },
      [&] { benchmark::DoNotOptimize(plain.count(BytesOf(ask())) != 0); });
}
BENCHMARK(Check)->Arg(1000)->Arg(100000)->Arg(1000000)->MinTime(2);

// A file with so many numeric addresses, one on a line.
class File {
 public:
  explicit File(std::uint32_t lines) {
    const int descriptor = mkstemp(path);
    FILE* const file = descriptor == -1 ? nullptr : fdopen(descriptor, "w");
    if (file == nullptr) std::abort();
    for (std::uint32_t i = 0; i < lines; ++i) {
      CZuString text;
      if (Failed(Address(i).GetAddressString(text))) std::abort();
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
  std::unordered_set<Bytes, Hash> addresses;
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
      sockaddr_in6 address;
      std::memcpy(&address, entry->ai_addr, entry->ai_addrlen);
      addresses.insert(BytesOf(address));
    }
    freeaddrinfo(list);
  }
  std::fclose(file);
}

// The floor resolves each line and keeps the bytes, but no time, count, name or order.
void Load(benchmark::State& state) {
  const File file(static_cast<std::uint32_t>(state.range(0)));
  Compare(
      state, "1.5", 1,
      [&] {
        CZuIPAddrBlacklist blacklist;
        if (Failed(blacklist.LoadBlacklistFromFile(file.path))) std::abort();
      },
      [&] { LoadPlain(file.path); });
}
BENCHMARK(Load)->Arg(1000000)->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace

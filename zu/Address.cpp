#include "zu/Address.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/auxv.h>

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <tuple>

#include "zu/internal/Bytes.h"

namespace zu {

namespace internal {

bool IsNone(const CZuIPAddr& address) noexcept {
  if (IsV4(address)) return V4Number(address) == 0 && address.GetPortNumber() == 0;
  if (IsV6(address)) return ToV6Bytes(address) == V6Bytes{} && address.GetPortNumber() == 0;
  return true;
}

std::string Printable(std::string_view text) {
  constexpr std::size_t kMost = 100;
  std::string result;
  for (const char c : text.substr(0, kMost)) result += c >= ' ' && c <= '~' ? c : '?';
  if (text.size() > kMost) result += "...";
  return result;
}

}  // namespace internal

namespace {

using internal::IsV4;
using internal::IsV6;
using internal::ToV6Bytes;
using internal::V4Number;
using internal::V6Bytes;

constexpr std::size_t kLongestAddress = INET6_ADDRSTRLEN - 1;
constexpr unsigned kMostPort = 65535;

CZuError Refused(const FXCodeLocation& where, const char* what, std::string_view text) {
  return FXErrorUtil::ErrorWin32(where, kErrorInvalidArgument, "%s: [%s]", what,
                                 internal::Printable(text).c_str());
}

bool IsDigits(std::string_view text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

// Plain decimals without leading zeros.
bool ParseNumber(std::string_view text, std::uint32_t& number) {
  if (!IsDigits(text) || (text.size() > 1 && text[0] == '0')) return false;
  const auto [end, err] = std::from_chars(text.data(), text.data() + text.size(), number);
  return err == std::errc() && end == text.data() + text.size();
}

bool ParsePort(std::string_view text, int& port) {
  std::uint32_t number = 0;
  if (!ParseNumber(text, number) || number > kMostPort) return false;
  port = static_cast<int>(number);
  return true;
}

// Whether an interface is part of the address.
bool HasScope(const V6Bytes& bytes) {
  return (bytes[0] == 0xFE && (bytes[1] & 0xC0) == 0x80) || (bytes[0] == 0xFF && bytes[1] == 0x02);
}

// Of an IPv4 text, or an IPv6 one without scope.
bool ParsePlain(std::string_view text, CZuIPAddr& address) {
  if (text.empty() || text.size() > kLongestAddress) return false;
  if (text.find('\0') != std::string_view::npos) return false;
  const std::string whole(text);
  sockaddr_in v4{};
  sockaddr_in6 v6{};
  if (inet_pton(AF_INET, whole.c_str(), &v4.sin_addr) == 1) {
    v4.sin_family = AF_INET;
    address = CZuIPAddr(v4);
    return true;
  }
  if (inet_pton(AF_INET6, whole.c_str(), &v6.sin6_addr) != 1) return false;
  v6.sin6_family = AF_INET6;
  address = v6;
  return true;
}

// Returns 0, EINVAL or ENODEV.
int ParseScope(std::string_view text, std::uint32_t& scope) {
  if (IsDigits(text)) return ParseNumber(text, scope) && scope != 0 ? 0 : EINVAL;
  if (text.empty() || text.size() >= IF_NAMESIZE) return EINVAL;
  if (text.find('\0') != std::string_view::npos) return EINVAL;
  scope = if_nametoindex(std::string(text).c_str());
  return scope != 0 ? 0 : ENODEV;
}

struct Block {
  std::uint32_t network;
  int length;
  bool isGlobal;
};
// The first that contains an address tells.
// clang-format off
constexpr Block kSpecialV4[] = {
    {0x00000000,  8, false},  // this network
    {0x0A000000,  8, false},  // private use
    {0x64400000, 10, false},  // carriers' address translation
    {0x7F000000,  8, false},  // loopback
    {0xA9FE0000, 16, false},  // link-local
    {0xAC100000, 12, false},  // private use
    {0xC0000009, 32, true},   // port control anycast
    {0xC000000A, 32, true},   // relays anycast
    {0xC0000000, 24, false},  // protocol assignments
    {0xC0000200, 24, false},  // documentation
    {0xC0A80000, 16, false},  // private use
    {0xC6120000, 15, false},  // benchmarks
    {0xC6336400, 24, false},  // documentation
    {0xCB007100, 24, false},  // documentation
    {0xE0000000,  4, false},  // groups
    {0xF0000000,  4, false},  // reserved, broadcast
};
// By the first 64 bits; what is told by more of them stands in IsGlobalV6.
struct LongBlock {
  std::uint64_t network;
  int length;
  bool isGlobal;
};
constexpr LongBlock kSpecialV6[] = {
    {0x2001000300000000, 32, true},   // automatic multicast tunnels
    {0x2001000401120000, 48, true},   // AS112
    {0x2001002000000000, 28, true},   // ORCHIDv2
    {0x2001003000000000, 28, true},   // drone identifiers
    {0x2001000000000000, 23, false},  // protocol assignments
    {0x20010DB800000000, 32, false},  // documentation
    {0x3FFF000000000000, 20, false},  // documentation
    {0x2000000000000000,  3, true},   // what is given out
};
// clang-format on

std::uint64_t HighHalf(const V6Bytes& bytes) {
  std::uint64_t half = 0;
  for (std::size_t i = 0; i < sizeof half; ++i) half = half << 8 | bytes[i];
  return half;
}

std::uint64_t LowHalf(const V6Bytes& bytes) {
  std::uint64_t half = 0;
  for (std::size_t i = sizeof half; i < bytes.size(); ++i) half = half << 8 | bytes[i];
  return half;
}

bool IsGlobalV4(std::uint32_t number) {
  for (const Block& block : kSpecialV4) {
    if ((number ^ block.network) >> (32 - block.length) == 0) return block.isGlobal;
  }
  return true;
}

bool IsGlobalV6(const V6Bytes& bytes) {
  constexpr std::uint64_t kAnycasts = 0x2001000100000000;  // 2001:1::1 to 2001:1::3 are services
  constexpr std::uint64_t kTranslated = 0x0064FF9B00000000;
  const std::uint64_t high = HighHalf(bytes);
  const std::uint64_t low = LowHalf(bytes);
  if (high == kAnycasts && low >= 1 && low <= 3) return true;
  if (high == kTranslated && low >> 32 == 0) return true;
  for (const LongBlock& block : kSpecialV6) {
    if ((high ^ block.network) >> (64 - block.length) == 0) return block.isGlobal;
  }
  return false;
}

// The longest run of at least two zero words, the first of equals: RFC 5952, 4.2.
std::pair<int, int> FindZeros(const std::uint16_t (&words)[8]) {
  int start = -1;
  int length = 1;
  for (int i = 0; i < 8; ++i) {
    int end = i;
    while (end < 8 && words[end] == 0) ++end;
    if (end - i > length) {
      start = i;
      length = end - i;
    }
    if (end > i) i = end - 1;
  }
  return {start, length};
}

std::string FormatV4(const std::uint8_t* bytes) {
  char text[INET_ADDRSTRLEN];
  std::snprintf(text, sizeof text, "%u.%u.%u.%u", bytes[0], bytes[1], bytes[2], bytes[3]);
  return text;
}

std::string FormatV6(const V6Bytes& bytes) {
  if (IN6_IS_ADDR_V4MAPPED(reinterpret_cast<const in6_addr*>(bytes.data()))) {
    return "::ffff:" + FormatV4(bytes.data() + 12);
  }
  std::uint16_t words[8];
  for (int i = 0; i < 8; ++i) {
    words[i] = static_cast<std::uint16_t>(bytes[2 * static_cast<std::size_t>(i)] << 8 |
                                          bytes[2 * static_cast<std::size_t>(i) + 1]);
  }
  const auto [start, length] = FindZeros(words);
  std::string text;
  for (int i = 0; i < 8; ++i) {
    if (i == start) {
      text += "::";
      i += length - 1;
      continue;
    }
    char word[8];
    const bool first = text.empty() || text.back() == ':';
    std::snprintf(word, sizeof word, first ? "%x" : ":%x", static_cast<unsigned>(words[i]));
    text += word;
  }
  return text;
}

std::string FormatScope(std::uint32_t scope) {
  char name[IF_NAMESIZE];
  if (if_indextoname(scope, name) != nullptr) return std::string("%") + name;
  return "%" + std::to_string(scope);
}

// What the orders and hashes are made of.
struct Key {
  int family;
  std::uint64_t high = 0, low = 0;
  int port = 0;
  std::uint32_t scope = 0;

  explicit Key(const CZuIPAddr& address) : family(address.m_Addr.addr.f.family) {
    if (IsV4(address)) {
      low = V4Number(address);
    } else {
      high = HighHalf(ToV6Bytes(address));
      low = LowHalf(ToV6Bytes(address));
    }
  }
};

Key EndpointKey(const CZuIPAddr& address) {
  Key key(address);
  key.port = ZUNET_getport(&address.m_Addr);
  if (!IsV4(address)) key.scope = address.m_Addr.addr.v6.sin6_scope_id;
  return key;
}

auto Tie(const Key& key) { return std::tie(key.family, key.high, key.low, key.port, key.scope); }

std::size_t Hash(const Key& key) {
  // 16 random bytes that the kernel gives to every process, by their address as a number.
  // NOLINTNEXTLINE(performance-no-int-to-ptr)
  static const auto* const random = reinterpret_cast<const char*>(getauxval(AT_RANDOM));
  std::uint64_t secrets[2] = {};
  if (random != nullptr) std::memcpy(secrets, random, sizeof secrets);
  const auto mix = [](std::uint64_t a, std::uint64_t b) {
    __extension__ using Wide = unsigned __int128;
    const Wide product = static_cast<Wide>(a) * b;
    return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
  };
  const auto rest = static_cast<std::uint64_t>(key.scope) << 32 |
                    static_cast<std::uint64_t>(key.family) << 16 |
                    static_cast<std::uint64_t>(key.port);
  const std::uint64_t first = mix(key.high ^ secrets[0], key.low ^ (secrets[1] | 1));
  return mix(first ^ secrets[1], rest ^ (secrets[0] | 1));
}

}  // namespace

CZuError ParseAddress(std::string_view text, CZuIPAddr& address) {
  const std::size_t percent = text.find('%');
  CZuIPAddr parsed = internal::NoAddress();
  if (!ParsePlain(text.substr(0, percent), parsed)) {
    return Refused(ZU_HERE, "Not a numeric address", text);
  }
  if (percent != std::string_view::npos) {
    if (!IsV6(parsed) || !HasScope(ToV6Bytes(parsed))) {
      return Refused(ZU_HERE, "An interface belongs to link-local addresses alone", text);
    }
    const int err = ParseScope(text.substr(percent + 1), parsed.m_Addr.addr.v6.sin6_scope_id);
    if (err == ENODEV) {
      return FXErrorUtil::ErrorErrNo(ZU_HERE, err, "The interface of [%s]",
                                     internal::Printable(text).c_str());
    }
    if (err != 0) return Refused(ZU_HERE, "Not an interface", text);
  }
  address = parsed;
  return {};
}

CZuError ParseEndpoint(std::string_view text, CZuIPAddr& endpoint) {
  const std::size_t colon = text.rfind(':');
  std::string_view host = text.substr(0, colon);
  const bool isBracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
  if (isBracketed) host = host.substr(1, host.size() - 2);
  int port = 0;
  CZuIPAddr parsed = internal::NoAddress();
  if (colon == std::string_view::npos || !ParsePort(text.substr(colon + 1), port)) {
    return Refused(ZU_HERE, "Not an address with a port", text);
  }
  CZuError error = ParseAddress(host, parsed);
  if (Failed(error)) return error.Push(ZU_HERE);
  if (isBracketed != IsV6(parsed))
    return Refused(ZU_HERE, "IPv6, and IPv6 alone, stands in brackets", text);
  ZUNET_setport(&parsed.m_Addr, port);
  endpoint = parsed;
  return {};
}

CZuError SplitHostPort(std::string_view text, std::string& host, int& port) {
  std::string_view name = text;
  int number = -1;
  CZuIPAddr address = internal::NoAddress();
  if (!text.empty() && text[0] == '[') {
    const std::size_t end = text.find(']');
    if (end == std::string_view::npos) return Refused(ZU_HERE, "No closing bracket", text);
    name = text.substr(1, end - 1);
    const std::string_view rest = text.substr(end + 1);
    if (!rest.empty() && (rest[0] != ':' || !ParsePort(rest.substr(1), number))) {
      return Refused(ZU_HERE, "Not a port", text);
    }
    CZuError error = ParseAddress(name, address);
    if (Failed(error)) return error.Push(ZU_HERE);
    if (!IsV6(address)) return Refused(ZU_HERE, "IPv6, and IPv6 alone, stands in brackets", text);
  } else if (text.find(':') != text.rfind(':')) {
    CZuError error = ParseAddress(text, address);
    if (Failed(error)) return error.Push(ZU_HERE);
  } else {
    const std::size_t colon = text.find(':');
    name = text.substr(0, colon);
    if (colon != std::string_view::npos && !ParsePort(text.substr(colon + 1), number)) {
      return Refused(ZU_HERE, "Not a port", text);
    }
    const auto isBad = [](char c) { return static_cast<unsigned char>(c) <= ' ' || c == '\x7F'; };
    bool bad = name.empty();
    for (const char c : name) bad = bad || isBad(c);
    if (bad) return Refused(ZU_HERE, "Not a host", text);
  }
  host = name;
  port = number;
  return {};
}

std::string Format(const CZuIPAddr& address) {
  if (IsV4(address)) {
    return FormatV4(reinterpret_cast<const std::uint8_t*>(&address.m_Addr.addr.v4.sin_addr));
  }
  if (!IsV6(address)) return {};
  const V6Bytes bytes = ToV6Bytes(address);
  const std::uint32_t scope = address.m_Addr.addr.v6.sin6_scope_id;
  return FormatV6(bytes) + (scope != 0 && HasScope(bytes) ? FormatScope(scope) : std::string());
}

std::string FormatEndpoint(const CZuIPAddr& endpoint) {
  if (!IsV4(endpoint) && !IsV6(endpoint)) return {};
  const std::string port = ":" + std::to_string(endpoint.GetPortNumber());
  return IsV4(endpoint) ? Format(endpoint) + port : "[" + Format(endpoint) + "]" + port;
}

CZuIPAddr AnyAddress(CZuIPAddr::IP_FAMILY family, int port) noexcept {
  CZuIPAddr address = internal::NoAddress();
  address.m_Addr.addr.f.family = family == CZuIPAddr::FAMILY_IPV4 ? AF_INET : AF_INET6;
  ZUNET_setport(&address.m_Addr, port);
  return address;
}

CZuIPAddr Unmapped(const CZuIPAddr& address) noexcept {
  if (!IsV6(address) || !IN6_IS_ADDR_V4MAPPED(&address.m_Addr.addr.v6.sin6_addr)) return address;
  sockaddr_in v4{};
  v4.sin_family = AF_INET;
  v4.sin_port = address.m_Addr.addr.v6.sin6_port;
  std::memcpy(&v4.sin_addr, address.m_Addr.addr.v6.sin6_addr.s6_addr + 12, sizeof v4.sin_addr);
  return v4;
}

bool IsLoopback(const CZuIPAddr& address) noexcept {
  const CZuIPAddr plain = Unmapped(address);
  if (IsV4(plain)) return V4Number(plain) >> 24 == 127;
  return IsV6(plain) && IN6_IS_ADDR_LOOPBACK(&plain.m_Addr.addr.v6.sin6_addr);
}

bool IsPrivate(const CZuIPAddr& address) noexcept {
  const CZuIPAddr plain = Unmapped(address);
  if (IsV6(plain)) return (ToV6Bytes(plain)[0] & 0xFE) == 0xFC;
  if (!IsV4(plain)) return false;
  const std::uint32_t number = V4Number(plain);
  return number >> 24 == 10 || number >> 20 == 0xAC1 || number >> 16 == 0xC0A8;
}

bool IsLinkLocal(const CZuIPAddr& address) noexcept {
  const CZuIPAddr plain = Unmapped(address);
  if (IsV4(plain)) return V4Number(plain) >> 16 == 0xA9FE;
  return IsV6(plain) && IN6_IS_ADDR_LINKLOCAL(&plain.m_Addr.addr.v6.sin6_addr);
}

bool IsMulticast(const CZuIPAddr& address) noexcept {
  const CZuIPAddr plain = Unmapped(address);
  if (IsV4(plain)) return V4Number(plain) >> 28 == 0xE;
  return IsV6(plain) && ToV6Bytes(plain)[0] == 0xFF;
}

bool IsGlobal(const CZuIPAddr& address) noexcept {
  const CZuIPAddr plain = Unmapped(address);
  if (IsV4(plain)) return IsGlobalV4(V4Number(plain));
  return IsV6(plain) && IsGlobalV6(ToV6Bytes(plain));
}

bool AddressLess::operator()(const CZuIPAddr& a, const CZuIPAddr& b) const noexcept {
  return Tie(Key(a)) < Tie(Key(b));
}

std::size_t AddressHash::operator()(const CZuIPAddr& a) const noexcept { return Hash(Key(a)); }

bool EndpointLess::operator()(const CZuIPAddr& a, const CZuIPAddr& b) const noexcept {
  return Tie(EndpointKey(a)) < Tie(EndpointKey(b));
}

std::size_t EndpointHash::operator()(const CZuIPAddr& a) const noexcept {
  return Hash(EndpointKey(a));
}

bool EndpointEqual::operator()(const CZuIPAddr& a, const CZuIPAddr& b) const noexcept {
  return Tie(EndpointKey(a)) == Tie(EndpointKey(b));
}

}  // namespace zu

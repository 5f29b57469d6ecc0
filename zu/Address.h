#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "ZuNetwork/ZuIPAddr.h"
#include "zu/ZuExport.h"

// Texts, kinds and orders of CZuIPAddr, which is the address of this library too.
//
// A text that is refused is ErrorWin32 87 with the text in it, and leaves the output as it was.
// Functions that look at the kind of an address take an IPv4-mapped one (::ffff:192.0.2.1) for the
// IPv4 address in it. All of them may be called by any thread.
namespace zu {

// Exactly one way to write an IPv4 address: four decimal numbers without leading zeros, so that no
// two programs read two addresses (010.0.0.1, 10.1 and 0x0a000001 are refused). IPv6 as in RFC
// 4291, 2.2, in either case. An interface by name or number, "fe80::1%eth0", stands behind
// link-local addresses and link-local groups (ff02::) alone, since it means nothing elsewhere;
// ErrorErrNo ENODEV for a name that no interface has. The port is 0 afterwards.
//
// These are texts, not names: 127.0.53.53 is read like any other.
ZU_API CZuError ParseAddress(std::string_view text, CZuIPAddr& address);

// "192.0.2.1:80" or "[2001:db8::1]:80"; the port, 0 to 65535 in plain decimals, has to be there.
ZU_API CZuError ParseEndpoint(std::string_view text, CZuIPAddr& endpoint);

// Takes "host", "host:port", "[IPv6]", "[IPv6]:port" and a bare IPv6 address apart; `host` is
// without brackets, `port` is -1 where there is none. A host is whatever is not empty and has no
// colon, blank or control character; whether there is such a host is for Resolve to say.
ZU_API CZuError SplitHostPort(std::string_view text, std::string& host, int& port);

// As RFC 5952 writes it, with "%name" ("%number" when the interface is gone) behind link-local
// addresses that have a scope: ParseAddress reads it back. Without a family it is empty.
ZU_API std::string Format(const CZuIPAddr& address);
ZU_API std::string FormatEndpoint(const CZuIPAddr& endpoint);  // with ":port"

// 0.0.0.0, or "::" for every other family; of the port the low 16 bits count.
ZU_API CZuIPAddr AnyAddress(CZuIPAddr::IP_FAMILY family, int port) noexcept;

// The IPv4 address in an IPv4-mapped one, with its port; every other address as it is.
ZU_API CZuIPAddr Unmapped(const CZuIPAddr& address) noexcept;

ZU_API bool IsLoopback(const CZuIPAddr& address) noexcept;   // 127.0.0.0/8, ::1
ZU_API bool IsPrivate(const CZuIPAddr& address) noexcept;    // RFC 1918, fc00::/7
ZU_API bool IsLinkLocal(const CZuIPAddr& address) noexcept;  // 169.254.0.0/16, fe80::/10
ZU_API bool IsMulticast(const CZuIPAddr& address) noexcept;  // 224.0.0.0/4, ff00::/8

// Whether it may be an address of one host of the Internet: "Globally Reachable" in the registries
// of special-purpose addresses (RFC 6890, as IANA keeps them), no group, and of IPv6 what is given
// out for hosts: 2000::/3 and 64:ff9b::/96.
ZU_API bool IsGlobal(const CZuIPAddr& address) noexcept;

// For maps. `==` of CZuIPAddr ignores port and scope, so there is no std::hash and no `<` on it:
// two clients behind one address would be one key. Choose what the key is: the address (equality is
// `==`, IPv4 comes before IPv6), or the endpoint, which is address, port and scope. A mapped
// address differs from its IPv4 address. Hashes differ between processes, so that no stranger can
// choose addresses that collide.
struct ZU_API AddressLess {
  bool operator()(const CZuIPAddr& a, const CZuIPAddr& b) const noexcept;
};
struct ZU_API AddressHash {
  std::size_t operator()(const CZuIPAddr& a) const noexcept;
};
struct ZU_API EndpointLess {
  bool operator()(const CZuIPAddr& a, const CZuIPAddr& b) const noexcept;
};
struct ZU_API EndpointHash {
  std::size_t operator()(const CZuIPAddr& a) const noexcept;
};
struct ZU_API EndpointEqual {
  bool operator()(const CZuIPAddr& a, const CZuIPAddr& b) const noexcept;
};

}  // namespace zu

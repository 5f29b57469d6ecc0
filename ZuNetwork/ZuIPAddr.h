#pragma once

#include <string>
#include <utility>
#include <vector>

#include "ZuNetwork/ZuNetworkExport.h"
#include "ZuNetwork/ZuSocket_C.h"
#include "ZuUtils/ZuError.h"
#include "ZuUtils/ZuString.h"

class CZuIPAddr;

// What CZuIPAddr::GetAllInterfaces is to find out.
struct GetAllInterfacesArgs_t {
  bool getIPList = false;
  bool getHostnames = false;  // implies getIPList
};

// What it found; each list is appended to.
struct GetAllInterfacesRet_t {
  std::vector<std::string> ipList;        // addresses but loopback as text, sorted byte by byte
  std::vector<CZuIPAddr> ipListsa;        // all addresses, in the system's order
  std::vector<std::string> hostnameList;  // lower-case names of those in ipList, sorted, each once
};

// An IPv4 or IPv6 address with a port, of which a copy is a copy of 28 bytes. It is laid out as the
// socket calls take it: port and IPv4 address in network byte order, the family in host order.
//
// A cleared address has port 0, all-zero address bytes and the family that the process prefers
// (ZUNET_SetFamilyPreference), which is FAMILY_ANY unless it was set.
//
// 127.0.53.53 is what name servers give out for a private name that collides with a public
// top-level domain (ICANN's name-collision mechanism). Neither texts nor names that stand for it
// are accepted.
//
// Distinct values may be used on distinct threads; the static functions on any. Failed calls are
// ErrorErrNo with the errno value, or with the resolver's code (EAI_*, negative) as it is, and name
// the text or address they were about: "[nope.invalid]: Name or service not known".
class ZUNETWORK_API CZuIPAddr {
 public:
  enum IP_FAMILY : int {
    FAMILY_ANY = 0,    // no family chosen
    FAMILY_IPV4 = 2,   // AF_INET: m_Addr.addr.v4 holds
    FAMILY_IPV6 = 10,  // AF_INET6: m_Addr.addr.v6 holds
  };

  // ---- The value ----

  CZuIPAddr();  // cleared
  ~CZuIPAddr();

  // Copies of all 28 bytes. Addresses are passed as what they come as, without a cast.
  CZuIPAddr(const CZuIPAddr& other) = default;
  CZuIPAddr& operator=(const CZuIPAddr& other) = default;
  CZuIPAddr(const ZUNET_SockAddr& other);  // NOLINT(google-explicit-constructor)
  CZuIPAddr& operator=(const ZUNET_SockAddr& other);
  CZuIPAddr(const sockaddr_in6& other);  // NOLINT(google-explicit-constructor)
  CZuIPAddr& operator=(const sockaddr_in6& other);

  // The remaining 12 bytes are zero in the new value; assignment leaves them as they were, where no
  // operation on IPv4 reads them.
  CZuIPAddr(const sockaddr_in& other);  // NOLINT(google-explicit-constructor)
  CZuIPAddr& operator=(const sockaddr_in& other);

  void Clear();

  // Clears the value and gives it this family: address and port are lost.
  void SetAddressFamily(IP_FAMILY eFamily);

  // Whether family and address are the same. Ports, flow information and scope never count.
  bool operator==(const CZuIPAddr& other) const;

  // The port in host byte order; the low 16 bits of `nPort` count. A value without a family has
  // none: setting it is ErrorWin32 774 "Address family not set", getting it gives 0.
  CZuError SetPortNumber(int nPort);
  int GetPortNumber() const;

  // Numeric text without the port. The text is empty after a failure.
  CZuError GetAddressString(CZuString& sAddrStr) const;

  // Reads numeric text of either family and sets the port to 0. After a failure the value is as it
  // was, except that 127.0.53.53 is refused (EAI_NONAME) and stays in the value.
  CZuError SetAddressString(const char* szAddrStr);

  // "IPv4", "IPv6", or "ANY" for everything else.
  static const char* ConvertAddressFamilyToString(IP_FAMILY family);

  // ---- Masks ----

  // Makes this the IPv4 mask of so many leading ones; the port stays. A prefix below 1 or above 32
  // changes nothing and is no failure.
  CZuError SetSubnetMaskFromCIDRPrefix(int prefix);

  // The text of that mask; for a prefix out of range that of a cleared address, or empty where the
  // process prefers no family. Always succeeds.
  static CZuError ConvertCIDRPrefixToSubnetMaskString(int prefix, CZuString& subnetMask);

  // Whether an IPv4 address lies in a block such as "10.0.0.0/8". What follows a second slash is
  // ignored, and a prefix that is not 1 to 32 (a text that is no number is 0) takes in every
  // address. An `ipAddress` that cannot be read counts as the cleared address. Failures leave the
  // answer unwritten: ErrorWin32 87 "Invalid CIDR block: [%s]." without a slash, and a network that
  // cannot be read.
  static CZuError CheckIfIpv4AddressIsWithinCidrBlock(const std::string& ipAddress,
                                                      const std::string& cidrBlock,
                                                      bool& ipAddressWithinBlock);

  // ---- Names; getaddrinfo(3), getnameinfo(3) ----

  // Resolve a name or numeric text to its first address, or append all of them to `ObjList`, in the
  // resolver's order, with port 0. FAMILY_ANY stands for the family that the process prefers.
  // Failures: ErrorWin32 87 "Null parameter passed"; the resolver's code; ErrorWin32 4294967294
  // "DNS name collision occured" for 127.0.53.53, which `Obj` then holds, while `ObjList` holds the
  // addresses before it. A name without an address of either family succeeds and changes nothing.
  static CZuError GetByName(const char* szHostName, CZuIPAddr& Obj, IP_FAMILY eFamily);
  static CZuError GetAllByName(const char* szHostName, std::vector<CZuIPAddr>& ObjList,
                               IP_FAMILY eFamily);

  // The machine's own name, and the first address that this name resolves to.
  static CZuError GetLocalHost(CZuString& oHostName);
  static CZuError GetLocalHost(CZuIPAddr& Obj, IP_FAMILY eFamily);

  // The name of this address by reverse lookup; empty after a failure, which is ENOENT where the
  // system gives no reason.
  CZuError GetHostName(CZuString& sHostName) const;

  // ---- This machine ----

  // Whether a stream socket can be bound to the address. A family that the system lacks is the
  // answer false; every other reason, also a port in use, is a failure.
  static CZuError IsAddrBindable(const CZuIPAddr& IPAddr, bool& bBindable);

  // The same for 127.0.0.1 and ::1.
  static CZuError IsIPv4StackPresent(bool& bPresent);
  static CZuError IsIPv6StackPresent(bool& bPresent);

  // Collects the addresses of the interfaces and, if asked, their names by reverse lookup, one
  // after the other. `args.getIPList` is switched on with the names. What cannot be enumerated or
  // has no name is left out. ErrorWin32 87 "Nothing requested in arguments." without a flag.
  static CZuError GetAllInterfaces(GetAllInterfacesArgs_t& args, GetAllInterfacesRet_t& ret,
                                   const IP_FAMILY& preferred_ip_family);

  // Appends the addresses of the interfaces (IPv4 first), loopback and interfaces that are down
  // included; a family that is none of the three has none. Failures are ErrorWin32:
  //   774  "Failed to create IP control socket: %s"
  //   774  "Failed to query the list of IPv4 interfaces: %s"
  //   774  "Invalid contents of /proc/net/if_inet6: %s", with the line
  //   8    "Out of memory"
  // Without /proc/net/if_inet6 there are no IPv6 addresses. The first form gives each address with
  // a subnet and may have appended before it fails. An IPv4 subnet is the interface's network
  // (address AND mask; without a mask the address with its first byte 0). For IPv6 it is an IPv4
  // value that holds the fourth 16-bit group of the address in its last two bytes.
  static CZuError GetIFList(std::vector<std::pair<CZuIPAddr, CZuIPAddr>>& list, IP_FAMILY family);
  static CZuError GetIFList(std::vector<CZuIPAddr>& list, IP_FAMILY family);

  // Appends the hardware address, as "00:1A:2B:3C:4D:5E", of each interface but loopback that has
  // an IPv4 address: once for each of its addresses, and for the first 25 addresses at most. The
  // family is not looked at. Fails as GetIFList for IPv4.
  static CZuError GetMACList(std::vector<std::string>& list, IP_FAMILY family);

  ZUNET_SockAddr m_Addr;

  // The collision address, and whether it is known; both are the library's. It is looked up when
  // the library is loaded and, where that failed, by the next default constructions; until then
  // nothing is refused.
  static CZuIPAddr m_DummyIp;
  static bool m_DummyIpInit;

 private:
  // For m_DummyIp, which must be in place before any constructor runs.
  struct ConstantInitialized {};
  explicit constexpr CZuIPAddr(ConstantInitialized) noexcept : m_Addr{} {}

  ZUNETWORK_LOCAL static void SetUpCollisionAddress();
};

// Turns the text to lower case in place, by the rules of tolower(3), and returns it.
extern "C" ZUNETWORK_API char* strlwr(char* s);

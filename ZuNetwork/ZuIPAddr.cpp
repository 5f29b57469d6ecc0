#include "ZuNetwork/ZuIPAddr.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <mutex>

#include "ZuNetwork/ZuSocket.h"
#include "ZuNetwork/internal/Resolver.h"
#include "ZuNetwork/internal/SocketAddress.h"

static_assert(sizeof(CZuIPAddr) == sizeof(ZUNET_SockAddr));
static_assert(CZuIPAddr::FAMILY_ANY == AF_UNSPEC && CZuIPAddr::FAMILY_IPV4 == AF_INET &&
              CZuIPAddr::FAMILY_IPV6 == AF_INET6);

namespace {

using ZuInternal::AddrInfoList;

constexpr char kCollisionAddress[] = "127.0.53.53";

std::mutex gSetUpMutex;

// Returns 0 or the resolver's code.
int LookUp(const char* name, CZuIPAddr::IP_FAMILY family, AddrInfoList& list) {
  const int wanted = family == CZuIPAddr::FAMILY_ANY ? ZUNET_GetFamilyPreference() : family;
  return ZuInternal::Resolve(name, wanted, AI_CANONNAME, list);
}

CZuError NotFound(const FXCodeLocation& where, int result, const char* name) {
  return FXErrorUtil::ErrorErrNo(where, result, "[%s]", name);
}

CZuError Collision(const FXCodeLocation& where, const char* name) {
  CZuError error =
      FXErrorUtil::ErrorWin32(where, kErrorNameCollision, "DNS name collision occured");
  return error.Push(where, "[%s]", name);
}

// The flag is a plain bool in the interface, but threads that find it set go on to read the
// address: it is read and written as an atomic.
bool IsCollisionKnown() { return __atomic_load_n(&CZuIPAddr::m_DummyIpInit, __ATOMIC_ACQUIRE); }

bool IsCollision(const CZuIPAddr& address) {
  return IsCollisionKnown() && address == CZuIPAddr::m_DummyIp;
}

// Returns 0 or an errno value.
int ReadHostName(char (&buffer)[NI_MAXHOST]) {
  buffer[0] = '\0';
  return ZUNET_gethostname(buffer, sizeof buffer);
}

// As atoi, and defined for numbers of any length.
int ToInt(const char* text) {
  const long number = std::strtol(text, nullptr, 10);
  return static_cast<int>(
      std::clamp<long>(number, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

std::uint32_t V4Word(const CZuIPAddr& address) { return ZuInternal::V4Word(address.m_Addr); }

// Sorts the texts and leaves each once.
void SortUnique(std::vector<std::string>& texts) {
  std::sort(texts.begin(), texts.end());
  texts.erase(std::unique(texts.begin(), texts.end()), texts.end());
}

}  // namespace

// Both are initialised by constants, before any constructor runs. A program's own static addresses
// may be constructed before those of this file: they set the collision address up, and no
// constructor of this file then clears it again.
CZuIPAddr CZuIPAddr::m_DummyIp{ConstantInitialized{}};
bool CZuIPAddr::m_DummyIpInit = false;

namespace {

const CZuIPAddr gFirst;  // its constructor sets the collision address up when the library is loaded

}  // namespace

CZuIPAddr::CZuIPAddr() {
  Clear();
  if (!IsCollisionKnown()) SetUpCollisionAddress();
}

CZuIPAddr::~CZuIPAddr() { Clear(); }

CZuIPAddr::CZuIPAddr(const ZUNET_SockAddr& other) : m_Addr(other) {}

CZuIPAddr& CZuIPAddr::operator=(const ZUNET_SockAddr& other) {
  m_Addr = other;
  return *this;
}

CZuIPAddr::CZuIPAddr(const sockaddr_in6& other) { *this = other; }

CZuIPAddr& CZuIPAddr::operator=(const sockaddr_in6& other) {
  static_assert(sizeof other == sizeof m_Addr);
  std::memcpy(&m_Addr, &other, sizeof other);
  return *this;
}

CZuIPAddr::CZuIPAddr(const sockaddr_in& other) {
  std::memset(&m_Addr, 0, sizeof m_Addr);
  *this = other;
}

CZuIPAddr& CZuIPAddr::operator=(const sockaddr_in& other) {
  std::memcpy(&m_Addr, &other, sizeof other);
  return *this;
}

void CZuIPAddr::Clear() {
  std::memset(&m_Addr, 0, sizeof m_Addr);
  m_Addr.addr.f.family = static_cast<std::uint16_t>(ZUNET_GetFamilyPreference());
}

void CZuIPAddr::SetAddressFamily(IP_FAMILY eFamily) {
  Clear();
  m_Addr.addr.f.family = static_cast<std::uint16_t>(eFamily);
}

bool CZuIPAddr::operator==(const CZuIPAddr& other) const {
  if (m_Addr.addr.f.family != other.m_Addr.addr.f.family) return false;
  if (m_Addr.addr.f.family == FAMILY_IPV4) return V4Word(*this) == V4Word(other);
  return std::memcmp(&m_Addr.addr.v6.sin6_addr, &other.m_Addr.addr.v6.sin6_addr,
                     sizeof(in6_addr)) == 0;
}

CZuError CZuIPAddr::SetPortNumber(int nPort) {
  const int family = m_Addr.addr.f.family;
  if (family != FAMILY_IPV4 && family != FAMILY_IPV6) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidState, "Address family not set");
  }
  ZUNET_setport(&m_Addr, nPort);
  return {};
}

int CZuIPAddr::GetPortNumber() const {
  const int family = m_Addr.addr.f.family;
  return family == FAMILY_IPV4 || family == FAMILY_IPV6 ? ZUNET_getport(&m_Addr) : 0;
}

CZuError CZuIPAddr::GetAddressString(CZuString& sAddrStr) const {
  char text[INET6_ADDRSTRLEN];
  const int err = ZUNET_ip2str(&m_Addr, text, sizeof text);
  if (err != 0) {
    sAddrStr.Clear();
    return FXErrorUtil::ErrorErrNo(ZU_HERE, err, "family %d", m_Addr.addr.f.family);
  }
  sAddrStr = text;
  return {};
}

CZuError CZuIPAddr::SetAddressString(const char* szAddrStr) {
  const int err = ZUNET_str2ip(szAddrStr, &m_Addr);
  if (err != 0) return NotFound(ZU_HERE, err, szAddrStr == nullptr ? "" : szAddrStr);
  return {};
}

const char* CZuIPAddr::ConvertAddressFamilyToString(IP_FAMILY family) {
  switch (family) {
    case FAMILY_IPV4:
      return "IPv4";
    case FAMILY_IPV6:
      return "IPv6";
    default:
      return "ANY";
  }
}

CZuError CZuIPAddr::SetSubnetMaskFromCIDRPrefix(int prefix) {
  if (prefix < 1 || prefix > 32) return {};
  m_Addr.addr.f.family = FAMILY_IPV4;
  m_Addr.addr.v4.sin_addr.s_addr = htonl(0xFFFFFFFFu << (32 - prefix));
  return {};
}

CZuError CZuIPAddr::ConvertCIDRPrefixToSubnetMaskString(int prefix, CZuString& subnetMask) {
  CZuIPAddr mask;
  CZuError error = mask.SetSubnetMaskFromCIDRPrefix(prefix);
  if (Failed(error)) return error.Push(ZU_HERE);
  (void)mask.GetAddressString(subnetMask);  // the text is empty where there is no mask
  return {};
}

CZuError CZuIPAddr::CheckIfIpv4AddressIsWithinCidrBlock(const std::string& ipAddress,
                                                        const std::string& cidrBlock,
                                                        bool& ipAddressWithinBlock) {
  const std::size_t slash = cidrBlock.find('/');
  if (slash == std::string::npos) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidArgument, "Invalid CIDR block: [%s].",
                                   cidrBlock.c_str());
  }
  CZuIPAddr mask;
  CZuIPAddr network;
  CZuIPAddr tested;
  CZuError error = mask.SetSubnetMaskFromCIDRPrefix(ToInt(cidrBlock.c_str() + slash + 1));
  if (!Failed(error)) error = network.SetAddressString(cidrBlock.substr(0, slash).c_str());
  if (Failed(error)) return error.Push(ZU_HERE);
  (void)tested.SetAddressString(ipAddress.c_str());  // what is no address is tested as 0.0.0.0
  ipAddressWithinBlock = ((V4Word(tested) ^ V4Word(network)) & V4Word(mask)) == 0;
  return {};
}

CZuError CZuIPAddr::GetByName(const char* szHostName, CZuIPAddr& Obj, IP_FAMILY eFamily) {
  if (szHostName == nullptr) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidArgument, "Null parameter passed");
  }
  AddrInfoList list;
  const int result = LookUp(szHostName, eFamily, list);
  if (result != 0) return NotFound(ZU_HERE, result, szHostName);
  ZuInternal::CopyFirstAddress(list.get(), Obj.m_Addr);
  if (IsCollision(Obj)) return Collision(ZU_HERE, szHostName);
  return {};
}

CZuError CZuIPAddr::GetAllByName(const char* szHostName, std::vector<CZuIPAddr>& ObjList,
                                 IP_FAMILY eFamily) {
  if (szHostName == nullptr) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidArgument, "Null parameter passed");
  }
  AddrInfoList list;
  const int result = LookUp(szHostName, eFamily, list);
  if (result != 0) return NotFound(ZU_HERE, result, szHostName);
  for (const addrinfo* entry = list.get(); entry != nullptr; entry = entry->ai_next) {
    if (!ZuInternal::IsUsable(*entry)) continue;
    // Not default-constructed: that may look the collision address up, in the middle of a look-up.
    CZuIPAddr address(ZUNET_SockAddr{});
    ZuInternal::CopyAddress(*entry, address.m_Addr);
    if (IsCollision(address)) return Collision(ZU_HERE, szHostName);
    ObjList.push_back(address);
  }
  return {};
}

CZuError CZuIPAddr::GetLocalHost(CZuString& oHostName) {
  char name[NI_MAXHOST];
  const int err = ReadHostName(name);
  if (err != 0) return FXErrorUtil::ErrorErrNo(ZU_HERE, err);
  oHostName = name;
  return {};
}

CZuError CZuIPAddr::GetLocalHost(CZuIPAddr& Obj, IP_FAMILY eFamily) {
  char name[NI_MAXHOST];
  const int err = ReadHostName(name);
  if (err != 0) return FXErrorUtil::ErrorErrNo(ZU_HERE, err);
  CZuError error = GetByName(name, Obj, eFamily);
  if (Failed(error)) return error.Push(ZU_HERE);
  return {};
}

CZuError CZuIPAddr::GetHostName(CZuString& sHostName) const {
  sHostName.Clear();
  char name[NI_MAXHOST];
  const int err = ZUNET_ip2name(&m_Addr, name, sizeof name);
  if (err != 0) return NotFound(ZU_HERE, err, ZuInternal::AddressText(m_Addr).c_str());
  sHostName = name;
  return {};
}

CZuError CZuIPAddr::IsAddrBindable(const CZuIPAddr& IPAddr, bool& bBindable) {
  CZuSocket socket;
  CZuError error = socket.Bind(IPAddr);
  socket.Close();
  bBindable = !Failed(error);
  if (bBindable || FXErrorUtil::IsErrNo(error, EAFNOSUPPORT)) return {};
  return error.Push(ZU_HERE);
}

CZuError CZuIPAddr::IsIPv4StackPresent(bool& bPresent) {
  bPresent = false;
  CZuIPAddr address;
  CZuError error = address.SetAddressString("127.0.0.1");
  if (!Failed(error)) error = IsAddrBindable(address, bPresent);
  if (Failed(error)) return error.Push(ZU_HERE);
  return {};
}

CZuError CZuIPAddr::IsIPv6StackPresent(bool& bPresent) {
  bPresent = false;
  CZuIPAddr address;
  CZuError error = address.SetAddressString("::1");
  if (!Failed(error)) error = IsAddrBindable(address, bPresent);
  if (Failed(error)) return error.Push(ZU_HERE);
  return {};
}

CZuError CZuIPAddr::GetAllInterfaces(GetAllInterfacesArgs_t& args, GetAllInterfacesRet_t& ret,
                                     const IP_FAMILY& preferred_ip_family) {
  if (!args.getIPList && !args.getHostnames) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidArgument,
                                   "Nothing requested in arguments.");
  }
  if (args.getHostnames) args.getIPList = true;
  CZuIPAddr loopbackV4;
  CZuIPAddr loopbackV6;
  ZUNET_str2ip("127.0.0.1", &loopbackV4.m_Addr);
  ZUNET_str2ip("::1", &loopbackV6.m_Addr);
  (void)GetIFList(ret.ipListsa, preferred_ip_family);  // a failure means fewer addresses, no more
  for (const CZuIPAddr& address : ret.ipListsa) {
    if (address == loopbackV4 || address == loopbackV6) continue;
    char text[128];
    ZUNET_ip2str(&address.m_Addr, text, sizeof text);
    ret.ipList.emplace_back(text);
    char name[256];
    if (args.getHostnames && ZUNET_ip2name(&address.m_Addr, name, sizeof name) == 0 &&
        name[0] != '\0') {
      ret.hostnameList.emplace_back(strlwr(name));
    }
  }
  std::sort(ret.ipList.begin(), ret.ipList.end());
  SortUnique(ret.hostnameList);
  return {};
}

// Looks the address up as GetByName does, which cannot be called here: it makes an error of a
// failure, and where memory is short while the library is loaded there would be none for that
// either. Nothing is refused until the flag is set, so this look-up is never. The lock lets one
// thread write, and no thread wait for the resolver; values are copied without it once the flag
// says that the address is there.
void CZuIPAddr::SetUpCollisionAddress() {
  AddrInfoList list;
  ZUNET_SockAddr address{};
  if (LookUp(kCollisionAddress, FAMILY_IPV4, list) != 0) return;
  if (!ZuInternal::CopyFirstAddress(list.get(), address)) return;
  const std::lock_guard<std::mutex> lock(gSetUpMutex);
  if (IsCollisionKnown()) return;
  m_DummyIp.m_Addr = address;
  __atomic_store_n(&m_DummyIpInit, true, __ATOMIC_RELEASE);
}

char* strlwr(char* s) {
  for (char* c = s; *c != '\0'; ++c) {
    *c = static_cast<char>(std::tolower(static_cast<unsigned char>(*c)));
  }
  return s;
}

// The interfaces of the machine, by netdevice(7) for IPv4 and from /proc for IPv6.

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

#include "ZuNetwork/ZuIPAddr.h"
#include "ZuNetwork/internal/Closers.h"
#include "ZuUtils/FXString.h"

namespace {

using AddressPair = std::pair<CZuIPAddr, CZuIPAddr>;

constexpr char kIPv6Table[] = "/proc/net/if_inet6";
constexpr int kRecordSize = sizeof(ifreq);

class ControlSocket {
 public:
  ControlSocket() = default;
  ~ControlSocket() {
    if (m_descriptor != -1) close(m_descriptor);
  }
  ControlSocket(const ControlSocket&) = delete;
  ControlSocket& operator=(const ControlSocket&) = delete;

  CZuError Open(const FXCodeLocation& where) {
    m_descriptor = socket(AF_INET, SOCK_DGRAM, 0);
    if (m_descriptor != -1) return {};
    return FXErrorUtil::ErrorWin32(where, kErrorInvalidState,
                                   "Failed to create IP control socket: %s", std::strerror(errno));
  }

  bool Ask(unsigned long what, void* record) const {
    return ioctl(m_descriptor, what, record) >= 0;
  }

 private:
  int m_descriptor = -1;
};

// The interface records as the kernel wrote them.
class Table {
 public:
  // Asks the kernel for all records; `isFull` says of the bytes returned and the bytes offered
  // whether there may be more, for which twice the room is offered.
  CZuError Read(const FXCodeLocation& where, const ControlSocket& control,
                bool (*isFull)(int length, int size)) {
    for (long size = kFirstSize; size <= std::numeric_limits<int>::max(); size *= 2) {
      m_records.reset(static_cast<char*>(std::malloc(static_cast<std::size_t>(size))));
      if (!m_records) break;
      ifconf list{};
      list.ifc_len = static_cast<int>(size);
      list.ifc_buf = m_records.get();
      if (!control.Ask(SIOCGIFCONF, &list)) {
        return FXErrorUtil::ErrorWin32(where, kErrorInvalidState,
                                       "Failed to query the list of IPv4 interfaces: %s",
                                       std::strerror(errno));
      }
      m_count = list.ifc_len / kRecordSize;
      if (!isFull(list.ifc_len, static_cast<int>(size))) return {};
      m_records.reset();
    }
    return FXErrorUtil::ErrorWin32(where, kErrorNotEnoughMemory, "Out of memory");
  }

  int Count() const { return m_count; }

  ifreq Record(int index) const {
    ifreq record;
    std::memcpy(&record, m_records.get() + static_cast<std::size_t>(index) * sizeof record,
                sizeof record);
    return record;
  }

 private:
  static constexpr long kFirstSize = 1024;

  std::unique_ptr<char, ZuInternal::FreeMemory> m_records;
  int m_count = 0;
};

bool IsFullOfRecords(int length, int size) { return length / kRecordSize == size / kRecordSize; }

// The kernel returns whole records of 40 bytes, which never fill the 1,024 bytes offered first to
// the byte: a MAC list therefore ends after 25 addresses. Programs have relied on that length.
bool IsFullToTheByte(int length, int size) { return length == size; }

ifreq RequestFor(const ifreq& record) {
  ifreq request{};
  std::memcpy(request.ifr_name, record.ifr_name, strnlen(record.ifr_name, IFNAMSIZ - 1));
  request.ifr_addr.sa_family = AF_INET;
  return request;
}

sockaddr_in V4Address(const sockaddr& address) {
  sockaddr_in v4;
  std::memcpy(&v4, &address, sizeof v4);
  return v4;
}

// The address of the record, with the network it belongs to.
AddressPair V4Pair(const ControlSocket& control, const ifreq& record) {
  const sockaddr_in address = V4Address(record.ifr_addr);
  sockaddr_in network = address;
  ifreq request = RequestFor(record);
  if (control.Ask(SIOCGIFNETMASK, &request)) {
    network.sin_addr.s_addr &= V4Address(request.ifr_netmask).sin_addr.s_addr;
  } else {
    network.sin_addr.s_addr &=
        0xFFFFFF00u;  // in memory order, so that the first number of a.b.c.d becomes 0
  }
  return {address, network};
}

CZuError AppendV4Pairs(const FXCodeLocation& where, std::vector<AddressPair>& list) {
  ControlSocket control;
  Table table;
  CZuError error = control.Open(where);
  if (!Failed(error)) error = table.Read(where, control, IsFullOfRecords);
  if (Failed(error)) return error;
  for (int i = 0; i < table.Count(); ++i) {
    const ifreq record = table.Record(i);
    if (record.ifr_addr.sa_family == AF_INET) list.push_back(V4Pair(control, record));
  }
  return {};
}

// The value of a hexadecimal digit, -1 for anything else.
int DigitValue(char character) {
  const int c = std::tolower(static_cast<unsigned char>(character));
  if (c >= '0' && c <= '9') return c - '0';
  return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

// Reads the 32 digits at the start of a line.
bool ReadAddress(const char* line, in6_addr& address) {
  for (std::uint8_t& byte : address.s6_addr) {
    const int high = DigitValue(*line++);
    if (high < 0) return false;
    const int low = DigitValue(*line++);
    if (low < 0) return false;
    byte = static_cast<std::uint8_t>(high << 4 | low);
  }
  return true;
}

// The address, with its fourth group in the last two bytes of an IPv4 value: the subnet identifier
// of a /64 network.
AddressPair V6Pair(const in6_addr& address) {
  sockaddr_in6 v6{};
  v6.sin6_family = AF_INET6;
  v6.sin6_addr = address;
  sockaddr_in subnet{};
  subnet.sin_family = AF_INET;
  subnet.sin_addr.s_addr =
      htonl(static_cast<std::uint32_t>(address.s6_addr[6] << 8 | address.s6_addr[7]));
  return {v6, subnet};
}

CZuError AppendV6Pairs(const FXCodeLocation& where, std::vector<AddressPair>& list) {
  const std::unique_ptr<FILE, ZuInternal::CloseFile> file(std::fopen(kIPv6Table, "r"));
  if (!file) return {};
  char line[128];
  while (std::fgets(line, sizeof line, file.get()) != nullptr) {
    in6_addr address;
    if (!ReadAddress(line, address)) {
      return FXErrorUtil::ErrorWin32(where, kErrorInvalidState, "Invalid contents of %s: %s",
                                     kIPv6Table, line);
    }
    list.push_back(V6Pair(address));
  }
  return {};
}

// False where the interface is the loopback or does not answer.
bool ReadHardwareAddress(const ControlSocket& control, const ifreq& record, std::string& text) {
  ifreq request = RequestFor(record);
  if (!control.Ask(SIOCGIFFLAGS, &request)) return false;
  if ((request.ifr_flags & IFF_LOOPBACK) != 0) return false;
  request = RequestFor(record);
  if (!control.Ask(SIOCGIFHWADDR, &request)) return false;
  unsigned char bytes[6];
  std::memcpy(bytes, request.ifr_hwaddr.sa_data, sizeof bytes);
  text.clear();
  for (const unsigned char byte : bytes) text += FXString::Format("%.2X:", byte);
  FXString::TrimRight(text, ":");
  return true;
}

}  // namespace

CZuError CZuIPAddr::GetIFList(std::vector<std::pair<CZuIPAddr, CZuIPAddr>>& list,
                              IP_FAMILY family) {
  CZuError error;
  if (family == FAMILY_IPV4 || family == FAMILY_ANY) error = AppendV4Pairs(ZU_HERE, list);
  if (!Failed(error) && (family == FAMILY_IPV6 || family == FAMILY_ANY)) {
    error = AppendV6Pairs(ZU_HERE, list);
  }
  return error;
}

CZuError CZuIPAddr::GetIFList(std::vector<CZuIPAddr>& list, IP_FAMILY family) {
  std::vector<AddressPair> pairs;
  CZuError error = GetIFList(pairs, family);
  if (Failed(error)) return error.Push(ZU_HERE);
  list.reserve(pairs.size());
  for (const AddressPair& pair : pairs) list.push_back(pair.first);
  return {};
}

CZuError CZuIPAddr::GetMACList(std::vector<std::string>& list, IP_FAMILY /*family*/) {
  ControlSocket control;
  Table table;
  CZuError error = control.Open(ZU_HERE);
  if (!Failed(error)) error = table.Read(ZU_HERE, control, IsFullToTheByte);
  if (Failed(error)) return error;
  std::string text;
  for (int i = 0; i < table.Count(); ++i) {
    const ifreq record = table.Record(i);
    if (record.ifr_addr.sa_family != AF_INET) continue;
    if (ReadHardwareAddress(control, record, text)) list.push_back(text);
  }
  return {};
}

// The interfaces of the machine: of networks made for a test, and of a kernel that is made up.

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <optional>

#include "ZuNetwork/ZuIPAddr.h"
#include "support/Addresses.h"
#include "support/Expect.h"
#include "support/Heap.h"
#include "support/Namespaces.h"
#include "support/SystemFunction.h"

namespace {

using testing::Contains;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

constexpr auto kAny = CZuIPAddr::FAMILY_ANY;
constexpr auto kV4 = CZuIPAddr::FAMILY_IPV4;
constexpr auto kV6 = CZuIPAddr::FAMILY_IPV6;
constexpr auto kUnknown = static_cast<CZuIPAddr::IP_FAMILY>(7);

using Pairs = std::vector<std::pair<CZuIPAddr, CZuIPAddr>>;

// ---- A kernel that is made up ----

struct Interface {
  std::string name;
  std::string address;
  std::string mask = "255.255.255.0";                 // empty: the request fails
  std::optional<int> flags = IFF_UP;                  // none: the request fails
  std::string hardware = "\x02\xab\x0c\x0d\xef\x10";  // empty: the request fails
  int family = AF_INET;
};

struct Kernel {
  std::vector<Interface> interfaces;
  int tableErrNo = 0;                // for the table
  int socketErrNo = 0;               // for the control socket
  std::vector<int> offered;          // sizes of the buffers for the table
  std::vector<ifreq> requests;       // those about one interface
  std::vector<unsigned long> kinds;  // of these
};

SystemFunction<int(int, int, int)> gSocket{"socket"};
SystemFunction<int(int, unsigned long, void*), int (*)(int, unsigned long, ...)> gIoctl{"ioctl"};
SystemFunction<FILE*(const char*, const char*)> gFopen{"fopen"};

Kernel* gKernel = nullptr;
const char* gTable = nullptr;  // stands for /proc/net/if_inet6; null: the system's
bool gHasTable = true;

// Buffers that start at 1024 bytes and double: their sizes, in the order of the requests.
struct {
  int sizes[16];
  int count;
} gBuffers;

void NoteBuffer(std::size_t size) {
  const bool isBuffer = size >= 1024 && (size & (size - 1)) == 0;
  if (isBuffer && gBuffers.count < 16) gBuffers.sizes[gBuffers.count++] = static_cast<int>(size);
}

std::ptrdiff_t CountDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// While it lives, the system calls reach the made-up kernel, which has no IPv6.
class MadeUp : public testing::Test {
 protected:
  MadeUp() : m_descriptors(CountDescriptors()) {
    gKernel = &kernel;
    gHasTable = false;
  }
  ~MadeUp() override {
    gKernel = nullptr;
    gTable = nullptr;
    gHasTable = true;
    EXPECT_EQ(CountDescriptors(), m_descriptors);
  }

  void UseTable(const char* content) {
    gTable = content;
    gHasTable = true;
  }

  // Interfaces 10.0.0.1, 10.0.0.2 … of their own.
  void AddInterfaces(int count) {
    for (int i = 1; i <= count; ++i) {
      const std::string number = std::to_string(i);
      kernel.interfaces.push_back({"eth" + number, "10.0.0." + number});
    }
  }

  Kernel kernel;

 private:
  std::ptrdiff_t m_descriptors;
};

ifreq Record(const Interface& interface) {
  ifreq record{};
  std::memcpy(record.ifr_name, interface.name.data(),
              std::min<std::size_t>(interface.name.size(), IFNAMSIZ));
  sockaddr_in address = V4(interface.address.c_str());
  address.sin_family = static_cast<sa_family_t>(interface.family);
  std::memcpy(&record.ifr_addr, &address, sizeof address);
  return record;
}

// As the kernel does: whole records, as many as there is room for.
int FillTable(ifconf& list) {
  gKernel->offered.push_back(list.ifc_len);
  if (gKernel->tableErrNo != 0) {
    errno = gKernel->tableErrNo;
    return -1;
  }
  const std::size_t room = static_cast<std::size_t>(list.ifc_len) / sizeof(ifreq);
  const std::size_t count = std::min(room, gKernel->interfaces.size());
  for (std::size_t i = 0; i < count; ++i) {
    const ifreq record = Record(gKernel->interfaces[i]);
    std::memcpy(list.ifc_buf + i * sizeof record, &record, sizeof record);
  }
  list.ifc_len = static_cast<int>(count * sizeof(ifreq));
  return 0;
}

int AnswerRequest(unsigned long kind, ifreq& request) {
  gKernel->kinds.push_back(kind);
  gKernel->requests.push_back(request);
  const std::string name(request.ifr_name, strnlen(request.ifr_name, IFNAMSIZ));
  for (const Interface& interface : gKernel->interfaces) {
    if (interface.name.substr(0, IFNAMSIZ - 1) != name) continue;
    if (kind == SIOCGIFNETMASK && !interface.mask.empty()) {
      const sockaddr_in mask = V4(interface.mask.c_str());
      std::memcpy(&request.ifr_netmask, &mask, sizeof mask);
      return 0;
    }
    if (kind == SIOCGIFFLAGS && interface.flags) {
      request.ifr_flags = static_cast<short>(*interface.flags);
      return 0;
    }
    if (kind == SIOCGIFHWADDR && !interface.hardware.empty()) {
      request.ifr_hwaddr.sa_family = 1;
      std::memcpy(request.ifr_hwaddr.sa_data, interface.hardware.data(), 6);
      return 0;
    }
    break;
  }
  errno = EADDRNOTAVAIL;
  return -1;
}

// "10.0.0.1 in 10.0.0.0"
std::vector<std::string> Texts(const Pairs& pairs) {
  std::vector<std::string> texts;
  for (const auto& [first, second] : pairs) texts.push_back(Text(first) + " in " + Text(second));
  return texts;
}

Pairs PairsOf(CZuIPAddr::IP_FAMILY family) {
  Pairs pairs;
  EXPECT_OK(CZuIPAddr::GetIFList(pairs, family));
  return pairs;
}

std::vector<CZuIPAddr> ListOf(CZuIPAddr::IP_FAMILY family) {
  std::vector<CZuIPAddr> list;
  EXPECT_OK(CZuIPAddr::GetIFList(list, family));
  return list;
}

std::vector<std::string> Macs() {
  std::vector<std::string> macs;
  EXPECT_OK(CZuIPAddr::GetMACList(macs, kV4));
  return macs;
}

// With each fault both forms fail alike; the plain one leaves its list alone.
void ExpectBothFail(unsigned code, const std::string& text, CZuIPAddr::IP_FAMILY family) {
  Pairs pairs;
  const CZuError error = CZuIPAddr::GetIFList(pairs, family);
  EXPECT_FAILS(error, code, text.c_str());
  EXPECT_THAT(error.AsString(), ContainsRegex("\n  ZuIFList.cpp:[0-9]+, [^\n]*CZuIPAddr::GetIFList"
                                              "[^\n]*, " +
                                              text.substr(0, 20)));
  std::vector<CZuIPAddr> list{Address("192.0.2.1")};
  const CZuError plain = CZuIPAddr::GetIFList(list, family);
  EXPECT_FAILS(plain, code, text.c_str());
  EXPECT_THAT(plain.AsString(), HasSubstr("std::vector<CZuIPAddr>"));
  EXPECT_THAT(Texts(list), ElementsAre("192.0.2.1"));
}

}  // namespace

extern "C" {

int socket(int family, int type, int protocol) noexcept {
  if (gKernel == nullptr) return gSocket(family, type, protocol);
  EXPECT_EQ(family, AF_INET);
  EXPECT_EQ(type, SOCK_DGRAM);
  EXPECT_EQ(protocol, 0);
  if (gKernel->socketErrNo == 0) return gSocket(family, type, protocol);
  errno = gKernel->socketErrNo;
  return -1;
}

int ioctl(int descriptor, unsigned long kind, ...) noexcept {
  va_list arguments;
  va_start(arguments, kind);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  if (gKernel == nullptr) return gIoctl(descriptor, kind, argument);
  if (kind == SIOCGIFCONF) return FillTable(*static_cast<ifconf*>(argument));
  return AnswerRequest(kind, *static_cast<ifreq*>(argument));
}

FILE* fopen(const char* path, const char* mode) {
  if (std::strcmp(path, "/proc/net/if_inet6") != 0) return gFopen(path, mode);
  EXPECT_STREQ(mode, "r");
  if (gHasTable && gTable == nullptr) return gFopen(path, mode);
  if (gHasTable && *gTable == '\0') return gFopen("/dev/null", mode);
  if (gHasTable) return fmemopen(const_cast<char*>(gTable), std::strlen(gTable), mode);
  errno = ENOENT;
  return nullptr;
}
}

namespace {

// ---- IPv4 ----

using V4List = MadeUp;

TEST_F(V4List, PairsEachAddressWithItsNetwork) {
  kernel.interfaces = {{"lo", "127.0.0.1", "255.0.0.0", IFF_UP | IFF_LOOPBACK},
                       {"eth0", "192.168.1.20"},
                       {"eth0:1", "10.1.2.3", "255.255.240.0"},
                       {"tun0", "10.9.9.9", "255.255.255.255"},
                       {"any", "172.16.0.1", "0.0.0.0"}};
  EXPECT_THAT(Texts(PairsOf(kV4)),
              ElementsAre("127.0.0.1 in 127.0.0.0", "192.168.1.20 in 192.168.1.0",
                          "10.1.2.3 in 10.1.0.0", "10.9.9.9 in 10.9.9.9", "172.16.0.1 in 0.0.0.0"));
}

TEST_F(V4List, HasPortsAndOtherBytesOfZero) {
  AddInterfaces(1);
  const Pairs pairs = PairsOf(kV4);
  ASSERT_EQ(pairs.size(), 1u);
  const CZuIPAddr address = Address("10.0.0.1");
  const CZuIPAddr network = Address("10.0.0.0");
  EXPECT_EQ(std::memcmp(&pairs[0].first.m_Addr, &address.m_Addr, sizeof address), 0);
  EXPECT_EQ(std::memcmp(&pairs[0].second.m_Addr, &network.m_Addr, sizeof network), 0);
}

TEST_F(V4List, WithoutAMaskClearsTheFirstByte) {
  kernel.interfaces = {{"eth0", "192.168.1.20", ""}, {"eth1", "10.1.2.3"}};
  EXPECT_THAT(Texts(PairsOf(kV4)),
              ElementsAre("192.168.1.20 in 0.168.1.20", "10.1.2.3 in 10.1.2.0"));
}

TEST_F(V4List, AsksForTheMaskByTheNameOfTheRecord) {
  kernel.interfaces = {{"eth0", "10.0.0.1"}, {"sixteen_letters_", "10.0.0.2"}};
  EXPECT_THAT(Texts(PairsOf(kV4)), ElementsAre("10.0.0.1 in 10.0.0.0", "10.0.0.2 in 10.0.0.0"));
  EXPECT_THAT(kernel.kinds, ElementsAre(SIOCGIFNETMASK, SIOCGIFNETMASK));
  ASSERT_EQ(kernel.requests.size(), 2u);
  EXPECT_STREQ(kernel.requests[0].ifr_name, "eth0");
  EXPECT_STREQ(kernel.requests[1].ifr_name, "sixteen_letters");
  EXPECT_EQ(kernel.requests[1].ifr_addr.sa_family, AF_INET);
}

TEST_F(V4List, TakesOnlyRecordsOfV4) {
  kernel.interfaces = {{"eth0", "10.0.0.1"}, {"odd", "10.0.0.2"}, {"eth1", "10.0.0.3"}};
  kernel.interfaces[1].family = AF_UNIX;
  EXPECT_THAT(Texts(ListOf(kV4)), ElementsAre("10.0.0.1", "10.0.0.3"));
  EXPECT_EQ(Macs().size(), 2u);
}

TEST_F(V4List, IsEmptyWithoutInterfaces) {
  EXPECT_THAT(PairsOf(kV4), IsEmpty());
  EXPECT_THAT(Macs(), IsEmpty());
}

TEST_F(V4List, DoublesTheBufferUntilThereIsRoomLeft) {
  const struct {
    int interfaces;
    std::vector<int> offered;
  } kCases[] = {{1, {1024}},
                {24, {1024}},
                {25, {1024, 2048}},  // full: there might be more
                {26, {1024, 2048}},
                {50, {1024, 2048}},
                {51, {1024, 2048, 4096}},
                {103, {1024, 2048, 4096, 8192}}};
  for (const auto& test : kCases) {
    kernel = {};
    kernel.kinds.reserve(200);  // not to take such a buffer itself
    AddInterfaces(test.interfaces);
    gBuffers = {};
    heap::gWatch = NoteBuffer;
    const Pairs pairs = PairsOf(kV4);
    heap::gWatch = nullptr;
    const std::vector<int> sizes(gBuffers.sizes, gBuffers.sizes + gBuffers.count);
    EXPECT_EQ(static_cast<int>(pairs.size()), test.interfaces);
    EXPECT_EQ(kernel.offered, test.offered) << test.interfaces;
    EXPECT_EQ(sizes, test.offered) << test.interfaces;
    EXPECT_EQ(Text(pairs.back().first), "10.0.0." + std::to_string(test.interfaces));
  }
}

// ---- Faults ----

using Fault = MadeUp;

TEST_F(Fault, NoControlSocket) {
  for (const int err : {EMFILE, ENOBUFS}) {
    kernel.socketErrNo = err;
    const std::string text =
        std::string("Failed to create IP control socket: ") + std::strerror(err);
    ExpectBothFail(Win32Code(774), text, kV4);
    ExpectBothFail(Win32Code(774), text, kAny);
    std::vector<std::string> macs{"before"};
    const CZuError error = CZuIPAddr::GetMACList(macs, kV4);
    EXPECT_FAILS(error, Win32Code(774), text.c_str());
    EXPECT_THAT(error.AsString(), HasSubstr("CZuIPAddr::GetMACList"));
    EXPECT_THAT(macs, ElementsAre("before"));
  }
  EXPECT_THAT(kernel.offered, IsEmpty());
}

TEST_F(Fault, NoTable) {
  AddInterfaces(2);
  for (const int err : {EFAULT, ENODEV}) {
    kernel.tableErrNo = err;
    const std::string text =
        std::string("Failed to query the list of IPv4 interfaces: ") + std::strerror(err);
    ExpectBothFail(Win32Code(774), text, kV4);
    ExpectBothFail(Win32Code(774), text, kAny);
    std::vector<std::string> macs{"before"};
    EXPECT_FAILS(CZuIPAddr::GetMACList(macs, kV4), Win32Code(774), text.c_str());
    EXPECT_THAT(macs, ElementsAre("before"));
  }
}

TEST_F(Fault, NoMemory) {
  AddInterfaces(30);
  for (const std::size_t size : {1024U, 2048U}) {
    const heap::Failing failing(heap::kMalloc, size, size);
    ExpectBothFail(Win32Code(8), "Out of memory", kV4);
    ExpectBothFail(Win32Code(8), "Out of memory", kAny);
  }
  const heap::Failing failing(heap::kMalloc, 1024, 1024);
  std::vector<std::string> macs{"before"};
  EXPECT_FAILS(CZuIPAddr::GetMACList(macs, kV4), Win32Code(8), "Out of memory");
  EXPECT_THAT(macs, ElementsAre("before"));
}

// ---- IPv6 ----

using V6List = MadeUp;

constexpr char kRest[] = " 02 40 00 80     eth0\n";
constexpr char kLoopback[] = "00000000000000000000000000000001";
constexpr char kGlobal[] = "20010db8000000120000000000000005";

TEST_F(V6List, PairsEachAddressWithItsFourthGroup) {
  const std::string table = kLoopback + std::string(kRest) + kGlobal + kRest +
                            "fe80000000000000a8569ffffe488634" + kRest +
                            "20010DB8AaaABBbB000000000000000f" + kRest +
                            "ffffffffffffffffffffffffffffffff" + kRest;
  UseTable(table.c_str());
  EXPECT_THAT(
      Texts(PairsOf(kV6)),
      ElementsAre("::1 in 0.0.0.0", "2001:db8:0:12::5 in 0.0.0.18",
                  "fe80::a856:9fff:fe48:8634 in 0.0.0.0", "2001:db8:aaaa:bbbb::f in 0.0.187.187",
                  "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff in 0.0.255.255"));
}

TEST_F(V6List, HasNoPortFlowOrScope) {
  const std::string table = kGlobal + std::string(kRest);
  UseTable(table.c_str());
  const Pairs pairs = PairsOf(kV6);
  ASSERT_EQ(pairs.size(), 1u);
  const CZuIPAddr address = Address("2001:db8:0:12::5");
  const CZuIPAddr subnet = Address("0.0.0.18");
  EXPECT_EQ(std::memcmp(&pairs[0].first.m_Addr, &address.m_Addr, sizeof address), 0);
  EXPECT_EQ(std::memcmp(&pairs[0].second.m_Addr, &subnet.m_Addr, sizeof subnet), 0);
}

TEST_F(V6List, ReadsNothingBehindTheAddress) {
  const std::string rests[] = {"", "\n", "zzz\n", std::string(95, 'z'),
                               std::string(94, 'z') + "\n"};
  for (const std::string& rest : rests) {
    const std::string table = kGlobal + rest;
    UseTable(table.c_str());
    EXPECT_THAT(Texts(ListOf(kV6)), ElementsAre("2001:db8:0:12::5")) << rest;
  }
}

TEST_F(V6List, ReadsTheRestOfALongLineAsAnotherOne) {
  const std::string head = kGlobal + std::string(95, ' ');  // fills the buffer of 128
  const std::string good = head + kLoopback + "\n";
  UseTable(good.c_str());
  EXPECT_THAT(Texts(ListOf(kV6)), ElementsAre("2001:db8:0:12::5", "::1"));
  const std::string bad = head + "eth0\n";
  UseTable(bad.c_str());
  ExpectBothFail(Win32Code(774), "Invalid contents of /proc/net/if_inet6: eth0\n", kV6);
}

TEST_F(V6List, RefusesLinesThatDoNotBeginWith32Digits) {
  const std::string lines[] = {"nonsense\n",
                               "\n",
                               " " + std::string(kGlobal) + "\n",
                               "fe80\n",
                               std::string(kGlobal, 31) + "\n",
                               std::string(kGlobal, 31),
                               std::string(kGlobal, 31) + "g\n",
                               std::string(kGlobal, 30) + "/0\n",
                               std::string(kGlobal, 30) + ":0\n",
                               std::string(kGlobal, 30) + "@0\n",
                               std::string(kGlobal, 30) + "`0\n",
                               "0x" + std::string(kGlobal),
                               "2001:db8::5\n",
                               "\xe9" + std::string(kGlobal),
                               "f",
                               "%s%n\n"};
  for (const std::string& line : lines) {
    UseTable(line.c_str());
    ExpectBothFail(Win32Code(774), "Invalid contents of /proc/net/if_inet6: " + line, kV6);
  }
}

TEST_F(V6List, KeepsInThePairFormWhatCameBeforeABadLine) {
  AddInterfaces(2);
  const std::string table = kLoopback + std::string(kRest) + "bad\n" + kGlobal + kRest;
  UseTable(table.c_str());
  Pairs pairs{{Address("192.0.2.1"), Address("192.0.2.0")}};
  EXPECT_FAILS(CZuIPAddr::GetIFList(pairs, kAny), Win32Code(774),
               "Invalid contents of /proc/net/if_inet6: bad\n");
  EXPECT_THAT(Texts(pairs), ElementsAre("192.0.2.1 in 192.0.2.0", "10.0.0.1 in 10.0.0.0",
                                        "10.0.0.2 in 10.0.0.0", "::1 in 0.0.0.0"));
  ExpectBothFail(Win32Code(774), "Invalid contents of /proc/net/if_inet6: bad\n", kAny);
}

TEST_F(V6List, IsEmptyWithoutOrWithAnEmptyTable) {
  AddInterfaces(1);
  EXPECT_THAT(PairsOf(kV6), IsEmpty());
  EXPECT_THAT(Texts(ListOf(kAny)), ElementsAre("10.0.0.1"));
  UseTable("");
  EXPECT_THAT(PairsOf(kV6), IsEmpty());
  EXPECT_THAT(Texts(ListOf(kAny)), ElementsAre("10.0.0.1"));
}

TEST_F(V6List, NeedsNoControlSocket) {
  kernel.socketErrNo = EMFILE;
  const std::string table = kGlobal + std::string(kRest);
  UseTable(table.c_str());
  EXPECT_THAT(Texts(ListOf(kV6)), ElementsAre("2001:db8:0:12::5"));
}

// ---- Both ----

using List = MadeUp;

TEST_F(List, HasV4FirstAndIsAppendedTo) {
  AddInterfaces(2);
  const std::string table = kLoopback + std::string(kRest);
  UseTable(table.c_str());
  std::vector<CZuIPAddr> list{Address("192.0.2.1")};
  EXPECT_OK(CZuIPAddr::GetIFList(list, kAny));
  EXPECT_OK(CZuIPAddr::GetIFList(list, kV4));
  EXPECT_OK(CZuIPAddr::GetIFList(list, kV6));
  EXPECT_THAT(Texts(list), ElementsAre("192.0.2.1", "10.0.0.1", "10.0.0.2", "::1", "10.0.0.1",
                                       "10.0.0.2", "::1"));
  Pairs pairs{{Address("192.0.2.1"), Address("192.0.2.0")}};
  EXPECT_OK(CZuIPAddr::GetIFList(pairs, kAny));
  EXPECT_OK(CZuIPAddr::GetIFList(pairs, kV6));
  EXPECT_THAT(Texts(pairs),
              ElementsAre("192.0.2.1 in 192.0.2.0", "10.0.0.1 in 10.0.0.0", "10.0.0.2 in 10.0.0.0",
                          "::1 in 0.0.0.0", "::1 in 0.0.0.0"));
}

TEST_F(List, HasNothingForAFamilyItDoesNotKnow) {
  AddInterfaces(2);
  const std::string table = kLoopback + std::string(kRest);
  UseTable(table.c_str());
  for (const int family : {7, 1, -1, 3}) {
    const auto unknown = static_cast<CZuIPAddr::IP_FAMILY>(family);
    EXPECT_THAT(PairsOf(unknown), IsEmpty()) << family;
    EXPECT_THAT(ListOf(unknown), IsEmpty()) << family;
  }
  EXPECT_THAT(kernel.offered, IsEmpty());
}

// ---- Hardware addresses ----

using MacList = MadeUp;

TEST_F(MacList, ShowsSixBytesInUpperCase) {
  AddInterfaces(1);
  kernel.interfaces[0].hardware = std::string("\x00\x1a\x2b\xc3\x04\xff", 6);
  std::vector<std::string> macs{"before"};
  for (const auto family : {kAny, kV4, kV6, kUnknown}) {
    EXPECT_OK(CZuIPAddr::GetMACList(macs, family));
  }
  const std::string mac = "00:1A:2B:C3:04:FF";
  EXPECT_THAT(macs, ElementsAre("before", mac, mac, mac, mac));
}

TEST_F(MacList, LeavesOutLoopbackAndWhatDoesNotAnswer) {
  AddInterfaces(4);
  kernel.interfaces[0].flags = IFF_UP | IFF_LOOPBACK;
  kernel.interfaces[1].flags.reset();
  kernel.interfaces[2].hardware.clear();
  kernel.interfaces[3].flags = 0;  // down
  EXPECT_THAT(Macs(), ElementsAre("02:AB:0C:0D:EF:10"));
  EXPECT_THAT(kernel.kinds, ElementsAre(SIOCGIFFLAGS, SIOCGIFFLAGS, SIOCGIFFLAGS, SIOCGIFHWADDR,
                                        SIOCGIFFLAGS, SIOCGIFHWADDR));
}

TEST_F(MacList, EndsWithTheFirst25Records) {
  for (const int count : {24, 25, 26, 60}) {
    kernel = {};
    AddInterfaces(count);
    EXPECT_EQ(static_cast<int>(Macs().size()), std::min(count, 25)) << count;
    EXPECT_THAT(kernel.offered, ElementsAre(1024)) << count;
  }
}

// ---- Networks made for a test ----

constexpr char kPair[] =
    "ip link set lo up;"
    "ip link add va address 00:1a:2b:3c:4d:5e type veth peer name vb address 02:00:00:00:00:0f;"
    "ip link set va addrgenmode none; ip link set vb addrgenmode none;"
    "ip link set va up; ip link set vb up";

// The kernel knows a mask by the name alone: that of the first address with this name.
TEST(Network, SeveralAddressesOnOneInterface) {
  namespaces::RunIn(namespaces::kNetwork, [] {
    namespaces::Command(kPair);
    namespaces::Command(
        "ip addr add 10.0.0.5/24 dev va; ip addr add 192.168.1.20/28 dev va label va:1;"
        "ip addr add 172.16.1.200/25 dev va");
    EXPECT_THAT(Texts(PairsOf(kV4)),
                UnorderedElementsAre("127.0.0.1 in 127.0.0.0", "10.0.0.5 in 10.0.0.0",
                                     "192.168.1.20 in 192.168.1.16", "172.16.1.200 in 172.16.1.0"));
    const std::string mac = "00:1A:2B:3C:4D:5E";
    EXPECT_THAT(Macs(), ElementsAre(mac, mac, mac));
  });
}

TEST(Network, InterfacesThatAreDown) {
  namespaces::RunIn(namespaces::kNetwork, [] {
    namespaces::Command(kPair);
    namespaces::Command("ip addr add 10.0.0.5/24 dev va; ip link set va down");
    EXPECT_THAT(Texts(ListOf(kV4)), UnorderedElementsAre("127.0.0.1", "10.0.0.5"));
    EXPECT_THAT(Macs(), ElementsAre("00:1A:2B:3C:4D:5E"));
  });
}

TEST(Network, ThirtyAddressesOfWhichTheMacListSees25) {
  namespaces::RunIn(namespaces::kNetwork, [] {
    namespaces::Command(kPair);
    namespaces::Command(
        "i=1; while [ $i -le 30 ]; do ip addr add 10.0.$i.1/24 dev va label va:$i; i=$((i+1)); "
        "done");
    const std::vector<std::string> texts = Texts(PairsOf(kV4));
    EXPECT_EQ(texts.size(), 31u);
    for (int i = 1; i <= 30; ++i) {
      const std::string start = "10.0." + std::to_string(i);
      EXPECT_THAT(texts, Contains(start + ".1 in " + start + ".0"));
    }
    const std::vector<std::string> macs = Macs();
    EXPECT_EQ(macs.size(), 24u);  // one of the 25 is loopback
    for (const std::string& mac : macs) EXPECT_EQ(mac, "00:1A:2B:3C:4D:5E");
  });
}

TEST(Network, GlobalAndLinkLocalV6) {
  namespaces::RunIn(namespaces::kNetwork, [] {
    namespaces::Command(kPair);
    namespaces::Command(
        "ip -6 addr add 2001:db8:0:12::5/64 dev va nodad; ip -6 addr add fe80::7/64 dev vb nodad;"
        "ip addr add 10.0.0.5/24 dev va");
    EXPECT_THAT(Texts(PairsOf(kV6)),
                UnorderedElementsAre("::1 in 0.0.0.0", "2001:db8:0:12::5 in 0.0.0.18",
                                     "fe80::7 in 0.0.0.0"));
    const std::vector<std::string> all = Texts(ListOf(kAny));
    ASSERT_EQ(all.size(), 5u);
    EXPECT_THAT(std::vector<std::string>(all.begin(), all.begin() + 2),
                UnorderedElementsAre("127.0.0.1", "10.0.0.5"));
  });
}

TEST(Network, NoneAtAll) {
  namespaces::RunIn(namespaces::kNetwork, [] {
    EXPECT_THAT(ListOf(kV6), IsEmpty());
    EXPECT_THAT(Macs(), IsEmpty());
  });
}

TEST(Network, WithoutTheTableOfV6) {
  namespaces::RunIn(namespaces::kNetwork | namespaces::kMounts, [] {
    namespaces::Command("ip link set lo up");
    EXPECT_THAT(Texts(ListOf(kAny)), ElementsAre("127.0.0.1", "::1"));
    namespaces::HideFolder("/proc/net");
    EXPECT_THAT(Texts(ListOf(kAny)), ElementsAre("127.0.0.1"));
    EXPECT_THAT(ListOf(kV6), IsEmpty());
  });
}

TEST(Network, WithABadTableOfV6) {
  namespaces::RunIn(namespaces::kNetwork | namespaces::kMounts, [] {
    namespaces::Command("ip link set lo up");
    namespaces::HideFolder("/proc/net");
    const std::string table = kGlobal + std::string(kRest) + "nonsense\n";
    ASSERT_TRUE(namespaces::WriteFile("/proc/net/if_inet6", table));
    const std::ptrdiff_t descriptors = CountDescriptors();
    ExpectBothFail(Win32Code(774), "Invalid contents of /proc/net/if_inet6: nonsense\n", kAny);
    EXPECT_EQ(CountDescriptors(), descriptors);
    Pairs pairs;
    EXPECT_FAILS(CZuIPAddr::GetIFList(pairs, kAny), Win32Code(774), "nonsense");
    EXPECT_THAT(Texts(pairs),
                ElementsAre("127.0.0.1 in 127.0.0.0", "2001:db8:0:12::5 in 0.0.0.18"));
  });
}

}  // namespace

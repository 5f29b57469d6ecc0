// The addresses and names of the machine's interfaces, put together for a caller.

#include <netinet/in.h>

#include <cerrno>
#include <cstring>

#include "ZuNetwork/ZuIPAddr.h"
#include "support/Addresses.h"
#include "support/Expect.h"
#include "support/FakeResolver.h"
#include "support/Namespaces.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

constexpr auto kAny = CZuIPAddr::FAMILY_ANY;
constexpr auto kV4 = CZuIPAddr::FAMILY_IPV4;
constexpr auto kV6 = CZuIPAddr::FAMILY_IPV6;
constexpr auto kUnknown = static_cast<CZuIPAddr::IP_FAMILY>(7);

constexpr char kNetwork[] =
    "ip link set lo up;"
    "ip link add va type veth peer name vb;"
    "ip link set va addrgenmode none; ip link set vb addrgenmode none;"
    "ip link set va up; ip link set vb up;"
    "ip addr add 10.0.0.5/24 dev va; ip addr add 9.1.1.1/24 dev vb;"
    "ip -6 addr add 2001:db8::5/64 dev va nodad";

SystemFunction<int(int, int, int)> gSocket{"socket"};
int gSocketErrNo = 0;  // for the enumeration

CZuError Collect(bool ips, bool names, GetAllInterfacesRet_t& found, CZuIPAddr::IP_FAMILY family) {
  GetAllInterfacesArgs_t args{ips, names};
  CZuError error = CZuIPAddr::GetAllInterfaces(args, found, family);
  EXPECT_TRUE(args.getIPList);
  EXPECT_EQ(args.getHostnames, names);
  return error;
}

// Names addresses by a function of their text; "" stands for none.
resolver::Reverse NamesBy(std::function<std::string(const std::string& address)> nameOf) {
  return [nameOf = std::move(nameOf)](const sockaddr* address, socklen_t length, char* host,
                                      socklen_t size, int flags) {
    CZuIPAddr value;
    std::memcpy(&value.m_Addr, address, length);
    std::string text = Text(value);
    EXPECT_EQ(size, flags == NI_NAMEREQD ? 256u : 128u);
    if (flags == NI_NAMEREQD) text = nameOf(text);
    if (text.empty()) return EAI_NONAME;
    if (text.size() >= size) return EAI_OVERFLOW;
    std::memcpy(host, text.c_str(), text.size() + 1);
    return 0;
  };
}

TEST(GetAllInterfaces, WantsSomethingToBeAskedFor) {
  GetAllInterfacesArgs_t args{};
  GetAllInterfacesRet_t found{{"9.9.9.9", "1.1.1.1"}, {Address("10.1.2.3")}, {"b", "a"}};
  EXPECT_FAILS(CZuIPAddr::GetAllInterfaces(args, found, kAny), Win32Code(87),
               "Nothing requested in arguments.");
  EXPECT_FALSE(args.getIPList || args.getHostnames);
  EXPECT_THAT(found.ipList, ElementsAre("9.9.9.9", "1.1.1.1"));
  EXPECT_THAT(Texts(found.ipListsa), ElementsAre("10.1.2.3"));
  EXPECT_THAT(found.hostnameList, ElementsAre("b", "a"));
}

TEST(GetAllInterfaces, SortsTextsByteByByteWithoutLoopback) {
  namespaces::RunIn(namespaces::kNetwork, [] {
    namespaces::Command(kNetwork);
    namespaces::Command("ip addr add 10.0.0.40/24 dev va; ip addr add 127.0.0.2/8 dev lo");
    GetAllInterfacesRet_t found;
    EXPECT_OK(Collect(true, false, found, kAny));
    EXPECT_THAT(found.ipList,
                ElementsAre("10.0.0.40", "10.0.0.5", "127.0.0.2", "2001:db8::5", "9.1.1.1"));
    EXPECT_THAT(Texts(found.ipListsa),
                UnorderedElementsAre("127.0.0.1", "127.0.0.2", "10.0.0.5", "10.0.0.40", "9.1.1.1",
                                     "::1", "2001:db8::5"));
    EXPECT_THAT(found.hostnameList, IsEmpty());
  });
}

TEST(GetAllInterfaces, LeavesTheValuesInTheOrderOfTheSystem) {
  namespaces::RunIn(namespaces::kNetwork, [] {
    namespaces::Command(kNetwork);
    std::vector<CZuIPAddr> list;
    ASSERT_OK(CZuIPAddr::GetIFList(list, kAny));
    GetAllInterfacesRet_t found;
    EXPECT_OK(Collect(true, false, found, kAny));
    EXPECT_EQ(Texts(found.ipListsa), Texts(list));
    EXPECT_EQ(list.size(), 5u);
  });
}

TEST(GetAllInterfaces, TakesTheAddressesOfOneFamilyOnly) {
  namespaces::RunIn(namespaces::kNetwork, [] {
    namespaces::Command(kNetwork);
    const struct {
      CZuIPAddr::IP_FAMILY family;
      std::vector<std::string> texts;
    } kCases[] = {{kV4, {"10.0.0.5", "9.1.1.1"}}, {kV6, {"2001:db8::5"}}, {kUnknown, {}}};
    for (const auto& test : kCases) {
      GetAllInterfacesRet_t found;
      EXPECT_OK(Collect(true, false, found, test.family));
      EXPECT_EQ(found.ipList, test.texts) << test.family;
    }
  });
}

TEST(GetAllInterfaces, AskedForNamesGivesTextsToo) {
  namespaces::RunIn(namespaces::kNetwork | namespaces::kMounts, [] {
    namespaces::Command(kNetwork);
    namespaces::UseHosts(
        "127.0.0.1 loop.example\n::1 loop.example\n"
        "10.0.0.5 Zeta.Example\n2001:db8::5 zeta.EXAMPLE\n9.1.1.1 alpha.example\n");
    GetAllInterfacesRet_t found;
    EXPECT_OK(Collect(false, true, found, kAny));
    EXPECT_THAT(found.ipList, ElementsAre("10.0.0.5", "2001:db8::5", "9.1.1.1"));
    EXPECT_THAT(found.hostnameList, ElementsAre("alpha.example", "zeta.example"));
  });
}

TEST(GetAllInterfaces, LeavesOutAddressesWithoutAName) {
  namespaces::RunIn(namespaces::kNetwork | namespaces::kMounts, [] {
    namespaces::Command(kNetwork);
    namespaces::UseHosts("9.1.1.1 alpha.example\n");
    GetAllInterfacesRet_t found;
    EXPECT_OK(Collect(true, true, found, kAny));
    EXPECT_THAT(found.ipList, ElementsAre("10.0.0.5", "2001:db8::5", "9.1.1.1"));
    EXPECT_THAT(found.hostnameList, ElementsAre("alpha.example"));
  });
}

// From here on the addresses are those given before and none of the machine.

GetAllInterfacesRet_t With(const std::vector<std::string>& addresses) {
  GetAllInterfacesRet_t found;
  for (const std::string& address : addresses) found.ipListsa.push_back(Address(address, 80));
  return found;
}

TEST(GetAllInterfaces, GoesThroughTheWholeListAtEveryCall) {
  GetAllInterfacesRet_t found = With({"10.0.0.5", "127.0.0.1", "9.1.1.1", "::1"});
  found.ipList = {"zzz", "10.0.0.5"};
  found.hostnameList = {"zzz", "host", "zzz"};
  const resolver::ReverseAnswer answer(NamesBy([](const std::string&) { return "HOST"; }));
  EXPECT_OK(Collect(false, true, found, kUnknown));
  EXPECT_THAT(found.ipList, ElementsAre("10.0.0.5", "10.0.0.5", "9.1.1.1", "zzz"));
  EXPECT_THAT(found.hostnameList, ElementsAre("host", "zzz"));
  EXPECT_OK(Collect(true, false, found, kUnknown));
  EXPECT_THAT(found.ipList,
              ElementsAre("10.0.0.5", "10.0.0.5", "10.0.0.5", "9.1.1.1", "9.1.1.1", "zzz"));
  EXPECT_THAT(Texts(found.ipListsa), ElementsAre("10.0.0.5", "127.0.0.1", "9.1.1.1", "::1"));
}

TEST(GetAllInterfaces, SkipsOnlyTheTwoLoopbackAddresses) {
  GetAllInterfacesRet_t found = With({"127.0.0.1", "127.0.0.2", "::1", "::ffff:127.0.0.1", "::2"});
  EXPECT_OK(Collect(true, false, found, kUnknown));
  EXPECT_THAT(found.ipList, ElementsAre("127.0.0.2", "::2", "::ffff:127.0.0.1"));
}

TEST(GetAllInterfaces, DoesNotAskForNamesOfLoopbackOrWhenNobodyWantsThem) {
  GetAllInterfacesRet_t found = With({"127.0.0.1", "::1", "10.0.0.5"});
  std::vector<std::string> asked;
  const resolver::ReverseAnswer answer(NamesBy([&asked](const std::string& address) {
    asked.push_back(address);
    return "host";
  }));
  EXPECT_OK(Collect(true, false, found, kUnknown));
  EXPECT_THAT(asked, IsEmpty());
  EXPECT_OK(Collect(true, true, found, kUnknown));
  EXPECT_THAT(asked, ElementsAre("10.0.0.5"));
}

TEST(GetAllInterfaces, LowersSortsAndListsEachNameOnce) {
  GetAllInterfacesRet_t found = With({"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4"});
  const resolver::ReverseAnswer answer(NamesBy([](const std::string& address) {
    if (address == "10.0.0.1") return "Zulu";
    if (address == "10.0.0.3") return "a-Name";
    return address == "10.0.0.2" ? "ALPHA" : "zuLU";
  }));
  EXPECT_OK(Collect(true, true, found, kUnknown));
  EXPECT_THAT(found.hostnameList, ElementsAre("a-name", "alpha", "zulu"));
}

TEST(GetAllInterfaces, TakesNamesOfUpTo255Characters) {
  GetAllInterfacesRet_t found = With({"10.0.0.1", "10.0.0.2"});
  const resolver::ReverseAnswer answer(NamesBy([](const std::string& address) {
    return std::string(address == "10.0.0.1" ? 255 : 256, 'N');
  }));
  EXPECT_OK(Collect(true, true, found, kUnknown));
  EXPECT_THAT(found.hostnameList, ElementsAre(std::string(255, 'n')));
  EXPECT_THAT(found.ipList, ElementsAre("10.0.0.1", "10.0.0.2"));
}

TEST(GetAllInterfaces, LeavesOutEmptyNames) {
  GetAllInterfacesRet_t found = With({"10.0.0.1"});
  const resolver::ReverseAnswer answer(
      [](const sockaddr*, socklen_t, char* host, socklen_t, int flags) {
        std::strcpy(host, flags == NI_NAMEREQD ? "" : "10.0.0.1");
        return 0;
      });
  EXPECT_OK(Collect(true, true, found, kUnknown));
  EXPECT_THAT(found.ipList, ElementsAre("10.0.0.1"));
  EXPECT_THAT(found.hostnameList, IsEmpty());
}

TEST(GetAllInterfaces, ListsAnEmptyTextForAnAddressWithoutOne) {
  GetAllInterfacesRet_t found;
  found.ipListsa.emplace_back();
  EXPECT_OK(Collect(true, true, found, kUnknown));
  EXPECT_THAT(found.ipList, ElementsAre(""));
  EXPECT_THAT(found.hostnameList, IsEmpty());
}

TEST(GetAllInterfaces, DropsAFailedEnumeration) {
  GetAllInterfacesRet_t found = With({"10.0.0.5"});
  gSocketErrNo = EMFILE;
  const CZuError error = Collect(true, false, found, kAny);
  gSocketErrNo = 0;
  EXPECT_OK(error);
  EXPECT_THAT(found.ipList, ElementsAre("10.0.0.5"));
  EXPECT_THAT(Texts(found.ipListsa), ElementsAre("10.0.0.5"));
}

}  // namespace

extern "C" int socket(int family, int type, int protocol) noexcept {
  if (gSocketErrNo == 0) return gSocket(family, type, protocol);
  errno = gSocketErrNo;
  return -1;
}

#include "ZuNetwork/ZuSocket.h"

#include <cerrno>
#include <functional>
#include <type_traits>

#include "support/LeaveOut.h"
#include "support/SocketObjects.h"
#include "support/SystemCalls.h"

namespace {

constexpr char kNotValid[] = "Not a valid socket";
constexpr int kUntouched = 99;

// What the calls below write to.
struct Outputs {
  char buffer[8] = "before";
  int count = kUntouched;
  int flag = kUntouched;
  int length = sizeof(int);
  unsigned queue = kUntouched;
  CZuIPAddr address = Address("10.1.2.3", 4);
  CZuSocket socket;
};

struct Operation {
  const char* function;  // the one that reports
  std::function<CZuError(CZuSocket&, Outputs&)> call;
  const char* text = kNotValid;  // of an empty object
};

// Every operation that needs a descriptor.
const Operation kOperations[] = {
    {"Listen", [](CZuSocket& s, Outputs&) { return s.Listen(1); }, "Not a bound socket"},
    {"Accept", [](CZuSocket& s, Outputs& o) { return s.Accept(o.socket); },
     "Not a listening socket"},
    {"GetLocalAddress", [](CZuSocket& s, Outputs& o) { return s.GetLocalAddress(o.address); }},
    {"GetPeerAddress", [](CZuSocket& s, Outputs& o) { return s.GetPeerAddress(o.address); }},
    {"GetSockOpt",
     [](CZuSocket& s, Outputs& o) {
       return s.GetSockOpt(SOL_SOCKET, SO_TYPE, o.buffer, &o.length);
     }},
    {"SetSockOpt",
     [](CZuSocket& s, Outputs& o) {
       return s.SetSockOpt(SOL_SOCKET, SO_KEEPALIVE, o.buffer, o.length);
     }},
    {"SetSockOpt", [](CZuSocket& s, Outputs&) { return s.NagleOff(); }},
    {"SetSockOpt", [](CZuSocket& s, Outputs&) { return s.NagleOn(); }},
    {"SetToBlocking", [](CZuSocket& s, Outputs&) { return s.SetToBlocking(); }},
    {"SetToNonBlocking", [](CZuSocket& s, Outputs&) { return s.SetToNonBlocking(); }},
    {"GetReadQueueLen", [](CZuSocket& s, Outputs& o) { return s.GetReadQueueLen(&o.queue); }},
    {"Recv", [](CZuSocket& s, Outputs& o) { return s.Recv(o.buffer, 4, 0, &o.count); }},
    {"Send", [](CZuSocket& s, Outputs& o) { return s.Send("ping", 4, 0, &o.count); }},
    {"RecvWithTimeout",
     [](CZuSocket& s, Outputs& o) {
       return s.RecvWithTimeout(o.buffer, 4, 1, &o.flag, 0, &o.count);
     }},
    {"SendWithTimeOut",
     [](CZuSocket& s, Outputs& o) {
       return s.SendWithTimeOut("ping", 4, 1, &o.flag, 0, &o.count);
     }},
    {"SendtoICMPSocket",
     [](CZuSocket& s, Outputs& o) {
       return s.SendtoICMPSocket("ping", 4, 1, &o.flag, 0, &o.count);
     }},
    {"RecvfromICMPSocket",
     [](CZuSocket& s, Outputs& o) {
       return s.RecvfromICMPSocket(o.buffer, 4, 1, &o.flag, 0, &o.count);
     }},
};

std::string Signature(const char* function) {
  return "CZuError CZuSocket::" + std::string(function) + "(";
}

class ZuSocket : public SocketTest {};

// The rules that hold for either family.
class ZuSocketFamily : public SocketTest, public testing::WithParamInterface<const char*> {
 protected:
  void SetUp() override {
    OwnedSocket probe;
    if (Failed(probe.Bind(Address(GetParam())))) GTEST_SKIP() << "no " << GetParam() << " here";
  }
  int Family() const { return Address(GetParam()).m_Addr.addr.f.family; }
};

INSTANTIATE_TEST_SUITE_P(, ZuSocketFamily, testing::Values("127.0.0.1", "::1"),
                         [](const testing::TestParamInfo<const char*>& param) {
                           return param.index == 0 ? "IPv4" : "IPv6";
                         });

// ---- The value ----

static_assert(sizeof(CZuSocketDescriptor) == sizeof(KDSOCKET));
static_assert(sizeof(CZuSocket) == sizeof(CZuSocketDescriptor) + sizeof(CZuIPAddr));
static_assert(!std::is_polymorphic_v<CZuSocket>);

TEST_F(ZuSocket, IsEmptyAtFirst) {
  const CZuSocket socket;
  EXPECT_EQ(socket.GetDescriptor(), -1);
  EXPECT_TRUE(socket.GetAddress() == CZuIPAddr());
  EXPECT_EQ(socket.GetAddress().GetPortNumber(), 0);
}

TEST_F(ZuSocket, TakesAddressesWithoutADescriptor) {
  const CZuIPAddr v4 = Address("10.1.2.3", 80);
  const CZuIPAddr v6 = Address("2001:db8::1", 81);
  for (const CZuSocket& socket : {CZuSocket(v4), CZuSocket(v4.m_Addr.addr.v4)}) {
    EXPECT_EQ(socket.GetDescriptor(), -1);
    EXPECT_EQ(Text(socket.GetAddress()), "10.1.2.3");
    EXPECT_EQ(socket.GetAddress().GetPortNumber(), 80);
  }
  for (const CZuSocket& socket : {CZuSocket(v6), CZuSocket(v6.m_Addr.addr.v6)}) {
    EXPECT_EQ(socket.GetDescriptor(), -1);
    EXPECT_EQ(Text(socket.GetAddress()), "2001:db8::1");
    EXPECT_EQ(socket.GetAddress().GetPortNumber(), 81);
  }
}

TEST_F(ZuSocket, AssignedAddressLetsTheDescriptorGoOpen) {
  const CZuIPAddr v4 = Address("10.1.2.3", 80);
  const CZuIPAddr v6 = Address("2001:db8::1", 81);
  const std::function<void(CZuSocket&)> assignments[] = {
      [&](CZuSocket& s) { s = v4; },
      [&](CZuSocket& s) { s = v4.m_Addr.addr.v4; },
      [&](CZuSocket& s) { s = v6; },
      [&](CZuSocket& s) { s = v6.m_Addr.addr.v6; },
  };
  RecordHooks();
  for (std::size_t i = 0; i < std::size(assignments); ++i) {
    OwnedSocket owner;
    ASSERT_OK(owner.Socket(v4));
    CZuSocket socket = owner;
    assignments[i](socket);
    EXPECT_EQ(socket.GetDescriptor(), -1) << i;
    EXPECT_EQ(Text(socket.GetAddress()), i < 2 ? "10.1.2.3" : "2001:db8::1") << i;
    EXPECT_EQ(socket.GetAddress().GetPortNumber(), i < 2 ? 80 : 81) << i;
    EXPECT_TRUE(gClosed.empty()) << i;
    EXPECT_TRUE(IsOpen(owner.GetDescriptor())) << i;
    owner.Close();
    gClosed.clear();
  }
}

TEST_F(ZuSocket, CopiesShareTheDescriptorAndTheAddress) {
  OwnedSocket original;
  original.AttachConnectedSocket(dup(STDERR_FILENO), Address("10.1.2.3", 80));
  const CZuSocket copy(original);
  CZuSocket assigned(Address("10.9.9.9"));
  assigned = original;
  for (const CZuSocket& socket : {copy, assigned}) {
    EXPECT_EQ(socket.GetDescriptor(), original.GetDescriptor());
    EXPECT_EQ(Text(socket.GetAddress()), "10.1.2.3");
    EXPECT_EQ(socket.GetAddress().GetPortNumber(), 80);
  }
}

TEST_F(ZuSocket, DestructorLeavesTheDescriptorToTheCopies) {
  RecordHooks();
  CZuSocket copy;
  {
    CZuSocket original;
    ASSERT_OK(original.Bind(Address("127.0.0.1")));
    copy = original;
  }
  EXPECT_TRUE(gClosed.empty());
  const int descriptor = copy.GetDescriptor();
  ASSERT_TRUE(IsOpen(descriptor));
  ASSERT_OK(copy.Listen(1));
  copy.Close();
  EXPECT_FALSE(IsOpen(descriptor));
}

TEST_F(ZuSocket, ClearEmptiesWithoutClosing) {
  RecordHooks();
  const OwnedSocket owner(dup(STDERR_FILENO));
  CZuSocket socket;
  socket.AttachConnectedSocket(owner.GetDescriptor(), Address("10.1.2.3", 80));
  socket.Clear();
  EXPECT_EQ(socket.GetDescriptor(), -1);
  EXPECT_TRUE(socket.GetAddress() == CZuIPAddr());
  EXPECT_EQ(socket.GetAddress().GetPortNumber(), 0);
  EXPECT_TRUE(gClosed.empty());
  EXPECT_TRUE(IsOpen(owner.GetDescriptor()));
}

bool gWasOpenInTheHook = false;

TEST_F(ZuSocket, CloseRunsTheHookBeforeItClosesAndEmpties) {
  gClosed.clear();
  ZUNET_setclosecb([](KDSOCKET descriptor) {
    gClosed.push_back(descriptor);
    gWasOpenInTheHook = IsOpen(descriptor);
  });
  CZuSocket socket;
  socket.AttachConnectedSocket(dup(STDERR_FILENO), Address("10.1.2.3"));
  const int descriptor = socket.GetDescriptor();
  socket.Close();
  EXPECT_EQ(gClosed, std::vector<int>{descriptor});
  EXPECT_TRUE(gWasOpenInTheHook);
  EXPECT_FALSE(IsOpen(descriptor));
  EXPECT_EQ(socket.GetDescriptor(), -1);
  EXPECT_TRUE(socket.GetAddress() == CZuIPAddr());
  socket.Close();
  EXPECT_EQ(gClosed.size(), 1u) << "an empty object has nothing to close";
}

TEST_F(ZuSocket, CloseOfAnEmptyObjectClearsTheAddress) {
  CZuSocket socket(Address("10.1.2.3", 80));
  socket.Close();
  EXPECT_TRUE(socket.GetAddress() == CZuIPAddr());
}

TEST_F(ZuSocket, AttachTakesOverADescriptor) {
  OwnedSocket socket;
  socket.AttachConnectedSocket(dup(STDERR_FILENO), Address("10.1.2.3", 80));
  const OwnedSocket first(socket.GetDescriptor());
  EXPECT_TRUE(IsOpen(first.GetDescriptor()));
  EXPECT_EQ(Text(socket.GetAddress()), "10.1.2.3");
  EXPECT_EQ(socket.GetAddress().GetPortNumber(), 80);
  const int second = dup(STDERR_FILENO);
  socket.AttachConnectedSocket(second);
  EXPECT_EQ(socket.GetDescriptor(), second);
  EXPECT_TRUE(socket.GetAddress() == CZuIPAddr());
  EXPECT_TRUE(IsOpen(first.GetDescriptor())) << "what was held is let go, not closed";
}

TEST_F(ZuSocket, ComparesByDescriptor) {
  const struct {
    int left, right;
    bool equal, less;
  } kCases[] = {
      {-1, -1, false, false},    {-1, 0, false, true}, {0, -1, false, false},
      {0, 0, true, false},       {3, 4, false, true},  {4, 3, false, false},
      {7, 7, true, false},       {-1, 7, false, true}, {7, -1, false, false},
      {9999, 9999, true, false},
  };
  for (const auto& c : kCases) {
    CZuSocket left;
    CZuSocket right;
    left.AttachConnectedSocket(c.left, Address("10.1.2.3"));
    right.AttachConnectedSocket(c.right, Address("10.9.9.9"));
    EXPECT_EQ(left == right, c.equal) << c.left << " " << c.right;
    EXPECT_EQ(left < right, c.less) << c.left << " " << c.right;
  }
}

TEST_F(ZuSocket, OffersAnEmptyObject) {
  EXPECT_EQ(CZuSocket::m_DummyObj.GetDescriptor(), -1);
  EXPECT_TRUE(CZuSocket::m_DummyObj.GetAddress() == CZuIPAddr());
}

TEST_F(ZuSocket, StoresTheLoopBackFlag) {
  EXPECT_FALSE(CZuSocket::bEnableLoopBack);
  CZuSocket::SetFastLoopBack(true);
  EXPECT_TRUE(CZuSocket::bEnableLoopBack);
  CZuSocket::SetFastLoopBack(false);
  EXPECT_FALSE(CZuSocket::bEnableLoopBack);
}

// ---- State and system errors ----

void ExpectUntouched(const Outputs& outputs) {
  EXPECT_STREQ(outputs.buffer, "before");
  EXPECT_EQ(outputs.length, static_cast<int>(sizeof(int)));
  EXPECT_EQ(outputs.queue, static_cast<unsigned>(kUntouched));
  EXPECT_EQ(Text(outputs.address), "10.1.2.3");
  EXPECT_EQ(outputs.address.GetPortNumber(), 4);
  EXPECT_EQ(outputs.socket.GetDescriptor(), -1);
}

TEST_F(ZuSocket, EmptyObjectIsReportedAndNothingIsWritten) {
  for (const Operation& operation : kOperations) {
    SCOPED_TRACE(operation.function);
    CZuSocket empty(Address("10.5.5.5"));
    Outputs outputs;
    const CZuError error = operation.call(empty, outputs);
    EXPECT_FAILS(error, Win32Code(774), operation.text);
    EXPECT_FAILS(error, Win32Code(774), Signature(operation.function).c_str());
    EXPECT_FAILS(error, Win32Code(774), "ZuSocket.cpp:");
    ExpectUntouched(outputs);
    EXPECT_EQ(outputs.count, kUntouched);
    EXPECT_EQ(outputs.flag, kUntouched);
    EXPECT_EQ(empty.GetDescriptor(), -1);
    EXPECT_EQ(Text(empty.GetAddress()), "10.5.5.5");
  }
}

TEST_F(ZuSocket, SystemErrorsCarryTheirNumber) {
  for (const Operation& operation : kOperations) {
    SCOPED_TRACE(operation.function);
    CZuSocket closed;
    closed.AttachConnectedSocket(ClosedDescriptor(), Address("10.5.5.5"));
    Outputs outputs;
    const CZuError error = operation.call(closed, outputs);
    EXPECT_FAILS(error, ErrNoCode(EBADF), "Bad file descriptor");
    EXPECT_FAILS(error, ErrNoCode(EBADF), Signature(operation.function).c_str());
    ExpectUntouched(outputs);
    EXPECT_NE(closed.GetDescriptor(), -1);
    EXPECT_EQ(Text(closed.GetAddress()), "10.5.5.5");
  }
}

TEST_F(ZuSocket, SystemErrorsOfMakingAndEndingCarryTheirNumber) {
  CZuSocket closed;
  closed.AttachConnectedSocket(ClosedDescriptor());
  const CZuIPAddr address = Address("127.0.0.1");
  EXPECT_FAILS(closed.Bind(address), ErrNoCode(EBADF), "CZuSocket::Bind(");
  EXPECT_FAILS(closed.Connect(address), ErrNoCode(EBADF), "CZuSocket::Connect(");
  EXPECT_FAILS(closed.Shutdown(SHUT_RDWR), ErrNoCode(EBADF), "CZuSocket::Shutdown(");
}

TEST_F(ZuSocket, AddressTextsAreEmptyWhereThereIsNone) {
  const CZuSocket empty;
  EXPECT_STREQ(empty.GetLocalAddressString().c_str(), "");
  EXPECT_STREQ(empty.GetPeerAddressString().c_str(), "");
  OwnedSocket unconnected;
  ASSERT_OK(unconnected.Bind(Address("127.0.0.1")));
  EXPECT_STREQ(unconnected.GetLocalAddressString().c_str(), "127.0.0.1");
  EXPECT_STREQ(unconnected.GetPeerAddressString().c_str(), "");
  const OwnedSocket other(socket(AF_NETLINK, SOCK_RAW, 0));
  CZuIPAddr address;
  ASSERT_OK(other.GetLocalAddress(address));
  EXPECT_STREQ(other.GetLocalAddressString().c_str(), "") << "a family without text";
}

TEST_F(ZuSocket, UnconnectedSocketHasNoPeer) {
  OwnedSocket socket;
  ASSERT_OK(socket.Bind(Address("127.0.0.1")));
  CZuIPAddr address = Address("10.1.2.3", 4);
  EXPECT_FAILS(socket.GetPeerAddress(address), ErrNoCode(ENOTCONN), "GetPeerAddress");
  EXPECT_EQ(Text(address), "10.1.2.3");
}

// ---- Making ----

struct Maker {
  const char* name;
  std::function<CZuError(CZuSocket&, const CZuIPAddr&)> make;
};

const Maker kMakers[] = {
    {"Socket", [](CZuSocket& s, const CZuIPAddr& a) { return s.Socket(a); }},
    {"DgramSocket", [](CZuSocket& s, const CZuIPAddr& a) { return s.DgramSocket(a); }},
    {"ICMPSocket",
     [](CZuSocket& s, const CZuIPAddr& a) { return s.ICMPSocket(a, CZuIPAddr::FAMILY_ANY); }},
};

TEST_F(ZuSocket, MakersRefuseAnObjectThatHoldsADescriptor) {
  for (const Maker& maker : kMakers) {
    SCOPED_TRACE(maker.name);
    OwnedSocket socket;
    socket.AttachConnectedSocket(dup(STDERR_FILENO), Address("10.1.2.3", 4));
    const int descriptor = socket.GetDescriptor();
    system_calls::gSocket.ResetCalls();
    const CZuError error = maker.make(socket, Address("10.9.9.9"));
    EXPECT_FAILS(error, Win32Code(774), "Socket already in use");
    EXPECT_FAILS(error, Win32Code(774), Signature(maker.name).c_str());
    EXPECT_EQ(system_calls::gSocket.Calls(), 0);
    EXPECT_EQ(socket.GetDescriptor(), descriptor);
    EXPECT_TRUE(IsOpen(descriptor));
    EXPECT_EQ(Text(socket.GetAddress()), "10.1.2.3");
    EXPECT_EQ(socket.GetAddress().GetPortNumber(), 4);
  }
}

TEST_F(ZuSocket, MakersThatFailLeaveTheObjectEmpty) {
  for (const Maker& maker : kMakers) {
    SCOPED_TRACE(maker.name);
    CZuSocket socket;
    const Fault fault(system_calls::gSocket, EMFILE);
    EXPECT_FAILS(maker.make(socket, Address("127.0.0.1")), ErrNoCode(EMFILE),
                 Signature(maker.name).c_str());
    EXPECT_EQ(socket.GetDescriptor(), -1);
  }
}

TEST_F(ZuSocket, StreamAndDatagramSocketsNeedAFamily) {
  CZuSocket socket;
  EXPECT_FAILS(socket.Socket(CZuIPAddr()), ErrNoCode(EAFNOSUPPORT), "CZuSocket::Socket(");
  EXPECT_FAILS(socket.DgramSocket(CZuIPAddr()), ErrNoCode(EAFNOSUPPORT), "DgramSocket");
  EXPECT_FAILS(socket.Bind(CZuIPAddr()), ErrNoCode(EAFNOSUPPORT), "CZuSocket::Bind(");
  EXPECT_FAILS(socket.Connect(CZuIPAddr()), ErrNoCode(EAFNOSUPPORT), "CZuSocket::Connect(");
  EXPECT_EQ(socket.GetDescriptor(), -1);
}

TEST_P(ZuSocketFamily, StreamSocketTakesTheFamilyOfTheAddressAlone) {
  OwnedSocket socket;
  ASSERT_OK(socket.Socket(Address(GetParam(), 80)));
  EXPECT_EQ(OptionOf(socket, SOL_SOCKET, SO_DOMAIN), Family());
  EXPECT_EQ(OptionOf(socket, SOL_SOCKET, SO_TYPE), SOCK_STREAM);
  EXPECT_EQ(OptionOf(socket, SOL_SOCKET, SO_PROTOCOL), IPPROTO_TCP);
  EXPECT_TRUE(socket.GetAddress() == CZuIPAddr());
}

TEST_P(ZuSocketFamily, DatagramSocketTakesTheFamilyOfTheAddressAlone) {
  OwnedSocket socket;
  ASSERT_OK(socket.DgramSocket(Address(GetParam(), 80)));
  EXPECT_EQ(OptionOf(socket, SOL_SOCKET, SO_DOMAIN), Family());
  EXPECT_EQ(OptionOf(socket, SOL_SOCKET, SO_TYPE), SOCK_DGRAM);
  EXPECT_EQ(OptionOf(socket, SOL_SOCKET, SO_PROTOCOL), IPPROTO_UDP);
  EXPECT_TRUE(socket.GetAddress() == CZuIPAddr());
}

TEST_F(ZuSocket, IcmpSocketIsIPv6OnlyWhereThatIsAskedFor) {
  const struct {
    const char* address;
    int family;
    int expected;
  } kCases[] = {
      {"127.0.0.1", CZuIPAddr::FAMILY_IPV4, AF_INET},
      {"::1", CZuIPAddr::FAMILY_IPV6, AF_INET6},
      {"127.0.0.1", CZuIPAddr::FAMILY_ANY, AF_INET},
      {"::1", CZuIPAddr::FAMILY_ANY, AF_INET},
      {"::1", CZuIPAddr::FAMILY_IPV4, AF_INET},
      {"127.0.0.1", CZuIPAddr::FAMILY_IPV6, AF_INET6},
      {"127.0.0.1", 7, AF_INET},
  };
  for (const auto& c : kCases) {
    std::array<int, 3> asked{};
    // Raw sockets are for the privileged; what is asked for is the same for everybody.
    const Replacement replaced(system_calls::gSocket, [&](int domain, int type, int protocol) {
      asked = {domain, type, protocol};
      return system_calls::gSocket.Real(AF_INET, SOCK_DGRAM, 0);
    });
    OwnedSocket socket;
    ASSERT_OK(
        socket.ICMPSocket(Address(c.address, 4), static_cast<CZuIPAddr::IP_FAMILY>(c.family)));
    EXPECT_EQ(asked, (std::array<int, 3>{c.expected, SOCK_RAW, IPPROTO_ICMP}))
        << c.address << " " << c.family;
    EXPECT_EQ(Text(socket.GetAddress()), c.address) << "the target is kept";
    EXPECT_EQ(socket.GetAddress().GetPortNumber(), 4);
  }
}

TEST_F(ZuSocket, IcmpSocketIsARawSocket) {
  OwnedSocket socket;
  const CZuError error = socket.ICMPSocket(Address("127.0.0.1"), CZuIPAddr::FAMILY_ANY);
  if (FXErrorUtil::IsErrNo(error, EPERM)) LeaveOut("raw sockets need CAP_NET_RAW");
  ASSERT_OK(error);
  EXPECT_EQ(OptionOf(socket, SOL_SOCKET, SO_DOMAIN), AF_INET);
  EXPECT_EQ(OptionOf(socket, SOL_SOCKET, SO_TYPE), SOCK_RAW);
  EXPECT_EQ(OptionOf(socket, SOL_SOCKET, SO_PROTOCOL), IPPROTO_ICMP);
}

TEST_F(ZuSocket, IcmpSocketKeepsTheTargetWhenItIsNotPermitted) {
  CZuSocket socket(Address("10.9.9.9"));
  const Fault fault(system_calls::gSocket, EPERM);
  EXPECT_FAILS(socket.ICMPSocket(Address("10.1.2.3", 4), CZuIPAddr::FAMILY_IPV4), ErrNoCode(EPERM),
               "ICMPSocket");
  EXPECT_EQ(socket.GetDescriptor(), -1);
  EXPECT_EQ(Text(socket.GetAddress()), "10.1.2.3");
}

// ---- Binding and connecting ----

TEST_P(ZuSocketFamily, BindMakesAStreamSocketAndKeepsNoAddress) {
  OwnedSocket socket;
  ASSERT_OK(socket.Bind(Address(GetParam())));
  EXPECT_EQ(OptionOf(socket, SOL_SOCKET, SO_DOMAIN), Family());
  EXPECT_EQ(OptionOf(socket, SOL_SOCKET, SO_TYPE), SOCK_STREAM);
  EXPECT_TRUE(socket.GetAddress() == CZuIPAddr());
  CZuIPAddr local;
  ASSERT_OK(socket.GetLocalAddress(local));
  EXPECT_EQ(Text(local), GetParam());
  EXPECT_GT(local.GetPortNumber(), 0);
}

TEST_F(ZuSocket, BindAndConnectUseTheSocketThatIsHeld) {
  OwnedSocket socket;
  ASSERT_OK(socket.DgramSocket(Address("127.0.0.1")));
  const int descriptor = socket.GetDescriptor();
  ASSERT_OK(socket.Bind(Address("127.0.0.1")));
  ASSERT_OK(socket.Connect(Address("127.0.0.1", 9)));
  EXPECT_EQ(socket.GetDescriptor(), descriptor);
  EXPECT_EQ(OptionOf(socket, SOL_SOCKET, SO_TYPE), SOCK_DGRAM);
  CZuIPAddr peer;
  ASSERT_OK(socket.GetPeerAddress(peer));
  EXPECT_EQ(peer.GetPortNumber(), 9);
}

TEST_P(ZuSocketFamily, BindThatFailsKeepsTheSocketItMade) {
  OwnedSocket holder;
  CZuIPAddr taken;
  ASSERT_NO_FATAL_FAILURE(ListenOn(GetParam(), holder, taken));
  OwnedSocket socket;
  EXPECT_FAILS(socket.Bind(taken), ErrNoCode(EADDRINUSE), "CZuSocket::Bind(");
  ASSERT_NE(socket.GetDescriptor(), -1);
  EXPECT_TRUE(socket.GetAddress() == CZuIPAddr());
  EXPECT_OK(socket.Bind(Address(GetParam()))) << "it can be bound to another address";
}

TEST_P(ZuSocketFamily, ConnectThatFailsKeepsTheSocketItMade) {
  OwnedSocket holder;
  ASSERT_OK(holder.Bind(Address(GetParam())));
  CZuIPAddr silent;
  ASSERT_OK(holder.GetLocalAddress(silent));
  OwnedSocket socket;
  EXPECT_FAILS(socket.Connect(silent), ErrNoCode(ECONNREFUSED), "CZuSocket::Connect(");
  ASSERT_NE(socket.GetDescriptor(), -1);
  EXPECT_EQ(OptionOf(socket, SOL_SOCKET, SO_TYPE), SOCK_STREAM);
  EXPECT_TRUE(socket.GetAddress() == CZuIPAddr());
}

TEST_F(ZuSocket, ConnectGoesOnAfterInterrupts) {
  OwnedSocket listener;
  CZuIPAddr address;
  ASSERT_NO_FATAL_FAILURE(ListenOn("127.0.0.1", listener, address));
  const Fault fault(system_calls::gConnect, EINTR, 1, 2);
  OwnedSocket socket;
  ASSERT_OK(socket.Connect(address));
  EXPECT_EQ(system_calls::gConnect.Calls(), 3);
}

TEST_P(ZuSocketFamily, ConnectedSocketsKnowBothAddresses) {
  OwnedSocket listener;
  CZuIPAddr address;
  ASSERT_NO_FATAL_FAILURE(ListenOn(GetParam(), listener, address));
  const CZuIPAddr target = address;
  OwnedSocket client;
  ASSERT_OK(client.Connect(address));
  EXPECT_EQ(address.GetPortNumber(), target.GetPortNumber());
  EXPECT_TRUE(client.GetAddress() == CZuIPAddr()) << "the target is not kept";
  OwnedSocket server;
  ASSERT_OK(listener.Accept(server));
  CZuIPAddr local;
  CZuIPAddr peer;
  ASSERT_OK(client.GetLocalAddress(local));
  ASSERT_OK(client.GetPeerAddress(peer));
  EXPECT_EQ(Text(peer), GetParam());
  EXPECT_EQ(peer.GetPortNumber(), target.GetPortNumber());
  EXPECT_EQ(Text(server.GetAddress()), GetParam());
  EXPECT_EQ(server.GetAddress().GetPortNumber(), local.GetPortNumber());
  EXPECT_STREQ(server.GetLocalAddressString().c_str(), GetParam());
  EXPECT_STREQ(server.GetPeerAddressString().c_str(), GetParam());
}

// ---- Listening and accepting ----

int gWasListeningInTheHook = kUntouched;

TEST_F(ZuSocket, ListenRunsTheHookFirst) {
  gListened.clear();
  ZUNET_setlistencb([](KDSOCKET descriptor) {
    gListened.push_back(descriptor);
    CZuSocket socket;
    socket.AttachConnectedSocket(descriptor);
    gWasListeningInTheHook = OptionOf(socket, SOL_SOCKET, SO_ACCEPTCONN);
  });
  OwnedSocket socket;
  ASSERT_OK(socket.Bind(Address("127.0.0.1")));
  ASSERT_OK(socket.Listen(1));
  EXPECT_EQ(gListened, std::vector<int>{socket.GetDescriptor()});
  EXPECT_EQ(gWasListeningInTheHook, 0);
  EXPECT_EQ(OptionOf(socket, SOL_SOCKET, SO_ACCEPTCONN), 1);
}

TEST_F(ZuSocket, DatagramsCannotBeListenedFor) {
  OwnedSocket socket;
  ASSERT_OK(socket.DgramSocket(Address("127.0.0.1")));
  EXPECT_FAILS(socket.Listen(1), ErrNoCode(EOPNOTSUPP), "CZuSocket::Listen(");
}

TEST_F(ZuSocket, AcceptRefusesAnOutputInUseBeforeAnythingElse) {
  OwnedSocket output;
  output.AttachConnectedSocket(dup(STDERR_FILENO), Address("10.1.2.3"));
  const int descriptor = output.GetDescriptor();
  const CZuSocket empty;
  EXPECT_FAILS(empty.Accept(output), Win32Code(774),
               "Output socket object is already a connected socket");
  EXPECT_FAILS(output.Accept(output), Win32Code(774),
               "Output socket object is already a connected socket");
  EXPECT_EQ(output.GetDescriptor(), descriptor);
  EXPECT_EQ(Text(output.GetAddress()), "10.1.2.3");
}

TEST_F(ZuSocket, AcceptThatFailsLeavesTheOutput) {
  OwnedSocket listener;
  CZuIPAddr address;
  ASSERT_NO_FATAL_FAILURE(ListenOn("127.0.0.1", listener, address));
  ASSERT_OK(listener.SetToNonBlocking());
  CZuSocket output(Address("10.1.2.3", 4));
  EXPECT_FAILS(listener.Accept(output), ErrNoCode(EAGAIN), "CZuSocket::Accept(");
  const Fault fault(system_calls::gGetSockName, ENOBUFS);
  EXPECT_FAILS(listener.Accept(output), ErrNoCode(ENOBUFS), "CZuSocket::Accept(");
  OwnedSocket idle;
  ASSERT_OK(idle.Bind(Address("127.0.0.1")));
  EXPECT_FAILS(idle.Accept(output), ErrNoCode(EINVAL), "CZuSocket::Accept(");
  EXPECT_EQ(output.GetDescriptor(), -1);
  EXPECT_EQ(Text(output.GetAddress()), "10.1.2.3");
  EXPECT_EQ(output.GetAddress().GetPortNumber(), 4);
}

TEST_F(ZuSocket, AcceptGoesOnAfterInterrupts) {
  OwnedSocket listener;
  CZuIPAddr address;
  ASSERT_NO_FATAL_FAILURE(ListenOn("127.0.0.1", listener, address));
  OwnedSocket client;
  ASSERT_OK(client.Connect(address));
  const Fault fault(system_calls::gAccept, EINTR, 1, 2);
  OwnedSocket server;
  ASSERT_OK(listener.Accept(server));
  EXPECT_EQ(system_calls::gAccept.Calls(), 3);
}

TEST_F(ZuSocket, ConnectionsAreAcceptedInOrder) {
  OwnedSocket listener;
  CZuIPAddr address;
  ASSERT_NO_FATAL_FAILURE(ListenOn("127.0.0.1", listener, address));
  OwnedSocket clients[3];
  for (OwnedSocket& client : clients) ASSERT_OK(client.Connect(address));
  for (const OwnedSocket& client : clients) {
    OwnedSocket server;
    ASSERT_OK(listener.Accept(server));
    CZuIPAddr local;
    ASSERT_OK(client.GetLocalAddress(local));
    EXPECT_EQ(server.GetAddress().GetPortNumber(), local.GetPortNumber());
  }
}

}  // namespace

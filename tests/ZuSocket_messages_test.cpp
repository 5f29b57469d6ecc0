#include <netdb.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <vector>

#include "ZuNetwork/ZuSocket.h"
#include "support/Addresses.h"
#include "support/Expect.h"
#include "support/SocketObjects.h"

// A failure says of which address, port or name it is, in the text for people.

namespace {

// A port of the loopback interface on which nobody listens, bound so that nobody else takes it.
struct SilentPort {
  explicit SilentPort(const char* address) {
    EXPECT_OK(socket.Bind(Address(address, 0)));
    EXPECT_OK(socket.GetLocalAddress(endpoint));
    text = std::to_string(endpoint.GetPortNumber());
  }

  OwnedSocket socket;
  CZuIPAddr endpoint;
  std::string text;
};

struct Attempt {
  const char* name;
  std::function<CZuError()> call;
  int code;
  std::string message;
};

void ExpectMessages(const std::vector<Attempt>& attempts) {
  for (const Attempt& attempt : attempts) {
    const CZuError error = attempt.call();
    EXPECT_EQ(static_cast<unsigned>(error.m_hrErrorCode), ErrNoCode(attempt.code)) << attempt.name;
    EXPECT_EQ(error.Message(), attempt.message) << attempt.name;
  }
}

std::string With(const std::string& what, const char* reason) { return what + ": " + reason; }

}  // namespace

TEST(ZuSocketMessages, NameTheEndpointOfBindAndConnect) {
  const SilentPort v4("127.0.0.1");
  const SilentPort v6("::1");
  OwnedSocket toV4;
  OwnedSocket toV6;
  OwnedSocket taken;
  ExpectMessages({
      {"connect", [&] { return toV4.Connect(v4.endpoint); }, ECONNREFUSED,
       With("127.0.0.1:" + v4.text, "Connection refused")},
      {"bind", [&] { return taken.Bind(v4.endpoint); }, EADDRINUSE,
       With("127.0.0.1:" + v4.text, "Address already in use")},
      {"connect without a family", [&] { return CZuSocket().Connect(CZuIPAddr()); }, EAFNOSUPPORT,
       With("family 0", "Address family not supported by protocol")},
      {"connect", [&] { return toV6.Connect(v6.endpoint); }, ECONNREFUSED,
       With("[::1]:" + v6.text, "Connection refused")},
  });
}

TEST(ZuSocketMessages, NameTheAddressForWhichASocketCouldNotBeMade) {
  const CZuIPAddr address(ZUNET_SockAddr{});
  CZuSocket socket;
  ExpectMessages({
      {"stream", [&] { return socket.Socket(address); }, EAFNOSUPPORT,
       With("family 0", "Address family not supported by protocol")},
      {"datagram", [&] { return socket.DgramSocket(address); }, EAFNOSUPPORT,
       With("family 0", "Address family not supported by protocol")},
  });
}

// The fixed text comes first and whole, the address behind it.
TEST(ZuSocketMessages, NameTheAddressBehindFixedTexts) {
  CZuSocket socket;
  socket.AttachConnectedSocket(100);
  const CZuIPAddr address = Address("10.1.2.3", 80);
  for (const CZuError& error : {socket.Socket(address), socket.DgramSocket(address),
                                socket.ICMPSocket(address, CZuIPAddr::FAMILY_IPV4)}) {
    const auto items = error.GetItems();
    ASSERT_EQ(items.size(), 2u) << error.AsString();
    EXPECT_EQ(items[0]->Message(), "Socket already in use");
    EXPECT_EQ(items[1]->Message(), "10.1.2.3:80");
    EXPECT_EQ(error.Message(), "Socket already in use");
  }
  socket.Clear();
}

TEST(ZuSocketMessages, NameTheTargetOfAnIcmpMessage) {
  CZuSocket socket;
  socket.AttachConnectedSocket(-7, Address("10.1.2.3", 0));
  int timedOut = 0;
  ExpectMessages({
      {"send", [&] { return socket.SendtoICMPSocket("", 1, 0, &timedOut, 0, nullptr); }, EBADF,
       With("[10.1.2.3]", "Bad file descriptor")},
  });
  socket.Clear();
}

TEST(ZuIPAddrMessages, NameWhatWasLookedUp) {
  CZuIPAddr address;
  std::vector<CZuIPAddr> list;
  CZuString text;
  const char* const unknown = gai_strerror(EAI_NONAME);
  ExpectMessages({
      {"text", [&] { return address.SetAddressString("10.1.2.3.4"); }, EAI_NONAME,
       With("[10.1.2.3.4]", unknown)},
      {"empty text", [&] { return address.SetAddressString(""); }, EAI_NONAME, With("[]", unknown)},
      {"no text", [&] { return address.SetAddressString(nullptr); }, EAI_NONAME,
       With("[]", unknown)},
      {"network of a block",
       [&] {
         bool within = false;
         return CZuIPAddr::CheckIfIpv4AddressIsWithinCidrBlock("10.1.2.3", "10.x/8", within);
       },
       EAI_NONAME, With("[10.x]", unknown)},
      {"text of no family", [&] { return CZuIPAddr(ZUNET_SockAddr{}).GetAddressString(text); },
       EAI_FAMILY, With("family 0", gai_strerror(EAI_FAMILY))},
      {"name of no family", [&] { return CZuIPAddr(ZUNET_SockAddr{}).GetHostName(text); }, ENOENT,
       With("[family 0]", "No such file or directory")},
      {"address", [&] { return CZuIPAddr::GetByName("10.1.2.3", address, CZuIPAddr::FAMILY_IPV6); },
       EAI_ADDRFAMILY, With("[10.1.2.3]", gai_strerror(EAI_ADDRFAMILY))},
      {"addresses",
       [&] { return CZuIPAddr::GetAllByName("10.1.2.3", list, CZuIPAddr::FAMILY_IPV6); },
       EAI_ADDRFAMILY, With("[10.1.2.3]", gai_strerror(EAI_ADDRFAMILY))},
  });
}

TEST(ZuIPAddrMessages, NameWhatCollides) {
  CZuIPAddr address;
  std::vector<CZuIPAddr> list;
  for (const CZuError& error :
       {CZuIPAddr::GetByName("127.0.53.53", address, CZuIPAddr::FAMILY_ANY),
        CZuIPAddr::GetAllByName("127.0.53.53", list, CZuIPAddr::FAMILY_ANY)}) {
    const auto items = error.GetItems();
    ASSERT_EQ(items.size(), 2u) << error.AsString();
    EXPECT_EQ(items[0]->Message(), "DNS name collision occured");
    EXPECT_EQ(items[1]->Message(), "[127.0.53.53]");
  }
}

TEST(ZuIPAddrMessages, ShowAResolversCodeAsItIs) {
  CZuIPAddr address;
  const std::string text = address.SetAddressString("nope.invalid").AsString();
  EXPECT_EQ(text.substr(0, text.find('\n')), "0xE001FFFE (resolver -2)");
  EXPECT_THAT(text, testing::EndsWith(With(", [nope.invalid]", gai_strerror(EAI_NONAME))));
}

#include "ZuNetwork/ZuSocket_C.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

ZUNET_SockAddr Address(const char* text) {
  ZUNET_SockAddr address{};
  EXPECT_EQ(ZUNET_str2ip(text, &address), 0) << text;
  return address;
}

class Pair : public testing::Test {
 protected:
  Pair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0); }
  ~Pair() override {
    close(fds[0]);
    close(fds[1]);
  }
  int fds[2]{};
  char buffer[64]{};
  int count = -1;
  int timedOut = -1;
};

TEST(Address, ConvertsBothWays) {
  for (const char* text : {"10.1.2.3", "::1", "2001:db8::5"}) {
    const ZUNET_SockAddr address = Address(text);
    char back[46] = "x";
    EXPECT_EQ(ZUNET_ip2str(&address, back, sizeof back), 0);
    EXPECT_STREQ(back, text);
  }
}

TEST(Address, RefusesTheCollisionAddress) {
  ZUNET_SockAddr address{};
  EXPECT_EQ(ZUNET_str2ip("127.0.53.53", &address), -2);
  EXPECT_EQ(address.addr.f.family, AF_INET);
  ZUNET_HostEnt host{};
  EXPECT_EQ(ZUNET_name2ip("10.0.0.1", &host, 0), 0);
  EXPECT_EQ(host.addr_count, 1);
  ZUNET_freehostent(&host);
  EXPECT_EQ(host.addr_list, nullptr);
}

TEST(Address, ComparesPrefixes) {
  ZUNET_SockAddr left = Address("10.1.2.3");
  ZUNET_SockAddr right = Address("10.1.200.1");
  EXPECT_EQ(ZUNET_addrequal(&left, &right, 16, 0), 1);
  EXPECT_EQ(ZUNET_addrequal(&left, &right, 17, 0), 0);
  EXPECT_EQ(ZUNET_addrequal(&left, &right, 0, 0), 0);
  ZUNET_setport(&left, 80);
  EXPECT_EQ(ZUNET_getport(&left), 80);
  EXPECT_EQ(ZUNET_addrequal(&left, &right, 16, 1), 0);
}

TEST(Lookup, NeverReadsAsSuccessWhenItFails) {
  servent* entry = nullptr;
  EXPECT_NE(ZUNET_getservbyname("no-such-service", "tcp", &entry), 0);
  EXPECT_EQ(entry, nullptr);
  const ZUNET_SockAddr address = Address("198.51.100.77");
  char name[64] = "x";
  EXPECT_NE(ZUNET_ip2name(&address, name, sizeof name), 0);
  EXPECT_STREQ(name, "");
}

TEST_F(Pair, MovesWholeBuffers) {
  EXPECT_EQ(ZUNET_send(fds[0], "hello", 5, &count, 0), 0);
  EXPECT_EQ(count, 5);
  EXPECT_EQ(ZUNET_recv(fds[1], buffer, 5, &count, MSG_PEEK), 0);
  EXPECT_EQ(ZUNET_recvwithtimeout(fds[1], buffer, 5, &count, 5, &timedOut, 0), 0);
  EXPECT_EQ(count, 5);
  EXPECT_EQ(timedOut, 0);
  EXPECT_STREQ(buffer, "hello");
}

TEST_F(Pair, SilentPeerTimesOut) {
  EXPECT_EQ(ZUNET_recvwithtimeout(fds[1], buffer, 5, &count, 1, &timedOut, 0), 0);
  EXPECT_EQ(timedOut, 1);
  EXPECT_EQ(count, 0);
}

TEST_F(Pair, FullPeerTimesOutASender) {
  static char large[1 << 20];
  EXPECT_EQ(ZUNET_sendwithtimeout(fds[1], large, sizeof large, &count, 1, &timedOut, MSG_DONTWAIT),
            0);
  EXPECT_EQ(timedOut, 1);
  EXPECT_GT(count, 0);
}

TEST_F(Pair, ClosedPeerIsAnErrorToSendersOnly) {
  shutdown(fds[0], SHUT_RDWR);
  EXPECT_EQ(ZUNET_recvwithtimeout(fds[1], buffer, 5, &count, 1, &timedOut, 0), 0);
  EXPECT_EQ(timedOut, 0);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(ZUNET_sendwithtimeout(fds[1], "x", 1, &count, 1, &timedOut, 0), EPIPE);
}

}  // namespace

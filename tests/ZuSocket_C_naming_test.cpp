#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "support/Sockets.h"
#include "support/SystemFunction.h"

// What the system is asked for when a socket or the host is to be named.

namespace {

using NameFunction = int(int, sockaddr*, socklen_t*);

SystemFunction<NameFunction> gGetSockName{"getsockname"};
SystemFunction<NameFunction> gGetPeerName{"getpeername"};
SystemFunction<int(char*, size_t)> gGetHostName{"gethostname"};

}  // namespace

extern "C" {
int getsockname(int s, sockaddr* address, socklen_t* length) noexcept {
  return gGetSockName(s, address, length);
}
int getpeername(int s, sockaddr* address, socklen_t* length) noexcept {
  return gGetPeerName(s, address, length);
}
int gethostname(char* name, size_t size) noexcept { return gGetHostName(name, size); }
}

namespace {

struct Naming {
  const char* name;
  int (*ask)(KDSOCKET, ZUNET_SockAddr*);
  SystemFunction<NameFunction>& function;
};

const Naming kNamings[] = {{"own", ZUNET_getsockname, gGetSockName},
                           {"peer", ZUNET_getpeername, gGetPeerName}};

TEST(NamingSockets, OffersRoomForTheLargerAddressWhateverTheFamily) {
  for (const Naming& naming : kNamings) {
    for (const int family : {AF_UNSPEC, AF_INET, AF_INET6}) {
      SCOPED_TRACE(std::string(naming.name) + ", " + std::to_string(family));
      ZUNET_SockAddr address{};
      address.addr.f.family = static_cast<std::uint16_t>(family);
      int asked = -1;
      const void* storage = nullptr;
      socklen_t room = 0;
      const Replacement<NameFunction> record(
          naming.function, [&](int s, sockaddr* given, socklen_t* length) {
            asked = s;
            storage = given;
            room = *length;
            *length = sizeof(sockaddr_in);  // as for an IPv4 socket
            return 0;
          });
      EXPECT_EQ(naming.ask(55, &address), 0);
      EXPECT_EQ(naming.ask(56, &address), 0);  // the length of the answer is not remembered
      EXPECT_EQ(asked, 56);
      EXPECT_EQ(storage, &address);
      EXPECT_EQ(room, 28u);
    }
  }
}

TEST(NamingSockets, FailureIsTheErrNoAndAsksOnce) {
  for (const Naming& naming : kNamings) {
    for (const int err : {EBADF, ENOBUFS, EINTR}) {
      SCOPED_TRACE(std::string(naming.name) + ", " + std::to_string(err));
      int calls = 0;
      const Replacement<NameFunction> fail(naming.function, [&](int, sockaddr*, socklen_t*) {
        ++calls;
        errno = err;
        return -1;
      });
      ZUNET_SockAddr address{};
      EXPECT_EQ(naming.ask(55, &address), err);
      EXPECT_EQ(calls, 1);
    }
  }
}

TEST(HostNaming, NegativeLengthIsInvalidAndLeavesTheBuffer) {
  for (const int length : {-1, -64, INT_MIN}) {
    SCOPED_TRACE(length);
    char name[64];
    std::memset(name, 'x', sizeof name);
    int calls = 0;
    const Replacement<int(char*, size_t)> answer(gGetHostName, [&](char* given, size_t) {
      ++calls;
      std::memcpy(given, "host", sizeof "host");
      return 0;
    });
    EXPECT_EQ(ZUNET_gethostname(name, length), EINVAL);
    EXPECT_EQ(std::string(name, sizeof name), std::string(sizeof name, 'x'));
    EXPECT_EQ(calls, 0);
  }
}

TEST(HostNaming, LengthIsHandedOn) {
  for (const int length : {0, 1, 64, INT_MAX}) {
    SCOPED_TRACE(length);
    char name[64] = "";
    size_t size = SIZE_MAX;
    const Replacement<int(char*, size_t)> answer(gGetHostName, [&](char*, size_t given) {
      size = given;
      errno = ENAMETOOLONG;
      return -1;
    });
    EXPECT_EQ(ZUNET_gethostname(name, length), ENAMETOOLONG);
    EXPECT_EQ(size, static_cast<size_t>(length));
  }
}

}  // namespace

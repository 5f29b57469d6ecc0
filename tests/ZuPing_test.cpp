#include "ZuNetwork/ZuPing.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <netdb.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>

#include "ZuUtils/ZuSleep.h"
#include "support/Heap.h"
#include "support/PingProbe.h"
#include "support/Sanitizers.h"
#include "support/SystemFunction.h"

// The series up to its first packet: arguments, names, socket, buffers. A UDP socket stands in for
// the raw one where no packet is looked at.

namespace {

struct Faults {
  bool isPrivileged = true;  // raw sockets are there, as UDP sockets
  int ofSocket = 0;          // errno values; 0: none
  int ofIoctl = 0;
  int ofSetsockopt = 0;
  int ofGetnameinfo = 0;  // EAI_*
  int sockets = 0;        // raw sockets asked for
  int lastFamily = -1;
  int lookups = 0;        // of names
  int lookedFamily = -1;  // of the last lookup
  int sleeps = 0;
};
Faults gFaults;

int Refuse(int err) {
  errno = err;
  return -1;
}

SystemFunction<int(int, int, int)> gSocket{"socket"};
SystemFunction<int(int, unsigned long, void*), int (*)(int, unsigned long, ...)> gIoctl{"ioctl"};
SystemFunction<int(int, int, int, const void*, socklen_t)> gSetSockOpt{"setsockopt"};
SystemFunction<int(const char*, const char*, const addrinfo*, addrinfo**)> gGetAddrInfo{
    "getaddrinfo"};
SystemFunction<int(const sockaddr*, socklen_t, char*, socklen_t, char*, socklen_t, int)>
    gGetNameInfo{"getnameinfo"};

}  // namespace

extern "C" {

int socket(int domain, int type, int protocol) noexcept {
  if ((type & SOCK_RAW) != SOCK_RAW) return gSocket(domain, type, protocol);
  ++gFaults.sockets;
  gFaults.lastFamily = domain;
  if (gFaults.ofSocket != 0) return Refuse(gFaults.ofSocket);
  if (!gFaults.isPrivileged) return gSocket(domain, type, protocol);
  return gSocket(domain, SOCK_DGRAM, 0);
}

int ioctl(int descriptor, unsigned long request, ...) noexcept {
  va_list args;
  va_start(args, request);
  void* const argument = va_arg(args, void*);
  va_end(args);
  if (request == FIONBIO && gFaults.ofIoctl != 0) return Refuse(gFaults.ofIoctl);
  return gIoctl(descriptor, request, argument);
}

int setsockopt(int descriptor, int level, int option, const void* value, socklen_t size) noexcept {
  if (gFaults.ofSetsockopt != 0) return Refuse(gFaults.ofSetsockopt);
  return gSetSockOpt(descriptor, level, option, value, size);
}

int getaddrinfo(const char* name, const char* service, const addrinfo* hints, addrinfo** list) {
  const bool isText = hints != nullptr && (hints->ai_flags & AI_NUMERICHOST) != 0;
  if (isText || name == nullptr) return gGetAddrInfo(name, service, hints, list);
  ++gFaults.lookups;
  gFaults.lookedFamily = hints == nullptr ? -1 : hints->ai_family;
  if (strcmp(name, "named.test") == 0) return gGetAddrInfo("192.0.2.7", service, hints, list);
  if (strcmp(name, "named6.test") == 0) return gGetAddrInfo("2001:db8::7", service, hints, list);
  if (strcmp(name, "colliding.test") == 0) return gGetAddrInfo("127.0.53.53", service, hints, list);
  if (strcmp(name, "absent.test") == 0) return EAI_NONAME;
  return gGetAddrInfo(name, service, hints, list);
}

int getnameinfo(const sockaddr* address, socklen_t size, char* host, socklen_t hostSize,
                char* service, socklen_t serviceSize, int flags) {
  if (gFaults.ofGetnameinfo != 0) return gFaults.ofGetnameinfo;
  return gGetNameInfo(address, size, host, hostSize, service, serviceSize, flags);
}

int clock_nanosleep(clockid_t /*clock*/, int /*flags*/, const timespec* /*time*/,
                    timespec* /*left*/) {
  ++gFaults.sleeps;
  return 0;
}
}

namespace {

// With the members that hold the arguments of a series.
class ArgumentProbe : public PingProbe {
 public:
  using CZuPing::m_bIPV6;
  using CZuPing::m_bufferCount;
  using CZuPing::m_callbackInstance;
  using CZuPing::m_timeout;
};

class ZuPing : public testing::Test {
 protected:
  ZuPing() { gFaults = Faults(); }

  CZuError Ping(const char* server, unsigned size = 56, unsigned count = 1, unsigned timeout = 1) {
    return probe.ping(server, size, count, timeout, this, &recorder, result, false);
  }

  ArgumentProbe probe;
  PingRecorder recorder;
  ZuPingResult result;
};

TEST_F(ZuPing, ArgumentsAreKeptBeforeTheServerIsLookedFor) {
  PingRecorder other;
  for (const char* const server : {"absent.test", "192.0.2.1"}) {
    SCOPED_TRACE(server);
    probe.m_bufferSize = probe.m_bufferCount = probe.m_timeout = 4711;
    probe.m_callbackInstance = &other;
    probe.m_pZuPingCallback = &other;
    probe.m_bIPV6 = true;
    gFaults.ofSocket = EPERM;
    EXPECT_TRUE(Failed(probe.ping(server, 57, 3, 7, this, &recorder, result, false)));
    EXPECT_EQ(probe.m_bufferSize, 57u);
    EXPECT_EQ(probe.m_bufferCount, 3u);
    EXPECT_EQ(probe.m_timeout, 7u);
    EXPECT_EQ(probe.m_callbackInstance, this);
    EXPECT_EQ(probe.m_pZuPingCallback, &recorder);
    EXPECT_FALSE(probe.m_bIPV6);
  }
}

struct Refusal {
  unsigned size;
  unsigned count;
  bool ipv6;
  unsigned code;
  const char* message;
};

constexpr Refusal kRefusals[] = {
    {56, 1, true, 2, "IPV6 is not supported currently"},
    {0, 0, true, 2, "IPV6 is not supported currently"},
    {0, 1, false, 3, "Invalid buffer size (0)"},
    {0, 0, false, 3, "Invalid buffer size (0)"},
    {56, 0, false, 3, "Invalid buffer count (0)"},
    {4294967295, 0, false, 3, "Invalid buffer count (0)"},
};

TEST_F(ZuPing, WrongArgumentsAreRefusedBeforeAnythingIsOpened) {
  for (const Refusal& refusal : kRefusals) {
    SCOPED_TRACE(refusal.message);
    result.serverName = "before";
    EXPECT_FAILS(probe.ping("named.test", refusal.size, refusal.count, 1, this, &recorder, result,
                            refusal.ipv6),
                 KDResultCode(refusal.code), refusal.message);
    EXPECT_EQ(gFaults.sockets, 0);
    EXPECT_EQ(gFaults.lookups, 0);
    EXPECT_EQ(probe.m_sockPing.GetDescriptor(), -1);
    EXPECT_EQ(probe.m_pZuPingCallback, nullptr);
    EXPECT_EQ(probe.m_bufferSize, 0u);
    EXPECT_EQ(probe.m_bufferCount, 0u);
    EXPECT_EQ(probe.m_timeout, 0u);
    EXPECT_EQ(probe.m_callbackInstance, nullptr);
    EXPECT_EQ(result.serverName, "before");
    EXPECT_TRUE(recorder.lines.empty());
  }
}

TEST_F(ZuPing, NullServerIsRefused) {
  EXPECT_TRUE(HasMessages(Ping(nullptr), Win32Code(87),
                          {"Null parameter passed", "prepare socket failed []"}));
  EXPECT_FAILS(probe.preparePingSocket(nullptr, 1, false), Win32Code(87), "Null parameter passed");
  EXPECT_EQ(gFaults.sockets, 0);
}

struct Server {
  const char* name;
  const char* text;
  int lookups;
};

constexpr Server kServers[] = {
    {"192.0.2.1", "192.0.2.1", 0},
    {"localhost", "127.0.0.1", 1},
    {"named.test", "192.0.2.7", 1},
};

TEST_F(ZuPing, ServersAreReadAsNumbersOrLookedUp) {
  for (const Server& server : kServers) {
    SCOPED_TRACE(server.name);
    gFaults = Faults();
    recorder.lines.clear();
    probe.m_pZuPingCallback = &recorder;
    ASSERT_OK(probe.preparePingSocket(server.name, 1, false));
    EXPECT_STREQ(probe.m_serverName.c_str(), server.name);
    EXPECT_STREQ(probe.m_serverIP.c_str(), server.text);
    EXPECT_EQ(gFaults.lookups, server.lookups);
    EXPECT_EQ(gFaults.lastFamily, AF_INET);
    EXPECT_TRUE(probe.m_bSocketInitialized);
    EXPECT_THAT(recorder.lines,
                testing::ElementsAre("ZuPing: [server - " + std::string(server.name) + "] [IP - " +
                                     server.text + "]"));
    ASSERT_OK(probe.closePingSocket());
    EXPECT_FALSE(probe.m_bSocketInitialized);
    EXPECT_EQ(probe.m_sockPing.GetDescriptor(), -1);
  }
}

TEST_F(ZuPing, NamesThatDoNotResolveAreReported) {
  EXPECT_TRUE(
      HasMessages(Ping("absent.test"), ErrNoCode(EAI_NONAME),
                  {"Get by name [absent.test] failed", "prepare socket failed [absent.test]"}));
  for (const char* const name : {"127.0.53.53", "colliding.test"}) {
    const std::string text = name;
    EXPECT_TRUE(HasMessages(Ping(name), Win32Code(4294967294),
                            {"DNS name collision occured", "Get by name [" + text + "] failed",
                             "prepare socket failed [" + text + "]"}));
  }
  EXPECT_EQ(gFaults.sockets, 0);
  EXPECT_TRUE(recorder.lines.empty());
  EXPECT_STREQ(probe.m_serverName.c_str(), "");
}

TEST_F(ZuPing, ServerWithoutAnAddressTextIsReported) {
  gFaults.ofGetnameinfo = EAI_FAIL;
  EXPECT_TRUE(HasMessages(
      Ping("192.0.2.1"), ErrNoCode(EAI_FAIL),
      {"Get IP-address string failed. [192.0.2.1]", "prepare socket failed [192.0.2.1]"}));
  EXPECT_EQ(gFaults.sockets, 0);
}

struct SocketFault {
  int Faults::*function;
  int err;
  const char* message;
  bool keepsSocket;
};

constexpr SocketFault kSocketFaults[] = {
    {&Faults::ofSocket, EPERM, "ICMP-Socket creation [192.0.2.1] failed.", false},
    {&Faults::ofIoctl, ENOTTY, "Setting non blocking mode failed [192.0.2.1]", true},
    {&Faults::ofSetsockopt, ENOPROTOOPT, "Setting socket-TTL failed. [192.0.2.1]", true},
};

TEST_F(ZuPing, FailedSetUpIsReportedAndKeepsTheSocket) {
  for (const SocketFault& fault : kSocketFaults) {
    SCOPED_TRACE(fault.message);
    gFaults = Faults();
    gFaults.*fault.function = fault.err;
    recorder.lines.clear();
    probe.m_serverIP = "before";
    EXPECT_TRUE(HasMessages(Ping("192.0.2.1"), ErrNoCode(fault.err),
                            {fault.message, "prepare socket failed [192.0.2.1]"}));
    EXPECT_EQ(probe.m_sockPing.GetDescriptor() != -1, fault.keepsSocket);
    EXPECT_STREQ(probe.m_serverIP.c_str(), "192.0.2.1");
    EXPECT_STREQ(probe.m_serverName.c_str(), "");
    EXPECT_EQ(result.serverIP, "");
    EXPECT_EQ(recorder.lines.size(), 1u);
    EXPECT_EQ(gFaults.sleeps, 0);
    ASSERT_OK(probe.closePingSocket());
  }
}

TEST_F(ZuPing, SocketBlocksOnlyWithoutTimeOut) {
  for (const unsigned timeout : {0u, 1u, 4294967295u}) {
    SCOPED_TRACE(timeout);
    ASSERT_OK(probe.preparePingSocket("192.0.2.1", timeout, false));
    const int descriptor = probe.m_sockPing.GetDescriptor();
    EXPECT_EQ((fcntl(descriptor, F_GETFL) & O_NONBLOCK) != 0, timeout != 0);
    int timeToLive = 0;
    socklen_t size = sizeof timeToLive;
    ASSERT_EQ(getsockopt(descriptor, IPPROTO_IP, IP_TTL, &timeToLive, &size), 0);
    EXPECT_EQ(timeToLive, 128);
    ASSERT_OK(probe.closePingSocket());
  }
}

TEST_F(ZuPing, NamesAndSocketsAreOfTheFamilyAskedFor) {
  const struct {
    const char* server;
    bool ipv6;
    int lookedFamily;  // -1: none, it is a number
    int socketFamily;
    const char* text;
  } cases[] = {
      {"named.test", false, AF_INET, AF_INET, "192.0.2.7"},
      {"named6.test", true, AF_INET6, AF_INET6, "2001:db8::7"},
      {"192.0.2.1", true, -1, AF_INET6, "192.0.2.1"},
      {"::1", true, -1, AF_INET6, "::1"},
      {"::1", false, -1, AF_INET, "::1"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.server);
    gFaults = Faults();
    gFaults.ofSocket = ENOBUFS;  // after everything that is looked at
    probe.m_serverIP = "before";
    EXPECT_FAILS(probe.preparePingSocket(c.server, 1, c.ipv6), ErrNoCode(ENOBUFS),
                 "ICMP-Socket creation [");
    EXPECT_EQ(gFaults.lookedFamily, c.lookedFamily);
    EXPECT_EQ(gFaults.lastFamily, c.socketFamily);
    EXPECT_STREQ(probe.m_serverIP.c_str(), c.text);
  }
}

TEST_F(ZuPing, HeldSocketIsNotReplaced) {
  ASSERT_OK(probe.preparePingSocket("192.0.2.1", 1, false));
  const int descriptor = probe.m_sockPing.GetDescriptor();
  EXPECT_TRUE(HasMessages(Ping("192.0.2.2"), Win32Code(774),
                          {"Socket already in use", "ICMP-Socket creation [192.0.2.2] failed.",
                           "prepare socket failed [192.0.2.2]"}));
  EXPECT_EQ(probe.m_sockPing.GetDescriptor(), descriptor);
  EXPECT_STREQ(probe.m_serverName.c_str(), "192.0.2.1");
  EXPECT_STREQ(probe.m_serverIP.c_str(), "192.0.2.2");
}

TEST_F(ZuPing, DestructionClosesTheSocket) {
  int descriptor = -1;
  {
    PingProbe other;
    ASSERT_OK(other.preparePingSocket("192.0.2.1", 1, false));
    descriptor = other.m_sockPing.GetDescriptor();
    ASSERT_NE(fcntl(descriptor, F_GETFD), -1);
  }
  EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
}

TEST_F(ZuPing, FailedSendEndsTheSeries) {  // a UDP socket sends nothing to port 0
  EXPECT_TRUE(HasMessages(
      Ping("192.0.2.1", 56, 3), ErrNoCode(EINVAL),
      {"SendtoICMPSocket", "Sending ping request failed", "Sending ping request failed"}));
  EXPECT_EQ(result.serverName, "192.0.2.1");
  EXPECT_EQ(result.serverIP, "192.0.2.1");
  EXPECT_EQ(result.buffersSent, 0u);
  EXPECT_EQ(gFaults.sleeps, 1);
  EXPECT_TRUE(recorder.responses.empty());
}

// ---- Buffers ----

TEST_F(ZuPing, BuffersHoldThePayloadAndWhatAReplyAdds) {
  probe.m_bufferSize = 56;
  ASSERT_OK(probe.prepareBuffer());
  EXPECT_EQ(probe.m_sendPacketSize, 64u);
  EXPECT_EQ(probe.m_recvPacketSize, 1088u);
  EXPECT_EQ(probe.m_processId, static_cast<std::uint16_t>(getpid()));
  kdicmp header{};
  std::memcpy(&header, probe.m_pPingSendBuffer.get(), sizeof header);
  EXPECT_EQ(header.type, 8);
  EXPECT_EQ(header.code, 0);
  EXPECT_EQ(header.id, static_cast<std::uint16_t>(getpid()));
  EXPECT_EQ(header.seq, 0);
}

TEST_F(ZuPing, BuffersKeepTheirSizeUntilTheyAreReleased) {
  probe.m_bufferSize = 56;
  ASSERT_OK(probe.prepareBuffer());
  const unsigned char* const sendBuffer = probe.m_pPingSendBuffer.get();
  probe.m_bufferSize = 1000;
  ASSERT_OK(probe.prepareBuffer());
  EXPECT_EQ(probe.m_pPingSendBuffer.get(), sendBuffer);
  EXPECT_EQ(probe.m_sendPacketSize, 64u);
  EXPECT_EQ(probe.m_recvPacketSize, 1088u);
  ASSERT_OK(probe.unprepareBuffer());
  EXPECT_EQ(probe.m_pPingSendBuffer, nullptr);
  EXPECT_EQ(probe.m_pPingRecvBuffer, nullptr);
  ASSERT_OK(probe.unprepareBuffer());
  ASSERT_OK(probe.prepareBuffer());
  EXPECT_EQ(probe.m_sendPacketSize, 1008u);
  EXPECT_EQ(probe.m_recvPacketSize, 2032u);
}

TEST_F(ZuPing, StepsWithoutBuffersAreRefused) {
  bool timedOut = true;
  CTimeStamp time;
  ZuPingResponse response;
  EXPECT_FAILS(probe.sendPingRequest(0, timedOut, time), KDResultCode(1), "not prepared");
  EXPECT_FAILS(probe.recvAndProcessPingResponse(response, result, time), KDResultCode(1),
               "not prepared");
  ASSERT_OK(probe.prepareBuffer());
  EXPECT_FAILS(probe.sendPingRequest(0, timedOut, time), Win32Code(774), "Not a valid socket");
  EXPECT_FALSE(timedOut);
  EXPECT_FAILS(probe.recvAndProcessPingResponse(response, result, time), Win32Code(774),
               "Failed to receive ping request");
  EXPECT_NE(time.GetTicks(), 0);
}

struct NoMemory {
  unsigned size;
  std::size_t limit;  // of an allocation
  const char* message;
};

constexpr NoMemory kNoMemory[] = {
    {10'000, 10'007, "Ping send-buffer allocation failed"},
    {10'000, 10'008, "Ping recv-buffer allocation failed"},
    {10'000, 11'031, "Ping recv-buffer allocation failed"},
    {4294967295, SIZE_MAX - 1, "Ping send-buffer allocation failed"},
    {4294967288, SIZE_MAX - 1, "Ping send-buffer allocation failed"},
};

TEST_F(ZuPing, PacketsWithoutMemoryAreReported) {
  for (const NoMemory& noMemory : kNoMemory) {
    SCOPED_TRACE(noMemory.size);
    const heap::Failing limit(heap::kNew, noMemory.limit + 1);
    EXPECT_TRUE(HasMessages(Ping("192.0.2.1", noMemory.size), KDResultCode(5),
                            {noMemory.message, "prepare buffer failed"}));
    EXPECT_EQ(probe.m_pPingSendBuffer, nullptr);
    EXPECT_EQ(probe.m_pPingRecvBuffer, nullptr);
    EXPECT_EQ(gFaults.sleeps, 0);
    EXPECT_EQ(result.serverName, "");
    ASSERT_OK(probe.closePingSocket());
  }
}

// Whether the system has 4 GiB for the request or not: the reply's size is beyond 32 bits.
TEST_F(ZuPing, SizeThatOnlyTheReplyExceedsTakesNoMemory) {
  EXPECT_TRUE(HasMessages(Ping("192.0.2.1", 4294966264), KDResultCode(5),
                          {"-buffer allocation failed", "prepare buffer failed"}));
  EXPECT_EQ(probe.m_pPingSendBuffer, nullptr);
  rusage usage{};
  ASSERT_EQ(getrusage(RUSAGE_SELF, &usage), 0);
  EXPECT_TRUE(kSanitized || usage.ru_maxrss < 1'000'000) << usage.ru_maxrss << " KiB";
}

TEST_F(ZuPing, LargestSizeWithReplyIsAllocated) {
  probe.m_bufferSize = 10'000;
  const heap::Failing limit(heap::kNew, 11'033);
  EXPECT_OK(probe.prepareBuffer());
}

// ---- Helpers of a series ----

struct Sum {
  std::vector<unsigned char> data;
  unsigned short checksum;  // as it is stored, in the order of memory
};

TEST_F(ZuPing, ChecksumIsThatOfRfc1071) {
  const Sum sums[] = {
      {{}, 0xFFFF},
      {{0, 0}, 0xFFFF},
      {{1}, static_cast<unsigned short>(~0x0001)},
      {{0x34, 0x12}, static_cast<unsigned short>(~0x1234)},
      {{0x34, 0x12, 0x56}, static_cast<unsigned short>(~0x128A)},
      {{0xFF, 0xFF}, 0},
      {{0xFF, 0xFF, 1}, static_cast<unsigned short>(~0x0001)},
      {{0xFF, 0xFF, 0xFF, 0xFF}, 0},
      {{0, 1, 0xF2, 3, 0xF4, 0xF5, 0xF6, 0xF7}, 0x0D22},  // the RFC's example
      {std::vector<unsigned char>(65'515, 0xFF), 0xFF00},
      {std::vector<unsigned char>(65'514, 0xFF), 0},
  };
  for (const Sum& sum : sums) {
    std::vector<unsigned short> words(sum.data.size() / 2 + 1);
    if (!sum.data.empty()) std::memcpy(words.data(), sum.data.data(), sum.data.size());
    EXPECT_EQ(probe.checksum(words.data(), static_cast<int>(sum.data.size())), sum.checksum)
        << sum.data.size() << " bytes, first " << (sum.data.empty() ? 0 : sum.data[0]);
  }
}

TEST_F(ZuPing, MessageWithItsChecksumSumsToZero) {
  unsigned short words[] = {0x0008, 0, 0x1234, 0x0001, 0xA5A5, 0x00FF};
  words[1] = probe.checksum(words, sizeof words);
  EXPECT_NE(words[1], 0);
  EXPECT_EQ(probe.checksum(words, sizeof words), 0);
}

TEST_F(ZuPing, LogFormatsForTheCallbackAndCuts) {
  probe.log("nobody hears %s", "this");
  probe.m_pZuPingCallback = &recorder;
  probe.log("%s has %d%%", "loss", 7);
  probe.log("%s", std::string(5000, 'x').c_str());
  probe.log("%s", std::string(4095, 'y').c_str());
  EXPECT_THAT(recorder.lines,
              testing::ElementsAre("loss has 7%", std::string(4095, 'x'), std::string(4095, 'y')));
}

// ---- Privilege ----

// In a child without privilege: 0 when the report is the expected one.
int PingWithoutPrivilege() {
  gFaults.isPrivileged = false;
  if (geteuid() == 0 && (setgroups(0, nullptr) != 0 || setresgid(65534, 65534, 65534) != 0 ||
                         setresuid(65534, 65534, 65534) != 0)) {
    return 2;
  }
  CZuPing ping;
  ZuPingResult result;
  const CZuError error = ping.ping("127.0.0.1", 56, 1, 1, nullptr, nullptr, result, false);
  const testing::AssertionResult report =
      HasMessages(error, ErrNoCode(EPERM),
                  {"Operation not permitted", "ICMP-Socket creation [127.0.0.1] failed.",
                   "prepare socket failed [127.0.0.1]"});
  if (!report) std::fprintf(stderr, "%s\n", report.message());
  return report && result.buffersSent == 0 ? 0 : 1;
}

TEST_F(ZuPing, WithoutPrivilegeTheSystemsReasonIsReported) {
  const pid_t child = fork();
  ASSERT_NE(child, -1);
  if (child == 0) _exit(PingWithoutPrivilege());
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace

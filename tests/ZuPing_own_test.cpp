#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>
#include <thread>

#include "ZuNetwork/ZuPing.h"
#include "support/PeerNetwork.h"
#include "support/PingPeer.h"
#include "support/PingProbe.h"

// Pings with setOwnRepliesOnly, on networks where more is heard than the replies to them.

extern "C" int clock_nanosleep(clockid_t /*clock*/, int /*flags*/, const timespec* /*time*/,
                               timespec* /*left*/) {
  return 0;  // no second before every request
}

namespace {

constexpr char kBehind[] = "10.78.0.2";     // a network behind the peer, which forwards
constexpr char kAbsent[] = "10.78.0.9";     // nobody has this address there
constexpr char kForbidden[] = "10.79.0.1";  // the peer says that it may not be reached
constexpr std::uint8_t kUnreachable = 3;
constexpr std::uint8_t kSourceQuench = 4;
constexpr std::uint8_t kRedirect = 5;
constexpr std::uint8_t kTimeExceeded = 11;
constexpr std::uint8_t kParameterProblem = 12;

class ZuPingOwn : public testing::Test {
 protected:
  void SetUp() override {
    MakeNetwork(network);
    probe.setOwnRepliesOnly(true);
  }

  CZuError Ping(const char* server, unsigned count = 1, unsigned timeout = 5, unsigned size = 56) {
    return probe.ping(server, size, count, timeout, nullptr, &recorder, result, false);
  }

  // How often each state was counted, in the order of KD_PING_STATE.
  std::vector<unsigned> Counters() const {
    return {result.buffersReceived,       result.buffersTimeout,        result.buffersDataloss,
            result.buffersChecksumfailed, result.buffersAnonymousReply, result.buffersIcmpError};
  }

  // Lets the peer forward to a network behind it, where it is kBehind.
  void AddNetworkBehindPeer() const {
    network->InPeer([] {
      PeerNetwork::SetSystemValue("ipv4/ip_forward", "1");
      PeerNetwork::Ip("link add far type veth peer name farther");
      PeerNetwork::Ip("addr add " + std::string(kBehind) + "/24 dev far");
      PeerNetwork::Ip("link set far up");
      PeerNetwork::Ip("link set farther up");
      PeerNetwork::SetSystemValue("ipv4/neigh/far/mcast_solicit", "1");
      PeerNetwork::SetSystemValue("ipv4/neigh/far/retrans_time_ms", "100");
      PeerNetwork::SetSystemValue("ipv4/icmp_ratelimit", "0");
      PeerNetwork::Ip("route add prohibit 10.79.0.0/24");
    });
    PeerNetwork::Ip("route add 10.78.0.0/15 via " + std::string(PeerNetwork::kPeer));
  }

  std::optional<PeerNetwork> network;
  PingProbe probe;
  PingRecorder recorder;
  ZuPingResult result;
};

// An ICMP error with so many bytes of the request as it was sent to the target, whose IP header
// claims to have so many words.
Bytes ErrorAbout(const Bytes& request, std::uint8_t type, const char* target = PeerNetwork::kPeer,
                 std::size_t quoted = 28, unsigned char words = 5) {
  Bytes quotation(20);
  quotation[0] = static_cast<unsigned char>(0x40 | words);
  quotation[9] = IPPROTO_ICMP;
  const in_addr_t destination = inet_addr(target);
  std::memcpy(&quotation[16], &destination, sizeof destination);
  quotation.insert(quotation.end(), request.begin(), request.begin() + 8);
  quotation.resize(quoted);
  Bytes message{type, 1, 0, 0, 0, 0, 0, 0};
  message.insert(message.end(), quotation.begin(), quotation.end());
  return WithChecksum(message);
}

Bytes With(Bytes message, std::size_t offset, unsigned char flipped) {
  message[offset] = static_cast<unsigned char>(message[offset] ^ flipped);
  return WithChecksum(message);
}

// What the program ping(8) says about received replies, for instance "2 received, +1 errors".
std::string SystemsPing(const std::string& arguments) {
  const std::string command = "PATH=$PATH:/sbin:/usr/sbin ping " + arguments + " 2>&1";
  std::string text;
  FILE* const pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return text;
  char line[512];
  while (std::fgets(line, sizeof line, pipe) != nullptr) text += line;
  pclose(pipe);
  return text;
}

#define SKIP_WITHOUT_PING()                                                      \
  if (std::system("PATH=$PATH:/sbin:/usr/sbin command -v ping >/dev/null") != 0) \
  GTEST_SKIP() << "no program ping here"

}  // namespace

TEST_F(ZuPingOwn, RepliesOfTheSystemCount) {
  ASSERT_OK(Ping(PeerNetwork::kPeer, 3));
  EXPECT_THAT(Counters(), testing::ElementsAre(3, 0, 0, 0, 0, 0));
  EXPECT_EQ(recorder.responses.back().ttl, 64u);
  EXPECT_EQ(recorder.responses.back().sizeSent, 56u);
  EXPECT_EQ(recorder.responses.back().errorSender, "");
}

TEST_F(ZuPingOwn, IsOffUnlessAskedFor) {
  probe.setOwnRepliesOnly(false);
  ASSERT_OK(Ping("localhost", 1));
  EXPECT_THAT(Counters(), testing::ElementsAre(0, 0, 0, 0, 1, 0)) << "its own request";
}

TEST_F(ZuPingOwn, LoopbackAnswersEveryRequest) {
  ASSERT_OK(Ping("localhost", 3));
  EXPECT_THAT(Counters(), testing::ElementsAre(3, 0, 0, 0, 0, 0));
}

TEST_F(ZuPingOwn, SizesReachAsFarAsAPacketAndNoFurther) {
  for (const char* const server : {PeerNetwork::kPeer, "127.0.0.1"}) {
    for (const unsigned size : {1u, 7u, 8u, 9u, 56u, 1472u, 1473u, 65'506u, 65'507u}) {
      SCOPED_TRACE(std::string(server) + ", " + std::to_string(size));
      result = ZuPingResult();
      ASSERT_OK(Ping(server, 2, 5, size));
      EXPECT_THAT(Counters(), testing::ElementsAre(2, 0, 0, 0, 0, 0));
      ASSERT_OK(probe.closePingSocket());
      ASSERT_OK(probe.unprepareBuffer());
    }
  }
  for (const unsigned size : {65'508u, 4'294'967'295u}) {
    const CZuError error = Ping(PeerNetwork::kPeer, 1, 5, size);
    EXPECT_EQ(static_cast<unsigned>(error.m_hrErrorCode),
              KDResultCode(ZUPING_RESULT_INVALID_PARAMETER));
    EXPECT_EQ(error.Message(), "Invalid buffer size (" + std::to_string(size) + ")");
    EXPECT_EQ(probe.m_sockPing.GetDescriptor(), -1) << "nothing was opened";
  }
}

TEST_F(ZuPingOwn, AddressOfTheOtherFamilyIsRefusedBeforeASocketIsMade) {
  EXPECT_FAILS(Ping("::1"), KDResultCode(ZUPING_RESULT_UNSUPPORTED),
               "IPV6 is not supported currently");
  EXPECT_FAILS(Ping("::1"), KDResultCode(ZUPING_RESULT_UNSUPPORTED), "prepare socket failed [::1]");
  EXPECT_EQ(probe.m_sockPing.GetDescriptor(), -1);
}

// ---- Routers ----

TEST_F(ZuPingOwn, AbsentHostBehindARouterNeverAnswers) {
  AddNetworkBehindPeer();
  ASSERT_OK(Ping(kAbsent, 3));
  EXPECT_THAT(Counters(), testing::ElementsAre(0, 0, 0, 0, 0, 3));
  for (const ZuPingResponse& response : recorder.responses) {
    EXPECT_EQ(response.currentPingState, ZUPING_STATE_ICMPERROR);
    EXPECT_EQ(response.errorSender, PeerNetwork::kPeer);
    EXPECT_EQ(response.errorType, kUnreachable);
    EXPECT_EQ(response.errorCode, 1u);
    EXPECT_EQ(response.sizeSent, 0u);
    EXPECT_EQ(response.ttl, 0u);
  }
}

// What the option is for: without it the router is pinged after the first request.
TEST_F(ZuPingOwn, WithoutItAnAbsentHostSeemsAlive) {
  AddNetworkBehindPeer();
  probe.setOwnRepliesOnly(false);
  ASSERT_OK(Ping(kAbsent, 3));
  EXPECT_THAT(Counters(), testing::ElementsAre(2, 0, 0, 0, 1, 0));
}

TEST_F(ZuPingOwn, ForbiddenNetworkIsToldAsSuch) {
  AddNetworkBehindPeer();
  ASSERT_OK(Ping(kForbidden, 1));
  ASSERT_EQ(recorder.responses.size(), 1u);
  EXPECT_EQ(recorder.responses[0].currentPingState, ZUPING_STATE_ICMPERROR);
  EXPECT_EQ(recorder.responses[0].errorType, kUnreachable);
  EXPECT_EQ(recorder.responses[0].errorCode, 13u);
}

// The error comes from the own machine, which cannot find the hardware address.
TEST_F(ZuPingOwn, AbsentHostOnTheOwnNetworkIsToldByTheOwnSystem) {
  PeerNetwork::SetSystemValue("ipv4/neigh/own/mcast_solicit", "1");
  PeerNetwork::SetSystemValue("ipv4/neigh/own/retrans_time_ms", "100");
  ASSERT_OK(Ping("10.77.0.200", 1));
  ASSERT_EQ(recorder.responses.size(), 1u);
  EXPECT_EQ(recorder.responses[0].currentPingState, ZUPING_STATE_ICMPERROR);
  EXPECT_EQ(recorder.responses[0].errorSender, PeerNetwork::kOwn);
}

TEST_F(ZuPingOwn, ExceededTimeToLiveIsToldByTheRouter) {
  AddNetworkBehindPeer();
  probe.m_bufferSize = 56;
  ASSERT_OK(probe.preparePingSocket(kAbsent, 5, false));
  ASSERT_OK(probe.prepareBuffer());
  int timeToLive = 1;
  ASSERT_OK(probe.m_sockPing.SetSockOpt(IPPROTO_IP, IP_TTL, reinterpret_cast<char*>(&timeToLive),
                                        sizeof timeToLive));
  bool timedOut = true;
  CTimeStamp sent;
  CTimeStamp received;
  ZuPingResponse response;
  ASSERT_OK(probe.sendPingRequest(0, timedOut, sent));
  ASSERT_OK(probe.recvAndProcessPingResponse(response, result, received));
  EXPECT_EQ(response.currentPingState, ZUPING_STATE_ICMPERROR);
  EXPECT_EQ(response.errorSender, PeerNetwork::kPeer);
  EXPECT_EQ(response.errorType, kTimeExceeded);
  EXPECT_STREQ(CZuPing::describeIcmpError(response.errorType, response.errorCode),
               "Time to live exceeded");
}

TEST_F(ZuPingOwn, AgreesWithTheProgramOfTheSystem) {
  SKIP_WITHOUT_PING();
  AddNetworkBehindPeer();
  const struct {
    const char* server;
    const char* said;
    std::vector<unsigned> counters;
  } rows[] = {
      {PeerNetwork::kPeer, "2 received, 0% packet loss", {2, 0, 0, 0, 0, 0}},
      {kBehind, "2 received, 0% packet loss", {2, 0, 0, 0, 0, 0}},
      {"127.0.0.1", "2 received, 0% packet loss", {2, 0, 0, 0, 0, 0}},
      {kAbsent, "0 received, +2 errors, 100% packet loss", {0, 0, 0, 0, 0, 2}},
      {PeerNetwork::kNobody, "0 received, 100% packet loss", {0, 2, 0, 0, 0, 0}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.server);
    result = ZuPingResult();
    ASSERT_OK(Ping(row.server, 2, 2));
    ASSERT_OK(probe.closePingSocket());
    EXPECT_EQ(Counters(), row.counters);
    EXPECT_THAT(SystemsPing("-n -c 2 -i 0.2 -W 2 " + std::string(row.server)),
                testing::HasSubstr(row.said));
  }
}

// ---- Packets of others ----

TEST_F(ZuPingOwn, ForeignPacketsBeforeTheReplyArePassedOver) {
  Responder peer(*network, [](const std::vector<Bytes>& requests) {
    const Bytes& request = requests.back();
    if (request[0] != 8) return std::vector<Answer>{};  // the own system's reply to one of these
    const Bytes reply = Reply(request);
    return std::vector<Answer>{
        {With(reply, 4, 1)},                               // another id
        {With(reply, 5, 1)},                               // its other byte
        {With(reply, 6, 1)},                               // another sequence number
        {With(reply, 7, 1)},                               // its other byte
        {With(reply, 8, 1)},                               // data of another series
        {With(reply, reply.size() - 1, 1)},                // the last byte of it
        {With(reply, 0, 8)},                               // a request
        {With(reply, 0, 14)},                              // a reply to a question for the time
        {reply, PeerNetwork::kPeersSecond},                // the reply of somebody else
        {ErrorAbout(request, kRedirect)},                  // the request goes another way
        {ErrorAbout(request, kSourceQuench)},              // the request may arrive
        {With(ErrorAbout(request, kUnreachable), 32, 1)},  // about another id
        {With(ErrorAbout(request, kUnreachable), 34, 1)},  // about another sequence number
        {With(ErrorAbout(request, kUnreachable), 28, 8)},  // about a reply
        {With(ErrorAbout(request, kUnreachable), 17, 1)},  // about another protocol
        {ErrorAbout(request, kUnreachable, "10.77.0.4")},  // about another target
        {ErrorAbout(request, kUnreachable, PeerNetwork::kPeer, 27)},      // cut short
        {ErrorAbout(request, kUnreachable, PeerNetwork::kPeer, 0)},       // without a quotation
        {ErrorAbout(request, kUnreachable, PeerNetwork::kPeer, 28, 15)},  // behind its end
        {ErrorAbout(request, kUnreachable, PeerNetwork::kPeer, 28, 4)},   // in its IP header
        {reply, PeerNetwork::kPeer, {}, 55},
    };
  });
  ASSERT_OK(Ping(PeerNetwork::kPeer, 2));
  EXPECT_THAT(Counters(), testing::ElementsAre(2, 0, 0, 0, 0, 0));
  for (const ZuPingResponse& response : recorder.responses) EXPECT_EQ(response.ttl, 55u);
}

TEST_F(ZuPingOwn, EveryErrorThatQuotesTheRequestEndsTheWait) {
  for (const std::uint8_t type : {kUnreachable, kTimeExceeded, kParameterProblem}) {
    SCOPED_TRACE(int{type});
    Responder peer(*network, [type](const std::vector<Bytes>& requests) {
      return std::vector<Answer>{
          {ErrorAbout(requests.back(), type), PeerNetwork::kPeersSecond, Bytes(8, 1)}};
    });
    recorder = PingRecorder();
    ASSERT_OK(Ping(PeerNetwork::kPeer, 1));
    ASSERT_OK(probe.closePingSocket());
    ASSERT_EQ(recorder.responses.size(), 1u);
    EXPECT_EQ(recorder.responses[0].currentPingState, ZUPING_STATE_ICMPERROR);
    EXPECT_EQ(recorder.responses[0].errorSender, PeerNetwork::kPeersSecond);
    EXPECT_EQ(recorder.responses[0].errorType, type);
    EXPECT_EQ(recorder.responses[0].errorCode, 1u);
  }
}

TEST_F(ZuPingOwn, DamagedRepliesAreCountedAsWithoutTheOption) {
  Responder peer(*network, [](const std::vector<Bytes>& requests) {
    Bytes reply = Reply(requests.back());
    if (requests.size() == 1) reply[20] ^= 1u;
    if (requests.size() == 2) reply = WithChecksum(Bytes(reply.begin(), reply.end() - 1));
    return std::vector<Answer>{{reply}};
  });
  ASSERT_OK(Ping(PeerNetwork::kPeer, 3));
  EXPECT_THAT(Counters(), testing::ElementsAre(1, 0, 1, 1, 0, 0));
}

TEST_F(ZuPingOwn, LateAndDoubledRepliesCountOnceOrNever) {
  Responder peer(*network, [](const std::vector<Bytes>& requests) {
    switch (requests.size()) {
      case 1:
        return std::vector<Answer>{};
      case 2:  // the late one, and nothing else
        return std::vector<Answer>{{Reply(requests[0])}};
      default:
        return std::vector<Answer>{{Reply(requests[1])},
                                   {Reply(requests.back())},
                                   {Reply(requests.back())},
                                   {Reply(requests.back())}};
    }
  });
  ASSERT_OK(Ping(PeerNetwork::kPeer, 5, 1));
  EXPECT_THAT(Counters(), testing::ElementsAre(3, 2, 0, 0, 0, 0));
  std::vector<KD_PING_STATE> states;
  for (const ZuPingResponse& response : recorder.responses) {
    states.push_back(response.currentPingState);
  }
  EXPECT_THAT(states,
              testing::ElementsAre(ZUPING_STATE_TIMEOUT, ZUPING_STATE_TIMEOUT, ZUPING_STATE_SUCCESS,
                                   ZUPING_STATE_SUCCESS, ZUPING_STATE_SUCCESS));
}

TEST_F(ZuPingOwn, EveryRequestGoesToTheServer) {
  Responder peer(*network, [](const std::vector<Bytes>& requests) {
    return std::vector<Answer>{{Reply(requests.back()), PeerNetwork::kPeersSecond}};
  });
  ASSERT_OK(Ping(PeerNetwork::kPeer, 3, 1));
  EXPECT_THAT(Counters(), testing::ElementsAre(0, 3, 0, 0, 0, 0));
  const std::vector<Bytes>& packets = peer.Stop();
  ASSERT_EQ(packets.size(), 3u);
  for (const Bytes& packet : packets) {
    kdIPhdr ip{};
    std::memcpy(&ip, packet.data(), sizeof ip);
    EXPECT_EQ(ip.iacst, inet_addr(PeerNetwork::kPeer));
  }
}

// They go on for as long as the wait does: one that started anew with each would never end.
TEST_F(ZuPingOwn, StreamOfForeignPacketsDoesNotProlongTheWait) {
  std::atomic<bool> isOver{false};
  std::thread stream;
  network->InPeer([] { PeerNetwork::SetSystemValue("ipv4/icmp_echo_ignore_all", "1"); });
  stream = std::thread([this, &isOver] {
    network->EnterPeer();
    const int descriptor = socket(AF_INET, SOCK_RAW, IPPROTO_ICMP);
    const sockaddr_in to{AF_INET, 0, {inet_addr(PeerNetwork::kOwn)}, {}};
    const Bytes reply = WithChecksum(Bytes(64));
    while (!isOver) {
      EXPECT_EQ(sendto(descriptor, reply.data(), reply.size(), 0,
                       reinterpret_cast<const sockaddr*>(&to), sizeof to),
                64);
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    close(descriptor);
  });
  const CZuError error = Ping(PeerNetwork::kPeer, 1, 1);
  isOver = true;
  stream.join();
  ASSERT_OK(error);
  EXPECT_THAT(Counters(), testing::ElementsAre(0, 1, 0, 0, 0, 0));
  EXPECT_GE(recorder.responses.at(0).currentPingtimeMS, 1000u) << "and nothing shortens it";
}

// All with the same id, which is the process's, and the same sequence numbers.
TEST_F(ZuPingOwn, TwoAtOnceGetTheirOwnReplies) {
  Responder peer(*network, [](const std::vector<Bytes>& requests) {
    // Two requests are answered together, the last one first.
    if (requests.size() % 2 != 0) return std::vector<Answer>{};
    return std::vector<Answer>{{Reply(requests.back()), PeerNetwork::kPeer, {}, 40},
                               {Reply(requests[requests.size() - 2]), PeerNetwork::kPeer, {}, 41}};
  });
  constexpr unsigned kCount = 5;
  struct Series {
    CZuPing ping;
    PingRecorder recorder;
    ZuPingResult result;
    CZuError error;
  };
  Series series[2];
  std::vector<std::thread> threads;
  for (Series& one : series) {
    threads.emplace_back([&one] {
      one.ping.setOwnRepliesOnly(true);
      one.error = one.ping.ping(PeerNetwork::kPeer, 56, kCount, 20, nullptr, &one.recorder,
                                one.result, false);
    });
  }
  for (std::thread& thread : threads) thread.join();
  ASSERT_OK(series[0].error);
  ASSERT_OK(series[1].error);
  EXPECT_EQ(series[0].result.buffersReceived, kCount);
  EXPECT_EQ(series[1].result.buffersReceived, kCount);
  for (unsigned i = 0; i < kCount; ++i) {
    EXPECT_EQ(series[0].recorder.responses[i].ttl + series[1].recorder.responses[i].ttl, 81u) << i;
  }
}

TEST_F(ZuPingOwn, SeriesWithoutTimeOutWaitsForTheOwnReply) {
  Responder peer(*network, [](const std::vector<Bytes>& requests) {
    return std::vector<Answer>{{With(Reply(requests.back()), 4, 1)}, {Reply(requests.back())}};
  });
  ASSERT_OK(Ping(PeerNetwork::kPeer, 2, 0));
  EXPECT_THAT(Counters(), testing::ElementsAre(2, 0, 0, 0, 0, 0));
}

TEST(ZuPingOwnSteps, FailWithoutASocket) {
  PingProbe probe;
  probe.setOwnRepliesOnly(true);
  probe.m_bufferSize = 56;
  ASSERT_OK(probe.prepareBuffer());
  ZuPingResponse response;
  ZuPingResult result;
  CTimeStamp received;
  EXPECT_TRUE(HasMessages(probe.recvAndProcessPingResponse(response, result, received),
                          Win32Code(774),
                          {"Not a valid socket", "Failed to receive ping request"}));
  bool timedOut = true;
  EXPECT_TRUE(HasMessages(probe.sendPingRequest(0, timedOut, received), Win32Code(774),
                          {"Not a valid socket", "Sending ping request failed"}));
}

TEST(ZuPingIcmpErrors, HaveWords) {
  const struct {
    unsigned type;
    unsigned code;
    const char* text;
  } rows[] = {
      {3, 0, "Destination network unreachable"},
      {3, 1, "Destination host unreachable"},
      {3, 3, "Destination port unreachable"},
      {3, 13, "Communication prohibited by a filter"},
      {3, 15, "Precedence cut off"},
      {3, 16, "ICMP error"},
      {11, 0, "Time to live exceeded"},
      {11, 1, "Time for reassembly exceeded"},
      {11, 2, "ICMP error"},
      {12, 0, "Parameter problem"},
      {12, 7, "Parameter problem"},
      {0, 0, "ICMP error"},
      {4'294'967'295, 4'294'967'295, "ICMP error"},
  };
  for (const auto& row : rows) {
    EXPECT_STREQ(CZuPing::describeIcmpError(row.type, row.code), row.text);
  }
}

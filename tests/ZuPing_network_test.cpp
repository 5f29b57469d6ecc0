#include <arpa/inet.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <deque>
#include <optional>

#include "ZuNetwork/ZuPing.h"
#include "ZuUtils/ZuSleep.h"
#include "support/PeerNetwork.h"
#include "support/PingPeer.h"
#include "support/PingProbe.h"
#include "support/SystemFunction.h"

// Pings over a cable to a peer that answers as its system does, or as the test wants it to.

namespace {

struct Faults {
  int ofRecvfrom = 0;         // an errno value; 0: none
  bool isNeverReady = false;  // nothing can be sent; each look takes a second of the fake clock
  time_t passed = 0;          // on the fake clock
};
thread_local Faults gFaults;

// What the wall clock shows to the thread, one after the other, in ticks since 1970.
thread_local std::deque<std::int64_t> gClock;

std::atomic<int> gSleeps{0};

SystemFunction<int(clockid_t, timespec*)> gClockGetTime{"clock_gettime"};
SystemFunction<time_t(time_t*)> gTime{"time"};
SystemFunction<int(int, fd_set*, fd_set*, fd_set*, timeval*)> gSelect{"select"};
SystemFunction<ssize_t(int, void*, size_t, int, sockaddr*, socklen_t*)> gRecvFrom{"recvfrom"};

}  // namespace

extern "C" {

int clock_nanosleep(clockid_t /*clock*/, int /*flags*/, const timespec* /*time*/,
                    timespec* /*left*/) {
  ++gSleeps;
  return 0;
}

int clock_gettime(clockid_t clock, timespec* now) noexcept {
  if (clock != CLOCK_REALTIME || gClock.empty()) {
    return gClockGetTime(clock, now);
  }
  *now = {gClock.front() / 10'000'000, gClock.front() % 10'000'000 * 100};
  gClock.pop_front();
  return 0;
}

time_t time(time_t* result) noexcept {
  const time_t now = gTime(nullptr) + gFaults.passed;
  if (result != nullptr) *result = now;
  return now;
}

int select(int count, fd_set* readable, fd_set* writable, fd_set* exceptions, timeval* timeout) {
  if (gFaults.isNeverReady && writable != nullptr) {
    ++gFaults.passed;
    return 0;
  }
  return gSelect(count, readable, writable, exceptions, timeout);
}

ssize_t recvfrom(int descriptor, void* buffer, size_t size, int flags, sockaddr* from,
                 socklen_t* length) {
  if (gFaults.ofRecvfrom != 0) {
    errno = gFaults.ofRecvfrom;
    return -1;
  }
  return gRecvFrom(descriptor, buffer, size, flags, from, length);
}
}

namespace {

// ---- The tests ----

std::vector<std::string> gSleepsTold;
const ZuPingResult* gSeries = nullptr;  // whose sleeps they are

void OnSleep(const ZuSleepCallBackStruct& sleep) {
  const std::string file = sleep.pFile;
  gSleepsTold.push_back(std::to_string(sleep.nMilliseconds) + " ms in " +
                        file.substr(file.rfind('/') + 1) + ", " +
                        std::to_string(gSeries->buffersSent) + " sent");
}

class ZuPingNetwork : public testing::Test {
 protected:
  void SetUp() override {
    MakeNetwork(network);
    gFaults = Faults();
    gClock.clear();
    gSleeps = 0;
    gSleepsTold.clear();
    gSeries = &result;
  }

  CZuError Ping(const char* server, unsigned size = 56, unsigned count = 1, unsigned timeout = 5) {
    return probe.ping(server, size, count, timeout, this, &recorder, result, false);
  }

  // How often each state was counted, in the order of KD_PING_STATE.
  std::vector<unsigned> Counters() const {
    return {result.buffersReceived, result.buffersTimeout, result.buffersDataloss,
            result.buffersChecksumfailed, result.buffersAnonymousReply};
  }

  std::optional<PeerNetwork> network;
  PingProbe probe;
  PingRecorder recorder;
  ZuPingResult result;
};

std::vector<unsigned> One(KD_PING_STATE state) {
  std::vector<unsigned> counters(5);
  counters[static_cast<std::size_t>(state)] = 1;
  return counters;
}

TEST_F(ZuPingNetwork, SystemOfThePeerAnswers) {
  ASSERT_OK(Ping(PeerNetwork::kPeer, 56, 3));
  EXPECT_EQ(result.serverName, PeerNetwork::kPeer);
  EXPECT_EQ(result.serverIP, PeerNetwork::kPeer);
  EXPECT_EQ(result.buffersSent, 3u);
  EXPECT_THAT(Counters(), testing::ElementsAre(3, 0, 0, 0, 0));
  EXPECT_THAT(recorder.lines,
              testing::ElementsAre("ZuPing: [server - 10.77.0.2] [IP - 10.77.0.2]"));
  EXPECT_THAT(recorder.lastPackets, testing::ElementsAre(false, false, true));
  EXPECT_THAT(recorder.instances, testing::Each(this));
  ASSERT_EQ(recorder.responses.size(), 3u);
  std::uint64_t total = 0;
  for (unsigned i = 0; i < 3; ++i) {
    const ZuPingResponse& response = recorder.responses[i];
    EXPECT_EQ(response.serverName, PeerNetwork::kPeer);
    EXPECT_EQ(response.serverIP, PeerNetwork::kPeer);
    EXPECT_EQ(response.totalBufferCount, 3u);
    EXPECT_EQ(response.currentPingSequenceNumber, i + 1);
    EXPECT_EQ(response.sizeSent, 56u);
    EXPECT_EQ(response.ttl, 64u);
    EXPECT_EQ(response.currentPingState, ZUPING_STATE_SUCCESS);
    EXPECT_LT(response.currentPingtimeMS, 5000u);
    total += response.currentPingtimeMS;
  }
  EXPECT_EQ(result.totalTimeMS, total);
}

TEST_F(ZuPingNetwork, RequestsOnTheWireAreEchoMessages) {
  Responder peer(*network, AnswerWell);
  ASSERT_OK(Ping(PeerNetwork::kPeer, 57, 3));
  const std::vector<Bytes>& packets = peer.Stop();
  ASSERT_EQ(packets.size(), 3u);
  for (std::uint16_t i = 0; i < 3; ++i) {
    kdIPhdr ip{};
    std::memcpy(&ip, packets[i].data(), sizeof ip);
    EXPECT_EQ(ip.vihl, 0x45);
    EXPECT_EQ(ip.ttl, 128);
    EXPECT_EQ(ip.protocol, IPPROTO_ICMP);
    EXPECT_EQ(ip.iacrc, inet_addr(PeerNetwork::kOwn));
    EXPECT_EQ(ip.iacst, inet_addr(PeerNetwork::kPeer));
    const Bytes message(packets[i].begin() + kIpHeader, packets[i].end());
    EXPECT_EQ(message.size(), 8u + 57u);
    const kdicmp header = HeaderOf(message);
    EXPECT_EQ(header.type, 8);
    EXPECT_EQ(header.code, 0);
    EXPECT_EQ(header.id, static_cast<std::uint16_t>(getpid()));
    EXPECT_EQ(header.seq, i);
    EXPECT_EQ(header.checksum, HeaderOf(WithChecksum(message)).checksum);
    EXPECT_EQ(Bytes(message.begin() + 8, message.end()), Bytes(57, message[8]));
  }
}

// ---- What a reply is taken for ----

struct Judgement {
  const char* name;
  std::function<Answer(const Bytes& request)> answer;
  KD_PING_STATE state;
};

Answer Changed(const Bytes& request, const std::function<void(kdicmp& header)>& change) {
  Bytes message = request;
  kdicmp header = HeaderOf(message);
  header.type = 0;
  change(header);
  SetHeader(message, header);
  return {WithChecksum(message)};
}

Answer Flipped(const Bytes& request, std::size_t offset) {
  Bytes reply = Reply(request);
  reply[offset] = static_cast<unsigned char>(reply[offset] ^ 1u);
  return {reply};
}

Answer Resized(const Bytes& request, std::size_t size, bool hasNewChecksum) {
  Bytes reply = Reply(request);
  reply.resize(size, 0x77);
  return {hasNewChecksum ? WithChecksum(reply) : reply};
}

const Judgement kJudgements[] = {
    {"right", [](const Bytes& request) { return Answer{Reply(request)}; }, ZUPING_STATE_SUCCESS},
    {"other sequence number, which is not compared",
     [](const Bytes& request) { return Changed(request, [](kdicmp& h) { h.seq = 4711; }); },
     ZUPING_STATE_SUCCESS},
    {"other code",
     [](const Bytes& request) { return Changed(request, [](kdicmp& h) { h.code = 9; }); },
     ZUPING_STATE_SUCCESS},
    {"IP options before the message",
     [](const Bytes& request) {
       return Answer{Reply(request), PeerNetwork::kPeer, {1, 1, 1, 0}};
     },
     ZUPING_STATE_SUCCESS},
    {"most IP options, whose header is 60 bytes",
     [](const Bytes& request) {
       return Answer{Reply(request), PeerNetwork::kPeer, Bytes(40, 1)};
     },
     ZUPING_STATE_SUCCESS},
    {"longer, with the checksum of its start",
     [](const Bytes& request) { return Resized(request, request.size() + 9, false); },
     ZUPING_STATE_SUCCESS},
    {"longer, with the checksum of all",
     [](const Bytes& request) { return Resized(request, request.size() + 9, true); },
     ZUPING_STATE_BADCHECKSUM},
    {"longer than the buffer",
     [](const Bytes& request) { return Resized(request, request.size() + 2000, false); },
     ZUPING_STATE_SUCCESS},
    {"wrong checksum", [](const Bytes& request) { return Flipped(request, 2); },
     ZUPING_STATE_BADCHECKSUM},
    {"changed first byte of data", [](const Bytes& request) { return Flipped(request, 8); },
     ZUPING_STATE_BADCHECKSUM},
    {"changed last byte of data",
     [](const Bytes& request) { return Flipped(request, request.size() - 1); },
     ZUPING_STATE_BADCHECKSUM},
    {"changed sequence number", [](const Bytes& request) { return Flipped(request, 6); },
     ZUPING_STATE_BADCHECKSUM},
    {"one byte short",
     [](const Bytes& request) { return Resized(request, request.size() - 1, true); },
     ZUPING_STATE_DATALOSS},
    {"one byte short, and a wrong checksum",
     [](const Bytes& request) { return Resized(request, request.size() - 1, false); },
     ZUPING_STATE_DATALOSS},
    {"the header alone", [](const Bytes& request) { return Resized(request, 8, true); },
     ZUPING_STATE_DATALOSS},
    {"other id", [](const Bytes& request) { return Changed(request, [](kdicmp& h) { ++h.id; }); },
     ZUPING_STATE_ANONYMOUS},
    {"id in the other byte order",
     [](const Bytes& request) {
       return Changed(request, [](kdicmp& h) { h.id = static_cast<std::uint16_t>(h.id ^ 0x0100); });
     },
     ZUPING_STATE_ANONYMOUS},
    {"other id, short",
     [](const Bytes& request) {
       Answer answer = Changed(request, [](kdicmp& h) { ++h.id; });
       answer.message.resize(8);
       return answer;
     },
     ZUPING_STATE_ANONYMOUS},
    {"an echo request",
     [](const Bytes& request) { return Changed(request, [](kdicmp& h) { h.type = 8; }); },
     ZUPING_STATE_ANONYMOUS},
    {"an unreachable port",
     [](const Bytes& request) { return Changed(request, [](kdicmp& h) { h.type = 3; }); },
     ZUPING_STATE_ANONYMOUS},
    {"an echo request with another id",
     [](const Bytes& request) {
       return Changed(request, [](kdicmp& h) {
         h.type = 8;
         ++h.id;
       });
     },
     ZUPING_STATE_ANONYMOUS},
};

TEST_F(ZuPingNetwork, RepliesAreJudgedByTypeIdLengthAndChecksum) {
  for (const Judgement& judgement : kJudgements) {
    for (const unsigned size : {56u, 57u}) {
      SCOPED_TRACE(std::string(judgement.name) + ", " + std::to_string(size));
      Responder peer(*network, [&](const std::vector<Bytes>& requests) {
        Answer answer = judgement.answer(requests.back());
        answer.timeToLive = 77;
        return std::vector<Answer>{answer};
      });
      recorder = PingRecorder();
      result = ZuPingResult();
      ASSERT_OK(probe.unprepareBuffer());
      ASSERT_OK(Ping(PeerNetwork::kPeer, size));
      ASSERT_OK(probe.closePingSocket());
      EXPECT_EQ(result.buffersSent, 1u);
      EXPECT_EQ(Counters(), One(judgement.state));
      ASSERT_EQ(recorder.responses.size(), 1u);
      const ZuPingResponse& response = recorder.responses[0];
      const bool isSuccess = judgement.state == ZUPING_STATE_SUCCESS;
      EXPECT_EQ(response.currentPingState, judgement.state);
      EXPECT_EQ(response.sizeSent, isSuccess ? size : 0);
      EXPECT_EQ(response.ttl, isSuccess ? 77u : 0u);
      EXPECT_EQ(response.currentPingSequenceNumber, 1u);
      EXPECT_EQ(response.serverIP, PeerNetwork::kPeer);
      EXPECT_LT(response.currentPingtimeMS, 5000u);
      EXPECT_EQ(result.totalTimeMS, response.currentPingtimeMS);
    }
  }
}

TEST_F(ZuPingNetwork, SilenceTimesOut) {
  Responder peer(*network, AnswerNothing);
  ASSERT_OK(Ping(PeerNetwork::kPeer, 56, 1, 1));
  EXPECT_EQ(result.buffersSent, 1u);
  EXPECT_EQ(Counters(), One(ZUPING_STATE_TIMEOUT));
  ASSERT_EQ(recorder.responses.size(), 1u);
  EXPECT_EQ(recorder.responses[0].currentPingState, ZUPING_STATE_TIMEOUT);
  EXPECT_EQ(recorder.responses[0].sizeSent, 0u);
  EXPECT_EQ(recorder.responses[0].ttl, 0u);
  EXPECT_GE(recorder.responses[0].currentPingtimeMS, 1000u);
  EXPECT_LT(recorder.responses[0].currentPingtimeMS, 30'000u);
  EXPECT_EQ(result.totalTimeMS, recorder.responses[0].currentPingtimeMS);
  EXPECT_TRUE(recorder.lastPackets[0]);
}

TEST_F(ZuPingNetwork, LateReplyCountsForTheNextRequest) {
  Responder peer(*network, [](const std::vector<Bytes>& requests) {
    return requests.size() == 2 ? std::vector<Answer>{{Reply(requests[0])}} : std::vector<Answer>{};
  });
  ASSERT_OK(Ping(PeerNetwork::kPeer, 56, 2, 1));
  EXPECT_THAT(Counters(), testing::ElementsAre(1, 1, 0, 0, 0));
  ASSERT_EQ(recorder.responses.size(), 2u);
  EXPECT_EQ(recorder.responses[0].currentPingState, ZUPING_STATE_TIMEOUT);
  EXPECT_EQ(recorder.responses[1].currentPingState, ZUPING_STATE_SUCCESS);
  EXPECT_EQ(recorder.responses[1].currentPingSequenceNumber, 2u);
}

TEST_F(ZuPingNetwork, WhatAReplyDoesNotSetStaysFromTheOneBefore) {
  Responder peer(*network, [](const std::vector<Bytes>& requests) {
    const Bytes& request = requests.back();
    switch (requests.size()) {
      case 2:
        return std::vector<Answer>{Flipped(request, 2)};
      case 3:
        return std::vector<Answer>{Resized(request, 8, true)};
      case 4:
        return std::vector<Answer>{Changed(request, [](kdicmp& h) { ++h.id; })};
      case 5:
        return std::vector<Answer>{};
      default:
        return std::vector<Answer>{
            {Reply(request), PeerNetwork::kPeer, {}, static_cast<int>(50 + requests.size())}};
    }
  });
  ASSERT_OK(Ping(PeerNetwork::kPeer, 56, 6, 1));
  EXPECT_EQ(result.buffersSent, 6u);
  EXPECT_THAT(Counters(), testing::ElementsAre(2, 1, 1, 1, 1));
  std::vector<KD_PING_STATE> states;
  std::vector<unsigned> timesToLive;
  for (const ZuPingResponse& response : recorder.responses) {
    states.push_back(response.currentPingState);
    timesToLive.push_back(response.ttl);
    EXPECT_EQ(response.sizeSent, 56u);
  }
  EXPECT_THAT(states, testing::ElementsAre(ZUPING_STATE_SUCCESS, ZUPING_STATE_BADCHECKSUM,
                                           ZUPING_STATE_DATALOSS, ZUPING_STATE_ANONYMOUS,
                                           ZUPING_STATE_TIMEOUT, ZUPING_STATE_SUCCESS));
  EXPECT_THAT(timesToLive, testing::ElementsAre(51, 51, 51, 51, 51, 56));
}

// A receive leaves its sender in the socket, whoever that is.
TEST_F(ZuPingNetwork, NextRequestGoesToTheSenderOfTheLastReply) {
  Responder peer(*network, [](const std::vector<Bytes>& requests) {
    return std::vector<Answer>{{Reply(requests.back()), PeerNetwork::kPeersSecond}};
  });
  ASSERT_OK(Ping(PeerNetwork::kPeer, 56, 2));
  const std::vector<Bytes>& packets = peer.Stop();
  ASSERT_EQ(packets.size(), 2u);
  std::vector<std::uint32_t> targets;
  for (const Bytes& packet : packets) {
    kdIPhdr ip{};
    std::memcpy(&ip, packet.data(), sizeof ip);
    targets.push_back(ip.iacst);
  }
  EXPECT_THAT(targets, testing::ElementsAre(inet_addr(PeerNetwork::kPeer),
                                            inet_addr(PeerNetwork::kPeersSecond)));
  EXPECT_EQ(recorder.responses[1].serverIP, PeerNetwork::kPeer);
}

// There a raw socket hears the request too, and hears it first.
TEST_F(ZuPingNetwork, LoopbackReturnsTheRequestBeforeTheReply) {
  ASSERT_OK(Ping("localhost", 56, 2));
  EXPECT_EQ(result.serverName, "localhost");
  EXPECT_EQ(result.serverIP, "127.0.0.1");
  EXPECT_THAT(Counters(), testing::ElementsAre(1, 0, 0, 0, 1));
  EXPECT_EQ(recorder.responses[0].currentPingState, ZUPING_STATE_ANONYMOUS);
  EXPECT_EQ(recorder.responses[1].currentPingState, ZUPING_STATE_SUCCESS);
  EXPECT_EQ(recorder.responses[1].serverName, "localhost");
}

// ---- The series ----

TEST_F(ZuPingNetwork, CallbackStopsTheSeries) {
  Responder peer(*network, AnswerWell);
  recorder.stopAfter = 1;
  ASSERT_OK(Ping(PeerNetwork::kPeer, 56, 3));
  EXPECT_EQ(result.buffersSent, 1u);
  EXPECT_THAT(recorder.lastPackets, testing::ElementsAre(false));
  EXPECT_EQ(peer.Stop().size(), 1u);
  EXPECT_EQ(gSleeps, 1);
}

TEST_F(ZuPingNetwork, SeriesNeedsNoCallback) {
  ASSERT_OK(probe.ping(PeerNetwork::kPeer, 1, 2, 5, nullptr, nullptr, result, false));
  EXPECT_EQ(result.buffersSent, 2u);
  EXPECT_THAT(Counters(), testing::ElementsAre(2, 0, 0, 0, 0));
}

TEST_F(ZuPingNetwork, SeriesWithoutTimeOutWaits) {
  ASSERT_OK(Ping(PeerNetwork::kPeer, 56, 2, 0));
  EXPECT_THAT(Counters(), testing::ElementsAre(2, 0, 0, 0, 0));
}

TEST_F(ZuPingNetwork, EveryRequestIsPrecededByASecondOfSleep) {
  ZuSetSleepCallBack(OnSleep);
  ASSERT_OK(Ping(PeerNetwork::kPeer, 56, 2));
  ZuSetSleepCallBack(nullptr);
  EXPECT_THAT(gSleepsTold, testing::ElementsAre("1000 ms in ZuPing.cpp, 0 sent",
                                                "1000 ms in ZuPing.cpp, 1 sent"));
  EXPECT_EQ(gSleeps, 2);
}

TEST_F(ZuPingNetwork, CountersGoOnFromWhereTheyStand) {
  Responder peer(*network, AnswerWell);
  result.buffersSent = 65'534;
  result.buffersReceived = 10;
  result.totalTimeMS = 1'000'000;
  ASSERT_OK(Ping(PeerNetwork::kPeer, 56, 3));
  EXPECT_EQ(result.buffersSent, 65'537u);
  EXPECT_EQ(result.buffersReceived, 13u);
  EXPECT_GE(result.totalTimeMS, 1'000'000u);
  std::vector<unsigned> sequence;
  for (const Bytes& packet : peer.Stop()) {
    sequence.push_back(HeaderOf(Bytes(packet.begin() + kIpHeader, packet.end())).seq);
  }
  EXPECT_THAT(sequence, testing::ElementsAre(65'534, 65'535, 0));
  EXPECT_THAT(recorder.lastPackets, testing::Each(false));
  EXPECT_EQ(recorder.responses.back().currentPingSequenceNumber, 65'537u);
}

TEST_F(ZuPingNetwork, SecondSeriesNeedsTheSocketClosedAndKeepsTheBuffers) {
  Responder peer(*network, AnswerWell);
  ASSERT_OK(Ping(PeerNetwork::kPeer, 56));
  EXPECT_NE(probe.m_sockPing.GetDescriptor(), -1);
  EXPECT_FAILS(Ping(PeerNetwork::kPeer, 56), Win32Code(774), "Socket already in use");
  EXPECT_EQ(result.buffersSent, 1u);
  ASSERT_OK(probe.closePingSocket());
  ASSERT_OK(Ping(PeerNetwork::kPeer, 1000));
  EXPECT_EQ(recorder.responses.back().sizeSent, 1000u);  // as asked for, not as sent
  ASSERT_OK(probe.closePingSocket());
  ASSERT_OK(probe.unprepareBuffer());
  ASSERT_OK(Ping(PeerNetwork::kPeer, 1000));
  EXPECT_EQ(result.buffersReceived, 3u);
  std::vector<std::size_t> sizes;
  for (const Bytes& packet : peer.Stop()) sizes.push_back(packet.size() - kIpHeader);
  EXPECT_THAT(sizes, testing::ElementsAre(64, 64, 1008));
}

TEST_F(ZuPingNetwork, SizesReachAsFarAsAPacket) {
  for (const unsigned size : {1u, 1472u, 1473u, 65'507u}) {
    SCOPED_TRACE(size);
    ASSERT_OK(probe.unprepareBuffer());
    ASSERT_OK(Ping(PeerNetwork::kPeer, size));
    EXPECT_EQ(recorder.responses.back().currentPingState, ZUPING_STATE_SUCCESS);
    EXPECT_EQ(recorder.responses.back().sizeSent, size);
    ASSERT_OK(probe.closePingSocket());
  }
  for (const unsigned size : {65'508u, 70'000u, 300'000u}) {
    SCOPED_TRACE(size);
    result = ZuPingResult();
    ASSERT_OK(probe.unprepareBuffer());
    EXPECT_TRUE(HasMessages(Ping(PeerNetwork::kPeer, size), ErrNoCode(EMSGSIZE),
                            {"Sending ping request failed", "Sending ping request failed"}));
    EXPECT_EQ(result.buffersSent, 0u);
    ASSERT_OK(probe.closePingSocket());
  }
}

// ---- Failures on the way ----

TEST_F(ZuPingNetwork, UnreachableNetworkEndsTheSeries) {
  EXPECT_TRUE(HasMessages(Ping(PeerNetwork::kElsewhere, 56, 3), ErrNoCode(ENETUNREACH),
                          {"SendtoICMPSocket", "Sending ping request failed", "CZuPing::ping",
                           "Sending ping request failed"}));
  EXPECT_EQ(result.buffersSent, 0u);
  EXPECT_TRUE(recorder.responses.empty());
}

TEST_F(ZuPingNetwork, AddressOfTheOtherFamilyIsNotSentTo) {
  EXPECT_TRUE(HasMessages(Ping("::1"), ErrNoCode(EAFNOSUPPORT), {"Sending ping request failed"}));
  EXPECT_EQ(result.serverIP, "::1");
}

// A raw IPv6 socket knows no option of IPv4, unlike a UDP or TCP one.
TEST_F(ZuPingNetwork, SocketOfTheOtherFamilyTakesNoTimeToLive) {
  if (access("/proc/net/if_inet6", F_OK) != 0) GTEST_SKIP() << "no IPv6 here";
  probe.m_serverName = "before";
  probe.m_serverIP = "before";
  EXPECT_TRUE(HasMessages(probe.preparePingSocket("::1", 1, true), ErrNoCode(ENOPROTOOPT),
                          {"SetSockOpt", "Protocol not available", "CZuPing::preparePingSocket",
                           "Setting socket-TTL failed. [::1]"}));
  EXPECT_STREQ(probe.m_serverIP.c_str(), "::1");
  EXPECT_STREQ(probe.m_serverName.c_str(), "before");
  ASSERT_NE(probe.m_sockPing.GetDescriptor(), -1) << "no failure closes the socket";
  int family = -1;
  socklen_t size = sizeof family;
  ASSERT_EQ(getsockopt(probe.m_sockPing.GetDescriptor(), SOL_SOCKET, SO_DOMAIN, &family, &size), 0);
  EXPECT_EQ(family, AF_INET6);
}

TEST_F(ZuPingNetwork, FailedReceiveEndsTheSeries) {
  gFaults.ofRecvfrom = ENETDOWN;
  EXPECT_TRUE(HasMessages(
      Ping(PeerNetwork::kPeer, 56, 3), ErrNoCode(ENETDOWN),
      {"RecvfromICMPSocket", "Failed to receive ping request", "Receiving ping reply failed"}));
  EXPECT_EQ(result.buffersSent, 1u);
  EXPECT_THAT(Counters(), testing::Each(0u));
  EXPECT_TRUE(recorder.responses.empty());
}

std::int64_t MillisecondsNow() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec * 1000 + now.tv_nsec / 1'000'000;
}

// No time stands for the end: what is left is the start, with the sign turned.
TEST_F(ZuPingNetwork, SendTimeOutWrapsTheTime) {
  const std::int64_t before = MillisecondsNow();
  gFaults.isNeverReady = true;
  ASSERT_OK(Ping(PeerNetwork::kPeer, 56, 1, 3));
  gFaults = Faults();
  const std::int64_t after = MillisecondsNow();
  EXPECT_EQ(result.buffersSent, 1u);
  EXPECT_EQ(Counters(), One(ZUPING_STATE_TIMEOUT));
  ASSERT_EQ(recorder.responses.size(), 1u);
  EXPECT_EQ(recorder.responses[0].currentPingState, ZUPING_STATE_TIMEOUT);
  const auto time = static_cast<std::int64_t>(recorder.responses[0].currentPingtimeMS);
  EXPECT_LE(time, -before);
  EXPECT_GE(time, -after - 1);
  EXPECT_EQ(result.totalTimeMS, recorder.responses[0].currentPingtimeMS);
}

constexpr std::int64_t kSecond = 10'000'000;  // in ticks of 100 ns
constexpr std::int64_t kNow = 1'700'000'000 * kSecond;

// Lets the second request of a series wait in vain to be sent.
struct JammingRecorder : PingRecorder {
  bool OnPingResponse(void* callbackInstance, const ZuPingResponse& response,
                      bool lastPacket) override {
    gFaults.isNeverReady = response.currentPingSequenceNumber == 1;
    return PingRecorder::OnPingResponse(callbackInstance, response, lastPacket);
  }
};

TEST_F(ZuPingNetwork, SendTimeOutAmongAnsweredRequestsKeepsWhatTheLastReplySet) {
  Responder peer(*network, [](const std::vector<Bytes>& requests) {
    return std::vector<Answer>{
        {Reply(requests.back()), PeerNetwork::kPeer, {}, static_cast<int>(50 + requests.size())}};
  });
  JammingRecorder jamming;
  gClock = {kNow, kNow + 10'000,  // sent and answered
            kNow + kSecond,       // never sent
            kNow + 5 * kSecond, kNow + 5 * kSecond + 30'000};
  ASSERT_OK(probe.ping(PeerNetwork::kPeer, 56, 3, 3, this, &jamming, result, false));
  EXPECT_TRUE(gClock.empty());
  EXPECT_GT(gFaults.passed, 0) << "it did not wait to send";
  EXPECT_EQ(result.buffersSent, 3u);
  EXPECT_THAT(Counters(), testing::ElementsAre(2, 1, 0, 0, 0));
  EXPECT_EQ(gSleeps, 3);
  ASSERT_EQ(jamming.responses.size(), 3u);
  EXPECT_THAT(jamming.lastPackets, testing::ElementsAre(false, false, true));

  const KD_PING_STATE states[] = {ZUPING_STATE_SUCCESS, ZUPING_STATE_TIMEOUT, ZUPING_STATE_SUCCESS};
  const unsigned timesToLive[] = {51, 51, 52};
  const std::int64_t milliseconds[] = {1, -1'700'000'001'000, 3};
  std::uint64_t total = 0;
  for (unsigned i = 0; i < 3; ++i) {
    SCOPED_TRACE(i);
    const ZuPingResponse& response = jamming.responses[i];
    EXPECT_EQ(response.currentPingState, states[i]);
    EXPECT_EQ(response.sizeSent, 56u);
    EXPECT_EQ(response.ttl, timesToLive[i]);
    EXPECT_EQ(response.currentPingSequenceNumber, i + 1);
    EXPECT_EQ(response.totalBufferCount, 3u);
    EXPECT_EQ(response.serverIP, PeerNetwork::kPeer);
    EXPECT_EQ(response.currentPingtimeMS, static_cast<std::uint64_t>(milliseconds[i]));
    total += response.currentPingtimeMS;
  }
  EXPECT_EQ(result.totalTimeMS, total);

  std::vector<unsigned> sequence;
  for (const Bytes& packet : peer.Stop()) {
    sequence.push_back(HeaderOf(Bytes(packet.begin() + kIpHeader, packet.end())).seq);
  }
  EXPECT_THAT(sequence, testing::ElementsAre(0, 2)) << "the lost request counts, unsent";
}

struct Times {
  std::int64_t start;  // ticks of 100 ns since 1970
  std::int64_t end;
  std::int64_t milliseconds;
};

constexpr Times kTimes[] = {
    {kNow, kNow, 0},
    {kNow, kNow + 9'000, 0},
    {kNow, kNow + 10'000, 1},
    {kNow, kNow + 29'000, 2},
    {kNow, kNow + 29'999, 3},  // as far as a double tells times of today apart
    {kNow + kSecond - 5'000, kNow + kSecond + 5'000, 1},
    {kNow + kSecond - 5'000, kNow + kSecond + 4'000, 0},
    {kNow, kNow + 3 * kSecond, 3000},
    {kNow + 10'000, kNow, -1},  // the clock was set back
    {kNow + 9'000, kNow, 0},
    {kNow, kNow - 2 * kSecond, -2000},
    {kNow, 0, -1'700'000'000'000},
};

TEST_F(ZuPingNetwork, TimesAreWholeMillisecondsOfTheWallClock) {
  std::uint64_t total = 0;
  for (const Times& times : kTimes) {
    SCOPED_TRACE(times.end - times.start);
    gClock = {times.start, times.end};
    ASSERT_OK(Ping(PeerNetwork::kPeer));
    EXPECT_TRUE(gClock.empty());
    ASSERT_OK(probe.closePingSocket());
    const auto expected = static_cast<std::uint64_t>(times.milliseconds);
    EXPECT_EQ(recorder.responses.back().currentPingtimeMS, expected);
    total += expected;
    EXPECT_EQ(result.totalTimeMS, total);
  }
}

}  // namespace

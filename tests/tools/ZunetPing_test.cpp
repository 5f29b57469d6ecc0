#include <gmock/gmock.h>
#include <signal.h>

#include <atomic>
#include <chrono>

#include "support/PeerNetwork.h"
#include "support/PingPeer.h"
#include "tools/ZunetRun.h"

namespace {

using namespace std::chrono_literals;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

class ZunetPing : public testing::Test {
 protected:
  void SetUp() override { MakeNetwork(network); }

  TempDir folder;
  std::optional<PeerNetwork> network;
};

TEST_F(ZunetPing, RepliesAreListedAndSummedUp) {
  const ZunetRun run(folder, "ping", "ping 10.77.0.2 -c 2");
  EXPECT_EQ(run.Wait(), 0);
  EXPECT_THAT(run.Output(),
              testing::MatchesRegex("56 bytes from 10.77.0.2: seq=1 ttl=64 time=[0-9]+ ms\n"
                                    "56 bytes from 10.77.0.2: seq=2 ttl=64 time=[0-9]+ ms\n"
                                    "2 sent, 2 received, 0% lost\n"
                                    "time min/avg/max = [0-9]+/[0-9.]+/[0-9]+ ms\n"));
  EXPECT_EQ(run.Errors(), "");
}

TEST_F(ZunetPing, FourRequestsOf56BytesAreTheDefault) {
  Responder peer(*network, [](const std::vector<Bytes>& requests) {
    const Bytes& request = requests.back();
    Bytes reply = Reply(request);
    if (requests.size() == 2) reply[3] = static_cast<unsigned char>(reply[3] ^ 1u);  // checksum
    if (requests.size() == 3) reply.resize(20);
    if (requests.size() == 4) reply[0] = 8;
    return std::vector<Answer>{{reply}};
  });
  const ZunetRun run(folder, "ping", "ping 10.77.0.2");
  EXPECT_EQ(run.Wait(), 0);
  EXPECT_THAT(run.Output(),
              testing::MatchesRegex("56 bytes from 10.77.0.2: seq=1 ttl=64 time=[0-9]+ ms\n"
                                    "damaged reply from 10.77.0.2: seq=2\n"
                                    "short reply from 10.77.0.2: seq=3\n"
                                    "no reply from 10.77.0.2: seq=4\n"
                                    "4 sent, 1 received, 75% lost\n"
                                    "time min/avg/max = [0-9]+/[0-9.]+/[0-9]+ ms\n"));
  const std::vector<Bytes>& packets = peer.Stop();
  ASSERT_EQ(packets.size(), 4u);
  for (const Bytes& packet : packets) EXPECT_EQ(packet.size(), kIpHeader + 8 + 56);
}

// Adds the network of kElsewhere behind the peer, which does not know it either.
void RouteToNowhere(const PeerNetwork& network) {
  PeerNetwork::Ip("route add 10.78.0.0/16 via 10.77.0.2");
  network.InPeer([] { PeerNetwork::SetSystemValue("ipv4/ip_forward", "1"); });
}

TEST_F(ZunetPing, HostThatARouterDoesNotReachIsNotAlive) {
  RouteToNowhere(*network);
  const ZunetRun run(folder, "ping", "ping 10.78.0.1 -c 3");
  EXPECT_EQ(run.Wait(), 1);
  EXPECT_EQ(run.Output(),
            "Destination network unreachable, says 10.77.0.2: seq=1\n"
            "Destination network unreachable, says 10.77.0.2: seq=2\n"
            "Destination network unreachable, says 10.77.0.2: seq=3\n"
            "3 sent, 0 received, 100% lost\n");
}

TEST_F(ZunetPing, SeriesAtTheSameTimeLoseNothing) {
  for (const char* const host : {"10.77.0.2", "127.0.0.1"}) {
    SCOPED_TRACE(host);
    const std::string arguments = std::string("ping -c 3 ") + host;
    const ZunetRun first(folder, "first", arguments);
    const ZunetRun second(folder, "second", arguments);
    EXPECT_EQ(first.Wait(), 0);
    EXPECT_EQ(second.Wait(), 0);
    EXPECT_THAT(first.Output(), HasSubstr("\n3 sent, 3 received, 0% lost\n"));
    EXPECT_THAT(second.Output(), HasSubstr("\n3 sent, 3 received, 0% lost\n"));
  }
}

TEST_F(ZunetPing, SmallestAndLargestPacketsArrive) {
  for (const char* const size : {"1", "65507"}) {
    for (const char* const host : {"10.77.0.2", "127.0.0.1"}) {
      SCOPED_TRACE(std::string(size) + " to " + host);
      const ZunetRun run(folder, "ping", std::string("ping -c 1 -s ") + size + " " + host);
      EXPECT_EQ(run.Wait(), 0);
      EXPECT_THAT(run.Output(), HasSubstr(std::string(size) + " bytes from " + host));
    }
  }
}

TEST_F(ZunetPing, SystemsPingFindsTheSame) {
  RouteToNowhere(*network);
  for (const char* const host : {"10.77.0.2", "127.0.0.1", "10.78.0.1", "10.77.0.9"}) {
    SCOPED_TRACE(host);
    const ZunetRun own(folder, "own", std::string("ping -c 2 -W 1 ") + host);
    const Process system({"ping", "-c", "2", "-W", "1", host}, folder / "system");
    ASSERT_TRUE(system.WaitForEnd(30s));
    EXPECT_EQ(own.Wait(), system.ExitStatus());
    const bool isAlive = system.ExitStatus() == 0;
    EXPECT_THAT(ReadFile(folder / "system"), HasSubstr(isAlive ? " 2 received" : " 0 received"));
    EXPECT_THAT(own.Output(), HasSubstr(isAlive ? " 2 received" : " 0 received"));
  }
}

TEST_F(ZunetPing, SizeAndTimeOutAreTaken) {
  Responder peer(*network, AnswerNothing);
  const auto start = std::chrono::steady_clock::now();
  const ZunetRun run(folder, "ping", "ping 10.77.0.2 -c 1 -s 1000 -W 1");
  EXPECT_EQ(run.Wait(), 1);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 20s);
  EXPECT_EQ(run.Output(),
            "no reply from 10.77.0.2: seq=1\n"
            "1 sent, 0 received, 100% lost\n");
  ASSERT_EQ(peer.Stop().size(), 1u);
  EXPECT_EQ(peer.Stop()[0].size(), kIpHeader + 8 + 1000);
}

TEST_F(ZunetPing, FailuresAreReported) {
  const std::pair<const char*, const char*> failures[] = {
      {"ping 10.78.0.1 -c 1", "Failed to ping 10.78.0.1: .*Network is unreachable"},
      {"ping absent.invalid", "Failed to ping absent.invalid: "},
      {"ping 127.0.53.53", "DNS name collision occured"},
  };
  for (const auto& [arguments, message] : failures) {
    SCOPED_TRACE(arguments);
    const ZunetRun run(folder, "ping", arguments);
    EXPECT_EQ(run.Wait(), 2);
    EXPECT_THAT(run.Errors(), ContainsRegex(message));
    EXPECT_EQ(run.Output(), "");
  }
}

TEST_F(ZunetPing, FailureOnTheWayIsReportedAfterTheSummary) {
  const ZunetRun run(folder, "ping", "ping 10.77.0.2 -c 100");
  run.WaitForOutput("seq=1");
  PeerNetwork::Ip("link set own down");
  EXPECT_EQ(run.Wait(), 2);
  EXPECT_THAT(run.Output(), HasSubstr(" received, 0% lost\n"));
  EXPECT_THAT(run.Errors(), HasSubstr("Network is unreachable"));
}

TEST_F(ZunetPing, OutputThatFailsEndsTheSeries) {
  for (const char* const output : {" >/dev/full", " >&-"}) {
    SCOPED_TRACE(output);
    const ZunetRun run(folder, "ping", std::string("ping 10.77.0.2 -c 100") + output);
    EXPECT_EQ(run.Wait(10s), 2);
    EXPECT_THAT(run.Errors(), HasSubstr("zunet: Failed to write standard output: "));
  }
}

TEST_F(ZunetPing, NumbersOutOfRangeAreRefusedInWords) {
  const std::pair<const char*, const char*> words[] = {
      {"ping", "HOST is required"},
      {"ping 10.77.0.2 -c x", "takes 1 to 4294967295 requests, not x"},
      {"ping 10.77.0.2 -c 0", "takes 1 to 4294967295 requests, not 0"},
      {"ping 10.77.0.2 -s -1", "takes 1 to 65507 bytes, not -1"},
      {"ping 10.77.0.2 -s 0", "takes 1 to 65507 bytes, not 0"},
      {"ping 10.77.0.2 -s 65508", "takes 1 to 65507 bytes, not 65508"},
      {"ping 10.77.0.2 -s 4294967297", "takes 1 to 65507 bytes, not 4294967297"},
      {"ping 10.77.0.2 -W 0x1", "takes 0 to 1000000 seconds, not 0x1"},
  };
  for (const auto& [arguments, message] : words) {
    SCOPED_TRACE(arguments);
    const ZunetRun run(folder, "ping", arguments);
    EXPECT_GT(run.Wait(), 100);
    EXPECT_THAT(run.Errors(), HasSubstr(message));
    EXPECT_EQ(run.Output(), "");
  }
}

TEST_F(ZunetPing, InterruptEndsWithTheSummary) {
  const ZunetRun run(folder, "ping", "ping 10.77.0.2 -c 100");
  EXPECT_THAT(run.WaitForOutput("seq=1"), HasSubstr("seq=1"));
  kill(run.Program().Id(), SIGINT);
  EXPECT_EQ(run.Wait(10s), 130);
  EXPECT_THAT(run.Output(), HasSubstr(" sent, "));
  EXPECT_THAT(run.Output(), HasSubstr(" 0% lost\ntime min/avg/max = "));
  EXPECT_THAT(run.Output(), Not(HasSubstr("seq=50")));
}

// Answers the first requests and counts all; the rest is silence.
class SilentPeer {
 public:
  SilentPeer(const PeerNetwork& network, unsigned answered)
      : m_responder(network, [this, answered](const std::vector<Bytes>& requests) {
          m_requests = static_cast<unsigned>(requests.size());
          return requests.size() <= answered ? AnswerWell(requests) : std::vector<Answer>{};
        }) {}

  bool WaitForRequest(unsigned number) const {
    for (int i = 0; i < 2000 && m_requests < number; ++i) std::this_thread::sleep_for(5ms);
    return m_requests >= number;
  }

 private:
  std::atomic<unsigned> m_requests{0};
  Responder m_responder;
};

TEST_F(ZunetPing, SignalDoesNotWaitForAReply) {
  const SilentPeer peer(*network, 1);
  const ZunetRun run(folder, "ping", "ping 10.77.0.2 -c 3 -W 600");
  ASSERT_TRUE(peer.WaitForRequest(2));
  kill(run.Program().Id(), SIGTERM);
  EXPECT_EQ(run.Wait(10s), 143);
  EXPECT_THAT(run.Output(), HasSubstr("\n1 sent, 1 received, 0% lost\n"));
}

TEST_F(ZunetPing, HangUpBeforeAnyReplyEndsWithTheSummaryToo) {
  const SilentPeer peer(*network, 0);
  const ZunetRun run(folder, "ping", "ping 10.77.0.2 -W 600");
  ASSERT_TRUE(peer.WaitForRequest(1));
  kill(run.Program().Id(), SIGHUP);
  EXPECT_EQ(run.Wait(10s), 129);
  EXPECT_EQ(run.Output(), "0 sent, 0 received, 0% lost\n");
}

}  // namespace

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <thread>

#include "ZuNetwork/KdErrorItem_KdCURL.h"
#include "servers/TestRequest.h"
#include "support/Process.h"
#include "support/RawServer.h"

using testing::HasSubstr;
using namespace std::chrono_literals;

namespace {

constexpr char kGoodReply[] = "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\ngood";
constexpr double kUntouched = -7.0;

// Listens, accepts nothing and holds as many connections as the system keeps for it, so that a
// further one gets no answer.
class FullServer {
 public:
  FullServer() {
    m_address.sin_family = AF_INET;
    m_address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof m_address;
    auto* const generic = reinterpret_cast<sockaddr*>(&m_address);
    EXPECT_EQ(bind(m_listener, generic, size), 0);
    EXPECT_EQ(getsockname(m_listener, generic, &size), 0);
    EXPECT_EQ(listen(m_listener, 0), 0);
    for (int& client : m_clients) {
      client = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
      (void)connect(client, generic, size);  // the later ones never get through
    }
  }
  ~FullServer() {
    for (const int client : m_clients) close(client);
    close(m_listener);
  }
  FullServer(const FullServer&) = delete;
  FullServer& operator=(const FullServer&) = delete;

  int Port() const { return ntohs(m_address.sin_port); }

 private:
  sockaddr_in m_address{};
  int m_listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  std::array<int, 4> m_clients;
};

// One second is what the time limits of these tests allow.
class Stopwatch {
 public:
  ~Stopwatch() {
    const auto passed = std::chrono::steady_clock::now() - m_start;
    EXPECT_GE(passed, 900ms);
    EXPECT_LT(passed, 5s);
  }

 private:
  std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
};

}  // namespace

TEST(HttpFailure, NoServerIsReportedWithLibcurlsText) {
  TestRequest request(FreePort());
  EXPECT_FAILS(request.Get("/"), TransferCode(CURLE_COULDNT_CONNECT),
               "CURL perform failed.Curl ErrorCode : [7], Error Message : [Failed to connect to");
  int code = 0;
  std::string text;
  request.getLastCurlErrorCodeAndErrorMsg(code, text);
  EXPECT_EQ(code, CURLE_COULDNT_CONNECT);
  EXPECT_THAT(text, HasSubstr("Failed to connect to 127.0.0.1"));
  EXPECT_EQ(request.ResponseCode(), 0);
}

TEST(HttpFailure, UnknownHostIsReported) {
  TestRequest request(80);
  request.setURL("nowhere.invalid");
  EXPECT_FAILS(request.Get("/"), TransferCode(CURLE_COULDNT_RESOLVE_HOST), "nowhere.invalid");
}

TEST(HttpFailure, ServerThatClosesInMidBody) {
  const struct {
    const char* reply;
    const char* received;
  } cases[] = {
      {"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhalf", "half"},
      {"HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\n", ""},
      {"HTTP/1.1 200 OK\r\nContent-Length: 9223372036854775807\r\n\r\nhalf", "half"},
      {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n4\r\nhalf\r\n", "half"},
  };
  for (const auto& [reply, received] : cases) {
    SCOPED_TRACE(reply);
    RawServer server({RawServer::Answer(reply)});
    TestRequest request(server.Port());
    EXPECT_FAILS(request.Get("/"), TransferCode(CURLE_PARTIAL_FILE), "ErrorCode : [18]");
    EXPECT_EQ(request.body.text, received);
  }
}

TEST(HttpFailure, ServerThatClosesWithoutAnAnswer) {
  RawServer server({RawServer::Answer("")});
  TestRequest request(server.Port());
  EXPECT_FAILS(request.Get("/"), TransferCode(CURLE_GOT_NOTHING), "ErrorCode : [52]");
}

TEST(HttpFailure, ServerThatResetsTheConnection) {
  for (const char* const reply : {"", "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhalf"}) {
    SCOPED_TRACE(reply);
    RawServer server({[reply](Peer& peer) {
      peer.ReadHttpRequest();
      peer.Send(reply);
      peer.Reset();
    }});
    TestRequest request(server.Port());
    EXPECT_FAILS(request.Get("/"), TransferCode(CURLE_RECV_ERROR), "ErrorCode : [56]");
  }
}

TEST(HttpFailure, TimeOutEndsTheWaitForAnAnswer) {
  RawServer server({[](Peer& peer) { peer.WaitForClose(); }});
  TestRequest request(server.Port());
  ASSERT_OK(request.SetTimeOut(1));
  const Stopwatch aboutASecond;
  EXPECT_FAILS(request.Get("/"), TransferCode(CURLE_OPERATION_TIMEDOUT), "ErrorCode : [28]");
}

TEST(HttpFailure, TimeOutEndsAnEndlessBody) {
  RawServer server({[](Peer& peer) {
    peer.ReadHttpRequest();
    peer.Send("HTTP/1.1 200 OK\r\nContent-Length: 9223372036854775807\r\n\r\n");
    for (int i = 0; i < 100 && peer.Send("x"); ++i) std::this_thread::sleep_for(50ms);
  }});
  TestRequest request(server.Port());
  ASSERT_OK(request.SetTimeOut(1));
  const Stopwatch aboutASecond;
  EXPECT_FAILS(request.Get("/"), TransferCode(CURLE_OPERATION_TIMEDOUT), "ErrorCode : [28]");
  EXPECT_EQ(request.body.text.substr(0, 2), "xx");
}

TEST(HttpFailure, ConnectionTimeOutEndsTheWaitForAConnection) {
  const FullServer server;
  TestRequest request(server.Port());
  ASSERT_OK(request.SetConnectionTimeOut(1));
  const Stopwatch aboutASecond;
  EXPECT_FAILS(request.Get("/"), TransferCode(CURLE_OPERATION_TIMEDOUT), "ErrorCode : [28]");
}

TEST(HttpFailure, ConnectionTimeOutDoesNotLimitTheTransfer) {
  RawServer server({[](Peer& peer) {
    peer.ReadHttpRequest();
    std::this_thread::sleep_for(1500ms);
    peer.Send(kGoodReply);
  }});
  TestRequest request(server.Port());
  ASSERT_OK(request.SetConnectionTimeOut(1));
  ASSERT_OK(request.Get("/"));
  EXPECT_EQ(request.body.text, "good");
}

TEST(HttpFailure, MalformedRepliesAreErrors) {
  const std::string cases[] = {
      "\r\n",
      "garbage\r\n\r\n",
      std::string("\0\0\0\0\0\0\0\0", 8),
      "HTTP/1.1 abc\r\n\r\n",
      "HTTP/1.1 20\r\n\r\n",
      "HTTP/1.1 2000 OK\r\n\r\n",
      "HTTP/7.3 200 OK\r\n\r\n",
      "HTTP/1.1 200 OK\r\nContent-Length: -5\r\n\r\n",
      "HTTP/1.1 200 OK\r\nContent-Length: many\r\n\r\n",
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\nhalf\r\n",
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nfffffffffffffffff\r\nhalf\r\n",
      std::string("HTTP/1.1 200 OK\r\nX-A: a\0b\r\nContent-Length: 0\r\n\r\n", 48),
      "HTTP/1.1 200 OK\r\nX-A: " + std::string(1 << 20, 'x') + "\r\nContent-Length: 0\r\n\r\n",
      "HTTP/1.1 302 Moved\r\nLocation: gopher://127.0.0.1/\r\nContent-Length: 0\r\n\r\n",
      "HTTP/1.1 302 Moved\r\nLocation: file:///etc/hostname\r\nContent-Length: 0\r\n\r\n",
      "HTTP/1.1 302 Moved\r\nLocation: http://[\r\nContent-Length: 0\r\n\r\n",
  };
  for (const std::string& reply : cases) {
    SCOPED_TRACE(testing::PrintToString(reply.substr(0, 100)));
    RawServer server({RawServer::Answer(reply), RawServer::Answer(kGoodReply)});
    TestRequest request(server.Port());
    EXPECT_GT(KdCURL::GetKdCURL(request.Get("/")), 0);
    EXPECT_EQ(request.body.text.find("half"), std::string::npos);
    EXPECT_OK(request.Get("/"));
    EXPECT_EQ(request.body.text, "good") << "the object can be used on";
  }
}

TEST(HttpFailure, ReplyThatGoesBeyondItsLengthIsCut) {
  RawServer server({RawServer::Answer("HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\ngoodbye"),
                    RawServer::Answer(kGoodReply)});
  TestRequest request(server.Port());
  for (int i = 0; i < 2; ++i) {
    ASSERT_OK(request.Get("/"));
    EXPECT_EQ(request.body.text, "good");
  }
}

TEST(HttpFailure, FileInfoOfTheLargestLengthIsTold) {
  RawServer server(
      {RawServer::Answer("HTTP/1.1 200 OK\r\nContent-Length: 9223372036854775807\r\n\r\n")});
  TestRequest request(server.Port());
  double told = kUntouched;
  ASSERT_OK(request.getFileInfo("/", told));
  EXPECT_EQ(told, 9223372036854775808.0) << "the nearest double";
}

TEST(HttpFailure, FileInfoOfAnImpossibleLengthFails) {
  for (const char* const length : {"9223372036854775808", "99999999999999999999", "-1", "many"}) {
    SCOPED_TRACE(length);
    RawServer server({RawServer::Answer(std::string("HTTP/1.1 200 OK\r\nContent-Length: ") +
                                        length + "\r\n\r\n")});
    TestRequest request(server.Port());
    double told = kUntouched;
    EXPECT_TRUE(Failed(request.getFileInfo("/", told)));
    EXPECT_EQ(told, kUntouched);
  }
}

TEST(HttpFailure, ServerThatStopsReadingAnUpload) {
  const std::string large(size_t{8} << 20, 'x');
  RawServer server({[](Peer& peer) {
                      peer.ReadUntil("\r\n\r\n");
                      peer.WaitForClose();
                    },
                    [](Peer& peer) {
                      peer.ReadUntil("\r\n\r\n");
                      peer.Reset();
                    }});
  TestRequest request(server.Port());
  ASSERT_OK(request.SetTimeOut(2));
  EXPECT_FAILS(request.Collect().doPutOperation("/", large.data(), 8 << 20, {}),
               TransferCode(CURLE_OPERATION_TIMEDOUT), "ErrorCode : [28]");
  EXPECT_GT(KdCURL::GetKdCURL(request.Collect().doPutOperation("/", large.data(), 8 << 20, {})), 0);
}

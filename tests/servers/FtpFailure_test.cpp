#include <gmock/gmock.h>

#include <chrono>
#include <functional>
#include <future>
#include <map>

#include "servers/FileRequest.h"
#include "support/RawServer.h"
#include "support/Servers.h"

using testing::AnyOf;

namespace {

using Clock = std::chrono::steady_clock;

std::string Passive(int port) {
  return "227 Entering Passive Mode (127,0,0,1," + std::to_string(port / 256) + "," +
         std::to_string(port % 256) + ")\r\n";
}

// A control connection that knows these commands, by their first word. It ends behind an answer
// without a line end.
RawServer::Script Control(
    std::map<std::string, std::string> answers,
    const std::function<void(const std::string& command)>& onCommand = [](const std::string&) {}) {
  answers.insert({{"USER", "331 password\r\n"},
                  {"PASS", "230 in\r\n"},
                  {"PWD", "257 \"/\"\r\n"},
                  {"TYPE", "200 binary\r\n"},
                  {"CWD", "250 there\r\n"}});
  return [answers, onCommand](Peer& peer) {
    peer.Send("220 ready\r\n");
    for (std::string line; !(line = peer.ReadUntil("\r\n")).empty();) {
      const std::string command = line.substr(0, line.find_first_of(" \r"));
      onCommand(command);
      const auto answer = answers.find(command);
      if (answer == answers.end()) {
        peer.Send("500 what?\r\n");
      } else if (!peer.Send(answer->second) || answer->second.back() != '\n') {
        return;
      }
    }
  };
}

// A data connection that sends and ends.
RawServer::Script Data(const std::string& bytes) {
  return [bytes](Peer& peer) { peer.Send(bytes); };
}

void Silence(Peer& peer) { peer.WaitForClose(); }

// The seconds until the download fails with a time-out.
double SecondsToTimeOut(FtpRequest& request) {
  const auto start = Clock::now();
  EXPECT_FAILS(request.Get("file"), TransferCode(CURLE_OPERATION_TIMEDOUT), "[28]");
  return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

TEST(FtpFailure, DataThatEndsEarlyIsAPartialFile) {
  for (const char* const last : {"426 broken\r\n", "226 done\r\n", "226 do"}) {
    SCOPED_TRACE(last);
    RawServer data({Data("0123456789")});
    RawServer server({Control({{"PASV", Passive(data.Port())},
                               {"SIZE", "213 100\r\n"},
                               {"RETR", std::string("150 coming (100 bytes)\r\n") + last}})});
    FtpRequest request(server.Port());
    ASSERT_OK(request.setDefaults());
    EXPECT_FAILS(request.Get("file"), TransferCode(CURLE_PARTIAL_FILE), "[18]");
    EXPECT_EQ(request.body.text, "0123456789");
  }
}

TEST(FtpFailure, DataThatIsBrokenOffIsAnError) {
  std::promise<void> asked;
  RawServer data({[&](Peer& peer) {
    peer.Send("0123456789");
    asked.get_future().wait_for(std::chrono::seconds(10));
    peer.Reset();
  }});
  RawServer server({Control({{"PASV", Passive(data.Port())},
                             {"SIZE", "213 100\r\n"},
                             {"RETR", "150 coming (100 bytes)\r\n426 broken\r\n"}},
                            [&](const std::string& command) {
                              if (command == "RETR") asked.set_value();
                            })});
  FtpRequest request(server.Port());
  ASSERT_OK(request.setDefaults());
  EXPECT_TRUE(Failed(request.Get("file")));
  EXPECT_THAT(request.TransferResult(), AnyOf(CURLE_PARTIAL_FILE, CURLE_RECV_ERROR));
}

TEST(FtpFailure, AnUploadThatIsBrokenOffIsAnError) {
  RawServer data({[](Peer& peer) {
    peer.Read(1000);
    peer.Reset();
  }});
  RawServer server(
      {Control({{"PASV", Passive(data.Port())}, {"STOR", "150 send it\r\n426 broken\r\n"}})});
  FtpRequest request(server.Port());
  ASSERT_OK(request.setDefaults());
  const std::string bytes(8 << 20, 'x');
  KdCURL::MemorySource source(bytes.data(), bytes.size());
  request.setReadCallBack(&source, KdCURL::MemorySource::Read);
  EXPECT_FAILS(request.uploadFile("name", "file", bytes.size(), {}), TransferCode(CURLE_SEND_ERROR),
               "[55]");
}

TEST(FtpFailure, TheControlConnectionMayEndAnywhere) {
  for (const char* const command : {"USER", "PASS", "PWD", "PASV", "SIZE", "RETR"}) {
    SCOPED_TRACE(command);
    std::map<std::string, std::string> answers = {{"PASV", Passive(FreePort())},
                                                  {"SIZE", "213 100\r\n"}};
    answers[command] = "2";
    RawServer server({Control(answers)});
    FtpRequest request(server.Port());
    ASSERT_OK(request.setDefaults());
    EXPECT_TRUE(Failed(request.Get("file")));
    EXPECT_NE(request.TransferResult(), 0);
    EXPECT_EQ(request.ResponseCode(), 0);
    EXPECT_EQ(request.body.text, "");
  }
}

TEST(FtpFailure, AGreetingMayBeAnything) {
  for (const char* const greeting : {"", "\r\n", "220", "421 no\r\n", "HTTP/1.1 200 OK\r\n\r\n"}) {
    SCOPED_TRACE(greeting);
    RawServer server({[&](Peer& peer) { peer.Send(greeting); }});
    FtpRequest request(server.Port());
    EXPECT_TRUE(Failed(request.Get("file")));
    EXPECT_NE(request.TransferResult(), 0);
  }
}

TEST(FtpFailure, TheTimeToWaitForAReplyIsLimited) {
  RawServer greeting({Silence});
  RawServer login({[](Peer& peer) {
    peer.Send("220 ready\r\n");
    peer.WaitForClose();
  }});
  for (const RawServer* const server : {&greeting, &login}) {
    FtpRequest request(server->Port());
    ASSERT_OK(request.SetFTPResponseTimeOut(1));
    const double seconds = SecondsToTimeOut(request);
    EXPECT_GE(seconds, 0.9);
    EXPECT_LT(seconds, 10.0);
  }
}

TEST(FtpFailure, SilenceOnTheDataConnectionIsEndedByTheTimeLimit) {
  RawServer data({Silence});
  RawServer server({Control({{"PASV", Passive(data.Port())},
                             {"SIZE", "213 100\r\n"},
                             {"RETR", "150 coming (100 bytes)\r\n"}})});
  FtpRequest request(server.Port());
  ASSERT_OK(request.setDefaults());
  ASSERT_OK(request.SetTimeOutMS(700));
  const double seconds = SecondsToTimeOut(request);
  EXPECT_GE(seconds, 0.65);
  EXPECT_LT(seconds, 10.0);
}

TEST(FtpFailure, ALostConnectionIsMadeAnew) {
  const auto control = Control({{"PASV", "500 no\r\n"}, {"NOOP", "200\r\n"}, {"CWD", "2"}});
  RawServer server({control});
  FtpRequest request(server.Port());
  std::string text;
  EXPECT_OK(request.getInfo(KdCURL::CURL_PRIMARY_IP, text));
  EXPECT_TRUE(Failed(request.Get("folder/file"))) << "this ends the connection";
  request.setURLPath("");
  EXPECT_OK(request.getInfo(KdCURL::CURL_PRIMARY_IP, text));
}

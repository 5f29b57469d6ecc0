#include "ZunetTest.h"
#include "support/FileServers.h"
#include "support/RawServer.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace {

const std::string kFile = "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nfile";

class ZunetProxy : public ZunetTest {
 protected:
  static std::string Place(int port) { return "127.0.0.1:" + std::to_string(port); }
};

}  // namespace

TEST_F(ZunetProxy, IsUsedWithItsCredentials) {
  const NginxServer server("location / { echo -n $echo_client_request_headers; }");
  const TinyProxy proxy("ann", "pr0xy");
  const std::string get = "get " + Local("http", server.Port(), "/x") + " --proxy ";
  const std::string place = Place(proxy.Port());
  EXPECT_THAT(RunZunet(get + "ann:pr0xy@" + place).out, HasSubstr("tinyproxy"));
  EXPECT_THAT(RunZunet(get + "http://ann:pr0xy@" + place).out, HasSubstr("tinyproxy"));
  EXPECT_THAT(RunZunet(get + "http://ann:pr0xy@" + place + " --proxy-auth basic").out,
              HasSubstr("tinyproxy"));
  EXPECT_EQ(RunZunet(get + "http://ann:wrong@" + place).status, 2);
  EXPECT_GT(RunZunet(get + place + " --proxy-auth nonsense").status, 100);
}

TEST_F(ZunetProxy, CarriesFtp) {
  const FtpServer server;
  WriteFile(server.Login() / "a", "by ftp");
  const TinyProxy proxy;
  EXPECT_EQ(RunZunet("get " + Local("ftp", server.Port(), "/a") +
                     " --user bob:s3cret --proxy http://" + Place(proxy.Port()))
                .out,
            "by ftp");
}

TEST_F(ZunetProxy, IsToldNoOneWithoutAUser) {
  RawServer proxy({RawServer::Answer(kFile)});
  const std::string place = Place(proxy.Port());
  for (const std::string& option : {place, "http://" + place, "http://ann:pw@" + place}) {
    EXPECT_EQ(RunZunet("get http://host.invalid/x --proxy " + option).out, "file");
  }
  const auto received = proxy.Received(3);
  EXPECT_THAT(received[0], Not(HasSubstr("Authorization")));
  EXPECT_THAT(received[1], Not(HasSubstr("Authorization")));
  EXPECT_THAT(received[2], HasSubstr("Proxy-Authorization: Basic YW5uOnB3\r\n"));
}

TEST_F(ZunetProxy, DigestHidesThePassword) {
  RawServer proxy(
      {RawServer::Answer("HTTP/1.1 407 No\r\nProxy-Authenticate: Digest realm=\"x\", "
                         "nonce=\"1\"\r\nContent-Length: 0\r\nConnection: close\r\n\r\n"),
       RawServer::Answer(kFile)});
  EXPECT_EQ(RunZunet("get http://host.invalid/x --proxy-auth digest --proxy http://ann:pw@" +
                     Place(proxy.Port()))
                .out,
            "file");
  const auto received = proxy.Received(2);
  EXPECT_THAT(received[0], Not(HasSubstr("Basic")));
  EXPECT_THAT(received[1], HasSubstr("Proxy-Authorization: Digest username=\"ann\""));
}

TEST_F(ZunetProxy, MaySpeakSocks) {
  // RFC 1928: no login, a host's name, success; then it is the server.
  RawServer proxy({[](Peer& peer) {
    const std::string hello = peer.Read(2);
    peer.Read(hello.size() < 2 ? 0 : static_cast<unsigned char>(hello[1]));
    peer.Send(std::string("\x05\x00", 2));
    const std::string request = peer.Read(5);
    peer.Read(request.size() < 5 ? 0 : static_cast<unsigned char>(request[4]) + 2u);
    peer.Send(std::string("\x05\x00\x00\x01\x00\x00\x00\x00\x00\x00", 10));
    peer.ReadHttpRequest();
    peer.Send(kFile);
  }});
  EXPECT_EQ(RunZunet("get http://host.invalid/x --proxy socks5h://" + Place(proxy.Port())).out,
            "file");
  EXPECT_THAT(proxy.Received(1)[0], AllOf(HasSubstr("host.invalid"), HasSubstr("GET /x ")));
  EXPECT_EQ(RunZunet("get http://127.0.0.1:1/x --proxy nonsense://" + Place(proxy.Port())).status,
            2);
}

#include <gmock/gmock.h>

#include "servers/FileRequest.h"
#include "support/FileServers.h"
#include "support/RawServer.h"

using testing::HasSubstr;
using testing::StartsWith;

namespace {

class FtpProxy : public testing::Test {
 protected:
  FtpProxy() { WriteFile(m_server.Login() / "a.txt", m_bytes); }

  std::string m_bytes = RandomBytes(200000);
  FtpServer m_server;
  FtpRequest m_request{m_server.Port()};
};

}  // namespace

TEST_F(FtpProxy, TransfersGoThroughATunnel) {
  const TinyProxy proxy;
  const TempDir folder;
  ASSERT_OK(m_request.setProxyDetails("127.0.0.1", "", "", std::to_string(proxy.Port())));
  for (int round = 0; round < 2; ++round) {
    ASSERT_OK(m_request.Get("a.txt"));
    EXPECT_TRUE(m_request.body.text == m_bytes);
    WriteFile(folder / "source", m_bytes);
    ASSERT_OK(m_request.uploadFile((folder / "source").c_str(), "b.txt", m_bytes.size(), {}));
    EXPECT_TRUE(ReadFile(m_server.Login() / "b.txt") == m_bytes);
    ASSERT_OK(m_request.Collect().getFilesAndDirsInfoInFile("/login"));
    EXPECT_EQ(m_request.body.text, "a.txt\nb.txt\n");
  }
}

TEST_F(FtpProxy, TheTunnelIsAskedFor) {
  RawServer proxy({RawServer::Answer("HTTP/1.1 403 No\r\nContent-Length: 0\r\n\r\n")});
  ASSERT_OK(m_request.setProxyDetails("127.0.0.1", "u", "p", std::to_string(proxy.Port())));
  EXPECT_TRUE(Failed(m_request.Get("a.txt")));
  EXPECT_EQ(m_request.TransferResult(), CURLE_RECV_ERROR);
  const std::string asked = proxy.Received(1).at(0);
  EXPECT_THAT(asked, StartsWith("CONNECT 127.0.0.1:" + std::to_string(m_server.Port()) + " HTTP/"));
  EXPECT_THAT(asked, HasSubstr("\r\nProxy-Authorization: Basic dTpw\r\n"));
}

TEST_F(FtpProxy, WithoutTheTunnelTheProxyItselfWouldFetch) {
  // The operation asks for the tunnel anew each time; an option of the caller's overrides it.
  RawServer proxy({RawServer::Answer("HTTP/1.1 200 OK\r\nContent-Length: 7\r\n\r\nfetched")});
  ASSERT_OK(m_request.setProxyDetails("127.0.0.1", "", "", std::to_string(proxy.Port())));
  ASSERT_OK(m_request.setOption(CURLOPT_HTTPPROXYTUNNEL, 0L));
  EXPECT_OK(m_request.Get("a.txt"));
  EXPECT_EQ(m_request.body.text, "fetched");
  EXPECT_THAT(proxy.Received(1).at(0), StartsWith("GET ftp://"));
}

TEST_F(FtpProxy, ARefusedLoginAtTheProxyIsToldByItsCode) {
  const TinyProxy proxy("user", "right");
  const std::string port = std::to_string(proxy.Port());
  ASSERT_OK(m_request.setProxyDetails("127.0.0.1", "user", "wrong", port));
  EXPECT_FAILS(m_request.Get("a.txt"), TransferCode(CURLE_RECV_ERROR), "401");
  ASSERT_OK(m_request.setProxyDetails("127.0.0.1", "user", "right", port));
  EXPECT_OK(m_request.Get("a.txt"));
  EXPECT_TRUE(m_request.body.text == m_bytes);
}

TEST_F(FtpProxy, AProxyIsLeftAsideWhenDisabledOrBypassed) {
  const std::string port = std::to_string(FreePort());  // nobody is there
  ASSERT_OK(m_request.setProxyDetails("127.0.0.1", "", "", port));
  EXPECT_FAILS(m_request.Get("a.txt"), TransferCode(CURLE_COULDNT_CONNECT), "[7]");
  ASSERT_OK(m_request.setProxyBypass("127.0.0.1"));
  EXPECT_OK(m_request.Get("a.txt"));
  ASSERT_OK(m_request.setProxyBypass(""));
  EXPECT_FAILS(m_request.Get("a.txt"), TransferCode(CURLE_COULDNT_CONNECT), "[7]");
  ASSERT_OK(m_request.DisableProxy());
  EXPECT_OK(m_request.Get("a.txt"));
}

#include <gmock/gmock.h>
#include <stdlib.h>

#include "servers/TestRequest.h"
#include "support/RawServer.h"
#include "support/Servers.h"

using testing::HasSubstr;
using testing::Not;

namespace {

constexpr char kDirectives[] = R"(
location = /headers { echo -n $echo_client_request_headers; }
location = /what { echo_read_request_body; echo -n "$request_method "; echo_request_body; }
)";
constexpr char kVia[] = "Via: 1.1 tinyproxy";

std::string Address(const Server& server) {
  return "http://127.0.0.1:" + std::to_string(server.Port());
}

// nginx behind a proxy; the environment names none to begin with.
class HttpProxy : public testing::Test {
 protected:
  explicit HttpProxy(const char* user = "", const char* password = "") : m_proxy(user, password) {
    for (const char* const name : {"http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy",
                                   "ALL_PROXY", "no_proxy", "NO_PROXY"}) {
      unsetenv(name);
    }
  }
  ~HttpProxy() override { unsetenv("http_proxy"); }

  CZuError UseProxy(TestRequest& request, const char* user = "", const char* password = "") const {
    return request.setProxyDetails("127.0.0.1", user, password, std::to_string(m_proxy.Port()));
  }

  NginxServer m_server{kDirectives};
  TinyProxy m_proxy;
  TestRequest m_request{m_server.Port()};
};

class HttpProxyWithPassword : public HttpProxy {
 protected:
  HttpProxyWithPassword() : HttpProxy("bob", "s3cret") {}
};

}  // namespace

TEST_F(HttpProxy, CarriesTheRequests) {
  ASSERT_OK(UseProxy(m_request));
  ASSERT_OK(m_request.Get("/headers"));
  EXPECT_THAT(m_request.body.text, HasSubstr(kVia));
  ASSERT_OK(m_request.Collect().doPostOperation("/what", "a\0b", 3, {}));
  EXPECT_EQ(m_request.body.text, std::string("POST a\0b", 8));
  EXPECT_FAILS(m_request.Get("/absent"), 0xEDD00000U, "[404]");
}

TEST_F(HttpProxy, IsAskedForATunnelToATlsServer) {
  const Certificates certificates;
  const NginxServer server(kDirectives, certificates.RightHost());
  TestRequest request(server.Port(), KdCURL::HTTPS);
  ASSERT_OK(request.setSecured(true, certificates.Authority()));
  ASSERT_OK(UseProxy(request));
  ASSERT_OK(request.Get("/headers"));
  EXPECT_THAT(request.body.text, Not(HasSubstr(kVia))) << "the tunnel is closed to the proxy";

  RawServer witness({RawServer::Answer("HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\n\r\n")});
  ASSERT_OK(request.setProxyDetails("127.0.0.1", "", "", std::to_string(witness.Port())));
  EXPECT_TRUE(Failed(request.Get("/headers")));
  EXPECT_EQ(witness.Received(1)[0].find("CONNECT 127.0.0.1:" + std::to_string(server.Port())), 0U);
}

TEST_F(HttpProxy, BypassNamesTheServersThatAreReachedDirectly) {
  ASSERT_OK(UseProxy(m_request));
  const struct {
    const char* bypass;
    bool usesProxy;
  } cases[] = {{"127.0.0.1", false},
               {"elsewhere.example", true},
               {"elsewhere.example,127.0.0.1", false},
               {"", true},
               {"*", false}};
  for (const auto& [bypass, usesProxy] : cases) {
    SCOPED_TRACE(bypass);
    ASSERT_OK(m_request.setProxyBypass(bypass));
    ASSERT_OK(m_request.Get("/headers"));
    EXPECT_EQ(m_request.body.text.find(kVia) != std::string::npos, usesProxy);
  }
}

TEST_F(HttpProxy, OfTheEnvironmentIsUsedUnlessDisabled) {
  setenv("http_proxy", Address(m_proxy).c_str(), 1);
  ASSERT_OK(m_request.Get("/headers"));
  EXPECT_THAT(m_request.body.text, HasSubstr(kVia));
  ASSERT_OK(m_request.DisableProxy());
  ASSERT_OK(m_request.Get("/headers"));
  EXPECT_THAT(m_request.body.text, Not(HasSubstr(kVia)));
}

TEST_F(HttpProxy, DeadOneOfTheEnvironmentDoesNoHarmOnceDisabled) {
  setenv("http_proxy", ("http://127.0.0.1:" + std::to_string(FreePort())).c_str(), 1);
  EXPECT_FAILS(m_request.Get("/headers"), TransferCode(CURLE_COULDNT_CONNECT), "[7]");
  ASSERT_OK(m_request.DisableProxy());
  EXPECT_OK(m_request.Get("/headers"));
}

TEST_F(HttpProxy, ThatWasSetCanBeDisabledAndSetAgain) {
  ASSERT_OK(UseProxy(m_request));
  ASSERT_OK(m_request.DisableProxy());
  ASSERT_OK(m_request.Get("/headers"));
  EXPECT_THAT(m_request.body.text, Not(HasSubstr(kVia)));
  ASSERT_OK(UseProxy(m_request));
  ASSERT_OK(m_request.Get("/headers"));
  EXPECT_THAT(m_request.body.text, HasSubstr(kVia));
}

TEST_F(HttpProxy, ThatCannotBeReachedReadsAsALostConnection) {
  ASSERT_OK(m_request.setProxyDetails("127.0.0.1", "", "", std::to_string(FreePort())));
  EXPECT_FAILS(m_request.Get("/headers"), TransferCode(CURLE_COULDNT_CONNECT), "[7]");
  EXPECT_TRUE(m_request.checkConnection());
  ASSERT_OK(m_request.setProxyDetails("nowhere.invalid", "", "", "3128"));
  EXPECT_FAILS(m_request.Get("/headers"), TransferCode(CURLE_COULDNT_RESOLVE_PROXY), "[5]");
  EXPECT_TRUE(m_request.checkConnection());
}

TEST_F(HttpProxy, WithoutTheServerBehindItAnswersForItself) {
  TestRequest request(FreePort());
  ASSERT_OK(UseProxy(request));
  EXPECT_FAILS(request.Get("/"), 0xEDD00000U, "Response code from server: [50");
  EXPECT_FALSE(request.checkConnection());
}

TEST_F(HttpProxyWithPassword, RightPasswordOpensAndStaysWithTheProxy) {
  ASSERT_OK(UseProxy(m_request, "bob", "s3cret"));
  ASSERT_OK(m_request.Get("/headers"));
  EXPECT_THAT(m_request.body.text, HasSubstr(kVia));
  EXPECT_THAT(m_request.body.text, Not(HasSubstr("Proxy-Authorization")));
}

// tinyproxy answers credentials that it does not know as a server would, with 401.
TEST_F(HttpProxyWithPassword, WrongOrNoPasswordIsRefused) {
  for (const auto& [user, password] :
       {std::pair("bob", "wrong"), std::pair("", ""), std::pair("eve", "s3cret")}) {
    SCOPED_TRACE(user);
    ASSERT_OK(UseProxy(m_request, user, password));
    EXPECT_FAILS(m_request.Get("/headers"), 0xEDD00000U, "Response code from server: [40");
    EXPECT_THAT(m_request.ResponseCode(), testing::AnyOf(401, 407));
    EXPECT_THAT(m_request.body.text, Not(HasSubstr(kVia)));
  }
}

TEST(HttpProxyReply, WantsAuthentication) {
  constexpr char kAnswer[] =
      "HTTP/1.1 407 Proxy Authentication Required\r\nProxy-Authenticate: Basic realm=\"r\"\r\n"
      "Content-Length: 0\r\n\r\n";
  RawServer proxy({RawServer::Answer(kAnswer)});
  TestRequest request(80);
  const std::string port = std::to_string(proxy.Port());
  ASSERT_OK(request.setProxyDetails("127.0.0.1", "bob", "wrong", port));
  EXPECT_FAILS(request.Get("/file"), 0xEDD00000U, "Response code from server: [407]");
  EXPECT_EQ(request.ResponseCode(), 407);
  EXPECT_THAT(proxy.Received(1)[0], HasSubstr("GET http://127.0.0.1/file HTTP/1.1\r\n"));
  EXPECT_THAT(proxy.Received(1)[0],
              HasSubstr("\r\nProxy-Authorization: Basic Ym9iOndyb25n\r\n"));  // bob:wrong
  request.setURL("https://127.0.0.1");
  request.setPortNo("443");
  EXPECT_FAILS(request.Get("/file"), TransferCode(CURLE_RECV_ERROR), "response 407");
}

TEST_F(HttpProxyWithPassword, SchemesThatTheProxyDoesNotOfferDoNotOpen) {
  ASSERT_OK(UseProxy(m_request, "bob", "s3cret"));
  const struct {
    unsigned long scheme;
    bool opens;
  } cases[] = {{CURLAUTH_DIGEST, false}, {CURLAUTH_BASIC, true}, {CURLAUTH_ANY, true}};
  for (const auto& [scheme, opens] : cases) {
    SCOPED_TRACE(scheme);
    ASSERT_OK(m_request.setProyAuth(static_cast<long>(scheme)));
    EXPECT_EQ(!Failed(m_request.Get("/headers")), opens);
    EXPECT_EQ(m_request.ResponseCode(), opens ? 200 : 407);
  }
}

TEST_F(HttpProxyWithPassword, GuardsTheTunnelToATlsServerToo) {
  const Certificates certificates;
  const NginxServer server(kDirectives, certificates.RightHost());
  TestRequest request(server.Port(), KdCURL::HTTPS);
  ASSERT_OK(request.setSecured(true, certificates.Authority()));
  ASSERT_OK(UseProxy(request, "bob", "wrong"));
  EXPECT_FAILS(request.Get("/headers"), TransferCode(CURLE_RECV_ERROR), "response 40");
  ASSERT_OK(UseProxy(request, "bob", "s3cret"));
  EXPECT_OK(request.Get("/headers"));
}

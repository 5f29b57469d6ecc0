#include <gmock/gmock.h>

#include <filesystem>

#include "servers/TestRequest.h"
#include "support/Servers.h"

using testing::HasSubstr;

namespace {

constexpr char kDirectives[] = R"(
location = /protocol { echo -n $ssl_protocol; }
location = /what { echo_read_request_body; echo -n "$request_method "; echo_request_body; }
location /dav/ { dav_methods PUT DELETE; create_full_put_path on; }
)";

const Certificates& Made() {
  static const Certificates certificates;
  return certificates;
}

class TlsRequest : public TestRequest {
 public:
  explicit TlsRequest(const NginxServer& server) : TestRequest(server.Port(), KdCURL::HTTPS) {}
};

// Makes a folder the current one for a while.
class CurrentFolder {
 public:
  explicit CurrentFolder(const std::filesystem::path& folder) {
    std::filesystem::current_path(folder);
  }
  ~CurrentFolder() { std::filesystem::current_path(m_before); }
  CurrentFolder(const CurrentFolder&) = delete;
  CurrentFolder& operator=(const CurrentFolder&) = delete;

 private:
  std::filesystem::path m_before = std::filesystem::current_path();
};

}  // namespace

TEST(HttpsTransfer, RightAuthorityAndHostAreAccepted) {
  const NginxServer server(kDirectives, Made().RightHost());
  TlsRequest request(server);
  ASSERT_OK(request.setSecured(true, Made().Authority()));
  for (const char* const host : {"127.0.0.1", "localhost", "https://127.0.0.1"}) {
    SCOPED_TRACE(host);
    request.setURL(host);
    ASSERT_OK(request.Get("/protocol"));
    EXPECT_THAT(request.body.text, HasSubstr("TLSv1."));
  }
}

TEST(HttpsTransfer, BodiesTravelBothWays) {
  const NginxServer server(kDirectives, Made().RightHost());
  TlsRequest request(server);
  ASSERT_OK(request.setSecured(true, Made().Authority()));
  ASSERT_OK(request.Collect().doPostOperation("/what", "a\0b", 3, {}));
  EXPECT_EQ(request.body.text, std::string("POST a\0b", 8));
  std::string large(size_t{4} << 20, 'x');
  large[12345] = '\0';
  ASSERT_OK(request.doPutOperation("/dav/file", large.data(), static_cast<long>(large.size()), {}));
  EXPECT_TRUE(ReadFile(server.Folder() / "www/dav/file") == large);
  ASSERT_OK(request.Get("/dav/file"));
  EXPECT_TRUE(request.body.text == large);
  ASSERT_OK(request.doDeleteOperation("/dav/file", "", 0, {}));
  EXPECT_FALSE(std::filesystem::exists(server.Folder() / "www/dav/file"));
}

TEST(HttpsTransfer, WhatCannotBeVerifiedIsRefused) {
  const NginxServer right(kDirectives, Made().RightHost());
  const NginxServer wrong(kDirectives, Made().WrongHost());
  const NginxServer expired(kDirectives, Made().Expired());
  const struct {
    const char* what;
    const NginxServer& server;
    std::filesystem::path bundle;
    CURLcode code;
    const char* text;
  } cases[] = {
      {"authority", right, Made().OtherAuthority(), CURLE_PEER_FAILED_VERIFICATION,
       "ErrorCode : [60]"},
      {"host", wrong, Made().Authority(), CURLE_PEER_FAILED_VERIFICATION, "127.0.0.1"},
      {"date", expired, Made().Authority(), CURLE_PEER_FAILED_VERIFICATION, "expired"},
      {"bundle", right, "/absent/bundle.crt", CURLE_SSL_CACERT_BADFILE, "/absent/bundle.crt"},
      {"key as bundle", right, Made().RightHost().key, CURLE_SSL_CACERT_BADFILE, "[77]"},
  };
  for (const auto& [what, server, bundle, code, text] : cases) {
    SCOPED_TRACE(what);
    TlsRequest request(server);
    ASSERT_OK(request.setSecured(true, bundle));
    EXPECT_FAILS(request.Get("/protocol"), TransferCode(code), text);
    EXPECT_EQ(request.body.text, "");
    EXPECT_EQ(request.ResponseCode(), 0);
    EXPECT_FALSE(request.checkConnection()) << "the server can be reached";
  }
}

TEST(HttpsTransfer, UnsecuredRequestsVerifyNothing) {
  for (const Certificate& certificate :
       {Made().RightHost(), Made().WrongHost(), Made().Expired()}) {
    SCOPED_TRACE(certificate.certificate);
    const NginxServer server(kDirectives, certificate);
    TlsRequest request(server);
    ASSERT_OK(request.setSecured(false, "/absent/bundle.crt"));
    ASSERT_OK(request.Get("/protocol"));
  }
}

TEST(HttpsTransfer, SecuringHoldsDespiteAnOpenConnection) {
  const NginxServer server(kDirectives, Made().RightHost());
  TlsRequest request(server);
  ASSERT_OK(request.setSecured(false, ""));
  ASSERT_OK(request.Get("/protocol"));
  ASSERT_OK(request.setSecured(true, Made().OtherAuthority()));
  EXPECT_FAILS(request.Get("/protocol"), TransferCode(CURLE_PEER_FAILED_VERIFICATION), "[60]");
  ASSERT_OK(request.setSecured(true, Made().Authority()));
  EXPECT_OK(request.Get("/protocol"));
}

TEST(HttpsTransfer, DefaultBundleLiesInTheCurrentFolder) {
  const NginxServer server(kDirectives, Made().RightHost());
  const TempDir folder;
  const CurrentFolder current(folder.Path());
  TlsRequest without(server);
  EXPECT_FAILS(without.Get("/protocol"), TransferCode(CURLE_SSL_CACERT_BADFILE),
               "./curl-ca-bundle.crt");
  std::filesystem::copy(Made().Authority(), folder / "curl-ca-bundle.crt");
  TlsRequest with(server);
  EXPECT_OK(with.Get("/protocol"));
  std::filesystem::copy(Made().OtherAuthority(), folder / "curl-ca-bundle.crt",
                        std::filesystem::copy_options::overwrite_existing);
  TlsRequest other(server);
  EXPECT_FAILS(other.Get("/protocol"), TransferCode(CURLE_PEER_FAILED_VERIFICATION), "[60]");
}

TEST(HttpsTransfer, MaximalVersionIsKept) {
  const std::string directives = kDirectives;
  const NginxServer newest(directives + "ssl_protocols TLSv1.3;", Made().RightHost());
  const NginxServer older(directives + "ssl_protocols TLSv1.2;", Made().RightHost());
  const NginxServer both(directives + "ssl_protocols TLSv1.2 TLSv1.3;", Made().RightHost());
  const struct {
    const NginxServer& server;
    int version;
    const char* used;  // null: none fits
  } cases[] = {
      {newest, CURL_SSLVERSION_MAX_TLSv1_2, nullptr},
      {newest, CURL_SSLVERSION_MAX_TLSv1_3, "TLSv1.3"},
      {older, CURL_SSLVERSION_MAX_TLSv1_2, "TLSv1.2"},
      {older, CURL_SSLVERSION_TLSv1_3, nullptr},
      {both, CURL_SSLVERSION_DEFAULT, "TLSv1.3"},
      {both, CURL_SSLVERSION_MAX_TLSv1_2, "TLSv1.2"},
  };
  for (const auto& [server, version, used] : cases) {
    SCOPED_TRACE(std::to_string(version) + " -> " + (used == nullptr ? "none" : used));
    TlsRequest request(server);
    ASSERT_OK(request.setSecured(true, Made().Authority()));
    ASSERT_OK(request.setMaxSSLVersion(version));
    if (used == nullptr) {
      EXPECT_FAILS(request.Get("/protocol"), TransferCode(CURLE_SSL_CONNECT_ERROR), "[35]");
    } else {
      EXPECT_OK(request.Get("/protocol"));
      EXPECT_EQ(request.body.text, used);
    }
  }
}

TEST(HttpsTransfer, TlsToAServerWithoutItFails) {
  const NginxServer server(kDirectives);
  TlsRequest request(server);
  ASSERT_OK(request.setSecured(false, ""));
  EXPECT_FAILS(request.Get("/protocol"), TransferCode(CURLE_SSL_CONNECT_ERROR), "[35]");
}

#include <gmock/gmock.h>

#include "servers/FileRequest.h"
#include "support/FileServers.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace {

const Certificates& Made() {
  static const Certificates certificates;
  return certificates;
}

class Ftps : public testing::Test {
 protected:
  Ftps() { WriteFile(m_server.Login() / "a.txt", "text of a"); }

  FtpServer m_server{Made().RightHost()};
  FtpRequest m_request{m_server.Port()};
};

}  // namespace

TEST_F(Ftps, TheControlConnectionIsEncryptedAndTheDataIsNot) {
  ASSERT_OK(m_request.setSecured(true, Made().Authority()));
  ASSERT_OK(m_request.setSSL());
  const TempDir folder;
  for (const size_t size : {0U, 1U, 3000000U}) {
    SCOPED_TRACE(size);
    const std::string bytes = RandomBytes(size);
    WriteFile(folder / "source", bytes);
    ASSERT_OK(m_request.uploadFile((folder / "source").c_str(), "new/file", size, {}));
    EXPECT_TRUE(ReadFile(m_server.Login() / "new/file") == bytes);
    ASSERT_OK(m_request.Get("new/file"));
    EXPECT_TRUE(m_request.body.text == bytes);
  }
  EXPECT_THAT(m_server.Log(),
              AllOf(HasSubstr("\"AUTH SSL\""), HasSubstr("\"PROT C\""), Not(HasSubstr("PROT P"))));
}

TEST_F(Ftps, WithoutItNothingIsEncrypted) {
  ASSERT_OK(m_request.Get("a.txt"));
  EXPECT_THAT(m_server.Log(), Not(HasSubstr("AUTH")));
}

TEST_F(Ftps, ListingsSizesAndChecksWorkToo) {
  ASSERT_OK(m_request.setSecured(true, Made().Authority()));
  ASSERT_OK(m_request.setSSL());
  ASSERT_OK(m_request.Collect().getFilesAndDirsInfoInFile("/login"));
  EXPECT_EQ(m_request.body.text, "a.txt\n");
  double size = 0.0;
  EXPECT_OK(m_request.Collect().getFileInfo("a.txt", size));
  EXPECT_EQ(size, 9.0);
  bool exists = false;
  EXPECT_OK(m_request.checkIfFileOrDirExists("/login", false, exists));
  EXPECT_TRUE(exists);
  EXPECT_FALSE(m_request.Collect().checkConnection());
}

TEST_F(Ftps, AServerWithoutTlsIsRefused) {
  const FtpServer plain;
  FtpRequest request(plain.Port());
  ASSERT_OK(request.setSecured(false, ""));
  ASSERT_OK(request.setSSL());
  EXPECT_FAILS(request.Get("a.txt"), TransferCode(CURLE_USE_SSL_FAILED), "[64]");
  EXPECT_THAT(plain.Log(), Not(HasSubstr("\"USER "))) << "the password stays here";
}

TEST_F(Ftps, AServerThatDemandsTlsRefusesALoginWithout) {
  const FtpServer strict(Made().RightHost(), "force_local_logins_ssl=YES");
  WriteFile(strict.Login() / "a.txt", "text");
  FtpRequest request(strict.Port());
  EXPECT_FAILS(request.Get("a.txt"), TransferCode(CURLE_LOGIN_DENIED), "[67]");
  ASSERT_OK(request.setSecured(true, Made().Authority()));
  ASSERT_OK(request.setSSL());
  EXPECT_OK(request.Get("a.txt"));
}

TEST_F(Ftps, TheServerIsVerified) {
  const struct {
    const char* what;
    Certificate certificate;
    std::filesystem::path bundle;
    CURLcode code;
  } cases[] = {
      {"authority", Made().RightHost(), Made().OtherAuthority(), CURLE_PEER_FAILED_VERIFICATION},
      {"host", Made().WrongHost(), Made().Authority(), CURLE_PEER_FAILED_VERIFICATION},
      {"date", Made().Expired(), Made().Authority(), CURLE_PEER_FAILED_VERIFICATION},
      {"bundle", Made().RightHost(), "/absent/bundle", CURLE_SSL_CACERT_BADFILE},
  };
  for (const auto& [what, certificate, bundle, code] : cases) {
    SCOPED_TRACE(what);
    const FtpServer server(certificate);
    FtpRequest request(server.Port());
    ASSERT_OK(request.setSecured(true, bundle));
    ASSERT_OK(request.setSSL());
    EXPECT_FAILS(request.Get("a.txt"), TransferCode(code),
                 ("[" + std::to_string(code) + "]").c_str());
    EXPECT_THAT(server.Log(), Not(HasSubstr("\"USER ")));
    ASSERT_OK(request.setSecured(false, ""));
    EXPECT_OK(request.Collect().getFilesAndDirsInfoInFile("/login"));
  }
}

TEST_F(Ftps, AWrongPasswordIsRefused) {
  ASSERT_OK(m_request.setSecured(true, Made().Authority()));
  ASSERT_OK(m_request.setSSL());
  ASSERT_OK(m_request.setCredentials("bob", "wrong"));
  EXPECT_FAILS(m_request.Get("a.txt"), TransferCode(CURLE_LOGIN_DENIED), "[67]");
  EXPECT_TRUE(m_request.Collect().checkConnection());
}

#include <sys/resource.h>

#include "servers/FileRequest.h"
#include "support/FileServers.h"
#include "support/RawServer.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr char kDirectives[] = R"(
client_max_body_size 0;
location /dav/ { dav_methods PUT; create_full_put_path on; }
location /moved/ { return 307 /dav/moved; }
location /login/ {
  auth_basic "here"; auth_basic_user_file passwords; dav_methods PUT; create_full_put_path on;
}
)";

class PutFile : public testing::Test {
 protected:
  std::string File(const std::string& bytes) {
    WriteFile(m_folder / "file", bytes);
    return m_folder / "file";
  }

  TempDir m_folder;
};

}  // namespace

TEST_F(PutFile, HttpGetsTheBytesAsTheyAre) {
  const NginxServer server(kDirectives);
  TestRequest request(server.Port());
  for (const size_t size : {0U, 1U, 65536U, 5'000'001U}) {
    SCOPED_TRACE(size);
    const std::string bytes = RandomBytes(size);
    ASSERT_OK(request.putFile(File(bytes), "/dav/new/file", {}));
    EXPECT_TRUE(ReadFile(server.Folder() / "www/dav/new/file") == bytes);
  }
  ASSERT_OK(request.Get("/dav/new/file")) << "the next request is a GET";
  EXPECT_EQ(request.body.text.size(), 5'000'001U);
}

TEST_F(PutFile, TheRequestTellsTheSizeAndNoTypeOfAForm) {
  RawServer server({RawServer::Answer("HTTP/1.1 201 Created\r\nContent-Length: 0\r\n\r\n")});
  {
    TestRequest request(server.Port());
    ASSERT_OK(request.putFile(File("four"), "/p", {{"X-One", "1"}}));
  }
  EXPECT_THAT(server.Received(1).at(0),
              AllOf(StartsWith("PUT /p HTTP/1.1\r\n"), HasSubstr("\r\nContent-Length: 4\r\n"),
                    HasSubstr("\r\nX-One:1\r\n"), Not(HasSubstr("Content-Type")),
                    testing::EndsWith("\r\n\r\nfour")));
}

TEST_F(PutFile, ARedirectedBodyIsSentWhole) {
  const NginxServer server(kDirectives);
  TestRequest request(server.Port());
  const std::string bytes = RandomBytes(3'000'000);
  ASSERT_OK(request.putFile(File(bytes), "/moved/file", {}));
  EXPECT_TRUE(ReadFile(server.Folder() / "www/dav/moved") == bytes);
}

TEST_F(PutFile, ABodyThatFirstMeetsARequestForALoginIsSentWhole) {
  const NginxServer server(kDirectives);
  WriteFile(server.Folder() / "passwords", "bob:{PLAIN}s3cret\n");
  TestRequest request(server.Port());
  ASSERT_OK(request.setHTTPAuth(static_cast<long>(CURLAUTH_ANY)));
  ASSERT_OK(request.setCredentials("bob", "s3cret"));
  const std::string bytes = RandomBytes(3'000'000);
  ASSERT_OK(request.putFile(File(bytes), "/login/file", {}));
  EXPECT_TRUE(ReadFile(server.Folder() / "www/login/file") == bytes);
}

TEST_F(PutFile, AnInterruptedPutGoesOnWhereItStopped) {
  RawServer server({RawServer::Answer("HTTP/1.1 201 Created\r\nContent-Length: 0\r\n\r\n")});
  {
    TestRequest request(server.Port());
    request.setResumeOffset(4);
    ASSERT_OK(request.putFile(File("0123456789"), "/p", {}));
  }
  EXPECT_THAT(server.Received(1).at(0),
              AllOf(HasSubstr("\r\nContent-Range: bytes 4-9/10\r\n"),
                    HasSubstr("\r\nContent-Length: 6\r\n"), testing::EndsWith("\r\n\r\n456789")));
}

TEST_F(PutFile, FtpAndSftpGetTheBytesAsTheyAre) {
  const FtpServer ftp;
  const SftpServer sftp;
  FtpRequest ftpRequest(ftp.Port());
  SftpRequest sftpRequest(sftp.Port());
  ASSERT_OK(sftpRequest.setFTPAuth(CURLSSH_AUTH_PASSWORD));
  for (const size_t size : {1U, 3'000'001U}) {
    SCOPED_TRACE(size);
    const std::string bytes = RandomBytes(size);
    ASSERT_OK(ftpRequest.putFile(File(bytes), "new/file", {}));
    EXPECT_TRUE(ReadFile(ftp.Login() / "new/file") == bytes);
    ASSERT_OK(sftpRequest.putFile(File(bytes), "~/file", {}));
    EXPECT_TRUE(ReadFile(sftp.Login() / "file") == bytes);
  }
  ftpRequest.setResumeOffset(3'000'001);
  const std::string longer = RandomBytes(3'000'001) + "and more";
  ASSERT_OK(ftpRequest.putFile(File(longer), "new/file", {}));
  EXPECT_TRUE(ReadFile(ftp.Login() / "new/file") == longer) << "only what is missing";
}

TEST_F(PutFile, ALargeFileIsNotHeldInMemory) {
  const NginxServer server(kDirectives);
  const std::string path = File("");
  constexpr std::uintmax_t kSize = 300 << 20;
  std::filesystem::resize_file(path, kSize);
  TestRequest request(server.Port());
  ASSERT_OK(request.putFile(path, "/dav/large", {}));
  EXPECT_EQ(std::filesystem::file_size(server.Folder() / "www/dav/large"), kSize);
  rusage usage{};
  ASSERT_EQ(getrusage(RUSAGE_SELF, &usage), 0);
  EXPECT_LT(usage.ru_maxrss, 200 << 10) << "kilobytes";
}

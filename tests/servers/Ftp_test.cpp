#include <gmock/gmock.h>

#include <filesystem>

#include "servers/FileRequest.h"
#include "support/FileServers.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace fs = std::filesystem;

namespace {

class Ftp : public testing::Test {
 protected:
  Ftp() { WriteFile(m_server.Login() / "a.txt", "text of a"); }

  CZuError Upload(const std::string& bytes, const char* path) {
    WriteFile(m_folder / "source", bytes);
    return m_request.uploadFile((m_folder / "source").c_str(), path, bytes.size(), {});
  }

  // The file as bob's other programs see it.
  std::string Stored(const std::string& path) { return ReadFile(m_server.Root() / path); }

  TempDir m_folder;
  FtpServer m_server;
  FtpRequest m_request{m_server.Port()};
};

}  // namespace

TEST_F(Ftp, FilesArriveAsTheyAre) {
  for (const size_t size : {0U, 1U, 2U, 16383U, 16384U, 16385U, 65536U, 1U << 20, 5000001U}) {
    SCOPED_TRACE(size);
    const std::string bytes = RandomBytes(size);
    ASSERT_OK(Upload(bytes, "file"));
    EXPECT_TRUE(Stored("login/file") == bytes);
    ASSERT_OK(m_request.Get("file"));
    EXPECT_TRUE(m_request.body.text == bytes);
    EXPECT_EQ(m_request.ResponseCode(), 226);
    EXPECT_EQ(m_request.TransferResult(), 0);
  }
}

TEST_F(Ftp, PathsBeginAtTheLoginDirectoryOrWithASlashAtTheRoot) {
  WriteFile(m_server.Root() / "pub/a.txt", "public");
  WriteFile(m_server.Login() / "pub/a.txt", "private");
  const struct {
    std::string path;
    const char* text;
  } cases[] = {
      {"pub/a.txt", "private"},
      {"/pub/a.txt", "public"},
      {"//pub/a.txt", "public"},
      {"/login/pub/a.txt", "private"},
  };
  for (const auto& [path, text] : cases) {
    SCOPED_TRACE(path);
    EXPECT_OK(m_request.Get(path.c_str()));
    EXPECT_EQ(m_request.body.text, text);
  }
}

TEST_F(Ftp, AWholeUrlAsPathNamesItsServer) {
  const std::string url = "ftp://127.0.0.1/a.txt";
  m_request.setURL("elsewhere.invalid");
  EXPECT_OK(m_request.Get(url.c_str()));
  EXPECT_EQ(m_request.body.text, "text of a");
}

TEST_F(Ftp, NamesMayHoldWhatUrlsEncode) {
  ASSERT_OK(Upload("odd", "with%20blank%23%25.txt"));
  EXPECT_EQ(Stored("login/with blank#%.txt"), "odd");
  EXPECT_OK(m_request.Get("with%20blank%23%25.txt"));
  EXPECT_EQ(m_request.body.text, "odd");
}

TEST_F(Ftp, MissingDirectoriesAreCreatedByAnUpload) {
  ASSERT_OK(Upload("deep", "new/sub/file"));
  EXPECT_EQ(Stored("login/new/sub/file"), "deep");
  ASSERT_OK(Upload("from the root", "/other/file"));
  EXPECT_EQ(Stored("other/file"), "from the root");
}

TEST_F(Ftp, AnUploadReplacesTheFile) {
  ASSERT_OK(Upload(std::string(100, 'x'), "file"));
  ASSERT_OK(Upload("short", "file"));
  EXPECT_EQ(Stored("login/file"), "short");
}

TEST_F(Ftp, TheReadCallbackGivesWhatIsSent) {
  KdCURL::MemorySource source("from memory", 11);
  m_request.setReadCallBack(&source, KdCURL::MemorySource::Read);
  ASSERT_OK(m_request.uploadFile("/absent/name/only", "file", 11, {}));
  EXPECT_EQ(Stored("login/file"), "from memory");
  // It counts for one request; the next one reads its file again.
  ASSERT_OK(Upload("from a file", "file"));
  EXPECT_EQ(Stored("login/file"), "from a file");
}

TEST_F(Ftp, AMissingSourceFileSendsNothing) {
  const struct {
    std::string path;
    int err;
    const char* text;
  } cases[] = {
      {m_folder / "absent", ENOENT, "Failed to open file ["},
      {m_folder.Path(), EISDIR, "Failed to open file ["},
      {m_folder / "a/b", ENOENT, "a/b]"},
  };
  for (const auto& [path, err, text] : cases) {
    SCOPED_TRACE(path);
    EXPECT_FAILS(m_request.uploadFile(path.c_str(), "file", 5, {}), ErrNoCode(err), text);
    EXPECT_FALSE(fs::exists(m_server.Login() / "file"));
  }
  EXPECT_THAT(m_server.Log(), Not(HasSubstr("\"USER ")));
  EXPECT_OK(m_request.Get("a.txt"));
  EXPECT_EQ(m_request.body.text, "text of a");
}

TEST_F(Ftp, ASourceThatIsNotAsLongAsSaidIsAnError) {
  WriteFile(m_folder / "source", "0123456789");
  for (const size_t size : {size_t{9}, size_t{11}, size_t{0}}) {
    SCOPED_TRACE(size);
    EXPECT_FAILS(m_request.uploadFile((m_folder / "source").c_str(), "file", size, {}),
                 TransferCode(CURLE_PARTIAL_FILE), "[18]");
  }
  EXPECT_OK(Upload("right", "file"));
  EXPECT_EQ(Stored("login/file"), "right");
}

TEST_F(Ftp, WhatCannotBeDoneTellsWhy) {
  WriteFile(m_server.Root() / "closed/file", "kept");
  fs::permissions(m_server.Root() / "closed/file", fs::perms{0444});
  fs::permissions(m_server.Root() / "closed", fs::perms{0555});
  WriteFile(m_server.Login() / "kept", "kept");
  fs::permissions(m_server.Login() / "kept", fs::perms{0444});
  WriteFile(m_server.Login() / "secret", "secret");
  fs::permissions(m_server.Login() / "secret", fs::perms{});

  EXPECT_FAILS(m_request.Get("absent"), TransferCode(CURLE_REMOTE_FILE_NOT_FOUND), "[78]");
  EXPECT_EQ(m_request.ResponseCode(), 0);
  EXPECT_FAILS(m_request.Get("absent/file"), TransferCode(CURLE_REMOTE_ACCESS_DENIED), "[9]");
  EXPECT_FAILS(m_request.Get("secret"), TransferCode(CURLE_REMOTE_FILE_NOT_FOUND), "[78]");
  EXPECT_EQ(m_request.body.text, "");
  EXPECT_FAILS(Upload("new", "kept"), TransferCode(CURLE_UPLOAD_FAILED), "[25]");
  EXPECT_EQ(Stored("login/kept"), "kept");
  EXPECT_FAILS(Upload("new", "/closed/file"), TransferCode(CURLE_UPLOAD_FAILED), "[25]");
  EXPECT_FAILS(Upload("new", "/closed/sub/file"), TransferCode(CURLE_REMOTE_ACCESS_DENIED), "[9]");
  EXPECT_EQ(Stored("closed/file"), "kept");
  EXPECT_OK(m_request.Get("a.txt"));
  fs::permissions(m_server.Root() / "closed", fs::perms{0755});  // to be removed
}

TEST_F(Ftp, AWrongPasswordIsRefused) {
  EXPECT_FALSE(m_request.checkConnection());
  FtpRequest wrong(m_server.Port());
  ASSERT_OK(wrong.setCredentials("bob", "wrong"));
  EXPECT_FAILS(wrong.Get("a.txt"), TransferCode(CURLE_LOGIN_DENIED), "[67]");
  EXPECT_EQ(wrong.body.text, "");
  EXPECT_TRUE(wrong.checkConnection());
  ASSERT_OK(wrong.setCredentials("nobody", "s3cret"));
  EXPECT_FAILS(wrong.Get("a.txt"), TransferCode(CURLE_LOGIN_DENIED), "[67]");
  ASSERT_OK(wrong.setCredentials("bob", "s3cret"));
  EXPECT_OK(wrong.Get("a.txt"));
  EXPECT_FALSE(wrong.Collect().checkConnection());
}

TEST_F(Ftp, NobodyListeningIsNoConnection) {
  FtpRequest request(FreePort());
  EXPECT_FAILS(request.Get("a.txt"), TransferCode(CURLE_COULDNT_CONNECT), "[7]");
  EXPECT_TRUE(request.checkConnection());
}

TEST_F(Ftp, DataGoesOverExtendedPassiveModeUnlessTheDefaultsAreSet) {
  ASSERT_OK(m_request.Get("a.txt"));
  EXPECT_THAT(m_server.Log(), AllOf(HasSubstr("\"EPSV\""), Not(HasSubstr("\"PASV\""))));
  FtpRequest request(m_server.Port());
  ASSERT_OK(request.setDefaults());
  ASSERT_OK(request.Get("a.txt"));
  EXPECT_EQ(request.body.text, "text of a");
  EXPECT_THAT(m_server.Log(), HasSubstr("\"PASV\""));
}

TEST_F(Ftp, InActiveModeTheServerConnects) {
  const std::string port = std::to_string(FreePort());
  const struct {
    std::string host;
    std::string port;
    std::string command;
  } cases[] = {
      {"", "", "\"EPRT |1|127.0.0.1|"},
      {"127.0.0.1", port, "\"EPRT |1|127.0.0.1|" + port + "|\""},
      {"127.0.0.1", "", "\"EPRT |1|127.0.0.1|"},
      {"", "0", "\"EPRT |1|127.0.0.1|"},
  };
  const std::string bytes = RandomBytes(300000);
  for (const auto& [host, portNo, command] : cases) {
    SCOPED_TRACE(host + ":" + portNo);
    FtpServer server;
    FtpRequest request(server.Port());
    WriteFile(server.Login() / "file", bytes);
    ASSERT_OK(request.setActiveMode(host, portNo));
    EXPECT_OK(request.Get("file"));
    EXPECT_TRUE(request.body.text == bytes);
    EXPECT_THAT(server.Log(), AllOf(HasSubstr(command), Not(HasSubstr("PSV\""))));
    WriteFile(m_folder / "source", bytes);
    EXPECT_OK(request.uploadFile((m_folder / "source").c_str(), "sent", bytes.size(), {}));
    EXPECT_TRUE(ReadFile(server.Login() / "sent") == bytes);
    ASSERT_OK(request.disableActiveMode());
    EXPECT_OK(request.Get("file"));
    EXPECT_THAT(server.Log(), HasSubstr("\"EPSV\""));
  }
}

TEST_F(Ftp, ActiveModeNeedsAnAddressOfThisMachine) {
  ASSERT_OK(m_request.setActiveMode("192.0.2.1", ""));
  EXPECT_FAILS(m_request.Get("a.txt"), TransferCode(CURLE_FTP_PORT_FAILED), "[30]");
  ASSERT_OK(m_request.disableActiveMode());
  EXPECT_OK(m_request.Get("a.txt"));
}

TEST_F(Ftp, PairsAreSentAsCommandsBeforeTheTransfer) {
  ASSERT_OK(m_request.Get("a.txt", {{"MKD b", "2"}, {"MKD a", "0"}, {"MKD a", "1"}}));
  EXPECT_EQ(m_request.body.text, "text of a");
  EXPECT_TRUE(fs::is_directory(m_server.Login() / "a:1"));
  EXPECT_TRUE(fs::is_directory(m_server.Login() / "b:2"));
  EXPECT_FALSE(fs::exists(m_server.Login() / "a:0")) << "the later value counts";
  const std::string log = m_server.Log();
  EXPECT_LT(log.find("\"MKD a:1\""), log.find("\"MKD b:2\""));
  EXPECT_LT(log.find("\"MKD b:2\""), log.find("\"RETR a.txt\""));
}

TEST_F(Ftp, ARefusedCommandEndsTheRequest) {
  EXPECT_FAILS(m_request.Get("a.txt", {{"MKD absent/folder", "x"}}),
               TransferCode(CURLE_QUOTE_ERROR), "[21]");
  EXPECT_EQ(m_request.body.text, "");
  EXPECT_OK(Upload("x", "file"));
  EXPECT_EQ(Stored("login/file"), "x");
}

TEST_F(Ftp, CommandsAreSentAsTheyAre) {
  GiveToBob(m_server.Login() / "a.txt");
  ASSERT_OK(m_request.addQuoteCommand("SITE CHMOD 600 a.txt"));
  ASSERT_OK(m_request.addQuoteCommand("RNFR a.txt"));
  ASSERT_OK(m_request.addQuoteCommand("RNTO b.txt"));
  ASSERT_OK(m_request.Get("b.txt", {{"MKD folder", "x"}}));
  EXPECT_EQ(m_request.body.text, "text of a");
  EXPECT_EQ(fs::status(m_server.Login() / "b.txt").permissions(), fs::perms{0600});
  EXPECT_TRUE(fs::is_directory(m_server.Login() / "folder:x"));
  ASSERT_OK(m_request.Get("b.txt")) << "they count for one request";
  ASSERT_OK(m_request.addQuoteCommand("DELE absent"));
  EXPECT_FAILS(m_request.Get("b.txt"), TransferCode(CURLE_QUOTE_ERROR), "[21]");
}

#include <gmock/gmock.h>

#include <filesystem>

#include "servers/FileRequest.h"
#include "support/FileServers.h"

using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace fs = std::filesystem;

namespace {

class Sftp : public testing::Test {
 protected:
  Sftp() { WriteFile(m_server.Login() / "a.txt", "text of a"); }

  // The path of a request for a file of bob's; the first slash is the URL's.
  std::string Home(const std::string& name) { return m_server.Login() / name; }

  CZuError Upload(const std::string& bytes, const std::string& path) {
    WriteFile(m_folder / "source", bytes);
    return m_request.uploadFile((m_folder / "source").c_str(), path.c_str(), bytes.size(), {});
  }

  std::vector<std::string> List(const std::string& path) {
    EXPECT_OK(m_request.Collect().getFilesAndDirsInfoInFile(path));
    WriteFile(m_folder / "listing", m_request.body.text);
    std::vector<KdCURL::FileDirInfo> entries;
    EXPECT_OK(m_request.collectFilesAndDir(m_folder / "listing", &entries, ""));
    std::vector<std::string> names;
    for (const KdCURL::FileDirInfo& entry : entries) names.push_back(entry.name);
    return names;
  }

  TempDir m_folder;
  SftpServer m_server;
  SftpRequest m_request{m_server.Port()};
};

}  // namespace

TEST_F(Sftp, FilesArriveAsTheyAre) {
  for (const size_t size : {0U, 1U, 32767U, 32768U, 32769U, 1U << 20, 5000001U}) {
    SCOPED_TRACE(size);
    const std::string bytes = RandomBytes(size);
    ASSERT_OK(Upload(bytes, Home("file")));
    EXPECT_TRUE(ReadFile(m_server.Login() / "file") == bytes);
    ASSERT_OK(m_request.Get(Home("file").c_str()));
    EXPECT_TRUE(m_request.body.text == bytes);
    EXPECT_EQ(m_request.ResponseCode(), 0) << "SFTP has none";
  }
}

TEST_F(Sftp, PathsBeginAtTheRootOrInTheHome) {
  for (const std::string& path :
       {Home("a.txt"), "/" + Home("a.txt"), std::string("~/a.txt"),
        std::string("sftp://127.0.0.1/~/a.txt"), "sftp://127.0.0.1" + Home("a.txt")}) {
    SCOPED_TRACE(path);
    EXPECT_OK(m_request.Get(path.c_str()));
    EXPECT_EQ(m_request.body.text, "text of a");
  }
}

TEST_F(Sftp, MissingDirectoriesAreCreatedByAnUpload) {
  ASSERT_OK(Upload("deep", Home("new/sub/file")));
  EXPECT_EQ(ReadFile(m_server.Login() / "new/sub/file"), "deep");
}

TEST_F(Sftp, AnUploadReplacesTheFile) {
  ASSERT_OK(Upload(std::string(100, 'x'), Home("file")));
  ASSERT_OK(Upload("short", Home("file")));
  EXPECT_EQ(ReadFile(m_server.Login() / "file"), "short");
}

TEST_F(Sftp, AKeyOpensTheAccountToo) {
  ASSERT_OK(m_request.setCredentials("bob", ""));
  EXPECT_FAILS(m_request.Get("~/a.txt"), TransferCode(CURLE_LOGIN_DENIED), "[67]");
  ASSERT_OK(m_request.setOption(CURLOPT_SSH_PUBLIC_KEYFILE, m_server.PublicKey().string()));
  ASSERT_OK(m_request.setOption(CURLOPT_SSH_PRIVATE_KEYFILE, m_server.Key().string()));
  for (int round = 0; round < 2; ++round) {
    ASSERT_OK(m_request.Get("~/a.txt"));
    EXPECT_EQ(m_request.body.text, "text of a");
    ASSERT_OK(Upload("by key", Home("file")));
    EXPECT_EQ(ReadFile(m_server.Login() / "file"), "by key");
  }
}

TEST_F(Sftp, OnlyTheWaysThatAreSetAreTried) {
  SftpRequest byPassword(m_server.Port());
  ASSERT_OK(byPassword.setFTPAuth(CURLSSH_AUTH_PASSWORD));
  EXPECT_OK(byPassword.Get("~/a.txt"));
  SftpRequest byKey(m_server.Port());
  ASSERT_OK(byKey.setFTPAuth(CURLSSH_AUTH_PUBLICKEY));
  EXPECT_FAILS(byKey.Get("~/a.txt"), TransferCode(CURLE_LOGIN_DENIED), "[67]")
      << "the password is right, but not to be used";
  ASSERT_OK(byKey.setOption(CURLOPT_SSH_PRIVATE_KEYFILE, m_server.Key().string()));
  EXPECT_OK(byKey.Get("~/a.txt"));
}

TEST_F(Sftp, WrongCredentialsAreRefused) {
  EXPECT_FALSE(m_request.Collect().checkConnection());
  SftpRequest request(m_server.Port());
  ASSERT_OK(request.setCredentials("bob", "wrong"));
  EXPECT_FAILS(request.Get("~/a.txt"), TransferCode(CURLE_LOGIN_DENIED), "[67]");
  EXPECT_TRUE(request.checkConnection());
  ASSERT_OK(request.setOption(CURLOPT_SSH_PRIVATE_KEYFILE, m_server.OtherKey().string()));
  EXPECT_FAILS(request.Get("~/a.txt"), TransferCode(CURLE_LOGIN_DENIED), "[67]");
  ASSERT_OK(request.setCredentials("nobody-here", "s3cret"));
  EXPECT_FAILS(request.Get("~/a.txt"), TransferCode(CURLE_LOGIN_DENIED), "[67]");
  EXPECT_EQ(request.body.text, "");
}

TEST_F(Sftp, TheServerIsKnownByItsKey) {
  ASSERT_OK(m_request.setOption(CURLOPT_SSH_HOST_PUBLIC_KEY_SHA256, m_server.HostKeyHash()));
  EXPECT_OK(m_request.Get("~/a.txt"));
  SftpRequest other(m_server.Port());
  ASSERT_OK(other.setOption(CURLOPT_SSH_HOST_PUBLIC_KEY_SHA256, std::string(43, 'A')));
  EXPECT_FAILS(other.Get("~/a.txt"), TransferCode(CURLE_PEER_FAILED_VERIFICATION), "[60]");
}

TEST_F(Sftp, KeysAreCheckedOnceAFileOfKnownHostsIsGiven) {
  const TempDir folder;
  const std::string known = folder / "known_hosts";
  WriteFile(known, "");
  EXPECT_OK(m_request.Get("~/a.txt")) << "any key is taken before";
  SftpRequest request(m_server.Port());
  ASSERT_OK(request.setOption(CURLOPT_SSH_KNOWNHOSTS, known));
  const CZuError error = request.Get("~/a.txt");
  EXPECT_FAILS(error, TransferCode(CURLE_PEER_FAILED_VERIFICATION), "Error Message : []");
  EXPECT_THAT(error.AsString(), testing::HasSubstr("SSL peer certificate or SSH remote key"))
      << "in libcurl's words";
  EXPECT_THAT(
      error.AsString(),
      testing::HasSubstr("URL [sftp://127.0.0.1:" + std::to_string(m_server.Port()) + "/~/a.txt]"));
  WriteFile(known, "[127.0.0.1]:" + std::to_string(m_server.Port()) + " " +
                       ReadFile(m_server.Folder() / "host.pub"));
  SftpRequest friendly(m_server.Port());
  ASSERT_OK(friendly.setOption(CURLOPT_SSH_KNOWNHOSTS, known));
  EXPECT_OK(friendly.Get("~/a.txt"));
  EXPECT_EQ(friendly.body.text, m_request.body.text);
}

TEST_F(Sftp, WhatCannotBeDoneTellsWhy) {
  const fs::path closed = m_server.Folder() / "closed";
  const std::string secret = closed / "secret";
  WriteFile(secret, "secret");
  fs::permissions(secret, fs::perms{});
  fs::permissions(closed, fs::perms{0555});
  EXPECT_FAILS(m_request.Get("~/absent"), TransferCode(CURLE_REMOTE_FILE_NOT_FOUND), "[78]");
  EXPECT_FAILS(m_request.Get("~/absent/file"), TransferCode(CURLE_REMOTE_FILE_NOT_FOUND), "[78]");
  EXPECT_FAILS(m_request.Get(secret.c_str()), TransferCode(CURLE_REMOTE_ACCESS_DENIED), "[9]");
  EXPECT_EQ(m_request.body.text, "");
  EXPECT_FAILS(Upload("new", secret), TransferCode(CURLE_REMOTE_ACCESS_DENIED), "[9]");
  EXPECT_FAILS(Upload("new", closed / "new"), TransferCode(CURLE_REMOTE_ACCESS_DENIED), "[9]");
  EXPECT_FALSE(fs::exists(closed / "new"));
  EXPECT_OK(m_request.Get("~/a.txt"));
  fs::permissions(secret, fs::perms{0600});
  EXPECT_EQ(ReadFile(secret), "secret");
  fs::permissions(closed, fs::perms{0755});  // to be removed
}

TEST_F(Sftp, AMissingSourceFileSendsNothing) {
  EXPECT_FAILS(m_request.uploadFile("/absent/source", "~/file", 5, {}), ErrNoCode(ENOENT),
               "Failed to open file [/absent/source]");
  EXPECT_FALSE(fs::exists(m_server.Login() / "file"));
}

TEST_F(Sftp, NobodyListeningIsNoConnection) {
  SftpRequest request(FreePort());
  EXPECT_FAILS(request.Get("~/a.txt"), TransferCode(CURLE_COULDNT_CONNECT), "[7]");
  EXPECT_TRUE(request.checkConnection());
}

TEST_F(Sftp, ListingsAreReadWhenLenient) {
  fs::create_directory(m_server.Login() / "folder");
  EXPECT_THAT(List("~"), IsEmpty()) << "the strict reading wants CR LF";
  m_request.setLenientListing(true);
  EXPECT_THAT(List("~"), UnorderedElementsAre("a.txt", "folder")) << "without . and ..";
  EXPECT_THAT(List(Home("")), UnorderedElementsAre("a.txt", "folder"));
  EXPECT_THAT(List("~/folder/"), IsEmpty());
  EXPECT_FAILS(m_request.Collect().getFilesAndDirsInfoInFile("~/absent"),
               TransferCode(CURLE_REMOTE_FILE_NOT_FOUND), "[78]");
}

TEST_F(Sftp, SizesAreTold) {
  fs::resize_file(m_server.Login() / "a.txt", (std::uintmax_t{5} << 30) + 3);  // a hole
  double size = -5.0;
  EXPECT_OK(m_request.getFileInfo("~/a.txt", size));
  EXPECT_EQ(size, 5368709123.0);
  EXPECT_FAILS(m_request.getFileInfo("~/absent", size), TransferCode(CURLE_REMOTE_FILE_NOT_FOUND),
               "[78]");
  EXPECT_EQ(size, 5368709123.0) << "left alone";
}

TEST_F(Sftp, AnEmptyFileIsOneWithoutASize) {
  WriteFile(m_server.Login() / "empty", "");
  double size = -5.0;
  EXPECT_FAILS(m_request.getFileInfo("~/empty", size), TransferCode(0),
               "File size recieved from server is invalid");
  EXPECT_EQ(size, -5.0);
  bool exists = true;
  EXPECT_OK(m_request.checkIfFileOrDirExists("~/empty", true, exists));
  EXPECT_FALSE(exists);
}

TEST_F(Sftp, FilesAreFound) {
  bool exists = false;
  EXPECT_OK(m_request.checkIfFileOrDirExists("~/a.txt", true, exists));
  EXPECT_TRUE(exists);
  EXPECT_FAILS(m_request.checkIfFileOrDirExists("~/absent", true, exists), IntCode(1),
               "Failed to check if File exists.Error Code : [78]. Error Message [");
}

TEST_F(Sftp, NoServerIsAskedAboutAFolder) {
  for (const char* const path : {"~", "~/a.txt", "~/absent"}) {
    SCOPED_TRACE(path);
    bool exists = false;
    EXPECT_OK(m_request.checkIfFileOrDirExists(path, false, exists));
    EXPECT_TRUE(exists);
    bool isFile = true;
    EXPECT_OK(m_request.IsFile(path, isFile));
    EXPECT_FALSE(isFile);
  }
}

TEST_F(Sftp, TheConnectionIsTold) {
  std::string text;
  ASSERT_OK(m_request.Get("~/a.txt"));
  EXPECT_OK(m_request.Collect().getInfo(KdCURL::CURL_PRIMARY_IP, text));
  EXPECT_EQ(text, "127.0.0.1");
  EXPECT_OK(m_request.Collect().getInfo(KdCURL::CURL_EFFECTIVE_URL, text));
  EXPECT_EQ(text, "sftp://127.0.0.1:" + std::to_string(m_server.Port()) + "/~/a.txt");
}

TEST_F(Sftp, CommandsAreSentAsTheyAre) {
  ASSERT_OK(m_request.addQuoteCommand("rename " + Home("a.txt") + " " + Home("b.txt")));
  ASSERT_OK(m_request.addQuoteCommand("mkdir " + Home("folder")));
  ASSERT_OK(m_request.Get("~/b.txt"));
  EXPECT_EQ(m_request.body.text, "text of a");
  EXPECT_TRUE(fs::is_directory(m_server.Login() / "folder"));
  ASSERT_OK(m_request.addQuoteCommand("rm " + Home("absent")));
  EXPECT_FAILS(m_request.Get("~/b.txt"), TransferCode(CURLE_QUOTE_ERROR), "[21]");
  EXPECT_OK(m_request.Get("~/b.txt"));
}

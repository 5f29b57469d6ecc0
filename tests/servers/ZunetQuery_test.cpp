#include "ZunetTest.h"
#include "support/FileServers.h"
#include "support/RawServer.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace fs = std::filesystem;

namespace {

constexpr char kDirectives[] = R"(
location /401 { return 401; }
location /403 { return 403; }
location /410 { return 410; }
location /500 { return 500; }
location /304 { return 304; }
location /300 { return 300; }
location /moved { return 302 /files/a.txt; }
location = /lengthless { echo -n text; }
location /files/ { dav_methods PUT DELETE; autoindex on; }
)";

class ZunetQuery : public ZunetTest {
 protected:
  std::string Url(const std::string& path) const { return Local("http", m_server.Port(), path); }
  fs::path Served(const std::string& name) const { return m_server.Folder() / ("www/" + name); }

  void ExpectPresent(const std::string& url, const std::string& options = "") {
    const Outcome outcome = RunZunet("exists '" + url + "'" + options);
    EXPECT_EQ(outcome.status, 0) << url << outcome.err;
    EXPECT_EQ(outcome.out, "exists\n") << url;
  }
  void ExpectAbsent(const std::string& url, const std::string& options = "") {
    const Outcome outcome = RunZunet("exists '" + url + "'" + options);
    EXPECT_EQ(outcome.status, 1) << url << outcome.err;
    EXPECT_EQ(outcome.out, "absent\n") << url;
    EXPECT_THAT(outcome.err, IsEmpty()) << url;
  }
  void ExpectUnknown(const std::string& url, const std::string& options, const char* reason) {
    const Outcome outcome = RunZunet("exists '" + url + "'" + options);
    EXPECT_EQ(outcome.status, 2) << url;
    EXPECT_THAT(outcome.out, IsEmpty()) << url;
    EXPECT_THAT(outcome.err, HasSubstr(reason)) << url;
  }

  NginxServer m_server{kDirectives};
};

}  // namespace

TEST_F(ZunetQuery, ExistsTellsPresentAbsentAndNotKnownOverHttp) {
  WriteFile(Served("files/a.txt"), "12345");
  for (const char* path : {"/files/a.txt", "/files/", "/moved", "/lengthless"}) {
    ExpectPresent(Url(path));
  }
  for (const char* path : {"/files/none", "/none/", "/410", "/410/"}) ExpectAbsent(Url(path));
  for (const char* path : {"401", "403", "500", "300", "304"}) {
    ExpectUnknown(Url(std::string("/") + path), "", path);
    ExpectUnknown(Url(std::string("/") + path + "/"), "", path);
  }
  ExpectUnknown("http://127.0.0.1:1/x", "", "onnect");
  ExpectUnknown("http://127.0.0.1:1/x/", "", "onnect");
}

TEST_F(ZunetQuery, ExistsTellsPresentAbsentAndNotKnownOverFtp) {
  const FtpServer server;
  const std::string bob = " --user bob:s3cret";
  const auto url = [&](const char* path) { return Local("ftp", server.Port(), path); };
  WriteFile(server.Login() / "folder/a.txt", "text");
  WriteFile(server.Login() / "empty", "");
  for (const char* path : {"/folder/a.txt", "/empty", "/folder/", "/"}) {
    ExpectPresent(url(path), bob);
  }
  for (const char* path : {"/none", "/none/", "/none/a.txt", "/folder/none"}) {
    ExpectAbsent(url(path), bob);
  }
  ExpectUnknown(url("/empty"), " --user bob:wrong", "denied");
  ExpectUnknown(url("/folder/"), " --user bob:wrong", "denied");
}

TEST_F(ZunetQuery, ExistsDoesNotKnowOfFilesThatAnFtpServerTellsNothingOf) {
  const RawServer server({[](Peer& peer) {
    peer.Send("220 hello\r\n");
    for (std::string line = peer.ReadUntil("\r\n"); !line.empty(); line = peer.ReadUntil("\r\n")) {
      const std::string word = line.substr(0, 4);
      const char* answer = "230 ok\r\n";
      if (word == "PWD\r") answer = "257 \"/\"\r\n";
      if (word == "SIZE" || word == "MDTM") answer = "500 what\r\n";
      if (word == "REST") answer = "350 go on\r\n";
      if (!peer.Send(answer)) {
        return;
      }
    }
  }});
  ExpectUnknown(Local("ftp", server.Port(), "/file"), "", "neither size nor time");
}

TEST_F(ZunetQuery, ExistsTellsPresentAbsentAndNotKnownOverSftp) {
  const SftpServer server;
  const std::string bob = " --user bob:s3cret --insecure";
  const auto url = [&](const std::string& path) { return Local("sftp", server.Port(), path); };
  WriteFile(server.Login() / "folder/a.txt", "text");
  WriteFile(server.Login() / "empty", "");
  WriteFile(server.Login() / "closed/x", "");
  for (const char* path : {"/~/folder/a.txt", "/~/empty", "/~/folder/", "/~/"}) {
    ExpectPresent(url(path), bob);
  }
  for (const char* path : {"/~/none", "/~/none/", "/~/none/x", "/~/none/x/"}) {
    ExpectAbsent(url(path), bob);
  }
  ExpectUnknown(url("/~/empty"), " --user bob:wrong --insecure", "uthentication");
  ExpectUnknown(url("/~/folder/"), " --user bob:wrong --insecure", "uthentication");
  const fs::path closed = server.Folder() / "closed";
  WriteFile(closed / "x", "");
  fs::permissions(closed, fs::perms::none);
  ExpectUnknown(url((closed / "").string()), bob, "");
  ExpectUnknown(url((closed / "x").string()), bob, "");
  fs::permissions(closed, fs::perms::owner_all);
}

TEST_F(ZunetQuery, SizeIsThatOfTheFileAlone) {
  WriteFile(Served("files/a.txt"), "12345");
  EXPECT_EQ(RunZunet("size " + Url("/files/a.txt")).out, "5\n");
  EXPECT_EQ(RunZunet("size " + Url("/moved")).out, "5\n");
  for (const char* path : {"/304", "/300", "/403", "/files/none", "/lengthless"}) {
    const Outcome outcome = RunZunet("size " + Url(path));
    EXPECT_EQ(outcome.status, 2) << path;
    EXPECT_THAT(outcome.out, IsEmpty()) << path;
  }
}

TEST_F(ZunetQuery, HeadPrintsStatusAndHeadersOfTheLastAnswer) {
  WriteFile(Served("files/a.txt"), "12345");
  for (const char* path : {"/files/a.txt", "/moved"}) {
    const Outcome found = RunZunet("head " + Url(path));
    EXPECT_EQ(found.status, 0) << path;
    EXPECT_THAT(found.out, testing::StartsWith("HTTP/1.1 200 OK\nServer: nginx")) << path;
    EXPECT_THAT(found.out, AllOf(HasSubstr("\nContent-Length: 5\n"), Not(HasSubstr("302")),
                                 Not(HasSubstr("\r"))));
  }
  const Outcome missing = RunZunet("head " + Url("/files/none"));
  EXPECT_EQ(missing.status, 2);
  EXPECT_THAT(missing.out, testing::StartsWith("HTTP/1.1 404 Not Found\n"));
  EXPECT_THAT(missing.err, HasSubstr("404"));
  const RawServer odd({RawServer::Answer("HTTP/1.1 200 OK\r\nX-Odd: a\x1b[31m\r\n\r\n")});
  EXPECT_THAT(RunZunet("head " + Local("http", odd.Port(), "/")).out,
              HasSubstr("X-Odd: a\\x1b[31m\n"));
  EXPECT_GT(RunZunet("head ftp://127.0.0.1/").status, 100);
}

TEST_F(ZunetQuery, ListShowsTheEntriesOfAFolder) {
  WriteFile(Served("files/a b.txt"), "");
  WriteFile(Served("files/folder/x"), "");
  for (const char* path : {"/files/", "/files"}) {
    EXPECT_EQ(RunZunet("ls " + Url(path)).out, "folder/\na b.txt\n") << path;
  }
  for (const char* path : {"/none/", "/300/", "/304/"}) {
    EXPECT_EQ(RunZunet("ls " + Url(path)).status, 2) << path;
  }
  EXPECT_THAT(Files(), IsEmpty());
}

TEST_F(ZunetQuery, ListedNamesDoNotReachTheTerminalRaw) {
  WriteFile(Served("files/\x1b[31mred\x07"), "");
  WriteFile(Served("files/caf\xc3\xa9"), "");
  const FtpServer server;
  WriteFile(server.Login() / "a\x1b]0;title\x07", "");
  for (const std::string& command :
       {"ls " + Url("/files/"), "ls " + Local("ftp", server.Port(), "/") + " --user bob:s3cret"}) {
    const Outcome outcome = RunZunet(command);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_THAT(outcome.out, AllOf(Not(HasSubstr("\x1b")), Not(HasSubstr("\x07"))));
  }
  EXPECT_THAT(RunZunet("ls " + Url("/files/")).out, HasSubstr("caf\xc3\xa9\n"));
}

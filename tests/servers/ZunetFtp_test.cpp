#include "ZunetTest.h"
#include "support/FileServers.h"
#include "support/RawServer.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace fs = std::filesystem;

namespace {

constexpr char kBob[] = " --user bob:s3cret";

class ZunetFtp : public ZunetTest {
 protected:
  static std::string Url(const FtpServer& server, const std::string& path) {
    return "'" + Local("ftp", server.Port(), path) + "'";
  }
};

// Speaks FTP as far as a login; what else comes is refused.
void RefuseCommands(Peer& peer) {
  peer.Send("220 hello\r\n");
  for (std::string line = peer.ReadUntil("\r\n"); !line.empty(); line = peer.ReadUntil("\r\n")) {
    const std::string word = line.substr(0, 4);
    const bool isLogin = word == "USER" || word == "PASS";
    if (!peer.Send(isLogin ? "230 in\r\n" : word == "PWD\r" ? "257 \"/\"\r\n" : "500 no\r\n"))
      return;
  }
}

}  // namespace

TEST_F(ZunetFtp, FilesComeAndGo) {
  const FtpServer server;
  WriteFile(m_folder / "a.txt", "text");
  for (const char* mode : {"", " --active"}) {
    SCOPED_TRACE(mode);
    EXPECT_EQ(RunZunet("put a.txt " + Url(server, "/new/a.txt") + kBob + mode).status, 0);
    EXPECT_EQ(ReadFile(server.Login() / "new/a.txt"), "text");
    EXPECT_EQ(RunZunet("get " + Url(server, "/new/a.txt") + kBob + mode).out, "text");
    EXPECT_EQ(RunZunet("ls " + Url(server, "/new") + kBob + mode).out, "a.txt\n");
    EXPECT_EQ(RunZunet("delete " + Url(server, "/new/a.txt") + kBob + mode).status, 0);
    EXPECT_FALSE(fs::exists(server.Login() / "new/a.txt"));
  }
  EXPECT_EQ(RunZunet("put - " + Url(server, "/piped") + kBob, "printf piped |").status, 0);
  EXPECT_EQ(ReadFile(server.Login() / "piped"), "piped");
  EXPECT_EQ(RunZunet("put a.txt " + Url(server, "/") + kBob).status, 0);
  EXPECT_EQ(ReadFile(server.Login() / "a.txt"), "text");
}

TEST_F(ZunetFtp, DeleteRemovesTheFileThatTheUrlNames) {
  const FtpServer server;
  const std::pair<const char*, const char*> cases[] = {
      {"/a%20b", "login/a b"},
      {"/%20a", "login/ a"},
      {"/folder/a%3Bb", "login/folder/a;b"},
      {"//top", "top"},
      {"/%2Ftop", "top"},
      {"/a;type=a", "login/a"},
      {"/quote%22%5C", "login/quote\"\\"},
      {"/a?b", "login/a"},
  };
  for (const auto& [path, name] : cases) {
    SCOPED_TRACE(path);
    WriteFile(server.Root() / name, "x");
    GiveToBob((server.Root() / name).parent_path());
    const Outcome got = RunZunet("get " + Url(server, path) + kBob);
    EXPECT_EQ(got.out, "x") << got.err;
    const Outcome outcome = RunZunet("delete " + Url(server, path) + kBob);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_FALSE(fs::exists(server.Root() / name));
  }
}

TEST_F(ZunetFtp, DeleteRefusesWhatWouldBeAnotherCommandOrFile) {
  const FtpServer server;
  for (const char* name : {"a", "b", "file"}) WriteFile(server.Login() / name, "x");
  for (const char* path : {"/a%0d%0aDELE%20b", "/a%0aDELE%20b", "/file%00x", "/a%7f", "/folder/",
                           "/x/../a", "/./a", "/%2e%2e/a"}) {
    const Outcome outcome = RunZunet("delete " + Url(server, path) + kBob);
    EXPECT_GT(outcome.status, 2) << path;
    EXPECT_THAT(outcome.err, HasSubstr("URL")) << path;
  }
  for (const char* name : {"a", "b", "file"})
    EXPECT_TRUE(fs::exists(server.Login() / name)) << name;
  EXPECT_THAT(server.Log(), Not(HasSubstr("USER")));
}

TEST_F(ZunetFtp, TlsProtectsFilesTooUnlessToldOtherwise) {
  const Certificates certificates;
  const FtpServer server(certificates.RightHost());
  WriteFile(server.Login() / "a.txt", "text");
  const std::string get =
      "get " + Url(server, "/a.txt") + kBob + " --cacert " + certificates.Authority().string();
  EXPECT_EQ(RunZunet(get + " --tls").out, "text");
  EXPECT_THAT(server.Log(), AllOf(HasSubstr("\"PROT P\""), Not(HasSubstr("\"PROT C\""))));
  EXPECT_EQ(RunZunet(get + " --tls-control").out, "text");
  EXPECT_THAT(server.Log(), HasSubstr("\"PROT C\""));
}

TEST_F(ZunetFtp, TlsWorksWithAServerThatDemandsIt) {
  const Certificates certificates;
  const FtpServer server(certificates.RightHost(),
                         "force_local_data_ssl=YES\nforce_local_logins_ssl=YES\n");
  WriteFile(server.Login() / "a.txt", "text");
  const std::string get = "get " + Url(server, "/a.txt") + kBob + " --cacert " +
                          certificates.Authority().string() + " --limit-idle 2";
  EXPECT_EQ(RunZunet(get + " --tls").out, "text");
  EXPECT_EQ(RunZunet(get + " --tls-control").status, 2);
  EXPECT_EQ(RunZunet(get).status, 2);
}

TEST_F(ZunetFtp, TlsIsNeverGoneWithout) {
  RawServer server({RefuseCommands});
  const std::string url = Local("ftp", server.Port(), "/a.txt");
  EXPECT_EQ(RunZunet("get " + url + kBob + " --tls --insecure").status, 2);
  EXPECT_EQ(RunZunet("get " + url + kBob + " --tls-control --insecure").status, 2);
  for (const std::string& received : server.Received(2)) {
    EXPECT_THAT(received, Not(HasSubstr("PASS")));
  }
}

TEST_F(ZunetFtp, FtpsIsTlsFromTheFirstByte) {
  const Certificates certificates;
  const FtpServer server(certificates.RightHost(), "implicit_ssl=YES\nforce_local_data_ssl=YES\n");
  WriteFile(server.Login() / "a.txt", "text");
  WriteFile(m_folder / "b.txt", "more");
  const std::string trust = kBob + (" --cacert " + certificates.Authority().string());
  const std::string url = Local("ftps", server.Port(), "");
  EXPECT_EQ(RunZunet("get " + url + "/a.txt" + trust).out, "text");
  EXPECT_EQ(RunZunet("put b.txt " + url + "/" + trust).status, 0);
  EXPECT_EQ(ReadFile(server.Login() / "b.txt"), "more");
  EXPECT_EQ(RunZunet("ls FTPS://127.0.0.1:" + std::to_string(server.Port()) + "/" + trust).out,
            "a.txt\nb.txt\n");
  EXPECT_EQ(RunZunet("delete " + url + "/a.txt" + trust).status, 0);
  EXPECT_FALSE(fs::exists(server.Login() / "a.txt"));
  EXPECT_EQ(RunZunet("get " + url + "/b.txt" + kBob).status, 2);
}

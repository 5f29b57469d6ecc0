#include "ZunetTest.h"
#include "support/RawServer.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace fs = std::filesystem;

namespace {

constexpr char kDirectives[] = R"(
location = /headers { echo -n $echo_client_request_headers; }
location = /401 { return 401 "the page of a refusal"; }
)";

class Zunet : public ZunetTest {
 protected:
  std::string Url(const std::string& path) const { return Local("http", m_server.Port(), path); }

  static std::string RawUrl(const RawServer& server) {
    return Local("http", server.Port(), "/file");
  }

  fs::path Served(const std::string& name) const { return m_server.Folder() / ("www/" + name); }

  NginxServer m_server{kDirectives};
};

}  // namespace

TEST_F(Zunet, GetWritesToStandardOutputAndSaysNothingElse) {
  WriteFile(Served("files/a.txt"), std::string("one\0two", 7));
  const Outcome outcome = RunZunet("get " + Url("/files/a.txt"));
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, std::string("one\0two", 7));
  EXPECT_THAT(outcome.err, IsEmpty());
}

TEST_F(Zunet, GetReplacesTheFileAndKeepsItsPermissions) {
  WriteFile(Served("files/a.txt"), "new");
  WriteFile(m_folder / "a.txt", "an older and longer one");
  fs::permissions(m_folder / "a.txt", fs::perms::owner_read | fs::perms::owner_write);
  ASSERT_EQ(RunZunet("get " + Url("/files/a.txt") + " -o a.txt").status, 0);
  EXPECT_EQ(ReadFile(m_folder / "a.txt"), "new");
  EXPECT_EQ(fs::status(m_folder / "a.txt").permissions(),
            fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_THAT(Files(), testing::ElementsAre("a.txt"));
}

TEST_F(Zunet, FailedGetLeavesTheGoodFileAndNothingBeside) {
  const RawServer closing(
      {RawServer::Answer("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\npart")});
  const struct {
    std::string url;
    const char* text;
  } cases[] = {{Url("/files/absent"), "the server answered 404; check the path"},
               {Url("/401"), "the server answered 401; log in with --user"},
               {RawUrl(closing), "bytes remaining to read; the connection broke off"},
               {"http://127.0.0.1:1/file", "Failed to connect to 127.0.0.1 port 1"}};
  for (const auto& [url, text] : cases) {
    SCOPED_TRACE(url);
    WriteFile(m_folder / "good", "good");
    const Outcome outcome = RunZunet("get " + url + " -o good");
    EXPECT_EQ(outcome.status, 2);
    EXPECT_THAT(outcome.out, IsEmpty());
    EXPECT_THAT(outcome.err, AllOf(StartsWith("zunet: "), HasSubstr(text)));
    EXPECT_EQ(ReadFile(m_folder / "good"), "good");
    EXPECT_THAT(Files(), testing::ElementsAre("good"));
  }
}

TEST_F(Zunet, PageOfARefusalIsNotTakenForTheFile) {
  const Outcome outcome = RunZunet("get " + Url("/401"));
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.out, IsEmpty());
}

TEST_F(Zunet, UnwritableTargetIsNamedWithTheReason) {
  WriteFile(Served("files/a.txt"), "text");
  EXPECT_THAT(RunZunet("get " + Url("/files/a.txt") + " -o no/such/folder").err,
              AllOf(HasSubstr("no/such/folder"), HasSubstr("No such file or directory")));
  EXPECT_THAT(RunZunet("get " + Url("/files/a.txt") + " -o /dev/full").err,
              HasSubstr("No space left on device"));
  EXPECT_EQ(RunZunet("get " + Url("/files/a.txt") + " -o /dev/null").status, 0);
  EXPECT_TRUE(fs::is_character_file("/dev/null"));
}

TEST_F(Zunet, UrlsMayLackAPathOrCarryAnotherUrl) {
  WriteFile(Served("index.html"), "home");
  EXPECT_EQ(RunZunet("get " + Url("")).out, "home");
  EXPECT_EQ(RunZunet("get '" + Url("?x=http://elsewhere/y") + "'").out, "home");
  EXPECT_THAT(RunZunet("get '" + Url("/headers?x=http://elsewhere/y") + "'").out,
              StartsWith("GET /headers?x=http://elsewhere/y HTTP/1.1\r\n"));
}

TEST_F(Zunet, TraceIsToldOnDemandWithoutSecrets) {
  const Outcome outcome =
      RunZunet("get " + Url("/headers") +
               " -v --user bob:s3cret -H 'Authorization: Basic Ym9iOnMzY3JldA=='");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.err, AllOf(HasSubstr("> GET /headers"), HasSubstr("< HTTP/1.1 200")));
  EXPECT_THAT(outcome.err, AllOf(Not(HasSubstr("s3cret")), Not(HasSubstr("Ym9iOnMzY3JldA"))));
}

TEST_F(Zunet, ServersAreVerifiedUnlessToldOtherwise) {
  const Certificates certificates;
  const NginxServer secure("location / { return 200 secure; }", certificates.RightHost());
  const std::string url = "get https://127.0.0.1:" + std::to_string(secure.Port()) + "/";
  EXPECT_THAT(RunZunet(url).err, HasSubstr("--cacert"));
  EXPECT_EQ(RunZunet(url + " --insecure").out, "secure");
  EXPECT_EQ(RunZunet(url + " --cacert " + certificates.Authority().string()).out, "secure");
  EXPECT_EQ(RunZunet(url + " --cacert " + certificates.OtherAuthority().string()).status, 2);
}

TEST_F(Zunet, LimitTimeEndsARequestThatGetsNoAnswer) {
  const RawServer silent({[](Peer& peer) { peer.WaitForClose(); }});
  const Outcome outcome = RunZunet("get " + RawUrl(silent) + " --limit-time 1");
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.err, HasSubstr("timed out"));
}

TEST_F(Zunet, WrongUsageIsRefusedWithTheReason) {
  const struct {
    const char* arguments;
    const char* text;
  } cases[] = {{"", "subcommand"},
               {"get", "URL"},
               {"get http:///x", "http:///x names no host"},
               {"get http://host/ --tls --tls-control", "excludes"},
               {"get http://host/ --no-limit --limit-idle 5", "excludes"},
               {"get gopher://host/x", "gopher://host/x begins with none of"},
               {"get http://host/ --limit-time -1", "limit-time"},
               {"get http://host/ --resume", "--output"},
               {"post http://host/ -d x -f y", "excludes"},
               {"post ftp://host/ -d x", "HTTP alone"},
               {"get ftp://host/x -H a:b", "HTTP alone"},
               {"get http://host/ --unknown", "--unknown"}};
  for (const auto& [arguments, text] : cases) {
    const Outcome outcome = RunZunet(arguments);
    EXPECT_GT(outcome.status, 100) << arguments;
    EXPECT_THAT(outcome.err, HasSubstr(text)) << arguments;
  }
}

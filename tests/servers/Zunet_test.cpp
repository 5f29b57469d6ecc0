#include <gmock/gmock.h>
#include <sys/wait.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <thread>

#include "support/Process.h"
#include "support/RawServer.h"
#include "support/Servers.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace fs = std::filesystem;

namespace {

constexpr char kDirectives[] = R"(
location = /echo { echo_read_request_body; echo_request_body; }
location = /what { echo_read_request_body; echo -n "$request_method "; echo_request_body; }
location = /headers { echo -n $echo_client_request_headers; }
location = /401 { return 401 "the page of a refusal"; }
location = /moved { return 302 /files/moved.txt; }
location /files/ { dav_methods PUT DELETE; create_full_put_path on; autoindex on; }
)";

struct Outcome {
  int status = -1;
  std::string out;
  std::string err;
};

class Zunet : public testing::Test {
 protected:
  // The arguments go through the shell.
  Outcome RunZunet(const std::string& arguments) const {
    const fs::path out = m_folder / "stdout";
    const fs::path err = m_folder / "stderr";
    const std::string command = "cd '" + m_folder.Path().string() +
                                "' && timeout 60 " ZUNET_PROGRAM " " + arguments +
                                " </dev/null >'" + out.string() + "' 2>'" + err.string() + "'";
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile(out), ReadFile(err)};
  }

  std::string Url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(m_server.Port()) + path;
  }

  static std::string RawUrl(const RawServer& server) {
    return "http://127.0.0.1:" + std::to_string(server.Port()) + "/file";
  }

  fs::path Served(const std::string& name) const { return m_server.Folder() / ("www/" + name); }

  // The files of the working folder, but for the captured output.
  std::vector<std::string> Files() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(m_folder.Path())) {
      const std::string name = entry.path().filename();
      if (name != "stdout" && name != "stderr") names.push_back(name);
    }
    return names;
  }

  NginxServer m_server{kDirectives};
  TempDir m_folder;
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

TEST_F(Zunet, InterruptedGetLeavesTheGoodFileAndNothingBeside) {
  RawServer silent({[](Peer& peer) {
    peer.ReadHttpRequest();
    peer.Send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\npart");
    peer.WaitForClose();
  }});
  WriteFile(m_folder / "good", "good");
  const Process zunet({ZUNET_PROGRAM, "get", RawUrl(silent), "-o", m_folder / "good"},
                      m_folder / "stderr");
  for (int i = 0; i < 500 && Files().size() < 2; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_EQ(Files().size(), 2u) << "the download has not begun";
  kill(zunet.Id(), SIGINT);
  ASSERT_TRUE(zunet.WaitForEnd(std::chrono::seconds(10)));
  EXPECT_EQ(zunet.ExitStatus(), 2);
  EXPECT_THAT(ReadFile(m_folder / "stderr"), HasSubstr("Callback aborted"));
  EXPECT_EQ(ReadFile(m_folder / "good"), "good");
  EXPECT_THAT(Files(), testing::ElementsAre("good"));
}

TEST_F(Zunet, ResumeGoesOnWithThePartThatIsThere) {
  const std::string whole = "0123456789";
  WriteFile(Served("files/a.txt"), whole);
  for (const size_t part : {size_t{0}, size_t{4}, whole.size()}) {
    SCOPED_TRACE(part);
    WriteFile(m_folder / "a.txt.part", "ABCDEFGHIJ" + std::string());
    fs::resize_file(m_folder / "a.txt.part", part);
    ASSERT_EQ(RunZunet("get " + Url("/files/a.txt") + " -o a.txt --resume").status, 0);
    EXPECT_EQ(ReadFile(m_folder / "a.txt"), std::string("ABCDEFGHIJ", part) + whole.substr(part));
    EXPECT_THAT(Files(), testing::ElementsAre("a.txt"));
  }
  const RawServer closing({RawServer::Answer("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhalf")});
  EXPECT_EQ(RunZunet("get " + RawUrl(closing) + " -o b.txt --resume").status, 2);
  EXPECT_EQ(ReadFile(m_folder / "b.txt.part"), "half");
}

TEST_F(Zunet, PutSendsTheFileAsItIs) {
  for (const std::string& content : {std::string("one\0two", 7), std::string()}) {
    SCOPED_TRACE(content.size());
    WriteFile(m_folder / "a.bin", content);
    const Outcome outcome = RunZunet("put a.bin " + Url("/files/new/a.bin"));
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(ReadFile(Served("files/new/a.bin")), content);
  }
  const Outcome missing = RunZunet("put missing.bin " + Url("/files/b.bin"));
  EXPECT_EQ(missing.status, 2);
  EXPECT_THAT(missing.err, AllOf(HasSubstr("missing.bin"), HasSubstr("No such file")));
  EXPECT_FALSE(fs::exists(Served("files/b.bin")));
}

TEST_F(Zunet, PostSendsTextFileOrForm) {
  WriteFile(m_folder / "a.bin", std::string("one\0two", 7));
  EXPECT_EQ(RunZunet("post " + Url("/what") + " -d 'a=1&b=2'").out, "POST a=1&b=2");
  EXPECT_EQ(RunZunet("post " + Url("/what")).out, "POST ");
  EXPECT_EQ(RunZunet("post " + Url("/what") + " -f a.bin").out, std::string("POST one\0two", 12));
  const Outcome form = RunZunet("post " + Url("/echo") + " -F name=Ann -F file=@a.bin");
  EXPECT_EQ(form.status, 0);
  EXPECT_THAT(form.out, AllOf(HasSubstr("form-data; name=\"name\"\r\n\r\nAnn\r\n"),
                              HasSubstr("name=\"file\";filename=\"a.bin\"\r\n"),
                              HasSubstr(std::string("one\0two", 7))));
  EXPECT_EQ(RunZunet("post " + Url("/what") + " -d x -o answer").out, "");
  EXPECT_EQ(ReadFile(m_folder / "answer"), "POST x");
}

TEST_F(Zunet, DeleteSizeAndExistsAskTheServer) {
  WriteFile(Served("files/a.txt"), "12345");
  EXPECT_EQ(RunZunet("size " + Url("/files/a.txt")).out, "5\n");
  EXPECT_EQ(RunZunet("exists " + Url("/files/a.txt")).out, "exists\n");
  EXPECT_EQ(RunZunet("exists " + Url("/files/")).out, "exists\n");
  EXPECT_EQ(RunZunet("delete " + Url("/files/a.txt")).status, 0);
  EXPECT_FALSE(fs::exists(Served("files/a.txt")));
  for (const char* path : {"/files/a.txt", "/none/"}) {
    const Outcome outcome = RunZunet("exists " + Url(path));
    EXPECT_EQ(outcome.status, 1) << path;
    EXPECT_EQ(outcome.out, "absent\n") << path;
    EXPECT_THAT(outcome.err, IsEmpty()) << path;
  }
  EXPECT_EQ(RunZunet("exists http://127.0.0.1:1/x").status, 2);
  EXPECT_EQ(RunZunet("size " + Url("/files/a.txt")).status, 2);
  EXPECT_EQ(RunZunet("delete " + Url("/files/a.txt")).status, 2);
}

TEST_F(Zunet, ListShowsTheEntriesOfAFolder) {
  WriteFile(Served("files/a b.txt"), "");
  WriteFile(Served("files/folder/x"), "");
  for (const char* path : {"/files/", "/files"}) {
    EXPECT_EQ(RunZunet("ls " + Url(path)).out, "folder/\na b.txt\n") << path;
  }
  EXPECT_EQ(RunZunet("ls " + Url("/none/")).status, 2);
}

TEST_F(Zunet, UrlsMayLackAPathOrCarryAnotherUrl) {
  WriteFile(Served("index.html"), "home");
  EXPECT_EQ(RunZunet("get " + Url("")).out, "home");
  EXPECT_EQ(RunZunet("get '" + Url("?x=http://elsewhere/y") + "'").out, "home");
  EXPECT_THAT(RunZunet("get '" + Url("/headers?x=http://elsewhere/y") + "'").out,
              StartsWith("GET /headers?x=http://elsewhere/y HTTP/1.1\r\n"));
}

TEST_F(Zunet, HeadersAreSentAsGiven) {
  EXPECT_THAT(RunZunet("get " + Url("/headers") + " -H 'X-One: 1' -H X-Two:2").out,
              AllOf(HasSubstr("X-One:1\r\n"), HasSubstr("X-Two:2\r\n")));
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

TEST_F(Zunet, ProxyIsUsedWithItsCredentials) {
  const TinyProxy proxy("ann", "pr0xy");
  const std::string get = "get " + Url("/headers") + " --proxy ";
  const std::string address = "127.0.0.1:" + std::to_string(proxy.Port());
  EXPECT_THAT(RunZunet(get + "ann:pr0xy@" + address).out, HasSubstr("tinyproxy"));
  EXPECT_EQ(RunZunet(get + "http://ann:wrong@" + address).status, 2);
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
               {"get no-scheme", "no-scheme has no scheme"},
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

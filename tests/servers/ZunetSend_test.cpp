#include "ZunetTest.h"
#include "support/RawServer.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace fs = std::filesystem;

namespace {

constexpr char kDirectives[] = R"(
location = /what { echo_read_request_body; echo -n "$request_method $http_content_type "; echo_request_body; }
location /login/ { auth_basic x; auth_basic_user_file passwords; dav_methods PUT DELETE; create_full_put_path on; }
location = /length { echo -n $http_content_length; }
location /files/ { dav_methods PUT DELETE; create_full_put_path on; }
)";

class ZunetSend : public ZunetTest {
 protected:
  ZunetSend() { WriteFile(m_server.Folder() / "passwords", "bob:{PLAIN}s3cret\n"); }

  std::string Url(const std::string& path) const { return Local("http", m_server.Port(), path); }
  fs::path Served(const std::string& name) const { return m_server.Folder() / ("www/" + name); }

  NginxServer m_server{kDirectives};
};

}  // namespace

TEST_F(ZunetSend, PutSendsTheFileAsItIs) {
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

TEST_F(ZunetSend, PutAddsTheNameToAFolder) {
  WriteFile(m_folder / "sub/a b%#?.txt", "text");
  EXPECT_EQ(RunZunet("put 'sub/a b%#?.txt' " + Url("/files/")).status, 0);
  EXPECT_EQ(ReadFile(Served("files/a b%#?.txt")), "text");
  EXPECT_GT(RunZunet("put - " + Url("/files/")).status, 2);
}

TEST_F(ZunetSend, PutTakesStandardInput) {
  WriteFile(m_folder / "in", "from a file");
  EXPECT_EQ(RunZunet("put - " + Url("/files/a") + " <in").status, 0);
  EXPECT_EQ(ReadFile(Served("files/a")), "from a file");
  // Of a pipe the size is not known before.
  RawServer server({[](Peer& peer) {
    peer.ReadUntil("\r\n0\r\n\r\n");
    peer.Send("HTTP/1.1 201 Created\r\nContent-Length: 0\r\n\r\n");
  }});
  EXPECT_EQ(
      RunZunet("put - " + Local("http", server.Port(), "/x"), "printf 'through a pipe' |").status,
      0);
  EXPECT_THAT(server.Received(1)[0],
              AllOf(HasSubstr("Transfer-Encoding: chunked"), HasSubstr("through a pipe\r\n0\r\n")));
}

TEST_F(ZunetSend, LargeFilesAreNotHeldInMemory) {
  constexpr std::uintmax_t kSize = 512 << 20;
  WriteFile(m_folder / "large", "");
  fs::resize_file(m_folder / "large", kSize);
  // Address space, in KiB.
  const std::string limit = "ulimit -v 300000;";
  EXPECT_EQ(RunZunet("put large " + Url("/files/large"), limit).status, 0);
  EXPECT_EQ(fs::file_size(Served("files/large")), kSize);
  EXPECT_EQ(RunZunet("post -f large " + Url("/length"), limit).out, std::to_string(kSize));
}

TEST_F(ZunetSend, BodyIsSentOnceMoreAfterALogin) {
  WriteFile(m_folder / "a.txt", "text");
  EXPECT_EQ(RunZunet("put a.txt " + Url("/login/a.txt") + " --user bob:s3cret").status, 0);
  EXPECT_EQ(ReadFile(Served("login/a.txt")), "text");
  EXPECT_EQ(RunZunet("put a.txt " + Url("/login/b.txt") + " --user bob:wrong").status, 2);
  EXPECT_EQ(RunZunet("put a.txt " + Url("/login/b.txt")).status, 2);
  EXPECT_FALSE(fs::exists(Served("login/b.txt")));
}

TEST_F(ZunetSend, OnlyThe200sSayThatItWasDone) {
  WriteFile(m_folder / "a.txt", "text");
  for (const char* status : {"302 Found", "304 Not Modified", "300 Choices", "403 Forbidden"}) {
    const RawServer server(
        {RawServer::Answer(std::string("HTTP/1.1 ") + status + "\r\nContent-Length: 0\r\n\r\n")});
    const std::string url = Local("http", server.Port(), "/x");
    for (const std::string& command : {"put a.txt " + url, "delete " + url, "post -d x " + url}) {
      EXPECT_EQ(RunZunet(command).status, 2) << command << " " << status;
    }
  }
}

TEST_F(ZunetSend, PutAndDeleteCarryNoContentType) {
  WriteFile(m_folder / "a.txt", "text");
  EXPECT_EQ(RunZunet("put a.txt " + Url("/what")).out, "PUT  text");
  EXPECT_EQ(RunZunet("delete " + Url("/what")).out, "DELETE  ");
  EXPECT_EQ(RunZunet("put a.txt " + Url("/what") + " -H 'Content-Type: text/plain'").out,
            "PUT text/plain text");
}

TEST_F(ZunetSend, PostSendsTextFileOrForm) {
  const std::string type = "application/x-www-form-urlencoded ";
  WriteFile(m_folder / "a.bin", std::string("one\0two", 7));
  EXPECT_EQ(RunZunet("post " + Url("/what") + " -d 'a=1&b=2'").out, "POST " + type + "a=1&b=2");
  EXPECT_EQ(RunZunet("post " + Url("/what") + " -d a=1 -d b=2").out, "POST " + type + "a=1&b=2");
  EXPECT_EQ(RunZunet("post " + Url("/what")).out, "POST " + type);
  EXPECT_EQ(RunZunet("post " + Url("/what") + " -f a.bin").out,
            "POST " + type + std::string("one\0two", 7));
  const Outcome form = RunZunet("post " + Url("/what") + " -F name=Ann -F file=@a.bin");
  EXPECT_EQ(form.status, 0);
  EXPECT_THAT(form.out, AllOf(HasSubstr("form-data; name=\"name\"\r\n\r\nAnn\r\n"),
                              HasSubstr("name=\"file\";filename=\"a.bin\"\r\n"),
                              HasSubstr(std::string("one\0two", 7))));
  EXPECT_EQ(RunZunet("post " + Url("/what") + " -d x -o answer").out, "");
  EXPECT_EQ(ReadFile(m_folder / "answer"), "POST " + type + "x");
}

TEST_F(ZunetSend, PostTakesTextFromAFileWithoutItsLineEnds) {
  WriteFile(m_folder / "text", "a=1&\r\nb=2\n");
  EXPECT_THAT(RunZunet("post " + Url("/what") + " -d @text").out, HasSubstr(" a=1&b=2"));
  EXPECT_THAT(RunZunet("post " + Url("/what") + " -d c=3 -d @- <text").out,
              HasSubstr(" c=3&a=1&b=2"));
  EXPECT_THAT(RunZunet("post " + Url("/what") + " -f - <text").out, HasSubstr(" a=1&\r\nb=2\n"));
  const Outcome missing = RunZunet("post " + Url("/what") + " -d @missing");
  EXPECT_EQ(missing.status, 2);
  EXPECT_THAT(missing.err, HasSubstr("missing"));
}

TEST_F(ZunetSend, DeleteRemovesTheFile) {
  WriteFile(Served("files/a b.txt"), "text");
  EXPECT_EQ(RunZunet("delete " + Url("/files/a%20b.txt")).status, 0);
  EXPECT_FALSE(fs::exists(Served("files/a b.txt")));
  EXPECT_EQ(RunZunet("delete " + Url("/files/a%20b.txt")).status, 2);
}

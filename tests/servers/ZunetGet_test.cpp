#include "ZunetTest.h"

#include <chrono>
#include <thread>

#include "support/RawServer.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

class ZunetGet : public ZunetTest {
 protected:
  static std::string Url(const RawServer& server, const std::string& path = "/file") {
    return Local("http", server.Port(), path);
  }
};

RawServer::Script Redirect(const std::string& status, const std::string& to) {
  return RawServer::Answer("HTTP/1.1 " + status + "\r\nLocation: " + to +
                           "\r\nContent-Length: 4\r\n\r\npage");
}

const std::string kFile = "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nfile";

}  // namespace

TEST_F(ZunetGet, AnswerThatIsNoSuccessReplacesNothing) {
  for (const char* status : {"300 Multiple Choices", "302 Found", "304 Not Modified", "101 Odd",
                             "399 Odd", "404 Not Found", "500 Internal Server Error"}) {
    SCOPED_TRACE(status);
    const RawServer server(
        {RawServer::Answer(std::string("HTTP/1.1 ") + status + "\r\nContent-Length: 0\r\n\r\n")});
    WriteFile(m_folder / "good", "good");
    const Outcome outcome = RunZunet("get " + Url(server) + " -o good --limit-time 5");
    EXPECT_EQ(outcome.status, 2);
    EXPECT_THAT(outcome.err, Not(IsEmpty()));
    EXPECT_EQ(ReadFile(m_folder / "good"), "good");
    EXPECT_THAT(Files(), ElementsAre("good"));
  }
}

TEST_F(ZunetGet, EveryStatusOfThe200sIsASuccess) {
  for (const char* status : {"200", "203", "206", "299"}) {
    const RawServer server({RawServer::Answer(std::string("HTTP/1.1 ") + status +
                                              " x\r\nContent-Length: 4\r\n\r\nfile")});
    const Outcome outcome = RunZunet("get " + Url(server));
    EXPECT_EQ(outcome.status, 0) << status;
    EXPECT_EQ(outcome.out, "file") << status;
  }
}

TEST_F(ZunetGet, NotModifiedIsASuccessOfAConditionAndReplacesNothing) {
  const RawServer server({RawServer::Answer("HTTP/1.1 304 Not Modified\r\n\r\n")});
  WriteFile(m_folder / "good", "good");
  const Outcome outcome = RunZunet("get " + Url(server) + " -o good -H 'if-none-match: \"a\"'");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.err, HasSubstr("not modified"));
  EXPECT_EQ(ReadFile(m_folder / "good"), "good");
  EXPECT_THAT(Files(), ElementsAre("good"));
}

TEST_F(ZunetGet, HeaderLineThatLooksLikeAStatusLineIsAHeaderLine) {
  const RawServer good({RawServer::Answer(
      "HTTP/1.1 200 OK\r\nHTTP/1.1 404: Not Found\r\nContent-Length: 4\r\n\r\nfile")});
  const Outcome success = RunZunet("get " + Url(good));
  EXPECT_EQ(success.status, 0);
  EXPECT_EQ(success.out, "file");

  const RawServer bad({RawServer::Answer(
      "HTTP/1.1 404 Not Found\r\nHTTP/1.1 200: OK\r\nContent-Length: 4\r\n\r\npage")});
  const Outcome refusal = RunZunet("get " + Url(bad));
  EXPECT_EQ(refusal.status, 2);
  EXPECT_THAT(refusal.out, IsEmpty());
}

TEST_F(ZunetGet, InterimAnswersAndPagesOfRedirectsAreNotTheFile) {
  RawServer server({RawServer::Answer("HTTP/1.1 302 Found\r\nLocation: /other\r\n"
                                      "Content-Length: 4\r\nConnection: close\r\n\r\npage"),
                    RawServer::Answer("HTTP/1.1 103 Early Hints\r\n\r\n" + kFile)});
  EXPECT_EQ(RunZunet("get " + Url(server)).out, "file");
  EXPECT_THAT(server.Received(2)[1], HasSubstr("GET /other "));
}

TEST_F(ZunetGet, RedirectsEndAfterThirty) {
  RawServer circle(
      {RawServer::Answer("HTTP/1.1 302 Found\r\nLocation: /again\r\n"
                         "Content-Length: 0\r\nConnection: close\r\n\r\n")});
  const Outcome outcome = RunZunet("get " + Url(circle));
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.err, HasSubstr("30"));
  EXPECT_EQ(circle.Received(31).size(), 31u);
}

TEST_F(ZunetGet, RedirectsLeadToNoOtherProtocol) {
  RawServer target({RawServer::Answer(kFile)});
  for (const std::string scheme : {"ftp", "file", "gopher", "sftp"}) {
    const RawServer server(
        {Redirect("302 Found", scheme + "://127.0.0.1:" + std::to_string(target.Port()) + "/x")});
    const Outcome outcome = RunZunet("get " + Url(server));
    EXPECT_EQ(outcome.status, 2) << scheme;
    EXPECT_THAT(outcome.out, IsEmpty()) << scheme;
  }
}

TEST_F(ZunetGet, RedirectsNeverLeadFromHttpsToHttpUnlessToldTo) {
  const NginxServer plain("location / { return 200 clear; }");
  const std::string insecure = Local("http", plain.Port(), "/clear");
  const Certificates certificates;
  const NginxServer secure(
      "location /direct { return 302 " + insecure + "; } location /secure { return 200 secret; }",
      certificates.RightHost());
  const std::string https = Local("https", secure.Port(), "");
  // The second goes a way round: from http to https and back.
  const NginxServer first("location /round { return 302 " + https +
                          "/direct; } location /up { return 302 " + https + "/secure; }");
  const std::string trust = " --cacert " + certificates.Authority().string();
  for (const std::string& url : {https + "/direct", Local("http", first.Port(), "/round")}) {
    SCOPED_TRACE(url);
    const Outcome outcome = RunZunet("get " + url + trust);
    EXPECT_EQ(outcome.status, 2);
    EXPECT_THAT(outcome.out, IsEmpty());
    EXPECT_THAT(outcome.err, AllOf(HasSubstr(insecure), HasSubstr("--insecure-redirects")));
    EXPECT_EQ(RunZunet("get " + url + trust + " --insecure-redirects").out, "clear");
  }
  EXPECT_EQ(RunZunet("get " + Local("http", first.Port(), "/up") + trust).out, "secret");
}

TEST_F(ZunetGet, PlaceOfWhatWasMadeIsNoRedirect) {
  const Certificates certificates;
  const NginxServer secure(
      "location / { add_header Location http://elsewhere/ always; return 201 made; }",
      certificates.RightHost());
  EXPECT_EQ(RunZunet("post -d x " + Local("https", secure.Port(), "/") + " --cacert " +
                     certificates.Authority().string())
                .out,
            "made");
}

TEST_F(ZunetGet, CredentialsAreNotSentToWhereARedirectLeads) {
  RawServer other({RawServer::Answer(kFile)});
  const std::string challenge =
      "HTTP/1.1 401 No\r\nWWW-Authenticate: Basic realm=\"x\"\r\nContent-Length: 0\r\n"
      "Connection: close\r\n\r\n";
  const RawServer::Script redirect =
      Redirect("302 Found", "http://localhost:" + std::to_string(other.Port()) + "/x");
  RawServer server({RawServer::Answer(challenge), redirect, redirect});
  EXPECT_EQ(RunZunet("get " + Url(server) + " --user bob:s3cret").out, "file");
  EXPECT_EQ(
      RunZunet("get " + Url(server) + " -H 'Authorization: Bearer t0ken' -H 'Cookie: a=b'").out,
      "file");
  EXPECT_THAT(server.Received(3)[1], HasSubstr("Authorization: Basic "));
  for (const std::string& received : other.Received(2)) {
    EXPECT_THAT(received, AllOf(Not(HasSubstr("Authorization")), Not(HasSubstr("Cookie"))));
  }
}

TEST_F(ZunetGet, DashIsStandardOutput) {
  const RawServer server({RawServer::Answer(kFile)});
  EXPECT_EQ(RunZunet("get " + Url(server) + " -o -").out, "file");
  EXPECT_THAT(Files(), IsEmpty());
}

TEST_F(ZunetGet, UrlsMayBeWrittenAsPeopleWriteThem) {
  RawServer server({RawServer::Answer(kFile)});
  const std::string address = "127.0.0.1:" + std::to_string(server.Port());
  for (const std::string& url : {"HTTP://" + address + "/a", "Http://" + address + "/a",
                                 address + "/a", "http://" + address + "/a#part"}) {
    EXPECT_EQ(RunZunet("get '" + url + "'").out, "file") << url;
  }
  for (const std::string& received : server.Received(4)) {
    EXPECT_THAT(received, testing::StartsWith("GET /a HTTP/1.1\r\n"));
  }
}

TEST_F(ZunetGet, AddressesOfIpv6StandInBrackets) {
  for (const char* url : {"[::1]:1/x", "http://[::1]:1/x", "http://bob@[::1]:1/x"}) {
    const Outcome outcome = RunZunet(std::string("get '") + url + "'");
    EXPECT_EQ(outcome.status, 2) << url;
    EXPECT_THAT(outcome.err, AllOf(HasSubstr("::1"), HasSubstr("onnect"))) << url;
  }
}

TEST_F(ZunetGet, HeadersAreSentAsGivenEachOfThem) {
  RawServer server({RawServer::Answer(kFile)});
  EXPECT_EQ(RunZunet("get " + Url(server) +
                     " -H 'X-One: 1' -H 'X-One: 2' -H X-Two:3 -H 'X-Empty;' -H 'Accept:'")
                .status,
            0);
  EXPECT_THAT(server.Received(1)[0],
              AllOf(HasSubstr("X-One: 1\r\nX-One: 2\r\n"), HasSubstr("X-Two:3\r\n"),
                    HasSubstr("X-Empty:\r\n"), Not(HasSubstr("Accept"))));
}

TEST_F(ZunetGet, HeaderThatWouldBecomeTwoIsRefused) {
  for (const char* header : {"\"$(printf 'X-A: 1\\r\\nX-B: 2')\"", "nothing"}) {
    const Outcome outcome = RunZunet(std::string("get http://127.0.0.1:1/ -H ") + header);
    EXPECT_GT(outcome.status, 2) << header;
    EXPECT_THAT(outcome.err, HasSubstr("header")) << header;
  }
}

TEST_F(ZunetGet, AuthorityIsTheOneOfTheEnvironment) {
  const Certificates certificates;
  const NginxServer secure("location / { return 200 secure; }", certificates.RightHost());
  const std::string get = "get " + Local("https", secure.Port(), "/");
  const std::string right = certificates.Authority();
  const std::string wrong = certificates.OtherAuthority();
  EXPECT_EQ(RunZunet(get, "CURL_CA_BUNDLE=" + right).out, "secure");
  EXPECT_EQ(RunZunet(get, "SSL_CERT_FILE=" + right).out, "secure");
  EXPECT_EQ(RunZunet(get, "CURL_CA_BUNDLE=" + wrong + " SSL_CERT_FILE=" + right).status, 2);
  EXPECT_EQ(RunZunet(get + " --cacert " + right, "CURL_CA_BUNDLE=" + wrong).out, "secure");
}

TEST_F(ZunetGet, SilentServerIsGivenUp) {
  const RawServer::Script silence = [](Peer& peer) { peer.WaitForClose(); };
  const RawServer::Script half = [](Peer& peer) {
    peer.ReadHttpRequest();
    peer.Send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nhalf");
    peer.WaitForClose();
  };
  for (const RawServer::Script& script : {silence, half}) {
    const RawServer server({script});
    for (const char* scheme : {"http", "https", "ftp", "sftp"}) {
      const Outcome outcome =
          RunZunet(std::string("get ") + Local(scheme, server.Port(), "/x") + " --limit-idle 1");
      EXPECT_EQ(outcome.status, 2) << scheme;
    }
  }
}

TEST_F(ZunetGet, SilenceIsNoFailureWithoutALimit) {
  const RawServer server({[](Peer& peer) {
    peer.ReadHttpRequest();
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    peer.Send(kFile);
  }});
  EXPECT_EQ(RunZunet("get " + Url(server) + " --no-limit").out, "file");
  EXPECT_EQ(RunZunet("get " + Url(server) + " --limit-idle 1").status, 2);
}

#include "ZuNetwork/KdHTTPReq.h"
#include "fakes/HttpReq.h"

using KdCURL::HTTP;
using KdCURL::HTTPS;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

struct Url {
  const char* server;
  const char* path;
  const char* contains;   // "yes", "no" or "conflict"
  const char* ownServer;  // of a path that carries its server
  const char* ownPath;
  const char* http;  // the working URL of HTTP, of HTTPS, and with port 8080
  const char* https;
  const char* withPort;
};

const Url kUrls[] = {
    {"srv", "dir/a.txt", "no", "dir", "/a.txt", "http://srv/dir/a.txt", "https://srv/dir/a.txt",
     "http://srv:8080/dir/a.txt"},
    {"srv", "/dir/a.txt", "no", "", "/dir/a.txt", "http://srv/dir/a.txt", "https://srv/dir/a.txt",
     "http://srv:8080/dir/a.txt"},
    {"h", "", "no", "", "/", "http://h/", "https://h/", "http://h:8080/"},
    {"h", "/", "no", "", "/", "http://h/", "https://h/", "http://h:8080/"},
    {"http://h", "x", "no", "http://x", "/", "http://h/x", "http://h/x", "http://h:8080/x"},
    {"https://h", "/x", "no", "https://", "/x", "https://h/x", "https://h/x", "https://h:8080/x"},
    {"http://h", "http://h/x/y", "yes", "http://h", "/x/y", "http://h/x/y", "http://h/x/y",
     "http://h:8080/x/y"},
    {"http://h", "http://h", "yes", "http://h", "/", "http://h/", "http://h/", "http://h:8080/"},
    {"h", "http://h/x", "yes", "http://h", "/x", "http://h/x", "http://h/x", "http://h:8080/x"},
    {"h", "https://h/x", "yes", "https://h", "/x", "https://h/x", "https://h/x",
     "https://h:8080/x"},
    {"h", "h/x", "yes", "h", "/x", "http://h/x", "https://h/x", "http://h:8080/x"},
    {"h", "h", "yes", "h", "/", "http://h/", "https://h/", "http://h:8080/"},
    {"http://h", "h/x", "yes", "http://h", "/x", "http://h/x", "http://h/x", "http://h:8080/x"},
    {"https://h", "h", "yes", "https://h", "/", "https://h/", "https://h/", "https://h:8080/"},
    // A path that begins like the server carries it.
    {"h", "hello/x", "yes", "hello", "/x", "http://hello/x", "https://hello/x",
     "http://hello:8080/x"},
    {"http://h", "http://hello/x", "yes", "http://hello", "/x", "http://hello/x", "http://hello/x",
     "http://hello:8080/x"},
    {"h", "x/h/y", "no", "x", "/h/y", "http://h/x/h/y", "https://h/x/h/y", "http://h:8080/x/h/y"},
    {"", "x/y", "yes", "x", "/y", "http://x/y", "https://x/y", "http://x:8080/y"},
    {"", "http://x/y", "yes", "http://x", "/y", "http://x/y", "http://x/y", "http://x:8080/y"},
    {"", "", "yes", "", "/", "http:///", "https:///", "http://:8080/"},
    {"h:81", "x", "no", "x", "/", "http://h:81/x", "https://h:81/x", "http://h:81:8080/x"},
    {"ftp://h", "x", "no", "ftp://x", "/", "http://ftp://h/x", "https://ftp://h/x",
     "http://ftp://h:8080/x"},
    {"HTTP://h", "x", "no", "HTTP://x", "/", "http://HTTP://h/x", "https://HTTP://h/x",
     "http://HTTP://h:8080/x"},
    // What stands before the first "://" is the scheme, whatever it is.
    {"h", "x?u=http://h/y", "yes", "x?u=http://h", "/y", "x?u=http://h/y", "x?u=http://h/y",
     "x?u=http://h:8080/y"},
    {"h", "x?u=http://g/y", "conflict", nullptr, nullptr, nullptr, nullptr, nullptr},
    {"https://h", "https://other/x", "conflict", nullptr, nullptr, nullptr, nullptr, nullptr},
    {"h", "https://other/x", "conflict", nullptr, nullptr, nullptr, nullptr, nullptr},
    {"http://h", "https://h/x", "conflict", nullptr, nullptr, nullptr, nullptr, nullptr},
    {"http://h", "HTTP://h/x", "conflict", nullptr, nullptr, nullptr, nullptr, nullptr},
    {"http://h", "://h/x", "conflict", nullptr, nullptr, nullptr, nullptr, nullptr},
    {"h", "://h/x", "yes", "://h", "/x", "http://://h/x", "https://://h/x", "http://://h:8080/x"},
};

std::unique_ptr<HttpReq> MakeRequest(KdCURL::HTTPProtocol protocol, const Url& url,
                                     const char* port) {
  auto request = std::make_unique<HttpReq>(protocol);
  EXPECT_OK(request->initialize());
  request->setURL(url.server);
  request->setURLPath(url.path);
  request->setPortNo(port);
  return request;
}

class KdHTTPReqUrls : public HttpReqTest, public testing::WithParamInterface<Url> {};

void PrintTo(const Url& url, std::ostream* out) {
  *out << "server \"" << url.server << "\", path \"" << url.path << '"';
}

TEST_P(KdHTTPReqUrls, ServerAndPathAreToldApart) {
  const Url& url = GetParam();
  const auto request = MakeRequest(HTTP, url, "");
  const std::string expected = url.contains;
  bool contains = expected == "no";
  const CZuError error = request->doesURLPathContainURL(contains);
  std::string server = "stale";
  std::string path = "stale";
  if (expected == "conflict") {
    EXPECT_FAILS(error, IntCode(1), "Server name in URLPath conflicts with registered server");
    const CZuError split = request->splitServerAndURLPath(server, path);
    EXPECT_FAILS(split, IntCode(1), "Server name in URLPath conflicts with registered server");
    EXPECT_THAT(split.AsString(), HasSubstr("::splitServerAndURLPath("));
    return;
  }
  EXPECT_OK(error);
  EXPECT_EQ(contains, expected == "yes");
  EXPECT_OK(request->getServerAndPathFromURLPath(server, path));
  EXPECT_EQ(server, url.ownServer);
  EXPECT_EQ(path, url.ownPath);
}

TEST_P(KdHTTPReqUrls, TheWorkingUrlIsComposed) {
  const Url& url = GetParam();
  const struct {
    KdCURL::HTTPProtocol protocol;
    const char* port;
    const char* expected;
  } rows[] = {{HTTP, "", url.http}, {HTTPS, "", url.https}, {HTTP, "8080", url.withPort}};
  for (const auto& [protocol, port, expected] : rows) {
    const auto request = MakeRequest(protocol, url, port);
    std::string working = "stale";
    const CZuError error = request->getFullWorkingURL(working);
    if (expected == nullptr) {
      EXPECT_FAILS(error, IntCode(1), "Server name in URLPath conflicts with registered server");
      EXPECT_THAT(error.AsString(), HasSubstr("::getFullWorkingURL("));
      EXPECT_EQ(working, "stale");
    } else {
      EXPECT_OK(error);
      EXPECT_EQ(working, expected);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Table, KdHTTPReqUrls, testing::ValuesIn(kUrls));

using KdHTTPReqUrl = HttpReqTest;

TEST_F(KdHTTPReqUrl, AConflictStopsTheRequest) {
  const CZuError error = req->download("http://other/x", {});
  EXPECT_FAILS(error, IntCode(1), "Server name in URLPath conflicts with registered server");
  EXPECT_FAILS(error, IntCode(1), "Failed to get working URL");
  EXPECT_THAT(fake.transfers, IsEmpty());
}

class SplitReq : public HttpReq {
 public:
  using HttpReq::HttpReq;
  CZuError splitServerAndURLPath(std::string& serverOut, std::string& urlPathOut) override {
    EXPECT_EQ(serverOut + urlPathOut, "");
    serverOut = server;
    urlPathOut = path;
    return error;
  }
  const char* server = "s";
  const char* path = "/p";
  CZuError error;
};

TEST_F(KdHTTPReqUrl, TheWorkingUrlTakesTheSplitOfADerivedClass) {
  SplitReq split(HTTP);
  EXPECT_OK(split.initialize());
  std::string url = "stale";
  split.server = "";
  EXPECT_THAT(split.getFullWorkingURL(url).AsString(), EndsWith(", URL is empty."));
  EXPECT_FAILS(split.getFullWorkingURL(url), IntCode(1), "");
  split.server = "s";
  split.path = "";
  EXPECT_THAT(split.getFullWorkingURL(url).AsString(), EndsWith(", URL path is empty."));
  EXPECT_FAILS(split.getFullWorkingURL(url), IntCode(1), "");
  split.error = FXErrorUtil::ErrorWin32(ZU_HERE, 87, "no split");
  const CZuError error = split.getFullWorkingURL(url);
  EXPECT_FAILS(error, Win32Code(87), "no split");
  EXPECT_THAT(error.AsString(), HasSubstr("::getFullWorkingURL("));
  EXPECT_EQ(url, "stale");
  split.error = {};
  split.path = "/p";
  EXPECT_OK(split.getFullWorkingURL(url));
  EXPECT_EQ(url, "s/p");
}

}  // namespace

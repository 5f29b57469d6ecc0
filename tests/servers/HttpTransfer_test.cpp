#include <gmock/gmock.h>

#include <algorithm>
#include <random>

#include "ZuNetwork/KdTransferIO.h"
#include "servers/TestRequest.h"
#include "support/RawServer.h"
#include "support/Servers.h"

using KdCURL::commandInfo;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr char kDirectives[] = R"(
location /echo { echo_read_request_body; echo_request_body; }
location = /what { echo_read_request_body; echo -n "$request_method "; echo_request_body; }
location = /type { echo_read_request_body; echo -n $content_type; }
location /dav/ { dav_methods PUT DELETE MKCOL; create_full_put_path on; }
location = /301 { return 301 /what; }
location = /302 { return 302 /what; }
location = /303 { return 303 /what; }
location = /307 { return 307 /what; }
location = /308 { return 308 /what; }
location = /loop { return 302 /loop; }
location = /403 { return 403; }
location = /500 { return 500; }
location = /599 { return 599; }
location = /399 { return 399; }
location = /400 { return 400; }
location = /204 { return 204; }
)";

// Bytes of all values, zeros included, the same at every run.
std::string Bytes(size_t size) {
  std::mt19937 random(4711);
  std::string bytes(size, '\0');
  std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
  return bytes;
}

class HttpTransfer : public testing::Test {
 protected:
  std::filesystem::path Served(const std::string& name) const {
    return m_server.Folder() / ("www/" + name);
  }

  NginxServer m_server{kDirectives};
  TestRequest m_request{m_server.Port()};
};

}  // namespace

TEST_F(HttpTransfer, DownloadGivesTheBytesOfTheFile) {
  for (const size_t size : {size_t{1}, size_t{0}, size_t{4096}, size_t{1} << 20}) {
    SCOPED_TRACE(size);
    WriteFile(Served("file"), Bytes(size));
    ASSERT_OK(m_request.Get("/file"));
    EXPECT_EQ(m_request.ResponseCode(), 200);
    EXPECT_EQ(m_request.body.text.size(), size);
    EXPECT_TRUE(m_request.body.text == Bytes(size));
  }
}

TEST_F(HttpTransfer, DownloadOf64MiBArrivesUnchanged) {
  constexpr std::uintmax_t kSize = 64U << 20;
  WriteFile(Served("large"), Bytes(kSize));
  const auto received = m_server.Folder() / "received";
  KdCURL::FileSink sink;
  ASSERT_OK(sink.Open(received));
  m_request.setWriteCallBack(&sink, KdCURL::FileSink::Write);
  ASSERT_OK(m_request.download("/large", {}));
  ASSERT_OK(sink.Commit());
  EXPECT_EQ(std::filesystem::file_size(received), kSize);
  EXPECT_EQ(Sha256(received), Sha256(Served("large")));
}

TEST_F(HttpTransfer, DownloadTakesThePathWithTheServerInIt) {
  WriteFile(Served("a/b.txt"), "text");
  const std::string url = "http://127.0.0.1/a/b.txt";  // the port is added to the server
  for (const char* const path : {"/a/b.txt", "a/b.txt", "127.0.0.1/a/b.txt", url.c_str()}) {
    SCOPED_TRACE(path);
    ASSERT_OK(m_request.Get(path));
    EXPECT_EQ(m_request.body.text, "text");
  }
}

TEST_F(HttpTransfer, PutStoresTheBytes) {
  for (const size_t size : {size_t{1}, size_t{0}, size_t{70000}, size_t{3} << 20}) {
    SCOPED_TRACE(size);
    const std::string bytes = Bytes(size);
    const std::string path = "/dav/sub/" + std::to_string(size);
    ASSERT_OK(m_request.Collect().doPutOperation(path.c_str(), bytes.data(),
                                                 static_cast<long>(size), {}));
    EXPECT_EQ(m_request.ResponseCode(), 201);
    EXPECT_TRUE(ReadFile(Served(path)) == bytes);
  }
}

TEST_F(HttpTransfer, DeleteRemovesTheFile) {
  WriteFile(Served("dav/file"), "text");
  ASSERT_OK(m_request.Collect().doDeleteOperation("/dav/file", "", 0, {}));
  EXPECT_EQ(m_request.ResponseCode(), 204);
  EXPECT_FALSE(std::filesystem::exists(Served("dav/file")));
  EXPECT_FAILS(m_request.Collect().doDeleteOperation("/dav/file", "", 0, {}), TransferCode(0),
               "Response code from server: [404]");
}

TEST_F(HttpTransfer, DeleteSendsItsBody) {
  ASSERT_OK(m_request.Collect().doDeleteOperation("/what", "a\0b", 3, {}));
  EXPECT_EQ(m_request.body.text, std::string("DELETE a\0b", 10));
}

TEST_F(HttpTransfer, PostSendsAText) {
  ASSERT_OK(m_request.Collect().doPostOperation("/what", "a=1&b=%20", {}));
  EXPECT_EQ(m_request.body.text, "POST a=1&b=%20");
  const std::string large(300000, 'x');
  ASSERT_OK(m_request.Collect().doPostOperation("/what", large.c_str(), {}));
  EXPECT_TRUE(m_request.body.text == "POST " + large);
}

TEST_F(HttpTransfer, PostOfABufferSendsZeroBytesToo) {
  const std::string bytes("\0a\0\0b\0", 6);
  ASSERT_OK(m_request.Collect().doPostOperation("/what", bytes.data(), 6, {}));
  EXPECT_EQ(m_request.body.text, "POST " + bytes);
  const std::string large = Bytes(size_t{3} << 20);
  ASSERT_OK(m_request.Collect().doPostOperation("/echo", large.data(),
                                                static_cast<long>(large.size()), {}));
  EXPECT_TRUE(m_request.body.text == large);
}

TEST_F(HttpTransfer, PostOfABufferSendsOnlyTheGivenSize) {
  ASSERT_OK(m_request.Collect().doPostOperation("/what", "abcdef", 3, {}));
  EXPECT_EQ(m_request.body.text, "POST abc");
}

TEST_F(HttpTransfer, PostOfNoBufferSendsAnEmptyBody) {
  ASSERT_OK(m_request.Collect().doPostOperation("/what", nullptr, 0, {}));
  EXPECT_EQ(m_request.body.text, "POST ");
}

TEST_F(HttpTransfer, UploadSendsTheQueuedFieldsAsAForm) {
  const std::string bytes = Bytes(200000);
  const std::string file = m_server.Folder() / "my data.bin";
  WriteFile(file, bytes);
  const auto queue = [&] {
    ASSERT_OK(m_request.addFormValues("document", CURLFORM_FILE, file));
    ASSERT_OK(m_request.addFormValues("note", CURLFORM_COPYCONTENTS, "a \"literal\"\r\nfield"));
  };
  queue();
  ASSERT_OK(m_request.Collect().uploadFile(file.c_str(), "/type", bytes.size(), {}));
  EXPECT_EQ(m_request.body.text.find("multipart/form-data; boundary="), 0U);

  queue();
  ASSERT_OK(m_request.Collect().uploadFile(file.c_str(), "/echo", bytes.size(), {}));
  const std::string& body = m_request.body.text;
  const std::string boundary = body.substr(0, body.find("\r\n"));
  EXPECT_EQ(boundary.substr(0, 2), "--");
  EXPECT_TRUE(body == boundary +
                          "\r\nContent-Type: application/octet-stream\r\n"
                          "Content-Disposition: form-data; name=\"document\";filename=\"my "
                          "data.bin\"\r\n\r\n" +
                          bytes + "\r\n" + boundary +
                          "\r\nContent-Disposition: form-data; name=\"note\"\r\n\r\n"
                          "a \"literal\"\r\nfield\r\n" +
                          boundary + "--\r\n")
      << body.substr(0, 300) << "\n...\n"
      << body.substr(body.size() - std::min<size_t>(body.size(), 200));
}

TEST_F(HttpTransfer, QueuedFieldsGoWithOneUploadOnly) {
  ASSERT_OK(m_request.addFormValues("first", CURLFORM_COPYCONTENTS, "1"));
  ASSERT_OK(m_request.Collect().uploadFile("unused", "/echo", 0, {}));
  EXPECT_THAT(m_request.body.text, HasSubstr("name=\"first\""));
  ASSERT_OK(m_request.addFormValues("second", CURLFORM_COPYCONTENTS, "2"));
  ASSERT_OK(m_request.Collect().uploadFile("unused", "/echo", 0, {}));
  EXPECT_THAT(m_request.body.text, HasSubstr("name=\"second\""));
  EXPECT_THAT(m_request.body.text, Not(HasSubstr("first")));
}

TEST_F(HttpTransfer, UploadOfAMissingFileFails) {
  ASSERT_OK(m_request.addFormValues("document", CURLFORM_FILE, m_server.Folder() / "absent"));
  EXPECT_FAILS(m_request.Collect().uploadFile("absent", "/echo", 0, {}),
               TransferCode(CURLE_READ_ERROR), "CURL perform failed.Curl ErrorCode : [26]");
}

TEST_F(HttpTransfer, RedirectsKeepMethodAndBody) {
  for (const char* const path : {"/301", "/302", "/303", "/307", "/308"}) {
    SCOPED_TRACE(path);
    ASSERT_OK(m_request.Get(path));
    EXPECT_EQ(m_request.body.text, "GET ");
    ASSERT_OK(m_request.Collect().doPostOperation(path, "text", {}));
    EXPECT_EQ(m_request.body.text, "POST text");
    ASSERT_OK(m_request.Collect().doPostOperation(path, "a\0b", 3, {}));
    EXPECT_EQ(m_request.body.text, std::string("POST a\0b", 8));
    ASSERT_OK(m_request.Collect().doPutOperation(path, "put", 3, {}));
    EXPECT_EQ(m_request.body.text, "PUT put");
    ASSERT_OK(m_request.Collect().doDeleteOperation(path, "", 0, {}));
    EXPECT_EQ(m_request.body.text, "DELETE ");
    ASSERT_OK(m_request.addFormValues("field", CURLFORM_COPYCONTENTS, "form"));
    ASSERT_OK(m_request.Collect().uploadFile("unused", path, 0, {}));
    EXPECT_EQ(m_request.body.text.find("POST --"), 0U) << m_request.body.text;
    EXPECT_THAT(m_request.body.text, HasSubstr("form"));
    EXPECT_EQ(m_request.ResponseCode(), 200);
  }
}

// libcurl stops at a number of redirects or at an amount of headers, by its version.
TEST_F(HttpTransfer, RedirectLoopEndsInAnError) {
  EXPECT_TRUE(Failed(m_request.Get("/loop")));
  EXPECT_THAT(m_request.TransferResult(),
              testing::AnyOf(CURLE_TOO_MANY_REDIRECTS, CURLE_RECV_ERROR));
}

TEST_F(HttpTransfer, ResponseCodesFrom400OnAreRefusals) {
  WriteFile(Served("file"), "text");
  const struct {
    const char* path;
    std::vector<commandInfo> headers;
    int code;
  } cases[] = {{"/absent", {}, 404}, {"/403", {}, 403}, {"/500", {}, 500},
               {"/599", {}, 599},    {"/400", {}, 400}, {"/file", {{"Range", "bytes=100-"}}, 416}};
  for (const auto& [path, headers, code] : cases) {
    SCOPED_TRACE(path);
    const std::string text =
        "Requested Operation Failed. Return value from CURL: [0] Response code from server: [" +
        std::to_string(code) + "]";
    EXPECT_FAILS(m_request.Get(path, headers), 0xEDD00000U, text.c_str());
    EXPECT_EQ(m_request.ResponseCode(), code);
    EXPECT_EQ(m_request.TransferResult(), 0);
  }
}

TEST_F(HttpTransfer, ResponseCodesBelow400AreSuccesses) {
  WriteFile(Served("file"), "text");
  ASSERT_OK(m_request.Get("/204"));
  EXPECT_EQ(m_request.ResponseCode(), 204);
  ASSERT_OK(m_request.Get("/399"));
  EXPECT_EQ(m_request.ResponseCode(), 399);
  ASSERT_OK(m_request.Get("/file", {{"Range", "bytes=1-2"}}));
  EXPECT_EQ(m_request.ResponseCode(), 206);
  EXPECT_EQ(m_request.body.text, "ex");
}

TEST_F(HttpTransfer, WriteCallbackThatStopsIsAnError) {
  WriteFile(Served("file"), "text");
  m_request.setWriteCallBack(this, [](char*, size_t, size_t, void*) -> size_t { return 0; });
  EXPECT_FAILS(m_request.download("/file", {}), TransferCode(CURLE_WRITE_ERROR), "[23]");
}

TEST_F(HttpTransfer, HeaderCallbackReceivesTheHeaders) {
  WriteFile(Served("file"), "text");
  TextSink headers;
  m_request.setHeaderWriteCallBack(&headers, TextSink::Take);
  ASSERT_OK(m_request.Get("/file"));
  EXPECT_EQ(headers.text.find("HTTP/1.1 200 OK\r\n"), 0U);
  EXPECT_THAT(headers.text, HasSubstr("Content-Length: 4\r\n"));
  headers.text = "unchanged";
  ASSERT_OK(m_request.Get("/file"));
  EXPECT_EQ(headers.text, "unchanged");
}

TEST(HttpHeaders, AreSentOrderedByNameWithoutBlank) {
  RawServer server({RawServer::Answer("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n")});
  {
    TestRequest request(server.Port());
    ASSERT_OK(request.Get("/", {{"X-B", "2"}, {"X-A", "1"}, {"X-C", "old"}, {"X-C", " new"}}));
    ASSERT_OK(request.Get("/"));
  }
  const std::vector<std::string> received = server.Received(2);
  EXPECT_EQ(received[0].find("GET / HTTP/1.1\r\n"), 0U) << received[0];
  EXPECT_THAT(received[0], HasSubstr("\r\nX-A:1\r\nX-B:2\r\nX-C: new\r\n\r\n"));
  EXPECT_THAT(received[0], Not(HasSubstr("old")));
  EXPECT_THAT(received[1], Not(HasSubstr("X-A"))) << "headers go with one request";
}

TEST(HttpHeaders, OfTheCallerReplaceThoseOfLibcurl) {
  RawServer server({RawServer::Answer("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n")});
  TestRequest request(server.Port());
  ASSERT_OK(request.Collect().doPostOperation("/", "{}", {{"Content-Type", "application/json"}}));
  const std::string received = server.Received(1)[0];
  EXPECT_THAT(received, HasSubstr("\r\nContent-Type:application/json\r\n"));
  EXPECT_THAT(received, Not(HasSubstr("urlencoded")));
}

TEST(HttpHeaders, UploadWaitsForTheServersConsent) {
  RawServer server({[](Peer& peer) {
                      const std::string header = peer.ReadUntil("\r\n\r\n");
                      EXPECT_THAT(header, HasSubstr("\r\nExpect:100-continue\r\n"));
                      peer.Send("HTTP/1.1 100 Continue\r\n\r\n");
                      EXPECT_THAT(peer.ReadUntil("--\r\n"), HasSubstr("contents"));
                      peer.Send("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
                    },
                    [](Peer& peer) {
                      peer.ReadUntil("\r\n\r\n");
                      peer.Send("HTTP/1.1 413 Too Large\r\nContent-Length: 0\r\n\r\n");
                      peer.WaitForClose();
                    }});
  {
    TestRequest request(server.Port());
    ASSERT_OK(request.addFormValues("field", CURLFORM_COPYCONTENTS, "contents"));
    ASSERT_OK(request.Collect().uploadFile("unused", "/", 0, {{"Expect", "replaced"}}));
    ASSERT_OK(request.addFormValues("field", CURLFORM_COPYCONTENTS, "contents"));
    EXPECT_FAILS(request.Collect().uploadFile("unused", "/", 0, {}), TransferCode(0), "[413]");
  }
  EXPECT_THAT(server.Received(2)[1], Not(HasSubstr("contents")));
}

#include <fcntl.h>
#include <gmock/gmock.h>
#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <iterator>
#include <memory>

#include "servers/TestRequest.h"
#include "support/RawServer.h"
#include "support/Servers.h"

extern "C" size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

using testing::HasSubstr;

namespace {

constexpr char kDirectives[] = R"(
location /what { echo_read_request_body; echo -n "$request_method "; echo_request_body; }
location = /connection { echo -n $connection; }
location /dav/ { dav_methods PUT DELETE; create_full_put_path on; }
)";

class HttpReuse : public testing::Test {
 protected:
  HttpReuse() { WriteFile(m_server.Folder() / "www/file", "text"); }

  NginxServer m_server{kDirectives};
  TestRequest m_request{m_server.Port()};
};

// Sends standard output to a file for a while.
class RedirectedOutput {
 public:
  explicit RedirectedOutput(const std::filesystem::path& path) {
    fflush(stdout);
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    dup2(file, STDOUT_FILENO);
    close(file);
  }
  ~RedirectedOutput() {
    fflush(stdout);
    dup2(m_before, STDOUT_FILENO);
    close(m_before);
  }
  RedirectedOutput(const RedirectedOutput&) = delete;
  RedirectedOutput& operator=(const RedirectedOutput&) = delete;

 private:
  int m_before = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
};

size_t BytesInUse() {
  if (__sanitizer_get_current_allocated_bytes) return __sanitizer_get_current_allocated_bytes();
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

long DescriptorsInUse() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// Eight requests of all kinds, refused ones among them.
void RunMixedRequests(TestRequest& request) {
  double size = 0.0;
  EXPECT_OK(request.doPutOperation("/dav/a/b", "a\0b", 3, {{"X-A", "1"}}));
  EXPECT_OK(request.Get("/dav/a/b"));
  EXPECT_EQ(request.body.text, std::string("a\0b", 3));
  EXPECT_OK(request.getFileInfo("/dav/a/b", size));
  EXPECT_EQ(size, 3.0);
  EXPECT_OK(request.doDeleteOperation("/dav/a/b", "", 0, {}));
  EXPECT_FAILS(request.Get("/dav/a/b", {{"X-B", "2"}}), 0xEDD00000U, "[404]");
  EXPECT_OK(request.Collect().doPostOperation("/what", "text", {}));
  EXPECT_EQ(request.body.text, "POST text");
  EXPECT_OK(request.Collect().doPostOperation("/what", "t\0", 2, {}));
  EXPECT_EQ(request.body.text, std::string("POST t\0", 7));
  EXPECT_OK(request.addFormValues("field", CURLFORM_COPYCONTENTS, "contents"));
  EXPECT_OK(request.Collect().uploadFile("unused", "/what", 0, {}));
  EXPECT_THAT(request.body.text, HasSubstr("contents"));
}

}  // namespace

TEST_F(HttpReuse, ThousandMixedRequestsTakeNoMoreMemoryOrDescriptors) {
  for (int i = 0; i < 10; ++i) RunMixedRequests(m_request);
  const size_t bytes = BytesInUse();
  const long descriptors = DescriptorsInUse();
  for (int i = 0; i < 125 && !HasFailure(); ++i) RunMixedRequests(m_request);
  // Less than a header line, or a form field, for each request.
  EXPECT_LT(BytesInUse(), bytes + 16384);
  EXPECT_LE(DescriptorsInUse(), descriptors);
}

TEST_F(HttpReuse, ThousandObjectsTakeNoMoreMemoryOrDescriptors) {
  const auto useOne = [&] {
    TestRequest request(m_server.Port());
    EXPECT_OK(request.Get("/file", {{"X-A", "1"}}));
    EXPECT_OK(request.addFormValues("field", CURLFORM_COPYCONTENTS, "never sent"));
  };
  for (int i = 0; i < 10; ++i) useOne();
  const size_t bytes = BytesInUse();
  const long descriptors = DescriptorsInUse();
  for (int i = 0; i < 1000 && !HasFailure(); ++i) useOne();
  EXPECT_LT(BytesInUse(), bytes + 16384);
  EXPECT_LE(DescriptorsInUse(), descriptors);
}

TEST_F(HttpReuse, RequestsShareTheConnection) {
  ASSERT_OK(m_request.Get("/connection"));
  const std::string first = m_request.body.text;
  RunMixedRequests(m_request);
  ASSERT_OK(m_request.Get("/connection"));
  EXPECT_EQ(m_request.body.text, first);
}

TEST_F(HttpReuse, AConnectionThatTheServerClosedIsReplaced) {
  const char* const reply = "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\ntext";
  RawServer server({RawServer::Answer(reply)});
  TestRequest request(server.Port());
  for (int i = 0; i < 3; ++i) {
    ASSERT_OK(request.Get("/"));
    EXPECT_EQ(request.body.text, "text");
    server.Received(static_cast<size_t>(i) + 1);
  }
}

TEST_F(HttpReuse, BodyWithoutACallbackGoesToStandardOutput) {
  const auto output = m_server.Folder() / "output";
  const auto failing = [](char*, size_t, size_t, void*) -> size_t { return 0; };
  {
    const RedirectedOutput redirected(output);
    EXPECT_OK(m_request.download("/file", {}));
    EXPECT_OK(m_request.Get("/file"));
    EXPECT_OK(m_request.download("/file", {}));  // the callback went with its request
    m_request.setWriteCallBack(this, failing);
    EXPECT_FAILS(m_request.download("/file", {}), TransferCode(CURLE_WRITE_ERROR), "[23]");
    EXPECT_OK(m_request.download("/file", {}));  // after a failure too
    m_request.setWriteCallBack(nullptr, TextSink::Take);
    EXPECT_OK(m_request.download("/file", {}));  // and half a callback is none
  }
  EXPECT_EQ(m_request.body.text, "text");
  EXPECT_EQ(ReadFile(output), "texttexttexttext");
}

TEST_F(HttpReuse, ListingAfterAPostOfABufferSendsItAgainThoughTheCallersIsGone) {
  auto buffer = std::make_unique<char[]>(5000);
  std::memset(buffer.get(), 'b', 5000);
  buffer[1] = '\0';
  const std::string sent(buffer.get(), 5000);
  ASSERT_OK(m_request.Collect().doPostOperation("/what", buffer.get(), 5000, {}));
  EXPECT_TRUE(m_request.body.text == "POST " + sent);
  std::memset(buffer.get(), 'x', 5000);
  buffer.reset();
  for (int i = 0; i < 2; ++i) {
    ASSERT_OK(m_request.Collect().getFilesAndDirsInfoInFile("/what"));
    EXPECT_TRUE(m_request.body.text == "POST " + sent) << m_request.body.text;
  }
}

TEST_F(HttpReuse, PostOfNothingAfterAPutSendsNothingOfIt) {
  auto buffer = std::make_unique<char[]>(5000);
  std::memset(buffer.get(), 'b', 5000);
  ASSERT_OK(m_request.Collect().doPutOperation("/what", buffer.get(), 5000, {}));
  buffer.reset();
  ASSERT_OK(m_request.Collect().doPostOperation("/what", nullptr, 0, {}));
  EXPECT_EQ(m_request.body.text, "POST ");
}

// A listing sets no method of its own: it goes out as what the operation before has left.
TEST_F(HttpReuse, ListingGoesOutAsTheOperationBeforeLeftTheHandle) {
  double size = 0.0;
  bool isFile = false;
  std::string address;
  const auto run = [&](const std::function<CZuError()>& operation, const std::string& listing) {
    ASSERT_OK(operation());
    ASSERT_OK(m_request.Collect().getFilesAndDirsInfoInFile("/what"));
    EXPECT_EQ(m_request.body.text, listing);
    EXPECT_OK(m_request.getFileInfo("/file", size));
    ASSERT_OK(m_request.Collect().getFilesAndDirsInfoInFile("/what"));
    EXPECT_EQ(m_request.body.text, "GET ") << "a query makes a GET of it";
  };
  const auto collecting = [&]() -> TestRequest& { return m_request.Collect(); };
  run([&] { return m_request.Get("/file"); }, "GET ");
  run([&] { return m_request.IsFile("/file", isFile); }, "GET ");
  run([&] { return m_request.getInfo(KdCURL::CURL_PRIMARY_IP, address); }, "GET ");
  run([&] { return m_request.doPutOperation("/dav/file", "put", 3, {}); }, "GET ");
  run([&] { return m_request.doDeleteOperation("/dav/file", "", 0, {}); }, "GET ");
  run([&] { return collecting().doPostOperation("/what", "a\0b", 3, {}); },
      std::string("POST a\0b", 8));
  run([&] { return collecting().doPostOperation("/what", "text", {}); }, "POST ");
  run([&] { return collecting().uploadFile("unused", "/what", 0, {}); }, "POST ");
}

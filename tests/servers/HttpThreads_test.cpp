#include <gmock/gmock.h>

#include <functional>
#include <thread>
#include <vector>

#include "servers/TestRequest.h"
#include "support/Servers.h"

namespace {

constexpr char kDirectives[] = R"(
location /echo { echo_read_request_body; echo_request_body; }
location /dav/ { dav_methods PUT DELETE; create_full_put_path on; }
)";
constexpr int kThreads = 8;

void RunRequests(TestRequest& request, int rounds, const std::string& name) {
  const std::string path = "/dav/" + name;
  for (int round = 0; round < rounds; ++round) {
    const std::string text = name + " in round " + std::to_string(round);
    double size = 0.0;
    EXPECT_OK(request.doPutOperation(path.c_str(), text.c_str(), static_cast<long>(text.size()),
                                     {{"X-Name", name}}));
    EXPECT_OK(request.Get(path.c_str()));
    EXPECT_EQ(request.body.text, text);
    EXPECT_OK(request.getFileInfo(path, size));
    EXPECT_EQ(size, static_cast<double>(text.size()));
    EXPECT_OK(request.Collect().doPostOperation("/echo", text.c_str(), {}));
    EXPECT_EQ(request.body.text, text);
    EXPECT_OK(request.doDeleteOperation(path.c_str(), "", 0, {}));
    EXPECT_FAILS(request.Get(path.c_str()), 0xEDD00000U, "[404]");
  }
}

void RunOnThreads(const std::function<void(const std::string& name)>& work) {
  KdCURL::KdProtocolReq::initializeCurlLibrary();
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back(work, "thread" + std::to_string(i));
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace

TEST(HttpThreads, EachWithARequestOfItsOwn) {
  const NginxServer server(kDirectives);
  RunOnThreads([&](const std::string& name) {
    TestRequest request(server.Port());
    RunRequests(request, 20, name);
  });
}

TEST(HttpThreads, EachWithATlsRequestOfItsOwn) {
  const Certificates certificates;
  const NginxServer server(kDirectives, certificates.RightHost());
  RunOnThreads([&](const std::string& name) {
    for (int i = 0; i < 3; ++i) {
      TestRequest request(server.Port(), KdCURL::HTTPS);
      EXPECT_OK(request.setSecured(true, certificates.Authority()));
      RunRequests(request, 3, name);
    }
  });
}

TEST(HttpThreads, EachResolvingAName) {
  const NginxServer server(kDirectives);
  RunOnThreads([&](const std::string& name) {
    for (int i = 0; i < 5; ++i) {
      TestRequest request(server.Port());
      request.setURL("localhost");
      RunRequests(request, 1, name);
    }
  });
}

TEST(HttpThreads, AnObjectMayMoveToAnotherThread) {
  const NginxServer server(kDirectives);
  KdCURL::KdProtocolReq::initializeCurlLibrary();
  TestRequest request(server.Port());
  for (int i = 0; i < 3; ++i) {
    std::thread([&] { RunRequests(request, 2, "moving"); }).join();
  }
}

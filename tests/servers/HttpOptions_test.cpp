#include <gmock/gmock.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <map>
#include <mutex>
#include <utility>

#include "servers/TestRequest.h"
#include "support/RawServer.h"
#include "support/SystemFunction.h"

using testing::HasSubstr;

namespace {

constexpr char kReply[] = "HTTP/1.1 200 OK\r\nX-Told: yes\r\nContent-Length: 4\r\n\r\ntext";

SystemFunction<int(int, int, int, const void*, socklen_t)> g_setSockOpt{"setsockopt"};

// The socket options that were set in this process, by level and name.
std::mutex g_mutex;
std::map<std::pair<int, int>, int> g_socketOptions;

int SocketOption(int level, int name) {
  const std::lock_guard<std::mutex> lock(g_mutex);
  const auto found = g_socketOptions.find({level, name});
  return found == g_socketOptions.end() ? -1 : found->second;
}

struct Trace {
  std::map<int, std::string> told;  // by curl_infotype

  static int Take(void* handle, void* infoType, char* data, unsigned long size, void* trace) {
    EXPECT_NE(handle, nullptr);
    const int type = static_cast<int>(reinterpret_cast<std::uintptr_t>(infoType));
    static_cast<Trace*>(trace)->told[type].append(data, size);
    return 0;
  }
};

}  // namespace

// libcurl's calls come here.
extern "C" __attribute__((visibility("default"))) int setsockopt(int descriptor, int level,
                                                                 int name, const void* value,
                                                                 socklen_t size) noexcept {
  if (size == sizeof(int)) {
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_socketOptions[{level, name}] = *static_cast<const int*>(value);
  }
  return g_setSockOpt(descriptor, level, name, value, size);
}

TEST(HttpOptions, KeepAliveReachesTheSocket) {
  RawServer server({RawServer::Answer(kReply)});
  TestRequest request(server.Port());
  g_socketOptions.clear();
  ASSERT_OK(request.Get("/"));
  EXPECT_EQ(SocketOption(SOL_SOCKET, SO_KEEPALIVE), -1) << "not by default";

  ASSERT_OK(request.setKeepAlive(true, 71, 13));
  ASSERT_OK(request.Get("/"));
  EXPECT_EQ(SocketOption(SOL_SOCKET, SO_KEEPALIVE), 1);
  EXPECT_EQ(SocketOption(IPPROTO_TCP, TCP_KEEPIDLE), 71);
  EXPECT_EQ(SocketOption(IPPROTO_TCP, TCP_KEEPINTVL), 13);

  g_socketOptions.clear();
  ASSERT_OK(request.setKeepAlive(false, 71, 13));
  ASSERT_OK(request.Get("/"));
  EXPECT_EQ(SocketOption(SOL_SOCKET, SO_KEEPALIVE), -1);
}

TEST(HttpOptions, TraceGoesToTheCallback) {
  RawServer server({RawServer::Answer(kReply)});
  TestRequest request(server.Port());
  Trace trace;
  ASSERT_OK(request.setTraceCallBack(&trace, Trace::Take));
  ASSERT_OK(request.Collect().doPostOperation("/traced", "body", {}));
  EXPECT_THAT(trace.told[CURLINFO_TEXT], HasSubstr("Connected to 127.0.0.1"));
  EXPECT_THAT(trace.told[CURLINFO_HEADER_OUT], HasSubstr("POST /traced HTTP/1.1\r\n"));
  EXPECT_EQ(trace.told[CURLINFO_DATA_OUT], "body");
  EXPECT_THAT(trace.told[CURLINFO_HEADER_IN], HasSubstr("X-Told: yes\r\n"));
  EXPECT_EQ(trace.told[CURLINFO_DATA_IN], "text");
}

TEST(HttpOptions, TraceStaysForTheNextRequest) {
  RawServer server({RawServer::Answer(kReply)});
  TestRequest request(server.Port());
  Trace trace;
  ASSERT_OK(request.setTraceCallBack(&trace, Trace::Take));
  for (const char* const path : {"/first", "/second"}) {
    trace.told.clear();
    ASSERT_OK(request.Get(path));
    EXPECT_THAT(trace.told[CURLINFO_HEADER_OUT], HasSubstr(path));
  }
}

TEST(HttpOptions, TraceGoesToStandardErrorOtherwise) {
  RawServer server({RawServer::Answer(kReply)});
  KdCURL::KdHTTPReq request(KdCURL::HTTP);
  ASSERT_OK(request.initialize());
  request.setURL("127.0.0.1");
  request.setPortNo(std::to_string(server.Port()));
  TextSink sink;
  request.setWriteCallBack(&sink, TextSink::Take);
  testing::internal::CaptureStderr();
  EXPECT_OK(request.download("/untaken", {}));
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("> GET /untaken HTTP/1.1"));
}

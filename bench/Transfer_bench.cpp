// The transfers beside libcurl, linked and called with the same options. The server is started by
// run.sh, which names it in ZUNETWORK_BENCH_URL.

#include <dlfcn.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstdlib>

#include "Compare.h"
#include "PlainCurl.h"
#include "ZuNetwork/KdHTTPReq.h"

extern char** environ;

namespace {

void Forwarder(benchmark::State& state) {
  void* const library = dlopen("libcurl.so", RTLD_LAZY);
  using FreeAll = void (*)(curl_slist*);
  Compare(
      state, "1.10", 1000, [] { CurlWrapper::gCurlWrapper.Curl_slist_free_all(nullptr); },
      [library] { reinterpret_cast<FreeAll>(dlsym(library, "curl_slist_free_all"))(nullptr); });
}
BENCHMARK(Forwarder);

class OurGet {
 public:
  explicit OurGet(const char* server) : m_request(KdCURL::HTTP) {
    if (Failed(m_request.initialize())) std::abort();
    if (Failed(m_request.setTraceCallBack(this, Silence))) std::abort();
    m_request.setURL(server);
  }

  size_t Run(const char* path) {
    size_t bytes = 0;
    m_request.setWriteCallBack(&bytes, CountBytes);
    if (Failed(m_request.download(path, {}))) std::abort();
    return bytes;
  }

 private:
  KdCURL::KdHTTPReq m_request;
};

class PlainGet {
 public:
  explicit PlainGet(std::string server) : m_server(std::move(server)) {}

  size_t Run(const char* path) {
    size_t bytes = 0;
    m_curl.Set(CURLOPT_URL, (m_server + path).c_str());
    m_curl.Set(CURLOPT_HTTPGET, 1L);
    m_curl.SetCallBack(CURLOPT_WRITEDATA, CURLOPT_WRITEFUNCTION, &bytes, CountBytes);
    m_curl.Perform();
    m_curl.SetCallBack(CURLOPT_WRITEDATA, CURLOPT_WRITEFUNCTION, nullptr, nullptr);
    m_curl.Set(CURLOPT_HTTPGET, 0L);
    return bytes;
  }

 private:
  std::string m_server;
  PlainCurl m_curl;
};

void CompareGet(benchmark::State& state, const char* limit, int batch, const char* path) {
  const char* const server = std::getenv("ZUNETWORK_BENCH_URL");
  if (server == nullptr) return state.SkipWithError("ZUNETWORK_BENCH_URL is not set");
  OurGet ours(server);
  PlainGet floor(server);
  Compare(
      state, limit, batch, [&] { benchmark::DoNotOptimize(ours.Run(path)); },
      [&] { benchmark::DoNotOptimize(floor.Run(path)); });
}

void Get1KiB(benchmark::State& state) { CompareGet(state, "1.04", 20, "/1KiB.bin"); }
BENCHMARK(Get1KiB)->Unit(benchmark::kMillisecond)->MinTime(3);

void Get256MiB(benchmark::State& state) { CompareGet(state, "1.01", 1, "/256MiB.bin"); }
BENCHMARK(Get256MiB)->Unit(benchmark::kMillisecond)->MinTime(8);

void RunProgram(const char* path) {
  char* arguments[] = {const_cast<char*>(path), nullptr};
  pid_t process = 0;
  int status = 0;
  if (posix_spawn(&process, path, nullptr, nullptr, arguments, environ) != 0) std::abort();
  if (waitpid(process, &status, 0) != process || status != 0) std::abort();
}

void ProgramStart(benchmark::State& state) {
  Compare(
      state, "1.05", 1, [] { RunProgram(START_WITH_LIBRARY); },
      [] { RunProgram(START_WITH_DLOPEN); });
}
BENCHMARK(ProgramStart)->Unit(benchmark::kMillisecond)->MinTime(5);

}  // namespace

// The transfers beside libcurl, linked and called with the same options. The server is started by
// run.sh, which names it in ZUNETWORK_BENCH_URL.

#include <dlfcn.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstdlib>

#include "Compare.h"
#include "ZuNetwork/KdHTTPReq.h"

// The checks of curl.h want literal option values.
#undef curl_easy_setopt
#undef curl_easy_getinfo

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

size_t CountBytes(char* /*data*/, size_t size, size_t count, void* instance) {
  *static_cast<size_t*>(instance) += size * count;
  return size * count;
}

int Silence(void* /*handle*/, void* /*type*/, char* /*data*/, unsigned long /*size*/,
            void* /*instance*/) {
  return 0;
}

int SilencePlain(CURL* /*handle*/, curl_infotype /*type*/, char* /*data*/, size_t /*size*/,
                 void* /*instance*/) {
  return 0;
}

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
  explicit PlainGet(std::string server) : m_server(std::move(server)) {
    curl_easy_setopt(m_handle, CURLOPT_ERRORBUFFER, m_errorBuffer);
    curl_easy_setopt(m_handle, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(m_handle, CURLOPT_POSTREDIR, CURL_REDIR_POST_ALL);
    curl_easy_setopt(m_handle, CURLOPT_VERBOSE, 1L);
    curl_easy_setopt(m_handle, CURLOPT_DEBUGFUNCTION, SilencePlain);
    curl_easy_setopt(m_handle, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(m_handle, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(m_handle, CURLOPT_CAINFO, "./curl-ca-bundle.crt");
  }
  ~PlainGet() { curl_easy_cleanup(m_handle); }
  PlainGet(const PlainGet&) = delete;
  PlainGet& operator=(const PlainGet&) = delete;

  size_t Run(const char* path) {
    size_t bytes = 0;
    long response = 0;
    curl_easy_setopt(m_handle, CURLOPT_URL, (m_server + path).c_str());
    curl_easy_setopt(m_handle, CURLOPT_HTTPGET, 1L);
    curl_easy_setopt(m_handle, CURLOPT_WRITEDATA, &bytes);
    curl_easy_setopt(m_handle, CURLOPT_WRITEFUNCTION, CountBytes);
    if (curl_easy_perform(m_handle) != CURLE_OK) std::abort();
    curl_easy_getinfo(m_handle, CURLINFO_RESPONSE_CODE, &response);
    curl_easy_setopt(m_handle, CURLOPT_WRITEDATA, nullptr);
    curl_easy_setopt(m_handle, CURLOPT_WRITEFUNCTION, nullptr);
    curl_easy_setopt(m_handle, CURLOPT_HTTPGET, 0L);
    if (response >= 400) std::abort();
    return bytes;
  }

 private:
  std::string m_server;
  char m_errorBuffer[CURL_ERROR_SIZE] = {};
  CURL* m_handle = curl_easy_init();
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

// HTTP beside libcurl, linked, and POCO. run.sh starts the servers and names them in the
// environment.

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <memory>

#include "Compare.h"
#include "Get.h"

namespace {

// Standard error goes to a file as long as this lives.
class StandardErrorToFile {
 public:
  StandardErrorToFile() { Redirect(m_file == nullptr ? STDERR_FILENO : fileno(m_file)); }
  ~StandardErrorToFile() {
    Redirect(m_kept);
    close(m_kept);
    if (m_file != nullptr) std::fclose(m_file);
  }
  StandardErrorToFile(const StandardErrorToFile&) = delete;
  StandardErrorToFile& operator=(const StandardErrorToFile&) = delete;

 private:
  static void Redirect(int descriptor) { dup2(descriptor, STDERR_FILENO); }

  int m_kept = dup(STDERR_FILENO);
  std::FILE* m_file = std::tmpfile();
};

template <typename Getter>
Timed Get(const char* name, const char* server, const char* path, size_t size) {
  return Call(name, [getter = std::make_shared<Getter>(server), path, size] {
    if (getter->Get(path) != size) std::abort();
  });
}

void Get1KiB(benchmark::State& state) {
  const char* const server = FromEnvironment(state, "ZUNETWORK_BENCH_URL");
  if (server == nullptr) return;
  const char* const path = "/1KiB.bin";
  constexpr size_t kSize = 1024;
  const StandardErrorToFile standardError;
  Compare(state, Ratio(1.02), Get<OurGet>("download", server, path, kSize),
          Get<SameGet>("linked libcurl with the same options", server, path, kSize),
          {Get<PlainGet>("libcurl as it comes", server, path, kSize),
           Get<TracingGet>("trace on standard error", server, path, kSize),
           Get<PocoGet>("POCO", server, path, kSize)});
}
ROW(Get1KiB, "HTTP/Get1KiB");

void Get256MiB(benchmark::State& state) {
  const char* const server = FromEnvironment(state, "ZUNETWORK_BENCH_URL");
  if (server == nullptr) return;
  const char* const path = "/256MiB.bin";
  constexpr size_t kSize = size_t{256} << 20;
  Compare(state, Ratio(1.01), Get<OurGet>("download", server, path, kSize),
          Get<SameGet>("linked libcurl with the same options", server, path, kSize),
          {Get<BigBufferGet>("buffer of 512 KiB", server, path, kSize),
           Get<PocoGet>("POCO", server, path, kSize)});
}
ROW(Get256MiB, "HTTP/Get256MiB");

// With the certificates of the system, which cost more to read than all the rest.
template <typename Getter>
Timed GetTls(const char* name, const char* server, const char* bundle, bool isKept) {
  const auto make = [server, bundle] {
    auto getter = std::make_shared<Getter>(server);
    getter->Trust(bundle);
    return getter;
  };
  return Call(name, [make, kept = isKept ? make() : nullptr] {
    if ((kept ? kept : make())->Get("/1KiB.bin") != 1024) std::abort();
  });
}

void GetTls1KiB(benchmark::State& state, bool isKept) {
  const char* const server = FromEnvironment(state, "ZUNETWORK_BENCH_HTTPS");
  const char* const bundle = FromEnvironment(state, "ZUNETWORK_BENCH_CAS");
  if (server == nullptr || bundle == nullptr) return;
  Compare(
      state, Ratio(1.02),
      GetTls<OurGet>(isKept ? "download" : "a new request and download", server, bundle, isKept),
      GetTls<SameGet>("linked libcurl with the same options", server, bundle, isKept));
}
ROW_OF(GetTls1KiB, "HTTP/GetTls1KiB", true);
ROW_OF(GetTls1KiB, "HTTP/GetTls1KiBNewObject", false);

}  // namespace

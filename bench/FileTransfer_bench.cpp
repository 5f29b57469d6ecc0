// Listings beside a scan by hand, transfers of files beside libcurl and signing beside OpenSSL,
// both linked and called in the same way. Servers, files and the key come from run.sh, which names
// them in the environment.

#include <dlfcn.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "Compare.h"
#include "PlainCurl.h"
#include "ZuNetwork/KdHTTPReq.h"
#include "ZuNetwork/KdSFTPReq.h"

namespace {

constexpr size_t kMiB = 1024 * 1024;

// Null, and the row skipped, where it is not set.
const char* FromEnvironment(benchmark::State& state, const char* name) {
  const char* const value = std::getenv(name);
  if (value == nullptr) state.SkipWithError((std::string(name) + " is not set").c_str());
  return value;
}

// A page of 16 MiB with some 200,000 links, as a server with upper-case tags writes it.
class ListingPage {
 public:
  ListingPage() {
    std::string page = "<html><body><pre>";
    page.reserve(16 * kMiB);
    for (int i = 0; page.size() < 16 * kMiB; ++i) {
      const std::string number = std::to_string(1000000 + i);
      page += "<A HREF=\"/listed/report%20of%20" + number + (i % 8 == 0 ? "/" : "") +
              "\">report of " + number + "</A> 2021-01-01<br>\r\n";
    }
    const int descriptor = mkstemp(m_path);
    if (write(descriptor, page.data(), page.size()) != static_cast<ssize_t>(page.size())) {
      std::abort();
    }
    close(descriptor);
  }
  ~ListingPage() { unlink(m_path); }
  ListingPage(const ListingPage&) = delete;
  ListingPage& operator=(const ListingPage&) = delete;

  const char* Path() const { return m_path; }

 private:
  char m_path[32] = "/tmp/zunetwork-listing-XXXXXX";
};

std::string Unescape(void* library, std::string_view name) {
  using Function = char* (*)(CURL*, const char*, int, int*);
  using Free = void (*)(void*);
  const auto unescape = reinterpret_cast<Function>(dlsym(library, "curl_easy_unescape"));
  char* const text = unescape(nullptr, name.data(), static_cast<int>(name.size()), nullptr);
  std::string result = text;
  reinterpret_cast<Free>(dlsym(library, "curl_free"))(text);
  return result;
}

std::vector<KdCURL::FileDirInfo> ScanByHand(void* library, const char* path) {
  struct stat status;
  const int descriptor = open(path, O_RDONLY | O_CLOEXEC);
  if (descriptor == -1 || fstat(descriptor, &status) != 0) std::abort();
  const auto size = static_cast<size_t>(status.st_size);
  const std::unique_ptr<char[]> bytes(new char[size]);
  if (read(descriptor, bytes.get(), size) != status.st_size) std::abort();
  close(descriptor);

  constexpr std::string_view kMarker = "HREF=\"";
  const std::string_view page(bytes.get(), size);
  std::vector<KdCURL::FileDirInfo> entries;
  for (size_t link = page.find(kMarker); link != page.npos; link = page.find(kMarker, link)) {
    link += kMarker.size();
    std::string_view target = page.substr(link, page.find('"', link) - link);
    link += target.size();
    KdCURL::FileDirInfo& entry = entries.emplace_back();
    entry.isFile = target.back() != '/';
    if (!entry.isFile) target.remove_suffix(1);
    entry.name = Unescape(library, target.substr(target.rfind('/') + 1));
  }
  return entries;
}

void Listing16MiB(benchmark::State& state) {
  const ListingPage page;
  void* const library = dlopen("libcurl.so", RTLD_LAZY);
  KdCURL::KdHTTPReq request(KdCURL::HTTP);
  if (Failed(request.initialize())) std::abort();
  const size_t count = ScanByHand(library, page.Path()).size();
  state.counters["links"] = static_cast<double>(count);
  Compare(
      state, "1.10", 1,
      [&] {
        std::vector<KdCURL::FileDirInfo> entries;
        if (Failed(request.collectFilesAndDir(page.Path(), &entries, "/listed/"))) std::abort();
        if (entries.size() != count) std::abort();
      },
      [&] {
        if (ScanByHand(library, page.Path()).size() != count) std::abort();
      });
}
BENCHMARK(Listing16MiB)->Unit(benchmark::kMillisecond)->Iterations(15);

// The other side of a transfer: a server, who asks there, whether each turn has a connection of its
// own (or the server's process behind the one may be slower than that behind the other for all
// turns), and the names of a file to get, a file to send and the name it gets.
struct Peer {
  const char* server;
  const char* user;
  const char* key;
  long newConnections;
  std::string remoteFile;
  std::string localFile;
  std::string remoteTarget;
  size_t size;
};

template <typename Request>
class OurTransfer {
 public:
  explicit OurTransfer(const Peer& peer) : m_peer(peer) {
    if (Failed(m_request.initialize())) std::abort();
    if (Failed(m_request.setTraceCallBack(this, Silence))) std::abort();
    if (Failed(m_request.setCredentials(peer.user, ""))) std::abort();
    m_request.setURL(peer.server);
    if (Failed(m_request.setOption(CURLOPT_FORBID_REUSE, peer.newConnections))) std::abort();
    if (peer.key == nullptr) return;
    if (Failed(m_request.setOption(CURLOPT_SSH_PRIVATE_KEYFILE, peer.key))) std::abort();
  }

  void Download() {
    size_t bytes = 0;
    m_request.setWriteCallBack(&bytes, CountBytes);
    if (Failed(m_request.download(m_peer.remoteFile.c_str(), {}))) std::abort();
    if (bytes != m_peer.size) std::abort();
  }

  void Upload() {
    if (Failed(m_request.uploadFile(m_peer.localFile.c_str(), m_peer.remoteTarget.c_str(),
                                    m_peer.size, {}))) {
      std::abort();
    }
  }

 private:
  const Peer& m_peer;
  Request m_request;
};

class PlainTransfer {
 public:
  explicit PlainTransfer(const Peer& peer) : m_peer(peer) {
    m_curl.Set(CURLOPT_USERPWD, (std::string(peer.user) + ":").c_str());
    m_curl.Set(CURLOPT_FORBID_REUSE, peer.newConnections);
    if (peer.key != nullptr) m_curl.Set(CURLOPT_SSH_PRIVATE_KEYFILE, peer.key);
  }

  void Download() {
    size_t bytes = 0;
    SetUrl(m_peer.remoteFile);
    m_curl.SetCallBack(CURLOPT_WRITEDATA, CURLOPT_WRITEFUNCTION, &bytes, CountBytes);
    m_curl.Perform();
    m_curl.SetCallBack(CURLOPT_WRITEDATA, CURLOPT_WRITEFUNCTION, nullptr, nullptr);
    if (bytes != m_peer.size) std::abort();
  }

  void Upload() {
    int descriptor = open(m_peer.localFile.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor == -1) std::abort();
    SetUrl(m_peer.remoteTarget);
    m_curl.Set(CURLOPT_UPLOAD, 1L);
    m_curl.Set(CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(m_peer.size));
    m_curl.Set(CURLOPT_FTP_CREATE_MISSING_DIRS, 1L);
    m_curl.SetCallBack(CURLOPT_READDATA, CURLOPT_READFUNCTION, &descriptor, ReadFile);
    m_curl.Perform();
    m_curl.SetCallBack(CURLOPT_READDATA, CURLOPT_READFUNCTION, nullptr, nullptr);
    m_curl.Set(CURLOPT_UPLOAD, 0L);
    m_curl.Set(CURLOPT_INFILESIZE_LARGE, curl_off_t{0});
    close(descriptor);
  }

 private:
  static size_t ReadFile(char* buffer, size_t size, size_t count, void* instance) {
    const ssize_t length = read(*static_cast<int*>(instance), buffer, size * count);
    return length == -1 ? CURL_READFUNC_ABORT : static_cast<size_t>(length);
  }

  void SetUrl(const std::string& path) {
    m_curl.Set(CURLOPT_URL, (std::string(m_peer.server) + "/" + path).c_str());
    m_curl.Set(CURLOPT_HTTPPROXYTUNNEL, 1L);
  }

  const Peer& m_peer;
  PlainCurl m_curl;
};

template <typename Request>
void CompareDownload(benchmark::State& state, const Peer& peer) {
  OurTransfer<Request> ours(peer);
  PlainTransfer floor(peer);
  Compare(
      state, "1.02", 1, [&] { ours.Download(); }, [&] { floor.Download(); });
}

template <typename Request>
void CompareUpload(benchmark::State& state, const Peer& peer) {
  OurTransfer<Request> ours(peer);
  PlainTransfer floor(peer);
  Compare(
      state, "1.02", 1, [&] { ours.Upload(); }, [&] { floor.Upload(); });
}

using Comparison = void (*)(benchmark::State&, const Peer&);

void Ftp1GiB(benchmark::State& state, Comparison compare) {
  const char* const server = FromEnvironment(state, "ZUNETWORK_BENCH_FTP");
  const char* const folder = FromEnvironment(state, "ZUNETWORK_BENCH_FILES");
  if (server == nullptr || folder == nullptr) return;
  compare(state, {server, "anonymous", nullptr, 1, "1GiB.bin", folder + std::string("/1GiB.bin"),
                  "in/1GiB.bin", 1024 * kMiB});
}
BENCHMARK_CAPTURE(Ftp1GiB, Download, CompareDownload<KdCURL::KdFTPReq>)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(15);
BENCHMARK_CAPTURE(Ftp1GiB, Upload, CompareUpload<KdCURL::KdFTPReq>)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(15);

void Sftp256MiB(benchmark::State& state, Comparison compare) {
  const char* const server = FromEnvironment(state, "ZUNETWORK_BENCH_SFTP");
  const char* const user = FromEnvironment(state, "ZUNETWORK_BENCH_SFTP_USER");
  const char* const key = FromEnvironment(state, "ZUNETWORK_BENCH_SFTP_KEY");
  const char* const folder = FromEnvironment(state, "ZUNETWORK_BENCH_FILES");
  if (server == nullptr || user == nullptr || key == nullptr || folder == nullptr) return;
  // The slash that ends the server is the first one of the path.
  const std::string file = std::string(folder + 1) + "/256MiB.bin";
  compare(state, {server, user, key, 0, file, folder + std::string("/256MiB.bin"), file + ".in",
                  256 * kMiB});
}
BENCHMARK_CAPTURE(Sftp256MiB, Download, CompareDownload<KdCURL::KdSFTPReq>)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(7);
BENCHMARK_CAPTURE(Sftp256MiB, Upload, CompareUpload<KdCURL::KdSFTPReq>)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(7);

constexpr char kPassPhrase[] = "secret";
constexpr size_t kSignatureSize = 256;

void SignPlain(const char* path, const std::string& data, unsigned char* signature) {
  std::FILE* const file = std::fopen(path, "r");
  if (file == nullptr) std::abort();
  PKCS12* const pkcs12 = d2i_PKCS12_fp(file, nullptr);
  std::fclose(file);
  X509* certificate = nullptr;
  EVP_PKEY* key = nullptr;
  if (PKCS12_parse(pkcs12, kPassPhrase, &key, &certificate, nullptr) != 1) std::abort();
  PKCS12_free(pkcs12);
  EVP_MD_CTX* const context = EVP_MD_CTX_new();
  unsigned size = 0;
  if (EVP_DigestInit(context, EVP_sha256()) != 1 ||
      EVP_DigestUpdate(context, data.data(), data.size()) != 1 ||
      EVP_SignFinal(context, signature, &size, key) != 1 || size != kSignatureSize) {
    std::abort();
  }
  EVP_MD_CTX_free(context);
  X509_free(certificate);
  EVP_PKEY_free(key);
}

void Sign100MiB(benchmark::State& state) {
  const char* const key = FromEnvironment(state, "ZUNETWORK_BENCH_KEY");
  if (key == nullptr) return;
  const std::string data(100 * kMiB, 'x');
  unsigned char ours[kSignatureSize] = {};
  unsigned char floor[kSignatureSize] = {};
  Compare(
      state, "1.02", 1,
      [&] {
        unsigned size = 0;
        if (CurlWrapper::gCurlWrapper.SignSHA256withRSA(
                key, data.data(), static_cast<int>(data.size()), kPassPhrase, ours, &size) != 1) {
          std::abort();
        }
      },
      [&] { SignPlain(key, data, floor); });
  if (std::memcmp(ours, floor, kSignatureSize) != 0) state.SkipWithError("signatures differ");
}
BENCHMARK(Sign100MiB)->Unit(benchmark::kMillisecond)->Iterations(15);

}  // namespace
